#include "Config.h"
#include "HttpStub.h"
#include "SegmentName.h"
#include "TestHome.h"
#include "Uploader.h"

#include <QDir>
#include <QFile>
#include <QThread>
#include <QUrlQuery>
#include <QtTest>

// The upload queue against a real HTTP server on loopback, with the data folder of a throw-away home.
class UploaderTest : public QObject
{
    Q_OBJECT
    TestHome home;
    HttpStub *server = nullptr;
    Uploader *up = nullptr;

    static QString pending() { return Config::dir(QStringLiteral("pending")); }

    static QString put(const QString &folder, const QString &name, const QByteArray &bytes = QByteArray())
    {
        QDir().mkpath(folder);
        const QString path = folder + QLatin1Char('/') + name;
        QFile f(path);
        if (!f.open(QIODevice::WriteOnly))
            return QString();
        f.write(bytes.isNull() ? name.toUtf8() : bytes);
        return path;
    }
    static QString putPending(const QString &session, const QString &name)
    {
        return put(pending() + QLatin1Char('/') + session, name);
    }

    // A queue whose retry tick is short enough for tests (or long, to prove no tick was needed).
    Uploader *makeUploader(int tickMs = 150)
    {
        up = new Uploader(this);
        up->tickIntervalMs = tickMs;
        return up;
    }

    QString query(int i, const char *key) const
    {
        return QUrlQuery(server->requests.at(i).url).queryItemValue(QLatin1String(key), QUrl::FullyDecoded);
    }
    QStringList uploadedNames() const
    {
        QStringList names;
        for (const HttpStub::Request &r : server->requests)
            names.append(QString::fromUtf8(r.body));
        return names;
    }

private slots:
    void init()
    {
        home.wipe();
        server = new HttpStub(this);
        QVERIFY(server->listen());
        Config::setAgentID(7);
        Config::setServer(server->address());
    }
    void cleanup()
    {
        delete up;
        up = nullptr;
        delete server;
        server = nullptr;
    }

    // --- Names and query items -----------------------------------------------------------------

    void queryItemsFollowTheName_data()
    {
        QTest::addColumn<QString>("file");
        QTest::addColumn<QString>("track");
        QTest::addColumn<QString>("take");
        QTest::addColumn<QString>("idx");
        QTest::addColumn<QString>("final");
        QTest::addColumn<QString>("ext");
        QTest::newRow("final piece") << "mic_1700000000000_00012_final.m4a" << "mic" << "1700000000000" << "12" << "1" << "m4a";
        QTest::newRow("middle piece") << "mic_3_00012.m4a" << "mic" << "3" << "12" << "0" << "m4a";
        QTest::newRow("not a number") << "mic_3_x1.m4a" << "mic" << "3" << "0" << "0" << "m4a";
        QTest::newRow("video") << "cam_42_00000.mp4" << "cam" << "42" << "0" << "0" << "mp4";
        QTest::newRow("plus sign") << "sys_9_+7.m4a" << "sys" << "9" << "7" << "0" << "m4a";
        QTest::newRow("minus sign") << "room_2_-0003.m4a" << "room" << "2" << "-3" << "0" << "m4a";
        QTest::newRow("overflow") << "mic_3_99999999999999999999.m4a" << "mic" << "3" << "0" << "0" << "m4a";
        QTest::newRow("empty pieces") << "mic__3___00004_final.m4a" << "mic" << "3" << "4" << "1" << "m4a";
        QTest::newRow("other mark") << "mic_3_00004_last.m4a" << "mic" << "3" << "4" << "0" << "m4a";
        QTest::newRow("take as text") << "sys_0012_00001.m4a" << "sys" << "0012" << "1" << "0" << "m4a";
    }
    void queryItemsFollowTheName()
    {
        QFETCH(QString, file);
        putPending(QStringLiteral("Show 1 A&B=?"), file);
        makeUploader()->start();
        QTRY_COMPARE(server->requests.size(), 1);
        const HttpStub::Request &r = server->requests.first();
        QCOMPARE(r.method, QByteArray("POST"));
        QCOMPARE(r.url.path(), QStringLiteral("/upload"));
        const QList<QPair<QString, QString>> items = QUrlQuery(r.url).queryItems(QUrl::FullyDecoded);
        QStringList keys;
        for (const auto &item : items)
            keys.append(item.first);
        QCOMPARE(keys, QStringList({"id", "session", "track", "take", "idx", "final", "ext"}));
        QCOMPARE(query(0, "id"), QStringLiteral("7"));
        QCOMPARE(query(0, "session"), QStringLiteral("Show 1 A&B=?"));
        QTEST(query(0, "track"), "track");
        QTEST(query(0, "take"), "take");
        QTEST(query(0, "idx"), "idx");
        QTEST(query(0, "final"), "final");
        QTEST(query(0, "ext"), "ext");
        QTRY_VERIFY(!QFile::exists(pending() + QStringLiteral("/Show 1 A&B=?/") + file));
    }

