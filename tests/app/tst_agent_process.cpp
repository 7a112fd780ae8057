#include "ControlRoom.h"
#include "JsonKeys.h"

#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QRegularExpression>
#include <QSettings>
#include <QTemporaryDir>
#include <QUrlQuery>
#include <QtTest>

// The agent as a user runs it: a copy of the executable with its own Info.ini, a throw-away home
// with a settings file, and a control room on loopback.
class AgentProcessTest : public QObject
{
    Q_OBJECT
    QTemporaryDir dir;
    ControlRoom room;
    QProcess agent;

    QString home() const { return dir.path() + QStringLiteral("/home"); }
    QString logText() const
    {
        QFile f(home() + QStringLiteral("/data/Brava Recorder/log.txt"));
        return f.open(QIODevice::ReadOnly) ? QString::fromUtf8(f.readAll()) : QString();
    }
    QStringList statuses() const
    {
        QStringList out;
        for (const QString &t : room.texts)
            if (t.startsWith(QLatin1String("{\"type\":\"status\"")))
                out.append(t);
        return out;
    }

private slots:
    void initTestCase()
    {
        QVERIFY(dir.isValid());
        QVERIFY(room.listen());
        const QString built = qEnvironmentVariable("BRAVA_TEST_BINARY_DIR") + QStringLiteral("/brava-recorder");
        QVERIFY2(QFile::exists(built), qPrintable(built));
        // A copy with a different Info.ini beside it is a different build.
        const QString bin = dir.path() + QStringLiteral("/bin");
        QVERIFY(QDir().mkpath(bin));
        QVERIFY(QFile::copy(built, bin + QStringLiteral("/brava-recorder")));
        QFile info(bin + QStringLiteral("/Info.ini"));
        QVERIFY(info.open(QIODevice::WriteOnly));
        info.write("[General]\nBravaServer=\nCFBundleShortVersionString=9.8.7\nCFBundleVersion=55\n");
        info.close();

        QSettings settings(home() + QStringLiteral("/config/Brava Recorder/settings.ini"), QSettings::IniFormat);
        settings.setValue("agentID", 7);
        settings.setValue("agentName", "Ana Lee");
        settings.setValue("server", room.address());
        settings.setValue("setupDone", true);
        settings.sync();

        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert("XDG_CONFIG_HOME", home() + QStringLiteral("/config"));
        env.insert("XDG_DATA_HOME", home() + QStringLiteral("/data"));
        env.insert("QT_QPA_PLATFORM", "offscreen");
        agent.setProcessEnvironment(env);
        agent.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        agent.start(bin + QStringLiteral("/brava-recorder"), {});
        QVERIFY(agent.waitForStarted());
    }
    void cleanupTestCase()
    {
        agent.kill();
        agent.waitForFinished();
    }

    void opensTheLinkWithItsIdentity()
    {
        QTRY_VERIFY_WITH_TIMEOUT(room.accepted >= 1, 10000);
        const QUrl url = room.urls.first();
        QCOMPARE(url.path(), QStringLiteral("/agent"));
        QCOMPARE(url.query(QUrl::FullyEncoded), QStringLiteral("id=7&os=linux&v=9.8.7&name=Ana%20Lee"));
    }

    void sendsStatusTwiceASecond()
    {
        QTRY_VERIFY_WITH_TIMEOUT(!statuses().isEmpty(), 5000);
        const int before = int(statuses().size());
        QTest::qWait(3000);
        const int sent = int(statuses().size()) - before;
        QVERIFY2(sent >= 5 && sent <= 7, qPrintable(QString::number(sent)));
        const QString last = statuses().last();
        QCOMPARE(topLevelJsonKeys(last),
                 (QStringList{"type", "updateBusy", "recording", "live", "mic", "sys", "rate", "cam", "camActive",
                              "camError", "micName", "mics", "cams", "micUID", "camUID", "error"}));
        const QJsonObject o = QJsonDocument::fromJson(last.toUtf8()).object();
        QVERIFY(o.value("updateBusy").isBool());
        QVERIFY(o.value("mic").isDouble() && o.value("sys").isDouble());
        QCOMPARE(o.value("rate"), QJsonValue(48000));
        QVERIFY(o.value("camError").isNull() || o.value("camError").isString());
        QVERIFY(o.value("error").isNull() || o.value("error").isString());
        QVERIFY(o.value("mics").isArray() && o.value("cams").isArray());
    }

    void ignoresJunkWithoutALogLine()
    {
        const int lines = int(logText().count(QLatin1Char('\n')));
        for (const char *text : {"garbage", "[]", "{\"type\":7}", "{\"type\":\"nope\"}", "{\"no\":\"type\"}"})
            room.sendText(QString::fromUtf8(text));
        room.sendBinary(QByteArray(100000, '\x01'));
        const int before = int(statuses().size());
        QTRY_VERIFY(statuses().size() >= before + 2);
        QCOMPARE(int(logText().count(QLatin1Char('\n'))), lines);
        QCOMPARE(room.accepted, 1);
        QCOMPARE(agent.state(), QProcess::Running);
    }

    void reconnectsAfterTheControlRoomRestarts()
    {
        const quint16 port = room.port();
        room.close();
        QTest::qWait(1000);
        QVERIFY(room.listen(port));
        QElapsedTimer t;
        t.start();
        QTRY_VERIFY_WITH_TIMEOUT(room.accepted >= 2, 6000);
        QVERIFY2(t.elapsed() < 4000, qPrintable(QString::number(t.elapsed())));
    }

    void replacedStopsReconnecting()
    {
        QTRY_VERIFY(room.openCount() == 1);
        const int accepted = room.accepted;
        room.sendText(QStringLiteral("{\"type\":\"replaced\"}"));
        QTest::qWait(300);
        room.dropAgent();
        QTest::qWait(4500);
        QCOMPARE(room.accepted, accepted);
        QCOMPARE(agent.state(), QProcess::Running);
    }

    void logLinesHaveTheirFormat()
    {
        const QStringList lines = logText().split(QLatin1Char('\n'), Qt::SkipEmptyParts);
        QVERIFY(!lines.isEmpty());
        const QRegularExpression shape(QStringLiteral("^\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\dZ \\S"));
        for (const QString &line : lines)
            QVERIFY2(shape.match(line).hasMatch(), qPrintable(line));
        QVERIFY(logText().contains(QStringLiteral("Z connected to %1 as agent 7\n").arg(room.address())));
        QVERIFY(logText().contains(QStringLiteral("Z disconnected\n")));
    }
};

QTEST_GUILESS_MAIN(AgentProcessTest)
#include "tst_agent_process.moc"
