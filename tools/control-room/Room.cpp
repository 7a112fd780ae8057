#include "Room.h"

#include "CommandWords.h"
#include "HttpSession.h"
#include "Protocol.h"
#include "StoredScan.h"
#include "UploadPlace.h"
#include "WsLink.h"

#include <QDateTime>
#include <QElapsedTimer>
#include <QJsonDocument>
#include <QSaveFile>
#include <QLocale>

#include <algorithm>
#include <cmath>
#include <tuple>

namespace {
QString L(const char *word)
{
    return QLatin1String(word);
}

constexpr size_t kAgentMessageMax = 8 << 20; // an HD preview picture fits many times over
constexpr size_t kPageMessageMax = 64 << 10;
constexpr size_t kStatusMax = 64 << 10;
constexpr size_t kQueueMax = 2 << 20;
constexpr size_t kFeedMax = 500;

std::string bytes(const QJsonObject &o)
{
    return QJsonDocument(o).toJson(QJsonDocument::Compact).toStdString();
}
} // namespace

struct Room::Agent
{
    QString name, os, version;
    QJsonObject status;
    QString summary; // the status without its levels, to print changes only
    bool connected = false;
    bool camerasOn = false; // as this room last asked, kept while the agent is away
    QString session;        // of the last "start" sent to it, until a stop or End Live
    QString quality;        // the upload quality last sent to it, empty before any (agents do not report theirs)
    bool released = false;  // its computer was told to free the number: the next one with it starts afresh
    int uploading = 0;
    int stored = 0;
    QJsonObject lastEvent;
    bool onCall = false;
    qint64 liveBytes = 0;
    int previews = 0;
    bool previewHd = false; // as a page last asked for its preview, to ask again when it is back
};

Room::Room(asio::io_context &io, const QDir &uploads, OperatorToken token, std::map<std::string, std::string> assets, RoomHooks hooks)
    : m_io(io)
    , m_uploads(uploads)
    , m_token(std::move(token))
    , m_assets(std::move(assets))
    , m_hooks(std::move(hooks))
    , m_tick(io)
    , m_startedAt(QDateTime::currentDateTimeUtc().addSecs(-5)) // a file's time can lag the clock a little
    , m_sales(uploads)
{
}

Room::~Room() = default;

const std::string *Room::asset(const std::string &path) const
{
    const auto it = m_assets.find(path);
    return it == m_assets.end() ? nullptr : &it->second;
}

void Room::say(const QString &line) const
{
    if (m_hooks.say)
        m_hooks.say(line);
}

Room::Agent &Room::record(int id)
{
    // A number first seen now takes what the operator asked of every agent.
    const auto [it, added] = m_records.try_emplace(id);
    if (added)
        takeAllWishes(it->second);
    return it->second;
}

void Room::takeAllWishes(Agent &a) const
{
    a.camerasOn = m_allLive;
    a.session = m_allSession;
    a.quality = m_allQuality;
}

void Room::saveWishes() const
{
    QJsonObject agents;
    for (const auto &[id, a] : m_records)
        if (id > 0)
            agents.insert(QString::number(id), QJsonObject{{QStringLiteral("live"), a.camerasOn}, {QStringLiteral("session"), a.session},
                                                           {QStringLiteral("quality"), a.quality}, {QStringLiteral("released"), a.released}});
    const QJsonObject all{{QStringLiteral("live"), m_allLive}, {QStringLiteral("session"), m_allSession}, {QStringLiteral("quality"), m_allQuality},
                          {QStringLiteral("liveAsked"), m_allLiveAsked}, {QStringLiteral("sessionAsked"), m_allSessionAsked}};
    QSaveFile out(m_uploads.filePath(QLatin1String(kWishesFile)));
    if (!out.open(QIODevice::WriteOnly) || out.write(QJsonDocument(QJsonObject{{QStringLiteral("all"), all}, {QStringLiteral("agents"), agents}}).toJson()) < 0 || !out.commit())
        say(QStringLiteral("warning: cannot keep what was asked in %1: %2").arg(out.fileName(), out.errorString()));
}

