#include "Config.h"
#include "Connection.h"
#include "OrderedJson.h"
#include "TestHome.h"
#include "TestRoom.h"

#include <QThread>
#include <QtTest>

// The link against a control room on loopback, with a short retry delay.
class ConnectionTest : public QObject
{
    Q_OBJECT
    TestHome home;
    std::unique_ptr<TestRoom> room;
    std::unique_ptr<Connection> conn;

    bool up()
    {
        conn->connect();
        return QTest::qWaitFor([this] { return conn->connected(); }, 5000);
    }
    // Waits long enough for any automatic reconnection to have happened.
    void pastRetries() { QTest::qWait(3 * conn->retryMs); }

private Q_SLOTS:
    void init()
    {
        home.wipe();
        home.useInfo(QString(), QStringLiteral("3.1"));
        room = std::make_unique<TestRoom>();
        Config::setAgentID(7);
                Config::setServer(room->address());
        conn = std::make_unique<Connection>();
        conn->retryMs = 300;
    }
    void cleanup()
    {
        conn.reset();
        room.reset();
    }

    void noNumberOrNoAddressMakesNoSocket()
    {
        QVERIFY(up());
        Config::setAgentID(0);
        conn->connect();
        QTRY_COMPARE(room->agentCount(), 0); // the old socket was cancelled
        Config::setAgentID(7);
        for (const char *server : {"not a host:xx", ""}) {
            Config::setServer(QString::fromLatin1(server));
            conn->connect();
        }
        pastRetries();
        QCOMPARE(room->urls.size(), 1); // and no new one was made, not even by a retry
    }

    void oversizedMessageDropsAndReconnects()
    {
        QVERIFY(up());
        room->sendText(QString(int(Connection::kMaxMessageBytes) + 16, QLatin1Char('x')));
        QTRY_VERIFY_WITH_TIMEOUT(room->urls.size() == 2 && conn->connected(), 8000);
    }

    void connectDuringTheRetryWaitMakesOneSocketAndDisconnectStopsRetries()
    {
        QVERIFY(up());
        room->dropAgents();
        QTRY_VERIFY(!conn->connected());
        QVERIFY(up()); // before the retry fires
        pastRetries();
        QCOMPARE(room->urls.size(), 2);
        QCOMPARE(room->agentCount(), 1);
        const qint64 gen = conn->generation();
        conn->disconnect();
        QCOMPARE(conn->generation(), gen + 1);
        QVERIFY(!conn->connected());
        pastRetries();
        QCOMPARE(room->urls.size(), 2);
        QCOMPARE(room->agentCount(), 0);
    }

    void sendsWhileDownAreDroppedAndFramesCarryTheirKind()
    {
        conn->sendJSON(OrderedJson().insert(QStringLiteral("type"), QStringLiteral("early")));
        conn->sendPreview("jpeg");
        QVERIFY(up());
        conn->sendJSON(OrderedJson().insert(QStringLiteral("z"), true).insert(QStringLiteral("a"), QStringLiteral("q\"\\\n")));
        // Live audio and preview arrive on capture threads.
        QThread *t = QThread::create([this] {
            for (int i = 0; i < 30; ++i)
                conn->sendLiveAudio(quint8(i % 2), QByteArray(640, char(i)));
            conn->sendPreview("jpeg");
        });
        t->start();
        QVERIFY(t->wait(5000));
        delete t;
        QTRY_COMPARE(room->binaries.size(), 31);
        QCOMPARE(room->texts, QStringList({QStringLiteral("{\"z\":true,\"a\":\"q\\\"\\\\\\n\"}")}));
        for (int i = 0; i < 30; ++i)
            QCOMPARE(room->binaries[i], QByteArray(1, char(i % 2)) + QByteArray(640, char(i)));
        QCOMPARE(room->binaries.last(), QByteArray("\x02jpeg"));
    }
};

QTEST_GUILESS_MAIN(ConnectionTest)
#include "tst_connection.moc"
