#include "Config.h"
#include "HttpStub.h"
#include "TestHome.h"
#include "Uploader.h"

#include <QNetworkAccessManager>
#include <QUrlQuery>
#include <QtTest>

// The upload queue against a real HTTP server on loopback, with the data folder of a throw-away home.
class UploaderTest : public QObject
{
    Q_OBJECT
    TestHome home;
    QNetworkAccessManager net;
    std::unique_ptr<HttpStub> server;
    std::unique_ptr<Uploader> up;

    static QString pending() { return Config::dir(QStringLiteral("pending")); }
    static QString writing() { return Config::dir(QStringLiteral("writing")); }
    static QString put(const QString &folder, const QString &name, const QByteArray &bytes = QByteArray())
    {
        QDir().mkpath(folder);
        QFile f(folder + QLatin1Char('/') + name);
        if (!f.open(QIODevice::WriteOnly))
            return QString();
        f.write(bytes.isNull() ? name.toUtf8() : bytes);
        return f.fileName();
    }
    static QString putPending(const QString &session, const QString &name)
    {
        return put(pending() + QLatin1Char('/') + session, name);
    }
    void start(int tickMs = 150)
    {
        up = std::make_unique<Uploader>(net);
        up->tickIntervalMs = tickMs;
        up->requestTimeoutMs = 400;
        up->start();
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

private Q_SLOTS:
    void init()
    {
        home.wipe();
        server = std::make_unique<HttpStub>();
        QVERIFY(server->listen());
        Config::setAgentID(7);
        Config::setServer(server->address());
    }
    void cleanup()
    {
        up.reset();
        server.reset();
    }

    void queryFollowsTheNameAndTheBodyIsTheFile_data()
    {
        QTest::addColumn<QString>("file");
        QTest::addColumn<QString>("items"); // track take idx final ext
        QTest::newRow("final piece") << "mic_1700000000000_00012_final.m4a" << "mic 1700000000000 12 1 m4a";
        QTest::newRow("not a number") << "mic_3_x1.m4a" << "mic 3 0 0 m4a";
        QTest::newRow("overflow") << "cam_3_99999999999999999999.mp4" << "cam 3 0 0 mp4";
        QTest::newRow("empty pieces") << "mic__3___00004_final.m4a" << "mic 3 4 1 m4a";
    }
    void queryFollowsTheNameAndTheBodyIsTheFile()
    {
        QFETCH(QString, file);
        QFETCH(QString, items);
        putPending(QStringLiteral("Show 1 A&B=?"), file);
        start();
        QTRY_COMPARE(server->requests.size(), 1);
        const HttpStub::Request &r = server->requests.first();
        QCOMPARE(r.method + ' ' + r.url.path().toUtf8(), QByteArray("POST /upload"));
        QStringList keys, values;
        for (const auto &[key, value] : QUrlQuery(r.url).queryItems(QUrl::FullyDecoded))
            keys.append(key), values.append(value);
        QCOMPARE(keys, QStringList({"id", "session", "track", "take", "idx", "final", "ext"}));
        QCOMPARE(values.mid(0, 2), QStringList({"7", "Show 1 A&B=?"}));
        QCOMPARE(values.mid(2).join(QLatin1Char(' ')), items);
        QCOMPARE(r.body, file.toUtf8());
        QCOMPARE(r.headers.value("content-length"), QByteArray::number(file.size()));
        QVERIFY2(!r.headers.contains("content-type"), r.headers.value("content-type").constData());
        QTRY_COMPARE(up->pendingCount(), 0);
        QVERIFY(!QFile::exists(pending() + QStringLiteral("/Show 1 A&B=?/") + file));
    }

    void unknownNamesAreSetAsideWithoutBlocking_data()
    {
        QTest::addColumn<QString>("file");
        QTest::newRow("numbered camera") << "cam2_5_00001.mp4";
        QTest::newRow("upper case track") << "MIC_3_00001.m4a";
    }
    void unknownNamesAreSetAsideWithoutBlocking()
    {
        QFETCH(QString, file);
        // The odd name sorts first, twice; the good file behind them follows.
        putPending(QStringLiteral("a"), file);
        putPending(QStringLiteral("b"), file);
        putPending(QStringLiteral("b"), QStringLiteral("sys_1_00000.m4a"));
        start(100);
        QTRY_COMPARE(server->requests.size(), 1);
        QCOMPARE(query(0, "track"), QStringLiteral("sys"));
        const QString aside = Config::dir(QStringLiteral("unrecognized")) + QLatin1Char('/') + file;
        QVERIFY(QFile::exists(aside) && QFile::exists(aside + QStringLiteral(".1")));
        QCOMPARE(home.log().count(file), 2);
    }

    // Whatever text names a session, its files stay in one folder inside pending/ and reach the
    // control room under exactly that session.
    void oddSessionsStayInsideAndArriveUnchanged_data()
    {
        QTest::addColumn<QString>("session");
        QTest::newRow("empty") << QString();
        QTest::newRow("hidden") << QStringLiteral(".s");
        QTest::newRow("escape") << QStringLiteral("../../x");
        QTest::newRow("percent") << QStringLiteral("50%41off %");
    }
    void oddSessionsStayInsideAndArriveUnchanged()
    {
        QFETCH(QString, session);
        start(100);
        const QString file = put(writing() + QStringLiteral("/w"), QStringLiteral("mic_1_00000.m4a"));
        up->enqueue(file, session);
        QVERIFY(!QFile::exists(file));
        const QStringList folders = QDir(pending()).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot);
        QCOMPARE(folders, QStringList({Config::sessionFolder(session)}));
        QTRY_COMPARE(server->requests.size(), 1);
        QCOMPARE(query(0, "session"), session);
    }

