#include "AgentFixture.h"
#include "CheckIn.h"
#include "Connection.h"
#include "DataFolder.h"
#include "HttpStub.h"
#include "Permissions.h"
#include "Recorder.h"
#include "ScriptedBrowser.h"
#include "SyntheticAudioBackend.h"
#include "TestDisplay.h"
#include "TestLiterals.h"
#include "WizardModel.h"
#include "WizardWindow.h"

#include <QQuickItem>
#include <QQuickWindow>
#include <QtTest>

// The parts a wizard model works with, on a synthetic sound system and camera.
struct WizardParts
{
    /// With this many cameras, and camera access as given.
    explicit WizardParts(TestHome &home, int cameraCount = 1, CameraAccess::Status camAccess = CameraAccess::Status::Authorized)
        : home(home), cameras({cameraCount, {160, 90}, 10}), permissions(audio, [camAccess] { return camAccess; })
    {
    }

    TestHome &home;
    SyntheticAudioBackend audio;
    SyntheticCameraBackend cameras;
    QNetworkAccessManager net;
    Connection conn{home.settings(), home.info()};
    Permissions permissions;
    ScriptedBrowser *browser = new ScriptedBrowser;
    RoomDiscovery discovery{net, std::unique_ptr<ServiceBrowser>(browser)};
    Recorder rec{audio, cameras, Clock::monotonic()};

    WizardModel::Parts parts() { return {rec, permissions, conn, discovery, net, home.settings(), home.info()}; }
};

// The setup wizard: the model's rules over real parts (settings in a throw-away home, a recorder on
// a synthetic sound system, the event web service as an HTTP server on loopback); each screen in
// each state that looks different, drawn by the real QML, checked for its texts and kept as a PNG
// in <build>/wizard-screens/; and a new agent on a fresh home through the whole wizard by the
// screens' own buttons, then a take that reaches the control room (the build locked to the room,
// the name and number checked by the event web service).
class WizardTest : public QObject
{
    Q_OBJECT
    TestHome home;
    HttpStub web;
    HttpStub room; // a room announced on the network
    std::unique_ptr<WizardParts> p;
    std::unique_ptr<WizardModel> m;
    std::unique_ptr<AgentFixture> f; // the whole agent, for the flow

    void make()
    {
        m.reset();
        m = std::make_unique<WizardModel>(p->parts());
        QCOMPARE(std::exchange(m->verifyTimeoutMs, 500), 15000); // shortened from the real one
    }
    QQuickWindow *window() const { return f->app->wizardWindow(); }
    // Texts of the visible items of the window, "-" before those that cannot be used.
    static QStringList texts(QQuickItem *item)
    {
        QStringList out;
        if (!item->isVisible())
            return out;
        const QString t = item->property("text").toString(), placeholder = item->property("placeholderText").toString();
        if (!t.isEmpty() || !placeholder.isEmpty())
            out.append((item->isEnabled() ? QString() : QStringLiteral("-")) + (t.isEmpty() ? placeholder : t));
        for (QQuickItem *child : item->childItems())
            out += texts(child);
        return out;
    }

    // The last visible clickable item with this text or object name (the screen's own comes after
    // the step strip's).
    static QQuickItem *button(QQuickItem *item, const QString &text)
    {
        if (!item->isVisible())
            return nullptr;
        const bool clickable = item->metaObject()->indexOfSignal("clicked()") >= 0;
        QQuickItem *found = clickable && (item->property("text").toString() == text || item->objectName() == text) ? item : nullptr;
        for (QQuickItem *child : item->childItems())
            if (QQuickItem *inner = button(child, text))
                found = inner;
        return found;
    }
    // Clicks the visible button with this text (or object name) once it can be clicked, then
    // waits for the wizard to be at step `then` (-1: no wait).
    bool click(const QString &text, int then = -1)
    {
        QQuickItem *b = nullptr;
        if (!QTest::qWaitFor([&] { return (b = button(window()->contentItem(), text)) && b->isEnabled(); }, 10000))
            return false;
        QTest::mouseClick(window(), Qt::LeftButton, {}, b->mapToScene(QPointF(b->width() / 2, b->height() / 2)).toPoint());
        return then < 0 || QTest::qWaitFor([&] { return f->app->wizardModel()->step() == then; }, 5000);
    }

private Q_SLOTS:
    void initTestCase()
    {
        QQuickWindow::setGraphicsApi(QSGRendererInterface::Software);
        QVERIFY(web.listen() && room.listen());
    }
    void init()
    {
        cleanup(); // (called again inside the tables: each row on its own parts)
        home.wipe();
        home.useInfo(QString());
        web.requests.clear();
        p = std::make_unique<WizardParts>(home);
        make();
    }
    void cleanup()
    {
        f.reset();
        m.reset();
        p.reset();
    }

