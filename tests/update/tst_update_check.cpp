// The release check: the feed over HTTPS, the decision and its alerts, version order, the download
// URL policy and the digest's form.
#include "TestHome.h"
#include "UpdateKit.h"
#include "UpdatePolicy.h"

#include <QtTest>

namespace {
const QString kUpToDate = QStringLiteral("You’re up to date");
const QString kFailed = QStringLiteral("Couldn’t check for updates");
const QString kBusy = QStringLiteral("Update available");
const QByteArray kFeedPath = "/wp-json/brava-updates/v1/releases";
} // namespace

Q_DECLARE_METATYPE(HttpsStub::Answer)

class UpdateCheckTest : public QObject
{
    Q_OBJECT
    TestHome home;
    UpdateKit kit;

    QString digest() const { return QString(64, QLatin1Char('a')); }
    QUrl zip(const QString &name = QStringLiteral("r.zip")) const
    {
        return kit.url(QStringLiteral("/wp-content/uploads/") + name);
    }
    QByteArray release(const QString &version, bool enabled = true, const QString &platform = QStringLiteral("linux"))
    {
        return UpdateKit::entry(version, zip(), digest(), enabled, platform);
    }
    // One check against this answer; returns the alerts' messages.
    QStringList runCheck(AppUpdates &u, const HttpsStub::Answer &answer, bool manual)
    {
        kit.alerts.clear();
        kit.server->route(kFeedPath, answer);
        QSignalSpy done(&u, &AppUpdates::checkFinished);
        u.check(manual);
        if (!done.wait(20000))
            return {QStringLiteral("no end")};
        QStringList messages;
        for (const Alert &a : std::as_const(kit.alerts))
            messages.append(a.message);
        return messages;
    }

private Q_SLOTS:
    void initTestCase()
    {
        if (!kit.unavailable.isEmpty())
            QSKIP(qPrintable(kit.unavailable));
    }

    void versionOrder_data()
    {
        QTest::addColumn<QString>("a");
        QTest::addColumn<QString>("b");
        QTest::addColumn<bool>("newer");
        QTest::newRow("1.10 > 1.9") << "1.10" << "1.9" << true;
        QTest::newRow("1.9 < 1.10") << "1.9" << "1.10" << false;
        QTest::newRow("2.0 > 1.12") << "2.0" << "1.12" << true;
        QTest::newRow("equal") << "1.2" << "1.2" << false;
        QTest::newRow("longer") << "1.2.1" << "1.2" << true;
        QTest::newRow("shorter") << "1.2" << "1.2.1" << false;
        QTest::newRow("long digit run") << "1.100000000000000000001" << "1.99999999999999999999" << true;
        QTest::newRow("leading zero") << "1.02" << "1.2" << false;
        QTest::newRow("letters") << "1.0b" << "1.0a" << true;
        QTest::newRow("empty") << "" << "1" << false;
    }
    void versionOrder()
    {
        QFETCH(QString, a);
        QFETCH(QString, b);
        QFETCH(bool, newer);
        QCOMPARE(AppUpdates::newer(a, b), newer);
    }

    void urlPolicy_data()
    {
        QTest::addColumn<QString>("url");
        QTest::addColumn<bool>("allowed");
        QTest::newRow("good") << "https://web.test/wp-content/uploads/2026/r.zip" << true;
        QTest::newRow("http") << "http://web.test/wp-content/uploads/r.zip" << false;
        QTest::newRow("other host") << "https://evil.test/wp-content/uploads/r.zip" << false;
        QTest::newRow("sub-domain") << "https://a.web.test/wp-content/uploads/r.zip" << false;
        QTest::newRow("explicit port") << "https://web.test:443/wp-content/uploads/r.zip" << false;
        QTest::newRow("other port") << "https://web.test:8443/wp-content/uploads/r.zip" << false;
        QTest::newRow("user") << "https://u@web.test/wp-content/uploads/r.zip" << false;
        QTest::newRow("password") << "https://u:p@web.test/wp-content/uploads/r.zip" << false;
        QTest::newRow("outside uploads") << "https://web.test/wp-content/r.zip" << false;
        QTest::newRow("dot-dot out of uploads") << "https://web.test/wp-content/uploads/../r.zip" << false;
        QTest::newRow("encoded dot-dot") << "https://web.test/wp-content/uploads/%2e%2E/r.zip" << false;
        QTest::newRow("not a zip") << "https://web.test/wp-content/uploads/r.tar" << false;
    }
    void urlPolicy()
    {
        QFETCH(QString, url);
        QFETCH(bool, allowed);
        QCOMPARE(UpdatePolicy::allowed(QUrl(url), QStringLiteral("web.test")), allowed);
    }