    void onlyMediaInSessionFoldersCountInNameOrder()
    {
        put(pending(), QStringLiteral("mic_1_00000.m4a"));                     // not in a session folder
        putPending(QStringLiteral(".hidden"), QStringLiteral("mic_1_00001.m4a")); // hidden session
        putPending(QStringLiteral("s"), QStringLiteral("notes.txt"));
        putPending(QStringLiteral("s"), QStringLiteral("mic_1_00003.m4a.part"));
        QVERIFY(Uploader::pendingFiles(pending()).isEmpty());
        QVERIFY(Uploader::pendingFiles(pending() + QStringLiteral("/nowhere")).isEmpty());
        putPending(QStringLiteral("b"), QStringLiteral("sys_1_00000.m4a"));
        putPending(QStringLiteral("a"), QStringLiteral("mic_10_00001_final.m4a"));
        putPending(QStringLiteral("c"), QStringLiteral("mic_10_00000.m4a"));
        putPending(QStringLiteral("z"), QStringLiteral("cam_1_00000.mp4"));
        QStringList order;
        for (const auto &f : Uploader::pendingFiles(pending()))
            order.append(f.session + QLatin1Char('/') + QFileInfo(f.path).fileName());
        QCOMPARE(order, QStringList({"z/cam_1_00000.mp4", "c/mic_10_00000.m4a", "a/mic_10_00001_final.m4a", "b/sys_1_00000.m4a"}));
    }

    void onlyStatus200Succeeds_data()
    {
        QTest::addColumn<int>("kind");
        QTest::addColumn<int>("status");
        QTest::addColumn<int>("fault");
        QTest::newRow("201") << int(HttpStub::Answer::Reply) << 201 << int(Uploader::Fault::Refused);
        QTest::newRow("500") << int(HttpStub::Answer::Reply) << 500 << int(Uploader::Fault::Refused);
        QTest::newRow("reset") << int(HttpStub::Answer::Reset) << 0 << int(Uploader::Fault::Transport);
        QTest::newRow("silent") << int(HttpStub::Answer::Hang) << 0 << int(Uploader::Fault::Transport);
    }
    void onlyStatus200Succeeds()
    {
        QFETCH(int, kind);
        QFETCH(int, status);
        HttpStub::Answer refusal = HttpStub::status(status);
        refusal.kind = HttpStub::Answer::Kind(kind);
        server->script({refusal, refusal});
        putPending(QStringLiteral("s"), QStringLiteral("cam_1_00000.mp4"));
        putPending(QStringLiteral("s"), QStringLiteral("mic_1_00000.m4a"));
        start();
        QFETCH(int, fault);
        QTRY_COMPARE(int(up->fault()), fault);
        QVERIFY(up->lastError().contains(QLatin1String("cam_1_00000.mp4")));
        QCOMPARE(up->pendingCount(), 2);
        // Refused twice: the same file comes again, the one behind it waits; the fault is logged once.
        QTRY_VERIFY(uploadedNames().endsWith(QStringLiteral("mic_1_00000.m4a")));
        QCOMPARE(uploadedNames().count(QStringLiteral("cam_1_00000.mp4")), uploadedNames().size() - 1);
        QVERIFY(uploadedNames().size() >= 4);
        QTRY_COMPARE(up->pendingCount(), 0);
        QCOMPARE(up->fault(), Uploader::Fault::None);
        QCOMPARE(home.log().count(QStringLiteral("upload: upload of")), 1);
    }

