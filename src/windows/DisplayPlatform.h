#pragma once

#include <QByteArray>
#include <QString>

// Which Qt platform the agent runs on. Its floating windows must stay above others and be placed
// where the agent put them, which only X11 allows (Wayland lets no application do either), so
// the agent runs on X11, through XWayland on a Wayland session. Decided before the application
// object exists.
namespace DisplayPlatform {

/// What was decided.
struct Choice {
    QByteArray platform;          ///< the platform to ask Qt for; "" leaves it to Qt
    bool floatingWindows = true;  ///< whether the sale widget and its windows can be used
    QString note;                 ///< why not, for the log and the status ("" when they can)
};

/// The choice for this platform setting (QT_QPA_PLATFORM, "" when unset) and X server.
Choice choose(const QByteArray &userPlatform, bool xReachable);
/// Whether an X server answers at $DISPLAY.
bool xServerReachable();
/// The platform theme through which file choosers are the desktop portal's.
inline constexpr char kPortalTheme[] = "xdgdesktopportal";
/// Decides and sets QT_QPA_PLATFORM (and, unless set, QT_QPA_PLATFORMTHEME) for the application
/// about to be made.
Choice applyAtStartup();

} // namespace DisplayPlatform
