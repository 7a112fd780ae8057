#include "AgentParts.h"
#include "Clock.h"
#include "AppDelegate.h"
#include "Config.h"
#include "Connection.h"
#include "ControlRoom.h"
#include "JsonKeys.h"
#include "LoginItem.h"
#include "Reconciler.h"
#include "Recorder.h"
#include "TestHome.h"
#include "TrayView.h"

#include <QApplication>
#include <QJsonDocument>
#include <QJsonObject>
#include <QMenu>
#include <QMessageBox>
#include <QtTest>

// The controller driven the way the agent runs: a real link to a loopback control room, a real
// recorder, commands arriving as JSON text over the socket.
class ControllerTest : public QObject
{
    Q_OBJECT
    TestHome home;
    ControlRoom *room = nullptr;
    Connection *conn = nullptr;
    std::unique_ptr<AgentParts> parts;
    Recorder *rec = nullptr;
    AppDelegate *app = nullptr;

    void launch()
    {
        conn = new Connection(this);
        parts = std::make_unique<AgentParts>();
        rec = new Recorder(parts->audio, *parts->cameras, Clock::monotonic(), this);
        app = new AppDelegate(*rec, *conn, parts->permissions, this);
        app->applicationDidFinishLaunching();
    }

    void send(const QJsonObject &command) { room->sendText(QString::fromUtf8(QJsonDocument(command).toJson())); }

    // Sends a command over the link and waits until the controller has handled it.
    void command(const QJsonObject &c)
    {
        send(c);
        send(QJsonObject{{"type", "quality"}, {"q", QStringLiteral("marker%1").arg(++markers)}});
        QTRY_COMPARE(Config::uploadQuality(), QStringLiteral("marker%1").arg(markers));
    }
    int markers = 0;

    void waitIdle() { QTRY_VERIFY(!app->reconciler().applying()); }

    QStringList statusTexts() const
    {
        QStringList out;
        for (const QString &t : room->texts)
            if (t.contains(QLatin1String("\"type\":\"status\"")))
                out.append(t);
        return out;
    }

private slots:
    void init()
    {
        home.wipe();
        home.useInfo(QString(), QStringLiteral("2.5"));
        room = new ControlRoom(this);
        QVERIFY(room->listen());
        Config::setAgentID(7);
        Config::setAgentName(QStringLiteral("Ana"));
        Config::setServer(room->address());
        Config::setSetupDone(true);
        launch();
        QTRY_VERIFY(conn->connected());
    }
    void cleanup()
    {
        delete app;
        app = nullptr;
        delete rec;
        delete conn;
        delete room;
        for (QWidget *w : QApplication::topLevelWidgets())
            w->deleteLater();
    }

    void launchRegistersLoginItemAndConnects()
    {
        QCOMPARE(room->accepted, 1);
        QFile entry(LoginItem::entryPath());
        QVERIFY(entry.open(QIODevice::ReadOnly));
        const QByteArray text = entry.readAll();
        QVERIFY(text.contains("Exec=\"" + QCoreApplication::applicationFilePath().toUtf8() + "\""));
        QVERIFY(LoginItem::entryPath().startsWith(home.root()));
        // No tray in the offscreen platform: said once, and the menu is kept all the same.
        QCOMPARE(home.log().count(QStringLiteral("no system tray")), 1);
        QCOMPARE(app->tray().menu()->actions().first()->text(), QStringLiteral("Vantorra Recorder · Agent #7"));
    }

    void heartbeatEveryHalfSecondWithOrderedKeys()
    {
        room->texts.clear();
        QTest::qWait(2100);
        const QStringList statuses = statusTexts();
        QVERIFY2(statuses.size() >= 3 && statuses.size() <= 5, qPrintable(QString::number(statuses.size())));
        const QString last = statuses.last();
        QCOMPARE(topLevelJsonKeys(last),
                 (QStringList{"type", "updateBusy", "recording", "live", "mic", "sys", "rate", "cam", "camActive",
                              "camError", "micName", "mics", "cams", "micUID", "camUID", "error"}));
        const QJsonObject o = QJsonDocument::fromJson(last.toUtf8()).object();
        QCOMPARE(o.value("recording").toBool(), false);
        QCOMPARE(o.value("rate").toInt(), 48000);
        QVERIFY(o.value("mic").isDouble());
        QVERIFY(o.value("micName").isString());
        QVERIFY(o.value("mics").isArray());
    }

    void menuRedrawsOnlyWhenStateChanges()
    {
        const int before = app->tray().drawCount();
        for (int i = 0; i < 5; ++i)
            app->tick();
        QCOMPARE(app->tray().drawCount(), before);
        command({{"type", "cameras"}, {"on", true}});
        QCOMPARE(app->tray().drawCount(), before + 1);
        const QStringList titles = [&] {
            QStringList t;
            for (QAction *a : app->tray().menu()->actions())
                t.append(a->text());
            return t;
        }();
        QVERIFY(titles.contains(QStringLiteral("🔵  On a Call")));
        app->tick();
        QCOMPARE(app->tray().drawCount(), before + 1);
    }