void Room::loadWishes()
{
    QFile in(m_uploads.filePath(QLatin1String(kWishesFile)));
    constexpr qint64 kMaxBytes = 1 << 20;
    if (!in.open(QIODevice::ReadOnly) || in.size() > kMaxBytes)
        return;
    const QJsonObject saved = QJsonDocument::fromJson(in.readAll()).object();
    const QJsonObject all = saved.value(QStringLiteral("all")).toObject();
    constexpr int kMaxText = 1000; // longer than any session the agents take
    const auto text = [](const QJsonObject &o, const char *key) { return o.value(QLatin1String(key)).toString().left(kMaxText); };
    m_allLive = all.value(QStringLiteral("live")).toBool();
    m_allSession = text(all, "session");
    m_allQuality = text(all, "quality");
    m_allLiveAsked = all.value(QStringLiteral("liveAsked")).toBool();
    m_allSessionAsked = all.value(QStringLiteral("sessionAsked")).toBool();
    const QJsonObject agents = saved.value(QStringLiteral("agents")).toObject();
    for (auto it = agents.begin(); it != agents.end(); ++it) {
        const std::optional<int> id = UploadPlace::agentNumber(it.key());
        if (!id)
            continue;
        const QJsonObject o = it.value().toObject();
        Agent &a = m_records[*id];
        a.camerasOn = o.value(QStringLiteral("live")).toBool();
        a.session = text(o, "session");
        a.quality = text(o, "quality");
        a.released = o.value(QStringLiteral("released")).toBool();
    }
    say(QStringLiteral("took back what was asked before: %1 agent(s)%2").arg(agents.size()).arg(m_allLive ? QStringLiteral(", every agent live") : QString())
        + (m_allSession.isEmpty() ? QString() : QStringLiteral(", recording ") + m_allSession));
}

quint16 Room::listen(const tcp::endpoint &at)
{
    beast::error_code ec;
    auto acceptor = std::make_shared<tcp::acceptor>(m_io);
    acceptor->open(at.protocol(), ec);
    if (!ec)
        acceptor->set_option(asio::socket_base::reuse_address(true), ec);
    if (!ec)
        acceptor->bind(at, ec);
    if (!ec)
        acceptor->listen(asio::socket_base::max_listen_connections, ec);
    if (ec) {
        say(QStringLiteral("cannot listen on %1 port %2: %3").arg(QString::fromStdString(at.address().to_string())).arg(at.port()).arg(QString::fromStdString(ec.message())));
        return 0;
    }
    m_at = acceptor->local_endpoint();
    m_acceptor = std::move(acceptor);
    if (!std::exchange(m_learning, true))
        asio::co_spawn(m_io, learnStored(m_acceptor), asio::detached); // accepts once its sales are back
    else
        acceptNext(m_acceptor);
    if (!std::exchange(m_ticking, true))
        asio::co_spawn(m_io, tickLoop(), asio::detached);
    return m_at.port();
}

void Room::acceptNext(const std::shared_ptr<tcp::acceptor> &acceptor)
{
    acceptor->async_accept([this, acceptor](beast::error_code ec, tcp::socket socket) {
        if (ec == asio::error::operation_aborted || !acceptor->is_open())
            return; // gone down
        if (ec) { // out of descriptors and the like: a pause, then keep serving the others
            auto pause = std::make_shared<asio::steady_timer>(m_io, std::chrono::milliseconds(50));
            pause->async_wait([this, acceptor, pause](beast::error_code) {
                if (acceptor->is_open())
                    acceptNext(acceptor);
            });
            return;
        }
        auto session = std::make_shared<HttpSession>(std::move(socket), *this);
        track(session);
        session->start();
        acceptNext(acceptor);
    });
}

asio::awaitable<void> Room::tickLoop()
{
    // The pages see every agent's state twice a second, as the agents send it.
    for (;;) {
        beast::error_code ec;
        m_tick.expires_after(std::chrono::milliseconds(500));
        co_await m_tick.async_wait(noThrow(ec));
        if (ec)
            co_return;
        if (!m_pages.empty()) {
            QJsonObject s = state(false);
            s.insert(QStringLiteral("kind"), QStringLiteral("state"));
            toPages(QJsonDocument(s).toJson(QJsonDocument::Compact));
        }
    }
}

