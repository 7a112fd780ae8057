#pragma once

#include <QtGlobal>

#include <optional>

class QRectF;
class QWidget;

// Puts a window on every workspace of an X11 desktop (the EWMH "all desktops" number), which Qt's
// window flags do not ask for, and tells whether see-through windows are drawn. Does nothing on
// other platforms.
namespace X11Desktop {

/// The number of "every workspace" in _NET_WM_DESKTOP.
constexpr quint32 kAllDesktops = 0xFFFFFFFF;

/// Asks for `window` (created, shown or not) on every workspace.
void showOnAllDesktops(QWidget *window);
/// The window's _NET_WM_DESKTOP as set on the X server; nothing off X11 or when unset.
std::optional<quint32> desktopOf(QWidget *window);
/// Whether a compositing manager draws see-through windows (false on X11 without one, true off X11).
bool compositing();
/// Without a compositor, cuts `window` to the rounded rectangle `shape` (its see-through rest
/// would show black); with one, shows it whole.
void cutToRoundedShape(QWidget *window, const QRectF &shape, qreal radius);

} // namespace X11Desktop
