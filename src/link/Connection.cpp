#include "Connection.h"

#include "BravaLog.h"
#include "BuildInfo.h"
#include "Settings.h"
#include "QueryString.h"
#include "OrderedJson.h"

#include <QJsonDocument>
#include <QPointer>
#include <QThread>
#include <QTimer>
#include <QWebSocket>

#include <algorithm>

Connection::Connection(const Settings &settings, const BuildInfo &build, QObject *parent)
    : QObject(parent)
    , m_settings(settings)
    , m_build(build)
    , m_watch(new QTimer(this))
{
    connect(m_watch, &QTimer::timeout, this, &Connection::watch);
}

void Connection::watch()
{
    if (!m_connected || !m_socket) {
        m_watch->stop();
        return;
    }
    // This computer not running for longer than the silence (suspended, stopped, overloaded) is no
    // silence of the room's: what it sent meanwhile, a close included, waits unread. It gets a
    // silence's time again from now.
    if (m_watched.restart() > silenceMs) {
        bravaLog(QStringLiteral("the link went quiet while this computer did not run; the control room gets another %1 s")
                     .arg(silenceMs / 1000.0));
        m_heard.start();
    }
    if (!m_heard.hasExpired(silenceMs)) {
        if (writable())
            m_socket->ping();
        return;
    }
    // No answer, not even to pings: the room is frozen or out of reach without having closed.
    bravaLog(QStringLiteral("the control room stopped answering (nothing for %1 s): reconnecting").arg(silenceMs / 1000.0));
    m_watch->stop();
    m_socket->abort();
}

// The link is up and its socket still open: a close the room sent may have ended it before the
// event loop told us (after a stall, say); writing then would only warn.
bool Connection::writable() const
{
    return m_connected && m_socket && m_socket->state() == QAbstractSocket::ConnectedState;
}

Connection::~Connection()
{
    cancelSocket();
}

QUrl Connection::linkURL() const
{
    const QString server = m_settings.server();
    if (server.isEmpty())
        return {};
    using namespace Protocol::LinkQuery;
    return QueryString::at(QStringLiteral("ws"), server, QLatin1String(Protocol::Path::agent),
                           {{QLatin1String(id), QString::number(m_settings.agentID())},
                            {QLatin1String(os), QLatin1String(platform)},
                            {QLatin1String(version), m_build.version()},
                            {QLatin1String(name), m_settings.agentName()}});
}

void Connection::cancelSocket()
{
    if (!m_socket)
        return;
    QWebSocket *old = m_socket;
    m_socket = nullptr;
    // The old socket's later signals are cut here and would fail the generation check anyway.
    old->disconnect(this);
    old->close(QWebSocketProtocol::CloseCodeGoingAway);
    old->deleteLater();
}

void Connection::open()
{
    Q_ASSERT(QThread::currentThread() == thread());
    ++m_generation;
    cancelSocket();
    m_replaced = false;
    // The link that was up is gone with its socket: said now, whatever the new one does (an
    // address that is no address never gets as far as failing).
    if (m_connected.exchange(false)) {
        bravaLog(QStringLiteral("disconnected"));
        if (onChange)
            onChange();
    }
    if (m_settings.agentID() < 1)
        return;
    const QUrl url = linkURL();
    if (!url.isValid()) {
        noteFailure(QStringLiteral("no valid control-room address"));
        return;
    }

    const qint64 gen = m_generation;
    auto *socket = new QWebSocket(QString(), QWebSocketProtocol::VersionLatest, this);
    socket->setMaxAllowedIncomingMessageSize(kMaxMessageBytes);
    m_socket = socket;
    QObject::connect(socket, &QWebSocket::connected, this, [this, gen, socket] { opened(gen, socket); });
    QObject::connect(socket, &QWebSocket::textMessageReceived, this, [this, gen](const QString &text) { received(gen, text); });
    QObject::connect(socket, &QWebSocket::pong, this, [this, socket] {
        if (socket == m_socket)
            m_heard.start();
    });
    // Binary frames from the control room carry nothing for the agent.
    // A failed open reports an error, an open link that ends reports disconnected, and some
    // failures report both: the first one for the current socket counts.
    const auto lost = [this, gen, socket] {
        if (socket == m_socket && !socket->property("brava.dropped").toBool()) {
            socket->setProperty("brava.dropped", true);
            if (!m_connected)
                noteFailure(socket->errorString());
            dropped(gen);
        }
    };
    QObject::connect(socket, &QWebSocket::disconnected, this, lost);
    QObject::connect(socket, qOverload<QAbstractSocket::SocketError>(&QWebSocket::error), this, lost);
    socket->open(url);
}

