#pragma once

#include <QDir>
#include <QHash>
#include <QHostAddress>
#include <QHttpServer>
#include <QObject>
#include <QUrl>
#include <QUrlQuery>

#include <memory>

class QWebSocket;

// A small control room for trying the agent out on one machine or a test network: accepts agents
// on ws://host:port/agent, prints their status when it changes, stores uploaded segments under a
// folder, prints agent events, and sends commands typed by the operator. Every arrival is also
// signalled, so that other programs (the agent's tests among them) can build on it.
class ControlRoomServer : public QObject
{
    Q_OBJECT
public:
    /// Stores uploads below `uploads`.
    explicit ControlRoomServer(const QDir &uploads, QObject *parent = nullptr);
    ~ControlRoomServer() override;

    /// Listens on `address` at `port` (0 picks one); returns the port or 0.
    quint16 listen(quint16 port, const QHostAddress &address = QHostAddress::AnyIPv4);
    /// Stops listening and drops every agent and open request (the room is down).
    void goDown();
    /// Listens again where it listened before; false when it cannot.
    bool comeBack();
    /// Agents connected now.
    int agentCount() const { return int(m_agents.size()); }
    /// Sends a raw text message to every agent (anything, even what no command table knows).
    void sendText(const QString &text);
    /// Closes every agent's link from the room's side.
    void dropAgents();
    /// Prints nothing when set.
    bool quiet = false;
    /// Sends a JSON command to the agent with this number, or to every agent when id is 0.
    int send(int agentId, const QByteArray &json);
    /// Prints the connected agents.
    void list() const;

Q_SIGNALS:
    /// An agent opened its link with this URL.
    void agentConnected(const QUrl &url);
    /// An agent sent this text message.
    void textReceived(const QString &text);
    /// An agent sent this binary frame.
    void binaryReceived(const QByteArray &frame);
    /// An upload with this query was stored at `path`.
    void uploaded(const QUrlQuery &query, const QString &path);
    /// An agent posted this event.
    void eventReceived(const QUrlQuery &query);

private:
    struct Agent {
        int id = 0;
        QString name;
        QString lastStatus;
        qint64 liveBytes = 0;
        int previews = 0;
    };
    void accept();
    void upload(const class QHttpServerRequest &request, class QHttpServerResponder &&responder);

    void say(const QString &line) const;

    QHttpServer m_http;
    QHostAddress m_address;
    quint16 m_port = 0;
    QDir m_uploads;
    QHash<QWebSocket *, Agent> m_agents;
    std::vector<std::unique_ptr<QWebSocket>> m_sockets;
};
