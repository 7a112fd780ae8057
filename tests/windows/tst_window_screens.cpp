#include "DisplayPlatform.h"
#include "ReviewWindow.h"
#include "SaleForm.h"
#include "SaleFormModel.h"
#include "SaleSubmission.h"
#include "SaleWidget.h"
#include "SaleWidgetModel.h"
#include "ScreenSnapper.h"
#include "TestDisplay.h"
#include "X11Desktop.h"

#include <QButtonGroup>
#include <QLabel>
#include <QLineEdit>
#include <QNetworkAccessManager>
#include <QProcess>
#include <QPushButton>
#include <QScreen>

namespace M = SaleWidgetModel;
using Screens = QList<SaleWidgetModel::Screen>;

// The windows' rules without windows: where the widget snaps, its saved frame's text, what an APV
// reads as, which check a sale fails, the sale record, and the display platform chosen. Then each
// window on the test X server (Xvfb with openbox), captured from the screen as it shows there into
// <build>/window-screens/*.png and checked at sample points: sizes, colours, texts.
class WindowsTest : public QObject
{
    Q_OBJECT
    QString savedFrame;
    QNetworkAccessManager net;

    // The screen's pixels under a window's client area, kept as <name>.png.
    QImage shoot(QWidget *w, const QString &name)
    {
        QTest::qWait(0);
        const QRect r(w->mapToGlobal(QPoint(0, 0)), w->size());
        const QImage image = QGuiApplication::primaryScreen()->grabWindow(0, r.x(), r.y(), r.width(), r.height()).toImage();
        image.save(TestDisplay::pictures("window-screens") + QLatin1Char('/') + name + QStringLiteral(".png"));
        return image;
    }
    static bool near(QColor a, QColor b, int tolerance = 8)
    {
        return qAbs(a.red() - b.red()) <= tolerance && qAbs(a.green() - b.green()) <= tolerance && qAbs(a.blue() - b.blue()) <= tolerance;
    }
    // Whether the pixel is near this colour; says what it is when not.
    static bool at(const QImage &image, int x, int y, QColor colour)
    {
        return near(image.pixelColor(x, y), colour) || (qWarning("(%d, %d) is %s", x, y, qPrintable(image.pixelColor(x, y).name())), false);
    }
    // Whether an area of the image holds text-like pixels close to this colour.
    static bool areaHas(const QImage &image, const QRect &area, QColor colour, int tolerance = 40)
    {
        for (int y = area.top(); y <= area.bottom(); ++y)
            for (int x = area.left(); x < area.right(); ++x)
                if (near(image.pixelColor(x, y), colour, tolerance))
                    return true;
        return false;
    }
    // Waits until the window is mapped where it says and painted.
    static bool onScreen(QWidget *w) { return QTest::qWaitForWindowExposed(w) && QTest::qWaitFor([] { return true; }, 150); }

private Q_SLOTS:
    // Where the widget snaps (a main screen 1280x800 with a 40-high dock at the bottom, a portrait
    // screen to its right), its first frame, the real times, and its saved frame's text.
    void widgetRules()
    {
        const Screens two{{QRect(0, 0, 1280, 800), QRect(0, 0, 1280, 760)}, {QRect(1280, 0, 600, 1200), QRect(1280, 0, 600, 1200)}};
        const auto r = [](QPoint p) { return QRect(p, QSize(196, 182)); };
        const struct { const char *name; QPoint from, to; } rows[] = {
            {"left, height kept", {30, 378}, {12, 378}}, {"right", {1000, 300}, {1072, 300}}, {"bottom is the dock's top", {500, 560}, {500, 566}},
            {"top", {500, 40}, {500, 12}}, {"tie left-right goes left", {1482, 500}, {1292, 500}}, {"tie left-bottom goes left", {100, 478}, {12, 478}},
            {"tie right-bottom goes right", {1034, 528}, {1072, 528}}, {"tie bottom-top goes bottom", {500, 289}, {500, 566}},
            {"partly off the top", {600, -80}, {600, 12}}, {"centre off every screen: main one", {-100, 300}, {12, 300}},
            {"saved far right of every screen", {5000, 300}, {1072, 300}}, {"second screen, right", {1700, 600}, {1672, 600}},
            {"centre decides the screen", {1250, 700}, {1292, 700}}, {"bottom of the second screen", {1300, 1000}, {1300, 1006}},
            {"clamped in the other axis", {1285, 1010}, {1292, 1006}}};
        for (const auto &row : rows)
            QVERIFY2(M::snap(r(row.from), two) == r(row.to), row.name);
        QCOMPARE(M::snap(r({0, 0}), {{QRect(0, 0, 150, 150), QRect(0, 0, 150, 150)}}), r({12, 12})); // too small: the lower bound wins
        QCOMPARE(M::snap(r({10, 10}), {}), std::optional<QRect>());                                    // no screen
        QCOMPARE(M::firstFrame(QRect(0, 0, 1280, 760), true), QRect(1060, 554, 196, 182));
        QCOMPARE(M::firstFrame(QRect(0, 0, 1280, 760), false), QRect(1060, 602, 196, 134));
        QVERIFY(M::kSnapDelayMs == 180 && M::kSnappingMs == 350 && M::kHelpFlashMs == 1400 && M::kHelpFailedMs == 5000
                && M::helpNotSentLook().colour == M::red() && SaleForm::kHideAfterSuccessMs == 1300
                && ScreenSnapper::kPortalTimeoutMs == 60000); // the real times
        QCOMPARE(M::parseFrame(QStringLiteral("{{12, -40}, {196, 182}}")), std::optional<QRect>(QRect(12, -40, 196, 182)));
        QCOMPARE(M::frameText(QRect(12, -40, 196, 182)), QStringLiteral("{{12, -40}, {196, 182}}"));
        QCOMPARE(M::parseFrame(QStringLiteral("{{1,2},{3,4}}")), std::optional<QRect>(QRect(1, 2, 3, 4)));
        for (const char *text : {"", "{{1, 2}, {0, 4}}", "{{1, 2}, {99999, 4}}", "{{a, 2}, {3, 4}}", "{{1.5, 2}, {3, 4}}"})
            QVERIFY2(!M::parseFrame(QString::fromLatin1(text)), text);
    }

