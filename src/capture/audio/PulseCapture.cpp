#include "PulseCapture.h"

#include <pulse/pulseaudio.h>

#include <QtGlobal>

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <utility>

namespace {
int64_t realtimeNs()
{
    timespec ts{};
    clock_gettime(CLOCK_REALTIME, &ts);
    return int64_t(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}
} // namespace

PulseCapture::PulseCapture(pa_threaded_mainloop *loop, pa_context *ctx, int rate, int channels,
                           AudioBackend::Handlers handlers)
    : m_loop(loop)
    , m_ctx(ctx)
    , m_rate(rate)
    , m_channels(channels)
    , m_handlers(std::move(handlers))
    , m_line(rate, int(sizeof(float)) * channels)
{
}

PulseCapture::~PulseCapture()
{
    Q_ASSERT(!pa_threaded_mainloop_in_thread(m_loop));
    pa_threaded_mainloop_lock(m_loop);
    if (m_stream) {
        pa_stream_set_state_callback(m_stream, nullptr, nullptr);
        pa_stream_set_read_callback(m_stream, nullptr, nullptr);
        pa_stream_set_overflow_callback(m_stream, nullptr, nullptr);
        pa_stream_set_suspended_callback(m_stream, nullptr, nullptr);
        if (m_timingOp) {
            pa_operation_cancel(m_timingOp);
            pa_operation_unref(m_timingOp);
            m_timingOp = nullptr;
        }
        if (pa_stream_get_state(m_stream) == PA_STREAM_READY) {
            pa_stream_disconnect(m_stream);
        } else { // still being created: it ends itself once the server has made it
            pa_stream_set_state_callback(
                m_stream,
                [](pa_stream *s, void *) {
                    if (pa_stream_get_state(s) == PA_STREAM_READY)
                        pa_stream_disconnect(s);
                },
                nullptr);
        }
        pa_stream_unref(m_stream);
        m_stream = nullptr;
    }
    pa_threaded_mainloop_unlock(m_loop);
}

bool PulseCapture::startLocked(const QString &source, bool pinned, QString *error)
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
    const auto flags = pa_stream_flags_t(PA_STREAM_ADJUST_LATENCY | (pinned ? PA_STREAM_DONT_MOVE : 0));
    m_source = source;
    const QByteArray name = source.toUtf8();
    if (pa_stream_connect_record(m_stream, name.constData(), &attr, flags) < 0) {
        *error = QString::fromUtf8(pa_strerror(pa_context_errno(m_ctx)));
        return false;
    }
    return true;
}

void PulseCapture::stateCallback(pa_stream *, void *self)
{
    static_cast<PulseCapture *>(self)->stateChanged();
}

void PulseCapture::readCallback(pa_stream *, size_t, void *self)
{
    auto *capture = static_cast<PulseCapture *>(self);
    capture->requestTiming(); // one snapshot per wake-up of the server's
    capture->readable();
}

void PulseCapture::gapCallback(pa_stream *, void *self)
{
    // After an overflow or a suspend the device's position no longer follows the old snapshot.
    auto *capture = static_cast<PulseCapture *>(self);
    capture->m_gap = true;
    capture->m_line.reset();
    capture->m_untimedWakeups = 0;
}

void PulseCapture::stateChanged()
{
    // Failing to become ready and dying later are the same to the caller: the stream is gone.
    // A server that connects a stream for a missing source to another one (PipeWire does) has
    // not opened what was asked for either.
    const pa_stream_state_t state = pa_stream_get_state(m_stream);
    const char *device = state == PA_STREAM_READY ? pa_stream_get_device_name(m_stream) : nullptr;
    if (const pa_buffer_attr *attr = state == PA_STREAM_READY ? pa_stream_get_buffer_attr(m_stream) : nullptr)
        m_queueNs = int64_t(attr->maxlength) * 1000000000 / (int64_t(sizeof(float)) * m_channels * m_rate);
    const bool elsewhere = device && QString::fromUtf8(device) != m_source;
    if (!m_failed && (!PA_STREAM_IS_GOOD(state) || elsewhere)) {
        m_failed = true;
        if (m_handlers.onFailed)
            m_handlers.onFailed(elsewhere ? QString::fromUtf8(pa_strerror(PA_ERR_NOENTITY))
                                          : QString::fromUtf8(pa_strerror(pa_context_errno(m_ctx))));
    }
}

void PulseCapture::timingCallback(pa_stream *, int success, void *self)
{
    static_cast<PulseCapture *>(self)->timingArrived(success != 0);
}

void PulseCapture::requestTiming()
{
    if (m_timingOp)
        return;
    m_timingOp = pa_stream_update_timing_info(m_stream, &PulseCapture::timingCallback, this);
}

