#include "ControlRoomServer.h"

#include "Asio.h"
#include "CommandWords.h"
#include "Room.h"

#include <QDateTime>
#include <QFile>
#include <QMetaMethod>
#include <QTextStream>

#include <future>
#include <mutex>

namespace {
// The page's files, compiled into the tool.
std::map<std::string, std::string> pageAssets()
{
    std::map<std::string, std::string> out;
    for (const char *name : {"index.html", "page.js", "page.css", "worklet.js"}) {
        QFile f(QStringLiteral(":/room/") + QLatin1String(name));
        if (f.open(QIODevice::ReadOnly))
            out[std::string("/") + name] = f.readAll().toStdString();
    }
    out["/"] = out["/index.html"];
    return out;
}
} // namespace

ControlRoomServer::ControlRoomServer(const QDir &uploads, QObject *parent, const QString &token)
    : QObject(parent)
    , m_io(std::make_unique<asio::io_context>(1))
{
    Q_INIT_RESOURCE(page);
    RoomHooks hooks;
    hooks.say = [this](const QString &line) { say(line); };
    hooks.agentConnected = [this](const QUrl &url) { Q_EMIT agentConnected(url); };
    hooks.text = [this](const QString &text) { Q_EMIT textReceived(text); };
    hooks.binary = [this](const QByteArray &frame) {
        if (m_binaryWanted)
            Q_EMIT binaryReceived(frame);
    };
    hooks.uploaded = [this](const QUrlQuery &q, const QString &path) { Q_EMIT uploaded(q, path); };
    hooks.event = [this](const QUrlQuery &q) { Q_EMIT eventReceived(q); };
    m_room = std::make_unique<Room>(*m_io, uploads, token.isEmpty() ? OperatorToken() : OperatorToken(token.toStdString()), pageAssets(),
                                    std::move(hooks));
    std::promise<void> ended;
    m_threadEnded = ended.get_future();
    m_thread = std::thread([io = m_io.get(), ended = std::move(ended)]() mutable {
        auto work = asio::make_work_guard(*io);
        io->run();
        ended.set_value();
    });
}

ControlRoomServer::~ControlRoomServer()
{
    tell([this] { m_room->close(); });
    m_io->stop();
    if (m_threadEnded.wait_for(std::chrono::milliseconds(waitMs)) != std::future_status::ready) {
        // Stuck in one piece of work (a disk that hangs): the thread and what it uses are left to
        // the end of the process rather than waited for without end.
        say(QStringLiteral("the room's network thread has not stopped within %1 ms: left behind").arg(waitMs));
        m_thread.detach();
        (void)m_io.release();
        (void)m_room.release();
        return;
    }
    m_thread.join();
    m_io.reset(); // ends what was still suspended; nothing of it touches the room
    m_room.reset();
}

void ControlRoomServer::connectNotify(const QMetaMethod &signal)
{
    // Frames are copied for the signal only while someone listens.
    if (signal == QMetaMethod::fromSignal(&ControlRoomServer::binaryReceived))
        m_binaryWanted = true;
}

template<class T>
T ControlRoomServer::ask(std::function<T()> work, T otherwise) const
{
    if (m_thread.get_id() == std::this_thread::get_id())
        return work();
    // The work holds copies only, so that it may still run after the caller has given up on it.
    auto result = std::make_shared<std::promise<T>>();
    std::future<T> f = result->get_future();
    asio::post(*m_io, [work = std::move(work), result] { result->set_value(work()); });
    if (f.wait_for(std::chrono::milliseconds(waitMs)) == std::future_status::ready)
        return f.get();
    say(QStringLiteral("the room's network thread has not answered for %1 ms: gave up").arg(waitMs));
    return otherwise;
}

void ControlRoomServer::tell(std::function<void()> work) const
{
    ask<bool>([work = std::move(work)] { return work(), true; }, false);
}

void ControlRoomServer::say(const QString &line) const
{
    static std::mutex mutex;
    Q_EMIT said(line);
    if (quiet)
        return;
    std::lock_guard lock(mutex);
    QTextStream(stdout) << QDateTime::currentDateTime().toString(QStringLiteral("HH:mm:ss ")) << line << Qt::endl;
}

quint16 ControlRoomServer::listen(quint16 port, const QHostAddress &address)
{
    const auto ip = asio::ip::make_address(address.toString().toStdString());
    return ask<quint16>([this, ip, port] { return m_room->listen(tcp::endpoint(ip, port)); }, 0);
}

void ControlRoomServer::goDown()
{
    tell([this] { m_room->goDown(); });
}

bool ControlRoomServer::comeBack()
{
    return ask<bool>([this] { return m_room->comeBack(); }, false);
}

int ControlRoomServer::agentCount() const
{
    return ask<int>([this] { return m_room->agentCount(); }, 0);
}

void ControlRoomServer::sendText(const QString &text)
{
    send(0, text.toUtf8());
}

void ControlRoomServer::dropAgents()
{
    tell([this] { m_room->dropAgents(); });
}

int ControlRoomServer::send(int agentId, const QByteArray &json)
{
    return ask<int>([this, agentId, text = json.toStdString()] { return m_room->sendRaw(agentId, text); }, 0);
}

QString ControlRoomServer::command(int agentId, const QJsonObject &command)
{
    QString why;
    const auto checked = CommandWords::checked(command, &why);
    if (!checked)
        return QStringLiteral("refused: ") + why;
    return ask<QString>([this, agentId, c = *checked] { return m_room->command(agentId, c); },
                        QStringLiteral("not sent: the room's network thread does not answer"));
}

void ControlRoomServer::list() const
{
    const QStringList lines = ask<QStringList>([this] { return m_room->list(); }, {});
    for (const QString &line : lines)
        say(line);
}

QString ControlRoomServer::token() const
{
    return QString::fromStdString(m_room->token().text());
}

void ControlRoomServer::setName(const QString &name)
{
    tell([this, name] { m_room->setName(name); });
}

QJsonObject ControlRoomServer::state() const
{
    return ask<QJsonObject>([this] { return m_room->state(true); }, {});
}
