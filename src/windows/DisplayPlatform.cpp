#include "DisplayPlatform.h"

#include <xcb/xcb.h>

namespace DisplayPlatform {

Choice choose(const QByteArray &userPlatform, bool xReachable)
{
    if (!userPlatform.isEmpty()) {
        if (userPlatform.startsWith("wayland"))
            return {userPlatform, false,
                    QStringLiteral("QT_QPA_PLATFORM=wayland: the call and sale widget needs X11 and is not shown")};
        return {userPlatform, true, QString()};
    }
    if (xReachable)
        return {QByteArrayLiteral("xcb"), true, QString()};
    return {QByteArray(), false,
            QStringLiteral("no X server reachable: running without the call and sale widget (it needs X11 or XWayland)")};
}

bool xServerReachable()
{
    if (qEnvironmentVariableIsEmpty("DISPLAY"))
        return false;
    xcb_connection_t *c = xcb_connect(nullptr, nullptr);
    const bool ok = c && xcb_connection_has_error(c) == 0;
    if (c)
        xcb_disconnect(c);
    return ok;
}

Choice applyAtStartup()
{
    const QByteArray user = qgetenv("QT_QPA_PLATFORM");
    const Choice choice = choose(user, user.isEmpty() && xServerReachable());
    if (!choice.platform.isEmpty())
        qputenv("QT_QPA_PLATFORM", choice.platform);
    // File choosers are the desktop's own, through the desktop portal: this theme asks the portal
    // for them and keeps the desktop's usual theme for the rest (and Qt's own dialog where no
    // portal answers). A theme the user chose stays.
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORMTHEME"))
        qputenv("QT_QPA_PLATFORMTHEME", kPortalTheme);
    return choice;
}

} // namespace DisplayPlatform
