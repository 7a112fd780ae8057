#include "ControlRoom.h"

#include <QWebSocket>
#include <QWebSocketServer>

ControlRoom::ControlRoom(QObject *parent)
    : QObject(parent)
{
}

ControlRoom::~ControlRoom()
{
    close();
}

bool ControlRoom::listen(quint16 port)
{
    close();
    m_server = new QWebSocketServer(QStringLiteral("test control room"), QWebSocketServer::NonSecureMode, this);
    if (!m_server->listen(QHostAddress::LocalHost, port))
        return false;
    connect(m_server, &QWebSocketServer::newConnection, this, [this] {
        while (QWebSocket *s = m_server->nextPendingConnection()) {
            ++accepted;
            urls.append(s->requestUrl());
            m_agents.append(s);
            connect(s, &QWebSocket::textMessageReceived, this, [this](const QString &t) {
                texts.append(t);
                emit textReceived(t);
            });
            connect(s, &QWebSocket::binaryMessageReceived, this, [this](const QByteArray &b) { binaries.append(b); });
            connect(s, &QWebSocket::disconnected, this, [this, s] {
                m_agents.removeAll(s);
                s->deleteLater();
            });
            emit agentConnected();
        }
    });
    return true;
}

void ControlRoom::close()
{
    for (QWebSocket *s : std::as_const(m_agents)) {
        s->disconnect(this);
        s->abort();
        s->deleteLater();
    }
    m_agents.clear();
    if (m_server) {
        m_server->close();
        m_server->deleteLater();
        m_server = nullptr;
    }
}

QString ControlRoom::address() const
{
    return QStringLiteral("127.0.0.1:%1").arg(port());
}

quint16 ControlRoom::port() const
{
    return m_server ? m_server->serverPort() : 0;
}

void ControlRoom::sendText(const QString &text)
{
    if (!m_agents.isEmpty())
        m_agents.last()->sendTextMessage(text);
}

void ControlRoom::sendBinary(const QByteArray &bytes)
{
    if (!m_agents.isEmpty())
        m_agents.last()->sendBinaryMessage(bytes);
}

void ControlRoom::dropAgent()
{
    if (!m_agents.isEmpty())
        m_agents.last()->close();
}

int ControlRoom::openCount() const
{
    return int(m_agents.size());
}
