#pragma once

#include "AudioBackend.h"

#include <QString>

#include <vector>

struct pa_context;
struct pa_operation;
struct pa_stream;
struct pa_threaded_mainloop;

// One PulseAudio record stream. Its callbacks run on the main loop's thread: each readable
// fragment is copied out, stamped with the CLOCK_MONOTONIC time of its first frame and handed to
// onBuffer. Holes, overflows and suspends mark the next block as a discontinuity.
//
// Stamps come from the server's timing snapshots, not from the library's interpolated latency
// (whose smoother reports stale figures, off by hundreds of milliseconds, for the first second
// of a stream). A snapshot tells where the server's write position was at a known moment and how
// long a frame spends in the device before it gets there (minus, for a monitor, how long it
// still waits in the output before it is heard), which places every frame of the stream: a
// frame k bytes before that write position was captured k bytes' worth of time earlier. A fresh
// snapshot is asked for at every wake-up, and the stream's time line is estimated from all those
// of the last kWindowNs, not from the newest alone: a server that reports the device's latency
// (PulseAudio) gets the median of their placements; one that reports latency 0 and moves its
// write position in whole quanta (PipeWire's PulseAudio service) places the frame at the write
// position up to one quantum late, so the earliest placement of the window is the right one (the
// snapshot taken just as a quantum arrived). The time line moves later only when a whole window of
// answers (kMinPlacements over at least half of kWindowNs) says so: then, with latency 0, the
// stream's write position has fallen behind the clock, which is audio the server lost, and the
// next block carries how much and from where (AudioBuffer::lostFrames). Until the first one taken while data flows has come
// back, the data waits in the stream's queue (nothing is lost); a server that never answers
// gets arrival-time stamps after kMaxUntimedWakeups.
class PulseCapture final : public AudioCapture
{
public:
    PulseCapture(pa_threaded_mainloop *loop, pa_context *ctx, int rate, int channels, AudioBackend::Handlers handlers);
    ~PulseCapture() override;

    /// Connects the stream to `source` and returns without waiting; false with `error` when the
    /// request cannot be made. A stream that never becomes ready, or dies later, reports once
    /// through onFailed. `pinned`: the stream ends with its source instead of being moved to
    /// another one. Called with the main loop's lock held.
    bool startLocked(const QString &source, bool pinned, QString *error);

private:
    static void stateCallback(pa_stream *s, void *self);
    static void readCallback(pa_stream *s, size_t bytes, void *self);
    static void gapCallback(pa_stream *s, void *self);
    static void timingCallback(pa_stream *s, int success, void *self);
    void stateChanged();
    void readable();
    void requestTiming();
    void timingArrived(bool success);
    void noteLoss(int64_t estimate, int64_t bytesPerSecond);

    /// Wake-ups without a usable snapshot after which arrival times are used instead.
    static constexpr int kMaxUntimedWakeups = 200;
    /// Largest distance between a frame's stamp and its arrival that is believed.
    static constexpr int64_t kMaxSkewNs = 5000000000;
    /// Snapshots the time line is estimated from: those of the last kWindowNs.
    static constexpr int64_t kWindowNs = 300000000;
    /// Answers a window needs before it may move the time line later.
    static constexpr int kMinPlacements = 8;
    /// Smallest move later that is reported as lost audio, and the placements' tolerance around a level.
    static constexpr int64_t kMinLossNs = 1500000;
    static constexpr int64_t kLevelNs = 500000;

    struct Placement {
        int64_t takenNs = 0;   // when the snapshot came back (monotonic)
        int64_t originNs = 0;  // capture time of the stream's byte 0 by this snapshot
        int64_t writeIndex = 0; // the server's write position then (bytes)
        bool latencyGiven = false;
    };

    pa_threaded_mainloop *m_loop;
    pa_context *m_ctx;
    const int m_rate;
    const int m_channels;
    AudioBackend::Handlers m_handlers;
    pa_stream *m_stream = nullptr;
    QString m_source; // the source asked for
    bool m_failed = false; // onFailed has been called
    bool m_gap = false;
    pa_operation *m_timingOp = nullptr;
    std::vector<Placement> m_placements; // oldest first
    bool m_timed = false;  // m_originNs holds an estimate
    int64_t m_originNs = 0; // capture time of the stream's byte 0
    int m_untimedWakeups = 0;
    bool m_arrivalStamped = false; // the last block went out with its arrival time
    int64_t m_levelWriteIndex = 0; // newest write position whose placement was on the time line's level
    int m_lostFrames = 0;          // audio the positions show lost, for the next block
    int64_t m_lostAtNs = 0;
};
