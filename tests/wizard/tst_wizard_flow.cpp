#include "AgentFixture.h"
#include "DataFolder.h"
#include "HttpStub.h"

#include <QQuickItem>
#include <QtTest>

using J = QJsonObject;

// A new agent on a fresh home goes through the whole wizard by the screens' own buttons, then
// records a take that reaches the control room. The build is locked to the room; the name and
// number are checked by the event web service on loopback. (A room found on the network is
// tst_wizard_screens' and tst_room_discovery's.)
class WizardFlowTest : public QObject
{
    Q_OBJECT
    TestHome home;
    HttpStub web;
    std::unique_ptr<AgentFixture> f;

    QQuickWindow *window() const { return f->app->wizardWindow(); }
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
        return then < 0 || QTest::qWaitFor([&] { return f->app->wizardModel()->step() == then; }, 5000);
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
    void cleanup() { f.reset(); }

    void freshAgentRunsSetupAndRecords()
    {
        web.setDefault(HttpStub::status(200, "{\"ok\":true,\"name\":\"Ana LEE\"}")); // check-ins ignore it
        f = std::make_unique<AgentFixture>(home, nullptr, "http://" + web.address(), Clock::monotonic(), true);

        // A fresh home: no link, the wizard at its first screen.
        QVERIFY(f->app->wizardOpen() && window() && f->app->wizardModel()->step() == 0 && f->room.urls.isEmpty());
        QVERIFY(QTest::qWaitForWindowExposed(window()));
        WizardModel &m = *f->app->wizardModel();
        QVERIFY(click("agree") && click("Get Started", 1));
        m.setNameText("Ana Lee");
        m.setAgentText("17");
        QCOMPARE(m.server(), f->room.address());
        QVERIFY(click("Next", 2));
        const auto verifies = std::count_if(web.requests.cbegin(), web.requests.cend(), [](const HttpStub::Request &r) { return r.url.path().endsWith("/verify"); });
        QCOMPARE(verifies, 1);
        QCOMPARE(home.settings().agentName(), QStringLiteral("Ana LEE"));
        // Microphone, computer audio and webcam are allowed here.
        QVERIFY(click("Next", 3) && click("Next", 4) && click("Next", 5));
        // The sound check runs through the recorder; the link came up with the new identity.
        QTRY_VERIFY(m.testing() && f->app->recorder().running() && !f->app->recorder().isRecording());
        QTRY_VERIFY(m.connected());
        QVERIFY(f->room.urls.first().query().startsWith("id=17&"));
        QVERIFY(click("Finish", 6));
        const qsizetype links = f->room.urls.size();
        QVERIFY(click("Done"));
        QTRY_VERIFY(!f->app->wizardOpen() && !f->app->wizardModel());
        QVERIFY(home.settings().setupDone() && home.settings().wizardStep() == 0 && home.settings().agentID() == 17);
        QTRY_VERIFY(f->room.urls.size() > links && f->app->connection().connected()); // connected anew

        // Now the control room can record this agent.
        f->room.send(J{{"type", "cameras"}, {"on", true}});
        f->room.send(J{{"type", "start"}, {"session", "w1"}});
        QTRY_VERIFY_WITH_TIMEOUT(f->app->recorder().isRecording(), 10000);
        QTRY_VERIFY(QDir(DataFolder::dir("writing") + "/w1").entryList(QDir::Files).size() >= 2); // tracks are writing
        f->room.send(J{{"type", "stop"}});
        QTRY_VERIFY_WITH_TIMEOUT(f->room.uploadPaths.filter("_final").size() >= 2, 20000);
        QVERIFY(f->room.uploads.first().queryItemValue("session") == "w1");
    }
};

QTEST_MAIN(WizardFlowTest)
#include "tst_wizard_flow.moc"
