#include "AgentFixture.h"

#include <QJsonDocument>
#include <QProcess>
#include <QRegularExpression>
#include <QSettings>
#include <QtTest>

// The agent as a user runs it: a copy of the executable with its own Info.ini, a throw-away home
// with a settings file, and a control room on loopback.
class AgentProcessTest : public QObject
{
    Q_OBJECT
    QTemporaryDir dir;
    TestRoom room;
    QProcess agent;

    QString logText() const
    {
        QFile f(dir.path() + QStringLiteral("/data/Brava Recorder/log.txt"));
        return f.open(QIODevice::ReadOnly) ? QString::fromUtf8(f.readAll()) : QString();
    }

private Q_SLOTS:
    void initTestCase()
    {
        const QString bin = dir.path() + QStringLiteral("/bin");
        QVERIFY(QDir().mkpath(bin));
        QVERIFY(QFile::copy(qEnvironmentVariable("BRAVA_TEST_BINARY_DIR") + QStringLiteral("/brava-recorder"),
                            bin + QStringLiteral("/brava-recorder")));
        // A copy with a different Info.ini beside it is a different build.
        QFile info(bin + QStringLiteral("/Info.ini"));
        QVERIFY(info.open(QIODevice::WriteOnly));
        info.write("[General]\nBravaServer=\nCFBundleShortVersionString=9.8.7\nCFBundleVersion=55\n");
        info.close();
        QSettings settings(dir.path() + QStringLiteral("/config/Brava Recorder/settings.ini"), QSettings::IniFormat);
        settings.setValue("agentID", 7);
        settings.setValue("agentName", "Ana Lee");
        settings.setValue("server", room.address());
        settings.setValue("setupDone", true);
        settings.sync();
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert("XDG_CONFIG_HOME", dir.path() + QStringLiteral("/config"));
        env.insert("XDG_DATA_HOME", dir.path() + QStringLiteral("/data"));
        agent.setProcessEnvironment(env);
        agent.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        agent.start(bin + QStringLiteral("/brava-recorder"), {});
        QVERIFY(agent.waitForStarted());
    }

    void opensTheLinkWithItsIdentityAndSendsStatus()
    {
        QTRY_VERIFY_WITH_TIMEOUT(room.urls.size() == 1 && room.statuses().size() >= 2, 10000);
        QCOMPARE(room.urls.first().path(), QStringLiteral("/agent"));
        QCOMPARE(room.urls.first().query(QUrl::FullyEncoded), QStringLiteral("id=7&os=linux&v=9.8.7&name=Ana%20Lee"));
        // The heartbeat's keys in their fixed order.
        const QString text = room.texts.last();
        qsizetype at = 0;
        for (const char *key : {"type", "updateBusy", "recording", "live", "mic", "sys", "rate", "cam", "camActive",
                                "camError", "micName", "mics", "cams", "micUID", "camUID", "error"}) {
            const qsizetype next = text.indexOf(QLatin1Char('"') + QLatin1String(key) + QStringLiteral("\":"), at);
            QVERIFY2(next > at || (at == 0 && next == 1), key);
            at = next;
        }
        const QJsonObject o = QJsonDocument::fromJson(text.toUtf8()).object();
        QVERIFY(o.value("mic").isDouble() && o.value("mics").isArray() && o.value("updateBusy").isBool());
        QCOMPARE(o.value("rate"), QJsonValue(48000));
    }

    void ignoresJunkWithoutALogLine()
    {
        const qsizetype lines = logText().count(QLatin1Char('\n'));
        for (const char *text : {"garbage", "[]", "{\"type\":7}", "{\"type\":\"nope\"}", "{\"no\":\"type\"}"})
            room.sendText(QString::fromUtf8(text));
        const qsizetype before = room.statuses().size();
        QTRY_VERIFY(room.statuses().size() >= before + 2);
        QCOMPARE(logText().count(QLatin1Char('\n')), lines);
        QCOMPARE(agent.state(), QProcess::Running);
    }

    void reconnectsAfterTheControlRoomRestarts()
    {
        room.goDown();
        QTRY_VERIFY(logText().contains(QStringLiteral("Z disconnected\n")));
        QVERIFY(room.comeBack());
        QTRY_VERIFY_WITH_TIMEOUT(room.urls.size() == 2, 6000);
    }

    void quitsOnTerminateWithWellFormedLog()
    {
        agent.terminate();
        QVERIFY(agent.waitForFinished(10000));
        const QRegularExpression shape(QStringLiteral("^\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\dZ \\S"));
        for (const QString &line : logText().split(QLatin1Char('\n'), Qt::SkipEmptyParts))
            QVERIFY2(shape.match(line).hasMatch(), qPrintable(line));
        QVERIFY(logText().contains(QStringLiteral("Z connected to %1 as agent 7\n").arg(room.address())));
    }
};

QTEST_MAIN(AgentProcessTest)
#include "tst_agent_process.moc"