asio::awaitable<void> Room::learnStored(std::shared_ptr<tcp::acceptor> acceptor)
{
    // Sales first and at once (a few per agent and day), before the first connection is taken from
    // the backlog, so that a new one numbers on after them; then the pieces a few hundred entries
    // at a time (tens of thousands a day), serving between.
    QElapsedTimer clock;
    clock.start();
    QStringList skipped;
    loadWishes();
    m_sales.learnStored(skipped);
    const QJsonArray sales = m_sales.json();
    for (const QJsonValue &sale : sales)
        for (const QJsonValue &file : sale[QStringLiteral("files")].toArray())
            m_files.insert(file.toString());
    acceptNext(acceptor); // gone down meanwhile: it is closed and takes nothing
    StoredScan scan(m_uploads, m_startedAt);
    while (scan.step(256, m_files, skipped) && !m_closed)
        co_await asio::post(m_io, asio::use_awaitable);
    if (m_closed)
        co_return;
    constexpr int kSaidMax = 20;
    for (const QString &line : skipped.mid(0, kSaidMax))
        say(QStringLiteral("skipped in the uploads folder: ") + line);
    if (skipped.size() > kSaidMax)
        say(QStringLiteral("skipped in the uploads folder: %1 more").arg(skipped.size() - kSaidMax));
    takeBackFeed();
    say(QStringLiteral("took back %1 stored pieces and %2 sales in %3 ms; removed %4 partial uploads left from before")
            .arg(scan.found()).arg(sales.size()).arg(clock.elapsed()).arg(scan.removed()));
}

// After the scan: each agent's count of stored pieces counts those from before too (every piece is
// in m_files once), and the newest pieces from before go back into the feed with their links, older
// than anything said since the start (a take's number is its start in milliseconds). Open pages
// get the feed again.
void Room::takeBackFeed()
{
    std::set<QString> linked;
    for (const QJsonObject &item : m_feed)
        linked.insert(item.value(QStringLiteral("link")).toString());
    std::map<int, int> stored;
    std::vector<std::tuple<qint64, int, QString, int>> earlier; // take, index, path, agent
    for (const QString &file : std::as_const(m_files)) {
        const auto place = UploadPlace::fromPath(file);
        if (!place)
            continue; // a sale's file
        ++stored[place->agent];
        if (!linked.count(QStringLiteral("/files/") + file))
            earlier.emplace_back(place->take, place->index, file, place->agent);
    }
    for (const auto &[id, count] : stored)
        record(id).stored = count;
    std::sort(earlier.begin(), earlier.end());
    const size_t room = kFeedMax > m_feed.size() ? kFeedMax - m_feed.size() : 0;
    for (size_t i = earlier.size(); i-- > earlier.size() - std::min(room, earlier.size());) {
        const auto &[take, index, path, agent] = earlier[i];
        m_feed.push_front(feedItem(QDateTime::fromMSecsSinceEpoch(take, Qt::UTC), QStringLiteral("upload"), agent, path, path));
    }
    for (auto &[_, page] : m_pages)
        page.link->sendText(bytes(greeting()));
}

QJsonObject Room::greeting() const
{
    QJsonObject s = state(false);
    s.insert(QStringLiteral("kind"), QStringLiteral("state"));
    QJsonArray items;
    for (const QJsonObject &item : m_feed)
        items.append(item);
    s.insert(QStringLiteral("feed"), items);
    return s;
}

void Room::track(const std::shared_ptr<HttpSession> &session)
{
    std::erase_if(m_sessions, [](const std::weak_ptr<HttpSession> &s) { return s.expired(); });
    m_sessions.push_back(session);
}

void Room::goDown()
{
    beast::error_code ec;
    if (m_acceptor)
        m_acceptor->close(ec);
    m_acceptor.reset();
    for (const auto &weak : std::vector(m_sessions))
        if (auto s = weak.lock())
            s->abort();
    dropAgents();
    std::vector<std::shared_ptr<WsLink>> pages;
    for (auto &[_, l] : m_pages)
        pages.push_back(l.link);
    for (auto &p : pages)
        p->abort();
}

void Room::close()
{
    m_closed = true;
    goDown();
    m_tick.cancel();
    m_agents.clear();
    m_pages.clear();
    m_sessions.clear();
}

bool Room::comeBack()
{
    return m_at.port() != 0 && listen(m_at) != 0;
}

