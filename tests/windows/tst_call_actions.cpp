#include "AgentActions.h"
#include "AgentEvents.h"
#include "AgentFixture.h"
#include "DisplayPlatform.h"
#include "HttpStub.h"
#include "ReviewWindow.h"
#include "SaleForm.h"
#include "SaleWidget.h"
#include "TestLiterals.h"
#include "TrayView.h"

#include <QContextMenuEvent>
#include <QLineEdit>
#include <QMenu>
#include <QNetworkAccessManager>
#include <QPushButton>
#include <QSystemTrayIcon>
#include <QtTest>

// The call actions and the events they post, and the sale widget as the only way in on a desktop
// without a tray (and, without an X server, no widget and a status that says why).
class CallActionsTest : public QObject
{
    Q_OBJECT
    TestHome home;
    QNetworkAccessManager net;
    HttpStub room;
    qint64 nowMs = 1000000;

    QStringList events() const
    {
        QStringList out;
        for (const HttpStub::Request &r : room.requests)
            out.append(r.url.path() + QLatin1Char('?') + r.url.query(QUrl::FullyEncoded));
        return out;
    }

private Q_SLOTS:
    void callHelpAndReviewPostTheirEvents()
    {
        QVERIFY(room.listen());
        room.setDefault(HttpStub::status(200));
        home.settings().setServer(room.address());
        AgentEvents ev(net, home.settings());
        AgentActions actions(ev, [this] { return nowMs; });
        QList<qint64> reviews;
        QString confirmed;
        actions.onReview = [&](qint64 secs) { reviews.append(secs); };
        actions.onConfirm = [&](const QString &text) { confirmed = text; };

        QCOMPARE(AgentEvents::kTimeoutMs, 60000);
        actions.needHelp(); // without an agent number nothing goes out
        home.settings().setAgentID(7);
        actions.toggleCall();
        QTRY_COMPARE(events(), strings({"/event?id=7&type=call_start"}));
        QVERIFY(actions.onCall() && reviews.isEmpty());
        nowMs += 59900; // 59.9 s: whole seconds, cut
        actions.toggleCall();
        QTRY_COMPARE(events().value(1), QStringLiteral("/event?id=7&type=call_end&secs=59"));
        QVERIFY(reviews == QList<qint64>{59} && !actions.onCall());

        actions.postReview(59, QStringLiteral("Neutral"), QStringLiteral("Funny"), QStringLiteral("cried & laughed"));
        QTRY_COMPARE(events().value(2), QStringLiteral("/event?id=7&type=review&outcome=Neutral&ctype=Funny&why=cried%20%26%20laughed&secs=59"));
        actions.postReview(0, QString(), QString(), QString()); // empty fields are left out
        QTRY_COMPARE(events().value(3), QStringLiteral("/event?id=7&type=review&secs=0"));

        actions.rateCall();
        QCOMPARE(reviews, (QList<qint64>{59, 0}));
        actions.needHelp();
        QTRY_COMPARE(events().value(4), QStringLiteral("/event?id=7&type=help"));
        QCOMPARE(confirmed, QStringLiteral("Help sent — coaches alerted"));

        // The review window hands on its choice.
        ReviewWindow w;
        QStringList saved;
        const auto open = [&] { w.open([&](const QString &o, const QString &t, const QString &why) { saved = {o, t, why}; }); };
        open();
        w.saveTapped();
        QCOMPARE(saved, (strings({"", "", ""})));
        open();
        w.pick(0, QStringLiteral("Bad"));
        w.pick(0, QStringLiteral("Neutral"));
        w.faces(1).at(3)->click();
        QCOMPARE(w.whyField()->maxLength(), 500);
        QCOMPARE(ReviewWindow::outcomes() + ReviewWindow::types(), strings({"Positive", "Neutral", "Bad", "Funny", "Angry", "Emotional", "Other"}));
        w.whyField()->setText(QStringLiteral("   "));
        w.saveTapped();
        QCOMPARE(saved, (strings({"Neutral", "Other", ""})));
        QVERIFY(!w.isVisible());
        saved.clear();
        open();
        QVERIFY(w.outcome().isEmpty()); // every showing starts afresh
        w.skipTapped();
        QVERIFY(saved.isEmpty());
    }

