#include "Config.h"
#include "Connection.h"
#include "ControlRoom.h"
#include "OrderedJson.h"
#include "TestHome.h"

#include <QJsonObject>
#include <QSignalSpy>
#include <QThread>
#include <QUrlQuery>
#include <QtTest>

class ConnectionTest : public QObject
{
    Q_OBJECT
    TestHome home;
    ControlRoom *room = nullptr;
    Connection *conn = nullptr;
    QList<QJsonObject> commands;
    int changes = 0;

    void makeConnection()
    {
        conn = new Connection(this);
        conn->onCommand = [this](const QJsonObject &c) { commands.append(c); };
        conn->onChange = [this] { ++changes; };
    }

private slots:
    void init()
    {
        home.wipe();
        home.useInfo(QString(), QStringLiteral("3.1"));
        room = new ControlRoom(this);
        QVERIFY(room->listen());
        Config::setAgentID(7);
        Config::setAgentName(QStringLiteral("Ana Lee & Co"));
        Config::setServer(room->address());
        commands.clear();
        changes = 0;
        makeConnection();
    }
    void cleanup()
    {
        delete conn;
        conn = nullptr;
        delete room;
        room = nullptr;
    }

    void urlCarriesIdentityInOrder()
    {
        conn->connect();
        QTRY_VERIFY(conn->connected());
        QCOMPARE(room->urls.size(), 1);
        const QUrl url = room->urls.first();
        QCOMPARE(url.path(), QStringLiteral("/agent"));
        const auto items = QUrlQuery(url).queryItems(QUrl::FullyDecoded);
        QCOMPARE(items.size(), 4);
        QCOMPARE(items[0], qMakePair(QStringLiteral("id"), QStringLiteral("7")));
        QCOMPARE(items[1], qMakePair(QStringLiteral("os"), QStringLiteral("linux")));
        QCOMPARE(items[2], qMakePair(QStringLiteral("v"), QStringLiteral("3.1")));
        QCOMPARE(items[3], qMakePair(QStringLiteral("name"), QStringLiteral("Ana Lee & Co")));
        QVERIFY(changes >= 1);
        QVERIFY(home.log().contains(QStringLiteral(" connected to %1 as agent 7\n").arg(room->address())));
    }

    void noNumberNoLink()
    {
        conn->connect();
        QTRY_VERIFY(conn->connected());
        Config::setAgentID(0);
        conn->connect();
        QVERIFY(!conn->connected() || room->openCount() <= 1);
        QTRY_COMPARE(room->openCount(), 0); // the old socket was cancelled
        QTest::qWait(2500);
        QCOMPARE(room->accepted, 1); // and no new one was made, not even by a retry
    }

    void badServerMakesNoSocket()
    {
        Config::setServer(QStringLiteral("not a host:xx"));
        conn->connect();
        QTest::qWait(300);
        QCOMPARE(room->accepted, 0);
        Config::setServer(QString());
        conn->connect();
        QTest::qWait(2300);
        QCOMPARE(room->accepted, 0);
    }

    void commandsReachTheController()
    {
        conn->connect();
        QTRY_VERIFY(conn->connected());
        room->sendText(QStringLiteral(R"({"type":"start","session":"s1"})"));
        QTRY_COMPARE(commands.size(), 1);
        QCOMPARE(commands[0].value("session").toString(), QStringLiteral("s1"));
    }

    void badInputIsIgnoredAndTheLinkStaysUp()
    {
        conn->connect();
        QTRY_VERIFY(conn->connected());
        const QStringList junk{
            QStringLiteral("not json"), QStringLiteral("[1,2,3]"), QStringLiteral("\"text\""), QStringLiteral("42"),
            QStringLiteral("null"), QStringLiteral("{\"type\":"), QStringLiteral("{}"), QStringLiteral("{\"type\":5}"),
            QStringLiteral("{\"type\":[\"replaced\"]}"), QStringLiteral("\xEF\xBF\xBD\x01\x02"),
            QStringLiteral("{\"type\":\"Replaced\"}"),
            QStringLiteral("{\"type\":\"whisper\",\"text\":\"") + QString(2 * 1024 * 1024, QLatin1Char('a')) + QStringLiteral("\"}"),
            QString(3 * 1024 * 1024, QLatin1Char('{')),
        };
        for (const QString &text : junk)
            room->sendText(text);
        room->sendBinary(QByteArray("\x00\x01\x02", 3));
        room->sendBinary(QByteArray(1024 * 1024, 'b'));
        room->sendText(QStringLiteral(R"({"type":"stop"})"));
        // Objects pass through (the controller decides about their types); everything else is dropped.
        QTRY_VERIFY(!commands.isEmpty() && commands.last().value("type") == QStringLiteral("stop"));
        QCOMPARE(commands.size(), 6);
        QVERIFY(conn->connected());
        QVERIFY(!conn->replaced());
        QCOMPARE(room->accepted, 1);
    }

