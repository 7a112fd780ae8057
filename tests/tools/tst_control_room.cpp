// The control room under hostile and ordinary input on loopback: uploads with names that try to
// leave the uploads folder, cut-off bodies, repeats, oversized WebSocket frames, a crowd of
// tokenless page connections, sales and the operator token.
#include "CommandWords.h"
#include "ControlRoomServer.h"
#include "HttpSession.h"

#include <QNetworkAccessManager>
#include <QNetworkCookieJar>
#include <QNetworkReply>
#include <QTcpSocket>
#include <QtTest>
#include <QWebSocket>

#include <csignal>
#include <sys/resource.h>

namespace {
const QString kToken = QStringLiteral("0123456789abcdef0123456789abcdef");
}

class ControlRoomTest : public QObject
{
    Q_OBJECT
    QTemporaryDir top; // the uploads folder is top/uploads: anything beside it escaped
    std::unique_ptr<ControlRoomServer> room;
    std::unique_ptr<QSignalSpy> printed; // what the room printed since it started
    QNetworkAccessManager net;
    quint16 port = 0;

    QString uploads() const { return top.filePath(QStringLiteral("uploads")); }
    QUrl url(const QString &pathAndQuery) const { return QUrl(QStringLiteral("http://127.0.0.1:%1%2").arg(port).arg(pathAndQuery)); }
    // Status and body of one request (0 when no answer within 10 s).
    std::pair<int, QByteArray> request(const QByteArray &verb, const QString &pathAndQuery, const QByteArray &body = {},
                                       const QByteArray &auth = {})
    {
        QNetworkRequest r(url(pathAndQuery));
        if (!auth.isEmpty())
            r.setRawHeader(auth.startsWith("brava_token=") ? "Cookie" : "Authorization", auth);
        r.setTransferTimeout(10000);
        net.setCookieJar(new QNetworkCookieJar(&net)); // each request on its own, without the cookie of the one before
        QNetworkReply *reply = net.sendCustomRequest(r, verb, body);
        QSignalSpy done(reply, &QNetworkReply::finished);
        done.wait(10000);
        reply->deleteLater();
        return {reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt(), reply->readAll()};
    }
    // The head of the answer to a request written as it is on one connection.
    QByteArray rawHead(const QByteArray &request) const
    {
        QTcpSocket s;
        s.connectToHost(QHostAddress::LocalHost, port);
        s.write(request);
        QByteArray head;
        return QTest::qWaitFor([&] { return (head += s.readAll()).contains("\r\n\r\n"); }, 10000) ? head : QByteArray("(no answer)");
    }
    QStringList filesUnder(const QString &dir) const
    {
        QStringList out;
        QDirIterator it(dir, QDir::Files | QDir::Hidden, QDirIterator::Subdirectories);
        while (it.hasNext())
            out.append(QDir(dir).relativeFilePath(it.next()));
        out.sort();
        return out;
    }
    // An open WebSocket of the room at `path`.
    std::unique_ptr<QWebSocket> open(const QString &path) const
    {
        auto s = std::make_unique<QWebSocket>();
        s->open(QUrl(QStringLiteral("ws://127.0.0.1:%1%2").arg(port).arg(path)));
        if (!QTest::qWaitFor([&] { return s->state() == QAbstractSocket::ConnectedState; }, 5000))
            qWarning("no link to %s", qPrintable(path));
        return s;
    }
    static QString q(const QString &session, const QString &rest = QStringLiteral("&track=mic&take=123&idx=12&final=1&ext=m4a"))
    {
        return QStringLiteral("/upload?id=7&session=") + QString::fromLatin1(QUrl::toPercentEncoding(session)) + rest;
    }

private Q_SLOTS:
    void init()
    {
        QDir(uploads()).removeRecursively();
        QDir().mkpath(uploads());
        start();
    }
    void start()
    {
        room = std::make_unique<ControlRoomServer>(QDir(uploads()), nullptr, kToken);
        room->quiet = true;
        printed = std::make_unique<QSignalSpy>(room.get(), &ControlRoomServer::said);
        port = room->listen(0, QHostAddress::LocalHost);
        QVERIFY(port);
    }
    void cleanup() { room.reset(); }
    QJsonObject agent(int id) const
    {
        for (const QJsonValue &a : room->state()[QStringLiteral("agents")].toArray())
            if (a[QStringLiteral("id")] == id)
                return a.toObject();
        return {};
    }

