#include "HttpStub.h"
#include "RoomDiscovery.h"
#include "TestHome.h"

#include <QtTest>

namespace {

// A DNS-SD source the test scripts by hand: it records what discovery asks of it and reports
// whatever the test tells it to.
class ScriptedBrowser : public ServiceBrowser
{
public:
    bool available = true;
    int browses = 0;
    int stops = 0;
    QList<QPair<Service, int>> resolves;

    bool browse(const QString &type, const QString &domain) override
    {
        Q_ASSERT(type == QLatin1String("_bravacontrol._tcp") && domain == QLatin1String("local"));
        ++browses;
        return available;
    }
    void stop() override { ++stops; }
    void resolve(const Service &service, int timeoutMs) override { resolves.append({service, timeoutMs}); }

    static Service service(const QString &name)
    {
        return Service{name, QStringLiteral("_bravacontrol._tcp"), QStringLiteral("local"), 1, 0};
    }
    void find(const QString &name) { onFound(service(name)); }
    void answer(const QString &name, const QList<QHostAddress> &addresses, int port)
    {
        onResolved(service(name), addresses, port);
    }
    // Found and resolved to loopback at once.
    void announce(const QString &name, int port)
    {
        find(name);
        answer(name, {QHostAddress(QStringLiteral("127.0.0.1"))}, port);
    }
};

const QHostAddress v4(QStringLiteral("127.0.0.1"));
const QHostAddress v6(QStringLiteral("::1"));

} // namespace

// The list rules of control-room discovery, with a scripted DNS-SD source and real HTTP rooms
// on loopback.
class RoomDiscoveryTest : public QObject
{
    Q_OBJECT
    TestHome home;
    ScriptedBrowser *browser = nullptr;
    RoomDiscovery *discovery = nullptr;
    QList<HttpStub *> servers;
    int changes = 0;

    HttpStub *room(int status = 200)
    {
        auto *s = new HttpStub(this);
        s->setDefault(HttpStub::status(status));
        if (!s->listen())
            qFatal("cannot listen");
        servers.append(s);
        return s;
    }
    QStringList listed() const
    {
        QStringList out;
        for (const Room &r : discovery->rooms())
            out.append(r.name + QLatin1Char('@') + r.id());
        return out;
    }
    static QString at(const QString &name, HttpStub *s) { return name + QStringLiteral("@127.0.0.1:") + QString::number(s->port()); }

private slots:
    void init()
    {
        auto owned = std::make_unique<ScriptedBrowser>();
        browser = owned.get();
        discovery = new RoomDiscovery(std::move(owned), this);
        discovery->livenessIntervalMs = 60000;
        discovery->probeTimeoutMs = 400;
        discovery->onChange = [this] { ++changes; };
        changes = 0;
    }
    void cleanup()
    {
        delete discovery;
        discovery = nullptr;
        qDeleteAll(servers);
        servers.clear();
    }

    void roomRecordIdentity()
    {
        const Room r{QStringLiteral("Main"), QStringLiteral("10.0.0.5"), 8080};
        QCOMPARE(r.id(), QStringLiteral("10.0.0.5:8080"));
        QCOMPARE(r.address(), QStringLiteral("10.0.0.5:8080"));
        QVERIFY(r == (Room{QStringLiteral("Main"), QStringLiteral("10.0.0.5"), 8080}));
        QVERIFY(!(r == (Room{QStringLiteral("Other"), QStringLiteral("10.0.0.5"), 8080})));
    }

    void startBrowsesAndSearches()
    {
        discovery->start();
        QVERIFY(discovery->searching());
        QCOMPARE(browser->browses, 1);
        QCOMPARE(browser->stops, 1); // any earlier browse is ended first
        QVERIFY(changes >= 1);
        browser->find(QStringLiteral("Main"));
        QCOMPARE(browser->resolves.size(), 1);
        QCOMPARE(browser->resolves.first().second, 5000);
        QCOMPARE(discovery->resolving(), 1);
    }

    void noDaemonMeansNotSearching()
    {
        browser->available = false;
        discovery->start();
        QVERIFY(!discovery->searching());
    }

    void answeringRoomsAreListedInOrderOfArrival()
    {
        HttpStub *slow = room();
        slow->setDefault([] { auto a = HttpStub::status(200); a.delayMs = 250; return a; }());
        HttpStub *quick = room(404); // any HTTP answer counts
        discovery->start();
        browser->announce(QStringLiteral("Slow"), slow->port());
        browser->announce(QStringLiteral("Quick"), quick->port());
        QCOMPARE(discovery->resolving(), 0);
        QTRY_COMPARE(discovery->rooms().size(), 2);
        QCOMPARE(listed(), QStringList({at("Quick", quick), at("Slow", slow)}));
        QCOMPARE(slow->requests.first().method, QByteArray("GET"));
        QCOMPARE(slow->requests.first().url.path(), QStringLiteral("/"));
    }

    void silentOrClosedRoomsAreNeverListed()
    {
        HttpStub *silent = room();
        silent->setDefault(HttpStub::hang());
        HttpStub *closed = room();
        const quint16 closedPort = closed->port();
        closed->close();
        HttpStub *good = room();
        discovery->start();
        browser->announce(QStringLiteral("Silent"), silent->port());
        browser->announce(QStringLiteral("Closed"), closedPort);
        browser->announce(QStringLiteral("Good"), good->port());
        QTRY_COMPARE(discovery->rooms().size(), 1);
        QTest::qWait(600); // past the probe limit
        QCOMPARE(listed(), QStringList({at("Good", good)}));
    }

