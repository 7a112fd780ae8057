#include "PulseCapture.h"

#include <pulse/pulseaudio.h>

#include <cassert>

PulseCapture::PulseCapture(pa_threaded_mainloop *loop, pa_context *ctx, int rate, int channels,
                           AudioBackend::Handlers handlers)
    : m_loop(loop)
    , m_ctx(ctx)
    , m_rate(rate)
    , m_channels(channels)
    , m_handlers(std::move(handlers))
{
}

PulseCapture::~PulseCapture()
{
    assert(!pa_threaded_mainloop_in_thread(m_loop));
    pa_threaded_mainloop_lock(m_loop);
    if (m_stream) {
        pa_stream_set_state_callback(m_stream, nullptr, nullptr);
        pa_stream_set_read_callback(m_stream, nullptr, nullptr);
        pa_stream_set_overflow_callback(m_stream, nullptr, nullptr);
        pa_stream_set_suspended_callback(m_stream, nullptr, nullptr);
        if (pa_stream_get_state(m_stream) == PA_STREAM_READY)
            pa_stream_disconnect(m_stream);
        pa_stream_unref(m_stream);
        m_stream = nullptr;
    }
    pa_threaded_mainloop_unlock(m_loop);
}

bool PulseCapture::startLocked(const QString &source, QString *error)
{
    pa_sample_spec spec{};
    spec.format = PA_SAMPLE_FLOAT32LE;
    spec.rate = uint32_t(m_rate);
    spec.channels = uint8_t(m_channels);
    pa_channel_map map{};
    pa_channel_map_init_auto(&map, spec.channels, PA_CHANNEL_MAP_DEFAULT);
    m_stream = pa_stream_new(m_ctx, "Brava Recorder capture", &spec, &map);
    if (!m_stream) {
        *error = QString::fromUtf8(pa_strerror(pa_context_errno(m_ctx)));
        return false;
    }
    pa_stream_set_state_callback(m_stream, &PulseCapture::stateCallback, this);
    pa_stream_set_read_callback(m_stream, &PulseCapture::readCallback, this);
    pa_stream_set_overflow_callback(m_stream, &PulseCapture::gapCallback, this);
    pa_stream_set_suspended_callback(m_stream, &PulseCapture::gapCallback, this);

    pa_buffer_attr attr{};
    attr.maxlength = uint32_t(-1);
    attr.fragsize = uint32_t(pa_usec_to_bytes(10000, &spec)); // 10 ms blocks
    const auto flags = pa_stream_flags_t(PA_STREAM_ADJUST_LATENCY | PA_STREAM_AUTO_TIMING_UPDATE
                                         | PA_STREAM_INTERPOLATE_TIMING);
    const QByteArray name = source.toUtf8();
    if (pa_stream_connect_record(m_stream, name.constData(), &attr, flags) < 0) {
        *error = QString::fromUtf8(pa_strerror(pa_context_errno(m_ctx)));
        return false;
    }
    for (;;) {
        const pa_stream_state_t state = pa_stream_get_state(m_stream);
        if (state == PA_STREAM_READY)
            break;
        if (!PA_STREAM_IS_GOOD(state)) {
            *error = QString::fromUtf8(pa_strerror(pa_context_errno(m_ctx)));
            return false;
        }
        pa_threaded_mainloop_wait(m_loop);
    }
    m_running = true;
    return true;
}

void PulseCapture::stateCallback(pa_stream *, void *self)
{
    static_cast<PulseCapture *>(self)->stateChanged();
}

void PulseCapture::readCallback(pa_stream *, size_t, void *self)
{
    static_cast<PulseCapture *>(self)->readable();
}

void PulseCapture::gapCallback(pa_stream *, void *self)
{
    static_cast<PulseCapture *>(self)->m_gap = true;
}

void PulseCapture::stateChanged()
{
    pa_threaded_mainloop_signal(m_loop, 0);
    const pa_stream_state_t state = pa_stream_get_state(m_stream);
    if (m_running && !PA_STREAM_IS_GOOD(state)) {
        m_running = false;
        if (m_handlers.onFailed)
            m_handlers.onFailed(QString::fromUtf8(pa_strerror(pa_context_errno(m_ctx))));
    }
}

void PulseCapture::readable()
{
    // The stream's latency is the age of the oldest unread frame. It is read once per wake-up:
    // the server's timing information does not follow our own reads, so the blocks after the
    // first one of a wake-up are stamped by their position behind it.
    pa_usec_t latency = 0;
    int negative = 0;
    const bool timed = pa_stream_get_latency(m_stream, &latency, &negative) >= 0;
    const int64_t now = Clock::monotonic().nowNs();
    const int64_t oldestNs = now - (negative ? -int64_t(latency) : int64_t(latency)) * 1000;
    const size_t frameBytes = sizeof(float) * size_t(m_channels);
    int64_t framesBefore = 0;
    while (pa_stream_readable_size(m_stream) > 0) {
        const void *data = nullptr;
        size_t bytes = 0;
        if (pa_stream_peek(m_stream, &data, &bytes) < 0 || bytes == 0)
            return;
        if (!data) { // a hole: data the server lost
            framesBefore += int64_t(bytes / frameBytes);
            pa_stream_drop(m_stream);
            m_gap = true;
            continue;
        }
        const size_t usable = bytes - bytes % frameBytes;
        AudioBuffer b;
        b.rate = m_rate;
        b.channels = m_channels;
        b.pcm = QByteArray(static_cast<const char *>(data), qsizetype(usable));
        // Without timing information yet, assume the block has just been captured.
        b.captureNs = timed ? oldestNs + framesBefore * 1000000000 / m_rate
                            : now - int64_t(b.frames()) * 1000000000 / m_rate;
        b.discontinuity = m_gap;
        m_gap = false;
        framesBefore += b.frames();
        pa_stream_drop(m_stream);
        if (usable > 0 && m_handlers.onBuffer)
            m_handlers.onBuffer(std::move(b));
    }
}
