#pragma once

#include "Asio.h"
#include "OperatorToken.h"
#include "SaleBook.h"

#include <QDateTime>
#include <QDir>
#include <QJsonArray>
#include <QJsonObject>
#include <QUrl>
#include <QUrlQuery>

#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <set>

class HttpSession;
class WsLink;
struct UploadPlace;

// What the room's owner hears about (the tool prints it, tests record it). Called on the room's thread.
struct RoomHooks
{
    std::function<void(const QString &)> say;
    std::function<void(const QUrl &)> agentConnected;
    std::function<void(const QString &)> text;
    std::function<void(const QByteArray &)> binary; ///< unset: frames are not copied for it
    std::function<void(const QUrlQuery &, const QString &)> uploaded;
    std::function<void(const QUrlQuery &)> event;
};

// The control room's state on its network thread: agents and operator pages on their links,
// uploads in flight and stored, agent events, sales and the feed the page shows. Commands fan
// out from here; live audio and preview pictures go from the agent to the pages that asked.
class Room
{
public:
    /// Stores under `uploads`, lets in holders of `token`, serves the page files in `assets`.
    Room(asio::io_context &io, const QDir &uploads, OperatorToken token, std::map<std::string, std::string> assets, RoomHooks hooks);
    ~Room();

    /// The operator's token.
    const OperatorToken &token() const { return m_token; }
    /// The folder uploads land in.
    const QDir &uploads() const { return m_uploads; }
    /// A page file by its path ("/" is the page), or null.
    const std::string *asset(const std::string &path) const;
    /// The name announced and shown on the page.
    void setName(const QString &name) { m_name = name; }

    /// Starts listening; the port, or 0. The first time, takes back the sales stored before (then
    /// takes connections) and, between serving, the pieces (saying what it skipped and a summary).
    quint16 listen(const tcp::endpoint &at);
    /// Stops listening and ends every connection.
    void goDown();
    /// Listens again where it listened before.
    bool comeBack();
    /// Ends every agent's link from the room's side.
    void dropAgents();
    /// Goes down and lets go of every link (before the network's own end).
    void close();

    /// An agent's WebSocket upgrade with its identity in the URL.
    void acceptAgent(beast::tcp_stream &&stream, http::request<http::empty_body> &&upgrade, const QUrl &url);
    /// An operator page's WebSocket upgrade (already let in).
    void acceptPage(beast::tcp_stream &&stream, http::request<http::empty_body> &&upgrade);

    /// An upload of this agent started or ended.
    void uploadBegun(int agent, int delta);
    /// An upload was stored at `path` (under the uploads folder); duplicate when it was there already.
    void stored(const UploadPlace &place, const QUrlQuery &query, const QString &path, bool duplicate);
    /// An agent event; false with the reason when the query is not one.
    bool event(const QUrlQuery &query, QString *why);
    /// The sales.
    SaleBook &sales() { return m_sales; }
    /// A sale record arrived; feeds it.
    void saleAdded(const QString &token);
    /// A file of a sale was stored at `path`.
    void saleFileStored(const QString &token, const QString &path);
    /// True when `path` (under the uploads folder) is a file the room stored.
    bool fileKnown(const QString &path) const { return m_files.count(path) > 0; }
    /// The whole state as JSON; with the stored files when asked.
    QJsonObject state(bool withFiles) const;

    /// Sends a checked command to agent `id` (0: all); the line to show the operator.
    QString command(int id, const QJsonObject &command);
    /// Sends text as it is to agent `id` (0: all); how many got it.
    int sendRaw(int id, const std::string &text);
    /// Connected agents.
    int agentCount() const { return int(m_agents.size()); }
    /// One line per connected agent.
    QStringList list() const;
    /// Keeps track of an HTTP connection so that going down ends it.
    void track(const std::shared_ptr<HttpSession> &session);
    /// A fault of the room's own (a full disk): on its terminal and in the page's feed.
    void fault(int agent, const QString &line);

private:
    struct Agent; // one agent number's record, kept while it is away too
    struct Link
    {
        std::shared_ptr<WsLink> link;
        int id = 0;
        int listen = 0;  ///< pages: the agent heard
        int preview = 0; ///< pages: the agent seen
    };
    void acceptNext(const std::shared_ptr<tcp::acceptor> &acceptor);
    asio::awaitable<void> tickLoop();
    asio::awaitable<void> learnStored(std::shared_ptr<tcp::acceptor> acceptor);
    void agentMessage(WsLink &link, std::string &&message, bool binary);
    void pageMessage(WsLink &link, std::string &&message);
    int wanting(int id, bool seeing) const;
    void letGo(Link &page, bool seeing);
    bool endStreams(int id);
    void feed(const QString &kind, int agent, const QString &text, const QString &link = QString());
    /// One feed item at `time`; `link` is a stored file's path under the uploads folder, or empty.
    static QJsonObject feedItem(const QDateTime &time, const QString &kind, int agent, const QString &text, const QString &link);
    void toPages(const QByteArray &json);
    void say(const QString &line) const;
    /// After the scan of what was stored: counts and feed items of the pieces from before.
    void takeBackFeed();
    /// The state with the feed, as a page gets it when it connects.
    QJsonObject greeting() const;
    Agent &record(int id);
    void takeAllWishes(Agent &a) const;
    /// Writes what the operator asked (of all and of each number) to the uploads folder.
    void saveWishes() const;
    /// Reads back what saveWishes() wrote before a restart; a missing or unreadable file is nothing asked.
    void loadWishes();

    asio::io_context &m_io;
    QDir m_uploads;
    OperatorToken m_token;
    std::map<std::string, std::string> m_assets;
    RoomHooks m_hooks;
    QString m_name;
    std::shared_ptr<tcp::acceptor> m_acceptor;
    tcp::endpoint m_at;
    asio::steady_timer m_tick;
    bool m_ticking = false;
    bool m_learning = false; // what is stored is taken back once, as the room first listens
    bool m_closed = false;
    QDateTime m_startedAt;
    std::map<WsLink *, Link> m_agents;
    std::map<WsLink *, Link> m_pages;
    std::map<int, Agent> m_records;
    bool m_allLive = false; // the last Go Live or End Live for every agent
    QString m_allSession;   // the last start for every agent, until a stop or End Live for every agent
    QString m_allQuality;   // the last upload quality for every agent, empty before any
    bool m_allLiveAsked = false;    // Go Live or End Live asked of every agent yet
    bool m_allSessionAsked = false; // a start, stop or End Live asked of every agent yet
    std::vector<std::weak_ptr<HttpSession>> m_sessions;
    std::set<QString> m_files;
    SaleBook m_sales;
    std::deque<QJsonObject> m_feed;
};