    void refusedUploads_data()
    {
        QTest::addColumn<QString>("query");
        QTest::newRow("dot-dot") << q(QStringLiteral(".."));
        QTest::newRow("up and out") << q(QStringLiteral("../../etc"));
        QTest::newRow("slash") << q(QStringLiteral("a/b"));
        QTest::newRow("NUL") << q(QStringLiteral("a") + QChar(0) + QStringLiteral("b"));
        QTest::newRow("300 characters") << q(QString(300, QLatin1Char('a')));
        QTest::newRow("65 characters") << q(QString(65, QLatin1Char('a')));
        QTest::newRow("hidden") << q(QStringLiteral(".x"));
        QTest::newRow("no query") << QStringLiteral("/upload");
        QTest::newRow("agent 0") << QStringLiteral("/upload?id=0&session=s&track=mic&take=1&idx=1&final=0&ext=m4a");
        QTest::newRow("agent 111") << QStringLiteral("/upload?id=111&session=s&track=mic&take=1&idx=1&final=0&ext=m4a");
        QTest::newRow("track") << q(QStringLiteral("s"), QStringLiteral("&track=..&take=1&idx=1&final=0&ext=m4a"));
        QTest::newRow("camera 5") << q(QStringLiteral("s"), QStringLiteral("&track=cam5&take=1&idx=1&final=0&ext=mp4"));
        QTest::newRow("take") << q(QStringLiteral("s"), QStringLiteral("&track=mic&take=1x&idx=1&final=0&ext=m4a"));
        QTest::newRow("index") << q(QStringLiteral("s"), QStringLiteral("&track=mic&take=1&idx=-1&final=0&ext=m4a"));
        QTest::newRow("final") << q(QStringLiteral("s"), QStringLiteral("&track=mic&take=1&idx=1&final=yes&ext=m4a"));
        QTest::newRow("ext") << q(QStringLiteral("s"), QStringLiteral("&track=mic&take=1&idx=1&final=0&ext=sh"));
        QTest::newRow("missing ext") << q(QStringLiteral("s"), QStringLiteral("&track=mic&take=1&idx=1&final=0"));
    }
    void refusedUploads()
    {
        QFETCH(QString, query);
        QCOMPARE(request("POST", query, QByteArray(1000, 'x')).first, 400);
        QCOMPARE(filesUnder(top.path()), QStringList());
        const QString widest = QStringLiteral("/upload?id=110&session=%1&track=cam4&take=%2&idx=999999999&final=0&ext=mp4").arg(QString(64, u's'), QString(19, u'9'));
        QCOMPARE(request("POST", widest, "ok").first, 200); // and the room serves on, to the edge of every value
    }

    // An upload is named from its query and a repeat is stored once; one cut off leaves nothing
    // that looks whole; the disk refusing a write half-way (here a file-size limit) is answered 500, read
    // by the client that still sends, and said once.
    void uploadsAreStoredOnceAndWholeOrNotAtAll()
    {
        QSignalSpy stored(room.get(), &ControlRoomServer::uploaded);
        const QByteArray body(300000, 'm');
        QCOMPARE(request("POST", q(QStringLiteral("show-1")), body), std::make_pair(200, QByteArray("ok")));
        QCOMPARE(request("POST", q(QStringLiteral("show-1")), body).first, 200); // its answer was lost: sent again
        QCOMPARE(filesUnder(uploads()), QStringList{QStringLiteral("agent7/show-1/mic_123_12_final.m4a")});
        QTRY_COMPARE(stored.size(), 1);
        QFile f(uploads() + QStringLiteral("/agent7/show-1/mic_123_12_final.m4a"));
        QVERIFY(f.open(QIODevice::ReadOnly) && f.readAll() == body);
        QCOMPARE(room->state().value(QStringLiteral("files")).toArray().first().toString(), QStringLiteral("agent7/show-1/mic_123_12_final.m4a"));
        const QByteArray served = rawHead("GET /files/agent7/show-1/mic_123_12_final.m4a HTTP/1.1\r\nHost: x\r\nAuthorization: Bearer " + kToken.toLatin1() + "\r\n\r\n");
        QVERIFY2(served.startsWith("HTTP/1.1 200") && served.contains("\r\nContent-Type: audio/mp4\r\n") && HttpSession::kIdle == std::chrono::seconds(60), served.constData());
        QTcpSocket socket;
        socket.connectToHost(QHostAddress::LocalHost, port); // a HEAD: the length a GET would bring, and no body
        socket.write("HEAD /files/agent7/show-1/mic_123_12_final.m4a HTTP/1.1\r\nHost: x\r\nConnection: close\r\nAuthorization: Bearer " + kToken.toLatin1() + "\r\n\r\n");
        QByteArray headOnly;
        QVERIFY(QTest::qWaitFor([&] { headOnly += socket.readAll(); return socket.state() == QAbstractSocket::UnconnectedState; }, 10000));
        QVERIFY2(headOnly.contains("\r\nContent-Length: 300000\r\n") && headOnly.endsWith("\r\n\r\n"), headOnly.right(200).constData());
        socket.connectToHost(QHostAddress::LocalHost, port);
        QVERIFY(socket.waitForConnected(5000));
        socket.write("POST " + q(QStringLiteral("cut")).toLatin1() + " HTTP/1.1\r\nHost: x\r\nContent-Length: 2147483648\r\n\r\n");
        const QByteArray chunk(1 << 20, 'c');
        for (int i = 0; i < 8; ++i) {
            socket.write(chunk);
            socket.waitForBytesWritten(5000);
        }
        QTRY_COMPARE(filesUnder(uploads()).size(), 2); // arriving, under a hidden name
        QVERIFY(filesUnder(uploads()).first().startsWith(QStringLiteral("agent7/cut/.mic_123_12_final.m4a.part")));
        socket.abort();
        QTRY_COMPARE(filesUnder(uploads()), QStringList{QStringLiteral("agent7/show-1/mic_123_12_final.m4a")});
        QCOMPARE(request("POST", q(QStringLiteral("cut")), "whole").first, 200);
        QSignalSpy said(room.get(), &ControlRoomServer::said);
        std::signal(SIGXFSZ, SIG_IGN);
        rlimit normal{};
        getrlimit(RLIMIT_FSIZE, &normal);
        const rlimit small{100000, normal.rlim_max};
        setrlimit(RLIMIT_FSIZE, &small);
        const int status = request("POST", q(QStringLiteral("full")), QByteArray(32 << 20, 'f')).first; // still sending when answered
        setrlimit(RLIMIT_FSIZE, &normal);
        QCOMPARE(status, 500);
        QTRY_COMPARE(said.size(), 1);
        QVERIFY(said.first().first().toString().startsWith(QStringLiteral("upload agent7/full/mic_123_12_final.m4a not stored: cannot write")));
    }

