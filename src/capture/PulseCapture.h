#pragma once

#include "AudioBackend.h"

struct pa_context;
struct pa_stream;
struct pa_threaded_mainloop;

// One PulseAudio record stream. Its callbacks run on the main loop's thread: each readable
// fragment is copied out, stamped with the CLOCK_MONOTONIC time of its first frame (now minus
// the stream's latency, i.e. the age of the oldest unread frame) and handed to onBuffer. Holes,
// overflows and suspends mark the next block as a discontinuity.
class PulseCapture final : public AudioCapture
{
public:
    PulseCapture(pa_threaded_mainloop *loop, pa_context *ctx, int rate, int channels, AudioBackend::Handlers handlers);
    ~PulseCapture() override;

    /// Connects the stream to `source` and waits until it runs; false with `error` otherwise.
    /// Called with the main loop's lock held.
    bool startLocked(const QString &source, QString *error);

private:
    static void stateCallback(pa_stream *s, void *self);
    static void readCallback(pa_stream *s, size_t bytes, void *self);
    static void gapCallback(pa_stream *s, void *self);
    void stateChanged();
    void readable();

    pa_threaded_mainloop *m_loop;
    pa_context *m_ctx;
    const int m_rate;
    const int m_channels;
    AudioBackend::Handlers m_handlers;
    pa_stream *m_stream = nullptr;
    bool m_running = false;
    bool m_gap = false;
};
