// The release check: the feed over HTTPS, the decision and its alerts, version order, the download
// URL policy and the digest's form.
#include "TestHome.h"
#include "UpdateKit.h"
#include "UpdatePolicy.h"

#include <QtTest>

namespace {
const QString kUpToDate = QStringLiteral("You’re up to date");
const QString kFailed = QStringLiteral("Couldn’t check for updates");
const QString kOffer = QStringLiteral("Brava Recorder 2.0 is available");
const QByteArray kFeedPath = "/wp-json/brava-updates/v1/releases";
const QString kDigest(64, QLatin1Char('a'));

QByteArray feed(const QList<QByteArray> &entries, int schema = 1, const QByteArray &edition = "show")
{
    return "{\"schema\": " + QByteArray::number(schema) + ", \"edition\": \"" + edition + "\", \"extra\": 5, \"releases\": ["
        + entries.join(", ") + "]}";
}
} // namespace

Q_DECLARE_METATYPE(HttpsStub::Answer)

class UpdateCheckTest : public QObject
{
    Q_OBJECT
    TestHome home;
    UpdateKit kit;

    QByteArray release(const QString &version, const QByteArray &tail = ", \"enabled\": true", const QString &url = {},
                       const QString &sha = kDigest, const QByteArray &platform = "linux")
    {
        return "{\"product\": \"recorder\", \"platform\": \"" + platform + "\", \"version\": \"" + version.toUtf8()
            + "\", \"url\": \"" + (url.isEmpty() ? kit.base() + QStringLiteral("/wp-content/uploads/r.zip") : url).toUtf8()
            + "\", \"sha256\": \"" + sha.toUtf8() + "\"" + tail + "}";
    }
    HttpsStub::Answer offering(const QString &version) { return {200, feed({release(version)})}; }
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

    // Each row: the feed's answer, busy, manual → alerts, pending version, internal error ("*": any).
    void outcome_data()
    {
        using A = HttpsStub::Answer;
        QTest::addColumn<A>("answer");
        QTest::addColumn<bool>("busy");
        QTest::addColumn<bool>("manual");
        QTest::addColumn<QStringList>("alerts");
        QTest::addColumn<QString>("pending");
        QTest::addColumn<QString>("error");
        const QStringList none, upToDate{kUpToDate}, failed{kFailed}, offer{kOffer};
        const QString unexpected = QStringLiteral("Unexpected update feed"), down = QStringLiteral("Update service unavailable");
        const QString invalid = QStringLiteral("Invalid update release");
        QTest::newRow("up to date, manual") << offering(QStringLiteral("1.9")) << false << true << upToDate << "" << "";
        QTest::newRow("up to date, automatic") << offering(QStringLiteral("1.9")) << false << false << none << "" << "";
        QTest::newRow("newer, manual") << offering(QStringLiteral("2.0")) << false << true << offer << "2.0" << "";
        QTest::newRow("newer, automatic") << offering(QStringLiteral("2.0")) << false << false << offer << "2.0" << "";
        QTest::newRow("busy, manual") << offering(QStringLiteral("2.0")) << true << true << QStringList{QStringLiteral("Update available")} << "2.0" << "";
        QTest::newRow("busy, automatic") << offering(QStringLiteral("2.0")) << true << false << none << "2.0" << "";
        QTest::newRow("only entry disabled") << A{200, feed({release(QStringLiteral("2.0"), ", \"enabled\": false")})}
                                             << false << true << upToDate << "" << "";
        QTest::newRow("first match counts, older")
            << A{200, feed({release(QStringLiteral("3.0"), ", \"enabled\": false"), release(QStringLiteral("3.0"), ", \"enabled\": true", {}, kDigest, "mac"),
                            release(QStringLiteral("1.5")), release(QStringLiteral("3.0"))})}
            << false << true << upToDate << "" << "";
        QTest::newRow("first match counts, newer") << A{200, feed({release(QStringLiteral("2.0")), release(QStringLiteral("3.0"))})}
                                                   << false << true << offer << "2.0" << "";
        QTest::newRow("schema 2") << A{200, feed({release(QStringLiteral("2.0"))}, 2)} << false << true << failed << "" << unexpected;
        QTest::newRow("other edition") << A{200, feed({release(QStringLiteral("2.0"))}, 1, "rehearsal")} << false << true << failed
                                       << "" << unexpected;
        QTest::newRow("mistyped field") << A{200, feed({release(QStringLiteral("2.0"), ", \"enabled\": 1")})} << false << true << failed
                                        << "" << "feed key \"enabled\" is missing or not a boolean";
        QTest::newRow("status 500") << A{500, feed({})} << false << true << failed << "" << down;
        QTest::newRow("feed of 70 kB") << A{200, feed({release(QStringLiteral("2.0"), ", \"enabled\": true, \"pad\": \"" + QByteArray(70000, 'x') + "\"")})}
                                       << false << true << failed << "" << down;
        QTest::newRow("feed of 70 kB without a length") << A{200, QByteArray(70000, ' ') + feed({}), {}, false} << false << true
                                                        << failed << "" << down;
        QTest::newRow("redirect to http") << A{302, {}, "http://" + kit.host.toLatin1() + kFeedPath} << false << true << failed << "" << "*";
        // Newer releases that break the rules.
        QTest::newRow("release with a port")
            << A{200, feed({release(QStringLiteral("2.0"), ", \"enabled\": true", kit.base() + QStringLiteral(":443/wp-content/uploads/r.zip"))})}
            << false << true << failed << "" << invalid;
        QTest::newRow("digest in upper case") << A{200, feed({release(QStringLiteral("2.0"), ", \"enabled\": true", {}, QString(64, QLatin1Char('A')))})}
                                              << false << true << failed << "" << invalid;
        QTest::newRow("digest of 63 digits") << A{200, feed({release(QStringLiteral("2.0"), ", \"enabled\": true", {}, kDigest.left(63))})}
                                             << false << true << failed << "" << invalid;
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
        QVERIFY(kit.server->heads.last().contains("\r\ncache-control: no-cache\r\n"));
    }

