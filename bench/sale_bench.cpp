// The agent's peak memory while it submits a phone sale whose call recording is 1 MiB and then
// 1 GiB, to a loopback control room in another process (bench_upload_sink). The body streams from
// the file, so the peak should not follow the file's size: the figure is the ratio of the two
// peaks.
// Usage: bench_sale [GiB]   (default 1)
#include "ProcStatus.h"
#include "SaleFormModel.h"
#include "SaleSubmission.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QNetworkAccessManager>
#include <QProcess>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTextStream>

namespace {

struct Run {
    bool ok = false;
    qint64 peakKb = 0;       ///< peak resident size during the sale
    qint64 peakGrowthKb = 0; ///< that, less the resident size before it
    double seconds = 0;
};

// One sale with a call recording of `bytes` (a sparse file: the disk is not what is measured).
Run submit(SaleSubmission &submission, const QString &server, const QString &folder, qint64 bytes)
{
    const QString call = folder + QStringLiteral("/call.m4a");
    QFile f(call);
    if (!f.open(QIODevice::WriteOnly) || !f.resize(bytes))
        return {};
    f.close();
    const QString confirm = folder + QStringLiteral("/confirm.pdf");
    QFile c(confirm);
    if (!c.open(QIODevice::WriteOnly) || c.write("%PDF") != 4)
        return {};
    c.close();
    SaleFormModel::Entry e{7, true, QStringLiteral("Bench"), QStringLiteral("100"), false, true, true};
    QSignalSpy done(&submission, &SaleSubmission::finished);
    const qint64 before = ProcStatus::kb("VmRSS");
    ProcStatus::resetPeak();
    QElapsedTimer t;
    t.start();
    submission.submit(server, {SaleFormModel::record(e), true, confirm, QByteArray(), call});
    if (!done.wait(600000))
        return {};
    Run r;
    r.seconds = t.elapsed() / 1000.0;
    r.peakKb = ProcStatus::kb("VmHWM");
    r.peakGrowthKb = r.peakKb - before;
    r.ok = done.first().at(0).toBool();
    QFile::remove(call);
    return r;
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    QTextStream out(stdout);
    const qint64 gib = argc > 1 ? qMax(1, QByteArray(argv[1]).toInt()) : 1;
    QProcess sink;
    sink.start(QCoreApplication::applicationDirPath() + QStringLiteral("/bench_upload_sink"), {QStringLiteral(R"({"sale":"bench"})")});
    if (!sink.waitForStarted(5000) || !sink.waitForReadyRead(5000)) {
        out << "sale bench: the sink did not start" << Qt::endl;
        return 1;
    }
    const QString server = QStringLiteral("127.0.0.1:") + QString::fromLatin1(sink.readLine().trimmed());
    QTemporaryDir dir;
    QNetworkAccessManager net;
    SaleSubmission submission(net);
    submit(submission, server, dir.path(), 1 << 20); // warms the network stack up
    const Run small = submit(submission, server, dir.path(), 1 << 20);
    const Run large = submit(submission, server, dir.path(), gib << 30);
    sink.kill();
    sink.waitForFinished(3000);
    if (!small.ok || !large.ok) {
        out << "sale bench: a submission failed" << Qt::endl;
        return 1;
    }
    const auto mib = [](qint64 kb) { return QString::number(kb / 1024.0, 'f', 1); };
    out << QStringLiteral("sale bench: phone sale with a 1 MiB call recording: peak resident %1 MiB (+%2 MiB over before)\n")
               .arg(mib(small.peakKb), mib(small.peakGrowthKb));
    out << QStringLiteral("sale bench: phone sale with a %1 GiB call recording: peak resident %2 MiB (+%3 MiB), %4 s, %5 MiB/s\n")
               .arg(gib)
               .arg(mib(large.peakKb), mib(large.peakGrowthKb))
               .arg(large.seconds, 0, 'f', 1)
               .arg(double(gib << 10) / large.seconds, 0, 'f', 0);
    out << QStringLiteral("sale bench: peak with %1 GiB / peak with 1 MiB = %2x (a body read whole would add %3 MiB)\n")
               .arg(gib)
               .arg(double(large.peakKb) / double(qMax<qint64>(small.peakKb, 1)), 0, 'f', 3)
               .arg(gib << 10);
    return 0;
}