    void backlogDrainsBackToBackAndArrivalsWait()
    {
        server->script({HttpStub::hang()});
        for (int i = 0; i < 4; ++i)
            putPending(QStringLiteral("s%1").arg(i % 2), QStringLiteral("mic_1_%1.m4a").arg(i, 5, 10, QLatin1Char('0')));
        // A tick far in the future: every file after the first goes on the previous one's success.
        start(600000);
        QTRY_COMPARE(server->hanging(), 1);
        up->enqueue(put(writing() + QStringLiteral("/s"), QStringLiteral("mic_1_00004.m4a")), QStringLiteral("s"));
        QTRY_COMPARE(up->pendingCount(), 5);
        QCOMPARE(server->requests.size(), 1);
        server->release(HttpStub::status(200));
        QTRY_COMPARE(server->requests.size(), 5);
        QCOMPARE(uploadedNames(), QStringList({"mic_1_00000.m4a", "mic_1_00001.m4a", "mic_1_00002.m4a",
                                               "mic_1_00003.m4a", "mic_1_00004.m4a"}));
        QTRY_VERIFY(Uploader::pendingFiles(pending()).isEmpty());
    }

    void noValidAddressKeepsTheFile()
    {
        Config::setServer(QStringLiteral("bad host:port:x"));
        const QString file = putPending(QStringLiteral("s"), QStringLiteral("mic_1_00000.m4a"));
        start(100);
        QCOMPARE(up->fault(), Uploader::Fault::NoAddress);
        QVERIFY(QFile::exists(file) && !up->busy());
        QCOMPARE(up->pendingCount(), 1);
    }

    void orphansAreRecoveredAtStart()
    {
        put(writing() + QStringLiteral("/old"), QStringLiteral("mic_3_00000.m4a"));
        put(writing() + QStringLiteral("/old"), QStringLiteral("scratch.tmp"));
        put(writing() + QStringLiteral("/.keep"), QStringLiteral("mic_3_00000.m4a"));
        put(writing() + QStringLiteral("/s"), QStringLiteral("mic_3_00000.m4a"));
        const QString inner = put(writing() + QStringLiteral("/s/inner"), QStringLiteral("mic_3_00001.m4a"));
        // The same name is already waiting: that move is refused and the recording stays put.
        const QString clash = put(writing() + QStringLiteral("/t"), QStringLiteral("mic_3_00000.m4a"), "newer");
        putPending(QStringLiteral("t"), QStringLiteral("mic_3_00000.m4a"));
        server->setDefault(HttpStub::status(503));
        start(600000);
        // Moved at once, before any answer; a folder with only recordings and scraps is gone.
        QVERIFY(QFile::exists(pending() + QStringLiteral("/old/mic_3_00000.m4a")));
        QVERIFY(!QFileInfo::exists(writing() + QStringLiteral("/old")));
        QVERIFY(QFile::exists(writing() + QStringLiteral("/.keep/mic_3_00000.m4a")));
        // A folder the recorder did not make is emptied of recordings but kept.
        QVERIFY(QFile::exists(pending() + QStringLiteral("/s/mic_3_00000.m4a")) && QFile::exists(inner));
        QVERIFY(QFile::exists(clash));
        QVERIFY(home.log().contains(QLatin1String("writing/t")));
        QCOMPARE(up->pendingCount(), 3);
    }
};

QTEST_MAIN(UploaderTest)
#include "tst_uploader.moc"
