#include "StatusView.h"

#include "AgentState.h"
#include "TrayView.h"

#include <QTimer>

StatusView::StatusView(const AgentState &state, QObject *parent)
    : QObject(parent)
    , m_state(state)
{
    connect(&m_state, &AgentState::changed, this, &StatusView::refresh);
}

StatusView::~StatusView() = default;

void StatusView::show(std::function<bool(StatusMenu::Action)> isAvailable,
                      std::function<void(StatusMenu::Action)> onAction)
{
    Q_ASSERT(!m_tray);
    m_tray = new TrayView(this);
    m_tray->isAvailable = std::move(isAvailable);
    m_tray->onAction = std::move(onAction);
}

StatusMenu::State StatusView::menuState() const
{
    const AgentState::Values &v = m_state.values();
    StatusMenu::State s;
    s.camerasEnabled = v.camerasEnabled;
    s.isRecording = v.recording;
    s.live = v.live;
    s.connected = v.linkUp;
    s.replaced = v.replaced;
    s.agentID = v.agentID;
    s.setupDone = v.setupDone;
    s.pendingCount = v.pendingCount;
    s.lastError = v.lastError;
    s.onCall = v.onCall;
    s.serverLocked = v.serverLocked;
    s.version = v.version;
    return s;
}

void StatusView::refresh()
{
    if (!m_tray)
        return;
    const StatusMenu::State state = menuState();
    const QString key = StatusMenu::fingerprint(state);
    if (key == m_menuKey)
        return;
    m_menuKey = key;
    m_tray->draw(state);
}

void StatusView::redraw()
{
    m_menuKey.clear();
    refresh();
}

void StatusView::flashStatus(const QString &text)
{
    if (m_tray)
        m_tray->flash(text);
    QTimer::singleShot(kFlashMs, this, [this] { redraw(); });
}

void StatusView::showCallTime(qint64 seconds)
{
    if (m_state.onCall() && m_tray && m_tray->hasCallItem())
        m_tray->setCallTitle(StatusMenu::callTimer(seconds));
}