    // The agent number typed, the steps where the agent is and how far it got (surviving the model,
    // and the process), the sound check's thresholds, latched, and the steps that end its run.
    void numberStepsAndTheSoundCheck()
    {
        for (const auto &[text, id] : {std::pair{"0", 0}, {"111", 0}, {"abc", 0}, {"", 0}, {" 7", 0}, {"-7", 0}, {"110", 110}, {"+7", 7}, {"1", 1},
                                       {"7a", 0}, {"99999999999999999999", 0}})
            QVERIFY2(WizardModel::parseAgentID(QString::fromLatin1(text)).value_or(0) == id, text);
        QCOMPARE(m->step(), 0);
        m->back();
        QCOMPARE(m->step(), 0);
        m->setStep(3);
        QCOMPARE(m->furthest(), 3);
        m->go(5);
        QCOMPARE(m->step(), 3);
        m->go(2);
        QVERIFY(m->step() == 2 && m->furthest() == 3);
        m->back();
        QSignalSpy trayChanges(m.get(), &WizardModel::trayAvailableChanged); // a tray host may come or go during setup
        m->setTrayAvailable(false);
        m->setTrayAvailable(false);
        QVERIFY(trayChanges.size() == 1 && !m->trayAvailable());
        make();
        QVERIFY(m->step() == 1 && m->furthest() == 3);
        m->go(3);
        QCOMPARE(home.settings().wizardStep(), 3);
        bool relaunched = false; // "Restart App": the agent comes back at the step it left
        m->onRelaunch = [&] { relaunched = true; };
        m->relaunch(2);
        QVERIFY(relaunched && home.settings().wizardStep() == 2 && home.log().contains(QStringLiteral("setup restarts the agent at step 2")));
        for (const auto &[testing, mic, sys, heard] : {std::tuple{true, 0.01f, 0.003f, false}, {true, 0.011f, 0.0031f, true}, {false, 0.5f, 0.5f, false}}) {
            init(); // at both thresholds, just above, outside a test
            if (testing)
                m->startTest();
            m->tick(mic, sys, true);
            QVERIFY(m->micHeard() == heard && m->sysHeard() == heard);
            m->tick(0, 0, true); // latched
            QCOMPARE(m->micHeard(), heard);
        }
        // The sound check's run ends when the agent leaves the camera step, not the test step.
        for (const auto &[from, to, stillTesting] : {std::tuple{4, 5, false}, {4, 3, false}, {5, 6, true}, {5, 4, true}}) {
            init();
            m->setStep(from);
            m->startTest();
            QTRY_VERIFY(p->rec.running());
            m->startTest(); // a second start while one runs does nothing
            m->setStep(to);
            QCOMPARE(m->testing(), stillTesting);
            QTRY_COMPARE(p->rec.running(), stillTesting);
        }
    }