    // A stored file is served whole or as the one range of bytes asked for, so that a player can seek in it;
    // one gone from the disk since is not found.
    void storedFilesAnswerRanges()
    {
        QByteArray body(100000, 0);
        for (int i = 0; i < body.size(); ++i)
            body[i] = char(i * 7 + i / 251);
        QCOMPARE(request("POST", q(QStringLiteral("r")), body).first, 200);
        const struct { const char *range; int status; const char *contentRange; int first, length; } rows[] = {
            {"", 200, "", 0, 100000}, {"bytes=100-199", 206, "bytes 100-199/100000", 100, 100}, {"bytes=99990-", 206, "bytes 99990-99999/100000", 99990, 10},
            {"bytes=-5", 206, "bytes 99995-99999/100000", 99995, 5}, {"bytes=99000-200000", 206, "bytes 99000-99999/100000", 99000, 1000},
            {"bytes=0-0", 206, "bytes 0-0/100000", 0, 1}, {"bytes=100000-", 416, "bytes */100000", 0, 0}, {"bytes=-0", 416, "bytes */100000", 0, 0},
            {"bytes=5-1", 200, "", 0, 100000}, {"bytes=0-1,5-6", 200, "", 0, 100000}, {"bytes=x-", 200, "", 0, 100000}};
        for (const auto &r : rows) {
            QNetworkRequest get(url(QStringLiteral("/files/agent7/r/mic_123_12_final.m4a")));
            get.setRawHeader("Authorization", "Bearer " + kToken.toLatin1());
            if (*r.range)
                get.setRawHeader("Range", r.range);
            QNetworkReply *reply = net.get(get);
            QVERIFY(QSignalSpy(reply, &QNetworkReply::finished).wait(10000));
            reply->deleteLater();
            const QByteArray got = reply->readAll();
            QVERIFY2(reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt() == r.status && reply->rawHeader("Content-Range") == r.contentRange
                         && (r.status == 416 || (got == body.mid(r.first, r.length) && reply->rawHeader("Accept-Ranges") == "bytes")), r.range);
        }
        QVERIFY(QFile::remove(uploads() + QStringLiteral("/agent7/r/mic_123_12_final.m4a"))); // stored, then gone from the disk
        QCOMPARE(request("GET", QStringLiteral("/files/agent7/r/mic_123_12_final.m4a"), {}, "Bearer " + kToken.toLatin1()).first, 404);
    }

    // An oversized frame ends only its own link; a start warns about the agents left that are not live.
    void hugeWebSocketFrameEndsOnlyThatLink()
    {
        const auto bad = open(QStringLiteral("/agent?id=1&os=linux&v=1&name=x")), good = open(QStringLiteral("/agent?id=2&os=linux&v=1&name=") + QString(201, u'n'));
        QTRY_COMPARE(room->agentCount(), 2);
        QCOMPARE(room->state()[QStringLiteral("agents")][1][QStringLiteral("name")].toString(), QString(200, u'n')); // names cut at 200
        bad->sendBinaryMessage(QByteArray(16 << 20, '\2'));
        QTRY_COMPARE_WITH_TIMEOUT(bad->state(), QAbstractSocket::UnconnectedState, 10000);
        QSignalSpy got(good.get(), &QWebSocket::textMessageReceived);
        QCOMPARE(room->send(2, R"({"type":"stop"})"), 1);
        QVERIFY(got.wait(5000));
        QCOMPARE(room->agentCount(), 1);
        const QJsonObject start{{QStringLiteral("type"), QStringLiteral("start")}, {QStringLiteral("session"), QStringLiteral("s1")}};
        QVERIFY(room->command(0, start).contains(QStringLiteral("1 of them not live")));
        room->command(2, QJsonObject{{QStringLiteral("type"), QStringLiteral("cameras")}, {QStringLiteral("on"), true}});
        const auto dropAndBack = [&](bool live) { // what the operator asks while it is away holds when it is back
            good->close();
            QTRY_COMPARE(room->agentCount(), 0);
            room->command(0, QJsonObject{{QStringLiteral("type"), QStringLiteral("cameras")}, {QStringLiteral("on"), live}});
            good->open(QUrl(QStringLiteral("ws://127.0.0.1:%1/agent?id=2").arg(port)));
            QTRY_COMPARE(room->agentCount(), 1);
        };
        QSignalSpy again(good.get(), &QWebSocket::textMessageReceived);
        dropAndBack(true);
        QTRY_VERIFY(!again.isEmpty());
        QCOMPARE(again.first().first().toString(), QStringLiteral(R"({"on":true,"type":"cameras"})"));
        QVERIFY(!room->command(0, start).contains(QStringLiteral("not live")));
        QCOMPARE(room->state()[QStringLiteral("agents")][1][QStringLiteral("session")].toString(), QStringLiteral("s1"));
        good->sendTextMessage(QStringLiteral(R"({"type":"status","recording":true})"));
        QTRY_VERIFY(room->state()[QStringLiteral("agents")][1][QStringLiteral("status")][QStringLiteral("recording")].toBool());
        QSignalSpy said(room.get(), &ControlRoomServer::said);
        room->list();
        QVERIFY(said.last().first().toString().contains(QStringLiteral(": live, recording s1, ")));
        // A "%1" in a session is the operator's text, not a place for the numbers after it.
        const QJsonObject percent{{QStringLiteral("type"), QStringLiteral("start")}, {QStringLiteral("session"), QStringLiteral("a%1")}};
        QCOMPARE(room->command(0, percent), QStringLiteral("→ all: start a%1 — sent to 1 agent(s)"));
        room->list();
        QCOMPARE(said.last().first().toString(), QStringLiteral("agent #2 : live, recording a%1, live audio 0 bytes, 0 preview frames, 0 stored, 0 uploading"));
        dropAndBack(false);
        QVERIFY(room->command(0, start).contains(QStringLiteral("1 of them not live")));
    }

