#pragma once

#include <QByteArray>
#include <QHash>
#include <QList>
#include <QObject>
#include <QTcpServer>
#include <QUrl>

class QTcpSocket;

// A small HTTP/1.1 server on loopback for tests and benchmarks. It records each request (keeping
// at most keepBodyBytes of its body) and answers as scripted: a status with a body, a connection
// reset, or no answer until the test releases it.
class HttpStub : public QObject
{
    Q_OBJECT
public:
    /// How one request is answered.
    struct Answer
    {
        enum Kind { Reply, Reset, Hang, Cut };
        Kind kind = Reply;
        int status = 200;
        QByteArray body;
        QByteArray contentType = "text/plain";
        int delayMs = 0; ///< wait this long before answering
        QByteArray version = "HTTP/1.1"; ///< of the status line
        qint64 cutAfterBytes = 0; ///< Cut: close the connection once this much of the body arrived
    };
    /// A request as received; header names in lower case.
    struct Request
    {
        QByteArray method;
        QUrl url;
        QHash<QByteArray, QByteArray> headers;
        QByteArray body;
    };

    explicit HttpStub(QObject *parent = nullptr);
    ~HttpStub() override { close(); }

    /// Listens on 127.0.0.1 (port 0 picks a free one).
    bool listen(quint16 port = 0) { return m_server->listen(QHostAddress::LocalHost, port); }
    /// Stops listening and drops every connection.
    void close();
    /// Port listened on.
    quint16 port() const { return m_server->serverPort(); }
    /// host:port.
    QString address() const { return QStringLiteral("127.0.0.1:%1").arg(port()); }

    /// A status answer.
    static Answer status(int code, const QByteArray &body = QByteArray()) { return Answer{Answer::Reply, code, body}; }
    /// No answer until release().
    static Answer hang() { return Answer{Answer::Hang}; }
    /// Closes the connection in the middle of the request's body, after `bytes` of it.
    static Answer cut(qint64 bytes) { return Answer{Answer::Cut, 0, {}, "text/plain", 0, "HTTP/1.1", bytes}; }
    /// The answer used when the script is empty.
    void setDefault(const Answer &answer) { m_default = answer; }
    /// Appends answers for the next requests, in order.
    void script(const QList<Answer> &answers) { m_script += answers; }
    /// Answers every request held by hang() with this.
    void release(const Answer &answer)
    {
        for (QTcpSocket *socket : std::exchange(m_hanging, {}))
            respond(socket, answer);
    }
    /// Requests held by hang() and not yet released.
    int hanging() const { return int(m_hanging.size()); }

    /// Every request received, oldest first.
    QList<Request> requests;
    /// At most this many body bytes are kept per request.
    qint64 keepBodyBytes = 1 << 20;

Q_SIGNALS:
    /// A complete request has been received.
    void requestReceived();

private:
    struct Client
    {
        QByteArray buffer;
        Request request;
        qint64 remaining = -1; // body bytes still to come; -1 while reading the head
        qint64 received = 0;   // body bytes received
    };
    void readFrom(QTcpSocket *socket);
    void respond(QTcpSocket *socket, const Answer &answer);

    QTcpServer *m_server;
    QHash<QTcpSocket *, Client> m_clients;
    QList<QTcpSocket *> m_hanging;
    QList<Answer> m_script;
    Answer m_default;
};