    // answer: "hang" is no answer in time, none is no preset room, "none" a preset room with no event
    // web service; error: none is saved and moved on.
    void verifyAnswers()
    {
        const QString mismatch = WizardModel::mismatchText(), unreachable = WizardModel::unreachableText();
        const QString badWeb = QStringLiteral("This copy of Brava Recorder was built with a wrong event web service address (“127.0.0.1:1/api”): ask the event's IT for a corrected build.");
        const struct { const char *name; QByteArray answer; QString error, savedName; } rows[] = {
            {"no preset room: saved unasked", {}, {}, QStringLiteral("Ana Lee")},
            {"no web service: no list, saved unasked", "none", {}, QStringLiteral("Ana Lee")},
            {"web service address without http://: said, not asked", "bad", badWeb, QStringLiteral("Ana Lee")},
            {"ok, list spelling wins", "{\"ok\":true,\"name\":\"Ana  LEE\"}", {}, QStringLiteral("Ana  LEE")},
            {"ok, blank name", "{\"ok\":true,\"name\":\"   \"}", {}, QStringLiteral("Ana Lee")},
            {"ok as text is no ok", "{\"ok\":\"true\"}", mismatch, QStringLiteral("Ana Lee")},
            {"refused with message", "{\"ok\":false,\"message\":\"Number 7 is Bo's\"}", QStringLiteral("Number 7 is Bo's"), QStringLiteral("Ana Lee")},
            {"refused without message", "{\"ok\":false}", mismatch, QStringLiteral("Ana Lee")},
            {"long message is cut", "{\"message\":\"" + QByteArray(5000, 'x') + "\"}", QString(200, QLatin1Char('x')), QStringLiteral("Ana Lee")},
            {"not JSON", "<html>busy</html>", unreachable, QStringLiteral("Ana Lee")},
            {"JSON array", "[true]", unreachable, QStringLiteral("Ana Lee")},
            {"time-out", "hang", unreachable, QStringLiteral("Ana Lee")}};
        for (const auto &[row, answer, error, name] : rows) {
            init();
            const bool asks = !answer.isEmpty() && answer != "none" && answer != "bad";
            if (!answer.isEmpty()) // a build with a preset control room and this web service, a broken one or none
                home.useInfo(QStringLiteral("127.0.0.1:1"), QStringLiteral("2.5"),
                             asks ? QLatin1String("http://") + web.address() : answer == "bad" ? QStringLiteral("127.0.0.1:1/api") : QString());
            make();
            m->setStep(1);
            for (const auto &[typedName, number] : {std::pair{"Ana", "0"}, {" \t", "17"}}) { // an incomplete identity does nothing
                m->setNameText(QString::fromUtf8(typedName));
                m->setAgentText(QString::fromUtf8(number));
                m->verifyAndSave();
                QVERIFY(m->step() == 1 && !m->verifying());
            }
            m->setNameText(QStringLiteral("Ana Lee"));
            m->setAgentText(QStringLiteral("+17"));
            if (asks) // the status code does not matter; only the body does
                web.script({answer == "hang" ? HttpStub::hang() : HttpStub::status(500, answer)});
            m->verifyAndSave();
            QCOMPARE(m->verifying(), asks);
            m->verifyAndSave(); // no second request while one is in flight
            QTRY_VERIFY(!m->verifying());
            QVERIFY2(m->verifyErrorText() == error && m->nameText() == name, row);
            QVERIFY2(error.isEmpty() || home.log().contains(error == unreachable ? QStringLiteral("agent check failed: ") : error == badWeb ? QStringLiteral("agent check impossible: ") + error : QStringLiteral("agent check refused: ") + error), row);
            QVERIFY2(m->step() == (error.isEmpty() ? 2 : 1) && home.settings().agentID() == (error.isEmpty() ? 17 : 0), row);
            QCOMPARE(web.requests.size(), asks ? 1 : 0);
            if (!asks)
                continue;
            const HttpStub::Request &r = web.requests.first();
            QVERIFY(r.method == "POST" && r.url.path() == QLatin1String(WizardModel::kVerifyPath));
            QCOMPARE(r.headers.value("content-type"), QByteArray("application/json"));
            const QJsonObject sent = QJsonDocument::fromJson(r.body).object();
            QVERIFY(sent.value(QStringLiteral("number")) == QJsonValue(17) && sent.value(QStringLiteral("name")) == QJsonValue(QStringLiteral("Ana Lee")) && sent.value(QStringLiteral("token")) == QJsonValue(QString::fromLatin1(CheckIn::token)));
            web.release(HttpStub::status(200));
        }
    }

