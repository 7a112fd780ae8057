#include "TestDisplay.h"
#include "TrayTip.h"
#include "TrayView.h"

#include <QMenu>
#include <QPainter>
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
};

QList<Case> cases()
{
    const QString room = QStringLiteral("192.168.1.20:8080");
    return {
        {"not connected", S{.agentID = 7}, {room, QStringLiteral("connection refused")}, TrayTip::Look::NotConnected,
         QStringLiteral("Brava Recorder\nLink down: not connected to the control room at 192.168.1.20:8080 (connection refused)\nNot recording")},
        {"connected", connected(), {room}, TrayTip::Look::Connected,
         QStringLiteral("Brava Recorder ON\nLink up: connected to the control room at 192.168.1.20:8080\nNot recording")},
        {"recording", connected([](S &s) { s.isRecording = true; }), {room, {}, QStringLiteral("Day 2 <b>"), true}, TrayTip::Look::Recording,
         QStringLiteral("Brava Recorder ON\nLink up: connected to the control room at 192.168.1.20:8080\nRecording session “Day 2 <b>”\nCamera preview on")},
        {"listening", connected([](S &s) { s.live = true; }), {room}, TrayTip::Look::Listening,
         QStringLiteral("Brava Recorder ON\nLink up: connected to the control room at 192.168.1.20:8080\nNot recording\nListening live")},
        {"on a call", connected([](S &s) { s.onCall = true; }), {room, {}, {}, false, 65}, TrayTip::Look::OnCall,
         QStringLiteral("On a Call\nLink up: connected to the control room at 192.168.1.20:8080\nNot recording\nOn a call 1:05")},
        {"error", connected([](S &s) { s.isRecording = true, s.lastError = QStringLiteral("Microphone stopped: device unplugged"); }),
         {room, {}, QStringLiteral("S1"), false, -1, QStringLiteral("Help sent — coaches alerted")}, TrayTip::Look::Error,
         QStringLiteral("Help sent — coaches alerted\nBrava Recorder ON\nLink up: connected to the control room at 192.168.1.20:8080\n"
                        "Recording session “S1”\nError: Microphone stopped: device unplugged")},
    };
}

QString screens()
{
    const QString dir = qEnvironmentVariable("BRAVA_TEST_BINARY_DIR", QStringLiteral(".")) + QStringLiteral("/tray-screens");
    QDir().mkpath(dir);
    return dir;
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
        QVERIFY(TrayTip::text(replaced, {}).contains(QStringLiteral("Link down: agent number in use on another computer")));
        QCOMPARE(TrayTip::look(replaced), TrayTip::Look::NotConnected);
        QVERIFY(TrayTip::text(S{}, {}).contains(QStringLiteral("Link down: no control room set")));
    }

    // Each state's icon on a light and a dark panel, and on the test tray with its tooltip.
    void screenshots()
    {
        BRAVA_REQUIRE_X();
        QTRY_VERIFY_WITH_TIMEOUT(QSystemTrayIcon::isSystemTrayAvailable(), 5000);
        QImage idle;
        for (const Case &c : cases()) {
            const QString name = QString::fromLatin1(c.name).replace(QLatin1Char(' '), QLatin1Char('-'));
            // On both panels: the icon is drawn at the tray's size on a light and a dark strip.
            QImage panels(2 * 48, 32, QImage::Format_RGB32);
            panels.fill(QColor(0x20, 0x22, 0x26));
            const QPixmap icon = QIcon(TrayTip::iconPath(c.look)).pixmap(22, 22);
            QVERIFY2(!icon.isNull(), c.name);
            QPainter p(&panels);
            p.fillRect(0, 0, 48, 32, QColor(0xee, 0xee, 0xee));
            for (int x : {13, 48 + 13})
                p.drawPixmap(x, 5, icon);
            p.end();
            QVERIFY(panels.save(screens() + QLatin1Char('/') + name + QStringLiteral("-panels.png")));
            if (c.look == TrayTip::Look::Connected)
                idle = icon.toImage();
            else if (c.look == TrayTip::Look::Recording || c.look == TrayTip::Look::OnCall)
                QVERIFY2(icon.toImage() != idle, c.name);

            // On the tray, with the tooltip up (a new icon each time: the tray host shows a
            // tooltip once per icon window).
            TrayView tray;
            tray.draw(c.state);
            tray.setTip(c.tip);
            QTRY_VERIFY(!iconCentre().isNull());
            const QPoint at = iconCentre();
            if (c.look == TrayTip::Look::NotConnected) {
                // The pointer resting on the icon brings the tooltip up.
                QProcess::execute(QStringLiteral("xdotool"), {QStringLiteral("mousemove"), QStringLiteral("0"), QStringLiteral("400")});
                QTest::qWait(200);
                QProcess::execute(QStringLiteral("xdotool"), {QStringLiteral("mousemove"), QString::number(at.x()), QString::number(at.y())});
                QTRY_COMPARE_WITH_TIMEOUT(QToolTip::isVisible() ? QToolTip::text() : QString(), c.tip, 5000);
            } else {
                // Under Xvfb the tray host passes a second hover on no more: the same tooltip, shown
                // where the hover shows it.
                QToolTip::showText(at + QPoint(0, 16), c.tip);
                QTRY_VERIFY(QToolTip::isVisible());
            }
            QTest::qWait(300);
            const QRect screen = QGuiApplication::primaryScreen()->geometry();
            QVERIFY(QGuiApplication::primaryScreen()->grabWindow(0, screen.width() - 640, 0, 640, 200).save(screens() + QLatin1Char('/') + name + QStringLiteral(".png")));
            QToolTip::hideText();
        }
    }

    // A left click on the icon opens the menu.
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
        QTest::qWait(300);
        QVERIFY(QGuiApplication::primaryScreen()->grabWindow(0).save(screens() + QStringLiteral("/menu.png")));
    }
};

BRAVA_X_TEST_MAIN(TrayTest)
#include "tst_tray.moc"
