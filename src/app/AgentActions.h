#pragma once

#include <QDateTime>
#include <QString>

#include <functional>

class AgentEvents;

// What the agent can do from the tray menu: mark a call as started or ended, ask the coaches for
// help, open the data folder. Main thread only.
class AgentActions
{
public:
    /// Actions that report through these events.
    explicit AgentActions(AgentEvents &events);

    /// Marks a call as started or ended and tells the control room.
    void toggleCall();
    /// Tells the coaches this agent needs help.
    void needHelp();
    /// Opens the data folder in the file manager.
    void openFolder();

    /// Whether the agent is on a call.
    bool onCall() const { return m_onCall; }
    /// When the call started; invalid when not on a call.
    QDateTime callStart() const { return m_onCall ? m_callStart : QDateTime(); }
    /// Whole seconds since the call started (0 when not on a call).
    qint64 callSeconds() const;

    /// Called when the call state changed (the menu must be drawn again).
    std::function<void()> onCallChanged;
    /// Called with a short confirmation to show in the status title.
    std::function<void(const QString &text)> onConfirm;

private:
    AgentEvents &m_events;
    bool m_onCall = false;
    QDateTime m_callStart;
};
