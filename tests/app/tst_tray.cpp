#include "TestDisplay.h"
#include "TrayTip.h"
#include "TrayView.h"

#include <QMenu>
#include <QScreen>
#include <QSystemTrayIcon>
#include <QToolTip>
#include <QtTest>

namespace {

using S = StatusMenu::State;

// A linked, set-up agent with cameras on, then changed by `change`.
S connected(void (*change)(S &) = [](S &) {})
{
    S s;
    s.connected = s.setupDone = s.camerasEnabled = true;
    s.agentID = 7;
    change(s);
    return s;
}

// The states a person must tell apart from the tray alone.
struct Case {
    const char *name;
    S state;
    TrayTip::Facts facts;
    TrayTip::Look look;
    QString tip;
    QColor mark = {}; // the colour that tells the icon apart (none: white bars on the dark plate)
};

const QColor kOrange(0xff, 0x95, 0x00), kRed(0xff, 0x2d, 0x2d), kGreen(0x34, 0xc7, 0x59), kBlue(0x0a, 0x7a, 0xff), kYellow(0xff, 0xcc, 0x00);

QList<Case> cases()
{
    const QString room = QStringLiteral("192.168.1.20:8080");
    return {
        {"not connected", S{.agentID = 7}, {room, QStringLiteral("connection refused"), {}, true}, TrayTip::Look::NotConnected, // no one sees a preview
         QStringLiteral("Brava Recorder\nLink down: not connected to the control room at 192.168.1.20:8080 (connection refused)\nNot recording"), kOrange},
        {"connected", connected(), {room}, TrayTip::Look::Connected,
         QStringLiteral("Brava Recorder ON\nLink up: connected to the control room at 192.168.1.20:8080\nNot recording")},
        {"recording", connected([](S &s) { s.isRecording = true; }), {room, {}, QStringLiteral("Day 2 <b>"), true}, TrayTip::Look::Recording,
         QStringLiteral("Brava Recorder ON\nLink up: connected to the control room at 192.168.1.20:8080\nRecording session “Day 2 <b>”\nCamera preview on"), kRed},
        {"listening", connected([](S &s) { s.live = true; }), {room}, TrayTip::Look::Listening,
         QStringLiteral("Brava Recorder ON\nLink up: connected to the control room at 192.168.1.20:8080\nNot recording\nListening live"), kGreen},
        {"on a call", connected([](S &s) { s.onCall = true; }), {room, {}, {}, false, 65}, TrayTip::Look::OnCall,
         QStringLiteral("On a Call\nLink up: connected to the control room at 192.168.1.20:8080\nNot recording\nOn a call 1:05"), kBlue},
        {"error", connected([](S &s) { s.isRecording = true, s.lastError = QStringLiteral("Microphone stopped: device unplugged"); }),
         {room, {}, QStringLiteral("S1"), false, -1, QStringLiteral("Help sent — coaches alerted")}, TrayTip::Look::Error,
         QStringLiteral("Help sent — coaches alerted\nBrava Recorder ON\nLink up: connected to the control room at 192.168.1.20:8080\n"
                        "Recording session “S1”\nError: Microphone stopped: device unplugged"), kYellow},
    };
}

// Where the tray host shows the (only) icon on the screen: the tray embeds it, so Qt knows only
// its size; the X server knows where it is.
QPoint iconCentre()
{
    QProcess info;
    info.start(QStringLiteral("xwininfo"), {QStringLiteral("-root"), QStringLiteral("-tree")});
    info.waitForFinished(5000);
    const QRegularExpression icon(QStringLiteral("\\b22x22\\+\\d+\\+\\d+\\s+\\+(\\d+)\\+(\\d+)"));
    QPoint found;
    for (const QRegularExpressionMatch &m : icon.globalMatch(QString::fromLocal8Bit(info.readAll())))
        if (m.captured(1).toInt() >= QGuiApplication::primaryScreen()->geometry().width() - 200) // inside the panel
            found = QPoint(m.captured(1).toInt() + 11, m.captured(2).toInt() + 11);
    return found;
}

// Whether two colours are within `tolerance` of each other in every channel.
bool near(QColor a, QColor b, int tolerance = 8)
{
    return qAbs(a.red() - b.red()) <= tolerance && qAbs(a.green() - b.green()) <= tolerance && qAbs(a.blue() - b.blue()) <= tolerance;
}

// Whether the 22x22 icon centred on `at` shows this colour.
bool shows(const QImage &shot, QPoint at, QColor colour)
{
    int n = 0;
    for (int y = -11; y < 11; ++y)
        for (int x = -11; x < 11; ++x)
            n += near(shot.pixelColor(at + QPoint(x, y)), colour, 24);
    return n >= 6;
}

// Whether the tooltip is on the screen shot taken at `origin` (its colour inside its lower right corner).
bool tipDrawn(const QImage &shot, QPoint origin)
{
    for (const QWidget *w : QApplication::topLevelWidgets())
        if (w->objectName() == QLatin1String("qtooltip_label") && w->isVisible())
            return near(shot.pixelColor(w->geometry().bottomRight() - origin - QPoint(2, 2)), w->palette().color(QPalette::ToolTipBase));
    return false;
}

} // namespace