    // Each screen in each state that looks different, kept as <name>.png: setup holds words that put
    // the model into the state (see below); shows, texts on the screen.
    void screen()
    {
        const struct { const char *name, *setup; QStringList shows; } rows[] = {
            {"0-welcome", "step=0", strings({"Welcome, Agent.", "Records only when the control room starts recording", "-Get Started"})},
            {"0-welcome-agreed", "step=0 agree", strings({"Get Started"})},
            {"1-number-searching", "step=1", strings({"WHO ARE YOU?", "Searching your Wi-Fi for the control room…", "First and last name", "e.g. 17"})},
            {"1-number-room-found", "step=1 room identity", strings({"Using control room: 127.0.0.1:", "Enter address manually"})},
            {"1-number-bad-address", "step=1 badAddress", strings({"“my room” is not a control-room address: type it as the control room shows it, such as 192.168.1.10:4777."})},
            {"1-number-preset", "step=1 locked identity", strings({"Connects to your control room automatically.", "Your name, and the agent number you got at check-in (1–110)."})},
            {"1-number-verifying", "step=1 locked identity verifying", strings({"CHECKING…"})},
            {"1-number-error", "step=1 locked identity refused", strings({"That name and number don't match our list. Double-check your agent number."})},
            {"2-mic-allowed", "step=2", strings({"Allow Your Microphone", "Microphone allowed", "Next"})},
            {"2-mic-not-allowed", "step=2 access=unknown", strings({"Not allowed yet", "Allow Microphone"})},
            {"2-mic-no-server", "step=2 access=unknown askMic", strings({"No sound server answers on this computer", "pulseaudio --start", "Ask Again"})},
            {"2-mic-blocked", "step=2 access=refused", strings({"The microphone was blocked. To fix it:", "Restart App", "Ask Again"})},
            {"3-audio-allowed", "step=3", strings({"Allow Computer Audio", "Computer audio allowed"})},
            {"3-audio-not-asked", "step=3 monitor=none", strings({"Not allowed yet", "Allow Computer Audio"})},
            {"3-audio-asked", "step=3 monitor=none asked", strings({"Check Again", "Restart App"})},
            {"3-audio-blocked", "step=3 access=refused", strings({"Ask Again"})},
            {"4-camera-allowed", "step=4", strings({"Allow Your Webcam", "Webcam allowed", "Automatic (best guess)", "Skip — no camera"})},
            {"4-camera-blocked", "step=4 camera=denied", strings({"The webcam was blocked. To fix it:", "Allow Webcam"})},
            {"4-camera-none", "step=4 camera=none", strings({"No webcam detected on this computer — that's okay, your audio still records. Plug one in before the event if you'd like to be on camera."})},
            {"5-test-connected", "step=5 identity levels connected", strings({"Quick Sound Check", "Connected to control room as Agent #17", "Heard", "Ready"})},
            {"5-test-not-connected", "step=5", strings({"Not connected to control room — check Wi-Fi", "Skip test", "Finish"})},
            {"6-done", "step=6", strings({"You're In.", "runs quietly in your system tray", "a red dot while you are recorded", "Done"})},
            {"6-done-no-tray", "step=6 noTray", strings({"in the background", "Your desktop has no system tray: Brava Recorder's panel appears", "Right-click the panel"})}};
        for (const auto &[name, setup, shows] : rows) {
            const QStringList words = QString::fromLatin1(setup).split(QLatin1Char(' '));
            const auto has = [&](const char *w) { return words.contains(QLatin1String(w)); };
            cleanup(); // each state on its own parts
            home.wipe();
            home.useInfo(has("locked") ? QStringLiteral("127.0.0.1:1") : QString(), QStringLiteral("2.5"), QLatin1String("http://") + web.address());
            const int step = words.first().section(QLatin1Char('='), 1).toInt();
            home.settings().setWizardStep(step);
            home.settings().setWizardFurthest(step);
            if (has("identity")) {
                home.settings().setAgentID(17);
                home.settings().setAgentName(QStringLiteral("Ana Lee"));
            }
            WizardParts parts(home, has("camera=none") ? 0 : 1, has("camera=denied") ? CameraAccess::Status::Denied : CameraAccess::Status::Authorized);
            parts.audio.accessAnswer = has("access=unknown") ? AudioBackend::Access::Unknown
                                 : has("access=refused") ? AudioBackend::Access::Refused : AudioBackend::Access::Allowed;
            if (has("monitor=none")) parts.audio.monitor.reset();
            WizardModel::Parts modelParts = parts.parts();
            modelParts.trayAvailable = !has("noTray");
            WizardModel model(modelParts);
            model.refreshPermissions();
            model.setAgree(has("agree"));
            if (has("asked")) model.askScreen();
            if (has("badAddress")) model.setServer(QStringLiteral("my room"));
            if (has("askMic")) model.askMic();
            if (has("room")) parts.browser->announce(QStringLiteral("Room One"), room.port());
            if (has("verifying") || has("refused")) {
                web.script({has("verifying") ? HttpStub::hang() : HttpStub::status(200, "{\"ok\":false}")});
                model.verifyAndSave();
            }
            WizardWindow w(model);
            QVERIFY(w.loaded());
            w.show();
            QVERIFY(QTest::qWaitForWindowExposed(&w));
            if (has("levels")) {
                QTRY_VERIFY(model.testing()); // the screen started the sound check
                model.tick(0.2f, 0.05f, has("connected"));
            }
            if (has("refused")) QTRY_VERIFY(model.hasVerifyError());
            QTRY_VERIFY(!has("room") || !model.server().isEmpty());
            const QString chosen = model.server();
            model.chooseRoom(has("room") ? 1 : 0); // past the list of rooms: nothing changes
            QCOMPARE(model.server(), chosen);
            for (const QString &text : shows)
                QTRY_VERIFY2(texts(w.rootObject()).filter(text).size() >= 1, qPrintable(text + QLatin1String(" in ") + texts(w.rootObject()).join(QLatin1Char('|'))));
            const QStringList steps = WizardModel::stepNames(); // the strip leads up to the furthest step, no further
            QVERIFY2(step == 6 || texts(w.rootObject()).join(u'|').contains(steps[step] + u'|' + steps[step] + QStringLiteral("|-") + steps[step + 1]), name);
            QVERIFY(w.grabWindow().save(TestDisplay::pictures("wizard-screens") + QLatin1Char('/') + QLatin1String(name) + QLatin1String(".png")));
            QTRY_COMPARE(web.hanging(), has("verifying") ? 1 : 0); // its check arrived, to be let go
            web.release(HttpStub::status(200));
        }
    }

