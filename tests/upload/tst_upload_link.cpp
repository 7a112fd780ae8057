#include "AgentParts.h"
#include "Clock.h"
#include "AppDelegate.h"
#include "Config.h"
#include "Connection.h"
#include "HttpControlRoom.h"
#include "PulseFixture.h"
#include "Recorder.h"
#include "StatusMenu.h"
#include "TestHome.h"
#include "Uploader.h"

#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QUrlQuery>
#include <QtTest>

#include <thread>

// Segments of a recording started over the link travel from the writer's thread through the
// controller into the upload queue and on to the same control room, which may be down meanwhile.
class UploadLinkTest : public QObject
{
    Q_OBJECT
    TestHome home;
    HttpControlRoom *room = nullptr;
    Connection *conn = nullptr;
    std::unique_ptr<AgentParts> parts;
    Recorder *rec = nullptr;
    AppDelegate *app = nullptr;
    const QString session = QStringLiteral("show-1");

    // Writes a segment into writing/<session>/ and reports it from a writer thread, as the recorder does.
    QString finishSegment(const QString &name)
    {
        const QString folder = Config::dir(QStringLiteral("writing")) + QLatin1Char('/') + session;
        QDir().mkpath(folder);
        const QString path = folder + QLatin1Char('/') + name;
        QFile f(path);
        if (!f.open(QIODevice::WriteOnly))
            return QString();
        f.write(QByteArray("segment ") + name.toUtf8() + QByteArray(70000, 'x'));
        f.close();
        std::thread writer([this, path] { rec->onSegmentDone(path, session); });
        writer.join();
        return path;
    }

    QStringList receivedNames() const
    {
        QStringList names;
        for (const auto &u : room->uploads) {
            const QUrlQuery q(u.url);
            names.append(q.queryItemValue("track") + "_" + q.queryItemValue("idx") + "_" + q.queryItemValue("final"));
        }
        return names;
    }

private slots:
    void initTestCase()
    {
        home.wipe();
        room = new HttpControlRoom(this);
        QVERIFY(room->listen());
        Config::setAgentID(7);
        Config::setAgentName(QStringLiteral("Ana"));
        Config::setServer(room->address());
        Config::setSetupDone(true);
        Uploader::shared().tickIntervalMs = 200;
        conn = new Connection(this);
        parts = std::make_unique<AgentParts>();
        rec = new Recorder(parts->audio, *parts->cameras, Clock::monotonic(), this);
        app = new AppDelegate(*rec, *conn, parts->permissions, this);
        app->applicationDidFinishLaunching();
        QTRY_VERIFY(conn->connected());
        room->sendText(QString::fromUtf8(QJsonDocument(QJsonObject{{"type", "start"}, {"session", session}}).toJson()));
    }
    void cleanupTestCase()
    {
        delete app;
        app = nullptr;
        delete rec; // before the sound-server backend it records from
        rec = nullptr;
    }

    void segmentsAreUploadedAndDeleted()
    {
        const QString a = finishSegment(QStringLiteral("mic_1700000000000_00000.m4a"));
        const QString b = finishSegment(QStringLiteral("mic_1700000000000_00001_final.m4a"));
        QTRY_COMPARE(room->uploads.size(), 2);
        QCOMPARE(receivedNames(), QStringList({"mic_0_0", "mic_1_1"}));
        const QUrlQuery q(room->uploads.first().url);
        QCOMPARE(q.queryItemValue("id"), QStringLiteral("7"));
        QCOMPARE(q.queryItemValue("session"), session);
        QVERIFY(room->uploads.first().body.startsWith("segment mic_1700000000000_00000.m4a"));
        QCOMPARE(room->uploads.first().body.size(), 70000 + int(qstrlen("segment mic_1700000000000_00000.m4a")));
        QTRY_VERIFY(Uploader::pendingFiles(Config::dir(QStringLiteral("pending"))).isEmpty());
        QVERIFY(!QFile::exists(a));
        QVERIFY(!QFile::exists(b));
        QTRY_COMPARE(app->menuState().pendingCount, 0);
    }

