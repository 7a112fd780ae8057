#pragma once

#include "Clock.h"
#include "MediaTime.h"
#include "SyncGate.h"
#include "TimedSample.h"
#include "WriterSetup.h"

#include <QString>

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>

class SegmentWriter;

// One recording from start to stop: its session (none for a sound test), its take number, its
// start sync and every writer of the take: the audio tracks "mic", "sys", "room" and the camera
// tracks "cam", "cam2"–"cam4", made as cameras appear. When the sync locks, every writer, also
// one made later, starts at the common start T0. A track ended mid-take (its camera switched off)
// is not ended again; a camera back within the take continues its track's numbering.
//
// Threads: audio writers are used on the audio queue, camera writers on the video queue; the
// sync and the writer list are safe from both. finishAudio/finishCameras run once each.
class Take
{
public:
    /// Writer-finished callback: the path of one finished segment, on the writer's queue.
    using SegmentDone = std::function<void(const QString &path)>;

    /// A take of `session` numbered `number`; expectCam: the start sync waits for "cam".
    /// Its writers are made with `setup` (folder, bit rate, segment length).
    Take(std::optional<QString> session, int64_t number, bool expectCam, Clock &clock, SegmentDone onSegmentDone,
         const WriterSetup &setup);
    ~Take();
    Take(const Take &) = delete;
    Take &operator=(const Take &) = delete;

    /// Session of the recording; none for a sound test or listen-only run.
    const std::optional<QString> &session() const { return m_session; }
    /// Take number (milliseconds since the epoch at its start).
    int64_t number() const { return m_number; }
    /// A recording (with a session) rather than a sound test.
    bool recording() const { return m_session.has_value(); }
    /// The take's start sync.
    SyncGate &sync() { return m_sync; }
    /// The common start once locked.
    std::optional<MediaTime> t0() const;

    /// On the track's queue: offers a sample of `track` to the start sync, then to its writer.
    /// Extra cameras ("cam2"…) never hold the start back: they are written once T0 is known.
    void write(const QString &track, const TimedSample &sample);
    /// On the audio queue: the first audio of `track`, captured at `time`, is held back for
    /// placing; the start sync counts it as seen (SyncGate::saw).
    void sawFirst(const QString &track, MediaTime time);
    /// On the track's queue: ends `track` ("_final") because its source went away mid-take.
    void endTrack(const QString &track);
    /// Audio queue: ends every audio track of the take; later audio is dropped. Runs once.
    void finishAudio();
    /// Video queue: ends every camera track of the take; later frames are dropped. Runs once.
    void finishCameras();
    /// Whether finishAudio / finishCameras have run.
    bool audioFinished() const { return m_audioDone; }
    bool camerasFinished() const { return m_camerasDone; }

    /// A writer's problem (`fault`) or none when it cleared, for `track`; on the track's queue.
    /// Set before the take is handed to the queues.
    std::function<void(const QString &track, const std::optional<QString> &fault)> onFault;

    /// Whether `track` is an audio track.
    static bool isAudio(const QString &track);

private:
    SegmentWriter *writer(const QString &track);
    void lockAt(MediaTime t0);
    void finish(bool audio);

    const std::optional<QString> m_session;
    const int64_t m_number;
    const WriterSetup m_setup;
    const SegmentDone m_onSegmentDone;
    SyncGate m_sync;
    std::atomic<bool> m_audioDone{false};
    std::atomic<bool> m_camerasDone{false};

    mutable std::mutex m_mutex; // guards the fields below (writers are used on their queues)
    std::map<QString, std::unique_ptr<SegmentWriter>> m_writers;
    std::map<QString, bool> m_ended; // tracks ended mid-take
    std::optional<MediaTime> m_t0;
};
