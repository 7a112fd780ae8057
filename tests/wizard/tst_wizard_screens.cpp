#include "HttpStub.h"
#include "TestHome.h"
#include "WizardParts.h"
#include "WizardWindow.h"

#include <QQuickItem>
#include <QQuickWindow>
#include <QtTest>

// Each screen of the wizard in each state that looks different, drawn by the real QML over a
// model on real parts, checked for its texts and kept as a PNG in <build>/wizard-screens/.
class WizardScreensTest : public QObject
{
    Q_OBJECT
    TestHome home;
    HttpStub web;
    HttpStub room;
    QString shots;

    // Texts of the visible items of the window.
    static QStringList texts(QQuickItem *item)
    {
        QStringList out;
        if (!item->isVisible())
            return out;
        const QVariant t = item->property("text");
        if (t.isValid() && !t.toString().isEmpty())
            out.append(t.toString());
        const QVariant p = item->property("placeholderText");
        if (p.isValid() && !p.toString().isEmpty() && t.toString().isEmpty())
            out.append(p.toString());
        for (QQuickItem *child : item->childItems())
            out += texts(child);
        return out;
    }

private Q_SLOTS:
    void initTestCase()
    {
        QQuickWindow::setGraphicsApi(QSGRendererInterface::Software);
        QVERIFY(web.listen() && room.listen());
        shots = qEnvironmentVariable("BRAVA_TEST_BINARY_DIR", QDir::currentPath()) + "/wizard-screens";
        QVERIFY(QDir().mkpath(shots));
    }

    void screen_data()
    {
        // setup: words that put the model into the state (see below); shows: texts on screen.
        QTest::addColumn<QString>("setup");
        QTest::addColumn<QStringList>("shows");
        QTest::newRow("0-welcome") << "step=0" << QStringList{"Welcome, Agent.", "Records only when the control room starts recording"};
        QTest::newRow("0-welcome-agreed") << "step=0 agree" << QStringList{"Get Started"};
        QTest::newRow("1-number-searching") << "step=1" << QStringList{"WHO ARE YOU?", "Searching your Wi-Fi for the control room…", "First and last name", "e.g. 17"};
        QTest::newRow("1-number-room-found") << "step=1 room identity" << QStringList{"Using control room: 127.0.0.1:", "Enter address manually"};
        QTest::newRow("1-number-preset") << "step=1 locked identity" << QStringList{"Connects to your control room automatically.", "Your name, and the agent number you got at check-in (1–110)."};
        QTest::newRow("1-number-verifying") << "step=1 locked identity verifying" << QStringList{"CHECKING…"};
        QTest::newRow("1-number-error") << "step=1 locked identity refused" << QStringList{"That name and number don't match our list. Double-check your agent number."};
        QTest::newRow("2-mic-allowed") << "step=2" << QStringList{"Allow Your Microphone", "Microphone allowed", "Next"};
        QTest::newRow("2-mic-not-allowed") << "step=2 access=unknown" << QStringList{"Not allowed yet", "Allow Microphone"};
        QTest::newRow("2-mic-no-server") << "step=2 access=unknown askMic" << QStringList{"No sound server answers on this computer", "pulseaudio --start", "Ask Again"};
        QTest::newRow("2-mic-blocked") << "step=2 access=refused" << QStringList{"The microphone was blocked. To fix it:", "Restart App", "Ask Again"};
        QTest::newRow("3-audio-allowed") << "step=3" << QStringList{"Allow Computer Audio", "Computer audio allowed"};
        QTest::newRow("3-audio-not-asked") << "step=3 monitor=none" << QStringList{"Not allowed yet", "Allow Computer Audio"};
        QTest::newRow("3-audio-asked") << "step=3 monitor=none asked" << QStringList{"Check Again", "Restart App"};
        QTest::newRow("3-audio-blocked") << "step=3 access=refused" << QStringList{"Ask Again"};
        QTest::newRow("4-camera-allowed") << "step=4" << QStringList{"Allow Your Webcam", "Webcam allowed", "Automatic (best guess)", "Skip — no camera"};
        QTest::newRow("4-camera-blocked") << "step=4 camera=denied" << QStringList{"The webcam was blocked. To fix it:", "Allow Webcam"};
        QTest::newRow("4-camera-none") << "step=4 camera=none" << QStringList{"No webcam detected on this computer — that's okay, your audio still records. Plug one in before the event if you'd like to be on camera."};
        QTest::newRow("5-test-connected") << "step=5 identity levels connected" << QStringList{"Quick Sound Check", "Connected to control room as Agent #17", "Heard", "Ready"};
        QTest::newRow("5-test-not-connected") << "step=5" << QStringList{"Not connected to control room — check Wi-Fi", "Skip test", "Finish"};
        QTest::newRow("6-done") << "step=6" << QStringList{"You're In.", "round icon with sound bars", "Done"};
    }
    void screen()
    {
        QFETCH(QString, setup);
        QFETCH(QStringList, shows);
        const QStringList words = setup.split(QLatin1Char(' '));
        const auto has = [&](const char *w) { return words.contains(QLatin1String(w)); };
        home.wipe();
        home.useInfo(has("locked") ? "127.0.0.1:1" : QString(), "2.5", "http://" + web.address());
        const int step = words.first().section(QLatin1Char('='), 1).toInt();
        home.settings().setWizardStep(step);
        home.settings().setWizardFurthest(step);
        if (has("identity")) {
            home.settings().setAgentID(17);
            home.settings().setAgentName("Ana Lee");
        }
        WizardParts p(home, has("camera=none") ? 0 : 1, has("camera=denied") ? CameraAccess::Status::Denied : CameraAccess::Status::Authorized);
        p.audio.accessAnswer = has("access=unknown") ? AudioBackend::Access::Unknown
                             : has("access=refused") ? AudioBackend::Access::Refused : AudioBackend::Access::Allowed;
        if (has("monitor=none"))
            p.audio.monitor.reset();
        WizardModel m(p.parts());
        m.refreshPermissions();
        m.setAgree(has("agree"));
        if (has("asked"))
            m.askScreen();
        if (has("askMic"))
            m.askMic();
        if (has("room"))
            p.browser->announce("Room One", room.port());
        web.script({has("verifying") ? HttpStub::hang() : HttpStub::status(200, "{\"ok\":false}")});
        if (has("verifying") || has("refused"))
            m.verifyAndSave();
        WizardWindow w(m);
        QVERIFY(w.loaded());
        w.show();
        QVERIFY(QTest::qWaitForWindowExposed(&w));
        if (has("levels")) {
            QTRY_VERIFY(m.testing()); // the screen started the sound check
            m.tick(0.2f, 0.05f, has("connected"));
        }
        if (has("refused"))
            QTRY_VERIFY(m.hasVerifyError());
        QTRY_VERIFY(!has("room") || !m.server().isEmpty());
        for (const QString &text : shows)
            QTRY_VERIFY2(texts(w.rootObject()).filter(text).size() >= 1, qPrintable(text + " in " + texts(w.rootObject()).join(QLatin1Char('|'))));
        QVERIFY(w.grabWindow().save(shots + QLatin1Char('/') + QLatin1String(QTest::currentDataTag()) + ".png"));
        web.release(HttpStub::status(200));
    }
};

QTEST_MAIN(WizardScreensTest)
#include "tst_wizard_screens.moc"