// The tray as a person sees it: the icon per state, its tooltip in words, the menu on a left click.
class TrayTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void tips()
    {
        for (const Case &c : cases()) {
            QCOMPARE(TrayTip::look(c.state), c.look);
            QCOMPARE(TrayTip::text(c.state, c.facts), c.tip);
        }
        const S replaced = connected([](S &s) { s.replaced = true; });
        QVERIFY(TrayTip::text(replaced, {}).contains(QStringLiteral("Link down: agent number in use on another computer")) && TrayTip::look(replaced) == TrayTip::Look::NotConnected);
        QVERIFY(TrayTip::text(S{}, {}).contains(QStringLiteral("Link down: no control room set")));
        QCOMPARE(TrayTip::text(connected([](S &s) { s.isRecording = true; }), {}).section(QLatin1Char('\n'), 2), QStringLiteral("Recording")); // no session known
        // The call item's running time.
        for (const auto &[seconds, title] : {std::pair{59, " 🔵 On a Call  0:59"}, {60, " 🔵 On a Call  1:00"}, {3600, " 🔵 On a Call  60:00"}})
            QCOMPARE(StatusMenu::callTimer(seconds), QString::fromUtf8(title));
        // A running update download shows below "Check for Updates…", and redraws the menu.
        S locked = connected([](S &s) { s.serverLocked = true; }), downloading = locked;
        downloading.updateActivity = QStringLiteral("Downloading the update… 5 %");
        const auto titles = [](const S &s) { QStringList t; for (const StatusMenu::Entry &e : StatusMenu::entries(s)) t << e.title; return t; };
        QStringList expected = titles(locked);
        expected.insert(expected.indexOf(QStringLiteral("Check for Updates…")) + 1, downloading.updateActivity);
        QVERIFY(titles(downloading) == expected && StatusMenu::fingerprint(locked) != StatusMenu::fingerprint(downloading));
    }

    // Each state's icon on the test tray with the tooltip the pointer brings up, on a light and a
    // dark panel: the tray host's panel shows the desktop behind it, painted each colour in turn.
    void screenshots()
    {
        BRAVA_REQUIRE_X();
        QTRY_VERIFY_WITH_TIMEOUT(QSystemTrayIcon::isSystemTrayAvailable(), 5000);
        const auto paint = [](QColor c) { return QProcess::execute(QStringLiteral("hsetroot"), {QStringLiteral("-solid"), c.name()}); };
        const auto light = qScopeGuard([&] { paint(QColor(0xee, 0xee, 0xee)); });
        const QRect screen = QGuiApplication::primaryScreen()->geometry();
        const QRect area(screen.width() - 640, 0, 640, 200);
        const auto grab = [&] { return QGuiApplication::primaryScreen()->grabWindow(0, area.x(), 0, area.width(), area.height()).toImage(); };
        const auto moveTo = [](int x, int y) { return QProcess::execute(QStringLiteral("xdotool"), {QStringLiteral("mousemove"), QStringLiteral("--sync"), QString::number(x), QString::number(y)}); };
        int side = 1;
        for (const QColor panel : {QColor(0xee, 0xee, 0xee), QColor(0x20, 0x22, 0x26)}) {
            QCOMPARE(paint(panel), 0);
            QTRY_VERIFY(near(grab().pixelColor(area.width() - 195, 12), panel));
            for (const Case &c : cases()) {
                TrayView tray;
                tray.draw(c.state);
                tray.setTip(TrayTip::text(c.state, c.facts));
                QTRY_VERIFY(!iconCentre().isNull());
                const QPoint at = iconCentre();
                // Off the icon until its tooltip is gone, then onto it 2 px left or right of its centre
                // in turn: Qt sees no pointer motion on the desktop, and a pointer back at the point
                // where Qt last saw it brings the icon no move, so no tooltip.
                QToolTip::hideText();
                QCOMPARE(moveTo(0, 400), 0);
                QTRY_VERIFY(!QToolTip::isVisible());
                side = -side;
                QCOMPARE(moveTo(at.x() + 2 * side, at.y()), 0);
                QString seen; // the tooltip last up
                QTRY_COMPARE_WITH_TIMEOUT(seen = QToolTip::isVisible() ? QToolTip::text() : seen, c.tip, 5000);
                QImage shot;
                QTRY_VERIFY((shot = grab(), tipDrawn(shot, area.topLeft())));
                for (const QColor mark : {kOrange, kRed, kGreen, kBlue, kYellow})
                    QVERIFY2(shows(shot, at - area.topLeft(), mark) == (mark == c.mark), c.name);
                const QString name = QString::fromLatin1(c.name).replace(QLatin1Char(' '), QLatin1Char('-'));
                QVERIFY(shot.save(TestDisplay::pictures("tray-screens") + QLatin1Char('/') + name + (panel.lightness() > 128 ? QStringLiteral("-light.png") : QStringLiteral("-dark.png"))));
            }
        }
    }

    // A left click on the icon opens the menu; a confirmation shows as a tray message too.
    void leftClickOpensTheMenu()
    {
        BRAVA_REQUIRE_X();
        QTRY_VERIFY_WITH_TIMEOUT(QSystemTrayIcon::isSystemTrayAvailable(), 5000);
        TrayView tray;
        tray.draw(connected());
        QTRY_VERIFY(!iconCentre().isNull());
        const QPoint at = iconCentre();
        QProcess::execute(QStringLiteral("xdotool"), {QStringLiteral("mousemove"), QString::number(at.x()), QString::number(at.y()), QStringLiteral("click"), QStringLiteral("1")});
        QTRY_VERIFY(tray.menu()->isVisible());
        // What the screen shows where the menu is, is the menu as it draws itself.
        const QRect where = tray.menu()->geometry();
        const QImage drawn = tray.menu()->grab().toImage().convertToFormat(QImage::Format_RGB32);
        QImage shown;
        QTRY_VERIFY((shown = QGuiApplication::primaryScreen()->grabWindow(0).toImage().convertToFormat(QImage::Format_RGB32)).copy(where) == drawn);
        QVERIFY(shown.save(TestDisplay::pictures("tray-screens") + QStringLiteral("/menu.png")));
        tray.menu()->hide();
        tray.flash(QStringLiteral("Help sent — coaches alerted"));
        // The short message beside the icon, kept as a picture once the screen shows it.
        const auto balloon = [] { const QWidgetList all = QApplication::topLevelWidgets(); const auto it = std::find_if(all.cbegin(), all.cend(), [](QWidget *w) { return w->inherits("QBalloonTip") && w->isVisible(); }); return it == all.cend() ? nullptr : *it; };
        QTRY_VERIFY(balloon());
        QVERIFY(QTest::qWaitForWindowExposed(balloon()));
        QVERIFY(QGuiApplication::primaryScreen()->grabWindow(0).save(TestDisplay::pictures("tray-screens") + QStringLiteral("/flash-message.png")));
    }
};

BRAVA_X_TEST_MAIN(TrayTest)
#include "tst_tray.moc"
