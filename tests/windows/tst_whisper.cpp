#include "AgentFixture.h"
#include "HttpStub.h"
#include "TestDisplay.h"
#include "WhisperCard.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QSignalSpy>
#include <QWebEnginePage>
#include <QWebEngineScript>
#include <QWebEngineView>
#include <QtTest>

using J = QJsonObject;

// A coach's whisper from the control room over the agent's real link, on the test X server: the
// card shows any text literally and runs nothing in it, and names the sender by the label rules.
class WhisperTest : public QObject
{
    Q_OBJECT
    TestHome home;
    HttpStub service; // the event web service: the mentor roster
    std::unique_ptr<AgentFixture> f;

    WhisperCard &card() { return f->app->whisper(); }
    bool whisper(const J &command)
    {
        QSignalSpy placed(&card(), &WhisperCard::placed);
        f->room.send(command);
        return placed.wait(20000);
    }
    // What the page shows, read from an isolated script world: the message, the label, and the
    // marks a script or style in the message would leave.
    QJsonArray shown()
    {
        QVariant answer;
        bool done = false;
        card().view()->page()->runJavaScript(
            QStringLiteral("JSON.stringify([document.querySelector('.t').textContent, document.querySelector('.lbl').textContent,"
                           "document.title, document.getElementById('b').dataset.hit || '',"
                           "document.querySelectorAll('script,style,img,iframe,b,svg').length,"
                           "getComputedStyle(document.getElementById('b')).display])"),
            QWebEngineScript::ApplicationWorld, [&](const QVariant &v) { answer = v; done = true; });
        (void)QTest::qWaitFor([&] { return done; }, 10000);
        return QJsonDocument::fromJson(answer.toString().toUtf8()).array();
    }

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(service.listen());
        service.setDefault(HttpStub::status(200, "{\"5\":\" \\tAnn Lee  \"}"));
    }
    void init()
    {
        BRAVA_REQUIRE_X();
        f = std::make_unique<AgentFixture>(home, nullptr, QStringLiteral("http://") + service.address());
        QVERIFY(f->app->connection().connected());
        QTRY_VERIFY(!f->app->roster().name(5).isEmpty());
    }
    void cleanup() { f.reset(); }

    void hostileTextIsShownLiterally_data()
    {
        QTest::addColumn<QString>("text");
        const QString pad = QStringLiteral("<b onclick=\"document.title='hit'\">&amp;</b> ");
        QString big;
        while (big.size() + pad.size() <= 10 * 1024)
            big += pad;
        big += QString(10 * 1024 - big.size(), QLatin1Char('z'));
        QTest::newRow("script") << "<script>document.title='hit';document.getElementById('b').dataset.hit='1'</script>";
        QTest::newRow("style") << "<style>#b{display:none}</style>hidden?";
        QTest::newRow("onerror") << "<img src=x onerror=\"document.getElementById('b').dataset.hit='1'\">";
        QTest::newRow("entities") << "&lt;script&gt; &amp;amp; &#60;b&#62; &nbsp;";
        QTest::newRow("quotes") << "\"'` </div></div><svg onload=alert(1)>";
        QTest::newRow("right-to-left") << "\u202Egnp.exe\u202C \u200F\u05E9\u05DC\u05D5\u05DD\u200E ok";
        QTest::newRow("10 kB") << big;
    }
    void hostileTextIsShownLiterally()
    {
        QFETCH(QString, text);
        QVERIFY(whisper(J{{"type", "whisper"}, {"text", text}, {"seat", 5}})); // the label rules are tst_whisper_card's
        const QJsonArray page = shown();
        QCOMPARE(page.at(0).toString(), text);
        QCOMPARE(page.at(1).toString(), QStringLiteral("LIVE MESSAGE FROM ANN LEE"));
        QCOMPARE(page.at(2).toString(), QString());      // no script changed the title
        QCOMPARE(page.at(3).toString(), QString());      // nor marked the card
        QCOMPARE(page.at(4).toInt(), 1);                 // the page's own style sheet, nothing else
        QCOMPARE(page.at(5).toString(), QStringLiteral("block"));
        QVERIFY(card().frame().height() <= QGuiApplication::primaryScreen()->availableGeometry().height());
    }

    void emptyTextShowsNothing()
    {
        for (const char *text : {"", " \t "})
            QVERIFY(f->command(J{{"type", "whisper"}, {"text", QLatin1String(text)}}));
        QVERIFY(f->command(J{{"type", "whisper"}, {"seat", 5}}));
        QVERIFY(!card().view());
    }
};

BRAVA_X_TEST_MAIN(WhisperTest)
#include "tst_whisper.moc"