    // What an APV reads as, which check a sale fails first, the sale record, and the display platform.
    void formRules()
    {
        for (const auto &[typed, sent] : {std::pair{"1200", 1200}, {"$1,250.50", 1251}, {"12.5", 13}, {"12.4", 12}, {" $ 900 ", 900}, {"1000000000", 1000000000}})
            QVERIFY2(SaleFormModel::apv(QString::fromUtf8(typed)) == sent, typed);
        for (const char *typed : {"abc", "0", "", "1e9999", "..", "1000000001", "111111111111111111111111111111111", "$1,000.00000000000000000000000000", "١٢", "-5"})
            QVERIFY2(!SaleFormModel::apv(QString::fromUtf8(typed)), typed);
        QCOMPARE(SaleFormModel::confirmTypes().join(u' ') + u'|' + SaleFormModel::callTypes().join(u' '),
                 QStringLiteral("pdf png jpg jpeg heic webp gif|m4a mp3 wav mp4 mov webm aac caf"));
        const SaleFormModel::Entry complete{7, true, QStringLiteral("Ann Lee"), QStringLiteral("1200"), false, true, true};
        const QString badLead = QStringLiteral("The lead's name has a character that can't be sent (a tab or line break?)");
        for (const auto &[change, message] : {std::pair{"", QString()}, {"computer nocall", QString()}, {"agent0", QStringLiteral("Finish setup first")},
                                              {"lead= \n", QStringLiteral("Enter the lead's name")},
                                              {"longlead", QStringLiteral("The lead's name is too long (at most 200 characters)")},
                                              {"lead=Ann\tLee", badLead}, {"lead=Ann\nLee", badLead}, {"apv=1e9999", QStringLiteral("Enter the APV (dollar amount)")},
                                              {"noconfirm", QStringLiteral("Add a confirmation (file or snap)")}, {"nocall", QStringLiteral("Attach the full call recording")},
                                              {"agent0 lead= noconfirm", QStringLiteral("Finish setup first")}}) { // the first failing check wins
            SaleFormModel::Entry e = complete;
            for (const QString &w : QString::fromLatin1(change).split(QLatin1Char(' '), Qt::SkipEmptyParts)) {
                if (w == QLatin1String("computer")) e.phone = false;
                if (w == QLatin1String("nocall")) e.hasCall = false;
                if (w == QLatin1String("noconfirm")) e.hasConfirm = false;
                if (w == QLatin1String("agent0")) e.agentID = 0;
                if (w == QLatin1String("longlead")) e.lead = QString(10000, QLatin1Char('x'));
                if (w.startsWith(QLatin1String("lead="))) e.lead = w.mid(5);
                if (w.startsWith(QLatin1String("apv="))) e.apv = w.mid(4);
            }
            QVERIFY2(SaleFormModel::check(e) == message, change);
        }
        SaleFormModel::Entry e{7, true, QStringLiteral("  Ann \"Lee\"\n"), QStringLiteral("$1,250.50"), true, true, true};
        QCOMPARE(SaleFormModel::record(e), QByteArray("{\"id\":7,\"method\":\"phone\",\"lead\":\"Ann \\\"Lee\\\"\",\"apv\":1251,\"referral\":\"yes\"}"));
        e.phone = e.referral = false;
        QCOMPARE(SaleFormModel::record(e), QByteArray("{\"id\":7,\"method\":\"computer\",\"lead\":\"Ann \\\"Lee\\\"\",\"apv\":1251,\"referral\":\"no\"}"));
        for (const auto &[user, x, platform, windows] : {std::tuple{"", true, "xcb", true}, {"", false, "", false}, {"offscreen", false, "offscreen", true}, {"wayland", true, "wayland", false}}) {
            const DisplayPlatform::Choice c = DisplayPlatform::choose(QByteArray(user), x); // the user's choice stays; no widget without X or on wayland
            QVERIFY2(c.platform == platform && c.floatingWindows == windows && c.note.isEmpty() == windows, user);
        }
    }

