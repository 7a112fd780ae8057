#include "DisplayPlatform.h"
#include "SaleFormModel.h"
#include "SaleWidgetModel.h"

#include <QtTest>

using Screens = QList<SaleWidgetModel::Screen>;
Q_DECLARE_METATYPE(std::optional<QRect>)
Q_DECLARE_METATYPE(std::optional<qint64>)

// The windows' rules without windows: where the widget snaps, its saved frame's text, what an
// APV reads as, which check a sale fails, the sale record, and the display platform chosen.
class WindowRulesTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void snap_data()
    {
        // Main screen 1280x800 with a 40-high dock at the bottom; a portrait screen to its right.
        const Screens two{{QRect(0, 0, 1280, 800), QRect(0, 0, 1280, 760)}, {QRect(1280, 0, 600, 1200), QRect(1280, 0, 600, 1200)}};
        QTest::addColumn<Screens>("screens");
        QTest::addColumn<QRect>("from");
        QTest::addColumn<std::optional<QRect>>("to");
        const auto r = [](int x, int y) { return QRect(x, y, 196, 182); };
        const auto to = [&](int x, int y) { return std::optional<QRect>(r(x, y)); };
        QTest::newRow("left, height kept") << two << r(30, 378) << to(12, 378);
        QTest::newRow("right") << two << r(1000, 300) << to(1072, 300);
        QTest::newRow("bottom is the dock's top") << two << r(500, 560) << to(500, 566);
        QTest::newRow("top") << two << r(500, 40) << to(500, 12);
        QTest::newRow("tie left-right goes left") << two << r(1482, 500) << to(1292, 500);
        QTest::newRow("tie left-bottom goes left") << two << r(100, 478) << to(12, 478);
        QTest::newRow("tie right-bottom goes right") << two << r(1034, 528) << to(1072, 528);
        QTest::newRow("tie bottom-top goes bottom") << two << r(500, 289) << to(500, 566);
        QTest::newRow("partly off the top") << two << r(600, -80) << to(600, 12);
        QTest::newRow("centre off every screen: main one") << two << r(-100, 300) << to(12, 300);
        QTest::newRow("second screen, right") << two << r(1700, 600) << to(1672, 600);
        QTest::newRow("centre decides the screen") << two << r(1250, 700) << to(1292, 700);
        QTest::newRow("bottom of the second screen") << two << r(1300, 1000) << to(1300, 1006);
        QTest::newRow("clamped in the other axis") << two << r(1285, 1010) << to(1292, 1006);
        QTest::newRow("too small: lower bound wins") << Screens{{QRect(0, 0, 150, 150), QRect(0, 0, 150, 150)}} << r(0, 0) << to(12, 12);
        QTest::newRow("no screen") << Screens{} << r(10, 10) << std::optional<QRect>();
    }
    void snap()
    {
        QFETCH(Screens, screens);
        QFETCH(QRect, from);
        QFETCH(std::optional<QRect>, to);
        QCOMPARE(SaleWidgetModel::snap(from, screens), to);
    }

    void firstFrameIsBottomRight()
    {
        QCOMPARE(SaleWidgetModel::firstFrame(QRect(0, 0, 1280, 760), true), QRect(1060, 554, 196, 182));
        QCOMPARE(SaleWidgetModel::firstFrame(QRect(0, 0, 1280, 760), false), QRect(1060, 602, 196, 134));
    }

    void frameText_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<std::optional<QRect>>("frame");
        QTest::newRow("written form") << "{{12, -40}, {196, 182}}" << std::optional<QRect>(QRect(12, -40, 196, 182));
        QTest::newRow("without blanks") << "{{1,2},{3,4}}" << std::optional<QRect>(QRect(1, 2, 3, 4));
        QTest::newRow("empty") << "" << std::optional<QRect>();
        QTest::newRow("no size") << "{{1, 2}, {0, 4}}" << std::optional<QRect>();
        QTest::newRow("huge") << "{{1, 2}, {99999, 4}}" << std::optional<QRect>();
        QTest::newRow("letters") << "{{a, 2}, {3, 4}}" << std::optional<QRect>();
        QTest::newRow("decimals") << "{{1.5, 2}, {3, 4}}" << std::optional<QRect>();
    }
    void frameText()
    {
        QFETCH(QString, text);
        QFETCH(std::optional<QRect>, frame);
        QCOMPARE(SaleWidgetModel::parseFrame(text), frame);
        if (frame && text.contains(QLatin1Char(' ')))
            QCOMPARE(SaleWidgetModel::frameText(*frame), text);
    }

    void apv_data()
    {
        QTest::addColumn<QString>("typed");
        QTest::addColumn<std::optional<qint64>>("sent");
        const auto n = [](qint64 v) { return std::optional<qint64>(v); };
        const std::optional<qint64> refused;
        QTest::newRow("plain") << "1200" << n(1200);
        QTest::newRow("dollars and commas") << "$1,250.50" << n(1251);
        QTest::newRow("half up") << "12.5" << n(13);
        QTest::newRow("below half") << "12.4" << n(12);
        QTest::newRow("blanks") << " $ 900 " << n(900);
        QTest::newRow("largest") << "1000000000" << n(1000000000);
        QTest::newRow("letters") << "abc" << refused;
        QTest::newRow("zero") << "0" << refused;
        QTest::newRow("empty") << "" << refused;
        QTest::newRow("exponent") << "1e9999" << refused;
        QTest::newRow("dots") << ".." << refused;
        QTest::newRow("too large") << "1000000001" << refused;
        QTest::newRow("too long") << QString(33, QLatin1Char('1')) << refused;
        QTest::newRow("other digits") << "١٢" << refused;
        QTest::newRow("minus") << "-5" << refused;
    }
    void apv()
    {
        QFETCH(QString, typed);
        QFETCH(std::optional<qint64>, sent);
        QCOMPARE(SaleFormModel::apv(typed), sent);
    }

    void check_data()
    {
        QTest::addColumn<QString>("change");
        QTest::addColumn<QString>("message");
        QTest::newRow("complete phone sale") << "" << "";
        QTest::newRow("computer sale needs no call") << "computer nocall" << "";
        QTest::newRow("no agent number") << "agent0" << "Finish setup first";
        QTest::newRow("lead of blanks") << "lead= \n" << "Enter the lead's name";
        QTest::newRow("lead of 10000 characters") << "longlead" << "The lead's name is too long (at most 200 characters)";
        QTest::newRow("lead with a tab") << "lead=Ann\tLee" << "The lead's name has a character that can't be sent (a tab or line break?)";
        QTest::newRow("lead with a line break inside") << "lead=Ann\nLee" << "The lead's name has a character that can't be sent (a tab or line break?)";
        QTest::newRow("bad apv") << "apv=1e9999" << "Enter the APV (dollar amount)";
        QTest::newRow("no confirmation") << "noconfirm" << "Add a confirmation (file or snap)";
        QTest::newRow("phone without call") << "nocall" << "Attach the full call recording";
        QTest::newRow("first failing check wins") << "agent0 lead= noconfirm" << "Finish setup first";
    }
    void check()
    {
        QFETCH(QString, change);
        QFETCH(QString, message);
        SaleFormModel::Entry e{7, true, QStringLiteral("Ann Lee"), QStringLiteral("1200"), false, true, true};
        for (const QString &w : change.split(QLatin1Char(' '), Qt::SkipEmptyParts)) {
            if (w == QLatin1String("computer")) e.phone = false;
            if (w == QLatin1String("nocall")) e.hasCall = false;
            if (w == QLatin1String("noconfirm")) e.hasConfirm = false;
            if (w == QLatin1String("agent0")) e.agentID = 0;
            if (w == QLatin1String("longlead")) e.lead = QString(10000, QLatin1Char('x'));
            if (w.startsWith(QLatin1String("lead="))) e.lead = w.mid(5);
            if (w.startsWith(QLatin1String("apv="))) e.apv = w.mid(4);
        }
        QCOMPARE(SaleFormModel::check(e), message);
    }

    void recordHasExactlyFiveMembersInOrder()
    {
        SaleFormModel::Entry e{7, true, QStringLiteral("  Ann \"Lee\"\n"), QStringLiteral("$1,250.50"), true, true, true};
        QCOMPARE(SaleFormModel::record(e), QByteArray("{\"id\":7,\"method\":\"phone\",\"lead\":\"Ann \\\"Lee\\\"\",\"apv\":1251,\"referral\":\"yes\"}"));
        e.phone = false;
        e.referral = false;
        QCOMPARE(SaleFormModel::record(e), QByteArray("{\"id\":7,\"method\":\"computer\",\"lead\":\"Ann \\\"Lee\\\"\",\"apv\":1251,\"referral\":\"no\"}"));
    }

    void platform_data()
    {
        QTest::addColumn<QByteArray>("user");
        QTest::addColumn<bool>("x");
        QTest::addColumn<QByteArray>("platform");
        QTest::addColumn<bool>("windows");
        QTest::newRow("X server: xcb") << QByteArray() << true << QByteArray("xcb") << true;
        QTest::newRow("no X server: the session's own, no widget") << QByteArray() << false << QByteArray() << false;
        QTest::newRow("the user's choice stays") << QByteArray("offscreen") << false << QByteArray("offscreen") << true;
        QTest::newRow("the user's wayland: no widget") << QByteArray("wayland") << true << QByteArray("wayland") << false;
    }
    void platform()
    {
        QFETCH(QByteArray, user);
        QFETCH(bool, x);
        QFETCH(QByteArray, platform);
        QFETCH(bool, windows);
        const DisplayPlatform::Choice c = DisplayPlatform::choose(user, x);
        QCOMPARE(c.platform, platform);
        QCOMPARE(c.floatingWindows, windows);
        QCOMPARE(c.note.isEmpty(), windows);
    }
};

QTEST_GUILESS_MAIN(WindowRulesTest)
#include "tst_window_rules.moc"
