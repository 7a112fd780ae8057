#include "CheckIn.h"
#include "Config.h"
#include "HttpStub.h"
#include "MentorRoster.h"
#include "TestHome.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QNetworkAccessManager>
#include <QtTest>

// A network manager that counts the requests made through it the moment they are made.
class CountingNet : public QNetworkAccessManager
{
public:
    int made = 0;

protected:
    QNetworkReply *createRequest(Operation op, const QNetworkRequest &request, QIODevice *data) override
    {
        ++made;
        return QNetworkAccessManager::createRequest(op, request, data);
    }
};

// Check-in and roster against a loopback event web service, with the clock and permissions scripted.
class WebServiceTest : public QObject
{
    Q_OBJECT
    TestHome home;
    CountingNet net;
    std::unique_ptr<HttpStub> service;
    qint64 clockMs = 100000;
    CheckIn::Flags flags;

    QString base() const { return QStringLiteral("http://") + service->address(); }
    static HttpStub::Answer json(const QByteArray &body, int status = 200)
    {
        return HttpStub::status(status, body, "application/json");
    }
    void fetchAnswered(MentorRoster &roster, const HttpStub::Answer &answer)
    {
        service->script({answer});
        roster.fetch();
        QTRY_VERIFY(!roster.fetching());
    }

private Q_SLOTS:
    void init()
    {
        home.wipe();
        service = std::make_unique<HttpStub>();
        QVERIFY(service->listen());
        home.useInfo(QStringLiteral("10.0.0.5:8080"), QStringLiteral("3.1"), base());
        Config::setAgentID(42);
        Config::setAgentName(QStringLiteral("Zoë \"Z\" Park"));
        Config::setSetupDone(true);
        flags = CheckIn::Flags{true, false, true};
        net.made = 0;
    }

    void checkInSendsTheBodyAsJson()
    {
        CheckIn checkIn(net, [this] { return flags; });
        checkIn.poke(true);
        QTRY_COMPARE(service->requests.size(), 1);
        const HttpStub::Request &r = service->requests.first();
        QCOMPARE(r.method + ' ' + r.url.path().toUtf8(), QByteArray("POST /wp-json/brava/v1/checkin"));
        QCOMPARE(r.headers.value("content-type"), QByteArray("application/json"));
        const QJsonObject o = QJsonDocument::fromJson(r.body).object();
        QCOMPARE(o.keys().size(), 8);
        QCOMPARE(o.value("token").toString(), QString::fromLatin1(CheckIn::token));
        QCOMPARE(o.value("agent"), QJsonValue(42));
        QCOMPARE(o.value("name").toString(), QStringLiteral("Zoë \"Z\" Park"));
        QCOMPARE(o.value("version").toString(), QStringLiteral("3.1"));
        QCOMPARE(o.value("os").toString(), QStringLiteral("linux"));
        QCOMPARE(QList<QJsonValue>({o.value("mic"), o.value("cam"), o.value("screen")}),
                 QList<QJsonValue>({true, false, true}));
        QVERIFY(r.body.startsWith("{\"token\":") && r.body.indexOf("\"os\"") < r.body.indexOf("\"screen\""));
    }

    void checkInGating_data()
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
    void checkInGating()
    {
        QFETCH(QString, fixedServer);
        QFETCH(int, agent);
        QFETCH(bool, setupDone);
        QFETCH(bool, withService);
        home.useInfo(fixedServer, QStringLiteral("3.1"), withService ? base() : QString());
        Config::setAgentID(agent);
        Config::setSetupDone(setupDone);
        CheckIn checkIn(net, [this] { return flags; }, [this] { return clockMs; });
        checkIn.poke(true);
        clockMs += 10000;
        flags.cam = true;
        checkIn.poke(false);
        QCOMPARE(net.made, 0);
    }

