#include "StatusMenu.h"

#include <QStringList>

namespace StatusMenu {

namespace {
QString b(bool v) { return v ? QStringLiteral("true") : QStringLiteral("false"); }
} // namespace

QString fingerprint(const State &s)
{
    return QStringList{b(s.camerasEnabled), b(s.isRecording), b(s.live), b(s.connected), b(s.replaced),
                       QString::number(s.agentID), b(s.setupDone), QString::number(s.pendingCount),
                       s.lastError, b(s.onCall), s.updateActivity}
        .join(QLatin1Char('|'));
}

bool callControls(const State &s)
{
    return s.setupDone && s.agentID >= 1 && s.camerasEnabled;
}

QString linkLine(const State &s)
{
    if (s.replaced)
        return QStringLiteral("⚠ Agent number in use on another computer");
    if (s.connected)
        return QStringLiteral("On · Connected to control room");
    return QStringLiteral("⚠ Not connected to control room");
}

QString title(const State &s)
{
    if (s.onCall)
        return QStringLiteral(" On a Call");
    return s.connected ? QStringLiteral(" Brava Recorder ON") : QStringLiteral(" Brava Recorder");
}

QList<Entry> entries(const State &s)
{
    QList<Entry> out;
    out.append({QStringLiteral("Vantorra Recorder · Agent #") + QString::number(s.agentID)});
    out.append({linkLine(s)});
    if (!s.lastError.isEmpty())
        out.append({QStringLiteral("⚠ ") + s.lastError});
    if (s.pendingCount >= 1)
        out.append({QStringLiteral("Uploading %1 file(s)…").arg(s.pendingCount)});
    if (callControls(s)) {
        out.append({s.onCall ? QStringLiteral("⏹  End the Call") : QStringLiteral("🔵  On a Call"), Action::ToggleCall, true});
        if (s.serverLocked)
            out.append({QStringLiteral("💵  Submit a Sale"), Action::SnapSale});
        out.append({QStringLiteral("🙋  Need Help"), Action::NeedHelp});
        out.append({QStringLiteral("⭐  Rate Last Call…"), Action::RateCall});
    }
    out.append({QStringLiteral("Run Setup Again…"), Action::ShowWizard, true});
    out.append({QStringLiteral("Open Local Backup Folder"), Action::OpenFolder});
    if (s.serverLocked)
        out.append({QStringLiteral("Check for Updates…"), Action::CheckUpdates});
    if (s.serverLocked && !s.updateActivity.isEmpty())
        out.append({s.updateActivity}); // below it: how the download it started goes
    out.append({QStringLiteral("Version ") + s.version});
    out.append({QStringLiteral("Uninstall Brava Recorder…"), Action::Uninstall});
    out.append({QStringLiteral("Quit"), Action::Quit, false, QStringLiteral("q")});
    return out;
}

QList<Entry> callEntries(const State &s)
{
    QList<Entry> out{{QStringLiteral("⏹  End the Call"), Action::ToggleCall},
                     {QStringLiteral("⭐  Rate Last Call…"), Action::RateCall},
                     {QStringLiteral("🙋  Need Help"), Action::NeedHelp}};
    if (s.serverLocked)
        out.append({QStringLiteral("💵  Submit a Sale"), Action::SnapSale});
    return out;
}

QString callTimer(qint64 seconds)
{
    return QStringLiteral(" 🔵 On a Call  %1:%2").arg(seconds / 60).arg(seconds % 60, 2, 10, QLatin1Char('0'));
}

} // namespace StatusMenu
