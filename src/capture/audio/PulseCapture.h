#pragma once

#include "AudioBackend.h"
#include "StreamTimeLine.h"

#include <QString>

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
// snapshot is asked for at every wake-up, and StreamTimeLine estimates the stream's time line
// from them and tells the audio the server lost, which the next block carries
// (AudioBuffer::lostFrames). Until the first one taken while data flows has come back, the data
// waits in the stream's queue (nothing is lost); a server that never answers gets arrival-time
// stamps after kMaxUntimedWakeups.
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

    /// Wake-ups without a usable snapshot after which arrival times are used instead.
    static constexpr int kMaxUntimedWakeups = 200;
    /// Largest distance of a frame's stamp after its arrival, or before the end of the frames
    /// handed over before it, that is believed (a frame waits in the server's queue as long as
    /// this process does not read: suspended, stopped, swapping).
    static constexpr int64_t kMaxSkewNs = 5000000000;
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
    StreamTimeLine m_line;
    int m_untimedWakeups = 0;
    bool m_arrivalStamped = false; // the last block went out with its arrival time
    int64_t m_queueNs = 0;          // audio the server's queue for the stream holds at most
    int64_t m_nextNs = 0;           // stamp the frame after the last one handed over would have
};
