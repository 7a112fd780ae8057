#include "MediaProbe.h"
#include "OrphanRecovery.h"
#include "RecorderFixture.h"
#include "TestHome.h"
#include "TestLiterals.h"

#include <cstdio>
#include <csignal>

// A recorder process (this binary with "record") killed with SIGKILL at moments of a take with a
// synthetic camera and sound system fed in real time; the next launch's recovery keeps every
// track up to its last whole fragment: at most one fragment interval (2 s) plus 0.5 s lost.
class KilledRecorderTest : public QObject
{
    Q_OBJECT
    TestHome home;

private Q_SLOTS:
    void lossIsBounded()
    {
        for (const int killMs : {500, 1500, 2500, 3500}) {
            home.wipe();
            QProcess p;
            p.start(QCoreApplication::applicationFilePath(), {QStringLiteral("record")});
            QTRY_VERIFY_WITH_TIMEOUT(p.canReadLine(), 10000);
            QElapsedTimer ran;
            ran.start();
            QCOMPARE(p.readLine(), "started\n");
            QTest::qWait(killMs);
            ::kill(pid_t(p.processId()), SIGKILL);
            const double seconds = double(ran.elapsed()) / 1000;
            QVERIFY(p.waitForFinished(5000));
            const auto found = OrphanRecovery(DataFolder::dir(QStringLiteral("writing")), DataFolder::dir(QStringLiteral("unrecognized"))).run();
            for (const QString &track : strings({"mic", "sys", "cam"})) {
                double kept = 0;
                for (const OrphanRecovery::Found &file : found)
                    if (QFileInfo(file.path).fileName().startsWith(track + QLatin1Char('_')) && file.session == QStringLiteral("killed"))
                        kept = MediaProbe::number(track == QStringLiteral("cam") ? MediaProbe::video(file.path) : MediaProbe::stream(file.path), "format_duration");
                qInfo("%s: %.2f s recovered of %.2f s, lost %.2f s", qPrintable(track), kept, seconds, seconds - kept);
                QVERIFY2(seconds - kept <= 2.5, qPrintable(track + QStringLiteral(" killed at %1 ms").arg(killMs)));
                QVERIFY2(killMs < 1500 || kept > 0, qPrintable(track)); // the header and a first fragment are on disk
            }
        }
    }
};

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    if (argc < 2 || qstrcmp(argv[1], "record") != 0) {
        KilledRecorderTest test;
        return QTest::qExec(&test, argc, argv);
    }
    RecorderFixture f(1, false); // in the home the test made
    f.rec->setCamerasEnabled(true);
    std::unique_ptr<AudioFeed> feed;
    f.rec->start(QStringLiteral("killed"), f.setup, [&] {
        feed = std::make_unique<AudioFeed>(*f.audio);
        std::printf("started\n");
        std::fflush(stdout);
    });
    return app.exec();
}
#include "tst_killed_recorder.moc"