    // Each row: the feed's answer, the running version, busy, manual → alerts, pending, internal error.
    void outcome_data()
    {
        using A = HttpsStub::Answer;
        QTest::addColumn<A>("answer");
        QTest::addColumn<bool>("busy");
        QTest::addColumn<bool>("manual");
        QTest::addColumn<QStringList>("alerts");
        QTest::addColumn<QString>("pending");
        QTest::addColumn<QString>("error");
        const QString offer = QStringLiteral("Brava Recorder 2.0 is available");
        const A same{200, UpdateKit::feed({release(QStringLiteral("1.9"))})};
        const A newer{200, UpdateKit::feed({release(QStringLiteral("2.0"))})};
        QTest::newRow("up to date, manual") << same << false << true << QStringList{kUpToDate} << "" << "";
        QTest::newRow("up to date, automatic") << same << false << false << QStringList{} << "" << "";
        QTest::newRow("newer, manual") << newer << false << true << QStringList{offer} << "2.0" << "";
        QTest::newRow("newer, automatic") << newer << false << false << QStringList{offer} << "2.0" << "";
        QTest::newRow("busy, manual") << newer << true << true << QStringList{kBusy} << "2.0" << "";
        QTest::newRow("busy, automatic") << newer << true << false << QStringList{} << "2.0" << "";
        QTest::newRow("only entry disabled")
            << A{200, UpdateKit::feed({release(QStringLiteral("2.0"), false)})} << false << true << QStringList{kUpToDate}
            << "" << "";
        QTest::newRow("first match counts, older")
            << A{200, UpdateKit::feed({release(QStringLiteral("3.0"), false), release(QStringLiteral("3.0"), true, QStringLiteral("mac")),
                                       release(QStringLiteral("1.5")), release(QStringLiteral("3.0"))})}
            << false << true << QStringList{kUpToDate} << "" << "";
        QTest::newRow("first match counts, newer")
            << A{200, UpdateKit::feed({release(QStringLiteral("2.0")), release(QStringLiteral("3.0"))})} << false << true
            << QStringList{offer} << "2.0" << "";
        QTest::newRow("schema 2") << A{200, UpdateKit::feed({release(QStringLiteral("2.0"))}, 2)} << false << true
                                  << QStringList{kFailed} << "" << "Unexpected update feed";
        QTest::newRow("other edition")
            << A{200, UpdateKit::feed({release(QStringLiteral("2.0"))}, 1, QStringLiteral("rehearsal"))} << false << true
            << QStringList{kFailed} << "" << "Unexpected update feed";
        QTest::newRow("mistyped field")
            << A{200, UpdateKit::feed({UpdateKit::entry(QStringLiteral("2.0"), zip(), digest()).replace("true", "1")})}
            << false << true << QStringList{kFailed} << "" << "feed key \"enabled\" is missing or not a boolean";
        QTest::newRow("status 500") << A{500, UpdateKit::feed({})} << false << true << QStringList{kFailed} << ""
                                    << "Update service unavailable";
        QTest::newRow("feed of 70 kB")
            << A{200, UpdateKit::feed({release(QStringLiteral("2.0"))}).replace("\"extra\": 5", QByteArray("\"extra\": \"" + QByteArray(70000, 'x') + "\""))}
            << false << true << QStringList{kFailed} << "" << "Update service unavailable";
        QTest::newRow("feed of 70 kB without a length")
            << A{200, QByteArray(70000, ' ') + UpdateKit::feed({}), {}, false} << false << true << QStringList{kFailed}
            << "" << "Update service unavailable";
        QTest::newRow("redirect to http")
            << A{302, {}, "http://" + kit.host.toLatin1() + kFeedPath} << false << true << QStringList{kFailed} << ""
            << "*";
        // Releases that are newer but break the rules.
        const auto invalid = [&](const QUrl &url, const QString &sha) {
            return A{200, UpdateKit::feed({UpdateKit::entry(QStringLiteral("2.0"), url, sha)})};
        };
        const QString upper = QString(64, QLatin1Char('A'));
        const QString shortDigest = QString(63, QLatin1Char('a'));
        for (const auto &[name, url, sha] :
             {std::tuple{"release over http", QUrl(QStringLiteral("http://") + kit.host + QStringLiteral("/wp-content/uploads/r.zip")), digest()},
              std::tuple{"release with a port", QUrl(kit.base() + QStringLiteral(":443/wp-content/uploads/r.zip")), digest()},
              std::tuple{"release on another host", QUrl(QStringLiteral("https://127.0.0.9/wp-content/uploads/r.zip")), digest()},
              std::tuple{"release outside uploads", kit.url(QStringLiteral("/files/r.zip")), digest()},
              std::tuple{"release not a zip", kit.url(QStringLiteral("/wp-content/uploads/r.tgz")), digest()},
              std::tuple{"digest in upper case", zip(), upper}, std::tuple{"digest of 63 digits", zip(), shortDigest}})
            QTest::newRow(name) << invalid(url, sha) << false << true << QStringList{kFailed} << ""
                                << "Invalid update release";
    }
    void outcome()
    {
        QFETCH(HttpsStub::Answer, answer);
        QFETCH(bool, busy);
        QFETCH(bool, manual);
        QFETCH(QStringList, alerts);
        QFETCH(QString, pending);
        QFETCH(QString, error);
        kit.busy = busy;
        auto u = kit.updater();
        QCOMPARE(runCheck(*u, answer, manual), alerts);
        QCOMPARE(u->pending() ? u->pending()->version : QString(), pending);
        if (error == QLatin1String("*"))
            QVERIFY(!u->lastError().isEmpty());
        else
            QCOMPARE(u->lastError(), error);
        QVERIFY(!u->checking());
        QCOMPARE(kit.server->headers.last().value("cache-control"), QByteArray("no-cache"));
    }

