#include <QtTest>

// Two copies of the agent on one account (the login item and a manual start): the second one
// quits at once and never touches the first one's recordings.
class SecondCopyTest : public QObject
{
    Q_OBJECT
    QTemporaryDir home;

    QString data() const { return home.path() + QStringLiteral("/data/Brava Recorder"); }

    void start(QProcess &agent) const
    {
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert(QStringLiteral("XDG_CONFIG_HOME"), home.path() + QStringLiteral("/config"));
        env.insert(QStringLiteral("XDG_DATA_HOME"), home.path() + QStringLiteral("/data"));
        agent.setProcessEnvironment(env);
        agent.start(qEnvironmentVariable("BRAVA_TEST_BINARY_DIR") + QStringLiteral("/brava-recorder"), {});
    }

private Q_SLOTS:
    void secondCopyLeavesTheFirstOnesTakeAlone()
    {
        QProcess first, second;
        start(first);
        QTRY_VERIFY(QFile::exists(data() + QStringLiteral("/agent.lock")));
        // A piece the first copy is writing: a second copy must not take it for a crash's leftover.
        const QString growing = data() + QStringLiteral("/writing/s/mic_1_00000.m4a");
        QVERIFY(QDir().mkpath(QFileInfo(growing).path()));
        QFile file(growing);
        QVERIFY(file.open(QIODevice::WriteOnly));

        start(second);
        QVERIFY(second.waitForFinished(15000));
        QCOMPARE(second.exitStatus(), QProcess::NormalExit);
        QCOMPARE(second.exitCode(), 0);
        QVERIFY(QFile::exists(growing));
        QCOMPARE(first.state(), QProcess::Running);
        QFile log(data() + QStringLiteral("/log.txt"));
        QVERIFY(log.open(QIODevice::ReadOnly));
        QVERIFY(log.readAll().contains("another Brava Recorder already runs for this account"));
        first.kill();
        first.waitForFinished();
    }
};

QTEST_GUILESS_MAIN(SecondCopyTest)
#include "tst_second_copy.moc"
