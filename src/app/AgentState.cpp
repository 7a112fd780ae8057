#include "AgentState.h"

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
    if (old.linkUp != v.linkUp)
        Q_EMIT linkUpChanged(v.linkUp);
    if (old.replaced != v.replaced)
        Q_EMIT replacedChanged(v.replaced);
    if (old.recording != v.recording || old.session != v.session)
        Q_EMIT recordingChanged(v.recording, v.session);
    if (old.live != v.live)
        Q_EMIT liveChanged(v.live);
    if (old.previewing != v.previewing)
        Q_EMIT previewingChanged(v.previewing);
    if (old.camerasEnabled != v.camerasEnabled)
        Q_EMIT camerasEnabledChanged(v.camerasEnabled);
    if (old.onCall != v.onCall || old.callStart != v.callStart)
        Q_EMIT callChanged(v.onCall, v.callStart);
    if (old.pendingCount != v.pendingCount)
        Q_EMIT pendingCountChanged(v.pendingCount);
    if (old.lastError != v.lastError)
        Q_EMIT lastErrorChanged(v.lastError);
    if (old.agentID != v.agentID)
        Q_EMIT agentIDChanged(v.agentID);
    if (old.setupDone != v.setupDone)
        Q_EMIT setupDoneChanged(v.setupDone);
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
