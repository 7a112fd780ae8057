#include "DataFolder.h"
#include "SessionFolder.h"
#include "HttpStub.h"
#include "TestHome.h"
#include "Uploader.h"

#include <QUrlQuery>
#include <QtTest>

// The upload queue against a real HTTP server on loopback, with the data folder of a throw-away home.
class UploaderTest : public QObject
{
    Q_OBJECT
    TestHome home;
    std::unique_ptr<HttpStub> server;
    std::unique_ptr<Uploader> up;

    static QString folder(const char *name) { return DataFolder::dir(QLatin1String(name)); }
    static QString put(const QString &dir, const QString &name, const QByteArray &bytes = QByteArray())
    {
        QDir().mkpath(dir);
        QFile f(dir + QLatin1Char('/') + name);
        return f.open(QIODevice::WriteOnly) && f.write(bytes.isNull() ? name.toUtf8() : bytes) >= 0 ? f.fileName() : QString();
    }
    static QString pending(const QString &session, const QString &name) { return put(folder("pending") + QLatin1Char('/') + SessionFolder::name(session), name); }
    // A segment as the writer leaves it: header, movie box, one fragment.
    static QByteArray media()
    {
        QByteArray data;
        for (const char *box : {"ftyp", "moov", "moof", "mdat"})
            data += QByteArray::fromHex("00000010") + box + QByteArray(8, '\0');
        return data;
    }
    void start(int tickMs = 150)
    {
        up = std::make_unique<Uploader>(home.settings());
        up->tickIntervalMs = tickMs;
        up->requestTimeoutMs = 400;
        up->start();
    }
    QStringList sent(const char *key = nullptr) const
    {
        QStringList out;
        for (const HttpStub::Request &r : server->requests)
            out.append(key ? QUrlQuery(r.url).queryItemValue(QLatin1String(key), QUrl::FullyDecoded) : QString::fromUtf8(r.body));
        return out;
    }

private Q_SLOTS:
    void init()
    {
        up.reset();
        home.wipe();
        server = std::make_unique<HttpStub>();
        QVERIFY(server->listen());
        home.settings().setAgentID(7);
        home.settings().setServer(server->address());
    }

    void queryFollowsTheNameAndTheBodyIsTheFile_data()
    {
        QTest::addColumn<QString>("file");
        QTest::addColumn<QString>("items");
        QTest::newRow("final piece") << "mic_1700000000000_00012_final.m4a" << "mic&take=1700000000000&idx=12&final=1&ext=m4a";
        QTest::newRow("not a number") << "mic_3_x1.m4a" << "mic&take=3&idx=0&final=0&ext=m4a";
        QTest::newRow("overflow") << "cam_3_99999999999999999999.mp4" << "cam&take=3&idx=0&final=0&ext=mp4";
        QTest::newRow("empty pieces") << "room__3___-0004_final.m4a" << "room&take=3&idx=-4&final=1&ext=m4a";
    }
    void queryFollowsTheNameAndTheBodyIsTheFile()
    {
        QFETCH(QString, file);
        QFETCH(QString, items);
        pending(QStringLiteral("Show 1 A&B=?"), file);
        start();
        QTRY_COMPARE(server->requests.size(), 1);
        const HttpStub::Request &r = server->requests.first();
        QCOMPARE(r.method + ' ' + r.url.path().toUtf8(), QByteArray("POST /upload"));
        QCOMPARE(r.url.query(QUrl::FullyEncoded), QStringLiteral("id=7&session=Show%201%20A%26B%3D%3F&track=") + items);
        QVERIFY2(r.body == file.toUtf8() && !r.headers.contains("content-type"), r.headers.value("content-type").constData());
        QTRY_COMPARE(up->pendingCount(), 0);
        QVERIFY(QDir(folder("pending") + QStringLiteral("/Show 1 A&B=?")).isEmpty());
    }

