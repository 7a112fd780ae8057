#pragma once

#include <QHash>
#include <QSslCertificate>
#include <QSslKey>
#include <QTcpServer>

// An HTTPS server on one loopback address, port 443 (release URLs may not name a port), answering
// GET requests by path as scripted: a body with or without a length, or a redirect.
class HttpsStub : public QTcpServer
{
    Q_OBJECT
public:
    struct Answer
    {
        int status = 200;
        QByteArray body;
        QByteArray location;    ///< a redirect's target
        bool withLength = true; ///< false: no Content-Length, the end of the body is the connection's end
        bool stall = false;     ///< claims twice the body's length, sends the body and waits
    };

    /// A server with this certificate and key.
    HttpsStub(const QSslCertificate &cert, const QSslKey &key) : m_cert(cert), m_key(key) {}
    /// Answers requests for `path` with `answer`; unknown paths get 404.
    void route(const QByteArray &path, const Answer &answer) { m_routes.insert(path, answer); }
    /// Request heads in lower case, oldest first.
    QList<QByteArray> heads;

protected:
    void incomingConnection(qintptr fd) override;

private:
    QSslCertificate m_cert;
    QSslKey m_key;
    QHash<QByteArray, Answer> m_routes;
};
