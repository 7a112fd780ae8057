#include "TrayView.h"

#include "BravaLog.h"
#include "TrayTip.h"

#include <QCursor>
#include <QIcon>
#include <QMenu>
#include <QSystemTrayIcon>

TrayView::TrayView(QObject *parent)
    : QObject(parent)
    , m_menu(new QMenu)
    , m_callMenu(new QMenu)
{
    // The icon is made even without a tray: it appears if a tray host starts later.
    m_icon = new QSystemTrayIcon(QIcon(TrayTip::iconPath(TrayTip::Look::NotConnected)), this);
    m_icon->setContextMenu(m_menu);
    opensOnLeftClick(m_icon, m_menu);
    m_icon->show();
    if (!note().isEmpty())
        bravaLog(note());
}

QString TrayView::note() const
{
    return QSystemTrayIcon::isSystemTrayAvailable() ? QString() : QStringLiteral("no system tray on this desktop: running without a menu");
}

TrayView::~TrayView()
{
    delete m_menu;
    delete m_callMenu;
}

void TrayView::opensOnLeftClick(QSystemTrayIcon *icon, QMenu *menu)
{
    // Most people click the icon first: the same menu as the right button.
    connect(icon, &QSystemTrayIcon::activated, this, [menu](QSystemTrayIcon::ActivationReason reason) {
        if (reason == QSystemTrayIcon::Trigger)
            menu->popup(QCursor::pos());
    });
}

void TrayView::setTitle(const QString &title)
{
    m_title = title;
}

void TrayView::setTip(const QString &tip)
{
    if (tip == m_tip)
        return;
    m_tip = tip;
    if (m_icon)
        m_icon->setToolTip(tip);
}

void TrayView::fill(QMenu *menu, const QList<StatusMenu::Entry> &entries)
{
    menu->clear();
    for (const StatusMenu::Entry &e : entries) {
        if (e.separatorBefore)
            menu->addSeparator();
        QAction *a = menu->addAction(e.title);
        const bool usable = e.action != StatusMenu::Action::None && (!isAvailable || isAvailable(e.action));
        a->setEnabled(usable);
        if (!e.shortcut.isEmpty())
            a->setShortcut(QKeySequence(QStringLiteral("Ctrl+") + e.shortcut.toUpper()));
        if (usable) {
            const StatusMenu::Action action = e.action;
            connect(a, &QAction::triggered, this, [this, action] {
                if (onAction)
                    onAction(action);
            });
        }
    }
}

void TrayView::draw(const StatusMenu::State &state)
{
    ++m_drawCount;
    m_look = TrayTip::look(state);
    if (m_icon)
        m_icon->setIcon(QIcon(TrayTip::iconPath(m_look)));
    if (m_flash.isEmpty())
        setTitle(StatusMenu::title(state));
    fill(m_menu, StatusMenu::entries(state));

    // The call item appears on a call with the call controls shown, and stays until the call
    // ends: controls hidden mid-call (cameras switched off) must not take away "End the Call".
    if (state.onCall) {
        if (StatusMenu::callControls(state) || m_callIcon)
            fill(m_callMenu, StatusMenu::callEntries(state));
        if (StatusMenu::callControls(state) && !m_callIcon) {
            m_callIcon = new QSystemTrayIcon(QIcon(QStringLiteral(":/icons/call.svg")), this); // a handset: not the main icon's look
            m_callIcon->setContextMenu(m_callMenu);
            opensOnLeftClick(m_callIcon, m_callMenu);
            m_callIcon->setToolTip(QStringLiteral(" 🔵 On a Call"));
            m_callIcon->show();
        }
    } else if (m_callIcon) {
        m_callIcon->hide();
        m_callIcon->deleteLater();
        m_callIcon = nullptr;
    }
}

void TrayView::flash(const QString &text)
{
    m_flash = text;
    if (text.isEmpty())
        return;
    setTitle(QStringLiteral(" ") + text);
    if (m_icon && QSystemTrayIcon::supportsMessages())
        m_icon->showMessage(QStringLiteral("Brava Recorder"), text, QSystemTrayIcon::Information, 1600);
}

void TrayView::setCallTitle(const QString &title)
{
    if (m_callIcon)
        m_callIcon->setToolTip(title);
}
