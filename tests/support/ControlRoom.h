#pragma once

#include <QByteArray>
#include <QList>
#include <QObject>
#include <QString>
#include <QUrl>

class QWebSocket;
class QWebSocketServer;

// A control room on loopback for tests: accepts agents on /agent, records the URL each one used,
// the text and binary messages they send, and lets the test send commands or drop them.
class ControlRoom : public QObject
{
    Q_OBJECT
public:
    explicit ControlRoom(QObject *parent = nullptr);
    ~ControlRoom() override;

    /// Listens on 127.0.0.1 (port 0 picks a free one); returns false when it cannot.
    bool listen(quint16 port = 0);
    /// Stops listening and drops every agent.
    void close();
    /// host:port of the room.
    QString address() const;
    /// Port listened on.
    quint16 port() const;

    /// Sends text to the newest agent.
    void sendText(const QString &text);
    /// Sends bytes as a binary frame to the newest agent.
    void sendBinary(const QByteArray &bytes);
    /// Closes the newest agent's socket from the room's side.
    void dropAgent();

    /// Number of agents connected now.
    int openCount() const;
    /// Every request URL seen, oldest first.
    QList<QUrl> urls;
    /// Every text message received, oldest first.
    QStringList texts;
    /// Every binary message received, oldest first.
    QList<QByteArray> binaries;
    /// Total connections accepted.
    int accepted = 0;

signals:
    void agentConnected();
    void textReceived(const QString &text);

private:
    QWebSocketServer *m_server = nullptr;
    QList<QWebSocket *> m_agents;
};
