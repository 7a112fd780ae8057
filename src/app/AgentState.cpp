#include "AgentState.h"

#include "Announce.h"

AgentState::AgentState(QObject *parent)
    : QObject(parent)
{
}

void AgentState::update(const Values &v)
{
    if (v == m_v)
        return;
    const Values old = m_v;
    m_v = v;
    announce(this, old.linkUp, v.linkUp, &AgentState::linkUpChanged);
    announce(this, old.replaced, v.replaced, &AgentState::replacedChanged);
    if (old.recording != v.recording || old.session != v.session)
        Q_EMIT recordingChanged(v.recording, v.session);
    announce(this, old.live, v.live, &AgentState::liveChanged);
    announce(this, old.previewing, v.previewing, &AgentState::previewingChanged);
    announce(this, old.camerasEnabled, v.camerasEnabled, &AgentState::camerasEnabledChanged);
    if (old.onCall != v.onCall || old.callStart != v.callStart)
        Q_EMIT callChanged(v.onCall, v.callStart);
    announce(this, old.pendingCount, v.pendingCount, &AgentState::pendingCountChanged);
    announce(this, old.lastError, v.lastError, &AgentState::lastErrorChanged);
    announce(this, old.agentID, v.agentID, &AgentState::agentIDChanged);
    announce(this, old.setupDone, v.setupDone, &AgentState::setupDoneChanged);
    Q_EMIT changed();
}

void AgentState::announceWhisper(const QString &text, int seat, const QString &from)
{
    Q_EMIT whisper(text, seat, from);
}

void AgentState::announceSetupNeeded(SetupStep::Step step)
{
    Q_EMIT setupNeeded(step);
}
