#pragma once

#include <QList>
#include <QString>

// What the tray menu shows for one state of the agent, and the fingerprint that decides whether
// the menu needs drawing again. Pure: no widgets here.
namespace StatusMenu {

enum class Action { None, ToggleCall, SnapSale, NeedHelp, RateCall, ShowWizard, OpenFolder, CheckUpdates, Uninstall, Quit };

struct State {
    bool camerasEnabled = false;
    bool isRecording = false;
    bool live = false;
    bool connected = false;
    bool replaced = false;
    int agentID = 0;
    bool setupDone = false;
    int pendingCount = 0;
    QString lastError; // "" when none
    bool onCall = false;
    bool serverLocked = false;
    QString version;
    QString updateActivity; // a running update download, "" when none
};

struct Entry {
    QString title;
    Action action = Action::None;
    bool separatorBefore = false;
    QString shortcut; // key equivalent, "" for none
};

/// The values that decide what is drawn, joined with "|".
QString fingerprint(const State &s);
/// The main menu, top to bottom.
QList<Entry> entries(const State &s);
/// The on-call item's own menu.
QList<Entry> callEntries(const State &s);
/// Whether the call controls are offered (setup done, agent number set, cameras enabled).
bool callControls(const State &s);
/// The second line of the menu: link state.
QString linkLine(const State &s);
/// Title of the status item.
QString title(const State &s);
/// " 🔵 On a Call  m:ss" for a call of this many whole seconds.
QString callTimer(qint64 seconds);

} // namespace StatusMenu