    void bodyIsTheFileWithNoTypeOfItsOwn()
    {
        QByteArray bytes(300000, '\0');
        for (int i = 0; i < bytes.size(); ++i)
            bytes[i] = char(i * 31 + 7);
        put(pending() + QStringLiteral("/s&1 x"), QStringLiteral("cam_5_00001.mp4"), bytes);
        makeUploader()->start();
        QTRY_COMPARE(server->requests.size(), 1);
        const HttpStub::Request &r = server->requests.first();
        QCOMPARE(r.body, bytes);
        QCOMPARE(r.headers.value("content-length"), QByteArray::number(bytes.size()));
        QVERIFY2(!r.headers.contains("content-type"), r.headers.value("content-type").constData());
        QCOMPARE(query(0, "session"), QStringLiteral("s&1 x"));
        QTRY_COMPARE(up->pendingCount(), 0);
    }

    void unknownNamesAreSetAside_data()
    {
        QTest::addColumn<QString>("file");
        QTest::newRow("cam2") << "cam2_5_00001.mp4";
        QTest::newRow("cam3") << "cam3_5_00001.mp4";
        QTest::newRow("cam4") << "cam4_5_00001_final.mp4";
        QTest::newRow("two parts") << "mic_3.m4a";
        QTest::newRow("unknown track") << "video_3_00001.mp4";
        QTest::newRow("upper case track") << "MIC_3_00001.m4a";
    }
    void unknownNamesAreSetAside()
    {
        QFETCH(QString, file);
        // The odd name sorts first; the good file behind it follows at a later tick.
        putPending(QStringLiteral("s"), file);
        putPending(QStringLiteral("s"), QStringLiteral("sys_1_00000.m4a"));
        makeUploader()->start();
        QTRY_COMPARE(server->requests.size(), 1);
        QCOMPARE(query(0, "track"), QStringLiteral("sys"));
        QVERIFY(QFile::exists(Config::dir(QStringLiteral("unrecognized")) + QLatin1Char('/') + file));
        QVERIFY(!QFile::exists(pending() + QStringLiteral("/s/") + file));
        QVERIFY(home.log().contains(file));
        QTRY_COMPARE(up->pendingCount(), 0);
    }

    void sameOddNameTwiceDoesNotBlock()
    {
        putPending(QStringLiteral("a"), QStringLiteral("cam2_1_00000.mp4"));
        putPending(QStringLiteral("b"), QStringLiteral("cam2_1_00000.mp4"));
        putPending(QStringLiteral("b"), QStringLiteral("mic_1_00000.m4a"));
        makeUploader(100)->start();
        QTRY_COMPARE(server->requests.size(), 1);
        const QString unrecognized = Config::dir(QStringLiteral("unrecognized"));
        QVERIFY(QFile::exists(unrecognized + QStringLiteral("/cam2_1_00000.mp4")));
        QVERIFY(QFile::exists(unrecognized + QStringLiteral("/cam2_1_00000.mp4.1")));
    }

