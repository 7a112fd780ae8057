#include "X11Desktop.h"

#include <QGuiApplication>
#include <QPainterPath>
#include <QRegion>
#include <QWidget>
#include <QtGui/qguiapplication_platform.h>

#include <xcb/xcb.h>

#include <cstdlib>
#include <cstring>

namespace {

xcb_connection_t *connection()
{
    const auto *x11 = qApp->nativeInterface<QNativeInterface::QX11Application>();
    return x11 ? x11->connection() : nullptr;
}

xcb_atom_t atom(xcb_connection_t *c, const char *name)
{
    xcb_intern_atom_reply_t *reply
        = xcb_intern_atom_reply(c, xcb_intern_atom(c, 0, quint16(std::strlen(name)), name), nullptr);
    const xcb_atom_t a = reply ? reply->atom : xcb_atom_t(XCB_ATOM_NONE);
    std::free(reply);
    return a;
}

} // namespace

namespace X11Desktop {

void showOnAllDesktops(QWidget *window)
{
    xcb_connection_t *c = connection();
    if (!c || !window)
        return;
    const xcb_window_t id = xcb_window_t(window->winId());
    const xcb_atom_t desktop = atom(c, "_NET_WM_DESKTOP");
    if (desktop == XCB_ATOM_NONE)
        return;
    // Read by the window manager when the window is mapped...
    const quint32 all = kAllDesktops;
    xcb_change_property(c, XCB_PROP_MODE_REPLACE, id, desktop, XCB_ATOM_CARDINAL, 32, 1, &all);
    // ...and asked for when it already is.
    const xcb_screen_t *screen = xcb_setup_roots_iterator(xcb_get_setup(c)).data;
    xcb_client_message_event_t msg;
    std::memset(&msg, 0, sizeof msg);
    msg.response_type = XCB_CLIENT_MESSAGE;
    msg.format = 32;
    msg.window = id;
    msg.type = desktop;
    msg.data.data32[0] = kAllDesktops;
    msg.data.data32[1] = 1; // from an application
    xcb_send_event(c, 0, screen->root,
                   XCB_EVENT_MASK_SUBSTRUCTURE_REDIRECT | XCB_EVENT_MASK_SUBSTRUCTURE_NOTIFY,
                   reinterpret_cast<const char *>(&msg));
    xcb_flush(c);
}

std::optional<quint32> desktopOf(QWidget *window)
{
    xcb_connection_t *c = connection();
    if (!c || !window)
        return std::nullopt;
    const xcb_atom_t desktop = atom(c, "_NET_WM_DESKTOP");
    xcb_get_property_reply_t *reply = xcb_get_property_reply(
        c, xcb_get_property(c, 0, xcb_window_t(window->winId()), desktop, XCB_ATOM_CARDINAL, 0, 1), nullptr);
    std::optional<quint32> out;
    if (reply && xcb_get_property_value_length(reply) == 4)
        out = *static_cast<const quint32 *>(xcb_get_property_value(reply));
    std::free(reply);
    return out;
}

bool compositing()
{
    xcb_connection_t *c = connection();
    if (!c)
        return true;
    // A compositing manager owns this selection (for the first screen, as above).
    const xcb_atom_t selection = atom(c, "_NET_WM_CM_S0");
    xcb_get_selection_owner_reply_t *reply = xcb_get_selection_owner_reply(c, xcb_get_selection_owner(c, selection), nullptr);
    const bool owned = reply && reply->owner != XCB_NONE;
    std::free(reply);
    return owned;
}

void cutToRoundedShape(QWidget *window, const QRectF &shape, qreal radius)
{
    if (compositing())
        return window->clearMask();
    QPainterPath path;
    path.addRoundedRect(shape, radius, radius);
    window->setMask(QRegion(path.toFillPolygon().toPolygon()));
}

} // namespace X11Desktop