    // Go Live, Start and the quality for every agent reach agents that connect later; a command to one agent stays with it.
    void lateAgentsGetWhatEveryAgentWasAsked()
    {
        const auto cmd = [&](int to, const char *json) { return room->command(to, QJsonDocument::fromJson(json).object()); };
        QCOMPARE(room->state().value(QStringLiteral("all")).toObject().value(QStringLiteral("liveAsked")), QJsonValue(false));
        QVERIFY(cmd(0, R"({"type":"cameras","on":true})").contains(QStringLiteral("; warning: no agent connected now; kept")));
        cmd(0, R"({"type":"start","session":"s9"})");
        cmd(0, R"({"type":"quality","q":"low"})");
        std::vector<std::unique_ptr<QWebSocket>> links;
        const auto comes = [&](int id) { // what agent `id` is sent as it connects
            auto got = std::make_shared<QStringList>();
            links.push_back(std::make_unique<QWebSocket>());
            connect(links.back().get(), &QWebSocket::textMessageReceived, this, [got](const QString &m) { got->append(m); });
            links.back()->open(QUrl(QStringLiteral("ws://127.0.0.1:%1/agent?id=%2").arg(port).arg(id)));
            const bool in = QTest::qWaitFor([&] { return room->send(id, "{}") > 0; }, 5000) && QTest::qWaitFor([&] { return got->contains(QStringLiteral("{}")); }, 5000);
            return in ? got->mid(0, got->indexOf(QStringLiteral("{}"))).join(QLatin1Char(' ')) : QStringLiteral("(no link)");
        };
        const QString low = QStringLiteral(R"({"q":"low","type":"quality"})");
        const QString both = QStringLiteral(R"({"on":true,"type":"cameras"} {"session":"s9","type":"start"} )") + low;
        QCOMPARE(comes(6), both);
        cmd(6, R"({"type":"stop"})");
        QCOMPARE(comes(7), both);
        links.front()->close();
        QTRY_COMPARE(room->agentCount(), 1);
        QCOMPARE(comes(6), QStringLiteral(R"({"on":true,"type":"cameras"} )") + low); // back after a drop
        QCOMPARE(room->state().value(QStringLiteral("all")).toObject(), QJsonObject({{QStringLiteral("liveAsked"), true}, {QStringLiteral("live"), true}, {QStringLiteral("sessionAsked"), true},
                                                                                    {QStringLiteral("session"), QStringLiteral("s9")}, {QStringLiteral("quality"), QStringLiteral("low")}}));
        // Released: the number's own wishes (here live without a session, listened to) go; the next computer with it is new.
        const auto page = open(QStringLiteral("/page?token=") + kToken);
        QSignalSpy feed(page.get(), &QWebSocket::textMessageReceived);
        page->sendTextMessage(QStringLiteral(R"({"to":6,"command":{"type":"listen","on":true}})"));
        QTRY_VERIFY(feed.size() >= 2); // the state, then the command in the feed
        cmd(6, R"({"type":"release"})");
        QCOMPARE(room->state()[QStringLiteral("agents")][0].toObject().value(QStringLiteral("released")), QJsonValue(true));
        links.back()->close();
        QTRY_COMPARE(room->agentCount(), 1);
        QCOMPARE(comes(6), both);
        cmd(0, R"({"type":"stop"})"); // a stop for every agent: the session is no longer kept, live still is
        QCOMPARE(comes(9), QStringLiteral(R"({"on":true,"type":"cameras"} )") + low);
        cmd(0, R"({"type":"cameras","on":false})");
        QCOMPARE(comes(8), low);
        // Go Live pressed on a released row is kept for the next computer with the number.
        cmd(8, R"({"type":"release"})");
        cmd(8, R"({"type":"cameras","on":true})");
        links.back()->close();
        QTRY_COMPARE(room->agentCount(), 3);
        QCOMPARE(comes(8), QStringLiteral(R"({"on":true,"type":"cameras"} )") + low);
        // A restarted room asks the same again: of the numbers it knew, and of all.
        cmd(8, R"({"type":"start","session":"s10"})");
        const QJsonObject all = room->state().value(QStringLiteral("all")).toObject();
        links.clear();
        room.reset();
        start();
        QCOMPARE(comes(8), QStringLiteral(R"({"on":true,"type":"cameras"} {"session":"s10","type":"start"} )") + low);
        QCOMPARE(comes(5), low);
        QCOMPARE(room->state().value(QStringLiteral("all")).toObject(), all);
        // The late close of a link that a newer one of the number took over is no disconnection.
        QWebSocket again;
        again.open(QUrl(QStringLiteral("ws://127.0.0.1:%1/agent?id=5").arg(port)));
        QTRY_VERIFY(printed->last().first().toString() == QStringLiteral("agent #5: an earlier link closed; the newer one stays"));
        QCOMPARE(agent(5)[QStringLiteral("connected")], QJsonValue(true));
    }

