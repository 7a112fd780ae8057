#include "AgentFixture.h"
#include "HttpStub.h"
#include "TestDisplay.h"
#include "TestLiterals.h"
#include "WhisperCard.h"
#include "WhisperPage.h"

#include <QScreen>
#include <QWebEnginePage>
#include <QWebEngineScript>
#include <QWebEngineView>
#include <QtTest>

#include <csignal>

// A window that counts the mouse presses it receives.
struct ClickCounter : QWidget {
    int presses = 0;
    void mousePressEvent(QMouseEvent *) override { ++presses; }
};

// The card's page rules, and the card as a window on the test X server: any text shown literally
// with nothing in it run, timing, click-through, release, its picture; and a coach's whisper from
// the control room over the agent's real link.
class WhisperCardTest : public QObject
{
    Q_OBJECT

    static bool shown(WhisperCard &card, const QString &text)
    {
        QSignalSpy placed(&card, &WhisperCard::placed);
        card.show(text, 3, QString());
        return placed.wait(20000);
    }
    // What the page shows, read from an isolated script world: the message, the label, and the
    // marks a script or style in the message would leave.
    static QJsonArray page(WhisperCard &card)
    {
        QVariant answer;
        bool done = false;
        card.view()->page()->runJavaScript(
            QStringLiteral("JSON.stringify([document.querySelector('.t').textContent, document.querySelector('.lbl').textContent, document.title,"
                           "document.getElementById('b').dataset.hit || '', document.querySelectorAll('script,style,img,iframe,b,svg').length,"
                           "getComputedStyle(document.getElementById('b')).display, Math.ceil(document.getElementById('w').getBoundingClientRect().width),"
                           "Math.ceil(document.getElementById('w').getBoundingClientRect().height)])"),
            QWebEngineScript::ApplicationWorld, [&](const QVariant &v) { answer = v; done = true; });
        (void)QTest::qWaitFor([&] { return done; }, 10000);
        return QJsonDocument::fromJson(answer.toString().toUtf8()).array();
    }

private Q_SLOTS:
    // As root the engine is told to run without its sandbox (it would end the agent otherwise);
    // a choice already made in the environment stays, and nothing changes for other users.
    void engineAsRoot()
    {
        const QByteArray chosen = qgetenv("QTWEBENGINE_DISABLE_SANDBOX");
        qunsetenv("QTWEBENGINE_DISABLE_SANDBOX");
        QVERIFY(WhisperCard::prepareEngine(false).isEmpty() && qEnvironmentVariableIsEmpty("QTWEBENGINE_DISABLE_SANDBOX"));
        QVERIFY(WhisperCard::prepareEngine(true).startsWith(QLatin1String("running as root")) && qgetenv("QTWEBENGINE_DISABLE_SANDBOX") == "1");
        QVERIFY(WhisperCard::prepareEngine(true).isEmpty());
        qputenv("QTWEBENGINE_DISABLE_SANDBOX", chosen);
    }
    // The sender's label, the text and the rules on the page, the page's measured size with a fallback
    // for any answer that is not one, the card's place, and the real times.
    void pageRules()
    {
        for (const auto &[from, seat, label] : {std::tuple{"", 0, "A MENTOR"}, {"", -4, "A MENTOR"}, {"", 12, "MENTOR 12"}, {" \tAnn Lee\u00a0 ", 12, "ANN LEE"},
                                                {" \t ", 12, "MENTOR 12"}, {"", 1, "MENTOR 1"}})
            QVERIFY2(WhisperPage::label(seat, QString::fromUtf8(from)) == QLatin1String(label), label);
        QCOMPARE(WhisperPage::escape(QStringLiteral("a&lt;<b>\"'")), QStringLiteral("a&amp;lt;&lt;b&gt;\"'"));
        const QString html = WhisperPage::html(QStringLiteral("<i>hi</i>"), 0, QStringLiteral("<Bo>"), QStringLiteral("data:x"));
        // The label and the text escaped in their places (shown literally: hostileTextIsShownLiterally), the look.
        for (const char *part : {"url(data:x)", "LIVE MESSAGE FROM &lt;BO&gt;</span>", "<div class=\"t\">&lt;i&gt;hi&lt;/i&gt;</div>",
                                 "#b{width:720px;background:#0a0d12;border:2px solid #01a6ff;border-radius:18px", "#w{display:inline-block;padding:46px}",
                                 "animation:bravablink 1.1s steps(1) infinite", "font-size:29px;line-height:1.32", "white-space:pre-wrap"})
            QVERIFY2(html.contains(QLatin1String(part)), part);
        QCOMPARE(WhisperPage::parseSize(QStringLiteral("812x233")), QSize(812, 233));
        for (const QVariant &answer : {QVariant(), QVariant(QStringLiteral("812")), QVariant(QStringLiteral("ax3")), QVariant(QStringLiteral("1x2x3")), QVariant(QStringLiteral("0x40"))})
            QCOMPARE(WhisperPage::parseSize(answer), QSize(812, 300));
        QCOMPARE(WhisperPage::place(QRect(0, 24, 1280, 776), QSize(812, 300)), QRect(234, 32, 812, 300));
        QCOMPARE(WhisperPage::place(QRect(100, 0, 1000, 700), QSize(812, 9000)), QRect(194, 8, 812, 692)); // no taller than the screen
        QCOMPARE(WhisperPage::place(QRect(0, 0, 640, 480), QSize(812, 300)), QRect(0, 8, 640, 300));  // nor wider
        QVERIFY(WhisperCard().hideMs == 9000 && WhisperCard().releaseMs == 60000); // the real times, shortened in the tests below
    }

