#include "AgentParts.h"
#include "Clock.h"
#include "AppDelegate.h"
#include "Config.h"
#include "Connection.h"
#include "ControlRoom.h"
#include "PulseFixture.h"
#include "Recorder.h"
#include "TestHome.h"

#include <QApplication>
#include <QDir>
#include <QJsonDocument>
#include <QJsonObject>
#include <QtTest>

#include <cmath>

// The recording engine driven the way the agent runs: commands from a loopback control room over
// the real link, the controller, the recorder on the test PulseAudio daemon.
class RecorderLinkTest : public QObject
{
    Q_OBJECT
    TestHome home;
    ControlRoom *room = nullptr;
    Connection *conn = nullptr;
    std::unique_ptr<AgentParts> parts;
    Recorder *rec = nullptr;
    AppDelegate *app = nullptr;
    QList<QPair<QString, QString>> segments;

    void send(const QJsonObject &command) { room->sendText(QString::fromUtf8(QJsonDocument(command).toJson())); }

    QList<QJsonObject> statuses() const
    {
        QList<QJsonObject> out;
        for (const QString &t : room->texts) {
            const QJsonObject o = QJsonDocument::fromJson(t.toUtf8()).object();
            if (o.value(QStringLiteral("type")).toString() == QLatin1String("status"))
                out.append(o);
        }
        return out;
    }

    QString tone(double seconds)
    {
        QVector<float> s(int(seconds * 48000));
        for (int i = 0; i < s.size(); ++i)
            s[i] = 0.5f * float(std::sin(2 * M_PI * 440.0 * i / 48000.0));
        const QString path = home.root() + QStringLiteral("/tone.wav");
        PulseFixture::writeWav(path, s);
        return path;
    }

private slots:
    void init()
    {
        if (!PulseFixture::available())
            QSKIP("needs the PulseAudio daemon of scripts/test (BRAVA_TEST_PULSE=1)");
        home.wipe();
        home.useInfo(QString(), QStringLiteral("2.5"));
        room = new ControlRoom(this);
        QVERIFY(room->listen());
        Config::setAgentID(9);
        Config::setAgentName(QStringLiteral("Rec"));
        Config::setServer(room->address());
        Config::setSetupDone(true);
        Config::setMicUID(QStringLiteral("brava_mic"));
        conn = new Connection(this);
        parts = std::make_unique<AgentParts>();
        rec = new Recorder(parts->audio, *parts->cameras, Clock::monotonic(), this);
        app = new AppDelegate(*rec, *conn, parts->permissions, this);
        app->applicationDidFinishLaunching();
        // Watch the finished segments on their way to the upload queue.
        const auto upload = rec->onSegmentDone;
        segments.clear();
        rec->onSegmentDone = [this, upload](const QString &path, const QString &session) {
            QMetaObject::invokeMethod(this, [this, path, session] { segments.append({path, session}); }, Qt::QueuedConnection);
            if (upload)
                upload(path, session);
        };
        QTRY_VERIFY(conn->connected());
    }
    void cleanup()
    {
        delete app;
        app = nullptr;
        delete rec;
        rec = nullptr;
        delete conn;
        delete room;
    }

    // "start" writes mic and sys segments under writing/<session>/; "stop" finishes them as
    // "_final" files handed on with the session.
    void startAndStopOverTheLink()
    {
        send({{"type", "cameras"}, {"on", true}});
        send({{"type", "start"}, {"session", "ev42"}});
        QTRY_VERIFY(rec->isRecording());
        QCOMPARE(*rec->session(), QStringLiteral("ev42"));
        const QString take = QString::number(rec->currentTake());
        const QString folder = Config::dir(QStringLiteral("writing")) + QStringLiteral("/ev42/");
        QTRY_VERIFY_WITH_TIMEOUT(QFile::exists(folder + QStringLiteral("mic_%1_00000.m4a").arg(take))
                                     && QFile::exists(folder + QStringLiteral("sys_%1_00000.m4a").arg(take)),
                                 5000);
        QVERIFY(!rec->lastError());
        QTest::qWait(500);
        send({{"type", "stop"}});
        QTRY_VERIFY(!rec->running());
        QTRY_COMPARE(segments.size(), 2);
        QStringList names;
        for (const auto &[path, session] : segments) {
            QCOMPARE(session, QStringLiteral("ev42"));
            names.append(QFileInfo(path).fileName());
        }
        names.sort();
        QCOMPARE(names, QStringList({QStringLiteral("mic_%1_00000_final.m4a").arg(take),
                                     QStringLiteral("sys_%1_00000_final.m4a").arg(take)}));
    }

    // "listen" sends live audio as binary frames (byte 0 or 1, then 16-bit PCM); the heartbeat's
    // levels rise while sound plays; "setMic" switches the device while capture runs.
    void listenLevelsAndMicSwitch()
    {
        send({{"type", "cameras"}, {"on", true}});
        send({{"type", "listen"}, {"on", true}});
        QTRY_VERIFY(rec->running() && rec->listening);
        QVERIFY(!rec->isRecording());
        QVERIFY(PulseFixture::play(QStringLiteral("brava_out"), tone(1.2)));
        QTRY_VERIFY(room->binaries.size() > 20);
        bool mic = false, sys = false;
        for (const QByteArray &frame : room->binaries) {
            QVERIFY(frame.size() > 1 && frame.size() % 2 == 1);
            mic = mic || frame[0] == 0;
            sys = sys || frame[0] == 1;
        }
        QVERIFY(mic && sys);
        QTRY_VERIFY_WITH_TIMEOUT(
            [this] {
                for (const QJsonObject &s : statuses())
                    if (s.value("mic").toDouble() > 0.05 && s.value("sys").toDouble() > 0.05)
                        return true;
                return false;
            }(),
            3000);

        QCOMPARE(rec->micUID(), QStringLiteral("brava_mic"));
        send({{"type", "setMic"}, {"uid", "brava_usbmic"}});
        QTRY_COMPARE(rec->micUID(), QStringLiteral("brava_usbmic"));
        QCOMPARE(Config::micUID(), QStringLiteral("brava_usbmic"));
        QVERIFY(rec->running());
        QVERIFY(home.log().contains("mic: BravaUSBMic"));

        send({{"type", "listen"}, {"on", false}});
        QTRY_VERIFY(!rec->running());
    }
};

QTEST_MAIN(RecorderLinkTest)
#include "tst_recorder_link.moc"
