#pragma once

#include "SetupStep.h"

#include <QDateTime>
#include <QObject>
#include <QString>

// The agent's state as windows see it: a narrow, read-only view that the controller owns and
// keeps current, handed to each window as `const AgentState &`. Windows read the getters and
// connect to the signals; they act through the controller's actions, never through this view.
//
//   const AgentState &state = controller.state();
//   connect(&state, &AgentState::recordingChanged, this, [this](bool on, const QString &session) { … });
//   connect(&state, &AgentState::whisper, card, &WhisperCard::show);
//   connect(&state, &AgentState::setupNeeded, this, [](SetupStep::Step step) { … });
//
// Each xChanged signal comes once per real change, after every value of the same update is in
// place (a listener may read the other getters); changed() follows once per update that changed
// anything. whisper and setupNeeded are events, not state. Main thread only.
class AgentState : public QObject
{
    Q_OBJECT
public:
    /// Everything the view holds; the controller fills one and hands it to update().
    struct Values
    {
        bool linkUp = false;           ///< the link to the control room is open
        bool replaced = false;         ///< the control room said another computer took this number
        QString server;                ///< the control room's host:port ("" when none is set)
        QString linkFailure;           ///< why the link last failed to open ("" when not known)
        bool recording = false;        ///< a take with a session runs
        QString session;               ///< the session being recorded ("" when not recording)
        bool live = false;             ///< live audio goes to the control room
        bool previewing = false;       ///< preview pictures go to the control room
        bool camerasEnabled = false;   ///< the control room has switched cameras on
        bool onCall = false;           ///< the agent marked a call as started
        QDateTime callStart;           ///< when the call started (invalid when not on a call)
        int pendingCount = 0;          ///< segment files waiting for upload
        QString lastError;             ///< the capture problem shown ("" when fine)
        int agentID = 0;               ///< the agent number (0 = none)
        bool setupDone = false;        ///< setup has been completed
        bool serverLocked = false;     ///< this build fixes the control-room address
        QString version;               ///< the build's marketing version
        QString updateActivity;        ///< what a running update download does ("" when none)
        bool operator==(const Values &) const = default;
    };

    /// A view holding the defaults of Values.
    explicit AgentState(QObject *parent = nullptr);

    /// The link to the control room is open.
    bool linkUp() const { return m_v.linkUp; }
    /// The control room said another computer took this agent number.
    bool replaced() const { return m_v.replaced; }
    /// A take with a session runs.
    bool recording() const { return m_v.recording; }
    /// The session being recorded, "" when not recording.
    QString session() const { return m_v.session; }
    /// Live audio goes to the control room.
    bool live() const { return m_v.live; }
    /// Preview pictures go to the control room.
    bool previewing() const { return m_v.previewing; }
    /// The control room has switched cameras on.
    bool camerasEnabled() const { return m_v.camerasEnabled; }
    /// The agent is on a call.
    bool onCall() const { return m_v.onCall; }
    /// When the current call started; invalid when not on a call.
    QDateTime callStart() const { return m_v.callStart; }
    /// Segment files waiting for upload.
    int pendingCount() const { return m_v.pendingCount; }
    /// The capture problem as shown, "" when fine.
    QString lastError() const { return m_v.lastError; }
    /// The agent number, 0 when none.
    int agentID() const { return m_v.agentID; }
    /// Setup has been completed.
    bool setupDone() const { return m_v.setupDone; }
    /// This build fixes the control-room address.
    bool serverLocked() const { return m_v.serverLocked; }
    /// The build's marketing version.
    QString version() const { return m_v.version; }
    /// All values at once.
    const Values &values() const { return m_v; }

    /// Controller only: takes new values and announces each that changed.
    void update(const Values &values);
    /// Controller only: announces a whisper from the control room.
    void announceWhisper(const QString &text, int seat, const QString &from);
    /// Controller only: announces that the agent must go through setup at `step`.
    void announceSetupNeeded(SetupStep::Step step);

Q_SIGNALS:
    void linkUpChanged(bool up);
    void replacedChanged(bool replaced);
    void recordingChanged(bool recording, const QString &session);
    void liveChanged(bool live);
    void previewingChanged(bool previewing);
    void camerasEnabledChanged(bool enabled);
    void callChanged(bool onCall, const QDateTime &callStart);
    void pendingCountChanged(int count);
    void lastErrorChanged(const QString &error);
    void agentIDChanged(int id);
    void setupDoneChanged(bool done);
    /// Once after an update that changed any value.
    void changed();
    /// A whisper for the agent: its text, the coach's seat and name ("" when unknown).
    void whisper(const QString &text, int seat, const QString &from);
    /// The agent must go through setup again, at `step`.
    void setupNeeded(SetupStep::Step step);

private:
    Values m_v;
};
