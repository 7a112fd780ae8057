#include "RoomDiscovery.h"

#include "AvahiBrowser.h"
#include "RoomProbe.h"

#include <QPointer>
#include <QThread>
#include <QTimer>

RoomDiscovery::RoomDiscovery(QNetworkAccessManager &net, std::unique_ptr<ServiceBrowser> browser, QObject *parent)
    : QObject(parent)
    , m_browser(browser ? std::move(browser) : std::make_unique<AvahiBrowser>())
    , m_probe(new RoomProbe(net, this))
{
    m_browser->onFound = [this](const ServiceBrowser::Service &s) { found(s); };
    m_browser->onRemoved = [this](const ServiceBrowser::Service &s) { removed(s); };
    m_browser->onStopped = [this] { browserStopped(); };
    m_browser->onResolved = [this](const ServiceBrowser::Service &s, const QList<QHostAddress> &a, int port) {
        resolved(s, a, port);
    };
    m_browser->onResolveFailed = [this](const ServiceBrowser::Service &s) { notResolved(s); };
}

RoomDiscovery::~RoomDiscovery()
{
    m_browser->stop();
}

void RoomDiscovery::start()
{
    Q_ASSERT(QThread::currentThread() == thread());
    ++m_generation;
    m_browser->stop();
    m_pending.clear();
    // Without a reachable DNS-SD daemon nothing is searching; the liveness pass keeps trying.
    setSearching(m_browser->browse(QString::fromLatin1(kType), QString::fromLatin1(kDomain)));
    delete m_liveTimer;
    m_liveTimer = new QTimer(this);
    m_liveTimer->setInterval(livenessIntervalMs);
    connect(m_liveTimer, &QTimer::timeout, this, &RoomDiscovery::recheck);
    m_liveTimer->start();
}

void RoomDiscovery::stop()
{
    Q_ASSERT(QThread::currentThread() == thread());
    ++m_generation;
    m_browser->stop();
    m_pending.clear();
    delete m_liveTimer;
    m_liveTimer = nullptr;
    setSearching(false);
}

void RoomDiscovery::found(const ServiceBrowser::Service &service)
{
    m_pending.append(service);
    m_browser->resolve(service, resolveTimeoutMs);
}

void RoomDiscovery::resolved(const ServiceBrowser::Service &service, const QList<QHostAddress> &addresses, int port)
{
    m_pending.removeOne(service);
    QString host;
    for (const QHostAddress &address : addresses) {
        if (address.protocol() == QAbstractSocket::IPv4Protocol) {
            host = address.toString();
            break;
        }
    }
    if (host.isEmpty())
        return;
    const quint64 generation = m_generation;
    const Room room{service.name, host, port};
    probe(host, port, [this, generation, room](bool reachable) {
        if (reachable && generation == m_generation)
            add(room);
    });
}

void RoomDiscovery::notResolved(const ServiceBrowser::Service &service)
{
    m_pending.removeOne(service);
}

void RoomDiscovery::removed(const ServiceBrowser::Service &service)
{
    const QString name = service.name;
    removeWhere([&name](const Room &r) { return r.name == name; });
}

void RoomDiscovery::browserStopped()
{
    // The liveness pass keeps running and starts a new browse; searching stays false until start().
    setSearching(false);
}

void RoomDiscovery::recheck()
{
    const quint64 generation = m_generation;
    const QList<Room> snapshot = m_rooms;
    for (const Room &room : snapshot) {
        const QString id = room.id();
        const bool sent = probe(room.host, room.port, [this, generation, id](bool reachable) {
            if (!reachable && generation == m_generation)
                removeWhere([&id](const Room &r) { return r.id() == id; });
        });
        if (!sent)
            removeWhere([&id](const Room &r) { return r.id() == id; });
    }
    // Finds again what did not answer earlier or has come up since.
    m_browser->browse(QString::fromLatin1(kType), QString::fromLatin1(kDomain));
}

void RoomDiscovery::add(const Room &room)
{
    const QString id = room.id();
    for (const Room &r : std::as_const(m_rooms))
        if (r.id() == id)
            return;
    m_rooms.append(room);
    if (onChange)
        onChange();
}

void RoomDiscovery::removeWhere(const std::function<bool(const Room &)> &match)
{
    if (m_rooms.removeIf(match) > 0 && onChange)
        onChange();
}

void RoomDiscovery::setSearching(bool on)
{
    if (m_searching == on)
        return;
    m_searching = on;
    if (onChange)
        onChange();
}

bool RoomDiscovery::probe(const QString &host, int port, std::function<void(bool)> done)
{
    m_probe->timeoutMs = probeTimeoutMs;
    return m_probe->probe(host, port, std::move(done));
}
