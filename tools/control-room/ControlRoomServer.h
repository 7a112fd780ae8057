#pragma once

#include <QDir>
#include <QHostAddress>
#include <QJsonObject>
#include <QObject>
#include <QUrl>
#include <QUrlQuery>

#include <functional>
#include <future>
#include <memory>
#include <thread>

class Room;
class OperatorToken;
namespace boost::asio {
class io_context;
}

// The control room: agents on ws://host:port/agent, their uploads, events and sales over HTTP,
// and the operator's page with its own WebSocket, all on one port. The network runs on a thread
// of its own; the calls below hand work to it and wait for it (waitMs at most: then they give up,
// say so, and answer as if nothing happened: port 0, no agents, an empty state). Every arrival is
// also signalled (queued to the receiver's thread), so that other programs (the agent's tests
// among them) can build on it.
class ControlRoomServer : public QObject
{
    Q_OBJECT
public:
    /// Stores uploads below `uploads`; a fresh operator token unless one is given.
    explicit ControlRoomServer(const QDir &uploads, QObject *parent = nullptr, const QString &token = QString());
    ~ControlRoomServer() override;

    /// Listens on `address` at `port` (0 picks one); returns the port or 0.
    quint16 listen(quint16 port, const QHostAddress &address = QHostAddress::AnyIPv4);
    /// Stops listening and drops every agent and open request (the room is down).
    void goDown();
    /// Listens again where it listened before; false when it cannot.
    bool comeBack();
    /// Agents connected now.
    int agentCount() const;
    /// Sends a raw text message to every agent (anything, even what no command table knows).
    void sendText(const QString &text);
    /// Closes every agent's link from the room's side.
    void dropAgents();
    /// Prints nothing when set.
    bool quiet = false;
    /// How long a call waits for the network thread, in milliseconds.
    int waitMs = 5000;
    /// Sends a JSON text as it is to the agent with this number, or to every agent when id is 0.
    int send(int agentId, const QByteArray &json);
    /// Sends a command after checking it; the line that says what happened (refusal, count, warning).
    QString command(int agentId, const QJsonObject &command);
    /// Prints the connected agents.
    void list() const;
    /// The operator's token (for the page's address).
    QString token() const;
    /// Names the room on its page.
    void setName(const QString &name);
    /// The state as GET /api/state gives it.
    QJsonObject state() const;

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
    /// The room printed this line (even when quiet).
    void said(const QString &line) const;

protected:
    void connectNotify(const QMetaMethod &signal) override;

private:
    /// Runs `work` on the network thread and waits for its result; `otherwise` when that takes
    /// longer than waitMs.
    template<class T>
    T ask(std::function<T()> work, T otherwise) const;
    /// Runs `work` on the network thread and waits for it as ask() does.
    void tell(std::function<void()> work) const;
    void say(const QString &line) const;

    std::unique_ptr<boost::asio::io_context> m_io;
    std::unique_ptr<Room> m_room;
    std::thread m_thread;
    std::future<void> m_threadEnded; // ready once the network thread's loop has returned
    std::atomic<bool> m_binaryWanted{false};
};