    void alertTexts()
    {
        kit.busy = true;
        auto u = kit.updater();
        runCheck(*u, {200, UpdateKit::feed({release(QStringLiteral("2.0"))})}, true);
        QCOMPARE(kit.alerts.value(0).informative,
                 QStringLiteral("Version 2.0 is ready. Finish recording, calls, and uploads first. We’ll remind you when it’s safe."));
        runCheck(*u, {200, UpdateKit::feed({release(QStringLiteral("1.0"))})}, true);
        QCOMPARE(kit.alerts.value(0).informative,
                 QStringLiteral("Brava Recorder 1.9 is the latest published Linux release."));
        runCheck(*u, {404}, true);
        QCOMPARE(kit.alerts.value(0).informative,
                 QStringLiteral("Your recorder will keep working. Try again when you have internet access."));
    }

    // Busy at the check: the tick's offer comes once the agent is idle, once per version until a
    // manual check clears it.
    void offerWhenIdle()
    {
        kit.busy = true;
        auto u = kit.updater();
        runCheck(*u, {200, UpdateKit::feed({release(QStringLiteral("2.0"))})}, false);
        kit.alerts.clear();
        u->offerPending();
        QVERIFY(kit.alerts.isEmpty());
        kit.busy = false;
        u->offerPending();
        QCOMPARE(kit.alerts.size(), 1);
        QCOMPARE(kit.alerts[0].buttons, (QStringList{QStringLiteral("Download Update"), QStringLiteral("Later")}));
        QCOMPARE(kit.alerts[0].informative,
                 QStringLiteral("Download and verify the update now? Your agent number and settings are kept. "
                                "Installation is prompted; nothing restarts automatically."));
        u->offerPending();
        QCOMPARE(kit.alerts.size(), 1);
        QCOMPARE(runCheck(*u, {200, UpdateKit::feed({release(QStringLiteral("2.0"))})}, false), QStringList{});
        QCOMPARE(runCheck(*u, {200, UpdateKit::feed({release(QStringLiteral("2.0"))})}, true),
                 QStringList{QStringLiteral("Brava Recorder 2.0 is available")});
    }

    void secondCheckWhileOneRuns()
    {
        kit.busy = false;
        auto u = kit.updater();
        kit.alerts.clear();
        kit.server->paths.clear();
        kit.server->route(kFeedPath, {200, UpdateKit::feed({}), {}, true, true});
        QSignalSpy done(u.get(), &AppUpdates::checkFinished);
        u->check(true);
        QTRY_COMPARE_WITH_TIMEOUT(kit.server->paths.size(), 1, 10000);
        u->check(true);
        QVERIFY(u->checking());
        kit.server->release();
        QVERIFY(done.wait(10000));
        QVERIFY(!done.wait(300)); // a second check would have ended by now
        QCOMPARE(kit.server->paths.size(), 1);
        QCOMPARE(kit.alerts.size(), 1);
    }

    void unlockedBuildNeverChecks()
    {
        AppUpdates::Options o;
        o.webBase = kit.base();
        AppUpdates u(kit.net, o);
        u.check(true);
        QVERIFY(!u.checking());
    }
};

QTEST_GUILESS_MAIN(UpdateCheckTest)
#include "tst_update_check.moc"