    // A whisper, listen and preview name one agent; an agent streams while any page still wants it.
    void pagesShareWhatAnAgentStreams()
    {
        const auto agent = open(QStringLiteral("/agent?id=3"));
        QStringList got, feed;
        connect(agent.get(), &QWebSocket::textMessageReceived, this, [&](const QString &m) { got.append(m); });
        auto one = open(QStringLiteral("/page?token=") + kToken), two = open(QStringLiteral("/page?token=") + kToken);
        connect(one.get(), &QWebSocket::textMessageReceived, this, [&](const QString &m) { feed.append(m); });
        one->sendTextMessage(QStringLiteral(R"({"to":0,"command":{"type":"whisper","seat":1,"text":"hi"}})"));
        QTRY_VERIFY(feed.join(QString()).contains(QStringLiteral("a whisper goes to one agent")));
        one->sendTextMessage(QStringLiteral(R"({"to":110,"command":{"type":"whisper","seat":9999,"text":"%1"}})").arg(QString(500, u'w')));
        QTRY_VERIFY(feed.join(QString()).contains(QStringLiteral(R"("agent":110,"kind":"sent")"))); // the widest whisper goes out
        QVERIFY(feed.last().contains(QStringLiteral("→ #110: whisper (seat 9999): www")) && feed.last().contains(QStringLiteral("; warning: no agent connected"))); // to nobody: said so
        const auto to3 = [](QWebSocket &page, const char *command) {
            page.sendTextMessage(QStringLiteral(R"({"to":3,"command":%1})").arg(QLatin1String(command)));
        };
        to3(*one, R"({"type":"listen","on":true})");
        to3(*two, R"({"type":"listen","on":true})");
        QTRY_COMPARE(got.size(), 2);
        to3(*one, R"({"type":"listen","on":false})");
        QTRY_VERIFY(feed.join(QString()).contains(QStringLiteral("listen stays on")));
        to3(*two, R"({"type":"preview","on":true})");
        two->close(); // it had listen and preview: both stop, and nothing reached every agent
        QTRY_COMPARE(got.size(), 5);
        QCOMPARE(got.join(QLatin1Char(' ')), QStringLiteral(R"({"on":true,"type":"listen"} {"on":true,"type":"listen"} )"
                                                            R"({"hd":false,"on":true,"type":"preview"} {"on":false,"type":"listen"} {"on":false,"type":"preview"})"));
        // An agent stops live audio when its link drops: back while a page listens, it is asked again.
        to3(*one, R"({"type":"listen","on":true})");
        QTRY_COMPARE(got.size(), 6);
        agent->close();
        QTRY_COMPARE(room->agentCount(), 0);
        agent->open(QUrl(QStringLiteral("ws://127.0.0.1:%1/agent?id=3").arg(port)));
        QTRY_COMPARE(got.size(), 7);
        QCOMPARE(got.last(), QStringLiteral(R"({"on":true,"type":"listen"})"));
        // End Live: the agent ends both itself; the page is told and nothing asks for them again.
        to3(*one, R"({"type":"preview","on":true})");
        QTRY_COMPARE(got.size(), 8);
        room->command(3, QJsonObject{{QStringLiteral("type"), QStringLiteral("cameras")}, {QStringLiteral("on"), false}});
        QTRY_COMPARE(feed.filter(QStringLiteral(R"("kind":"ended")")).size(), 2);
        agent->close();
        QTRY_COMPARE(room->agentCount(), 0);
        agent->open(QUrl(QStringLiteral("ws://127.0.0.1:%1/agent?id=3").arg(port)));
        QTRY_COMPARE(room->agentCount(), 1);
        room->send(3, "{}");
        QTRY_COMPARE(got.last(), QStringLiteral("{}"));
        QCOMPARE(got.size(), 10);
        // Back while a page listens and sees it: both are asked again, the preview as the page chose it.
        to3(*one, R"({"type":"listen","on":true})");
        to3(*one, R"({"type":"preview","on":true,"hd":true})");
        QTRY_COMPARE(got.size(), 12);
        agent->close();
        QTRY_COMPARE(room->agentCount(), 0);
        agent->open(QUrl(QStringLiteral("ws://127.0.0.1:%1/agent?id=3").arg(port)));
        QTRY_COMPARE(got.size(), 14);
        QCOMPARE(got.mid(12), QStringList({QStringLiteral(R"({"on":true,"type":"listen"})"), QStringLiteral(R"({"hd":true,"on":true,"type":"preview"})")}));
    }

