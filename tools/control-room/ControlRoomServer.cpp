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
    m_thread = std::thread([io = m_io.get()] {
        auto work = asio::make_work_guard(*io);
        io->run();
    });
}

ControlRoomServer::~ControlRoomServer()
{
    call([this] { m_room->close(); });
    m_io->stop();
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

void ControlRoomServer::call(const std::function<void()> &work) const
{
    if (m_thread.get_id() == std::this_thread::get_id())
        return work();
    auto done = std::make_shared<std::promise<void>>();
    std::future<void> f = done->get_future();
    asio::post(*m_io, [work, done] {
        work();
        done->set_value();
    });
    if (f.wait_for(std::chrono::seconds(5)) != std::future_status::ready) {
        // The work holds the caller's variables: it cannot be left behind.
        say(QStringLiteral("the room's network thread has not answered for 5 s; still waiting"));
        f.wait();
    }
}

void ControlRoomServer::say(const QString &line) const
{
    static std::mutex mutex;
    if (quiet)
        return;
    std::lock_guard lock(mutex);
    QTextStream(stdout) << QDateTime::currentDateTime().toString(QStringLiteral("HH:mm:ss ")) << line << Qt::endl;
}

quint16 ControlRoomServer::listen(quint16 port, const QHostAddress &address)
{
    quint16 bound = 0;
    const auto ip = asio::ip::make_address(address.toString().toStdString());
    call([&] { bound = m_room->listen(tcp::endpoint(ip, port)); });
    return bound;
}

void ControlRoomServer::goDown()
{
    call([this] { m_room->goDown(); });
}

bool ControlRoomServer::comeBack()
{
    bool ok = false;
    call([&] { ok = m_room->comeBack(); });
    return ok;
}

int ControlRoomServer::agentCount() const
{
    int n = 0;
    call([&] { n = m_room->agentCount(); });
    return n;
}

void ControlRoomServer::sendText(const QString &text)
{
    send(0, text.toUtf8());
}

void ControlRoomServer::dropAgents()
{
    call([this] { m_room->dropAgents(); });
}

int ControlRoomServer::send(int agentId, const QByteArray &json)
{
    int n = 0;
    call([&] { n = m_room->sendRaw(agentId, json.toStdString()); });
    return n;
}

QString ControlRoomServer::command(int agentId, const QJsonObject &command)
{
    QString why;
    const auto checked = CommandWords::checked(command, &why);
    if (!checked)
        return QStringLiteral("refused: ") + why;
    QString line;
    call([&] { line = m_room->command(agentId, *checked); });
    return line;
}

void ControlRoomServer::list() const
{
    QStringList lines;
    call([&] { lines = m_room->list(); });
    for (const QString &line : lines)
        say(line);
}

QString ControlRoomServer::token() const
{
    return QString::fromStdString(m_room->token().text());
}

void ControlRoomServer::setName(const QString &name)
{
    call([&] { m_room->setName(name); });
}

QJsonObject ControlRoomServer::state() const
{
    QJsonObject s;
    call([&] { s = m_room->state(true); });
    return s;
}
