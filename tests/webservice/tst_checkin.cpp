#include "CheckIn.h"
#include "Config.h"
#include "HttpStub.h"
#include "TestHome.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QtTest>

// Check-ins against a loopback event web service, with the clock and the permissions scripted.
class CheckInTest : public QObject
{
    Q_OBJECT
    TestHome home;
    HttpStub *service = nullptr;
    qint64 clockMs = 100000;
    CheckIn::Flags flags;

    QString base() const { return QStringLiteral("http://") + service->address(); }

    // Lets any request the last poke made reach the server.
    int settledCount()
    {
        QTest::qWait(150);
        return int(service->requests.size());
    }

private slots:
    void initTestCase()
    {
        CheckIn::setClockForTesting([this] { return clockMs; });
        CheckIn::setPermissionSource([this] { return flags; });
    }
    void init()
    {
        home.wipe();
        service = new HttpStub(this);
        QVERIFY(service->listen());
        home.useInfo(QStringLiteral("10.0.0.5:8080"), QStringLiteral("3.1"), base());
        Config::setAgentID(42);
        Config::setAgentName(QStringLiteral("Zoë \"Z\" Park"));
        Config::setSetupDone(true);
        CheckIn::resetForTesting();
        flags = CheckIn::Flags{true, false, true};
        clockMs += 100000;
    }
    void cleanup()
    {
        CheckIn::resetForTesting();
        delete service;
        service = nullptr;
    }

    void sendsTheBodyAsJson()
    {
        CheckIn::poke(true);
        QTRY_COMPARE(service->requests.size(), 1);
        const HttpStub::Request &r = service->requests.first();
        QCOMPARE(r.method, QByteArray("POST"));
        QCOMPARE(r.url.path(), QStringLiteral("/wp-json/brava/v1/checkin"));
        QCOMPARE(r.headers.value("content-type"), QByteArray("application/json"));
        const QJsonObject o = QJsonDocument::fromJson(r.body).object();
        QCOMPARE(o.keys().size(), 8);
        QCOMPARE(o.value("token").toString(), QStringLiteral("qz-k7-tallyin-3Rd8Wm"));
        QVERIFY(o.value("agent").isDouble());
        QCOMPARE(o.value("agent").toInt(), 42);
        QCOMPARE(o.value("name").toString(), QStringLiteral("Zoë \"Z\" Park"));
        QCOMPARE(o.value("os").toString(), QStringLiteral("linux"));
        QCOMPARE(o.value("version").toString(), QStringLiteral("3.1"));
        QCOMPARE(o.value("mic"), QJsonValue(true));
        QCOMPARE(o.value("cam"), QJsonValue(false));
        QCOMPARE(o.value("screen"), QJsonValue(true));
        // Keys go out in a fixed order.
        QVERIFY(r.body.startsWith("{\"token\":"));
        QVERIFY(r.body.indexOf("\"os\"") < r.body.indexOf("\"screen\""));
    }

    void endpointsHangOffTheBase()
    {
        QCOMPARE(CheckIn::url().toString(), base() + QStringLiteral("/wp-json/brava/v1/checkin"));
        QCOMPARE(CheckIn::verifyURL().toString(), base() + QStringLiteral("/wp-json/brava/v1/verify"));
        home.useInfo(QStringLiteral("10.0.0.5:8080"), QStringLiteral("3.1"), QString());
        QVERIFY(CheckIn::url().isEmpty());
        QVERIFY(CheckIn::verifyURL().isEmpty());
    }

    void gating_data()
    {
        QTest::addColumn<QString>("fixedServer");
        QTest::addColumn<int>("agent");
        QTest::addColumn<bool>("setupDone");
        QTest::addColumn<bool>("withService");
        QTest::newRow("unlocked build") << QString() << 42 << true << true;
        QTest::newRow("no agent number") << QStringLiteral("10.0.0.5:8080") << 0 << true << true;
        QTest::newRow("setup not done") << QStringLiteral("10.0.0.5:8080") << 42 << false << true;
        QTest::newRow("no web service") << QStringLiteral("10.0.0.5:8080") << 42 << true << false;
    }
    void gating()
    {
        QFETCH(QString, fixedServer);
        QFETCH(int, agent);
        QFETCH(bool, setupDone);
        QFETCH(bool, withService);
        home.useInfo(fixedServer, QStringLiteral("3.1"), withService ? base() : QString());
        Config::setAgentID(agent);
        Config::setSetupDone(setupDone);
        CheckIn::poke(true);
        clockMs += 10000;
        flags.cam = true;
        CheckIn::poke(false);
        QCOMPARE(settledCount(), 0);
    }

    void threeSecondRule()
    {
        CheckIn::poke(true);
        clockMs += 1000;
        CheckIn::poke(true); // two forced pokes a second apart send one request
        clockMs += 2000;
        CheckIn::poke(true); // exactly 3 s is not enough
        QCOMPARE(settledCount(), 1);
        clockMs += 1;
        CheckIn::poke(true);
        QTRY_COMPARE(service->requests.size(), 2);
    }

    void changedPermissionsGoOutWithALaterTick()
    {
        CheckIn::poke(true);
        clockMs += 20000;
        CheckIn::poke(false); // nothing changed
        QCOMPARE(settledCount(), 1);

        clockMs += 500;
        CheckIn::poke(true);
        QTRY_COMPARE(service->requests.size(), 2);
        flags.cam = true; // granted right after a check-in
        for (int i = 0; i < 6; ++i) { // ticks inside the 3 s
            clockMs += 500;
            CheckIn::poke(false);
        }
        QCOMPARE(settledCount(), 2);
        clockMs += 500;
        CheckIn::poke(false);
        QTRY_COMPARE(service->requests.size(), 3);
        const QJsonObject o = QJsonDocument::fromJson(service->requests.last().body).object();
        QCOMPARE(o.value("cam"), QJsonValue(true));
        clockMs += 10000;
        CheckIn::poke(false);
        QCOMPARE(settledCount(), 3);
    }

    void timerForcesCheckIns()
    {
        CheckIn::start(100);
        QTRY_VERIFY(service->requests.size() >= 1);
        clockMs += 5000;
        QTRY_VERIFY(service->requests.size() >= 2);
    }

    void unreachableServiceIsQuiet()
    {
        service->close();
        CheckIn::poke(true);
        QTest::qWait(200);
        QVERIFY(home.log().isEmpty());
    }
};

QTEST_MAIN(CheckInTest)
#include "tst_checkin.moc"