    // A call gives up on a network thread that does not answer, and the room serves on once it does.
    void callsGiveUpOnAStuckNetworkThread()
    {
        std::atomic<bool> in{false}, stuck{true};
        connect(room.get(), &ControlRoomServer::textReceived, this, [&] { for (in = true; stuck;) QThread::msleep(10); }, Qt::DirectConnection);
        const auto agent = open(QStringLiteral("/agent?id=4"));
        agent->sendTextMessage(QStringLiteral("{}")); // the network thread waits in the slot above
        QTRY_VERIFY(in);
        room->waitMs = 200;
        QElapsedTimer clock;
        clock.start();
        QCOMPARE(room->agentCount(), 0);
        QVERIFY(clock.elapsed() < 2000);
        stuck = false;
        QTRY_COMPARE(room->agentCount(), 1);
    }

    void aThousandTokenlessPageConnectionsAreRefused()
    {
        int refused = 0;
        for (int batch = 0; batch < 10; ++batch) {
            std::vector<std::unique_ptr<QTcpSocket>> sockets;
            for (int i = 0; i < 100; ++i) {
                auto s = std::make_unique<QTcpSocket>();
                s->connectToHost(QHostAddress::LocalHost, port);
                s->write("GET /page HTTP/1.1\r\nHost: x\r\nConnection: Upgrade\r\nUpgrade: websocket\r\nSec-WebSocket-Version: 13\r\n"
                         "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\n\r\n");
                sockets.push_back(std::move(s));
            }
            for (auto &s : sockets) {
                QTRY_VERIFY(s->bytesAvailable() > 0 || s->state() == QAbstractSocket::UnconnectedState);
                refused += s->readAll().startsWith("HTTP/1.1 401");
            }
        }
        QCOMPARE(refused, 1000);
        QCOMPARE(request("GET", QStringLiteral("/api/state"), {}, "Bearer " + kToken.toLatin1()).first, 200);
    }

    void tokenGuardsThePageAndItsState()
    {
        const QByteArray bearer = "Bearer " + kToken.toLatin1(), token = kToken.toLatin1(), zeros(32, '0');
        const QList<std::tuple<QByteArray, QByteArray, int>> rows = {
            {"/", {}, 401}, {"/?token=" + token, {}, 200}, {"/?token=" + zeros, {}, 401}, {"/api/state", {}, 401}, {"/api/state", bearer, 200},
            {"/api/state", bearer.left(20), 401}, {"/api/state", "brava_token=" + token, 200}, {"/api/state", "brava_token=" + zeros, 401},
            {"/worklet.js", bearer, 200}, {"/files/../../etc/passwd", bearer, 404}, {"/favicon.ico", {}, 204}};
        for (const auto &[path, auth, status] : rows)
            QVERIFY2(request("GET", QString::fromLatin1(path), {}, auth).first == status, QByteArray(path + ' ' + auth).constData());
        // An HTTP/1.0 client is answered in its own version; the cookie stays with this site.
        const QByteArray head = rawHead("GET /?token=" + token + " HTTP/1.0\r\n\r\n");
        QVERIFY2(head.startsWith("HTTP/1.0 200") && head.contains(QByteArray("\r\nSet-Cookie: brava_token=" + token + "; Path=/; HttpOnly; SameSite=Strict\r\n")), head.constData());
    }