    void freshAgentRunsSetupAndRecords()
    {
        if (qEnvironmentVariableIntValue("BRAVA_TEST_PULSE") != 1)
            QSKIP("needs the test sound server (scripts/test)");
        cleanup();
        qputenv("BRAVA_FAKE_CAMERAS", "1:320x180@15");
        web.setDefault(HttpStub::status(200, "{\"ok\":true,\"name\":\"Ana LEE\"}")); // check-ins ignore it
        f = std::make_unique<AgentFixture>(home, nullptr, QLatin1String("http://") + web.address(), Clock::monotonic(), true);

        // A fresh home: no link, the wizard at its first screen.
        QVERIFY(f->app->wizardOpen() && window() && f->app->wizardModel()->step() == 0 && f->room.urls.isEmpty() && QTest::qWaitForWindowExposed(window()));
        WizardModel &m = *f->app->wizardModel();
        QVERIFY(click(QStringLiteral("agree")) && click(QStringLiteral("Get Started"), 1));
        m.setNameText(QStringLiteral("Ana Lee"));
        m.setAgentText(QStringLiteral("17"));
        QCOMPARE(m.server(), f->room.address());
        // Enter in the number goes on as Next does.
        QQuickItem *number = window()->contentItem()->findChild<QQuickItem *>(QStringLiteral("number"));
        QVERIFY(number);
        number->forceActiveFocus();
        QTest::keyClick(window(), Qt::Key_Return);
        QTRY_COMPARE(m.step(), 2);
        const auto verifies = std::count_if(web.requests.cbegin(), web.requests.cend(), [](const HttpStub::Request &r) { return r.url.path().endsWith(QStringLiteral("/verify")); });
        QVERIFY(verifies == 1 && home.settings().agentName() == QStringLiteral("Ana LEE"));
        // Microphone, computer audio and webcam are allowed here.
        QVERIFY(click(QStringLiteral("Next"), 3) && click(QStringLiteral("Next"), 4) && click(QStringLiteral("Next"), 5));
        // The sound check runs through the recorder; the link came up with the new identity.
        QTRY_VERIFY(m.testing() && f->app->recorder().running() && !f->app->recorder().isRecording() && m.connected());
        QVERIFY(f->room.urls.first().query().startsWith(QStringLiteral("id=17&")));
        QVERIFY(click(QStringLiteral("Finish"), 6));
        const qsizetype links = f->room.urls.size();
        QVERIFY(click(QStringLiteral("Done")));
        QTRY_VERIFY(!f->app->wizardOpen() && !f->app->wizardModel());
        QVERIFY(home.settings().setupDone() && home.settings().wizardStep() == 0 && home.settings().agentID() == 17);
        QTRY_VERIFY(f->room.urls.size() > links && f->app->connection().connected()); // connected anew

        // Now the control room can record this agent.
        f->room.send(J{{"type", "cameras"}, {"on", true}});
        f->room.send(J{{"type", "start"}, {"session", "w1"}});
        QTRY_VERIFY_WITH_TIMEOUT(f->app->recorder().isRecording(), 10000);
        QTRY_VERIFY(QDir(DataFolder::dir(QStringLiteral("writing")) + QLatin1String("/w1")).entryList(QDir::Files).size() >= 2); // tracks are writing
        f->room.send(J{{"type", "stop"}});
        QTRY_VERIFY_WITH_TIMEOUT(f->room.uploadPaths.filter(QStringLiteral("_final")).size() >= 2, 20000);
        QVERIFY(f->room.uploads.first().queryItemValue(QStringLiteral("session")) == QStringLiteral("w1"));
    }
};

QTEST_MAIN(WizardTest)
#include "tst_wizard.moc"