void PulseCapture::timingArrived(bool success)
{
    if (m_timingOp) {
        pa_operation_unref(m_timingOp);
        m_timingOp = nullptr;
    }
    const pa_timing_info *ti = success ? pa_stream_get_timing_info(m_stream) : nullptr;
    // A snapshot from before the first data (write position 0) says nothing about when the
    // device started delivering.
    if (!ti || ti->write_index_corrupt || ti->write_index <= 0)
        return;
    // The snapshot's moment on the real-time clock, moved onto the monotonic one.
    const int64_t taken = int64_t(ti->timestamp.tv_sec) * 1000000000 + int64_t(ti->timestamp.tv_usec) * 1000;
    const int64_t nowMono = Clock::monotonic().nowNs();
    const int64_t age = std::max<int64_t>(0, realtimeNs() - taken);
    const int64_t atNs = nowMono - age - int64_t(ti->source_usec) * 1000 + int64_t(ti->sink_usec) * 1000;
    const int64_t bytesPerSecond = int64_t(sizeof(float)) * m_channels * m_rate;
    const int64_t originNs = atNs - int64_t(ti->write_index) * 1000000000 / bytesPerSecond;
    const bool latencyGiven = ti->source_usec != 0 || ti->sink_usec != 0;
    m_line.add(nowMono, originNs, ti->write_index, latencyGiven);
    readable(); // data held back for want of a snapshot
}

void PulseCapture::readable()
{
    if (pa_stream_get_state(m_stream) != PA_STREAM_READY)
        return;
    const int64_t now = Clock::monotonic().nowNs();
    if (!m_line.timed() && ++m_untimedWakeups <= kMaxUntimedWakeups)
        return; // the data waits in the stream's queue for the first snapshot
    const size_t frameBytes = sizeof(float) * size_t(m_channels);
    const int64_t bytesPerSecond = int64_t(frameBytes) * m_rate;
    // Without a snapshot the newest frame is taken as captured just now.
    const pa_timing_info *ti = pa_stream_get_timing_info(m_stream);
    const bool indexed = ti && !ti->read_index_corrupt;
    int64_t readIndex = indexed ? ti->read_index : 0;
    const int64_t arrivalBase = now - int64_t(pa_stream_readable_size(m_stream)) * 1000000000 / bytesPerSecond;
    int64_t arrivalBytes = 0;
    while (pa_stream_readable_size(m_stream) > 0) {
        const void *data = nullptr;
        size_t bytes = 0;
        if (pa_stream_peek(m_stream, &data, &bytes) < 0 || bytes == 0)
            return;
        if (!data) { // a hole: data the server lost
            readIndex += int64_t(bytes);
            arrivalBytes += int64_t(bytes);
            pa_stream_drop(m_stream);
            m_gap = true;
            continue;
        }
        const size_t usable = bytes - bytes % frameBytes;
        AudioBuffer b;
        b.rate = m_rate;
        b.channels = m_channels;
        b.pcm = QByteArray(static_cast<const char *>(data), qsizetype(usable));
        const int64_t arrived = arrivalBase + arrivalBytes * 1000000000 / bytesPerSecond;
        const bool placed = m_line.timed() && indexed;
        b.captureNs = placed ? m_line.originNs() + readIndex * 1000000000 / bytesPerSecond : arrived;
        // Arrival times are no server positions: the step to placed stamps starts a new time line.
        m_gap = m_gap || (placed && m_arrivalStamped);
        m_arrivalStamped = !placed;
        // A server whose figures place a frame seconds after its arrival, or before the frames
        // the stream handed over earlier, is not believed. A frame may be far older than its
        // arrival: while this process did not read for seconds, the server kept what it
        // captured (at most its queue's length, and once that is full, the oldest of it).
        const int64_t earliest = m_nextNs ? m_nextNs - kMaxSkewNs : arrived - m_queueNs - kMaxSkewNs;
        if (b.captureNs - arrived > kMaxSkewNs || b.captureNs < earliest)
            b.captureNs = arrived;
        m_nextNs = b.captureNs + int64_t(usable / frameBytes) * 1000000000 / m_rate;
        b.discontinuity = m_gap;
        m_gap = false;
        const StreamTimeLine::Loss loss = m_line.takeLoss();
        b.lostFrames = loss.frames;
        b.lostAtNs = loss.atNs;
        readIndex += int64_t(bytes);
        arrivalBytes += int64_t(bytes);
        pa_stream_drop(m_stream);
        if (usable > 0 && m_handlers.onBuffer)
            m_handlers.onBuffer(std::move(b));
    }
}