    void aBodyOfManyBlocksArrivesWhole()
    {
        QByteArray bytes(int(SegmentPost::kBlockBytes * 5 / 2 + 7), '\0');
        for (qsizetype i = 0; i < bytes.size(); ++i)
            bytes[i] = char(i * 7 + i / 4093);
        server->keepBodyBytes = bytes.size();
        put(folder("pending") + QStringLiteral("/s"), QStringLiteral("cam_1_00000.mp4"), bytes);
        start();
        QTRY_COMPARE(up->pendingCount(), 0);
        QVERIFY(server->requests.size() == 1 && server->requests.first().body == bytes);
    }

    void oddNamesAreSetAsideAndOddSessionsStayInside()
    {
        // The odd name sorts first, twice; the good file behind them follows.
        for (const char *session : {"a", "b"})
            pending(QLatin1String(session), QStringLiteral("MIC_3_00001.m4a"));
        start(100);
        const QString file = put(folder("writing") + QStringLiteral("/w"), QStringLiteral("sys_1_00000.m4a"));
        up->enqueue(file, QStringLiteral("../../x"));
        QVERIFY(!QFile::exists(file));
        QVERIFY(QFile::exists(folder("pending") + QLatin1Char('/') + SessionFolder::name(QStringLiteral("../../x")) + QStringLiteral("/sys_1_00000.m4a")));
        QTRY_COMPARE(sent("session"), QStringList({"../../x"}));
        const QString aside = folder("unrecognized") + QStringLiteral("/MIC_3_00001.m4a");
        QVERIFY(QFile::exists(aside) && QFile::exists(aside + QStringLiteral(".1")) && home.log().count(QStringLiteral("MIC_3_00001.m4a")) == 2);
    }

    void onlyMediaInSessionFoldersCountInNameOrder()
    {
        // Not in a session folder, in a hidden one, not media.
        for (const char *path : {"mic_1_00000.m4a", ".hidden/mic_1_00001.m4a", "s/notes.txt", "s/mic_1_00003.m4a.part"})
            put(folder("pending") + QLatin1Char('/') + QString::fromLatin1(path).section(QLatin1Char('/'), 0, -2), QString::fromLatin1(path).section(QLatin1Char('/'), -1));
        QVERIFY(Uploader::pendingFiles(folder("pending")).isEmpty());
        QVERIFY(Uploader::pendingFiles(folder("pending") + QStringLiteral("/nowhere")).isEmpty());
        pending(QStringLiteral("b"), QStringLiteral("mic_10_00000.m4a"));
        pending(QStringLiteral("a"), QStringLiteral("mic_9_00000.m4a"));
        QCOMPARE(Uploader::pendingFiles(folder("pending")).first().session, QStringLiteral("b")); // by file name alone
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
        QFETCH(int, fault);
        const HttpStub::Answer refusal{HttpStub::Answer::Kind(kind), status};
        server->script({refusal, refusal});
        pending(QStringLiteral("s"), QStringLiteral("cam_1_00000.mp4"));
        pending(QStringLiteral("s"), QStringLiteral("mic_1_00000.m4a"));
        start();
        QTRY_COMPARE(int(up->fault()), fault);
        QVERIFY(up->lastError().contains(QLatin1String("cam_1_00000.mp4")) && up->pendingCount() == 2);
        // Refused twice: the same file comes again, the one behind it waits; the fault is logged once.
        QTRY_VERIFY(sent().endsWith(QStringLiteral("mic_1_00000.m4a")));
        QVERIFY(sent().count(QStringLiteral("cam_1_00000.mp4")) == sent().size() - 1 && sent().size() >= 4);
        QTRY_COMPARE(up->pendingCount(), 0);
        QVERIFY(up->fault() == Uploader::Fault::None && home.log().count(QStringLiteral("upload: upload of")) == 1);
    }

