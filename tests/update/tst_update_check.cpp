// The release check: the feed over HTTPS, the decision and its alerts, version order, the download
// URL policy and the digest's form.
#include "TestHome.h"
#include "TestLiterals.h"
#include "UpdateKit.h"
#include "UpdatePolicy.h"

#include <QtTest>

namespace {
const QString kOffer = QStringLiteral("Brava Recorder 2.0 is available");
const QByteArray kFeedPath = "/wp-json/brava-updates/v1/releases";
const QByteArray kDigest(64, 'a');

QByteArray feed(const QList<QByteArray> &entries, int schema = 1, const QByteArray &edition = "show")
{
    return "{\"schema\": " + QByteArray::number(schema) + ", \"edition\": \"" + edition + "\", \"extra\": 5, \"releases\": ["
        + entries.join(", ") + "]}";
}
} // namespace

class UpdateCheckTest : public QObject
{
    Q_OBJECT
    TestHome home;
    UpdateKit kit;

    // A release entry; `tail` follows the digest.
    QByteArray release(const QByteArray &version, const QByteArray &tail = ", \"enabled\": true", const QByteArray &url = {},
                       const QByteArray &sha = kDigest, const QByteArray &platform = "linux")
    {
        return "{\"product\": \"recorder\", \"platform\": \"" + platform + "\", \"version\": \"" + version + "\", \"url\": \""
            + (url.isEmpty() ? kit.base().toUtf8() + "/wp-content/uploads/r.zip" : url) + "\", \"sha256\": \"" + sha + "\"" + tail + "}";
    }
    HttpsStub::Answer offering(const QByteArray &version, const QByteArray &tail = ", \"enabled\": true", const QByteArray &url = {},
                               const QByteArray &sha = kDigest)
    {
        return {200, feed({release(version, tail, url, sha)})};
    }
    // One check against this answer; returns the alerts' messages, each alert's text checked.
    QStringList runCheck(AppUpdates &u, const HttpsStub::Answer &answer, bool manual)
    {
        static const QHash<QString, QString> texts{
            {QStringLiteral("You’re up to date"), QStringLiteral("Brava Recorder 1.9 is the latest published Linux release.")},
            {QStringLiteral("Update available"), QStringLiteral("Version 2.0 is ready. Finish recording, calls, and uploads first. We’ll remind you when it’s safe.")},
            {QStringLiteral("Couldn’t check for updates"), QStringLiteral("Your recorder will keep working. Try again when you have internet access.")},
            {kOffer, QStringLiteral("Download and verify the update now? Your agent number and settings are kept. Installation is prompted; nothing restarts automatically.")}};
        kit.alerts.clear();
        kit.server->route(kFeedPath, answer);
        QSignalSpy done(&u, &AppUpdates::checkFinished);
        u.check(manual);
        if (!done.wait(20000))
            return {QStringLiteral("no end")};
        QStringList messages;
        for (const Alert &a : std::as_const(kit.alerts)) {
            messages.append(a.message);
            if (texts.value(a.message) != a.informative)
                messages.append(QLatin1String("unexpected text: ") + a.informative);
        }
        return messages;
    }

private Q_SLOTS:
    void initTestCase()
    {
        if (!kit.unavailable.isEmpty())
            QSKIP(qPrintable(kit.unavailable));
    }

