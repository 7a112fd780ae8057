#pragma once

#include <QDir>
#include <QHash>
#include <QHttpServer>
#include <QObject>

#include <memory>

class QWebSocket;

// A small control room for trying the agent out on one machine or a test network: accepts agents
// on ws://host:port/agent, prints their status when it changes, stores uploaded segments under a
// folder, prints agent events, and sends commands typed by the operator.
class ControlRoomServer : public QObject
{
    Q_OBJECT
public:
    /// Stores uploads below `uploads`.
    explicit ControlRoomServer(const QDir &uploads, QObject *parent = nullptr);
    ~ControlRoomServer() override;

    /// Listens on all IPv4 addresses at `port` (0 picks one); returns the port or 0.
    quint16 listen(quint16 port);
    /// Sends a JSON command to the agent with this number, or to every agent when id is 0.
    int send(int agentId, const QByteArray &json);
    /// Prints the connected agents.
    void list() const;

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

    QHttpServer m_http;
    QDir m_uploads;
    QHash<QWebSocket *, Agent> m_agents;
    std::vector<std::unique_ptr<QWebSocket>> m_sockets;
};
