#include "Config.h"
#include "MediaProbe.h"
#include "TestHome.h"

#include <QDir>
#include <QJsonObject>
#include <QProcess>
#include <QtTest>

#include <csignal>

// A recorder process killed with SIGKILL in the middle of a take: its audio and camera files
// stay readable up to the last fragment, losing at most about 2 s.
class KilledRecorderTest : public QObject
{
    Q_OBJECT
    TestHome home;

private Q_SLOTS:
    void filesSurviveSigkill()
    {
        QProcess p;
        p.start(qEnvironmentVariable("BRAVA_TEST_BINARY_DIR") + QStringLiteral("/kill_helper"), {});
        QVERIFY(p.waitForStarted());
        QTRY_VERIFY_WITH_TIMEOUT(p.canReadLine(), 10000);
        const QByteArray line = p.readLine().trimmed();
        QVERIFY2(line.startsWith("started "), line.constData());
        const QString take = QString::fromLatin1(line.mid(8));
        QTest::qWait(5300);
        ::kill(pid_t(p.processId()), SIGKILL);
        QVERIFY(p.waitForFinished(5000));
        const QString folder = Config::dir(QStringLiteral("writing")) + QStringLiteral("/killed/");
        for (const QString &track : {QStringLiteral("mic"), QStringLiteral("sys"), QStringLiteral("cam")}) {
            const bool cam = track == QLatin1String("cam");
            const QString file = folder + track + QLatin1Char('_') + take + (cam ? QStringLiteral("_00000.mp4") : QStringLiteral("_00000.m4a"));
            const double seconds = (cam ? MediaProbe::video(file) : MediaProbe::stream(file)).value("format_duration").toString().toDouble();
            qInfo("%s: %.2f s readable after 5.3 s of recording", qPrintable(track), seconds);
            QVERIFY2(seconds >= 2.5 && seconds <= 5.4, qPrintable(QString::number(seconds)));
        }
    }
};

QTEST_GUILESS_MAIN(KilledRecorderTest)
#include "tst_killed_recorder.moc"