    void saleIsStoredWithItsFiles()
    {
        QString feed;
        const auto page = open(QStringLiteral("/page?token=") + kToken);
        connect(page.get(), &QWebSocket::textMessageReceived, this, [&](const QString &m) { feed += m; });
        const auto [status, answer] = request("POST", QStringLiteral("/sale"), R"({"id":110,"method":"phone","lead":")" + QByteArray(200, 'J') + R"(","apv":1000000000,"referral":"no"})" + QByteArray(60000, ' '));
        QCOMPARE(status, 200);
        const QString token = QJsonDocument::fromJson(answer).object().value(QStringLiteral("sale")).toString();
        QVERIFY(!token.isEmpty());
        QCOMPARE(request("POST", QStringLiteral("/sale-file?sale=nope&kind=confirm&ext=png"), "png").first, 400);
        QCOMPARE(request("POST", QStringLiteral("/sale-file?sale=%1&kind=confirm&ext=../x").arg(token), "png").first, 400);
        QCOMPARE(request("POST", QStringLiteral("/sale-file?sale=%1&kind=confirm&ext=png").arg(token), "PNG").first, 200);
        // Records a room refuses, each one value off a good one.
        for (const char *wrong : {R"("id":1.5)", R"("id":0)", R"("id":111)", R"("method":"fax")", R"("lead":" ")", R"("apv":-1)", R"("apv":1000000001)", R"("referral":"maybe")"}) {
            QJsonObject record = QJsonDocument::fromJson(R"({"id":7,"method":"phone","lead":"x","apv":1,"referral":"no"})").object();
            const QJsonObject change = QJsonDocument::fromJson(QByteArray("{") + wrong + "}").object();
            record.insert(change.begin().key(), change.begin().value());
            QVERIFY2(request("POST", QStringLiteral("/sale"), QJsonDocument(record).toJson()).first == 400, wrong);
        }
        QCOMPARE(request("POST", QStringLiteral("/sale"), R"({"id":7,"method":"phone","lead":")" + QByteArray(201, 'J') + R"(","apv":1,"referral":"no"})").first, 400);
        QCOMPARE(request("POST", QStringLiteral("/sale"), QByteArray(4 << 20, ' ')).first, 413); // read by the client still sending
        QCOMPARE(filesUnder(uploads()), QStringList({QStringLiteral("sales/%1/confirm.png").arg(token), QStringLiteral("sales/%1/sale.json").arg(token)}));
        const QJsonArray sales = room->state().value(QStringLiteral("sales")).toArray();
        QCOMPARE(sales.size(), 1);
        QCOMPARE(sales.first().toObject().value(QStringLiteral("files")).toArray().size(), 2);
        QTRY_VERIFY(feed.contains(QString(200, u'J') + QStringLiteral(" · $1,000,000,000 · phone · referral no")));
    }

    // A restarted room takes back what it stored: pieces and sales listed and served, numbering going on;
    // what it would not have written (strays, links out, spoilt records, partial uploads) is said once and never served.
    void aRestartedRoomTakesBackWhatItStored()
    {
        QCOMPARE(request("POST", q(QStringLiteral("s1")), "piece").first, 200);
        QCOMPARE(request("POST", q(QStringLiteral("s1"), QStringLiteral("&track=sys&take=99&idx=3&final=0&ext=m4a")), "an older take's").first, 200);
        const QString sale = QString::fromLatin1(request("POST", QStringLiteral("/sale"), R"({"id":7,"method":"phone","lead":"L","apv":5,"referral":"no"})").second.mid(9, 21));
        QCOMPARE(request("POST", QStringLiteral("/sale-file?sale=%1&kind=call&ext=m4a").arg(sale), "call").first, 200);
        const QString later = QString::fromLatin1(request("POST", QStringLiteral("/sale"), R"({"id":8,"method":"computer","lead":"N","apv":6,"referral":"yes"})").second.mid(9, 21));
        const auto sales = [&] { return room->state().value(QStringLiteral("sales")).toVariant().toList(); };
        const QVariantList before = sales();
        const QString linked = QStringLiteral("sales/0001-") + QString(16, QLatin1Char('a')), outside = top.filePath(QStringLiteral("outside"));
        const QStringList planted = {QStringLiteral("sales/0003-%1/sale.json").arg(QString(16, QLatin1Char('b'))), QStringLiteral("sales/notes.txt"),
                                     QStringLiteral("sales/%1/notes.txt").arg(sale), QStringLiteral("agent07/s1/mic_1_1.m4a"), QStringLiteral("agent7/s1/mic_1_1.wav"),
                                     QStringLiteral("agent7/s1/.mic_1_1.m4a.part-1"), linked + QStringLiteral("/sale.json"), QStringLiteral("agent7/s1/mic_9_9.m4a")};
        for (const QString &path : planted.mid(0, 6)) // a spoilt record, strays, an upload in flight
            QVERIFY(QDir(uploads()).mkpath(QFileInfo(path).path()) && QFile(uploads() + QLatin1Char('/') + path).open(QIODevice::WriteOnly));
        QFile record(outside + QStringLiteral("/sale.json")); // a whole record, out of the folder: links to it are not followed
        QVERIFY(QDir().mkpath(outside) && record.open(QIODevice::WriteOnly) && record.write(QJsonDocument(QJsonObject{{QStringLiteral("sale"), linked.mid(6)}, {QStringLiteral("id"), 7}, {QStringLiteral("method"), QStringLiteral("phone")},
                                                                                                    {QStringLiteral("lead"), QStringLiteral("X")}, {QStringLiteral("apv"), 1}, {QStringLiteral("referral"), QStringLiteral("no")}}).toJson()));
        record.close();
        QVERIFY(QFile::link(outside, uploads() + QLatin1Char('/') + linked) && QFile::link(record.fileName(), uploads() + QLatin1Char('/') + planted.last()));
        QFile left(uploads() + QStringLiteral("/agent7/s1/.mic_2_2.m4a.part-2")); // from a run that ended mid-upload
        QVERIFY(left.open(QIODevice::WriteOnly) && left.setFileTime(QDateTime::currentDateTime().addSecs(-60), QFileDevice::FileModificationTime));
        left.close();
        room.reset();
        start();
        QTRY_VERIFY(!printed->isEmpty() && printed->last().first().toString().startsWith(QStringLiteral("took back 2 stored pieces and 2 sales")));
        QCOMPARE(printed->count(), 8); // each of 7 skipped entries once, then the summary
        const QStringList kept = {QStringLiteral("agent7/s1/mic_123_12_final.m4a"), QStringLiteral("agent7/s1/sys_99_3.m4a"), QStringLiteral("sales/%1/call.m4a").arg(sale), QStringLiteral("sales/%1/sale.json").arg(sale),
                                 QStringLiteral("sales/%1/sale.json").arg(later)};
        QCOMPARE(room->state().value(QStringLiteral("files")).toVariant().toStringList(), kept);
        QCOMPARE(agent(7)[QStringLiteral("stored")], QJsonValue(2)); // agent 7's pieces, counted again, and linked in the feed
        QWebSocket page;
        QSignalSpy greeted(&page, &QWebSocket::textMessageReceived);
        page.open(QUrl(QStringLiteral("ws://127.0.0.1:%1/page?token=%2").arg(port).arg(kToken)));
        QTRY_VERIFY(!greeted.isEmpty());
        const QJsonArray items = QJsonDocument::fromJson(greeted.first().first().toString().toUtf8())[QStringLiteral("feed")].toArray();
        QVERIFY(items.size() == 2 && items[1][QStringLiteral("link")] == QStringLiteral("/files/agent7/s1/mic_123_12_final.m4a")); // oldest take first
        QVERIFY(items[0][QStringLiteral("link")] == QStringLiteral("/files/agent7/s1/sys_99_3.m4a") && items[0][QStringLiteral("time")] == QStringLiteral("1970-01-01T00:00:00.099Z"));
        QCOMPARE(sales(), before); // in their order, with their files
        for (const QString &path : kept + planted)
            QVERIFY2(request("GET", QStringLiteral("/files/") + path, {}, "Bearer " + kToken.toLatin1()).first == (kept.contains(path) ? 200 : 404), qPrintable(path));
        QVERIFY(!left.exists());
        QVERIFY(request("POST", QStringLiteral("/sale"), R"({"id":7,"method":"phone","lead":"M","apv":5,"referral":"no"})").second.startsWith("{\"sale\":\"0004-"));
    }

