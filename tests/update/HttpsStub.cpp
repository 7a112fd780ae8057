#include "HttpsStub.h"

#include <QSslSocket>

void HttpsStub::incomingConnection(qintptr fd)
{
    auto *socket = new QSslSocket(this);
    if (!socket->setSocketDescriptor(fd))
        return delete socket;
    socket->setLocalCertificate(m_cert);
    socket->setPrivateKey(m_key);
    auto buffer = std::make_shared<QByteArray>();
    connect(socket, &QSslSocket::readyRead, this, [this, socket, buffer] {
        *buffer += socket->readAll();
        const qsizetype end = buffer->indexOf("\r\n\r\n");
        if (end < 0)
            return;
        const QByteArray path = buffer->left(buffer->indexOf('\n')).split(' ').value(1);
        paths.append(path);
        heads.append(buffer->left(end).toLower());
        buffer->clear();
        respond(socket, path, true);
    });
    connect(socket, &QSslSocket::disconnected, socket, &QObject::deleteLater);
    socket->startServerEncryption();
}

void HttpsStub::release()
{
    for (const auto &[socket, path] : std::exchange(m_held, {}))
        respond(socket, path, false);
}

void HttpsStub::respond(QSslSocket *socket, const QByteArray &path, bool mayHang)
{
    const Answer answer = m_routes.value(path, Answer{404, "not here"});
    if (answer.hang && mayHang)
        return m_held.append({socket, path});
    QByteArray head = "HTTP/1.1 " + QByteArray::number(answer.status) + " Answer\r\nConnection: close\r\n";
    if (!answer.location.isEmpty())
        head += "Location: " + answer.location + "\r\n";
    if (answer.withLength)
        head += "Content-Length: " + QByteArray::number(answer.body.size()) + "\r\n";
    socket->write(head + "\r\n" + answer.body);
    socket->disconnectFromHost();
}