    void widget()
    {
        BRAVA_REQUIRE_X();
        savedFrame.clear();
        int saves = 0;
        SaleWidget widget({[this] { return savedFrame; }, [&](const QString &t) { savedFrame = t, ++saves; }});
        QSignalSpy help(&widget, &SaleWidget::helpPressed), call(&widget, &SaleWidget::callPressed);
        widget.show(true);
        QWidget *w = widget.window();
        QVERIFY(onScreen(w));
        // First showing: 24 from the right and bottom of the usable area, kept above, on every
        // workspace, without taking the focus.
        const QRect avail = QGuiApplication::primaryScreen()->availableGeometry();
        QTRY_VERIFY(w->geometry() == M::firstFrame(avail, true) && w->size() == QSize(196, 182)); // once the window manager has placed it
        QTRY_COMPARE(X11Desktop::desktopOf(w), std::optional<quint32>(X11Desktop::kAllDesktops));
        QVERIFY(QApplication::activeWindow() != w);

        QImage shot = shoot(w, QStringLiteral("widget-with-sale"));
        QVERIFY(at(shot, 4, 90, M::navy()) && at(shot, 16, 40, M::blue()) && at(shot, 16, 88, M::blue()) && at(shot, 16, 136, M::red()));
        QVERIFY2(!near(shot.pixelColor(1, 1), Qt::black, 40), "a black corner: the rounded panel is not cut out without a compositor");
        // The titles and the drag handle are drawn.
        QVERIFY(areaHas(shot, QRect(40, 30, 120, 20), Qt::white, 30) && areaHas(shot, QRect(60, 4, 76, 14), QColor(130, 140, 170), 60));
        QCOMPARE(widget.saleButton()->text(), QStringLiteral("Submit a Sale"));

        // Above a window that opens later over it.
        QWidget cover;
        cover.setStyleSheet(QStringLiteral("background: #ffffff"));
        cover.setGeometry(w->geometry().adjusted(-40, -40, 40, 40));
        cover.show();
        QVERIFY(QTest::qWaitForWindowExposed(&cover));
        QTRY_VERIFY(near(shoot(w, QStringLiteral("widget-above-another-window")).pixelColor(16, 40), M::blue()));
        cover.hide();

        widget.setCall(true);
        QVERIFY(at(shoot(w, QStringLiteral("widget-on-a-call")), 16, 40, M::green()) && widget.callButton()->text() == QStringLiteral("⏹  End the Call"));

        QTest::mouseClick(w->findChildren<QPushButton *>().last(), Qt::LeftButton);
        QVERIFY(help.size() == 1 && at(shoot(w, QStringLiteral("widget-help-sent")), 16, 40, M::green()));
        QTRY_COMPARE_WITH_TIMEOUT(widget.callButton()->text(), QStringLiteral("⏹  End the Call"), 3000);
        widget.flashHelp();
        QTest::mouseClick(widget.callButton(), Qt::LeftButton); // reads "Help sent": puts the call back, ends nothing
        QVERIFY(call.isEmpty() && widget.callButton()->text() == QStringLiteral("⏹  End the Call"));
        QTest::mouseClick(widget.callButton(), Qt::LeftButton);
        QCOMPARE(call.size(), 1);

        // Being shown and placed is no move of the agent's: nothing snapped or saved meanwhile.
        QVERIFY2(saves == 0 && w->geometry() == M::firstFrame(avail, true), qPrintable(savedFrame));
        // Dragged 30 from the left edge: snaps to 12 from it, keeping its height; the frame is saved
        // once, where it ends.
        w->move(30, 300);
        QTRY_COMPARE(w->pos(), QPoint(12, 300));
        QVERIFY2(savedFrame == QStringLiteral("{{12, 300}, {196, 182}}") && saves == 1, qPrintable(savedFrame));
        widget.hide();
        QVERIFY(!widget.window());

        // Rebuilt without the sale button at the saved place, still on a call.
        widget.show(false);
        w = widget.window();
        QVERIFY(onScreen(w));
        QVERIFY(w->geometry() == QRect(12, 300, 196, 134) && !widget.saleButton());
        shot = shoot(w, QStringLiteral("widget-without-sale"));
        QVERIFY(at(shot, 16, 40, M::green()) && at(shot, 16, 88, M::red()));
        // Asked again without the sale button while shown with it: it keeps what it has.
        widget.hide();
        widget.show(true);
        widget.show(false);
        QVERIFY(widget.saleButton());
        // A saved place off every screen (a monitor since unplugged) is built on the main one.
        widget.hide();
        savedFrame = QStringLiteral("{{5000, 300}, {196, 182}}");
        widget.show(true);
        QCOMPARE(widget.window()->geometry(), M::snap(QRect(5000, 300, 196, 182), {{QRect(), avail}}).value());

        // A panel that comes at the bottom (a screen that shrinks, a dock plugged in) moves the
        // widget above it, snapped and saved as after a move.
        widget.hide();
        savedFrame.clear();
        widget.show(true);
        QVERIFY(onScreen(widget.window()));
        QWidget dock;
        dock.setGeometry(0, avail.bottom() - 149, avail.width(), 150);
        QCOMPARE(QProcess::execute(QStringLiteral("xprop"), {QStringLiteral("-id"), QString::number(dock.winId()), QStringLiteral("-f"),
                                   QStringLiteral("_NET_WM_STRUT_PARTIAL"), QStringLiteral("32c"), QStringLiteral("-set"), QStringLiteral("_NET_WM_STRUT_PARTIAL"),
                                   QStringLiteral("0,0,0,%1,0,0,0,0,0,0,0,%2").arg(QGuiApplication::primaryScreen()->geometry().bottom() - avail.bottom() + 150).arg(avail.width() - 1)}), 0);
        dock.show();
        const QRect shrunk = avail.adjusted(0, 0, 0, -150);
        QTRY_COMPARE(QGuiApplication::primaryScreen()->availableGeometry(), shrunk);
        QTRY_COMPARE(widget.window()->geometry(), M::snap(M::firstFrame(avail, true), {{QRect(), shrunk}}).value());
        QCOMPARE(savedFrame, M::frameText(widget.window()->geometry()));
        dock.close();
        QTRY_COMPARE(QGuiApplication::primaryScreen()->availableGeometry(), avail);
    }