    // Version order, and the only download addresses the policy allows.
    void versionOrderAndUrlPolicy()
    {
        const struct { const char *a, *b; bool newer; } rows[] = {
            {"1.10", "1.9", true}, {"1.9", "1.10", false}, {"1.2", "1.2", false}, {"1.2.1", "1.2", true}, {"1.2", "1.2.1", false},
            {"1.100000000000000000001", "1.99999999999999999999", true}, {"1.02", "1.2", false}, {"1.0b", "1.0a", true}, {"", "1", false}};
        for (const auto &r : rows)
            QVERIFY2(AppUpdates::newer(QString::fromUtf8(r.a), QString::fromUtf8(r.b)) == r.newer, r.a);
        const QString host = QStringLiteral("web.test");
        QVERIFY(UpdatePolicy::allowed(QUrl(QStringLiteral("https://web.test/wp-content/uploads/2026/r.zip")), host));
        for (const char *url : {"http://web.test/wp-content/uploads/r.zip", "https://evil.test/wp-content/uploads/r.zip", "https://a.web.test/wp-content/uploads/r.zip",
                                "https://web.test:443/wp-content/uploads/r.zip", "https://web.test:8443/wp-content/uploads/r.zip", "https://u@web.test/wp-content/uploads/r.zip",
                                "https://u:p@web.test/wp-content/uploads/r.zip", "https://web.test/wp-content/r.zip", "https://web.test/wp-content/uploads/../r.zip",
                                "https://web.test/wp-content/uploads/%2e%2E/r.zip", "https://web.test/wp-content/uploads/r.tar"})
            QVERIFY2(!UpdatePolicy::allowed(QUrl(QString::fromUtf8(url)), host), url);
    }

    // Each row: its name, the feed's answer, busy, manual → alerts, pending version, internal error.
    void outcome()
    {
        using A = HttpsStub::Answer;
        const QStringList none, upToDate{QStringLiteral("You’re up to date")}, failed{QStringLiteral("Couldn’t check for updates")}, offer{kOffer};
        const QString unexpected = QStringLiteral("Unexpected update feed"), down = QStringLiteral("Update service unavailable"), invalid = QStringLiteral("Invalid update release");
        const struct { const char *name; A answer; bool busy, manual; QStringList alerts; QString pending, error; } rows[] = {
            {"up to date, manual", offering("1.9"), false, true, upToDate, {}, {}},
            {"up to date, automatic", offering("1.9"), false, false, none, {}, {}},
            {"newer, manual", offering("2.0"), false, true, offer, QStringLiteral("2.0"), {}},
            {"newer, automatic", offering("2.0"), false, false, offer, QStringLiteral("2.0"), {}},
            {"busy, manual", offering("2.0"), true, true, strings({"Update available"}), QStringLiteral("2.0"), {}},
            {"busy, automatic", offering("2.0"), true, false, none, QStringLiteral("2.0"), {}},
            {"only entry disabled", offering("2.0", ", \"enabled\": false"), false, true, upToDate, {}, {}},
            {"first match counts, older", A{200, feed({release("3.0", ", \"enabled\": false"), release("3.0", ", \"enabled\": true", {}, kDigest, "mac"), release("1.5"), release("3.0")})}, false, true, upToDate, {}, {}},
            {"first match counts, newer", A{200, feed({release("2.0"), release("3.0")})}, false, true, offer, QStringLiteral("2.0"), {}},
            {"schema 2", A{200, feed({release("2.0")}, 2)}, false, true, failed, {}, unexpected},
            {"other edition", A{200, feed({release("2.0")}, 1, "rehearsal")}, false, true, failed, {}, unexpected},
            {"mistyped field", offering("2.0", ", \"enabled\": 1"), false, true, failed, {}, QStringLiteral("feed key \"enabled\" is missing or not a boolean")},
            {"status 500", A{500, feed({})}, false, true, failed, {}, down},
            {"feed of 70 kB", offering("2.0", ", \"enabled\": true, \"pad\": \"" + QByteArray(70000, 'x') + "\""), false, true, failed, {}, down},
            {"feed of 70 kB without a length", A{200, QByteArray(70000, ' ') + feed({}), {}, false}, false, true, failed, {}, down},
            {"redirect to http", A{302, {}, "http://" + kit.host.toLatin1() + kFeedPath}, false, true, failed, {}, down},
            // Newer releases that break the rules.
            {"release with a port", offering("2.0", ", \"enabled\": true", kit.base().toUtf8() + ":443/wp-content/uploads/r.zip"), false, true, failed, {}, invalid},
            {"digest in upper case", offering("2.0", ", \"enabled\": true", {}, QByteArray(64, 'A')), false, true, failed, {}, invalid},
            {"version with a slash", offering("2.0/x"), false, true, failed, {}, invalid},
            {"version of 33 characters", offering("2." + QByteArray(31, '1')), false, true, failed, {}, invalid},
            {"version of 32 characters", offering("2.0-rc_1+b." + QByteArray(21, 'x')), true, false, none, QString(QLatin1String("2.0-rc_1+b.") + QString(21, u'x')), {}},
            {"digest of 63 digits", offering("2.0", ", \"enabled\": true", {}, kDigest.left(63)), false, true, failed, {}, invalid}};
        for (const auto &r : rows) {
            qInfo("%s", r.name);
            kit.busy = r.busy;
            auto u = kit.updater();
            QCOMPARE(runCheck(*u, r.answer, r.manual), r.alerts);
            QCOMPARE(u->pending() ? u->pending()->version : QString(), r.pending);
            QCOMPARE(u->lastError(), r.error);
            QVERIFY(!u->checking());
            QVERIFY(kit.server->heads.last().contains("\r\ncache-control: no-cache\r\n"));
        }
    }