void Room::dropAgents()
{
    std::vector<std::shared_ptr<WsLink>> links;
    for (auto &[_, l] : m_agents)
        links.push_back(l.link);
    for (auto &l : links)
        l->abort();
}

void Room::acceptAgent(beast::tcp_stream &&stream, http::request<http::empty_body> &&upgrade, const QUrl &url)
{
    using namespace Protocol::LinkQuery;
    const QUrlQuery q(url);
    const int id = UploadPlace::agentNumber(q.queryItemValue(L(Protocol::LinkQuery::id))).value_or(0);
    auto link = std::make_shared<WsLink>(std::move(stream), kAgentMessageMax, kQueueMax);
    WsLink::Handlers h;
    h.opened = [this, id, url, q](WsLink &l) {
        // A second computer with the same number replaces the first.
        for (auto &[ptr, other] : m_agents) {
            if (id > 0 && other.id == id && ptr != &l) {
                other.link->sendText(bytes({{L(Protocol::type), L(Protocol::Command::replaced)}}));
                other.link->close();
            }
        }
        m_agents[&l] = Link{l.shared_from_this(), id};
        Agent &a = record(id);
        a.connected = true;
        a.released = false; // a computer set up with a released number: a new agent, with the wishes kept for it
        if (a.camerasOn && id > 0) // back after a drop or a restart: still live as the operator asked
            l.sendText(bytes({{L(Protocol::type), L(Protocol::Command::cameras)}, {L(Protocol::Command::on), true}}));
        if (!a.session.isEmpty() && id > 0) // the same session again is nothing new to an agent that records it
            l.sendText(bytes({{L(Protocol::type), L(Protocol::Command::start)}, {L(Protocol::Command::session), a.session}}));
        if (!a.quality.isEmpty() && id > 0) // for its next take; the same quality again changes nothing
            l.sendText(bytes({{L(Protocol::type), L(Protocol::Command::quality)}, {L(Protocol::Command::q), a.quality}}));
        if (id > 0 && wanting(id, false) > 0) // it stopped live audio when its link dropped; a page still listens
            l.sendText(bytes({{L(Protocol::type), L(Protocol::Command::listen)}, {L(Protocol::Command::on), true}}));
        if (id > 0 && wanting(id, true) > 0) // and its preview, as a page still sees it
            l.sendText(bytes({{L(Protocol::type), L(Protocol::Command::preview)}, {L(Protocol::Command::on), true},
                              {L(Protocol::Command::hd), a.previewHd}}));
        a.name = q.queryItemValue(L(name), QUrl::FullyDecoded).left(200);
        a.os = q.queryItemValue(L(os), QUrl::FullyDecoded).left(20);
        a.version = q.queryItemValue(L(version), QUrl::FullyDecoded).left(40);
        say(QStringLiteral("agent #%1 %2 connected (%3, v%4)").arg(id).arg(a.name, a.os, a.version));
        feed(QStringLiteral("connected"), id, a.name);
        if (m_hooks.agentConnected)
            m_hooks.agentConnected(url);
    };
    h.message = [this](WsLink &l, std::string &&m, bool binary) { agentMessage(l, std::move(m), binary); };
    h.closed = [this](WsLink &l) {
        const auto it = m_agents.find(&l);
        if (it == m_agents.end())
            return;
        const int id = it->second.id;
        // Erased later: whoever ended the link may still be walking the list.
        asio::post(m_io, [this, ptr = &l, keep = it->second.link] { m_agents.erase(ptr); });
        bool other = false;
        for (auto &[ptr, x] : m_agents)
            other = other || (ptr != &l && x.id == id);
        if (other) { // the late close of a link a newer one took over: the agent is still connected
            say(QStringLiteral("agent #%1: an earlier link closed; the newer one stays").arg(id));
            return;
        }
        record(id).connected = false;
        say(QStringLiteral("agent #%1 disconnected").arg(id));
        feed(QStringLiteral("disconnected"), id, QString());
    };
    link->start(std::move(upgrade), std::move(h));
}

