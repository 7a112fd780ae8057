#include "ControlRoomServer.h"

#include <QDateTime>
#include <QFile>
#include <QHttpServerRequest>
#include <QHttpServerResponder>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>
#include <QTextStream>
#include <QUrlQuery>
#include <QWebSocket>

#include "StrictInt.h"

#include <QTcpServer>
#include <QTcpSocket>

namespace {

// Only plain names become folder and file names.
bool safeName(const QString &name)
{
    static const QRegularExpression ok(QStringLiteral("^[A-Za-z0-9_.+-]{1,128}$"));
    return ok.match(name).hasMatch() && name != QLatin1String(".") && name != QLatin1String("..");
}
} // namespace

void ControlRoomServer::say(const QString &line) const
{
    if (!quiet)
        QTextStream(stdout) << QDateTime::currentDateTime().toString(QStringLiteral("HH:mm:ss ")) << line << Qt::endl;
}

ControlRoomServer::ControlRoomServer(const QDir &uploads, QObject *parent)
    : QObject(parent)
    , m_uploads(uploads)
{
    m_http.route(QStringLiteral("/"), [] { return QStringLiteral("Brava control room\n"); });
    // The WebSocket upgrade needs a route for its path that answers nothing itself.
    m_http.route(QStringLiteral("/agent"), [](const QHttpServerRequest &, QHttpServerResponder &&) {});
    m_http.route(QStringLiteral("/upload"), QHttpServerRequest::Method::Post,
                 [this](const QHttpServerRequest &request, QHttpServerResponder &&responder) {
                     upload(request, std::move(responder));
                 });
    m_http.route(QStringLiteral("/event"), QHttpServerRequest::Method::Post, [this](const QHttpServerRequest &request) {
        say(QStringLiteral("event ") + request.query().toString(QUrl::FullyDecoded));
        Q_EMIT eventReceived(request.query());
        return QStringLiteral("ok");
    });
    connect(&m_http, &QHttpServer::newWebSocketConnection, this, &ControlRoomServer::accept);
}

ControlRoomServer::~ControlRoomServer() = default;

quint16 ControlRoomServer::listen(quint16 port, const QHostAddress &address)
{
    m_address = address;
    m_port = m_http.listen(address, port);
    return m_port;
}

void ControlRoomServer::goDown()
{
    for (QTcpServer *server : m_http.servers()) {
        server->close();
        // Open HTTP connections are children of the listening server; drop them too.
        for (QTcpSocket *socket : server->findChildren<QTcpSocket *>())
            socket->abort();
    }
    dropAgents();
}

bool ControlRoomServer::comeBack()
{
    bool ok = true;
    for (QTcpServer *server : m_http.servers())
        ok = server->listen(m_address, m_port) && ok;
    return ok;
}

void ControlRoomServer::dropAgents()
{
    for (auto it = m_agents.cbegin(); it != m_agents.cend(); ++it)
        it.key()->abort();
}

void ControlRoomServer::sendText(const QString &text)
{
    for (auto it = m_agents.cbegin(); it != m_agents.cend(); ++it)
        it.key()->sendTextMessage(text);
}

