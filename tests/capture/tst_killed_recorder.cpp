#include "Config.h"
#include "MediaProbe.h"
#include "TestHome.h"

#include <QDir>
#include <QProcess>
#include <QtTest>

#include <csignal>

// A recorder process killed with SIGKILL in the middle of a take: its files stay readable up to
// the last fragment, losing at most about 2 s.
class KilledRecorderTest : public QObject
{
    Q_OBJECT
    TestHome home;

private slots:
    void filesSurviveSigkill()
    {
        if (!MediaProbe::available())
            QSKIP("ffprobe/ffmpeg not installed");
        const QString helper = qEnvironmentVariable("BRAVA_TEST_BINARY_DIR") + QStringLiteral("/kill_helper");
        QVERIFY2(QFile::exists(helper), qPrintable(helper));
        QProcess p;
        p.start(helper, {});
        QVERIFY(p.waitForStarted());
        QTRY_VERIFY_WITH_TIMEOUT(p.canReadLine(), 10000);
        const QByteArray line = p.readLine().trimmed();
        QVERIFY2(line.startsWith("started "), line.constData());
        const QString take = QString::fromLatin1(line.mid(8));
        QTest::qWait(5300);
        ::kill(pid_t(p.processId()), SIGKILL);
        QVERIFY(p.waitForFinished(5000));
        QCOMPARE(p.exitStatus(), QProcess::CrashExit);

        const QString folder = Config::dir(QStringLiteral("writing")) + QStringLiteral("/killed/");
        for (const QString &track : {QStringLiteral("mic"), QStringLiteral("sys")}) {
            const QString file = folder + track + QLatin1Char('_') + take + QStringLiteral("_00000.m4a");
            QVERIFY2(QFile::exists(file), qPrintable(QDir(folder).entryList().join(',')));
            const QJsonObject s = MediaProbe::stream(file);
            QCOMPARE(s.value("codec_name").toString(), QStringLiteral("aac"));
            QString errors;
            const QVector<float> pcm = MediaProbe::decode(file, &errors);
            const double seconds = pcm.size() / 48000.0;
            qInfo("%s: %.2f s readable after 5.3 s of recording", qPrintable(track), seconds);
            QVERIFY2(seconds >= 3.0 && seconds <= 5.4, qPrintable(QString::number(seconds)));
            QVERIFY2(errors.isEmpty(), qPrintable(errors));
        }
    }
};

QTEST_GUILESS_MAIN(KilledRecorderTest)
#include "tst_killed_recorder.moc"