void Room::agentMessage(WsLink &l, std::string &&message, bool binary)
{
    const auto it = m_agents.find(&l);
    if (it == m_agents.end())
        return;
    const int id = it->second.id;
    Agent &a = record(id);
    if (binary) {
        if (message.empty())
            return;
        const unsigned char kind = static_cast<unsigned char>(message[0]);
        if (m_hooks.binary)
            m_hooks.binary(QByteArray(message.data(), qsizetype(message.size())));
        if (kind == Protocol::Frame::preview)
            ++a.previews;
        else
            a.liveBytes += qint64(message.size()) - 1;
        // To the pages: the agent number in two bytes, then the frame as it came.
        std::shared_ptr<std::string> frame;
        for (auto &[_, page] : m_pages) {
            if ((kind == Protocol::Frame::preview ? page.preview : page.listen) != id || id == 0)
                continue;
            if (!frame) {
                frame = std::make_shared<std::string>();
                frame->reserve(message.size() + 2);
                frame->push_back(char(id >> 8));
                frame->push_back(char(id & 0xff));
                frame->append(message);
            }
            page.link->sendBinary(frame);
        }
        return;
    }
    if (message.size() > kStatusMax)
        return;
    const QString text = QString::fromStdString(message);
    if (m_hooks.text)
        m_hooks.text(text);
    QJsonObject o = QJsonDocument::fromJson(QByteArray::fromStdString(message)).object();
    if (o.value(L(Protocol::type)).toString() != L(Protocol::Status::type))
        return;
    a.status = o;
    o.remove(L(Protocol::Status::mic));
    o.remove(L(Protocol::Status::sys));
    const QString summary = QString::fromUtf8(QJsonDocument(o).toJson(QJsonDocument::Compact));
    if (summary != a.summary) {
        a.summary = summary;
        say(QStringLiteral("agent #%1 status %2").arg(id).arg(summary));
    }
}

void Room::acceptPage(beast::tcp_stream &&stream, http::request<http::empty_body> &&upgrade)
{
    auto link = std::make_shared<WsLink>(std::move(stream), kPageMessageMax, kQueueMax);
    WsLink::Handlers h;
    h.opened = [this](WsLink &l) {
        m_pages[&l] = Link{l.shared_from_this()};
        l.sendText(bytes(greeting()));
    };
    h.message = [this](WsLink &l, std::string &&m, bool binary) {
        if (!binary)
            pageMessage(l, std::move(m));
    };
    h.closed = [this](WsLink &l) {
        const auto it = m_pages.find(&l);
        if (it == m_pages.end())
            return;
        letGo(it->second, false);
        letGo(it->second, true);
        asio::post(m_io, [this, ptr = &l, keep = it->second.link] { m_pages.erase(ptr); });
    };
    link->start(std::move(upgrade), std::move(h));
}

void Room::pageMessage(WsLink &l, std::string &&message)
{
    // {"to": N (0: every agent), "command": {...}}; a whisper, listen and preview name one agent.
    namespace C = Protocol::Command;
    const QJsonObject o = QJsonDocument::fromJson(QByteArray::fromStdString(message)).object();
    const double to = o.value(QStringLiteral("to")).toDouble(-1);
    QString why;
    const auto c = CommandWords::checked(o.value(QStringLiteral("command")).toObject(), &why);
    const QString type = c ? c->value(L(Protocol::type)).toString() : QString();
    const bool one = type == L(C::whisper) || type == L(C::listen) || type == L(C::preview);
    if (c && (to < 0 || to > 110 || to != int(to)))
        why = QStringLiteral("\"to\" is 0 to 110");
    else if (c && one && to == 0)
        why = QStringLiteral("a %1 goes to one agent: its number, 1 to 110").arg(type);
    if (!why.isEmpty()) {
        feed(QStringLiteral("refused"), int(qBound(0.0, to, 110.0)), why);
        return;
    }
    const int id = int(to);
    if (type == L(C::listen) || type == L(C::preview)) {
        const bool seeing = type == L(C::preview);
        const bool on = c->value(L(C::on)).toBool();
        Link &page = m_pages[&l];
        if (on && (seeing ? page.preview : page.listen) != id)
            letGo(page, seeing);
        int &mine = seeing ? page.preview : page.listen;
        if (on)
            mine = id;
        else if (mine == id)
            mine = 0;
        if (on && seeing)
            record(id).previewHd = c->value(L(C::hd)).toBool();
        if (!on && wanting(id, seeing) > 0) {
            feed(QStringLiteral("kept"), id, QStringLiteral("%1 stays on: another page still has it").arg(type));
            return;
        }
    }
    feed(QStringLiteral("sent"), id, command(id, *c));
}