    // No tray on the offscreen desktop: the widget alone marks a call, reports a sale, asks for help
    // and, after the call, rates it; "Rate Last Call…" opens the review too.
    void widgetAloneOnADesktopWithoutTray()
    {
        HttpStub web;
        QVERIFY(web.listen());
        web.setDefault(HttpStub::status(200, "[]"));
        AgentFixture f(home, nullptr, QStringLiteral("http://") + web.address());
        QVERIFY(!QSystemTrayIcon::isSystemTrayAvailable() && !f.app->windows().widget()); // cameras are off
        QVERIFY(f.command(J{{"type", "cameras"}, {"on", true}}));
        QTRY_VERIFY(f.app->windows().widget() && f.app->windows().widget()->isShown());
        SaleWidget *w = f.app->windows().widget();
        QVERIFY(w->saleButton()); // a build locked to its control room sells

        w->callButton()->click();
        QCOMPARE(w->callButton()->text(), QStringLiteral("⏹  End the Call"));
        QTRY_COMPARE(f.room.events.size(), 1);
        QPushButton *help = w->window()->findChildren<QPushButton *>().last();
        QCOMPARE(help->text(), QStringLiteral("🙋  Need Help"));
        help->click();
        QCOMPARE(w->callButton()->text(), QStringLiteral("Help sent ✓"));
        QTRY_COMPARE(f.room.events.size(), 2);
        QTRY_COMPARE_WITH_TIMEOUT(w->callButton()->text(), QStringLiteral("⏹  End the Call"), 3000);
        // Help the control room never took is said on the panel too: it is all this agent sees.
        home.settings().setServer(QStringLiteral("127.0.0.1:1"));
        help->click();
        QTRY_COMPARE(w->callButton()->text(), QStringLiteral("Help not sent ✗"));
        home.settings().setServer(f.room.address());
        w->callButton()->click(); // a press on the answer puts the call back, and ends nothing
        QVERIFY(w->callButton()->text() == QStringLiteral("⏹  End the Call") && f.app->actions().onCall());
        // The panel carries what the tray would say, and opens the agent's menu on a right click;
        // so does starting the program again.
        QMenu *menu = f.app->status().tray()->menu();
        QTRY_VERIFY(w->tip().contains(QStringLiteral("On a call")) && w->tip() == f.app->status().tray()->tip());
        QContextMenuEvent rightClick(QContextMenuEvent::Mouse, QPoint(4, 4), w->window()->mapToGlobal(QPoint(4, 4)));
        QApplication::sendEvent(w->window()->findChild<QWidget *>(QStringLiteral("panel")), &rightClick);
        QTRY_VERIFY(menu->isVisible());
        menu->hide();
        f.app->startedAgain();
        QTRY_VERIFY(menu->isVisible());
        menu->hide();

        w->saleButton()->click();
        QVERIFY(f.app->windows().form() && f.app->windows().form()->isVisible());

        w->callButton()->click(); // the end of the call opens its review
        QTRY_COMPARE(f.room.events.size(), 3);
        QVERIFY(f.app->windows().review() && f.app->windows().review()->isVisible());
        f.app->windows().review()->pick(0, QStringLiteral("Positive"));
        f.app->windows().review()->saveTapped();
        QTRY_COMPARE(f.room.events.size(), 4);
        QCOMPARE(f.room.events.last().queryItemValue(QStringLiteral("outcome")), QStringLiteral("Positive"));

        // The menu offers the sale and the review now, and the review opens with 0 seconds.
        QHash<QString, QAction *> items;
        for (QAction *a : f.app->status().tray()->menu()->actions())
            items.insert(a->text(), a);
        QVERIFY(items.value(QStringLiteral("💵  Submit a Sale")) && items.value(QStringLiteral("💵  Submit a Sale"))->isEnabled());
        QAction *rate = items.value(QStringLiteral("⭐  Rate Last Call…"));
        QVERIFY(rate && rate->isEnabled());
        f.app->windows().review()->hide();
        rate->trigger();
        QVERIFY(f.app->windows().review()->isVisible());
        f.app->windows().review()->saveTapped();
        QTRY_COMPARE(f.room.events.size(), 5);
        QCOMPARE(f.room.events.last().queryItemValue(QStringLiteral("secs")), QStringLiteral("0"));

        // Without an agent number (set up again for another seat) it goes, and comes back with one.
        home.settings().setAgentID(0);
        QTRY_VERIFY(!w->isShown());
        home.settings().setAgentID(7);
        QTRY_VERIFY(w->isShown() && f.app->connection().connected());
        // Cameras off: the widget goes.
        QVERIFY(f.command(J{{"type", "cameras"}, {"on", false}}));
        QTRY_VERIFY(!w->isShown());
        // With no X server there is no widget, and the agent says why, once in the log and in every status.
        const QString note = DisplayPlatform::choose(QByteArray(), false).note;
        f.app->windows().disableFloating(note);
        QVERIFY(f.command(J{{"type", "cameras"}, {"on", true}}));
        QTRY_COMPARE(f.room.statuses().value(f.room.statuses().size() - 1).value(QStringLiteral("error")).toString(), note);
        QVERIFY(!f.app->windows().widget());
        QCOMPARE(home.log().count(note), 1);
    }
};

QTEST_MAIN(CallActionsTest)
#include "tst_call_actions.moc"
