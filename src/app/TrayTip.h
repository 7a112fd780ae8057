#pragma once

#include "StatusMenu.h"

#include <QString>

#include <optional>

// What the tray icon says about the agent, readable from the tray alone: which icon to show, and
// the tooltip in words (title, link, recording, live listening, preview, call time, last error).
// Pure: no widgets here.
namespace TrayTip {

/// The states the icon tells apart, one icon file each.
enum class Look { NotConnected, Connected, Recording, Listening, OnCall, Error };

/// What the tooltip needs beyond the menu's state.
struct Facts {
    QString address;                // the control room's host:port, "" when none is set
    QString linkFailure;            // why the link last failed to open, "" when not known
    std::optional<QString> session; // the session being recorded
    bool previewing = false;        // the control room looks at the camera
    qint64 callSeconds = -1;        // length of the current call, below 0 when not on a call
    QString flash;                  // a short confirmation shown first, "" when none
};

/// The icon for a state: not connected, then an error, recording, on a call, listening, connected.
Look look(const StatusMenu::State &s);
/// The resource path of a look's icon (":/icons/…svg").
QString iconPath(Look look);
/// The tooltip, one fact a line.
QString text(const StatusMenu::State &s, const Facts &f);

} // namespace TrayTip
