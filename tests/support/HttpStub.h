#pragma once

#include <QByteArray>
#include <QHash>
#include <QList>
#include <QObject>
#include <QString>
#include <QUrl>

#include <functional>

class QTcpServer;
class QTcpSocket;

// A small HTTP/1.1 server on loopback for tests and benchmarks. It reads each request body as it
// arrives (keeping at most keepBodyBytes of it), records the request and answers as scripted: a
// status with a body, a connection reset, or no answer at all until the test releases it.
class HttpStub : public QObject
{
    Q_OBJECT
public:
    /// How one request is answered.
    struct Answer
    {
        enum Kind { Reply, Reset, Hang };
        Kind kind = Reply;
        int status = 200;
        QByteArray body;
        QByteArray contentType = "text/plain";
        /// Wait this long before answering (Reply and Reset).
        int delayMs = 0;
    };
    /// A request as received.
    struct Request
    {
        QByteArray method;
        QUrl url;
        /// Header names in lower case.
        QHash<QByteArray, QByteArray> headers;
        QByteArray body;
        qint64 bodySize = 0;
    };

    explicit HttpStub(QObject *parent = nullptr);
    ~HttpStub() override;

    /// Listens on 127.0.0.1 (port 0 picks a free one).
    bool listen(quint16 port = 0);
    /// Stops listening and drops every connection.
    void close();
    /// Port listened on.
    quint16 port() const;
    /// host:port.
    QString address() const;

    /// A status answer.
    static Answer status(int code, const QByteArray &body = QByteArray(), const QByteArray &type = "text/plain");
    /// A connection reset once the request has been read.
    static Answer reset();
    /// No answer until release().
    static Answer hang();

    /// The answer used when the script is empty.
    void setDefault(const Answer &answer) { m_default = answer; }
    /// Appends answers for the next requests, in order.
    void script(const QList<Answer> &answers) { m_script += answers; }
    /// Answers every request held by hang() with this.
    void release(const Answer &answer);
    /// Requests held by hang() and not yet released.
    int hanging() const { return int(m_hanging.size()); }

    /// Every request received, oldest first.
    QList<Request> requests;
    /// At most this many body bytes are kept per request.
    qint64 keepBodyBytes = 1 << 20;
    /// Called for each complete request before it is answered; may replace the answer.
    std::function<void(const Request &, Answer &)> onRequest;

signals:
    /// A complete request has been received.
    void requestReceived();

private:
    struct Client;
    void readFrom(QTcpSocket *socket);
    void respond(QTcpSocket *socket, const Answer &answer);
    static void write(QTcpSocket *socket, const Answer &answer);

    QTcpServer *m_server = nullptr;
    QHash<QTcpSocket *, Client *> m_clients;
    QList<QTcpSocket *> m_hanging;
    QList<Answer> m_script;
    Answer m_default;
};