void ControlRoomServer::accept()
{
    while (m_http.hasPendingWebSocketConnections()) {
        std::unique_ptr<QWebSocket> owned = m_http.nextPendingWebSocketConnection();
        QWebSocket *socket = owned.get();
        const QUrlQuery q(socket->requestUrl());
        Agent agent{parseStrictInt(q.queryItemValue(QStringLiteral("id")), 0, 9999).value_or(0),
                    q.queryItemValue(QStringLiteral("name"), QUrl::FullyDecoded)};
        // A second computer with the same number replaces the first.
        for (auto it = m_agents.begin(); it != m_agents.end(); ++it) {
            if (it->id == agent.id && agent.id > 0) {
                it.key()->sendTextMessage(QStringLiteral("{\"type\":\"replaced\"}"));
                it.key()->close();
            }
        }
        m_agents.insert(socket, agent);
        say(QStringLiteral("agent #%1 %2 connected (%3, v%4)")
                .arg(agent.id)
                .arg(agent.name, q.queryItemValue(QStringLiteral("os")), q.queryItemValue(QStringLiteral("v"))));
        Q_EMIT agentConnected(socket->requestUrl());
        connect(socket, &QWebSocket::textMessageReceived, this, [this, socket](const QString &text) {
            Q_EMIT textReceived(text);
            Agent &a = m_agents[socket];
            QJsonObject o = QJsonDocument::fromJson(text.toUtf8()).object();
            o.remove(QStringLiteral("mic"));
            o.remove(QStringLiteral("sys"));
            const QString summary = QString::fromUtf8(QJsonDocument(o).toJson(QJsonDocument::Compact));
            if (summary != a.lastStatus) {
                a.lastStatus = summary;
                say(QStringLiteral("agent #%1 status %2").arg(a.id).arg(summary));
            }
        });
        connect(socket, &QWebSocket::binaryMessageReceived, this, [this, socket](const QByteArray &data) {
            Q_EMIT binaryReceived(data);
            Agent &a = m_agents[socket];
            if (!data.isEmpty() && data.at(0) == 2)
                ++a.previews;
            else
                a.liveBytes += data.size() - 1;
        });
        connect(socket, &QWebSocket::disconnected, this, [this, socket] {
            say(QStringLiteral("agent #%1 disconnected").arg(m_agents.value(socket).id));
            m_agents.remove(socket);
            socket->deleteLater();
            for (auto &s : m_sockets)
                if (s.get() == socket)
                    (void)s.release();
            std::erase(m_sockets, nullptr);
        });
        m_sockets.push_back(std::move(owned));
    }
}

void ControlRoomServer::upload(const QHttpServerRequest &request, QHttpServerResponder &&responder)
{
    const QUrlQuery q(request.url());
    const QString id = q.queryItemValue(QStringLiteral("id"));
    const QString session = q.queryItemValue(QStringLiteral("session"), QUrl::FullyDecoded);
    const QString track = q.queryItemValue(QStringLiteral("track"));
    const QString take = q.queryItemValue(QStringLiteral("take"));
    const QString idx = q.queryItemValue(QStringLiteral("idx"));
    const QString ext = q.queryItemValue(QStringLiteral("ext"));
    const bool final = q.queryItemValue(QStringLiteral("final")) == QLatin1String("1");
    if (!safeName(id) || !safeName(session) || !safeName(track) || !safeName(take) || !safeName(idx) || !safeName(ext)) {
        responder.write(QHttpServerResponder::StatusCode::BadRequest);
        return;
    }
    const QString folder = QStringLiteral("agent%1/%2").arg(id, session);
    m_uploads.mkpath(folder);
    const QString name = QStringLiteral("%1_%2_%3%4.%5").arg(track, take, idx, final ? QStringLiteral("_final") : QString(), ext);
    QFile out(m_uploads.filePath(folder + QLatin1Char('/') + name));
    if (!out.open(QIODevice::WriteOnly) || out.write(request.body()) != request.body().size()) {
        responder.write(QHttpServerResponder::StatusCode::InternalServerError);
        return;
    }
    say(QStringLiteral("upload %1/%2 (%3 bytes)").arg(folder, name).arg(request.body().size()));
    responder.write(QByteArray("ok"), "text/plain");
    Q_EMIT uploaded(q, out.fileName());
}

int ControlRoomServer::send(int agentId, const QByteArray &json)
{
    int sent = 0;
    for (auto it = m_agents.cbegin(); it != m_agents.cend(); ++it) {
        if (agentId == 0 || it->id == agentId) {
            it.key()->sendTextMessage(QString::fromUtf8(json));
            ++sent;
        }
    }
    return sent;
}

void ControlRoomServer::list() const
{
    for (const Agent &a : m_agents)
        say(QStringLiteral("agent #%1 %2: live audio %3 bytes, %4 preview frames").arg(a.id).arg(a.name).arg(a.liveBytes).arg(a.previews));
    if (m_agents.isEmpty())
        say(QStringLiteral("no agents"));
}
