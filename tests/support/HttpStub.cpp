#include "HttpStub.h"

#include <QHostAddress>
#include <QPointer>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTimer>

struct HttpStub::Client
{
    QByteArray head;
    bool inBody = false;
    qint64 remaining = 0;
    Request request;
};

HttpStub::HttpStub(QObject *parent)
    : QObject(parent)
    , m_server(new QTcpServer(this))
{
    connect(m_server, &QTcpServer::newConnection, this, [this] {
        while (QTcpSocket *socket = m_server->nextPendingConnection()) {
            m_clients.insert(socket, new Client);
            connect(socket, &QTcpSocket::readyRead, this, [this, socket] { readFrom(socket); });
            connect(socket, &QTcpSocket::disconnected, this, [this, socket] {
                delete m_clients.take(socket);
                m_hanging.removeAll(socket);
                socket->deleteLater();
            });
        }
    });
}

HttpStub::~HttpStub()
{
    close();
}

bool HttpStub::listen(quint16 port)
{
    return m_server->listen(QHostAddress::LocalHost, port);
}

void HttpStub::close()
{
    m_server->close();
    const auto sockets = m_clients.keys();
    for (QTcpSocket *socket : sockets) {
        socket->disconnect(this);
        delete m_clients.take(socket);
        socket->abort();
        socket->deleteLater();
    }
    m_hanging.clear();
}

quint16 HttpStub::port() const
{
    return m_server->serverPort();
}

QString HttpStub::address() const
{
    return QStringLiteral("127.0.0.1:%1").arg(port());
}

HttpStub::Answer HttpStub::status(int code, const QByteArray &body, const QByteArray &type)
{
    Answer a;
    a.status = code;
    a.body = body;
    a.contentType = type;
    return a;
}

HttpStub::Answer HttpStub::reset()
{
    Answer a;
    a.kind = Answer::Reset;
    return a;
}

HttpStub::Answer HttpStub::hang()
{
    Answer a;
    a.kind = Answer::Hang;
    return a;
}

void HttpStub::release(const Answer &answer)
{
    const QList<QTcpSocket *> held = m_hanging;
    m_hanging.clear();
    for (QTcpSocket *socket : held)
        respond(socket, answer);
}

void HttpStub::readFrom(QTcpSocket *socket)
{
    Client *c = m_clients.value(socket);
    if (!c)
        return;
    while (socket->bytesAvailable() > 0) {
        if (!c->inBody) {
            c->head += socket->read(qMin<qint64>(socket->bytesAvailable(), 16384));
            const int end = c->head.indexOf("\r\n\r\n");
            if (end < 0)
                continue;
            const QByteArray rest = c->head.mid(end + 4);
            const QList<QByteArray> lines = c->head.left(end).split('\n');
            c->head.clear();
            c->request = Request();
            const QList<QByteArray> first = lines.value(0).trimmed().split(' ');
            c->request.method = first.value(0);
            c->request.url = QUrl::fromEncoded(first.value(1));
            for (int i = 1; i < lines.size(); ++i) {
                const int colon = lines[i].indexOf(':');
                if (colon > 0)
                    c->request.headers.insert(lines[i].left(colon).trimmed().toLower(), lines[i].mid(colon + 1).trimmed());
            }
            if (c->request.headers.value("expect").toLower() == "100-continue")
                socket->write("HTTP/1.1 100 Continue\r\n\r\n");
            c->remaining = c->request.headers.value("content-length").toLongLong();
            c->inBody = true;
            // Bytes after the head belong to the body; put them back in front.
            if (!rest.isEmpty()) {
                const qint64 take = qMin<qint64>(rest.size(), c->remaining);
                c->request.bodySize += take;
                c->remaining -= take;
                if (c->request.body.size() < keepBodyBytes)
                    c->request.body += rest.left(int(qMin<qint64>(take, keepBodyBytes - c->request.body.size())));
            }
        } else if (c->remaining > 0) {
            const QByteArray chunk = socket->read(qMin<qint64>(c->remaining, 1 << 20));
            c->remaining -= chunk.size();
            c->request.bodySize += chunk.size();
            if (c->request.body.size() < keepBodyBytes)
                c->request.body += chunk.left(int(qMin<qint64>(chunk.size(), keepBodyBytes - c->request.body.size())));
        }
        if (c->inBody && c->remaining == 0) {
            c->inBody = false;
            requests.append(c->request);
            Answer answer = m_script.isEmpty() ? m_default : m_script.takeFirst();
            if (onRequest)
                onRequest(c->request, answer);
            emit requestReceived();
            if (!m_clients.contains(socket))
                return;
            if (answer.kind == Answer::Hang) {
                m_hanging.append(socket);
            } else if (answer.delayMs > 0) {
                QPointer<QTcpSocket> guard(socket);
                QTimer::singleShot(answer.delayMs, this, [this, guard, answer] {
                    if (guard && m_clients.contains(guard))
                        respond(guard, answer);
                });
            } else {
                respond(socket, answer);
            }
        }
    }
}

void HttpStub::respond(QTcpSocket *socket, const Answer &answer)
{
    if (answer.kind == Answer::Reset) {
        socket->abort();
        return;
    }
    write(socket, answer);
}

void HttpStub::write(QTcpSocket *socket, const Answer &answer)
{
    QByteArray out = "HTTP/1.1 " + QByteArray::number(answer.status) + " Stub\r\n";
    out += "Content-Type: " + answer.contentType + "\r\n";
    out += "Content-Length: " + QByteArray::number(answer.body.size()) + "\r\n\r\n";
    out += answer.body;
    socket->write(out);
}