    void onlyTheFirstIPv4AddressCounts()
    {
        HttpStub *s = room();
        discovery->start();
        browser->find(QStringLiteral("V6"));
        browser->answer(QStringLiteral("V6"), {v6, QHostAddress(QStringLiteral("fe80::1"))}, s->port());
        browser->find(QStringLiteral("Both"));
        browser->answer(QStringLiteral("Both"), {v6, v4, QHostAddress(QStringLiteral("127.0.0.2"))}, s->port());
        browser->find(QStringLiteral("None"));
        browser->answer(QStringLiteral("None"), {}, s->port());
        QCOMPARE(discovery->resolving(), 0);
        QTRY_COMPARE(discovery->rooms().size(), 1);
        QTest::qWait(200);
        QCOMPARE(listed(), QStringList({at("Both", s)}));
        QCOMPARE(s->requests.size(), 1); // the IPv6-only and address-less services were never probed
    }

    void sameAddressIsListedOnceFirstNameKept()
    {
        HttpStub *s = room();
        discovery->start();
        browser->announce(QStringLiteral("First"), s->port());
        QTRY_COMPARE(discovery->rooms().size(), 1);
        browser->announce(QStringLiteral("Second"), s->port());
        QTRY_COMPARE(s->requests.size(), 2);
        QTest::qWait(100);
        QCOMPARE(listed(), QStringList({at("First", s)}));
    }

    void withdrawnNameRemovesEveryRoomOfThatName()
    {
        HttpStub *a = room();
        HttpStub *b = room();
        HttpStub *c = room();
        discovery->start();
        browser->announce(QStringLiteral("Hall"), a->port());
        browser->announce(QStringLiteral("Hall"), b->port());
        browser->announce(QStringLiteral("Annex"), c->port());
        QTRY_COMPARE(discovery->rooms().size(), 3);
        browser->onRemoved(ScriptedBrowser::service(QStringLiteral("Hall")));
        QCOMPARE(listed(), QStringList({at("Annex", c)}));
        browser->onRemoved(ScriptedBrowser::service(QStringLiteral("Nobody")));
        QCOMPARE(discovery->rooms().size(), 1);
    }

    void failedResolveIsDropped()
    {
        discovery->start();
        browser->find(QStringLiteral("Ghost"));
        QCOMPARE(discovery->resolving(), 1);
        browser->onResolveFailed(ScriptedBrowser::service(QStringLiteral("Ghost")));
        QCOMPARE(discovery->resolving(), 0);
        QVERIFY(discovery->rooms().isEmpty());
    }

    void livenessPassDropsRoomsThatStopAnswering()
    {
        discovery->livenessIntervalMs = 200;
        HttpStub *stays = room();
        HttpStub *goes = room();
        discovery->start();
        browser->announce(QStringLiteral("Stays"), stays->port());
        browser->announce(QStringLiteral("Goes"), goes->port());
        QTRY_COMPARE(discovery->rooms().size(), 2);
        const int browsesBefore = browser->browses;
        goes->close();
        QTRY_COMPARE(discovery->rooms().size(), 1);
        QCOMPARE(discovery->rooms().first().name, QStringLiteral("Stays"));
        // Each pass browses again so rooms that come back are found anew.
        QVERIFY(browser->browses > browsesBefore);
        QVERIFY(stays->requests.size() >= 2);
    }

    void restartKeepsTheList()
    {
        HttpStub *s = room();
        discovery->start();
        browser->announce(QStringLiteral("Main"), s->port());
        QTRY_COMPARE(discovery->rooms().size(), 1);
        discovery->start();
        QCOMPARE(discovery->rooms().size(), 1);
    }

    void stopFreezesTheList()
    {
        discovery->livenessIntervalMs = 100;
        HttpStub *s = room();
        HttpStub *late = room();
        late->setDefault([] { auto a = HttpStub::status(200); a.delayMs = 200; return a; }());
        discovery->start();
        browser->announce(QStringLiteral("Main"), s->port());
        QTRY_COMPARE(discovery->rooms().size(), 1);
        browser->announce(QStringLiteral("Late"), late->port());
        QTRY_COMPARE(late->requests.size(), 1);
        discovery->stop();
        QVERIFY(!discovery->searching());
        const QString main = at("Main", s);
        s->close();
        const int probes = int(s->requests.size());
        QTest::qWait(500);
        // No more probes, the dead room stays, and the answer that came after stop is ignored.
        QCOMPARE(int(s->requests.size()), probes);
        QCOMPARE(listed(), QStringList({main}));
    }

    void browseEndingOnItsOwnStopsSearchingUntilStart()
    {
        discovery->livenessIntervalMs = 100;
        discovery->start();
        browser->onStopped();
        QVERIFY(!discovery->searching());
        const int before = browser->browses;
        QTRY_VERIFY(browser->browses > before); // the pass revives the browse
        QVERIFY(!discovery->searching());
        discovery->start();
        QVERIFY(discovery->searching());
    }
};

QTEST_MAIN(RoomDiscoveryTest)
#include "tst_room_discovery.moc"