    void startRecordsAndTheSameSessionDoesNotRestart()
    {
        command({{"type", "cameras"}, {"on", true}});
        command({{"type", "start"}, {"session", "s1"}});
        waitIdle();
        QVERIFY(rec->isRecording());
        QCOMPARE(rec->session(), std::optional<QString>(QStringLiteral("s1")));
        const int calls = app->reconciler().recorderCalls();
        command({{"type", "start"}, {"session", "s1"}});
        waitIdle();
        QCOMPARE(app->reconciler().recorderCalls(), calls);
        QCOMPARE(home.log().count(QStringLiteral("capture started session=s1")), 1);
        command({{"type", "stop"}});
        waitIdle();
        QVERIFY(!rec->running());
    }

    void listenOnlyRunRestartsIntoASession()
    {
        command({{"type", "cameras"}, {"on", true}});
        command({{"type", "listen"}, {"on", true}});
        waitIdle();
        QVERIFY(rec->running());
        QVERIFY(!rec->session());
        QVERIFY(rec->listening);
        QVERIFY(app->live());
        command({{"type", "start"}, {"session", "s2"}});
        waitIdle();
        QCOMPARE(rec->session(), std::optional<QString>(QStringLiteral("s2")));
        QVERIFY(rec->listening);
        // Stopping the session keeps the listen-only run.
        command({{"type", "stop"}});
        waitIdle();
        QVERIFY(rec->running());
        QVERIFY(!rec->session());
        QVERIFY(home.log().contains(QStringLiteral("capture started session=TEST")));
    }

    void commandsDuringAPassAreFolded()
    {
        command({{"type", "cameras"}, {"on", true}});
        waitIdle();
        int injected = 0;
        app->reconciler().onRecorderCall = [&] {
            // While the pass waits for the recorder, the control room changes its mind twice.
            if (injected++ == 0) {
                app->handle(QJsonObject{{"type", "start"}, {"session", "b"}});
                app->handle(QJsonObject{{"type", "start"}, {"session", "c"}});
            }
        };
        const int calls = app->reconciler().recorderCalls();
        app->handle(QJsonObject{{"type", "start"}, {"session", "a"}});
        waitIdle();
        app->reconciler().onRecorderCall = nullptr;
        // One pass: start a, then (re-reading the wish) restart into c; b is never started.
        QCOMPARE(rec->session(), std::optional<QString>(QStringLiteral("c")));
        QCOMPARE(app->reconciler().recorderCalls(), calls + 2);
        QVERIFY(!home.log().contains(QStringLiteral("session=b")));
    }

    void camerasOffEndsRecordingAndRefusesLiveAndPreview()
    {
        command({{"type", "cameras"}, {"on", true}});
        command({{"type", "start"}, {"session", "s3"}});
        waitIdle();
        QVERIFY(rec->isRecording());
        command({{"type", "cameras"}, {"on", false}});
        waitIdle();
        QVERIFY(!rec->running());
        QVERIFY(!app->reconciler().desiredSession);
        command({{"type", "listen"}, {"on", true}});
        QVERIFY(!app->reconciler().wantListen);
        command({{"type", "preview"}, {"on", true}, {"hd", true}});
        QVERIFY(!rec->previewing);
        QVERIFY(rec->previewHd); // taken regardless
        waitIdle();
        QVERIFY(!rec->running());
    }

    void argumentDefaultsAndMistypedValues()
    {
        Config::setUploadQuality(QStringLiteral("low"));
        send({{"type", "quality"}});
        QTRY_COMPARE(Config::uploadQuality(), QStringLiteral("full"));
        QTRY_VERIFY(home.log().contains(QStringLiteral("upload quality set to full")));
        const int lines = home.log().count(QLatin1Char('\n'));
        app->handle({{"type", "quality"}, {"q", "full"}});
        QCOMPARE(home.log().count(QLatin1Char('\n')), lines);

        command({{"type", "cameras"}, {"on", true}});
        command({{"type", "listen"}, {"on", "yes"}}); // not a boolean: false
        QVERIFY(!app->reconciler().wantListen);
        command({{"type", "start"}, {"session", 42}}); // not a string: no session
        QVERIFY(!app->reconciler().desiredSession);
        rec->setPreviewCamUID(QStringLiteral("cam-x"));
        command({{"type", "setCam"}});
        QCOMPARE(rec->previewCamUID(), QString());
        command({{"type", "setCam"}, {"uid", "cam-y"}});
        QCOMPARE(rec->previewCamUID(), QStringLiteral("cam-y"));
        Config::setMicUID(QStringLiteral("keep"));
        command({{"type", "setMic"}, {"uid", 3}});
        QCOMPARE(Config::micUID(), QStringLiteral("keep"));
        command({{"type", "setMic"}, {"uid", "usb-mic"}});
        QCOMPARE(Config::micUID(), QStringLiteral("usb-mic"));
    }

