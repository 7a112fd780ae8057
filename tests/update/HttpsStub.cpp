#include "HttpsStub.h"

#include <QPointer>
#include <QSslSocket>

HttpsStub::HttpsStub(const QSslCertificate &cert, const QSslKey &key, QObject *parent)
    : QTcpServer(parent)
    , m_cert(cert)
    , m_key(key)
{
}

void HttpsStub::incomingConnection(qintptr fd)
{
    auto *socket = new QSslSocket(this);
    if (!socket->setSocketDescriptor(fd)) {
        delete socket;
        return;
    }
    socket->setLocalCertificate(m_cert);
    socket->setPrivateKey(m_key);
    connect(socket, &QSslSocket::readyRead, this, [this, socket] { readFrom(socket); });
    connect(socket, &QSslSocket::disconnected, this, [this, socket] {
        m_buffers.remove(socket);
        socket->deleteLater();
    });
    socket->startServerEncryption();
}

void HttpsStub::readFrom(QSslSocket *socket)
{
    QByteArray &buffer = m_buffers[socket];
    buffer += socket->readAll();
    const qsizetype end = buffer.indexOf("\r\n\r\n");
    if (end < 0)
        return;
    const QList<QByteArray> lines = buffer.left(end).split('\n');
    buffer.clear();
    const QByteArray path = lines.value(0).split(' ').value(1);
    QHash<QByteArray, QByteArray> head;
    for (qsizetype i = 1; i < lines.size(); ++i) {
        const qsizetype colon = lines[i].indexOf(':');
        if (colon > 0)
            head.insert(lines[i].left(colon).trimmed().toLower(), lines[i].mid(colon + 1).trimmed());
    }
    paths.append(path);
    headers.append(head);
    const Answer answer = m_routes.value(path, Answer{404, "not here"});
    if (answer.hang)
        m_held.append({socket, path});
    else
        respond(socket, answer);
}

void HttpsStub::release()
{
    for (const auto &[socket, path] : std::exchange(m_held, {})) {
        Answer answer = m_routes.value(path, Answer{404, "not here"});
        answer.hang = false;
        respond(socket, answer);
    }
}

void HttpsStub::respond(QSslSocket *socket, Answer answer)
{
    QByteArray head = "HTTP/1.1 " + QByteArray::number(answer.status) + " Answer\r\nConnection: close\r\n";
    if (!answer.location.isEmpty())
        head += "Location: " + answer.location + "\r\n";
    if (answer.withLength)
        head += "Content-Length: " + QByteArray::number(answer.body.size()) + "\r\n";
    socket->write(head + "\r\n");
    socket->write(answer.body);
    socket->disconnectFromHost();
}
