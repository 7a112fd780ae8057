#include "HttpStub.h"

#include <QPointer>
#include <QTcpSocket>
#include <QTimer>

HttpStub::HttpStub(QObject *parent)
    : QObject(parent)
    , m_server(new QTcpServer(this))
{
    connect(m_server, &QTcpServer::newConnection, this, [this] {
        while (QTcpSocket *socket = m_server->nextPendingConnection()) {
            m_clients.insert(socket, Client());
            connect(socket, &QTcpSocket::readyRead, this, [this, socket] { readFrom(socket); });
            connect(socket, &QTcpSocket::disconnected, this, [this, socket] {
                m_clients.remove(socket);
                m_hanging.removeAll(socket);
                socket->deleteLater();
            });
        }
    });
}

void HttpStub::close()
{
    m_server->close();
    for (QTcpSocket *socket : m_clients.keys()) {
        socket->disconnect(this);
        socket->abort();
        socket->deleteLater();
    }
    m_clients.clear();
    m_hanging.clear();
}

void HttpStub::readFrom(QTcpSocket *socket)
{
    Client &c = m_clients[socket];
    c.buffer += socket->readAll();
    for (;;) {
        if (c.remaining < 0) {
            const qsizetype end = c.buffer.indexOf("\r\n\r\n");
            if (end < 0)
                return;
            const QList<QByteArray> lines = c.buffer.left(end).split('\n');
            c.buffer.remove(0, end + 4);
            c.request = Request();
            const QList<QByteArray> first = lines.value(0).trimmed().split(' ');
            c.request.method = first.value(0);
            c.request.url = QUrl::fromEncoded(first.value(1));
            for (const QByteArray &line : lines.mid(1))
                if (const qsizetype colon = line.indexOf(':'); colon > 0)
                    c.request.headers.insert(line.left(colon).trimmed().toLower(), line.mid(colon + 1).trimmed());
            c.remaining = c.request.headers.value("content-length").toLongLong();
            c.received = 0;
        }
        const qsizetype take = qsizetype(qMin<qint64>(c.buffer.size(), c.remaining));
        c.request.body += c.buffer.left(qsizetype(qBound<qint64>(0, keepBodyBytes - c.request.body.size(), take)));
        c.buffer.remove(0, take);
        c.received += take;
        const Answer &next = m_script.isEmpty() ? m_default : m_script.first();
        const bool cut = next.kind == Answer::Cut && c.remaining - take > 0 && c.received >= next.cutAfterBytes;
        if ((c.remaining -= take) > 0 && !cut)
            return;
        c.remaining = -1;
        requests.append(c.request);
        const Answer answer = m_script.isEmpty() ? m_default : m_script.takeFirst();
        Q_EMIT requestReceived();
        if (cut) {
            m_clients.remove(socket);
            socket->abort();
            return;
        }
        if (answer.kind == Answer::Hang) {
            m_hanging.append(socket);
        } else {
            QPointer<QTcpSocket> guard(socket);
            QTimer::singleShot(answer.delayMs, this, [this, guard, answer] {
                if (guard && m_clients.contains(guard))
                    respond(guard, answer);
            });
        }
    }
}

void HttpStub::respond(QTcpSocket *socket, const Answer &answer)
{
    if (answer.kind == Answer::Reset || answer.kind == Answer::Cut) {
        socket->abort();
        return;
    }
    socket->write(answer.version + ' ' + QByteArray::number(answer.status) + " Stub\r\nContent-Type: " + answer.contentType
                  + "\r\nContent-Length: " + QByteArray::number(answer.body.size()) + "\r\n\r\n" + answer.body);
}