    // The sale form in each state that looks different, kept as form-<name>.png.
    void form()
    {
        BRAVA_REQUIRE_X();
        const struct { const char *name, *state; QString status; } rows[] = {
            {"phone", "phone", {}}, {"phone-no-lead", "phone submit", QStringLiteral("Enter the lead's name")},
            {"phone-no-call", "phone lead apv confirm submit", QStringLiteral("Attach the full call recording")}, {"phone-ready", "phone lead apv confirm call", {}},
            {"computer", "computer", {}}, {"computer-bad-apv", "computer lead apv=1e9999 submit", QStringLiteral("Enter the APV (dollar amount)")},
            {"computer-no-confirmation", "computer lead apv submit", QStringLiteral("Add a confirmation (file or snap)")}, {"computer-snapped", "computer lead apv snap", {}},
            {"computer-not-recording", "idle computer", QStringLiteral("⚠ This computer is not recording this call")}};
        for (const auto &[name, state, status] : rows) {
            const QStringList words = QString::fromLatin1(state).split(QLatin1Char(' '));
            const auto has = [&](const char *w) { return words.contains(QLatin1String(w)); };
            SaleSubmission submission(net);
            ScreenSnapper snapper(false);
            SaleForm form(submission, snapper, [] { return 7; }, [] { return QStringLiteral("127.0.0.1:9"); });
            form.recording = [idle = has("idle")] { return !idle; };
            form.open();
            QVERIFY(onScreen(&form));
            QVERIFY(form.size() == QSize(468, 648) && form.windowTitle() == QStringLiteral("Submit a Sale"));
            form.methodGroup()->button(has("computer"))->click();
            if (has("lead")) form.leadField()->setText(QStringLiteral("Ann Lee"));
            for (const QString &w : words)
                if (w.startsWith(QStringLiteral("apv")))
                    form.apvField()->setText(w.contains(QLatin1Char('=')) ? w.mid(4) : QStringLiteral("$1,200"));
            if (has("confirm")) form.setConfirmFile(QStringLiteral("/tmp/confirmation.pdf"));
            if (has("call")) form.setCallFile(QStringLiteral("/tmp/full-call.m4a"));
            if (has("snap")) {
                QSignalSpy done(&snapper, &ScreenSnapper::done);
                form.findChildren<QPushButton *>().at(5)->click(); // "📸  Snap screen"
                QVERIFY(done.wait(5000));
                QVERIFY(form.confirmLabel()->text().startsWith(QStringLiteral("✓ Screen snapped (")));
            }
            if (has("submit")) form.submitButton()->click();
            QCOMPARE(form.statusLine()->text(), status);
            const QImage shot = shoot(&form, QStringLiteral("form-") + QLatin1String(name));

            // The submit button, the chosen method, the navy ground, and the coloured lines.
            const bool computer = has("computer");
            QVERIFY(at(shot, 30, 604, M::blue()) && at(shot, 4, 300, QColor(M::navy().rgb())) && at(shot, computer ? 240 + 8 : 24 + 8, 102, M::blue()));
            QVERIFY(areaHas(shot, QRect(24, 24, 200, 22), Qt::white, 20)); // the heading
            if (!status.isEmpty())
                QVERIFY(areaHas(shot, QRect(24, 556, 420, 18), has("idle") ? SaleForm::warningColour() : SaleForm::errorColour(), 50));
            const bool confirmed = has("confirm") || has("snap");
            QCOMPARE(areaHas(shot, QRect(24, 402, 300, 16), SaleForm::green(), 50), confirmed);
            QCOMPARE(form.callChoose()->isEnabled(), !computer);
            QCOMPARE(areaHas(shot, QRect(24, 496, 300, 16), SaleForm::green(), 50), has("call"));
            // Taller than the screen: it fits itself in, title bar included, 16 from the edges.
            form.resize(468, 2000);
            form.fitToScreen();
            QVERIFY(form.frameGeometry().height() > form.height()); // the window manager's frame is known
            QVERIFY(form.screen()->availableGeometry().adjusted(16, 16, -16, -16).contains(form.frameGeometry()));
            QTest::keyClick(&form, Qt::Key_Escape); // as the title bar's close
            QVERIFY(!form.isVisible());
        }
    }

