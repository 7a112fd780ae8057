// Load on the control room (build/brava-control-room in its own process): 110 simulated agents
// on loopback sending the status twice a second, 20 of them uploading one segment each at once
// (200 MB unless BRAVA_BENCH_SEGMENT_MB says otherwise), one operator page listening to one agent
// and previewing another. Prints the room's CPU time and peak memory, the total upload
// throughput against curl (20 curl uploads of the same files to the same room in the same run),
// the time from one command to its arrival at all 110 agents, and the delay the room adds to
// live audio (p50, p99).
#include "ProcStatus.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTextStream>
#include <QTimer>
#include <QWebSocket>

#include <algorithm>
#include <memory>

#include <unistd.h>

namespace {
QTextStream out(stdout);

// utime + stime of a process in seconds, and its peak resident set in MB.
double cpuSeconds(qint64 pid)
{
    QFile f(QStringLiteral("/proc/%1/stat").arg(pid));
    if (!f.open(QIODevice::ReadOnly))
        return -1;
    const QList<QByteArray> fields = f.readAll().split(' ');
    return (fields.value(13).toDouble() + fields.value(14).toDouble()) / double(sysconf(_SC_CLK_TCK));
}
double peakMb(qint64 pid)
{
    return double(ProcStatus::kb("VmHWM", QString::number(pid))) / 1024.0;
}
bool waitFor(const std::function<bool()> &done, int ms)
{
    QElapsedTimer t;
    t.start();
    while (!done() && t.elapsed() < ms)
        QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
    return done();
}
double percentile(std::vector<double> v, double p)
{
    if (v.empty())
        return -1;
    std::sort(v.begin(), v.end());
    return v[std::min(v.size() - 1, size_t(p * double(v.size())))];
}
} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    const int agents = 110, uploaders = 20;
    const qint64 segmentMb = qEnvironmentVariableIntValue("BRAVA_BENCH_SEGMENT_MB") > 0 ? qEnvironmentVariableIntValue("BRAVA_BENCH_SEGMENT_MB") : 200;
    QTemporaryDir work;
    const QString segment = work.filePath(QStringLiteral("segment.mp4"));
    {
        QFile f(segment);
        f.open(QIODevice::WriteOnly);
        const QByteArray block(1 << 20, 'v');
        for (qint64 i = 0; i < segmentMb; ++i)
            f.write(block);
    }

    QProcess room;
    room.setProgram(QCoreApplication::applicationDirPath() + QStringLiteral("/brava-control-room"));
    room.setArguments({QStringLiteral("--port"), QStringLiteral("0"), QStringLiteral("--uploads"), work.filePath(QStringLiteral("uploads")),
                       QStringLiteral("--name"), QStringLiteral("Bench room")});
    room.start();
    QString printed;
    QRegularExpressionMatch address;
    waitFor([&] {
        printed += QString::fromUtf8(room.readAllStandardOutput());
        address = QRegularExpression(QStringLiteral("http://[^:]+:(\\d+)/\\?token=([0-9a-f]+)")).match(printed);
        return address.hasMatch();
    }, 10000);
    if (!address.hasMatch()) {
        out << "room did not start: " << printed << Qt::endl;
        return 1;
    }
    QObject::connect(&room, &QProcess::readyReadStandardOutput, [&] { room.readAllStandardOutput(); }); // keep its pipe flowing
    const QString port = address.captured(1), token = address.captured(2);
    const qint64 pid = room.processId();

    // --- 110 agents, each its status twice a second -------------------------------------------
    std::vector<std::unique_ptr<QWebSocket>> links;
    std::vector<qint64> commandAt(agents + 1, 0);
    QElapsedTimer clock;
    clock.start();
    for (int id = 1; id <= agents; ++id) {
        auto ws = std::make_unique<QWebSocket>();
        QObject::connect(ws.get(), &QWebSocket::textMessageReceived, [&, id](const QString &t) {
            if (t.contains(QStringLiteral("\"low\"")))
                commandAt[id] = clock.nsecsElapsed();
        });
        ws->open(QUrl(QStringLiteral("ws://127.0.0.1:%1/agent?id=%2&os=linux&v=bench&name=Agent%20%2").arg(port).arg(id)));
        links.push_back(std::move(ws));
    }
    waitFor([&] { return std::all_of(links.begin(), links.end(), [](auto &l) { return l->state() == QAbstractSocket::ConnectedState; }); }, 20000);
    const QString status = QStringLiteral(R"({"type":"status","updateBusy":false,"recording":true,"live":true,"mic":0.31,"sys":0.12,"rate":48000,)"
                                          R"("cam":true,"camActive":true,"camError":null,"micName":"Built-in","mics":[],"cams":[],"micUID":"","camUID":"","error":null})");
    QTimer heartbeat;
    QObject::connect(&heartbeat, &QTimer::timeout, [&] {
        for (auto &l : links)
            l->sendTextMessage(status);
    });
    heartbeat.start(500);

    // --- the page: listens to agent 1, previews agent 2 ---------------------------------------
    QWebSocket page;
    QNetworkRequest pageRequest(QUrl(QStringLiteral("ws://127.0.0.1:%1/page").arg(port)));
    pageRequest.setRawHeader("Authorization", "Bearer " + token.toLatin1());
    std::vector<double> audioDelayMs;
    int pictures = 0;
    QObject::connect(&page, &QWebSocket::binaryMessageReceived, [&](const QByteArray &frame) {
        if (frame.size() > 3 && frame.at(2) == 0) {
            qint64 sent = 0;
            memcpy(&sent, frame.constData() + 3, sizeof sent);
            audioDelayMs.push_back(double(clock.nsecsElapsed() - sent) / 1e6);
        } else if (frame.size() > 3 && frame.at(2) == 2)
            ++pictures;
    });
    page.open(pageRequest);
    waitFor([&] { return page.state() == QAbstractSocket::ConnectedState; }, 10000);
    page.sendTextMessage(QStringLiteral(R"({"to":1,"command":{"type":"listen","on":true}})"));
    page.sendTextMessage(QStringLiteral(R"({"to":2,"command":{"type":"preview","on":true}})"));
    QTimer live;
    const QByteArray picture(60000, '\xff');
    int tick = 0;
    QObject::connect(&live, &QTimer::timeout, [&] {
        QByteArray pcm(1 + 1920, '\0'); // 20 ms of 16-bit audio at 48 kHz, stamped with the send time
        const qint64 now = clock.nsecsElapsed();
        memcpy(pcm.data() + 1, &now, sizeof now);
        links[0]->sendBinaryMessage(pcm);
        if (++tick % 10 == 0)
            links[1]->sendBinaryMessage(QByteArray(1, '\2') + picture); // 10 pictures a second
    });
    live.start(20);
    waitFor([] { return false; }, 1000);

    // --- 20 uploads at once, as the agents send them; then the same with curl ----------------
    const double cpuBefore = cpuSeconds(pid);
    QNetworkAccessManager net;
    int finished = 0, ok = 0;
    std::vector<std::unique_ptr<QFile>> bodies;
    QElapsedTimer upload;
    upload.start();
    for (int i = 0; i < uploaders; ++i) {
        bodies.push_back(std::make_unique<QFile>(segment));
        bodies.back()->open(QIODevice::ReadOnly);
        QNetworkRequest r(QUrl(QStringLiteral("http://127.0.0.1:%1/upload?id=%2&session=bench&track=cam&take=1&idx=%3&final=0&ext=mp4").arg(port).arg(i + 3).arg(i)));
        QNetworkReply *reply = net.post(r, bodies.back().get());
        QObject::connect(reply, &QNetworkReply::finished, [&, reply] {
            ++finished;
            ok += reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt() == 200;
            reply->deleteLater();
        });
    }
    waitFor([&] { return finished == uploaders; }, 600000);
    const double qtSeconds = upload.elapsed() / 1000.0;
    const double cpuUploads = cpuSeconds(pid) - cpuBefore;

    QElapsedTimer curlClock;
    curlClock.start();
    std::vector<std::unique_ptr<QProcess>> curls;
    for (int i = 0; i < uploaders; ++i) {
        auto c = std::make_unique<QProcess>();
        c->start(QStringLiteral("curl"), {QStringLiteral("-s"), QStringLiteral("-o"), QStringLiteral("/dev/null"), QStringLiteral("-H"), QStringLiteral("Expect:"),
                                          QStringLiteral("--data-binary"), QLatin1Char('@') + segment,
                                          QStringLiteral("http://127.0.0.1:%1/upload?id=%2&session=curl&track=cam&take=1&idx=%3&final=0&ext=mp4").arg(port).arg(i + 3).arg(i)});
        curls.push_back(std::move(c));
    }
    // Waiting with the event loop running: the agents and the page keep reading meanwhile.
    waitFor([&] { return std::all_of(curls.begin(), curls.end(), [](auto &c) { return c->state() == QProcess::NotRunning; }); }, 600000);
    const double curlSeconds = curlClock.elapsed() / 1000.0;

    // --- one command to every agent -----------------------------------------------------------
    const qint64 sentAt = clock.nsecsElapsed();
    page.sendTextMessage(QStringLiteral(R"({"to":0,"command":{"type":"quality","q":"low"}})"));
    waitFor([&] { return std::all_of(commandAt.begin() + 1, commandAt.end(), [](qint64 t) { return t > 0; }); }, 10000);
    const double fanOutMs = double(*std::max_element(commandAt.begin() + 1, commandAt.end()) - sentAt) / 1e6;

    const double totalMb = double(segmentMb * uploaders);
    out << "room bench: " << agents << " agents at 2 status/s, " << uploaders << " uploads of " << segmentMb << " MB at once, one page listening and previewing\n";
    out << QStringLiteral("  uploads (agents' way, Qt): %1 of %2 stored, %3 MB/s total\n").arg(ok).arg(uploaders).arg(totalMb / qtSeconds, 0, 'f', 0);
    out << QStringLiteral("  uploads (curl, same room): %1 MB/s total; ratio %2\n").arg(totalMb / curlSeconds, 0, 'f', 0).arg(curlSeconds / qtSeconds, 0, 'f', 2);
    out << QStringLiteral("  room CPU: %1 s during the Qt uploads (%2 s per GB), %3 s in all\n")
               .arg(cpuUploads, 0, 'f', 2).arg(cpuUploads / (totalMb / 1024.0), 0, 'f', 2).arg(cpuSeconds(pid), 0, 'f', 2);
    out << QStringLiteral("  room peak memory: %1 MB (segment %2 MB)\n").arg(peakMb(pid), 0, 'f', 1).arg(segmentMb);
    out << QStringLiteral("  command to all %1 agents: %2 ms\n").arg(agents).arg(fanOutMs, 0, 'f', 1);
    out << QStringLiteral("  live audio through the room: p50 %1 ms, p99 %2 ms (%3 frames); %4 preview pictures\n")
               .arg(percentile(audioDelayMs, 0.5), 0, 'f', 2).arg(percentile(audioDelayMs, 0.99), 0, 'f', 2).arg(audioDelayMs.size()).arg(pictures);
    out.flush();
    room.write("quit\n");
    room.waitForFinished(5000);
    return ok == uploaders ? 0 : 1;
}
