#pragma once

#include <QDateTime>
#include <QString>

#include <functional>

class AgentEvents;

// What the agent can do from the tray menu and the sale widget: mark a call as started or ended
// (ending it opens the after-call review), rate the last call, open the sale form, ask the coaches
// for help, open the data folder. The windows are opened through the callbacks. Main thread only.
class AgentActions
{
public:
    /// Actions that report through these events and read the time (ms since 1970) from `nowMs`.
    explicit AgentActions(AgentEvents &events, std::function<qint64()> nowMs = &QDateTime::currentMSecsSinceEpoch);

    /// Marks a call as started or ended and tells the control room; ending opens the review.
    void toggleCall();
    /// Opens the review for the last call (its length unknown: 0 seconds).
    void rateCall();
    /// Opens the sale form.
    void snapSale();
    /// Tells the control room how a call of `secs` seconds went (the review's save).
    void postReview(qint64 secs, const QString &outcome, const QString &ctype, const QString &why);
    /// Tells the coaches this agent needs help.
    void needHelp();
    /// Opens the data folder in the file manager.
    void openFolder();

    /// Whether the agent is on a call.
    bool onCall() const { return m_onCall; }
    /// When the call started; invalid when not on a call.
    QDateTime callStart() const { return m_onCall ? QDateTime::fromMSecsSinceEpoch(m_callStartMs) : QDateTime(); }
    /// Whole seconds since the call started (0 when not on a call).
    qint64 callSeconds() const;

    /// Called when the call state changed (the menu must be drawn again).
    std::function<void()> onCallChanged;
    /// Called with a short confirmation to show in the status title.
    std::function<void(const QString &text)> onConfirm;
    /// Called to open the review of a call that lasted `secs` whole seconds.
    std::function<void(qint64 secs)> onReview;
    /// Called to open the sale form.
    std::function<void()> onSale;

private:
    qint64 callSeconds(qint64 nowMs) const;

    AgentEvents &m_events;
    std::function<qint64()> m_nowMs;
    bool m_onCall = false;
    qint64 m_callStartMs = 0;
};
