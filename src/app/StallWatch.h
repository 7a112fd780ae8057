#pragma once

#include <QString>

// Notices that this computer did not run the agent for a while (suspended, stopped, swapping): the
// controller's tick comes late. Camera pictures of that time are missing from a take that ran
// meanwhile (a camera keeps a few frames), and audio too when the sound server could not keep it
// for so long (about 10 s), so the stall is logged once and, when a take ran, shown as the status
// error for kShowMs. Main thread only; times are the monotonic clock's, in milliseconds.
class StallWatch
{
public:
    /// A tick at `nowMs` while a take runs (`recording`) or not.
    void beat(qint64 nowMs, bool recording);
    /// The note to show at `nowMs`, "" when none.
    QString note(qint64 nowMs) const;

    /// A tick later than this after the one before is a stall.
    static constexpr qint64 kStallMs = 4000;
    /// How long a stall during a take stays shown.
    static constexpr qint64 kShowMs = 60000;

private:
    qint64 m_last = -1;       // the previous tick, -1 before the first
    qint64 m_shownUntil = -1; // the note shows until then
    QString m_note;
};