int Connection::watchMs(int silenceMs)
{
    return std::clamp(silenceMs / 3, 1, 1000); // a silent room is noticed within a second of the limit
}

void Connection::opened(qint64 gen, QWebSocket *socket)
{
    if (gen != m_generation || socket != m_socket)
        return;
    m_connected = true;
    m_heard.start();
    m_watched.start();
    m_watch->start(watchMs(silenceMs));
    m_lastFailure.clear();
    m_failureLog.clear();
    bravaLog(QStringLiteral("connected to %1 as agent %2").arg(m_settings.server()).arg(m_settings.agentID()));
    if (onChange)
        onChange();
}

void Connection::received(qint64 gen, const QString &text)
{
    if (gen != m_generation)
        return;
    m_heard.start();
    QJsonParseError error{};
    const QJsonDocument doc = QJsonDocument::fromJson(text.toUtf8(), &error);
    if (error.error != QJsonParseError::NoError || !doc.isObject())
        return;
    const QJsonObject command = doc.object();
    const QJsonValue type = command.value(QLatin1String(Protocol::type));
    if (type.isString() && type.toString() == QLatin1String(Protocol::Command::replaced))
        m_replaced = true;
    QPointer<Connection> self(this);
    QMetaObject::invokeMethod(
        this,
        [self, command] {
            if (self && self->onCommand)
                self->onCommand(command);
        },
        Qt::QueuedConnection);
}

void Connection::noteFailure(const QString &reason)
{
    const QString text = QStringLiteral("cannot open the link to %1: %2").arg(m_settings.server(), reason);
    m_failureLog.log(text);
    m_lastFailure = reason; // shown beside the address, which is not repeated
}

void Connection::dropped(qint64 gen)
{
    if (gen != m_generation)
        return;
    if (m_connected)
        bravaLog(QStringLiteral("disconnected"));
    m_connected = false;
    QPointer<Connection> self(this);
    QMetaObject::invokeMethod(
        this,
        [self] {
            if (self && self->onChange)
                self->onChange();
        },
        Qt::QueuedConnection);
    if (m_replaced)
        return;
    QTimer::singleShot(retryMs, this, [this, gen] {
        if (m_generation == gen && !m_connected)
            open();
    });
}

void Connection::close()
{
    Q_ASSERT(QThread::currentThread() == thread());
    ++m_generation;
    cancelSocket();
    m_connected = false;
    if (onChange)
        onChange();
}

void Connection::sendText(const QByteArray &text)
{
    if (writable())
        m_socket->sendTextMessage(QString::fromUtf8(text));
}

void Connection::sendJSON(const OrderedJson &message)
{
    sendText(message.toJson());
}

void Connection::sendJSON(const QJsonObject &message)
{
    sendText(QJsonDocument(message).toJson(QJsonDocument::Compact));
}

void Connection::sendBinary(const QByteArray &data)
{
    if (QThread::currentThread() != thread()) {
        // Live audio and preview arrive on capture threads; the socket belongs to this thread.
        if (!m_connected)
            return;
        QPointer<Connection> self(this);
        QMetaObject::invokeMethod(
            this,
            [self, data] {
                if (self)
                    self->sendBinary(data);
            },
            Qt::QueuedConnection);
        return;
    }
    if (writable())
        m_socket->sendBinaryMessage(data);
}

void Connection::sendFrame(quint8 kind, const QByteArray &payload)
{
    // Checked here too so that a capture thread builds no frame while the link is down.
    if (!m_connected)
        return;
    QByteArray frame;
    frame.reserve(payload.size() + 1);
    frame.append(char(kind));
    frame.append(payload);
    sendBinary(frame);
}

void Connection::sendLiveAudio(quint8 source, const QByteArray &pcm)
{
    Q_ASSERT(source == kMicSource || source == kComputerAudioSource);
    sendFrame(source, pcm);
}

void Connection::sendPreview(const QByteArray &jpeg)
{
    sendFrame(kPreviewFrame, jpeg);
}
