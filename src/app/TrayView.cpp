#include "TrayView.h"

#include "BravaLog.h"

#include <QGuiApplication>
#include <QIcon>
#include <QMenu>
#include <QPainter>
#include <QPixmap>
#include <QSystemTrayIcon>

namespace {

enum class Look { Connected, OnCall, Disconnected };

// The status icon: sound-wave bars in a circle; blue on a call, plain when connected, an orange
// exclamation mark when the control room is out of reach.
QIcon statusIcon(Look look)
{
    QPixmap pm(44, 44);
    pm.fill(Qt::transparent);
    QPainter p(&pm);
    p.setRenderHint(QPainter::Antialiasing);
    const QColor tint = look == Look::OnCall ? QColor(0, 122, 255)
                        : look == Look::Disconnected ? QColor(255, 149, 0)
                                                     : QColor(230, 230, 230);
    if (look == Look::Disconnected) {
        p.setPen(QPen(tint, 4));
        p.drawEllipse(QRectF(4, 4, 36, 36));
        p.setPen(QPen(tint, 5, Qt::SolidLine, Qt::RoundCap));
        p.drawLine(QPointF(22, 12), QPointF(22, 26));
        p.drawPoint(QPointF(22, 33));
    } else {
        if (look == Look::OnCall) {
            p.setPen(Qt::NoPen);
            p.setBrush(tint);
            p.drawEllipse(QRectF(2, 2, 40, 40));
        }
        p.setPen(QPen(look == Look::OnCall ? QColor(Qt::white) : tint, 4, Qt::SolidLine, Qt::RoundCap));
        const int heights[] = {8, 18, 26, 18, 8};
        for (int i = 0; i < 5; ++i) {
            const qreal x = 10 + i * 6;
            p.drawLine(QPointF(x, 22 - heights[i] / 2.0), QPointF(x, 22 + heights[i] / 2.0));
        }
    }
    return QIcon(pm);
}

} // namespace

TrayView::TrayView(QObject *parent)
    : QObject(parent)
    , m_menu(new QMenu)
    , m_callMenu(new QMenu)
{
    // The icon is made even without a tray: it appears if a tray host starts later.
    m_icon = new QSystemTrayIcon(statusIcon(Look::Disconnected), this);
    m_icon->setContextMenu(m_menu);
    m_icon->show();
    if (!QSystemTrayIcon::isSystemTrayAvailable())
        bravaLog(QStringLiteral("no system tray on this desktop: running without a menu"));
}

TrayView::~TrayView()
{
    delete m_menu;
    delete m_callMenu;
}

void TrayView::setTitle(const QString &title)
{
    m_title = title;
    if (m_icon)
        m_icon->setToolTip(QStringLiteral("Brava Recorder —") + title);
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
    const Look look = !state.connected ? Look::Disconnected : state.onCall ? Look::OnCall : Look::Connected;
    if (m_icon)
        m_icon->setIcon(statusIcon(look));
    setTitle(StatusMenu::title(state));
    fill(m_menu, StatusMenu::entries(state));

    // The call item appears on a call with the call controls shown, and stays until the call
    // ends: controls hidden mid-call (cameras switched off) must not take away "End the Call".
    if (state.onCall) {
        if (StatusMenu::callControls(state) || m_callIcon)
            fill(m_callMenu, StatusMenu::callEntries(state));
        if (StatusMenu::callControls(state) && !m_callIcon) {
            m_callIcon = new QSystemTrayIcon(statusIcon(Look::OnCall), this);
            m_callIcon->setContextMenu(m_callMenu);
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
    setTitle(QStringLiteral(" ") + text);
    if (m_icon && QSystemTrayIcon::supportsMessages())
        m_icon->showMessage(QStringLiteral("Brava Recorder"), text, QSystemTrayIcon::Information, 1600);
}

void TrayView::setCallTitle(const QString &title)
{
    if (m_callIcon)
        m_callIcon->setToolTip(title);
}
