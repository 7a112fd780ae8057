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
        heads.append(buffer->left(end).toLower());
        const Answer answer = m_routes.value(buffer->left(buffer->indexOf('\n')).split(' ').value(1), Answer{404, "not here"});
        buffer->clear();
        QByteArray head = "HTTP/1.1 " + QByteArray::number(answer.status) + " Answer\r\nConnection: close\r\n";
        if (!answer.location.isEmpty())
            head += "Location: " + answer.location + "\r\n";
        if (answer.withLength)
            head += "Content-Length: " + QByteArray::number(answer.body.size() * (answer.stall ? 2 : 1)) + "\r\n";
        socket->write(head + "\r\n" + answer.body);
        if (!answer.stall)
            socket->disconnectFromHost();
    });
    connect(socket, &QSslSocket::disconnected, socket, &QObject::deleteLater);
    socket->startServerEncryption();
}