    // Busy at the check: the tick's offer comes once the agent is idle, once per version until a
    // manual check clears it.
    void offerWhenIdle()
    {
        kit.busy = true;
        auto u = kit.updater();
        runCheck(*u, offering("2.0"), false);
        u->offerPending();
        QVERIFY(kit.alerts.isEmpty());
        kit.busy = false;
        u->offerPending();
        u->offerPending();
        QCOMPARE(kit.alerts.size(), 1);
        QCOMPARE(kit.alerts[0].buttons, (strings({"Download Update", "Later"})));
        QCOMPARE(runCheck(*u, offering("2.0"), false), QStringList{});
        QCOMPARE(runCheck(*u, offering("2.0"), true), QStringList{kOffer});
    }

    // One check at a time, and none from an unlocked build.
    void secondCheckWhileOneRunsAndUnlockedBuild()
    {
        auto u = kit.updater();
        QSignalSpy done(u.get(), &AppUpdates::checkFinished);
        kit.alerts.clear();
        kit.server->heads.clear();
        kit.server->route(kFeedPath, offering("1.0"));
        u->check(true);
        u->check(true); // the first one's request is still on its way
        QVERIFY(done.wait(10000));
        QVERIFY(!done.wait(300)); // a second check would have ended by now
        QCOMPARE(kit.server->heads.size(), 1);
        QCOMPARE(kit.alerts.size(), 1);
        AppUpdates::Options o;
        o.webBase = kit.base();
        AppUpdates unlocked(kit.net, o);
        unlocked.check(true);
        QVERIFY(!unlocked.checking());
    }

    // A locked build without an event web service: the automatic check ends quietly, a manual
    // one says it could not check.
    void noFeedConfigured()
    {
        AppUpdates::Options o{.serverLocked = true, .webBase = {}, .runningVersion = QStringLiteral("1.9")};
        for (const bool manual : {false, true}) {
            AppUpdates u(kit.net, o);
            QStringList alerts;
            u.ask = [&alerts](const Alert &a, std::function<void(int)>) { alerts.append(a.message); };
            QSignalSpy done(&u, &AppUpdates::checkFinished);
            u.check(manual);
            QVERIFY(done.wait(10000));
            QCOMPARE(u.lastError(), manual ? QStringLiteral("Update service unavailable") : QString());
            QCOMPARE(alerts, manual ? QStringList{QStringLiteral("Couldn’t check for updates")} : QStringList{});
        }
    }
};

QTEST_GUILESS_MAIN(UpdateCheckTest)
#include "tst_update_check.moc"
