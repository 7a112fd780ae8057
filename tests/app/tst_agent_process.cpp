#include "TestRoom.h"

#include <QJsonDocument>
#include <QProcess>
#include <QRegularExpression>
#include <QtTest>

// The agent as a user runs it: a copy of the executable with its own Info.ini, a throw-away home
// with a settings file, and a control room on loopback.
class AgentProcessTest : public QObject
{
    Q_OBJECT
    QTemporaryDir dir;
    TestRoom room;
    QProcess agent;

    bool write(const QString &path, const QByteArray &text)
    {
        QDir().mkpath(QFileInfo(path).path());
        QFile f(path);
        return f.open(QIODevice::WriteOnly) && f.write(text) == text.size();
    }
    QString logText() const
    {
        QFile f(dir.filePath(QStringLiteral("data/Brava Recorder/log.txt")));
        return f.open(QIODevice::ReadOnly) ? QString::fromUtf8(f.readAll()) : QString();
    }

private Q_SLOTS:
    void initTestCase()
    {
        // A copy with a different Info.ini beside it is a different build.
        QVERIFY(write(dir.filePath(QStringLiteral("bin/Info.ini")), "[General]\nCFBundleShortVersionString=9.8.7\n"));
        QVERIFY(QFile::copy(qEnvironmentVariable("BRAVA_TEST_BINARY_DIR") + QStringLiteral("/brava-recorder"),
                            dir.filePath(QStringLiteral("bin/brava-recorder"))));
        QVERIFY(write(dir.filePath(QStringLiteral("config/Brava Recorder/settings.ini")),
                      "[General]\nagentID=7\nagentName=Ana Lee & Co=1\nsetupDone=true\nserver=" + room.address().toUtf8() + "\n"));
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert(QStringLiteral("XDG_CONFIG_HOME"), dir.filePath(QStringLiteral("config")));
        env.insert(QStringLiteral("XDG_DATA_HOME"), dir.filePath(QStringLiteral("data")));
        agent.setProcessEnvironment(env);
        agent.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        agent.start(dir.filePath(QStringLiteral("bin/brava-recorder")), {});
        QVERIFY(agent.waitForStarted());
    }

    void opensTheLinkWithItsIdentityAndSendsStatus()
    {
        QTRY_VERIFY_WITH_TIMEOUT(room.urls.size() == 1 && room.statuses().size() >= 2, 10000);
        QCOMPARE(room.urls.first().path(), QStringLiteral("/agent"));
        QCOMPARE(room.urls.first().query(QUrl::FullyEncoded), QStringLiteral("id=7&os=linux&v=9.8.7&name=Ana%20Lee%20%26%20Co%3D1"));
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
        QVERIFY(o.value("mic").isDouble() && o.value("mics").isArray() && o.value("camError").isNull());
        QCOMPARE(o.value("rate"), QJsonValue(48000));
    }

    void reconnectsAfterTheControlRoomRestartsAndLogsInItsFormat()
    {
        room.goDown();
        QTRY_VERIFY(logText().contains(QStringLiteral("Z disconnected\n")));
        QVERIFY(room.comeBack());
        QTRY_VERIFY_WITH_TIMEOUT(room.urls.size() == 2, 6000);
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