    void oversizedMessageDropsAndReconnects()
    {
        conn->connect();
        QTRY_VERIFY(conn->connected());
        room->sendText(QString(int(Connection::kMaxMessageBytes) + 16, QLatin1Char('x')));
        QTRY_VERIFY_WITH_TIMEOUT(room->accepted == 2, 8000);
        QTRY_VERIFY(conn->connected());
    }

    void reconnectsAboutTwoSecondsAfterADrop()
    {
        conn->connect();
        QTRY_VERIFY(conn->connected());
        QElapsedTimer t;
        room->dropAgent();
        QTRY_VERIFY(!conn->connected());
        t.start();
        QTRY_VERIFY_WITH_TIMEOUT(room->accepted == 2, 5000);
        QVERIFY2(t.elapsed() >= 1800, qPrintable(QString::number(t.elapsed())));
        QTRY_VERIFY(conn->connected());
        QCOMPARE(home.log().count(QStringLiteral(" disconnected\n")), 1);
    }

    void controlRoomRestartIsRetriedEveryTwoSeconds()
    {
        conn->connect();
        QTRY_VERIFY(conn->connected());
        const quint16 port = room->port();
        room->close();
        QTRY_VERIFY(!conn->connected());
        QTest::qWait(4500); // two failed attempts against a closed port
        QVERIFY(room->listen(port));
        QTRY_VERIFY_WITH_TIMEOUT(conn->connected(), 5000);
        QCOMPARE(room->accepted, 2);
        // Only the drop of an open link is logged, not every failed attempt.
        QCOMPARE(home.log().count(QStringLiteral(" disconnected\n")), 1);
    }

    void replacedParksTheLink()
    {
        conn->connect();
        QTRY_VERIFY(conn->connected());
        room->sendText(QStringLiteral(R"({"type":"replaced"})"));
        QTRY_VERIFY(conn->replaced());
        QTRY_COMPARE(commands.size(), 1);
        QCOMPARE(commands[0].value("type").toString(), QStringLiteral("replaced"));
        room->dropAgent();
        QTRY_VERIFY(!conn->connected());
        QTest::qWait(2600);
        QCOMPARE(room->accepted, 1);
        // Only a new connect() leaves the parked state.
        conn->connect();
        QVERIFY(!conn->replaced());
        QTRY_VERIFY(conn->connected());
        QCOMPARE(room->accepted, 2);
    }

    void manualConnectDuringTheRetryWaitMakesOneSocket()
    {
        conn->connect();
        QTRY_VERIFY(conn->connected());
        room->dropAgent();
        QTRY_VERIFY(!conn->connected());
        conn->connect(); // before the 2 s retry fires
        QTRY_VERIFY(conn->connected());
        QTest::qWait(2600);
        QCOMPARE(room->accepted, 2);
        QCOMPARE(room->openCount(), 1);
    }

    void disconnectStopsRetries()
    {
        conn->connect();
        QTRY_VERIFY(conn->connected());
        const qint64 gen = conn->generation();
        conn->disconnect();
        QCOMPARE(conn->generation(), gen + 1);
        QVERIFY(!conn->connected());
        QTest::qWait(2600);
        QCOMPARE(room->accepted, 1);
        QCOMPARE(room->openCount(), 0);
    }

    void sendsWhileDownAreDropped()
    {
        conn->sendJSON(OrderedJson().insert(QStringLiteral("type"), QStringLiteral("status")));
        conn->sendBinary("\x02jpeg");
        conn->connect();
        QTRY_VERIFY(conn->connected());
        QTest::qWait(200);
        QVERIFY(room->texts.isEmpty());
        QVERIFY(room->binaries.isEmpty());
        conn->sendJSON(OrderedJson().insert(QStringLiteral("type"), QStringLiteral("status")).insert(QStringLiteral("a"), 1));
        QTRY_COMPARE(room->texts.size(), 1);
        QCOMPARE(room->texts[0], QStringLiteral(R"({"type":"status","a":1})"));
    }

    void binaryFromACaptureThreadArrives()
    {
        conn->connect();
        QTRY_VERIFY(conn->connected());
        QThread *t = QThread::create([this] {
            for (int i = 0; i < 50; ++i)
                conn->sendBinary(QByteArray(1, char(i % 2)) + QByteArray(640, char(i)));
        });
        t->start();
        t->wait();
        delete t;
        QTRY_COMPARE(room->binaries.size(), 50);
        for (int i = 0; i < 50; ++i) {
            QCOMPARE(room->binaries[i].size(), 641);
            QCOMPARE(room->binaries[i].at(1), char(i));
        }
    }

    void orderedJsonKeepsOrderAndEscapes()
    {
        OrderedJson j;
        j.insert(QStringLiteral("z"), true).insert(QStringLiteral("a"), QStringLiteral("q\"\\\n")).insert(QStringLiteral("m"), QJsonValue::Null);
        QCOMPARE(j.toJson(), QByteArray("{\"z\":true,\"a\":\"q\\\"\\\\\\n\",\"m\":null}"));
        QCOMPARE(OrderedJson().toJson(), QByteArray("{}"));
    }
};

QTEST_GUILESS_MAIN(ConnectionTest)
#include "tst_connection.moc"