    void unknownAndMalformedCommandsLeaveNoTrace()
    {
        waitIdle();
        const QString logBefore = home.log();
        const bool camerasBefore = rec->camerasEnabled();
        for (const char *text : {"{\"type\":\"START\",\"session\":\"x\"}", "{\"session\":\"x\"}", "{\"type\":null}",
                                 "{\"type\":\"whisper\",\"text\":\"   \\t\"}", "{\"type\":\"whisper\"}",
                                 "{\"type\":\"launchMissiles\"}", "[{\"type\":\"start\"}]", "{\"type\":\"start\""})
            room->sendText(QString::fromUtf8(text));
        command({{"type", "setCam"}, {"uid", "z"}}); // a known command after the junk still works
        QCOMPARE(rec->previewCamUID(), QStringLiteral("z"));
        QVERIFY(!app->reconciler().desiredSession);
        QCOMPARE(rec->camerasEnabled(), camerasBefore);
        const auto meaningful = [](const QString &log) {
            int n = 0;
            for (const QString &line : log.split(QLatin1Char('\n'), Qt::SkipEmptyParts))
                n += line.contains(QLatin1String("upload quality set to marker")) ? 0 : 1;
            return n;
        };
        QCOMPARE(meaningful(home.log()), meaningful(logBefore));
        QVERIFY(conn->connected());
    }

    void linkDropEndsListeningButNotRecording()
    {
        command({{"type", "cameras"}, {"on", true}});
        command({{"type", "listen"}, {"on", true}});
        command({{"type", "start"}, {"session", "s4"}});
        waitIdle();
        QVERIFY(app->live());
        room->dropAgent();
        QTRY_VERIFY(!conn->connected());
        waitIdle();
        QVERIFY(!app->reconciler().wantListen);
        QVERIFY(!app->live());
        QVERIFY(!rec->listening);
        QVERIFY(rec->isRecording());
        QCOMPARE(rec->session(), std::optional<QString>(QStringLiteral("s4")));
        QTRY_VERIFY_WITH_TIMEOUT(conn->connected(), 5000);
        QTRY_VERIFY(statusTexts().size() > 0 && statusTexts().last().contains("\"recording\":true,\"live\":false"));
    }

    void releaseFreesTheNumberAtOnce()
    {
        command({{"type", "cameras"}, {"on", true}});
        command({{"type", "start"}, {"session", "s5"}});
        waitIdle();
        send({{"type", "release"}});
        QTRY_COMPARE(Config::agentID(), 0);
        QCOMPARE(Config::setupDone(), false);
        QVERIFY(!conn->connected());
        QVERIFY(home.log().contains(QStringLiteral("setup needed")));
        QTRY_VERIFY(!rec->running());
        QVERIFY(!app->reconciler().desiredSession);
        QTest::qWait(2500);
        QCOMPARE(room->accepted, 1); // no reconnection
        QCOMPARE(app->tray().menu()->actions().first()->text(), QStringLiteral("Vantorra Recorder · Agent #0"));
        // With setup not done, wishes are stored but not carried out.
        app->handle(QJsonObject{{"type", "start"}, {"session", "late"}});
        QTest::qWait(100);
        QVERIFY(!rec->running());
        QVERIFY(!app->reconciler().applying());
    }

    void replacedShowsTheAlertAndStaysDown()
    {
        send({{"type", "replaced"}});
        QTRY_VERIFY(conn->replaced());
        QMessageBox *box = nullptr;
        QTRY_VERIFY((box = [] {
            for (QWidget *w : QApplication::topLevelWidgets())
                if (auto *b = qobject_cast<QMessageBox *>(w); b && b->isVisible())
                    return b;
            return static_cast<QMessageBox *>(nullptr);
        }()));
        QCOMPARE(box->text(), QStringLiteral("Agent #7 is being used on another computer"));
        QCOMPARE(box->informativeText(), QStringLiteral("Run setup again and check your agent number."));
        QCOMPARE(app->tray().menu()->actions().at(1)->text(), QStringLiteral("⚠ Agent number in use on another computer"));
        room->dropAgent();
        QTRY_VERIFY(!conn->connected());
        QTest::qWait(2500);
        QCOMPARE(room->accepted, 1);
        QCOMPARE(Config::agentID(), 7); // the number stays stored
    }

    void callToggleAndEvents()
    {
        command({{"type", "cameras"}, {"on", true}});
        QVERIFY(!app->onCall());
        app->toggleCall();
        QVERIFY(app->onCall());
        QVERIFY(app->updateBusy());
        QCOMPARE(app->tray().menu()->actions().at(3)->text(), QStringLiteral("⏹  End the Call"));
        QVERIFY(app->tray().hasCallItem());
        // Cameras switched off mid-call hide the call controls in the menu, but the call item
        // stays until the call ends: it is the way to end it.
        command({{"type", "cameras"}, {"on", false}});
        QTRY_VERIFY(!app->tray().menu()->actions().at(3)->text().contains(QStringLiteral("Call")));
        QVERIFY(app->onCall());
        QVERIFY(app->tray().hasCallItem());
        app->toggleCall();
        QVERIFY(!app->onCall());
        QVERIFY(!app->tray().hasCallItem());
    }
};

QTEST_MAIN(ControllerTest)
#include "tst_controller.moc"