    void backlogDrainsBackToBackAndArrivalsWait()
    {
        server->script({HttpStub::hang()});
        for (int i = 0; i < 4; ++i)
            pending(QStringLiteral("s%1").arg(i % 2), QStringLiteral("mic_1_%1.m4a").arg(i, 5, 10, QLatin1Char('0')));
        // A tick far in the future: every file after the first goes on the previous one's success.
        start(600000);
        QTRY_COMPARE(server->hanging(), 1);
        up->enqueue(put(folder("writing") + QStringLiteral("/s"), QStringLiteral("mic_1_00004.m4a")), QStringLiteral("s"));
        QTRY_VERIFY(up->pendingCount() == 5 && server->requests.size() == 1);
        server->release(HttpStub::status(200));
        QTRY_COMPARE(server->requests.size(), 5);
        QCOMPARE(sent(), QStringList({"mic_1_00000.m4a", "mic_1_00001.m4a", "mic_1_00002.m4a", "mic_1_00003.m4a", "mic_1_00004.m4a"}));
    }

    // Whatever the control room calls a session reaches it byte for byte.
    void hostileSessionsArriveAsSent_data()
    {
        QTest::addColumn<QString>("session");
        for (const char *s : {"..%2F..%2Fetc", "a+b", "%00", "x&y=z#w", "Grüße 東京"})
            QTest::newRow(s) << QString::fromUtf8(s);
        QTest::newRow("NUL") << QString(QChar(0)) + QStringLiteral("x");
    }
    void hostileSessionsArriveAsSent()
    {
        QFETCH(QString, session);
        pending(session, QStringLiteral("mic_1_00000.m4a"));
        start();
        QTRY_COMPARE(server->requests.size(), 1);
        QByteArray sent;
        for (const QByteArray &item : server->requests.first().url.query(QUrl::FullyEncoded).toLatin1().split('&'))
            if (item.startsWith("session="))
                sent = QByteArray::fromPercentEncoding(item.mid(8));
        QCOMPARE(sent, session.toUtf8());
    }

    void orphansAreRecoveredAtStartAndBadAddressesWait()
    {
        for (const char *path : {"old/mic_3_00000.m4a", "old/scratch.tmp", ".keep/mic_3_00000.m4a", "s/mic_3_00000.m4a"})
            put(folder("writing") + QLatin1Char('/') + QString::fromLatin1(path).section(QLatin1Char('/'), 0, 0), QString::fromLatin1(path).section(QLatin1Char('/'), 1), media());
        const QString inner = put(folder("writing") + QStringLiteral("/s/inner"), QStringLiteral("mic_3_00001.m4a"), media());
        // The same name is already waiting: that move is refused and the recording stays put.
        put(folder("writing") + QStringLiteral("/t"), QStringLiteral("mic_3_00000.m4a"), media());
        pending(QStringLiteral("t"), QStringLiteral("mic_3_00000_final.m4a"));
        home.settings().setServer(QStringLiteral("bad host:port:x"));
        start(100);
        // Moved at once, the last piece of a cut-off take as its final piece; a folder with only
        // recordings and scraps is gone, one with a folder inside is kept.
        QVERIFY(QFile::exists(folder("pending") + QStringLiteral("/old/mic_3_00000_final.m4a")) && !QFileInfo::exists(folder("writing") + QStringLiteral("/old")));
        QVERIFY(QFile::exists(folder("writing") + QStringLiteral("/.keep/mic_3_00000.m4a")));
        QVERIFY(QFile::exists(folder("pending") + QStringLiteral("/s/mic_3_00000_final.m4a")) && QFile::exists(inner));
        QVERIFY(QFile::exists(folder("writing") + QStringLiteral("/t/mic_3_00000_final.m4a")) && home.log().contains(QLatin1String("writing/t")));
        QVERIFY(up->pendingCount() == 3 && !up->busy());
        QCOMPARE(up->fault(), Uploader::Fault::NoAddress); // nothing goes out without a usable address
    }
};

QTEST_MAIN(UploaderTest)
#include "tst_uploader.moc"