    void typedCommandsAreCheckedWords()
    {
        // Each row: what is typed, the command sent ("" when refused), the command in the operator's words.
        const struct { const char *line, *json, *words = ""; } rows[] = {
            {"start s1", R"({"session":"s1","type":"start"})", "start s1"}, {"start ../x", ""}, {"start", ""},
            {"quality med", R"({"q":"med","type":"quality"})", "upload quality med"}, {"quality best", ""},
            {"cameras on", R"({"on":true,"type":"cameras"})", "Go Live"}, {"cameras off", R"({"on":false,"type":"cameras"})", "End Live"}, {"listen maybe", ""},
            {"preview on hd", R"({"hd":true,"on":true,"type":"preview"})", "preview in HD"},
            {"whisper 3 ask  twice", R"({"seat":3,"text":"ask twice","type":"whisper"})", "whisper (seat 3): ask twice"},
            {"whisper hi there", ""}, {"dance", ""}, {"preview on ultra", ""}, {"setCam", ""},
            {"setCam cam-2", R"({"type":"setCam","uid":"cam-2"})", "camera → cam-2"}, {"setMic <b>", R"({"type":"setMic","uid":"<b>"})", "microphone → <b>"},
            {"json {bad", ""}, {"json [1]", ""}, {R"(json  {"type": "x"})", R"({"type":"x"})"}};
        for (const auto &r : rows) {
            QString why;
            const QString line = QString::fromUtf8(r.line);
            QByteArray got;
            if (line.startsWith(QLatin1String("json")))
                got = CommandWords::json(line.mid(4), &why).value_or(QByteArray());
            else if (const auto c = CommandWords::fromWords(line.split(QLatin1Char(' '), Qt::SkipEmptyParts), &why)) {
                got = QJsonDocument(*c).toJson(QJsonDocument::Compact);
                QCOMPARE(CommandWords::describe(*c), QString::fromUtf8(r.words));
            }
            QCOMPARE(got, QByteArray(r.json));
            QVERIFY2(why.isEmpty() == (*r.json != 0), r.line);
        }
        QString why; // a device uid as long as a sound server's names get
        QVERIFY(CommandWords::checked({{QStringLiteral("type"), QStringLiteral("setMic")}, {QStringLiteral("uid"), QString(300, u'u')}}, &why));
        // An agent's event in words too, its values as they came.
        QCOMPARE(request("POST", QStringLiteral("/event?id=3&type=review&outcome=Positive&ctype=Emotional&why=%3Cb%3E%20late&secs=15")).first, 200);
        QCOMPARE(printed->last().first().toString(), QStringLiteral("event agent #3 review: Positive, call type Emotional, why <b> late, 15 s"));
    }
};

QTEST_GUILESS_MAIN(ControlRoomTest)
#include "tst_control_room.moc"