int Room::wanting(int id, bool seeing) const
{
    int n = 0;
    for (const auto &[_, page] : m_pages)
        n += (seeing ? page.preview : page.listen) == id;
    return n;
}

bool Room::endStreams(int id)
{
    // The agent ended its live audio and preview itself (End Live): each page that had one is
    // told, shows it off, and nothing asks for it again until the operator presses it again.
    bool ended = false;
    for (auto &[_, page] : m_pages) {
        for (const bool seeing : {false, true}) {
            int &mine = seeing ? page.preview : page.listen;
            if (mine == 0 || (id != 0 && mine != id))
                continue;
            const QString stream = seeing ? L(Protocol::Command::preview) : L(Protocol::Command::listen);
            page.link->sendText(bytes({{QStringLiteral("kind"), QStringLiteral("ended")}, {QStringLiteral("stream"), stream},
                                       {QStringLiteral("agent"), std::exchange(mine, 0)}}));
            ended = true;
        }
    }
    return ended;
}

void Room::letGo(Link &page, bool seeing)
{
    // The agent streams on while another page still wants it.
    const int id = std::exchange(seeing ? page.preview : page.listen, 0);
    if (id > 0 && wanting(id, seeing) == 0)
        sendRaw(id, bytes({{L(Protocol::type), seeing ? L(Protocol::Command::preview) : L(Protocol::Command::listen)},
                           {L(Protocol::Command::on), false}}));
}

QString Room::command(int id, const QJsonObject &c)
{
    const QString type = c.value(L(Protocol::type)).toString();
    // The wish holds for agents away now too: they are asked again when they come back.
    // What is asked of every agent is kept for agents that connect later too.
    const bool endLive = type == L(Protocol::Command::cameras) && !c.value(L(Protocol::Command::on)).toBool();
    const bool start = type == L(Protocol::Command::start);
    const QString session = start ? c.value(L(Protocol::Command::session)).toString() : QString();
    const bool quality = type == L(Protocol::Command::quality);
    const QString q = c.value(L(Protocol::Command::q)).toString();
    if (id == 0 && type == L(Protocol::Command::cameras))
        m_allLive = !endLive;
    if (id == 0 && (start || endLive || type == L(Protocol::Command::stop)))
        m_allSession = session;
    if (id == 0 && quality)
        m_allQuality = q;
    m_allLiveAsked = m_allLiveAsked || (id == 0 && type == L(Protocol::Command::cameras));
    m_allSessionAsked = m_allSessionAsked || (id == 0 && (start || endLive || type == L(Protocol::Command::stop)));
    for (auto &[n, a] : m_records) {
        if (id != 0 && n != id)
            continue;
        if (type == L(Protocol::Command::cameras))
            a.camerasOn = !endLive;
        if (start || endLive || type == L(Protocol::Command::stop))
            a.session = session;
        if (quality)
            a.quality = q;
    }
    const bool streamsEnded = endLive && endStreams(id);
    int notLive = 0;
    std::set<int> targets;
    for (auto &[_, l] : m_agents)
        if (id == 0 || l.id == id)
            targets.insert(l.id);
    for (int t : targets) {
        Agent &a = record(t);
        notLive += start && !a.camerasOn;
        if (type == L(Protocol::Command::release)) { // its wishes go with the computer that let go of the number
            a.released = true;
            takeAllWishes(a); // the next computer with the number is a new agent; what is asked of the row now is kept for it
            endStreams(t);
        }
    }
    if (start || type == L(Protocol::Command::cameras) || type == L(Protocol::Command::stop) || quality || type == L(Protocol::Command::release))
        saveWishes();
    const int sent = sendRaw(id, bytes(c));
    // One pass: a "%1" in a session or a whisper is text, not a place for the count.
    QString line = QStringLiteral("→ %1: %2 — sent to %3 agent(s)")
                       .arg(id == 0 ? QStringLiteral("all") : QStringLiteral("#%1").arg(id), CommandWords::describe(c), QString::number(sent));
    const bool stream = type == L(Protocol::Command::listen) || type == L(Protocol::Command::preview);
    const bool kept = (start || type == L(Protocol::Command::cameras) || type == L(Protocol::Command::stop)) && (id == 0 || m_records.count(id));
    if (sent == 0 && !stream)
        line += kept ? QStringLiteral("; warning: no agent connected now; kept for when it connects") : QStringLiteral("; warning: no agent connected to take it");
    if (notLive > 0)
        line += QStringLiteral("; warning: %1 of them not live, they record only after \"cameras on\" (Go Live)").arg(notLive);
    if (streamsEnded)
        line += QStringLiteral("; listening and previews of it ended: press them again after Go Live");
    return line;
}

