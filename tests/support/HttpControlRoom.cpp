#include "HttpControlRoom.h"

#include <QHttpServerRequest>
#include <QHttpServerResponder>
#include <QTcpServer>
#include <QTcpSocket>
#include <QWebSocket>

HttpControlRoom::HttpControlRoom(QObject *parent)
    : QObject(parent)
{
    m_http.route(QStringLiteral("/"), [] { return QStringLiteral("control room"); });
    // The WebSocket upgrade needs a route for its path that answers nothing itself.
    m_http.route(QStringLiteral("/agent"), [](const QHttpServerRequest &, QHttpServerResponder &&) {});
    m_http.route(QStringLiteral("/upload"), QHttpServerRequest::Method::Post,
                 [this](const QHttpServerRequest &request, QHttpServerResponder &&responder) {
                     if (uploadStatus == 200)
                         uploads.append({request.url(), request.body()});
                     responder.write(QByteArray("ok"), "text/plain", QHttpServerResponder::StatusCode(uploadStatus));
                 });
    connect(&m_http, &QHttpServer::newWebSocketConnection, this, [this] {
        while (m_http.hasPendingWebSocketConnections()) {
            m_agents.push_back(m_http.nextPendingWebSocketConnection());
            emit agentConnected();
        }
    });
}

HttpControlRoom::~HttpControlRoom() = default;

bool HttpControlRoom::listen(quint16 port)
{
    m_port = m_http.listen(QHostAddress::LocalHost, port);
    return m_port != 0;
}

void HttpControlRoom::goDown()
{
    for (QTcpServer *server : m_http.servers()) {
        server->close();
        // Open HTTP connections are children of the listening server; drop them too.
        for (QTcpSocket *socket : server->findChildren<QTcpSocket *>())
            socket->abort();
    }
    for (auto &agent : m_agents)
        agent->abort();
    m_agents.clear();
}

bool HttpControlRoom::comeBack()
{
    bool ok = true;
    for (QTcpServer *server : m_http.servers())
        ok = server->listen(QHostAddress::LocalHost, m_port) && ok;
    return ok;
}

QString HttpControlRoom::address() const
{
    return QStringLiteral("127.0.0.1:%1").arg(m_port);
}

void HttpControlRoom::sendText(const QString &text)
{
    for (auto &agent : m_agents)
        agent->sendTextMessage(text);
}
