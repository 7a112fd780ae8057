#pragma once

#include "StatusMenu.h"
#include "TrayTip.h"

#include <QObject>

#include <functional>

class QMenu;
class QSystemTrayIcon;

// Draws the agent's state in the system tray: the status icon with its menu and, while on a call,
// a second icon with the call controls; a left click opens the same menu as a right one. On a desktop without a tray the menus are still kept up
// to date (and can be shown elsewhere), and the agent logs once that it has no tray.
class TrayView : public QObject
{
    Q_OBJECT
public:
    explicit TrayView(QObject *parent = nullptr);
    ~TrayView() override;

    /// Redraws icon, title and menus for this state.
    void draw(const StatusMenu::State &state);
    /// Shows a short confirmation as the status title and a tray message; "" ends it.
    void flash(const QString &text);
    /// The confirmation being shown, "" when none.
    QString flashText() const { return m_flash; }
    /// Sets the icon's tooltip (TrayTip::text).
    void setTip(const QString &tip);
    /// The tooltip as last set.
    QString tip() const { return m_tip; }
    /// The icon last drawn.
    TrayTip::Look look() const { return m_look; }
    /// Why nothing shows the agent's state here ("" while a tray shows the icon).
    QString note() const;
    /// The status icon (its geometry places it on the screen).
    QSystemTrayIcon *icon() const { return m_icon; }
    /// Sets the on-call item's title (the running call timer).
    void setCallTitle(const QString &title);
    /// The on-call item while it exists (its own handset icon), else null.
    QSystemTrayIcon *callItem() const { return m_callIcon; }

    /// The main menu as last drawn.
    QMenu *menu() const { return m_menu; }
    /// The current status title.
    QString title() const { return m_title; }
    /// How many times draw() ran.
    int drawCount() const { return m_drawCount; }

    /// Whether an action can be triggered now; actions that cannot are shown disabled.
    std::function<bool(StatusMenu::Action)> isAvailable;
    /// Called when the user picks a menu action.
    std::function<void(StatusMenu::Action)> onAction;

private:
    void fill(QMenu *menu, const QList<StatusMenu::Entry> &entries);
    void setTitle(const QString &title);
    void opensOnLeftClick(QSystemTrayIcon *icon, QMenu *menu);

    QSystemTrayIcon *m_icon = nullptr;
    QSystemTrayIcon *m_callIcon = nullptr;
    QMenu *m_menu = nullptr;
    QMenu *m_callMenu = nullptr;
    QString m_title;
    QString m_tip;
    QString m_flash;
    TrayTip::Look m_look = TrayTip::Look::NotConnected;
    int m_drawCount = 0;
};
