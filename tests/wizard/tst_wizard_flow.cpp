#include "AppDelegate.h"
#include "Clock.h"
#include "DataFolder.h"
#include "HttpStub.h"
#include "PulseBackend.h"
#include "SyntheticCameraBackend.h"
#include "TestHome.h"
#include "TestRoom.h"

#include <QApplication>
#include <QProcess>
#include <QQuickItem>
#include <QtTest>

using J = QJsonObject;

// A new agent on a fresh home goes through the whole wizard by the screens' own buttons, then
// records a take that reaches the control room. The room is either preset in the build (the name
// and number are checked by the event web service on loopback) or found on the network (announced
// through the Avahi daemon scripts/test runs).
class WizardFlowTest : public QObject
{
    Q_OBJECT
    TestHome home;
    HttpStub web;
    std::unique_ptr<TestRoom> room;
    std::unique_ptr<PulseBackend> audio;
    std::unique_ptr<SyntheticCameraBackend> cameras;
    std::unique_ptr<AppDelegate> app;

    QQuickWindow *window() const { return app->wizardWindow(); }
    // The last visible clickable item with this text or object name (the screen's own comes after
    // the step strip's).
    static QQuickItem *button(QQuickItem *item, const QString &text)
    {
        if (!item->isVisible())
            return nullptr;
        QQuickItem *found = nullptr;
        const bool clickable = item->metaObject()->indexOfSignal("clicked()") >= 0;
        if (clickable && (item->property("text").toString() == text || item->objectName() == text))
            found = item;
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
        return then < 0 || QTest::qWaitFor([&] { return app->wizardModel()->step() == then; }, 5000);
    }

private Q_SLOTS:
    void initTestCase()
    {
        if (qEnvironmentVariableIntValue("BRAVA_TEST_PULSE") != 1)
            QSKIP("needs the test sound server (scripts/test)");
        QQuickWindow::setGraphicsApi(QSGRendererInterface::Software);
        qputenv("BRAVA_FAKE_CAMERAS", "1:320x180@15");
        QVERIFY(web.listen());
    }
    void cleanup()
    {
        app.reset();
        cameras.reset();
        audio.reset();
        room.reset();
    }

    void freshAgentRunsSetupAndRecords_data()
    {
        QTest::addColumn<bool>("preset");
        QTest::newRow("preset room, checked by the list") << true;
        QTest::newRow("room found on the network") << false;
    }
    void freshAgentRunsSetupAndRecords()
    {
        QFETCH(bool, preset);
        QProcess announce;
        room = std::make_unique<TestRoom>();
        home.wipe();
        home.useInfo(preset ? room->address() : QString(), "2.5", "http://" + web.address());
        if (!preset) {
            if (qEnvironmentVariableIntValue("BRAVA_TEST_AVAHI") != 1)
                QSKIP("needs the Avahi daemon of scripts/test");
            announce.start("avahi-publish-service", {"Wizard Room", "_bravacontrol._tcp", QString::number(room->port)});
            QVERIFY(announce.waitForStarted());
        }
        web.requests.clear();
        web.setDefault(HttpStub::status(200, "{\"ok\":true,\"name\":\"Ana LEE\"}")); // check-ins ignore it
        audio = std::make_unique<PulseBackend>();
        cameras = std::make_unique<SyntheticCameraBackend>(SyntheticCameraBackend::Setup{1, {320, 180}, 15});
        app = std::make_unique<AppDelegate>(home.settings(), home.info(), *audio, *cameras, Clock::monotonic());
        app->uploader().tickIntervalMs = 200;
        app->connection().retryMs = 200;
        app->applicationDidFinishLaunching();

        // A fresh home: no link, the wizard at its first screen.
        QVERIFY(app->wizardOpen() && window() && app->wizardModel()->step() == 0 && room->urls.isEmpty());
        QVERIFY(QTest::qWaitForWindowExposed(window()));
        WizardModel &m = *app->wizardModel();
        QVERIFY(click("agree") && click("Get Started", 1));
        m.setNameText("Ana Lee");
        m.setAgentText("17");
        QTRY_COMPARE_WITH_TIMEOUT(m.server(), room->address(), 15000); // preset, or the room found (slow on a busy machine)
        QVERIFY(click("Next", 2));
        const auto verifies = std::count_if(web.requests.cbegin(), web.requests.cend(), [](const HttpStub::Request &r) { return r.url.path().endsWith("/verify"); });
        QCOMPARE(verifies, preset ? 1 : 0);
        QCOMPARE(home.settings().agentName(), QString(preset ? "Ana LEE" : "Ana Lee"));
        // Microphone, computer audio and webcam are allowed here.
        QVERIFY(click("Next", 3) && click("Next", 4) && click("Next", 5));
        // The sound check runs through the recorder; the link came up with the new identity.
        QTRY_VERIFY(m.testing() && app->recorder().running() && !app->recorder().isRecording());
        QTRY_VERIFY(m.connected());
        QVERIFY(room->urls.first().query().startsWith("id=17&"));
        QVERIFY(click("Finish", 6));
        const qsizetype links = room->urls.size();
        QVERIFY(click("Done"));
        QTRY_VERIFY(!app->wizardOpen() && !app->wizardModel());
        QVERIFY(home.settings().setupDone() && home.settings().wizardStep() == 0 && home.settings().agentID() == 17);
        QTRY_VERIFY(room->urls.size() > links && app->connection().connected()); // connected anew

        // Now the control room can record this agent.
        room->send(J{{"type", "cameras"}, {"on", true}});
        room->send(J{{"type", "start"}, {"session", "w1"}});
        QTRY_VERIFY_WITH_TIMEOUT(app->recorder().isRecording(), 10000);
        QTRY_VERIFY(QDir(DataFolder::dir("writing") + "/w1").entryList(QDir::Files).size() >= 2); // tracks are writing
        room->send(J{{"type", "stop"}});
        QTRY_VERIFY_WITH_TIMEOUT(room->uploadPaths.filter("_final").size() >= 2, 20000);
        QVERIFY(room->uploads.first().queryItemValue("session") == "w1");
        announce.terminate();
        announce.waitForFinished(2000);
    }
};

QTEST_MAIN(WizardFlowTest)
#include "tst_wizard_flow.moc"