    // Whatever text the control room names a session with, its files stay in one folder inside
    // pending/ and reach the control room under exactly that session.
    void oddSessionsStayInsideAndArriveUnchanged_data()
    {
        QTest::addColumn<QString>("session");
        QTest::newRow("empty") << QString();
        QTest::newRow("hidden") << QStringLiteral(".s");
        QTest::newRow("parent") << QStringLiteral("..");
        QTest::newRow("nested") << QStringLiteral("a/b");
        QTest::newRow("escape") << QStringLiteral("../../x");
        QTest::newRow("percent") << QStringLiteral("50%41off %");
        QTest::newRow("plus and space") << QStringLiteral("Show 1+2 (A&B)");
    }
    void oddSessionsStayInsideAndArriveUnchanged()
    {
        QFETCH(QString, session);
        makeUploader(100)->start();
        const QString file = put(Config::dir(QStringLiteral("writing")) + QStringLiteral("/w"), QStringLiteral("mic_1_00000.m4a"));
        up->enqueue(file, session);
        QVERIFY(!QFile::exists(file));
        const QStringList folders = QDir(pending()).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot);
        QCOMPARE(folders, QStringList({Config::sessionFolder(session)}));
        QCOMPARE(Config::sessionOfFolder(folders.first()), session);
        QTRY_COMPARE(server->requests.size(), 1);
        QCOMPARE(query(0, "session"), session);
        QTRY_COMPARE(up->pendingCount(), 0);
    }

    void onlyMediaInSessionFoldersCount()
    {
        put(pending(), QStringLiteral("mic_1_00000.m4a"));                     // not in a session folder
        putPending(QStringLiteral(".hidden"), QStringLiteral("mic_1_00001.m4a")); // hidden session
        putPending(QStringLiteral("s"), QStringLiteral("notes.txt"));
        putPending(QStringLiteral("s"), QStringLiteral("mic_1_00002.M4A"));
        putPending(QStringLiteral("s"), QStringLiteral("mic_1_00003.m4a.part"));
        makeUploader()->start();
        QCOMPARE(up->pendingCount(), 0);
        QTest::qWait(400);
        QCOMPARE(server->requests.size(), 0);
        QVERIFY(QFile::exists(pending() + QStringLiteral("/.hidden/mic_1_00001.m4a")));
        QVERIFY(QFile::exists(pending() + QStringLiteral("/s/notes.txt")));
    }

    void missingPendingFolderIsEmpty()
    {
        QDir(pending()).removeRecursively();
        const auto files = Uploader::pendingFiles(Config::dataDir() + QStringLiteral("/nowhere"));
        QVERIFY(files.isEmpty());
        makeUploader()->start();
        QCOMPARE(up->pendingCount(), 0);
        QVERIFY(!up->busy());
    }

    void orderIsByFileNameAlone()
    {
        putPending(QStringLiteral("b"), QStringLiteral("sys_1_00000.m4a"));
        putPending(QStringLiteral("b"), QStringLiteral("mic_9_00000.m4a"));
        putPending(QStringLiteral("a"), QStringLiteral("room_1_00000.m4a"));
        putPending(QStringLiteral("a"), QStringLiteral("mic_10_00001_final.m4a"));
        putPending(QStringLiteral("c"), QStringLiteral("mic_10_00000.m4a"));
        putPending(QStringLiteral("z"), QStringLiteral("cam_1_00000.mp4"));
        const auto files = Uploader::pendingFiles(pending());
        QStringList order;
        for (const auto &f : files)
            order.append(f.session + QLatin1Char('/') + QFileInfo(f.path).fileName());
        QCOMPARE(order, QStringList({"z/cam_1_00000.mp4", "c/mic_10_00000.m4a", "a/mic_10_00001_final.m4a",
                                     "b/mic_9_00000.m4a", "a/room_1_00000.m4a", "b/sys_1_00000.m4a"}));
    }

    // --- Answers and retries -------------------------------------------------------------------

    void onlyStatus200Succeeds_data()
    {
        QTest::addColumn<int>("kind");
        QTest::addColumn<int>("status");
        QTest::newRow("201") << int(HttpStub::Answer::Reply) << 201;
        QTest::newRow("204") << int(HttpStub::Answer::Reply) << 204;
        QTest::newRow("500") << int(HttpStub::Answer::Reply) << 500;
        QTest::newRow("404") << int(HttpStub::Answer::Reply) << 404;
        QTest::newRow("reset") << int(HttpStub::Answer::Reset) << 0;
    }
    void onlyStatus200Succeeds()
    {
        QFETCH(int, kind);
        QFETCH(int, status);
        HttpStub::Answer refusal = HttpStub::status(status);
        refusal.kind = HttpStub::Answer::Kind(kind);
        server->script({refusal, refusal});
        const QString first = putPending(QStringLiteral("s"), QStringLiteral("cam_1_00000.mp4"));
        putPending(QStringLiteral("s"), QStringLiteral("mic_1_00000.m4a"));
        makeUploader()->start();
        // Refused twice: the same file comes again, the one behind it waits.
        QTRY_COMPARE(server->requests.size(), 4);
        QCOMPARE(uploadedNames(), QStringList({"cam_1_00000.mp4", "cam_1_00000.mp4", "cam_1_00000.mp4", "mic_1_00000.m4a"}));
        QVERIFY(!QFile::exists(first));
        QTRY_COMPARE(up->pendingCount(), 0);
        QVERIFY(up->lastError().isEmpty());
    }

    void refusalIsKeptReadable()
    {
        server->setDefault(HttpStub::status(500));
        putPending(QStringLiteral("s"), QStringLiteral("mic_1_00000.m4a"));
        makeUploader()->start();
        QTRY_VERIFY(up->lastError().contains(QLatin1String("500")));
        QVERIFY(up->lastError().contains(QLatin1String("mic_1_00000.m4a")));
        QCOMPARE(up->pendingCount(), 1);
    }

    void silentServerTimesOutAndIsRetried()
    {
        server->script({HttpStub::hang()});
        const QString file = putPending(QStringLiteral("s"), QStringLiteral("mic_1_00000.m4a"));
        makeUploader();
        up->requestTimeoutMs = 300;
        up->start();
        QTRY_COMPARE(server->requests.size(), 2);
        QTRY_VERIFY(!QFile::exists(file));
    }

    void backlogDrainsBackToBack()
    {
        for (int i = 0; i < 6; ++i)
            putPending(QStringLiteral("s%1").arg(i % 2), QStringLiteral("mic_1_%1.m4a").arg(i, 5, 10, QLatin1Char('0')));
        // A tick far in the future: every file after the first goes on the previous one's success.
        makeUploader(600000)->start();
        QTRY_COMPARE(server->requests.size(), 6);
        QCOMPARE(uploadedNames(), QStringList({"mic_1_00000.m4a", "mic_1_00001.m4a", "mic_1_00002.m4a",
                                               "mic_1_00003.m4a", "mic_1_00004.m4a", "mic_1_00005.m4a"}));
        QTRY_VERIFY(Uploader::pendingFiles(pending()).isEmpty());
    }

    void arrivalsDuringAnUploadOnlyRaiseTheCount()
    {
        server->script({HttpStub::hang()});
        putPending(QStringLiteral("s"), QStringLiteral("mic_1_00000.m4a"));
        makeUploader()->start();
        const QString recorded = put(Config::dir(QStringLiteral("writing")) + QStringLiteral("/s"), QStringLiteral("mic_1_00001.m4a"));
        QTRY_COMPARE(server->hanging(), 1);
        QCOMPARE(up->pendingCount(), 1);
        up->enqueue(recorded, QStringLiteral("s"));
        QTRY_COMPARE(up->pendingCount(), 2);
        QTest::qWait(400); // several ticks
        QCOMPARE(server->requests.size(), 1);
        QVERIFY(up->busy());
        server->release(HttpStub::status(200));
        QTRY_COMPARE(server->requests.size(), 2);
        QTRY_COMPARE(up->pendingCount(), 0);
    }

    void enqueueFromAnotherThread()
    {
        makeUploader(600000)->start();
        const QString file = put(Config::dir(QStringLiteral("writing")) + QStringLiteral("/live"), QStringLiteral("mic_5_00000_final.m4a"));
        QThread *worker = QThread::create([this, file] { up->enqueue(file, QStringLiteral("live")); });
        worker->start();
        QVERIFY(worker->wait(5000));
        delete worker;
        QVERIFY(!QFile::exists(file));
        QTRY_COMPARE(server->requests.size(), 1);
        QCOMPARE(query(0, "session"), QStringLiteral("live"));
        QCOMPARE(query(0, "final"), QStringLiteral("1"));
    }

    void controlRoomDownForAWhileGetsEverythingInOrder()
    {
        const quint16 port = server->port();
        server->close();
        QStringList expected;
        for (int i = 0; i < 5; ++i) {
            const QString name = QStringLiteral("sys_77_%1.m4a").arg(i, 5, 10, QLatin1Char('0'));
            putPending(QStringLiteral("show"), name);
            expected.append(name);
        }
        makeUploader(100)->start();
        QTRY_VERIFY(!up->lastError().isEmpty());
        QTest::qWait(500); // several refused rounds
        QCOMPARE(up->pendingCount(), 5);
        QVERIFY(server->listen(port));
        QTRY_COMPARE(server->requests.size(), 5);
        QCOMPARE(uploadedNames(), expected);
        QTRY_COMPARE(up->pendingCount(), 0);
    }

    void noValidAddressKeepsTheFile()
    {
        Config::setServer(QStringLiteral("bad host:port:x"));
        const QString file = putPending(QStringLiteral("s"), QStringLiteral("mic_1_00000.m4a"));
        makeUploader(100)->start();
        QTest::qWait(300);
        QVERIFY(QFile::exists(file));
        QCOMPARE(up->pendingCount(), 1);
        QVERIFY(!up->busy());
    }

    // --- Orphans -------------------------------------------------------------------------------

    void orphansAreRecoveredAtStart()
    {
        const QString writing = Config::dir(QStringLiteral("writing"));
        put(writing + QStringLiteral("/old"), QStringLiteral("mic_3_00000.m4a"));
        put(writing + QStringLiteral("/old"), QStringLiteral("cam_3_00000.mp4"));
        put(writing + QStringLiteral("/old"), QStringLiteral("scratch.tmp"));
        put(writing + QStringLiteral("/.keep"), QStringLiteral("mic_3_00000.m4a"));
        server->setDefault(HttpStub::status(503));
        makeUploader(600000)->start();
        // Moved at once, before any answer; the folder with its other files is gone.
        QVERIFY(QFile::exists(pending() + QStringLiteral("/old/mic_3_00000.m4a")));
        QVERIFY(QFile::exists(pending() + QStringLiteral("/old/cam_3_00000.mp4")));
        QVERIFY(!QFileInfo::exists(writing + QStringLiteral("/old")));
        QVERIFY(QFile::exists(writing + QStringLiteral("/.keep/mic_3_00000.m4a")));
        QCOMPARE(up->pendingCount(), 2);
        QTRY_COMPARE(server->requests.size(), 1);
        QCOMPARE(query(0, "session"), QStringLiteral("old"));
        QCOMPARE(query(0, "track"), QStringLiteral("cam"));
    }

    // A folder inside a session folder was not made by the recorder: the session folder is
    // emptied of its recordings but not deleted.
    void orphanFolderWithAFolderInsideIsNotDeleted()
    {
        const QString writing = Config::dir(QStringLiteral("writing"));
        put(writing + QStringLiteral("/s"), QStringLiteral("mic_3_00000.m4a"));
        const QString inner = put(writing + QStringLiteral("/s/inner"), QStringLiteral("mic_3_00001.m4a"));
        server->setDefault(HttpStub::status(500));
        makeUploader(600000)->start();
        QVERIFY(QFile::exists(pending() + QStringLiteral("/s/mic_3_00000.m4a")));
        QVERIFY(QFile::exists(inner));
    }

    void orphanThatCannotMoveIsKept()
    {
        // The same name is already waiting: the move is refused and the recording stays put.
        const QString writing = Config::dir(QStringLiteral("writing"));
        const QString orphan = put(writing + QStringLiteral("/s"), QStringLiteral("mic_3_00000.m4a"), "newer");
        putPending(QStringLiteral("s"), QStringLiteral("mic_3_00000.m4a"));
        server->setDefault(HttpStub::status(500));
        makeUploader(600000)->start();
        QVERIFY(QFile::exists(orphan));
        QVERIFY(home.log().contains(QLatin1String("writing/s")));
    }
};

QTEST_MAIN(UploaderTest)
#include "tst_uploader.moc"
