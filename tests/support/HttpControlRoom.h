#pragma once

#include <QByteArray>
#include <QHttpServer>
#include <QList>
#include <QObject>
#include <QString>
#include <QUrl>

#include <memory>
#include <vector>

class QWebSocket;

// A control room on loopback that serves the agent link (WebSocket "/agent") and the segment
// uploads (POST "/upload") on one port, as a real one does. It can go down and come back up on
// the same port.
class HttpControlRoom : public QObject
{
    Q_OBJECT
public:
    /// One accepted upload.
    struct Upload
    {
        QUrl url;
        QByteArray body;
    };

    explicit HttpControlRoom(QObject *parent = nullptr);
    ~HttpControlRoom() override;

    /// Listens on 127.0.0.1 (port 0 picks a free one); false when it cannot.
    bool listen(quint16 port = 0);
    /// Stops accepting connections and drops the agents (the room is down).
    void goDown();
    /// Listens again on the same port.
    bool comeBack();
    /// host:port.
    QString address() const;

    /// Sends a text command to every agent.
    void sendText(const QString &text);
    /// Agents connected now.
    int agents() const { return int(m_agents.size()); }

    /// Status answered to uploads (200 unless changed).
    int uploadStatus = 200;
    /// Uploads answered 200, oldest first.
    QList<Upload> uploads;

signals:
    void agentConnected();

private:
    QHttpServer m_http;
    quint16 m_port = 0;
    std::vector<std::unique_ptr<QWebSocket>> m_agents;
};