    // A second whisper restarts the time the card stays (a 9 s stay scaled down to 4 s, the
    // second whisper after 5/9 of it); the view goes a while after the last card, and comes back.
    void secondWhisperKeepsTheCard()
    {
        BRAVA_REQUIRE_X();
        WhisperCard card;
        card.hideMs = 4000;
        card.releaseMs = 400;
        QVERIFY(!card.view());
        QSignalSpy hidden(&card, &WhisperCard::hidden);
        QSignalSpy released(&card, &WhisperCard::released);
        QVERIFY(shown(card, QStringLiteral("first")));
        QElapsedTimer first, second;
        first.start();
        QTest::qWait(card.hideMs * 5 / 9);
        QVERIFY(shown(card, QStringLiteral("second")));
        second.start();
        QTest::qWait(int(card.hideMs - first.elapsed() + 300)); // past the first one's end
        QVERIFY(card.visible() && hidden.isEmpty());
        QVERIFY(hidden.wait(card.hideMs + 2000) && !card.visible());
        QVERIFY2(second.elapsed() >= card.hideMs, qPrintable(QString::number(second.elapsed())));
        // The web view, made at the first whisper, is released a while after the last card.
        QVERIFY(released.wait(5000) && !card.view());
        QVERIFY(shown(card, QStringLiteral("third")) && card.view());
    }

    // Clicks over the card reach the window below; the card is outside the window manager's
    // workspaces (so on all of them); its picture is kept as an artefact.
    void clickThroughAndPicture()
    {
        BRAVA_REQUIRE_X();
        WhisperCard card;
        ClickCounter below;
        const QRect avail = QGuiApplication::primaryScreen()->availableGeometry();
        below.setGeometry(avail.adjusted(0, 0, 0, -200));
        below.show();
        QVERIFY(QTest::qWaitForWindowExposed(&below));
        QVERIFY(shown(card, QStringLiteral("Ask about the warranty — now!")));
        QVERIFY(QTest::qWaitForWindowExposed(card.view()));

        const QRect f = card.frame();
        const QJsonArray measured = page(card);
        QCOMPARE(f.size(), QSize(measured.at(6).toInt(), measured.at(7).toInt())); // the page's own size
        QCOMPARE(QPoint(f.center().x(), f.y()), QPoint(avail.center().x(), avail.y() + WhisperPage::kTopGap)); // centred, below the top
        // The title bar's blue reaches the screen; without a compositor (here) the window below shows
        // around the card, not black.
        QImage shot; QColor bar;
        QTRY_VERIFY2_WITH_TIMEOUT((shot = QGuiApplication::primaryScreen()->grabWindow(0, f.x(), f.y(), f.width(), f.height()).toImage(),
                                   bar = shot.pixelColor(f.width() / 2, 46 + 6), bar.blue() > 200 && bar.red() < 90), qPrintable(bar.name()), 10000);
        QVERIFY(shot.save(TestDisplay::pictures("whisper-screens") + QStringLiteral("/card.png")));
        QCOMPARE(shot.pixelColor(5, 5), below.palette().color(QPalette::Window));

        QProcess info;
        info.start(QStringLiteral("xwininfo"), {QStringLiteral("-id"), QString::number(card.view()->winId())});
        QVERIFY(info.waitForFinished(5000));
        QVERIFY2(info.readAll().contains("Override Redirect State: yes"), "outside the window manager: on every workspace");

        const QPoint c = f.center();
        QCOMPARE(QProcess::execute(QStringLiteral("xdotool"), {QStringLiteral("mousemove"), QString::number(c.x()), QString::number(c.y()),
                                                             QStringLiteral("click"), QStringLiteral("1")}), 0);
        QTRY_VERIFY(below.presses == 1 && card.visible());
    }

