#include "HttpStub.h"
#include "RoomDiscovery.h"

#include <QNetworkAccessManager>
#include <QtTest>

namespace {

// A DNS-SD source the test scripts by hand: it records what discovery asks of it and reports
// whatever the test tells it to.
class ScriptedBrowser : public ServiceBrowser
{
public:
    bool available = true;
    int browses = 0;
    QList<int> resolveLimits;

    bool browse(const QString &type, const QString &domain) override
    {
        Q_ASSERT(type == QLatin1String("_bravacontrol._tcp") && domain == QLatin1String("local"));
        ++browses;
        return available;
    }
    void stop() override {}
    void resolve(const Service &, int timeoutMs) override { resolveLimits.append(timeoutMs); }

    static Service service(const QString &name)
    {
        return Service{name, QStringLiteral("_bravacontrol._tcp"), QStringLiteral("local"), 1, 0};
    }
    // Found, then resolved to these addresses (loopback when none are given).
    void announce(const QString &name, int port, QList<QHostAddress> addresses = {QHostAddress::LocalHost})
    {
        onFound(service(name));
        onResolved(service(name), addresses, port);
    }
};

} // namespace

// The list rules of control-room discovery, with a scripted DNS-SD source and real HTTP rooms on loopback.
class RoomDiscoveryTest : public QObject
{
    Q_OBJECT
    QNetworkAccessManager net;
    ScriptedBrowser *browser = nullptr;
    std::unique_ptr<RoomDiscovery> discovery;
    std::vector<std::unique_ptr<HttpStub>> servers;

    HttpStub *room(const HttpStub::Answer &answer = HttpStub::status(200))
    {
        servers.push_back(std::make_unique<HttpStub>());
        servers.back()->setDefault(answer);
        if (!servers.back()->listen())
            qFatal("cannot listen");
        return servers.back().get();
    }
    QStringList listed() const
    {
        QStringList out;
        for (const Room &r : discovery->rooms())
            out.append(r.name + QLatin1Char('@') + QString::number(r.port));
        return out;
    }
    static QString at(const QString &name, HttpStub *s) { return name + QLatin1Char('@') + QString::number(s->port()); }
    static HttpStub::Answer late(int ms)
    {
        HttpStub::Answer a = HttpStub::status(200);
        a.delayMs = ms;
        return a;
    }

private Q_SLOTS:
    void init()
    {
        auto owned = std::make_unique<ScriptedBrowser>();
        browser = owned.get();
        discovery = std::make_unique<RoomDiscovery>(net, std::move(owned));
        discovery->livenessIntervalMs = 60000;
        discovery->probeTimeoutMs = 400;
    }
    void cleanup()
    {
        discovery.reset();
        servers.clear();
    }

    void answeringRoomsAreListedOnceInOrderOfArrival()
    {
        HttpStub *slow = room(late(250));
        HttpStub *quick = room(HttpStub::status(404)); // any HTTP answer counts
        HttpStub *silent = room(HttpStub::hang());
        HttpStub *closed = room();
        const quint16 closedPort = closed->port();
        closed->close();
        discovery->start();
        QVERIFY(discovery->searching());
        browser->announce(QStringLiteral("Slow"), slow->port());
        browser->announce(QStringLiteral("Quick"), quick->port());
        browser->announce(QStringLiteral("Silent"), silent->port());
        browser->announce(QStringLiteral("Closed"), closedPort);
        browser->announce(QStringLiteral("Twin"), quick->port()); // the same address again: first name kept
        browser->announce(QStringLiteral("V6"), slow->port(), {QHostAddress::LocalHostIPv6});
        browser->announce(QStringLiteral("Both"), closedPort, {QHostAddress::LocalHostIPv6, QHostAddress::LocalHost});
        QCOMPARE(browser->resolveLimits, QList<int>(7, 5000));
        QCOMPARE(discovery->resolving(), 0);
        QTRY_COMPARE(listed(), QStringList({at("Quick", quick), at("Slow", slow)}));
        QTRY_COMPARE(silent->hanging(), 0); // past the probe limit
        QCOMPARE(listed().size(), 2);
        QCOMPARE(slow->requests.first().method + ' ' + slow->requests.first().url.path().toUtf8(), QByteArray("GET /"));
        QCOMPARE(slow->requests.size(), 1); // the IPv6-only service was never probed
    }

    void withdrawnOrUnresolvedNamesLeave()
    {
        HttpStub *a = room();
        HttpStub *b = room();
        discovery->start();
        browser->announce(QStringLiteral("Hall"), a->port());
        browser->announce(QStringLiteral("Hall"), b->port());
        browser->announce(QStringLiteral("Annex"), room()->port());
        QTRY_COMPARE(discovery->rooms().size(), 3);
        browser->onRemoved(ScriptedBrowser::service(QStringLiteral("Hall")));
        QCOMPARE(discovery->rooms().size(), 1);
        browser->onFound(ScriptedBrowser::service(QStringLiteral("Ghost")));
        QCOMPARE(discovery->resolving(), 1);
        browser->onResolveFailed(ScriptedBrowser::service(QStringLiteral("Ghost")));
        QCOMPARE(discovery->resolving(), 0);
        discovery->start(); // a restart keeps the list
        QCOMPARE(listed().size(), 1);
    }

    void livenessPassDropsSilentRoomsAndBrowsesAgain()
    {
        discovery->livenessIntervalMs = 150;
        HttpStub *stays = room();
        HttpStub *goes = room();
        discovery->start();
        browser->announce(QStringLiteral("Stays"), stays->port());
        browser->announce(QStringLiteral("Goes"), goes->port());
        QTRY_COMPARE(discovery->rooms().size(), 2);
        const int browses = browser->browses;
        goes->close();
        QTRY_COMPARE(listed(), QStringList({at("Stays", stays)}));
        QVERIFY(browser->browses > browses);
        // A browse that ends on its own stops searching; the pass revives it, start() says so again.
        browser->onStopped();
        QVERIFY(!discovery->searching());
        QTRY_VERIFY(browser->browses > browses + 1);
        discovery->start();
        QVERIFY(discovery->searching());
        browser->available = false;
        discovery->start();
        QVERIFY(!discovery->searching());
    }

    void stopFreezesTheList()
    {
        discovery->livenessIntervalMs = 100;
        HttpStub *main = room();
        HttpStub *slow = room(late(200));
        discovery->start();
        browser->announce(QStringLiteral("Main"), main->port());
        QTRY_COMPARE(discovery->rooms().size(), 1);
        browser->announce(QStringLiteral("Late"), slow->port());
        QTRY_COMPARE(slow->requests.size(), 1);
        discovery->stop();
        QVERIFY(!discovery->searching());
        const QStringList before{at("Main", main)};
        main->close();
        QTest::qWait(400);
        // No more probes, the dead room stays, and the answer that came after stop is ignored.
        QCOMPARE(listed(), before);
    }
};

QTEST_MAIN(RoomDiscoveryTest)
#include "tst_room_discovery.moc"
