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
    s.updateActivity = v.updateActivity;
    return s;
}

TrayTip::Facts StatusView::tipFacts() const
{
    const AgentState::Values &v = m_state.values();
    TrayTip::Facts f;
    f.address = v.server;
    f.linkFailure = v.linkFailure;
    if (v.recording)
        f.session = v.session;
    f.previewing = v.previewing;
    f.callSeconds = v.onCall ? m_callSeconds : -1;
    f.flash = m_tray ? m_tray->flashText() : QString();
    return f;
}

void StatusView::refresh()
{
    if (!m_tray)
        return;
    const StatusMenu::State state = menuState();
    m_tray->setTip(TrayTip::text(state, tipFacts()));
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
    if (!m_tray)
        return;
    m_tray->flash(text);
    refresh(); // the tooltip says it too
    QTimer::singleShot(kFlashMs, this, [this, text] {
        if (m_tray->flashText() == text)
            m_tray->flash(QString());
        redraw();
    });
}

void StatusView::showCallTime(qint64 seconds)
{
    m_callSeconds = seconds;
    if (m_state.onCall() && m_tray && m_tray->callItem())
        m_tray->setCallTitle(StatusMenu::callTimer(seconds));
}