int Room::sendRaw(int id, const std::string &text)
{
    int sent = 0;
    for (auto &[_, l] : m_agents) {
        if (id == 0 || l.id == id) {
            l.link->sendText(text);
            ++sent;
        }
    }
    return sent;
}

QStringList Room::list() const
{
    QStringList lines;
    for (const auto &[_, l] : m_agents) {
        const auto it = m_records.find(l.id);
        if (it == m_records.end())
            continue;
        const Agent &a = it->second;
        const bool recording = a.status.value(L(Protocol::Status::recording)).toBool();
        lines.append(QStringLiteral("agent #%1 %2: %3, %4, live audio %5 bytes, %6 preview frames, %7 stored, %8 uploading")
                         .arg(QString::number(l.id), a.name, a.camerasOn ? QStringLiteral("live") : QStringLiteral("not live"),
                              recording ? QStringLiteral("recording ") + (a.session.isEmpty() ? QStringLiteral("(a session it had)") : a.session)
                                        : QStringLiteral("not recording"),
                              QString::number(a.liveBytes), QString::number(a.previews), QString::number(a.stored), QString::number(a.uploading)));
    }
    if (lines.isEmpty())
        lines.append(QStringLiteral("no agents"));
    return lines;
}

void Room::uploadBegun(int agent, int delta)
{
    record(agent).uploading += delta;
}

void Room::stored(const UploadPlace &place, const QUrlQuery &query, const QString &path, bool duplicate)
{
    m_files.insert(path);
    if (duplicate) {
        say(QStringLiteral("upload %1 again: kept the copy already stored").arg(path));
        return;
    }
    ++record(place.agent).stored;
    say(QStringLiteral("upload %1").arg(path));
    feed(QStringLiteral("upload"), place.agent, path, path);
    if (m_hooks.uploaded)
        m_hooks.uploaded(query, m_uploads.filePath(path));
}

bool Room::event(const QUrlQuery &q, QString *why)
{
    using namespace Protocol::Event;
    const auto agent = UploadPlace::agentNumber(q.queryItemValue(L(id)));
    const QString type = q.queryItemValue(L(Protocol::Event::type), QUrl::FullyDecoded);
    if (!agent || type.isEmpty() || type.size() > 40) {
        *why = QStringLiteral("an event has an agent number (1 to 110) and a type");
        return false;
    }
    QJsonObject e{{QStringLiteral("time"), QDateTime::currentDateTimeUtc().toString(Qt::ISODateWithMs)}};
    // In the operator's words: "review: Positive, call type Emotional, why …, 15 s"; values as they came.
    QStringList parts;
    for (const auto &[key, value] : q.queryItems(QUrl::FullyDecoded)) {
        if (key == L(id) || e.size() > 10)
            continue;
        e.insert(key.left(40), value.left(200));
        if (key == L(secs))
            parts.append(value.left(200) + QStringLiteral(" s"));
        else if (key == L(outcome))
            parts.append(value.left(200));
        else if (key != L(Protocol::Event::type))
            parts.append((key == L(ctype) ? QStringLiteral("call type") : key.left(40)) + QLatin1Char(' ') + value.left(200));
    }
    const QString head = type == L(callStart) ? QStringLiteral("call started") : type == L(callEnd) ? QStringLiteral("call ended") : type;
    const QString words = parts.isEmpty() ? head : head + QStringLiteral(": ") + parts.join(QStringLiteral(", "));
    Agent &a = record(*agent);
    a.lastEvent = e;
    if (type == L(callStart))
        a.onCall = true;
    if (type == L(callEnd))
        a.onCall = false;
    say(QStringLiteral("event agent #%1 %2").arg(*agent).arg(words));
    feed(QStringLiteral("event"), *agent, words);
    if (m_hooks.event)
        m_hooks.event(q);
    return true;
}