    // Shown as text, with nothing in it run (10 kB of it: whisperOverTheLink).
    void hostileTextIsShownLiterally()
    {
        BRAVA_REQUIRE_X();
        for (const char *utf8 : {"<script>document.title='hit';document.getElementById('b').dataset.hit='1'</script>", "<style>#b{display:none}</style>hidden?",
                                 "<img src=x onerror=\"document.getElementById('b').dataset.hit='1'\">", "&lt;script&gt; &amp;amp; &#60;b&#62; &nbsp;",
                                 "\"'` </div></div><svg onload=alert(1)>", "\u202Egnp.exe\u202C \u200F\u05E9\u05DC\u05D5\u05DD\u200E ok"}) {
            const QString text = QString::fromUtf8(utf8);
            WhisperCard card;
            QVERIFY2(shown(card, text), utf8);
            QJsonArray shows = page(card);
            shows.removeLast(), shows.removeLast(); // (the size)
            // The text itself, the label; no script changed the title nor marked the card; the page's own
            // style sheet and nothing else; the card shown.
            QCOMPARE(shows, (QJsonArray{text, QStringLiteral("LIVE MESSAGE FROM MENTOR 3"), QString(), QString(), 1, QStringLiteral("block")}));
            QVERIFY(card.frame().height() <= QGuiApplication::primaryScreen()->availableGeometry().height());
        }
    }

    // Over the agent's link: blank whispers show nothing; a hostile whisper is shown literally and
    // names its sender from the event web service's roster of mentors.
    void whisperOverTheLink()
    {
        BRAVA_REQUIRE_X();
        TestHome home;
        HttpStub service;
        QVERIFY(service.listen());
        service.setDefault(HttpStub::status(200, "{\"5\":\" \\tAnn Lee  \"}"));
        AgentFixture f(home, nullptr, QStringLiteral("http://") + service.address());
        QTRY_VERIFY(f.app->connection().connected() && !f.app->roster().name(5).isEmpty());
        for (const char *text : {"", " \t "})
            QVERIFY(f.command(J{{"type", "whisper"}, {"text", QLatin1String(text)}}));
        QVERIFY(f.command(J{{"type", "whisper"}, {"seat", 5}}));
        QVERIFY(!f.app->whisper().view());
        QSignalSpy placed(&f.app->whisper(), &WhisperCard::placed);
        QString hostile = QStringLiteral("  \u200F<script>document.title='hit'</script><b>&amp;</b>\n");
        hostile += QStringLiteral("wait ").repeated((10 * 1024 - hostile.size()) / 5);
        hostile += QString(10 * 1024 - hostile.size(), QLatin1Char('w')); // at the limit
        f.room.send(J{{"type", "whisper"}, {"text", hostile}, {"seat", 5}});
        QVERIFY(placed.wait(20000));
        const QJsonArray shows = page(f.app->whisper());
        QVERIFY(shows.at(0).toString() == hostile && shows.at(2).toString().isEmpty()); // shown as sent, nothing run
        QVERIFY(f.app->whisper().frame().height() <= QGuiApplication::primaryScreen()->availableGeometry().height());
        QCOMPARE(shows.at(1).toString(), QStringLiteral("LIVE MESSAGE FROM ANN LEE"));
        // A card whose renderer dies goes away, said once in the log and the heartbeat's error.
        f.app->whisper().releaseMs = 300;
        QVERIFY(::kill(f.app->whisper().view()->page()->renderProcessPid(), SIGKILL) == 0);
        QTRY_VERIFY(!f.app->whisper().view());
        QTRY_VERIFY(!f.room.statuses().isEmpty() && f.room.statuses().last().value(QLatin1String("error")).toString().startsWith(QStringLiteral("whisper card not shown")));
        QCOMPARE(home.log().count(QStringLiteral("whisper card not shown")), 1);
    }
};

BRAVA_X_TEST_MAIN(WhisperCardTest)
#include "tst_whisper_card.moc"
