// Sends one large segment (1 GB, 10^9 bytes, unless BRAVA_BENCH_UPLOAD_MB says otherwise) to a
// loopback sink in another process, in turns with `curl -X POST -T file` and through the upload
// queue (BRAVA_BENCH_ROUNDS rounds, 3 by default), and prints the median throughputs and their ratio,
// the CPU time per GB of the agent and of curl, and the agent's peak memory during the uploads.
#include "BuildInfo.h"
#include "DataFolder.h"
#include "ProcStatus.h"
#include "Settings.h"
#include "Uploader.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QTemporaryDir>
#include <QTextStream>
#include <QTimer>

#include <algorithm>

#include <sys/resource.h>
#include <unistd.h>

namespace {

bool writeFile(const QString &path, qint64 bytes)
{
    QFile f(path);
    if (!f.open(QIODevice::WriteOnly))
        return false;
    QByteArray chunk(4 << 20, '\0');
    quint32 x = 2463534242u;
    for (char &c : chunk) { // incompressible bytes
        x ^= x << 13;
        x ^= x >> 17;
        x ^= x << 5;
        c = char(x);
    }
    for (qint64 left = bytes; left > 0; left -= chunk.size())
        if (f.write(chunk.constData(), qMin<qint64>(left, chunk.size())) < 0)
            return false;
    return f.flush();
}

// CPU time used so far, user and system, in milliseconds: by this process, or by its finished children.
qint64 cpuMs(int who = RUSAGE_SELF)
{
    rusage use{};
    getrusage(who, &use);
    return (qint64(use.ru_utime.tv_sec) + use.ru_stime.tv_sec) * 1000 + (use.ru_utime.tv_usec + use.ru_stime.tv_usec) / 1000;
}

double mbPerSecond(qint64 bytes, qint64 ms)
{
    return ms > 0 ? (double(bytes) / 1e6) / (double(ms) / 1000.0) : 0.0;
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    QTextStream out(stdout);
    // Decimal megabytes, 1000 by default.
    const qint64 mb = qEnvironmentVariableIsSet("BRAVA_BENCH_UPLOAD_MB") ? qEnvironmentVariableIntValue("BRAVA_BENCH_UPLOAD_MB") : 1000;
    const qint64 bytes = mb * 1000 * 1000;

    QTemporaryDir home;
    qputenv("XDG_CONFIG_HOME", QFile::encodeName(home.path() + QStringLiteral("/config")));
    qputenv("XDG_DATA_HOME", QFile::encodeName(home.path() + QStringLiteral("/data")));

    QProcess sink;
    sink.start(QCoreApplication::applicationDirPath() + QStringLiteral("/bench_upload_sink"), {});
    if (!sink.waitForStarted(5000) || !sink.waitForReadyRead(5000)) {
        out << "upload bench: the sink did not start" << Qt::endl;
        return 1;
    }
    const QString address = QStringLiteral("127.0.0.1:") + QString::fromLatin1(sink.readLine().trimmed());
    const BuildInfo build;
    Settings settings(DataFolder::settingsFilePath(), build);
    settings.setAgentID(1);
    settings.setServer(address);

    const QString source = home.path() + QStringLiteral("/segment.m4a");
    if (!writeFile(source, bytes)) {
        out << "upload bench: cannot write " << source << Qt::endl;
        return 1;
    }

    const int rounds = qMax(1, qEnvironmentVariableIsSet("BRAVA_BENCH_ROUNDS") ? qEnvironmentVariableIntValue("BRAVA_BENCH_ROUNDS") : 3);
    const QString staging = home.path() + QStringLiteral("/staging");
    QDir().mkpath(staging);

    const qint64 rssBefore = ProcStatus::kb("VmRSS");
    ProcStatus::resetPeak();
    Uploader up(settings);
    up.tickIntervalMs = 600000; // every upload below starts from enqueue, none from the timer
    QElapsedTimer clock;
    qint64 agentMs = -1;
    up.onUploaded = [&](const QString &) {
        agentMs = clock.elapsed();
        app.quit();
    };
    up.start();

    QList<qint64> curlTimes, agentTimes, cpuTimes, curlCpu;
    for (int round = 0; round < rounds; ++round) {
        // The reference: curl streaming the same file as the body of a POST (no 100-continue wait).
        const qint64 curlCpuBefore = cpuMs(RUSAGE_CHILDREN);
        clock.restart();
        const int curl = QProcess::execute(QStringLiteral("curl"),
                                           {QStringLiteral("-sS"), QStringLiteral("-o"), QStringLiteral("/dev/null"),
                                            QStringLiteral("-X"), QStringLiteral("POST"), QStringLiteral("-H"), QStringLiteral("Expect:"),
                                            QStringLiteral("-T"), source,
                                            QStringLiteral("http://") + address + QStringLiteral("/upload")});
        curlTimes.append(clock.elapsed());
        curlCpu.append(cpuMs(RUSAGE_CHILDREN) - curlCpuBefore);
        if (curl != 0) {
            out << "upload bench: curl failed (" << curl << ")" << Qt::endl;
            return 1;
        }

        // The agent: a finished segment handed to the queue, deleted after the 200. A hard link
        // stands in for the file, so the source stays and no gigabyte is copied.
        const QString segment = staging + QStringLiteral("/mic_1700000000000_%1_final.m4a").arg(round, 5, 10, QLatin1Char('0'));
        if (::link(QFile::encodeName(source).constData(), QFile::encodeName(segment).constData()) != 0
            && !QFile::copy(source, segment)) {
            out << "upload bench: cannot queue the file" << Qt::endl;
            return 1;
        }
        agentMs = -1;
        const qint64 cpuBefore = cpuMs();
        QTimer watchdog;
        watchdog.setSingleShot(true);
        QObject::connect(&watchdog, &QTimer::timeout, &app, &QCoreApplication::quit);
        watchdog.start(600000);
        clock.restart();
        up.enqueue(segment, QStringLiteral("bench"));
        app.exec();
        if (agentMs < 0) {
            out << "upload bench: the agent's upload did not finish: " << up.lastError() << Qt::endl;
            return 1;
        }
        agentTimes.append(agentMs);
        cpuTimes.append(cpuMs() - cpuBefore);
    }
    const qint64 peak = ProcStatus::kb("VmHWM");

    sink.kill();
    sink.waitForFinished(3000);

    auto median = [](QList<qint64> v) {
        std::sort(v.begin(), v.end());
        return v.at(v.size() / 2);
    };
    auto list = [](const QList<qint64> &v) {
        QStringList t;
        for (qint64 x : v)
            t.append(QString::number(x));
        return t.join(QLatin1Char(' '));
    };
    const double agent = mbPerSecond(bytes, median(agentTimes));
    const double reference = mbPerSecond(bytes, median(curlTimes));
    out << QStringLiteral("upload bench: %1 MB segment over loopback, %2 rounds, medians").arg(mb).arg(rounds) << Qt::endl;
    out << QStringLiteral("  agent upload: %1 MB/s (ms: %2)").arg(agent, 0, 'f', 1).arg(list(agentTimes)) << Qt::endl;
    out << QStringLiteral("  curl -X POST -T file: %1 MB/s (ms: %2)").arg(reference, 0, 'f', 1).arg(list(curlTimes)) << Qt::endl;
    out << QStringLiteral("  ratio agent/curl: %1").arg(reference > 0 ? agent / reference : 0.0, 0, 'f', 2) << Qt::endl;
    const auto perGB = [&](qint64 ms) { return double(ms) / 1000.0 / (double(bytes) / 1e9); };
    out << QStringLiteral("  agent CPU: %1 s per GB (ms per upload: %2)").arg(perGB(median(cpuTimes)), 0, 'f', 2).arg(list(cpuTimes)) << Qt::endl;
    out << QStringLiteral("  curl CPU: %1 s per GB (ms per upload: %2)").arg(perGB(median(curlCpu)), 0, 'f', 2).arg(list(curlCpu)) << Qt::endl;
    out << QStringLiteral("  ratio CPU agent/curl: %1").arg(median(curlCpu) > 0 ? double(median(cpuTimes)) / double(median(curlCpu)) : 0.0, 0, 'f', 2) << Qt::endl;
    out << QStringLiteral("  agent resident memory: %1 MiB before, peak %2 MiB during the uploads")
               .arg(rssBefore / 1024.0, 0, 'f', 1)
               .arg(peak / 1024.0, 0, 'f', 1)
        << Qt::endl;
    return 0;
}