    void roomDownForAWhileGetsEverythingInOrder()
    {
        room->uploads.clear();
        room->goDown();
        QTRY_VERIFY(!conn->connected());
        QStringList sent;
        for (int i = 0; i < 4; ++i)
            finishSegment(QStringLiteral("sys_1700000000001_%1.m4a").arg(i, 5, 10, QLatin1Char('0')));
        finishSegment(QStringLiteral("sys_1700000000001_00004_final.m4a"));
        // The menu and the update guard see the waiting files.
        QTRY_COMPARE(app->menuState().pendingCount, 5);
        QVERIFY(app->updateBusy());
        QStringList titles;
        for (const StatusMenu::Entry &e : StatusMenu::entries(app->menuState()))
            titles.append(e.title);
        QVERIFY2(titles.contains(QStringLiteral("Uploading 5 file(s)…")), qPrintable(titles.join(" | ")));
        QTest::qWait(600); // several refused rounds
        QCOMPARE(room->uploads.size(), 0);
        QVERIFY(room->comeBack());
        QTRY_COMPARE_WITH_TIMEOUT(room->uploads.size(), 5, 10000);
        QCOMPARE(receivedNames(), QStringList({"sys_0_0", "sys_1_0", "sys_2_0", "sys_3_0", "sys_4_1"}));
        QTRY_COMPARE(app->menuState().pendingCount, 0);
        QVERIFY(Uploader::pendingFiles(Config::dir(QStringLiteral("pending"))).isEmpty());
    }

    // A real take recorded from the test sound system: its finished files reach the room whole.
    void recordedTakeIsUploaded()
    {
        if (!PulseFixture::available())
            QSKIP("needs the PulseAudio daemon of scripts/test (BRAVA_TEST_PULSE=1)");
        QTRY_VERIFY_WITH_TIMEOUT(conn->connected(), 10000);
        room->uploads.clear();
        Config::setMicUID(QStringLiteral("brava_mic"));
        auto send = [this](const QJsonObject &c) { room->sendText(QString::fromUtf8(QJsonDocument(c).toJson())); };
        send({{"type", "cameras"}, {"on", true}});
        send({{"type", "start"}, {"session", "take-2"}});
        QTRY_VERIFY_WITH_TIMEOUT(rec->isRecording(), 5000);
        const QString take = QString::number(rec->currentTake());
        QTest::qWait(1000);
        send({{"type", "stop"}});
        QTRY_VERIFY(!rec->running());
        if (!QTest::qWaitFor([this] { return room->uploads.size() == 2; }, 10000)) {
            qWarning() << "uploader:" << Uploader::shared().lastError() << "pending:" << Uploader::shared().pendingCount()
                       << "writing:" << QDir(Config::dir(QStringLiteral("writing")) + QStringLiteral("/take-2")).entryList()
                       << "recorder:" << rec->lastError().value_or(QString());
            QFAIL("the take did not arrive");
        }
        QStringList tracks;
        for (const auto &u : room->uploads) {
            const QUrlQuery q(u.url);
            QCOMPARE(q.queryItemValue("session"), QStringLiteral("take-2"));
            QCOMPARE(q.queryItemValue("take"), take);
            QCOMPARE(q.queryItemValue("final"), QStringLiteral("1"));
            QCOMPARE(q.queryItemValue("ext"), QStringLiteral("m4a"));
            QCOMPARE(u.body.mid(4, 4), QByteArray("ftyp")); // an MP4 file from its first byte
            tracks.append(q.queryItemValue("track"));
        }
        QCOMPARE(tracks, QStringList({"mic", "sys"}));
        QTRY_VERIFY(Uploader::pendingFiles(Config::dir(QStringLiteral("pending"))).isEmpty());
        QVERIFY(QDir(Config::dir(QStringLiteral("writing")) + QStringLiteral("/take-2")).entryList(QDir::Files).isEmpty());
    }
};

QTEST_MAIN(UploadLinkTest)
#include "tst_upload_link.moc"