    void checkInSpacingAndChangedPermissions()
    {
        CheckIn checkIn(net, [this] { return flags; }, [this] { return clockMs; });
        checkIn.poke(true);
        clockMs += 3000;
        checkIn.poke(true); // exactly 3 s later is too soon
        QCOMPARE(net.made, 1);
        clockMs += 1;
        checkIn.poke(true);
        QCOMPARE(net.made, 2);
        clockMs += 20000;
        checkIn.poke(false); // nothing changed
        QCOMPARE(net.made, 2);
        checkIn.poke(true);
        flags.cam = true; // granted right after a check-in: held back until the 3 s have passed
        for (int i = 0; i < 7; ++i, clockMs += 500)
            checkIn.poke(false);
        QCOMPARE(net.made, 3);
        checkIn.poke(false);
        QCOMPARE(net.made, 4);
        QTRY_COMPARE(service->requests.size(), 4);
        QCOMPARE(QJsonDocument::fromJson(service->requests.last().body).object().value("cam"), QJsonValue(true));
        clockMs += 10000;
        checkIn.poke(false);
        QCOMPARE(net.made, 4);
        checkIn.start(100); // the timer forces check-ins
        clockMs += 5000;
        QTRY_COMPARE(net.made, 5);
    }

    void rosterParseKeepsIntegerKeysWithStringValues()
    {
        const auto roster = MentorRoster::parse(
            R"({"12":"Ann","x":"Bob","7":5,"+3":"Cy","-2":"Di"," 4":"Ed","99999999999":"Fa","8":null,"010":"Hu","":"Io","+":"Jo"})");
        QVERIFY(roster);
        QCOMPARE(*roster, (QMap<int, QString>{{12, "Ann"}, {3, "Cy"}, {-2, "Di"}, {10, "Hu"}}));
        for (const char *bad : {"[1,2]", "\"Ann\"", "<html>oops</html>", ""})
            QVERIFY(!MentorRoster::parse(bad));
    }

    void rosterFetchReplacesTheRosterWhole()
    {
        MentorRoster roster(net);
        const qint64 before = QDateTime::currentSecsSinceEpoch();
        fetchAnswered(roster, json(R"({"1":"Ann","2":"Bo"})"));
        const HttpStub::Request &r = service->requests.first();
        QCOMPARE(r.method + ' ' + r.url.path().toUtf8(), QByteArray("GET /wp-json/brava/v1/mentors"));
        const qint64 t = QUrlQuery(r.url).queryItemValue(QStringLiteral("t")).toLongLong();
        QVERIFY(t >= before && t <= QDateTime::currentSecsSinceEpoch()); // a cache buster
        QCOMPARE(roster.name(1), QStringLiteral("Ann"));
        fetchAnswered(roster, json(R"({"2":"Cy"})"));
        QCOMPARE(roster.map(), (QMap<int, QString>{{2, "Cy"}}));
    }

    void rosterBadAnswersKeepTheOldRoster_data()
    {
        QTest::addColumn<int>("kind");
        QTest::addColumn<QByteArray>("body");
        QTest::addColumn<int>("status");
        QTest::addColumn<int>("fault");
        QTest::newRow("not json") << int(HttpStub::Answer::Reply) << QByteArray("<html>busy</html>") << 200 << 2;
        QTest::newRow("error page") << int(HttpStub::Answer::Reply) << QByteArray("Internal error") << 500 << 2;
        QTest::newRow("reset") << int(HttpStub::Answer::Reset) << QByteArray() << 0 << 1;
    }
    void rosterBadAnswersKeepTheOldRoster()
    {
        QFETCH(int, kind);
        QFETCH(QByteArray, body);
        QFETCH(int, status);
        QFETCH(int, fault);
        MentorRoster roster(net);
        fetchAnswered(roster, json(R"({"5":"Ann"})"));
        HttpStub::Answer bad = json(body, status);
        bad.kind = HttpStub::Answer::Kind(kind);
        service->script({bad}); // a reset GET may be retried once by the network layer
        fetchAnswered(roster, bad);
        QCOMPARE(roster.name(5), QStringLiteral("Ann"));
        QCOMPARE(int(roster.fault()), fault);
        QVERIFY(!roster.lastError().isEmpty());
    }

    void rosterFetchesOneAtATimeAndOnlyWithAService()
    {
        MentorRoster roster(net);
        service->script({HttpStub::hang()});
        roster.fetch();
        roster.fetch(); // an unknown seat whispers meanwhile
        QCOMPARE(net.made, 1);
        QTRY_COMPARE(service->hanging(), 1);
        service->release(json(R"({"7":"Mo"})"));
        QTRY_COMPARE(roster.name(7), QStringLiteral("Mo"));
        home.useInfo(QString(), QStringLiteral("2.5"), QString());
        roster.fetch();
        QVERIFY(!roster.fetching());
        QCOMPARE(net.made, 1);
    }
};

QTEST_MAIN(WebServiceTest)
#include "tst_webservice.moc"
