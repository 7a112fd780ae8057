#include "AgentParts.h"
#include "Clock.h"
#include "AppDelegate.h"
#include "CheckIn.h"
#include "Config.h"
#include "Connection.h"
#include "ControlRoom.h"
#include "HttpStub.h"
#include "MentorRoster.h"
#include "Recorder.h"
#include "TestHome.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QtTest>

// The controller's use of the event web service: a forced check-in and a roster fetch at launch,
// a forced check-in when the link comes back, and a roster fetch when an unknown seat whispers.
class WebServiceWiringTest : public QObject
{
    Q_OBJECT
    TestHome home;
    ControlRoom *room = nullptr;
    HttpStub *service = nullptr;
    Connection *conn = nullptr;
    std::unique_ptr<AgentParts> parts;
    Recorder *rec = nullptr;
    AppDelegate *app = nullptr;
    qint64 clockMs = 1000000;

    int count(const QString &path) const
    {
        int n = 0;
        for (const HttpStub::Request &r : service->requests)
            n += r.url.path() == path ? 1 : 0;
        return n;
    }
    int checkIns() const { return count(QStringLiteral("/wp-json/brava/v1/checkin")); }
    int rosterFetches() const { return count(QStringLiteral("/wp-json/brava/v1/mentors")); }
    void whisper(int seat)
    {
        room->sendText(QString::fromUtf8(QJsonDocument(QJsonObject{{"type", "whisper"}, {"text", "Slow down"}, {"seat", seat}}).toJson()));
    }

private slots:
    void initTestCase()
    {
        home.wipe();
        room = new ControlRoom(this);
        QVERIFY(room->listen());
        service = new HttpStub(this);
        QVERIFY(service->listen());
        service->onRequest = [](const HttpStub::Request &r, HttpStub::Answer &a) {
            if (r.url.path().endsWith(QLatin1String("/mentors")))
                a = HttpStub::status(200, R"({"3":"Ann"})", "application/json");
        };
        // A locked build: check-ins are on.
        home.useInfo(room->address(), QStringLiteral("4.2"), QStringLiteral("http://") + service->address());
        Config::setAgentID(7);
        Config::setAgentName(QStringLiteral("Ana"));
        Config::setSetupDone(true);
        CheckIn::setClockForTesting([this] { return clockMs; });
        conn = new Connection(this);
        parts = std::make_unique<AgentParts>();
        rec = new Recorder(parts->audio, *parts->cameras, Clock::monotonic(), this);
        app = new AppDelegate(*rec, *conn, parts->permissions, this);
        app->applicationDidFinishLaunching();
    }
    void cleanupTestCase()
    {
        delete app;
        app = nullptr;
        delete rec; // before the sound-server backend it records from
        rec = nullptr;
        CheckIn::setClockForTesting(nullptr);
    }

    void launchChecksInAndFetchesTheRoster()
    {
        QTRY_COMPARE(checkIns(), 1);
        QTRY_COMPARE(rosterFetches(), 1);
        QTRY_COMPARE(MentorRoster::name(3), QStringLiteral("Ann"));
        QTRY_VERIFY(conn->connected());
        QTest::qWait(700); // link-up and ticks within 3 s of the launch check-in send nothing more
        QCOMPARE(checkIns(), 1);
        QJsonObject body;
        for (const HttpStub::Request &r : service->requests)
            if (r.url.path().endsWith(QLatin1String("/checkin")))
                body = QJsonDocument::fromJson(r.body).object();
        QCOMPARE(body.value("agent").toInt(), 7);
        QCOMPARE(body.value("version").toString(), QStringLiteral("4.2"));
    }

    void linkComingBackForcesACheckIn()
    {
        clockMs += 10000;
        QTest::qWait(600); // ticks: nothing changed, nothing sent
        QCOMPARE(checkIns(), 1);
        room->dropAgent();
        QTRY_VERIFY(!conn->connected());
        QTRY_VERIFY_WITH_TIMEOUT(conn->connected(), 10000);
        QTRY_COMPARE(checkIns(), 2);
    }

    void unknownSeatFetchesTheRosterAgain()
    {
        whisper(3); // known
        QTest::qWait(300);
        QCOMPARE(rosterFetches(), 1);
        whisper(7); // unknown
        QTRY_COMPARE(rosterFetches(), 2);
    }
};

QTEST_MAIN(WebServiceWiringTest)
#include "tst_webservice_wiring.moc"