    // The review window, fresh and with faces picked (a second outcome replaces the first).
    void review()
    {
        BRAVA_REQUIRE_X();
        for (const auto &[name, picksText] : {std::pair{"fresh", ""}, {"bad-then-neutral-angry", "Bad Neutral Angry"}}) {
            const QString picks = QString::fromLatin1(picksText);
            ReviewWindow review;
            review.open([](const QString &, const QString &, const QString &) {});
            QVERIFY(onScreen(&review));
            QVERIFY(review.size() == QSize(440, 520) && review.windowTitle() == QStringLiteral("After-Call Review"));
            for (const QString &p : picks.split(QLatin1Char(' '), Qt::SkipEmptyParts))
                review.pick(ReviewWindow::outcomes().contains(p) ? 0 : 1, p);
            const QImage shot = shoot(&review, QStringLiteral("review-") + QLatin1String(name));
            QCOMPARE(review.faces(0).at(1)->geometry(), QRect(160, 88, 128, 78));
            QCOMPARE(review.faces(1).at(3)->geometry(), QRect(324, 208, 92, 78));
            QCOMPARE(review.faces(0).at(2)->text(), QStringLiteral("🙁\nBad"));
            // A picked face has the blue border; the others do not.
            const auto border = [&](QPushButton *b) { return shot.pixelColor(b->geometry().left() + 1, b->geometry().center().y()); };
            QCOMPARE(near(border(review.faces(0).at(1)), M::blue(), 30), picks.contains(QStringLiteral("Neutral")));
            QVERIFY(!near(border(review.faces(0).at(2)), M::blue(), 30));
            QCOMPARE(near(border(review.faces(1).at(1)), M::blue(), 30), picks.contains(QStringLiteral("Angry")));
            QCOMPARE(review.outcome(), picks.isEmpty() ? QString() : QStringLiteral("Neutral"));
            // Every face is drawn in colour: warm pixels in the emoji's half of its button.
            for (QPushButton *b : review.faces(0) + review.faces(1)) {
                const QRect g = b->geometry();
                bool warm = false;
                for (int y = g.top(); y < g.center().y() && !warm; ++y)
                    for (int x = g.left(); x <= g.right() && !warm; ++x)
                        warm = shot.pixelColor(x, y).red() - shot.pixelColor(x, y).blue() > 100;
                QVERIFY2(warm, qPrintable(b->text()));
            }
            QTest::keyClick(&review, Qt::Key_Escape); // as Skip
            QVERIFY(!review.isVisible());
        }
    }
};

BRAVA_X_TEST_MAIN(WindowsTest)
#include "tst_window_screens.moc"