    void alertTexts()
    {
        kit.busy = true;
        auto u = kit.updater();
        for (const auto &[answer, text] :
             {std::pair{offering(QStringLiteral("2.0")), "Version 2.0 is ready. Finish recording, calls, and uploads first. We’ll remind you when it’s safe."},
              std::pair{offering(QStringLiteral("1.0")), "Brava Recorder 1.9 is the latest published Linux release."},
              std::pair{HttpsStub::Answer{404}, "Your recorder will keep working. Try again when you have internet access."}}) {
            runCheck(*u, answer, true);
            QCOMPARE(kit.alerts.value(0).informative, QString::fromUtf8(text));
        }
    }

    // Busy at the check: the tick's offer comes once the agent is idle, once per version until a
    // manual check clears it.
    void offerWhenIdle()
    {
        kit.busy = true;
        auto u = kit.updater();
        runCheck(*u, offering(QStringLiteral("2.0")), false);
        u->offerPending();
        QVERIFY(kit.alerts.isEmpty());
        kit.busy = false;
        u->offerPending();
        u->offerPending();
        QCOMPARE(kit.alerts.size(), 1);
        QCOMPARE(kit.alerts[0].buttons, (QStringList{QStringLiteral("Download Update"), QStringLiteral("Later")}));
        QCOMPARE(kit.alerts[0].informative, QStringLiteral("Download and verify the update now? Your agent number and settings are kept. "
                                                           "Installation is prompted; nothing restarts automatically."));
        QCOMPARE(runCheck(*u, offering(QStringLiteral("2.0")), false), QStringList{});
        QCOMPARE(runCheck(*u, offering(QStringLiteral("2.0")), true), QStringList{kOffer});
    }

    void secondCheckWhileOneRuns()
    {
        kit.busy = false;
        auto u = kit.updater();
        kit.alerts.clear();
        kit.server->paths.clear();
        kit.server->route(kFeedPath, {200, feed({}), {}, true, true});
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