void Room::saleAdded(const QString &token)
{
    const int agent = m_sales.agentOf(token);
    const QString path = QStringLiteral("sales/%1/sale.json").arg(token);
    m_files.insert(path);
    say(QStringLiteral("sale %1 from agent #%2").arg(token).arg(agent));
    // "Jane Q. Public · $1,251 · phone · referral yes": the lead is the agent's text, shown by the page as text only.
    namespace S = Protocol::Sale;
    const QJsonObject r = m_sales.sale(token);
    const double apv = r.value(L(S::apv)).toDouble();
    const QString line = QStringLiteral("%1 · $%2 · %3 · referral %4")
                             .arg(r.value(L(S::lead)).toString(), QLocale(QLocale::English).toString(apv, 'f', apv == std::floor(apv) ? 0 : 2),
                                  r.value(L(S::method)).toString(), r.value(L(S::referral)).toString());
    feed(QStringLiteral("sale"), agent, line, path);
}

void Room::saleFileStored(const QString &token, const QString &path)
{
    m_sales.fileStored(token, path);
    m_files.insert(path);
    say(QStringLiteral("sale file %1").arg(path));
    feed(QStringLiteral("sale-file"), m_sales.agentOf(token), path, path);
}

void Room::fault(int agent, const QString &line)
{
    say(line);
    feed(QStringLiteral("error"), agent, line);
}

QJsonObject Room::feedItem(const QDateTime &time, const QString &kind, int agent, const QString &text, const QString &link)
{
    QJsonObject item{{QStringLiteral("time"), time.toString(Qt::ISODateWithMs)}, {QStringLiteral("kind"), kind},
                     {QStringLiteral("agent"), agent}, {QStringLiteral("text"), text}};
    if (!link.isEmpty())
        item.insert(QStringLiteral("link"), QString(QStringLiteral("/files/") + link));
    return item;
}

void Room::feed(const QString &kind, int agent, const QString &text, const QString &link)
{
    const QJsonObject item = feedItem(QDateTime::currentDateTimeUtc(), kind, agent, text, link);
    m_feed.push_back(item);
    if (m_feed.size() > kFeedMax)
        m_feed.pop_front();
    if (!m_pages.empty())
        toPages(QJsonDocument(QJsonObject{{QStringLiteral("kind"), QStringLiteral("feed")}, {QStringLiteral("item"), item}}).toJson(QJsonDocument::Compact));
}

void Room::toPages(const QByteArray &json)
{
    for (auto &[_, page] : m_pages)
        page.link->sendText(json.toStdString());
}

QJsonObject Room::state(bool withFiles) const
{
    QJsonArray agents;
    for (const auto &[id, a] : m_records) {
        if (id == 0)
            continue;
        agents.append(QJsonObject{{QStringLiteral("id"), id}, {QStringLiteral("name"), a.name}, {QStringLiteral("connected"), a.connected}, {QStringLiteral("released"), a.released},
                                  {QStringLiteral("live"), a.camerasOn}, {QStringLiteral("session"), a.session}, {QStringLiteral("quality"), a.quality}, {QStringLiteral("status"), a.status},
                                  {QStringLiteral("uploading"), a.uploading}, {QStringLiteral("stored"), a.stored},
                                  {QStringLiteral("lastEvent"), a.lastEvent}, {QStringLiteral("onCall"), a.onCall},
                                  {QStringLiteral("os"), a.os}, {QStringLiteral("version"), a.version}});
    }
    QJsonObject out{{QStringLiteral("name"), m_name}, {QStringLiteral("agents"), agents}, {QStringLiteral("sales"), m_sales.json()},
                    {QStringLiteral("all"), QJsonObject{{QStringLiteral("liveAsked"), m_allLiveAsked}, {QStringLiteral("live"), m_allLive},
                                                        {QStringLiteral("sessionAsked"), m_allSessionAsked}, {QStringLiteral("session"), m_allSession},
                                                        {QStringLiteral("quality"), m_allQuality}}}};
    if (withFiles) {
        QJsonArray files;
        for (const QString &f : m_files)
            files.append(f);
        out.insert(QStringLiteral("files"), files);
    }
    return out;
}
