#include "Config.h"
#include "HttpStub.h"
#include "MentorRoster.h"
#include "TestHome.h"

#include <QDateTime>
#include <QUrlQuery>
#include <QtTest>

// The mentor roster fetched from a loopback event web service.
class MentorRosterTest : public QObject
{
    Q_OBJECT
    TestHome home;
    HttpStub *service = nullptr;

    static HttpStub::Answer json(const QByteArray &body, int status = 200)
    {
        return HttpStub::status(status, body, "application/json");
    }
    // Fetches once and waits for the answer to be taken in.
    void fetchAnswered(const HttpStub::Answer &answer)
    {
        const int before = int(service->requests.size());
        service->script({answer});
        MentorRoster::fetch();
        QTRY_VERIFY(service->requests.size() > before); // a reset GET may be retried once by the network layer
        QTRY_VERIFY(!MentorRoster::fetching());
    }

private slots:
    void init()
    {
        home.wipe();
        MentorRoster::resetForTesting();
        service = new HttpStub(this);
        QVERIFY(service->listen());
        home.useInfo(QString(), QStringLiteral("2.5"), QStringLiteral("http://") + service->address());
    }
    void cleanup()
    {
        delete service;
        service = nullptr;
    }

    void parseKeepsIntegerKeysWithStringValues()
    {
        const auto roster = MentorRoster::parse(
            R"({"12":"Ann","x":"Bob","7":5,"+3":"Cy","-2":"Di"," 4":"Ed","99999999999":"Fa","8":null,"9":["G"],"010":"Hu","":"Io","+":"Jo"})");
        QVERIFY(roster);
        const QMap<int, QString> expected{{12, "Ann"}, {3, "Cy"}, {-2, "Di"}, {10, "Hu"}};
        QCOMPARE(*roster, expected);
        QVERIFY(!MentorRoster::parse("[1,2]"));
        QVERIFY(!MentorRoster::parse("\"Ann\""));
        QVERIFY(!MentorRoster::parse("<html>oops</html>"));
        QVERIFY(!MentorRoster::parse(""));
        QVERIFY(MentorRoster::parse("{}")->isEmpty());
    }

    void fetchAsksWithACacheBuster()
    {
        const qint64 before = QDateTime::currentSecsSinceEpoch();
        fetchAnswered(json(R"({"12":"Ann","x":"Bob"})"));
        const HttpStub::Request &r = service->requests.first();
        QCOMPARE(r.method, QByteArray("GET"));
        QCOMPARE(r.url.path(), QStringLiteral("/wp-json/brava/v1/mentors"));
        const qint64 t = QUrlQuery(r.url).queryItemValue(QStringLiteral("t")).toLongLong();
        QVERIFY(t >= before && t <= QDateTime::currentSecsSinceEpoch());
        QCOMPARE(MentorRoster::name(12), QStringLiteral("Ann"));
        QCOMPARE(MentorRoster::name(7), QString());
        QCOMPARE(MentorRoster::map().size(), 1);
    }

    void eachAnswerReplacesTheRosterWhole()
    {
        fetchAnswered(json(R"({"1":"Ann","2":"Bo"})"));
        fetchAnswered(json(R"({"2":"Cy"})"));
        QCOMPARE(MentorRoster::map(), (QMap<int, QString>{{2, "Cy"}}));
        fetchAnswered(json("{}"));
        QVERIFY(MentorRoster::map().isEmpty());
    }

    void badAnswersKeepTheOldRoster_data()
    {
        QTest::addColumn<int>("kind");
        QTest::addColumn<QByteArray>("body");
        QTest::addColumn<int>("status");
        QTest::newRow("not json") << int(HttpStub::Answer::Reply) << QByteArray("<html>busy</html>") << 200;
        QTest::newRow("array") << int(HttpStub::Answer::Reply) << QByteArray(R"(["Ann"])") << 200;
        QTest::newRow("empty body") << int(HttpStub::Answer::Reply) << QByteArray() << 200;
        QTest::newRow("server error page") << int(HttpStub::Answer::Reply) << QByteArray("Internal error") << 500;
        QTest::newRow("reset") << int(HttpStub::Answer::Reset) << QByteArray() << 0;
    }
    void badAnswersKeepTheOldRoster()
    {
        QFETCH(int, kind);
        QFETCH(QByteArray, body);
        QFETCH(int, status);
        fetchAnswered(json(R"({"5":"Ann"})"));
        HttpStub::Answer bad = json(body, status);
        bad.kind = HttpStub::Answer::Kind(kind);
        fetchAnswered(bad);
        QCOMPARE(MentorRoster::name(5), QStringLiteral("Ann"));
        QVERIFY(!MentorRoster::lastError().isEmpty());
    }

    void oneFetchInFlightAtMost()
    {
        service->script({HttpStub::hang()});
        MentorRoster::fetch();
        QTRY_COMPARE(service->hanging(), 1);
        QVERIFY(MentorRoster::fetching());
        MentorRoster::fetch(); // an unknown seat whispers meanwhile
        MentorRoster::fetch();
        QTest::qWait(200);
        QCOMPARE(service->requests.size(), 1);
        QCOMPARE(MentorRoster::name(7), QString());
        service->release(json(R"({"7":"Mo"})"));
        QTRY_COMPARE(MentorRoster::name(7), QStringLiteral("Mo"));
        QVERIFY(!MentorRoster::fetching());
        fetchAnswered(json(R"({"7":"Mo"})"));
        QCOMPARE(service->requests.size(), 2);
    }

    void noWebServiceNoFetch()
    {
        home.useInfo(QString(), QStringLiteral("2.5"), QString());
        MentorRoster::fetch();
        QVERIFY(!MentorRoster::fetching());
        QTest::qWait(100);
        QCOMPARE(service->requests.size(), 0);
    }
};

QTEST_MAIN(MentorRosterTest)
#include "tst_mentor_roster.moc"
