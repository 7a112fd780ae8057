#include "CheckIn.h"
#include "HttpStub.h"
#include "MentorRoster.h"
#include "TestHome.h"
#include "TestLiterals.h"

#include <QNetworkAccessManager>
#include <QTimer>
#include <QtTest>

// A network manager that counts the requests made through it the moment they are made, with their time-outs.
class CountingNet : public QNetworkAccessManager
{
public:
    int made = 0;
    QList<int> timeouts;

protected:
    QNetworkReply *createRequest(Operation op, const QNetworkRequest &request, QIODevice *data) override
    {
        ++made;
        timeouts.append(request.transferTimeout());
        return QNetworkAccessManager::createRequest(op, request, data);
    }
};

// Check-in and roster against a loopback event web service, with the clock and permissions scripted.
class WebServiceTest : public QObject
{
    Q_OBJECT
    TestHome home;
    CountingNet net;
    HttpStub service;
    qint64 clockMs = 100000;
    CheckIn::Flags flags;
    CheckIn checkIn{net, home.settings(), home.info(), [this] { return flags; }, [this] { return clockMs; }};
    MentorRoster roster{net, home.info()};

    QString base() const { return QStringLiteral("http://") + service.address(); }
    void fetch(const QByteArray &body, int status = 200, HttpStub::Answer::Kind kind = HttpStub::Answer::Reply)
    {
        // The default, as a reset GET may be retried once by the network layer.
        service.setDefault(HttpStub::Answer{kind, status, body, "application/json"});
        roster.fetch();
        QTRY_VERIFY(!roster.fetching());
    }

private Q_SLOTS:
    void initTestCase() { QVERIFY(service.listen()); }
    void init()
    {
        home.wipe();
        home.useInfo(QStringLiteral("10.0.0.5:8080"), QStringLiteral("3.1"), base());
        home.settings().setAgentID(42);
        home.settings().setAgentName(QStringLiteral("Zoë \"Z\" Park"));
        home.settings().setSetupDone(true);
        flags = CheckIn::Flags{true, false, true};
        clockMs += 100000;
        net.made = 0;
        service.requests.clear();
        service.setDefault(HttpStub::status(200));
    }

    // Only a set-up agent of a locked build checks in. A check-in sends its body as JSON, at most
    // every 3 s, sooner when a permission changed.
    void checkInWhoBodySpacingAndChangedPermissions()
    {
        // Unlocked build, no web service, no agent number, setup not done: one missing at a time.
        for (int missing = 0; missing < 4; ++missing) {
            home.useInfo(missing == 0 ? QString() : QStringLiteral("10.0.0.5:8080"), QStringLiteral("3.1"), missing == 1 ? QString() : base());
            home.settings().setAgentID(missing == 2 ? 0 : 42);
            home.settings().setSetupDone(missing != 3);
            checkIn.poke(true);
            QCOMPARE(net.made, 0);
        }
        home.settings().setSetupDone(true);
        checkIn.poke(true);
        QTRY_COMPARE(service.requests.size(), 1);
        const HttpStub::Request &r = service.requests.first();
        QCOMPARE(r.method + ' ' + r.url.path().toUtf8() + ' ' + r.headers.value("content-type"),
                 QByteArray("POST /wp-json/brava/v1/checkin application/json"));
        QCOMPARE(QJsonDocument::fromJson(r.body).object(), QJsonObject(J{{"token", QString::fromLatin1(CheckIn::token)}, {"agent", 42}, {"name", "Zoë \"Z\" Park"},
                                 {"os", "linux"}, {"version", "3.1"}, {"mic", true}, {"cam", false}, {"screen", true}}));
        QVERIFY(r.body.startsWith("{\"token\":") && r.body.indexOf("\"os\"") < r.body.indexOf("\"screen\""));
        clockMs += 3000;
        checkIn.poke(true); // exactly 3 s later is too soon
        QCOMPARE(net.made, 1);
        clockMs += 1;
        checkIn.poke(true);
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
        QTRY_VERIFY(service.requests.size() == 4 && service.requests.last().body.contains("\"cam\":true"));
        QCOMPARE(net.timeouts.last(), 15000);
        checkIn.start(); // every minute, unless told otherwise
        QCOMPARE(checkIn.findChild<QTimer *>()->interval(), 60000);
        checkIn.start(100); // the timer forces check-ins
        clockMs += 5000;
        QTRY_COMPARE(net.made, 5);
        checkIn.stop();
    }

    void rosterKeepsIntegerSeatsWithNames()
    {
        const auto parsed = MentorRoster::parse(
            R"({"12":"Ann","x":"Bob","7":5,"+3":"Cy","-2":"Di"," 4":"Ed","99999999999":"Fa","8":null,"010":"Hu","":"Io","+":"Jo"})");
        QCOMPARE(parsed.value_or(QMap<int, QString>()), (QMap<int, QString>{{12, QStringLiteral("Ann")}, {3, QStringLiteral("Cy")}, {-2, QStringLiteral("Di")}, {10, QStringLiteral("Hu")}}));
        // A long name is cut to 80 characters, never inside a character: here before an emoji at 80.
        QCOMPARE(MentorRoster::parse("{\"1\":\"" + QByteArray(79, 'n') + "\xF0\x9F\x98\x80z\"}")->value(1), QString(79, QLatin1Char('n')));
        const qint64 before = QDateTime::currentSecsSinceEpoch();
        fetch(R"({"1":"Ann","2":"Bo"})");
        const HttpStub::Request &r = service.requests.first();
        QCOMPARE(r.method + ' ' + r.url.path().toUtf8(), QByteArray("GET /wp-json/brava/v1/mentors"));
        const qint64 t = QUrlQuery(r.url).queryItemValue(QStringLiteral("t")).toLongLong(); // a cache buster
        QVERIFY(t >= before && t <= QDateTime::currentSecsSinceEpoch() && net.timeouts.last() == 12000);
        fetch(R"({"2":"Cy"})"); // each answer replaces the roster whole
        QCOMPARE(roster.map(), (QMap<int, QString>{{2, QStringLiteral("Cy")}}));
        // Bad answers keep the roster as it was.
        QList<MentorRoster::Fault> faults;
        for (const HttpStub::Answer &bad : {HttpStub::status(200, "<html>busy</html>"), HttpStub::status(500, "[\"Ann\"]"), HttpStub::Answer{HttpStub::Answer::Reset},
                                            HttpStub::status(200, QByteArray(65536, ' ') + "{}")})
            fetch(bad.body, bad.status, bad.kind), faults.append(roster.fault());
        QCOMPARE(faults, QList<MentorRoster::Fault>({MentorRoster::Fault::NotAnObject, MentorRoster::Fault::NotAnObject, MentorRoster::Fault::NoAnswer, MentorRoster::Fault::TooLarge}));
        QCOMPARE(roster.name(2), QStringLiteral("Cy"));
        // One download at a time, and none without a web service.
        net.made = 0;
        service.script({HttpStub::hang()});
        roster.fetch();
        roster.fetch(); // an unknown seat whispers meanwhile
        QCOMPARE(net.made, 1);
        QTRY_COMPARE(service.hanging(), 1);
        service.release(HttpStub::status(200, R"({"7":"Mo"})"));
        QTRY_COMPARE(roster.name(7), QStringLiteral("Mo"));
        home.useInfo(QString(), QStringLiteral("2.5"), QString());
        roster.fetch();
        QVERIFY(!roster.fetching() && net.made == 1);
    }
};

QTEST_MAIN(WebServiceTest)
#include "tst_webservice.moc"
