#include "DataFolder.h"
#include "HttpStub.h"
#include "SegmentSalvage.h"
#include "SessionFolder.h"
#include "TestHome.h"
#include "TestLiterals.h"
#include "Uploader.h"

#include <QtTest>

namespace {

QByteArray box(const char *type, int payload)
{
    QByteArray b(8 + payload, '\0');
    qToBigEndian<quint32>(quint32(b.size()), b.data());
    memcpy(b.data() + 4, type, 4);
    return b;
}

// A fragmented file: header, movie box, then `fragments` whole fragments of 100-byte media.
QByteArray fragmented(int fragments)
{
    QByteArray data = box("ftyp", 12) + box("moov", 40);
    for (int i = 0; i < fragments; ++i)
        data += box("moof", 24) + box("mdat", 100);
    return data;
}

} // namespace

// The upload queue against a real HTTP server on loopback, with the data folder of a throw-away
// home; and what a crash leaves in writing/: kept when it holds media, trimmed when cut, set aside
// when it holds none, the last piece of a cut-off take sent as its final piece.
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
    static QString pending(const QString &session, const QString &name) { return put(SessionFolder::make(folder("pending"), session), name); }
    void start(int tickMs = 150, int timeoutMs = 400)
    {
        up = std::make_unique<Uploader>(home.settings());
        up->tickIntervalMs = tickMs;
        up->requestTimeoutMs = timeoutMs;
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

    // The query follows the file name; whatever the control room calls a session reaches it byte
    // for byte, fully encoded.
    void queryFollowsTheNameAndTheBodyIsTheFile()
    {
        const QString mic = QStringLiteral("mic_1_00000.m4a"), micItems = QStringLiteral("&track=mic&take=1&idx=0&final=0&ext=m4a");
        const QList<std::tuple<QString, QString, QString>> rows = { // session, file name: query
            {QStringLiteral("Show 1 A&B=?"), QStringLiteral("mic_1700000000000_00012_final.m4a"), QStringLiteral("Show%201%20A%26B%3D%3F&track=mic&take=1700000000000&idx=12&final=1&ext=m4a")},
            {QStringLiteral("s"), QStringLiteral("mic_3_x1.m4a"), QStringLiteral("s&track=mic&take=3&idx=0&final=0&ext=m4a")}, // not a number
            {QStringLiteral("s"), QStringLiteral("cam_3_99999999999999999999.mp4"), QStringLiteral("s&track=cam&take=3&idx=0&final=0&ext=mp4")}, // overflow
            {QStringLiteral("s"), QStringLiteral("room__3___-0004_final.m4a"), QStringLiteral("s&track=room&take=3&idx=-4&final=1&ext=m4a")}, // empty pieces
            {QStringLiteral("..%2F..%2Fetc"), mic, QStringLiteral("..%252F..%252Fetc") + micItems},
            {QStringLiteral("a+b"), mic, QStringLiteral("a%2Bb") + micItems},
            {QStringLiteral("%00"), mic, QStringLiteral("%2500") + micItems},
            {QStringLiteral("x&y=z#w"), mic, QStringLiteral("x%26y%3Dz%23w") + micItems},
            {QString::fromUtf8("Grüße 東京"), mic, QStringLiteral("Gr%C3%BC%C3%9Fe%20%E6%9D%B1%E4%BA%AC") + micItems},
            {QString(QChar(0)) + QStringLiteral("x"), mic, QStringLiteral("%00x") + micItems},
            {QString(300, QLatin1Char('x')), mic, QString(300, QLatin1Char('x')) + micItems}}; // a shortened folder with its note
        for (const auto &[session, file, query] : rows) {
            init();
            pending(session, file);
            start();
            QTRY_COMPARE(server->requests.size(), 1);
            const HttpStub::Request &r = server->requests.first();
            QCOMPARE(r.method + ' ' + r.url.path().toUtf8(), QByteArray("POST /upload"));
            QCOMPARE(r.url.query(QUrl::FullyEncoded), QStringLiteral("id=7&session=") + query);
            QVERIFY2(r.body == file.toUtf8() && !r.headers.contains("content-type") && r.headers.value("host") == server->address().toUtf8(), r.headers.value("host").constData());
            QTRY_COMPARE(up->pendingCount(), 0);
            QVERIFY(!QFileInfo::exists(folder("pending") + QLatin1Char('/') + SessionFolder::name(session))); // emptied, so gone
        }
    }

    void oddNamesAreSetAsideAndOddSessionsStayInside()
    {
        // The odd name sorts first, twice; the good file behind them follows. What is not media in
        // a session folder is never counted nor touched.
        for (const char *session : {"a", "b"})
            pending(QLatin1String(session), QStringLiteral("MIC_3_00001.m4a"));
        for (const char *path : {"mic_1_00000.m4a", ".hidden/mic_1_00001.m4a", "s/notes.txt", "s/mic_1_00003.m4a.part"})
            put(folder("pending") + QLatin1Char('/') + QString::fromLatin1(path).section(QLatin1Char('/'), 0, -2), QString::fromLatin1(path).section(QLatin1Char('/'), -1));
        start(100);
        const QString file = put(folder("writing") + QStringLiteral("/w"), QStringLiteral("sys_1_00000.m4a"));
        up->enqueue(file, QStringLiteral("../../x"));
        QVERIFY(!QFile::exists(file));
        QVERIFY(QFile::exists(folder("pending") + QLatin1Char('/') + SessionFolder::name(QStringLiteral("../../x")) + QStringLiteral("/sys_1_00000.m4a")));
        QTRY_COMPARE(sent("session"), strings({"../../x"}));
        const QString aside = folder("unrecognized") + QStringLiteral("/MIC_3_00001.m4a");
        QVERIFY(QFile::exists(aside) && QFile::exists(aside + QStringLiteral(".1")) && home.log().count(QStringLiteral("MIC_3_00001.m4a")) == 2);
        QTRY_COMPARE(up->pendingCount(), 0);
        QCOMPARE(QDir(folder("pending") + QStringLiteral("/s")).entryList(QDir::Files), strings({"mic_1_00003.m4a.part", "notes.txt"}));
    }

    // Statuses 201 and 500 are refusals; a reset or silence is a fault of the transport.
    void onlyStatus200Succeeds()
    {
        using A = HttpStub::Answer;
        using F = Uploader::Fault;
        const struct { A::Kind kind; int status; F fault; } rows[] = {{A::Reply, 201, F::Refused}, {A::Reply, 500, F::Refused}, {A::Reset, 0, F::Transport}, {A::Hang, 0, F::Transport}};
        for (const auto &[kind, status, fault] : rows) {
            init();
            const HttpStub::Answer refusal{kind, status};
            server->script({refusal, refusal});
            pending(QStringLiteral("s"), QStringLiteral("cam_1_00000.mp4"));
            pending(QStringLiteral("s"), QStringLiteral("mic_1_00000.m4a"));
            start();
            QTRY_COMPARE(up->fault(), fault);
            QVERIFY(up->lastError().contains(QLatin1String("cam_1_00000.mp4")) && up->pendingCount() == 2);
            // Refused twice: the same file comes again, the one behind it waits; the fault is logged once.
            QTRY_VERIFY(sent().endsWith(QStringLiteral("mic_1_00000.m4a")));
            QVERIFY(sent().count(QStringLiteral("cam_1_00000.mp4")) == sent().size() - 1 && sent().size() >= 4);
            QTRY_COMPARE(up->pendingCount(), 0);
            QVERIFY(up->fault() == Uploader::Fault::None && home.log().count(QStringLiteral("upload: upload of")) == 1);
        }
    }

    // The status line as each HTTP version writes it; anything else is a malformed answer.
    void statusLines()
    {
        const struct { const char *head; int status; } rows[] = {
            {"HTTP/1.1 200 OK\r\n", 200}, {"HTTP/1.0 200 OK\r\n", 200}, {"HTTP/1.1 404\r\n", 404}, {"HTTP/2 200\r\n", 0},
            {"HTTP/1.1 2000 OK\r\n", 0}, {"HTTP/1.1 20 OK\r\n", 0}, {"http/1.1 200 OK\r\n", 0}};
        for (const auto &r : rows)
            QVERIFY2(SegmentPost::statusOf(r.head) == r.status, r.head);
    }

    // A room that answers slowly, but within the limit, in the older HTTP version and with a long
    // head, is a room that works, and a body of many blocks arrives whole; the limits are the real
    // ones unless a test shortens them.
    void aSlowOldRoomTakesABodyOfManyBlocks()
    {
        const Uploader plain(home.settings());
        QVERIFY(plain.requestTimeoutMs == 60000 && plain.tickIntervalMs == 3000);
        server->script({HttpStub::Answer{HttpStub::Answer::Reply, 200, {}, "text/plain; x=" + QByteArray(12000, 'x'), 600, "HTTP/1.0"}});
        QByteArray bytes(int(SegmentPost::kBlockBytes * 5 / 2 + 7), '\0');
        for (qsizetype i = 0; i < bytes.size(); ++i)
            bytes[i] = char(i * 7 + i / 4093);
        server->keepBodyBytes = bytes.size();
        put(folder("pending") + QStringLiteral("/s"), QStringLiteral("cam_1_00000.mp4"), bytes);
        start(150, 1000);
        QTRY_COMPARE(up->pendingCount(), 0);
        QVERIFY(up->fault() == Uploader::Fault::None && server->requests.size() == 1 && server->requests.first().body == bytes);
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
        QCOMPARE(sent(), strings({"mic_1_00000.m4a", "mic_1_00001.m4a", "mic_1_00002.m4a", "mic_1_00003.m4a", "mic_1_00004.m4a"}));
    }

    void orphansAreRecoveredAtStartAndBadAddressesWait()
    {
        for (const char *path : {"old/mic_3_00000.m4a", "old/scratch.tmp", ".keep/mic_3_00000.m4a", "s/mic_3_00000.m4a"})
            put(folder("writing") + QLatin1Char('/') + QString::fromLatin1(path).section(QLatin1Char('/'), 0, 0), QString::fromLatin1(path).section(QLatin1Char('/'), 1), fragmented(1));
        const QString inner = put(folder("writing") + QStringLiteral("/s/inner"), QStringLiteral("mic_3_00001.m4a"), fragmented(1));
        // The same name is already waiting: that move is refused and the recording stays put.
        put(folder("writing") + QStringLiteral("/t"), QStringLiteral("mic_3_00000.m4a"), fragmented(1));
        pending(QStringLiteral("t"), QStringLiteral("mic_3_00000_final.m4a"));
        // A take cut by a crash: a whole piece, one cut inside a fragment, one opened just before
        // (empty), one ended before, and one without media.
        const QString take = folder("writing") + QLatin1Char('/') + SessionFolder::name(QStringLiteral("s/1"));
        for (const auto &[name, bytes] : {std::pair("mic_7_00000.m4a", fragmented(3)), {"mic_7_00001.m4a", fragmented(1) + box("moof", 24)}, {"mic_7_00002.m4a", QByteArray("")},
                                          {"sys_7_00000_final.m4a", fragmented(1)}, {"cam_7_00000.mp4", fragmented(0)}})
            put(take, QLatin1String(name), bytes);
        home.settings().setServer(QStringLiteral("bad host:port:x"));
        start(100);
        // Moved at once, the last piece of a cut-off take as its final piece; a folder with only
        // recordings and scraps is gone, one with a folder inside is kept.
        QVERIFY(QFile::exists(folder("pending") + QStringLiteral("/old/mic_3_00000_final.m4a")) && !QFileInfo::exists(folder("writing") + QStringLiteral("/old")));
        QVERIFY(QFile::exists(folder("writing") + QStringLiteral("/.keep/mic_3_00000.m4a")));
        QVERIFY(QFile::exists(folder("pending") + QStringLiteral("/s/mic_3_00000_final.m4a")) && QFile::exists(inner));
        QVERIFY(QFile::exists(folder("writing") + QStringLiteral("/t/mic_3_00000_final.m4a")) && home.log().contains(QLatin1String("writing/t")));
        const QString sent = folder("pending") + QLatin1Char('/') + SessionFolder::name(QStringLiteral("s/1"));
        QCOMPARE(QDir(sent).entryList(QDir::Files), strings({"mic_7_00000.m4a", "mic_7_00001_final.m4a", "sys_7_00000_final.m4a"}));
        QCOMPARE(QFileInfo(sent + QStringLiteral("/mic_7_00001_final.m4a")).size(), qint64(fragmented(1).size())); // trimmed
        QCOMPARE(QDir(folder("unrecognized")).entryList(QDir::Files), strings({"cam_7_00000.mp4", "mic_7_00002.m4a"}));
        QVERIFY(home.log().contains(QStringLiteral("recovery: mic_7_00002.m4a holds no whole fragment")));
        QVERIFY(up->pendingCount() == 6 && !up->busy());
        QCOMPARE(up->fault(), Uploader::Fault::NoAddress); // nothing goes out without a usable address
        QCOMPARE(home.log().count(QStringLiteral("file(s) left by an earlier run queued for upload")), 1);
    }

    // Where the media of a file ends: empty, header only, cut in the movie box, no movie box, a
    // fragment without media, whole, cut in media, cut after a fragment header, an index after the
    // fragments, an impossible size.
    void mediaEnd()
    {
        const QByteArray two = fragmented(2);
        const QList<std::pair<QByteArray, qsizetype>> rows = {
            {{}, 0}, {fragmented(0), 0}, {fragmented(1).left(30), 0}, {box("ftyp", 12) + box("moof", 24) + box("mdat", 100), 0},
            {fragmented(0) + box("moof", 24), 0}, {two, two.size()}, {two.left(two.size() - 1), fragmented(1).size()},
            {two + box("moof", 24), two.size()}, {two + box("mfra", 16), two.size() + 24}, {two + QByteArray("\0\0\0\3mdat", 8), two.size()}};
        for (auto [data, end] : rows) {
            QBuffer buffer(&data);
            QVERIFY(buffer.open(QIODevice::ReadOnly));
            QCOMPARE(SegmentSalvage::mediaEnd(buffer), qint64(end));
        }
    }

    // A real segment cut by a crash inside its last fragment reads cleanly once trimmed.
    void cutRecordingReadsAfterTrim()
    {
        if (QStandardPaths::findExecutable(QStringLiteral("ffmpeg")).isEmpty())
            QSKIP("ffmpeg not installed");
        const QString path = home.root() + QStringLiteral("/cut.m4a");
        QProcess ffmpeg;
        ffmpeg.start(QStringLiteral("ffmpeg"), QStringLiteral("-v error -y -f lavfi -i sine=d=5 -c:a aac -movflags frag_keyframe+delay_moov+default_base_moof -frag_duration 1000000").split(QLatin1Char(' ')) << path);
        QVERIFY(ffmpeg.waitForFinished(30000) && ffmpeg.exitCode() == 0);
        QFile file(path);
        QVERIFY(file.resize(file.size() * 7 / 10));
        QCOMPARE(SegmentSalvage::salvage(path), SegmentSalvage::Verdict::Trimmed);
        QProcess probe;
        probe.start(QStringLiteral("ffmpeg"), QStringList{QStringLiteral("-v"), QStringLiteral("error"), QStringLiteral("-i"), path, QStringLiteral("-f"), QStringLiteral("null"), QStringLiteral("-")});
        QVERIFY(probe.waitForFinished(30000) && probe.exitCode() == 0);
        QCOMPARE(probe.readAllStandardError(), QByteArray()); // decodes without a single error
        QCOMPARE(SegmentSalvage::salvage(path), SegmentSalvage::Verdict::Whole);
    }
};

QTEST_MAIN(UploaderTest)
#include "tst_uploader.moc"
