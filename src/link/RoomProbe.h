#pragma once

#include <QObject>
#include <QString>

#include <functional>

class QNetworkAccessManager;

// Asks a control room whether it answers: GET "/" on its host and port. Any HTTP answer counts,
// whatever its status; no answer within the time limit, or no connection, does not.
class RoomProbe : public QObject
{
    Q_OBJECT
public:
    /// Probes over this network manager.
    explicit RoomProbe(QNetworkAccessManager &net, QObject *parent = nullptr);

    /// Probes http://host:port/; done(reachable) runs on this object's thread. False when no URL
    /// can be made of host and port (done is then not called).
    bool probe(const QString &host, int port, std::function<void(bool reachable)> done);

    /// Time limit of one probe in milliseconds.
    int timeoutMs = 2000;

private:
    QNetworkAccessManager &m_net;
};
