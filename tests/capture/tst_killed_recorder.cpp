#include "DataFolder.h"
#include "MediaProbe.h"
#include "OrphanRecovery.h"
#include "TestHome.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QJsonObject>
#include <QProcess>
#include <QtTest>

#include <csignal>

// A recorder process killed with SIGKILL at moments of a take; the next launch's recovery keeps
// every track up to its last whole fragment: at most one fragment interval (2 s) plus 0.5 s lost.
class KilledRecorderTest : public QObject
{
    Q_OBJECT
    TestHome home;

private Q_SLOTS:
    void init() { home.wipe(); }

    void lossIsBounded_data()
    {
        QTest::addColumn<int>("killMs");
        for (int ms : {500, 1500, 2500, 3500})
            QTest::addRow("killed at %d ms", ms) << ms;
    }
    void lossIsBounded()
    {
        QFETCH(int, killMs);
        QProcess p;
        p.start(qEnvironmentVariable("BRAVA_TEST_BINARY_DIR") + QStringLiteral("/kill_helper"), {});
        QVERIFY(p.waitForStarted());
        QTRY_VERIFY_WITH_TIMEOUT(p.canReadLine(), 10000);
        QElapsedTimer ran;
        ran.start();
        const QByteArray line = p.readLine().trimmed();
        QVERIFY2(line.startsWith("started "), line.constData());
        QTest::qWait(killMs);
        ::kill(pid_t(p.processId()), SIGKILL);
        const double seconds = double(ran.elapsed()) / 1000;
        QVERIFY(p.waitForFinished(5000));
        const auto found = OrphanRecovery(DataFolder::dir(QStringLiteral("writing")), DataFolder::dir(QStringLiteral("unrecognized"))).run();
        for (const QString track : {"mic", "sys", "cam"}) {
            double kept = 0;
            for (const OrphanRecovery::Found &file : found)
                if (QFileInfo(file.path).fileName().startsWith(track + '_') && file.session == QLatin1String("killed"))
                    kept = (track == "cam" ? MediaProbe::video(file.path) : MediaProbe::stream(file.path)).value("format_duration").toString().toDouble();
            qInfo("%s: %.2f s recovered of %.2f s, lost %.2f s", qPrintable(track), kept, seconds, seconds - kept);
            QVERIFY2(seconds - kept <= 2.5, qPrintable(track));
            QVERIFY2(killMs < 1500 || kept > 0, qPrintable(track)); // the header and a first fragment are on disk
        }
    }
};

QTEST_GUILESS_MAIN(KilledRecorderTest)
#include "tst_killed_recorder.moc"
