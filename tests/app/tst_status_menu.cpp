#include "Heartbeat.h"
#include "JsonKeys.h"
#include "StatusMenu.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QtTest>

using StatusMenu::Action;

namespace {
StatusMenu::State ready()
{
    StatusMenu::State s;
    s.camerasEnabled = true;
    s.connected = true;
    s.agentID = 12;
    s.setupDone = true;
    s.version = QStringLiteral("2.5");
    return s;
}

QStringList titles(const QList<StatusMenu::Entry> &entries)
{
    QStringList out;
    for (const auto &e : entries)
        out.append(e.title);
    return out;
}
} // namespace

class StatusMenuTest : public QObject
{
    Q_OBJECT
private slots:
    void fingerprintCoversEveryDrawnValue()
    {
        const StatusMenu::State base = ready();
        const QString key = StatusMenu::fingerprint(base);
        QCOMPARE(key, QStringLiteral("true|false|false|true|false|12|true|0||false"));
        // Each value that changes what is drawn changes the fingerprint.
        QList<std::function<void(StatusMenu::State &)>> changes{
            [](auto &s) { s.camerasEnabled = false; }, [](auto &s) { s.isRecording = true; },
            [](auto &s) { s.live = true; },            [](auto &s) { s.connected = false; },
            [](auto &s) { s.replaced = true; },        [](auto &s) { s.agentID = 13; },
            [](auto &s) { s.setupDone = false; },      [](auto &s) { s.pendingCount = 1; },
            [](auto &s) { s.lastError = QStringLiteral("x"); }, [](auto &s) { s.onCall = true; },
        };
        for (const auto &change : changes) {
            StatusMenu::State s = base;
            change(s);
            QVERIFY(StatusMenu::fingerprint(s) != key);
        }
    }

    void fullMenuOfAConnectedAgent()
    {
        StatusMenu::State s = ready();
        s.pendingCount = 3;
        s.lastError = QStringLiteral("No microphone found");
        QCOMPARE(titles(StatusMenu::entries(s)),
                 (QStringList{"Vantorra Recorder · Agent #12", "On · Connected to control room", "⚠ No microphone found",
                              "Uploading 3 file(s)…", "🔵  On a Call", "🙋  Need Help", "⭐  Rate Last Call…",
                              "Run Setup Again…", "Open Local Backup Folder", "Version 2.5", "Uninstall Brava Recorder…",
                              "Quit"}));
        const auto entries = StatusMenu::entries(s);
        QCOMPARE(entries.last().shortcut, QStringLiteral("q"));
        QCOMPARE(entries[4].action, Action::ToggleCall);
        QVERIFY(entries[4].separatorBefore);
        QCOMPARE(entries[0].action, Action::None);
    }

    void lockedBuildOffersSaleAndUpdates()
    {
        StatusMenu::State s = ready();
        s.serverLocked = true;
        s.onCall = true;
        const QStringList t = titles(StatusMenu::entries(s));
        QVERIFY(t.contains("⏹  End the Call"));
        QVERIFY(t.contains("💵  Submit a Sale"));
        QVERIFY(t.contains("Check for Updates…"));
        QCOMPARE(titles(StatusMenu::callEntries(s)),
                 (QStringList{"⏹  End the Call", "⭐  Rate Last Call…", "🙋  Need Help", "💵  Submit a Sale"}));
    }

    void callControlsNeedNumberSetupAndCameras()
    {
        for (int variant = 0; variant < 3; ++variant) {
            StatusMenu::State s = ready();
            if (variant == 0)
                s.agentID = 0;
            if (variant == 1)
                s.setupDone = false;
            if (variant == 2)
                s.camerasEnabled = false;
            const QStringList t = titles(StatusMenu::entries(s));
            QVERIFY(!t.contains("🔵  On a Call"));
            QVERIFY(!t.contains("🙋  Need Help"));
            QVERIFY(t.contains("Run Setup Again…"));
        }
    }

    void linkLineAndTitle()
    {
        StatusMenu::State s = ready();
        QCOMPARE(StatusMenu::title(s), QStringLiteral(" Brava Recorder ON"));
        s.connected = false;
        QCOMPARE(StatusMenu::linkLine(s), QStringLiteral("⚠ Not connected to control room"));
        QCOMPARE(StatusMenu::title(s), QStringLiteral(" Brava Recorder"));
        s.replaced = true;
        QCOMPARE(StatusMenu::linkLine(s), QStringLiteral("⚠ Agent number in use on another computer"));
        s.onCall = true;
        QCOMPARE(StatusMenu::title(s), QStringLiteral(" On a Call"));
    }

    void callTimerTurnsTheMinute()
    {
        QCOMPARE(StatusMenu::callTimer(0), QStringLiteral(" 🔵 On a Call  0:00"));
        QCOMPARE(StatusMenu::callTimer(59), QStringLiteral(" 🔵 On a Call  0:59"));
        QCOMPARE(StatusMenu::callTimer(60), QStringLiteral(" 🔵 On a Call  1:00"));
        QCOMPARE(StatusMenu::callTimer(61 * 60 + 5), QStringLiteral(" 🔵 On a Call  61:05"));
    }

    void heartbeatKeysTypesAndOrder()
    {
        Heartbeat::Values v;
        v.mic = 0.25;
        v.mics = {{QStringLiteral("a"), QStringLiteral("Mic \"A\""), false, true}};
        v.camError = QStringLiteral("Webcam is busy (another app may be using it)");
        const QByteArray text = Heartbeat::message(v).toJson();
        QCOMPARE(topLevelJsonKeys(QString::fromUtf8(text)),
                 (QStringList{"type", "updateBusy", "recording", "live", "mic", "sys", "rate", "cam", "camActive",
                              "camError", "micName", "mics", "cams", "micUID", "camUID", "error"}));
        const QJsonObject o = QJsonDocument::fromJson(text).object();
        QCOMPARE(o.value("type").toString(), QStringLiteral("status"));
        QVERIFY(o.value("updateBusy").isBool());
        QCOMPARE(o.value("mic").toDouble(), 0.25);
        QVERIFY(text.contains("\"rate\":48000,"));
        QCOMPARE(o.value("camError").toString(), v.camError.value());
        QVERIFY(o.value("error").isNull());
        QCOMPARE(o.value("mics").toArray().first().toObject().value("name").toString(), QStringLiteral("Mic \"A\""));
        QCOMPARE(o.value("mics").toArray().first().toObject().keys(), (QStringList{"name", "uid"}));
        QVERIFY(o.value("cams").isArray());
    }
};

QTEST_GUILESS_MAIN(StatusMenuTest)
#include "tst_status_menu.moc"
