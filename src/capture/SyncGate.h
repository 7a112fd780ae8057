#pragma once

#include "Clock.h"
#include "MediaTime.h"

#include <QString>

#include <functional>
#include <map>
#include <mutex>
#include <optional>

// The start sync of a take: holds every track back until "mic", "sys" and (when expected) "cam"
// have each delivered a first sample, or until 2 s after the first sample of any track, then fixes
// one common start T0 (the latest first time of mic, sys, cam) and lets through only samples at
// or after T0. "room" is recorded but never waited for. Thread-safe: the audio and video queues
// call pass() concurrently; the whole decision, onLock and its log line run under one lock.
class SyncGate
{
public:
    /// The waiting limit after the first sample, inclusive.
    static constexpr int64_t kWaitNs = 2000000000;

    explicit SyncGate(Clock &clock = Clock::monotonic());

    /// Forgets the previous take's start; expectCam: the main camera must be waited for.
    void reset(bool expectCam);
    /// True when the sample of `track` at `time` is to be written.
    bool pass(const QString &track, MediaTime time);
    /// The first sample of `track`, at `time`, is on its way but held back (audio being placed on
    /// its time line): it counts as seen now, so that the start is fixed without waiting for it
    /// and no camera frame after the start is turned away meanwhile.
    void saw(const QString &track, MediaTime time);
    /// The common start once locked (the invalid time when nothing but "room" was seen).
    std::optional<MediaTime> t0() const;
    /// First time seen of a track since the last reset.
    std::optional<MediaTime> seen(const QString &track) const;

    /// Called once at the lock, under the gate's lock, with T0; sets the writers' openAt.
    std::function<void(MediaTime t0)> onLock;

private:
    void decide(const QString &track, MediaTime time); // under m_mutex, before the lock

    Clock &m_clock;
    mutable std::mutex m_mutex;
    std::optional<MediaTime> m_t0;
    std::map<QString, MediaTime> m_seen;
    std::optional<int64_t> m_readyNs;
    bool m_expectCam = false;
};
