#include "PulseBackend.h"

#include "DeviceChoice.h"
#include "PulseCapture.h"

#include <pulse/pulseaudio.h>
#include <pulse/rtclock.h>

#include <QtGlobal>

#include <algorithm>
#include <chrono>

namespace {
// RAII for the main loop's lock.
class LoopLock
{
public:
    explicit LoopLock(pa_threaded_mainloop *loop) : m_loop(loop) { pa_threaded_mainloop_lock(m_loop); }
    ~LoopLock() { pa_threaded_mainloop_unlock(m_loop); }

private:
    pa_threaded_mainloop *m_loop;
};

QString prop(pa_proplist *list, const char *key)
{
    const char *value = list ? pa_proplist_gets(list, key) : nullptr;
    return value ? QString::fromUtf8(value) : QString();
}

QString text(const char *value)
{
    return value ? QString::fromUtf8(value) : QString();
}

bool sameDevices(const QList<Device> &a, const QList<Device> &b)
{
    return std::equal(a.begin(), a.end(), b.begin(), b.end(), [](const Device &x, const Device &y) {
        return x.uid == y.uid && x.name == y.name && x.builtIn == y.builtIn && x.isDefault == y.isDefault;
    });
}

constexpr uint64_t usec(int ms) { return uint64_t(ms) * 1000; }
} // namespace

PulseBackend::PulseBackend()
{
    m_loop = pa_threaded_mainloop_new();
    Q_ASSERT(m_loop);
    pa_threaded_mainloop_set_name(m_loop, "brava.pulse");
    m_api = pa_threaded_mainloop_get_api(m_loop);
    {
        LoopLock lock(m_loop);
        connectContext();
        m_tick = pa_context_rttime_new(
            m_ctx, pa_rtclock_now() + usec(kTickMs),
            [](pa_mainloop_api *, pa_time_event *, const struct timeval *, void *self) {
                static_cast<PulseBackend *>(self)->tick();
            },
            this);
        Q_ASSERT(m_tick);
    }
    pa_threaded_mainloop_start(m_loop);
    // The one wait for the server outside the loop's thread, bounded: the owner builds the
    // backend before its event loop runs, and the first queries then see the real devices.
    std::unique_lock lock(m_mutex);
    m_filled.wait_for(lock, std::chrono::milliseconds(kFirstSnapshotMs), [this] { return m_snapshot.filled; });
}

PulseBackend::~PulseBackend()
{
    Q_ASSERT(!pa_threaded_mainloop_in_thread(m_loop));
    watch(nullptr);
    {
        LoopLock lock(m_loop);
        m_api->time_free(m_tick);
        if (m_healthOp) {
            pa_operation_cancel(m_healthOp);
            pa_operation_unref(m_healthOp);
        }
        pa_context_set_state_callback(m_ctx, nullptr, nullptr);
        pa_context_set_subscribe_callback(m_ctx, nullptr, nullptr);
        pa_context_disconnect(m_ctx); // cancels the refresh under way: none of its callbacks runs
        pa_context_unref(m_ctx);
    }
    pa_threaded_mainloop_stop(m_loop);
    pa_threaded_mainloop_free(m_loop);
}

// ---- Queries (any thread, never waiting) ---------------------------------------------------

AudioBackend::Access PulseBackend::access()
{
    std::lock_guard lock(m_mutex);
    return m_snapshot.access;
}

QList<Device> PulseBackend::inputs()
{
    std::lock_guard lock(m_mutex);
    return m_snapshot.inputs;
}

std::optional<QString> PulseBackend::outputMonitor(QString *reason)
{
    std::lock_guard lock(m_mutex);
    if (!m_snapshot.monitor.isEmpty())
        return m_snapshot.monitor;
    if (reason)
        *reason = m_snapshot.access == Access::Refused
            ? QStringLiteral("Computer audio blocked — re-run setup on this computer")
            : QStringLiteral("No audio output found");
    return std::nullopt;
}

bool PulseBackend::answering() const
{
    std::lock_guard lock(m_mutex);
    return m_snapshot.answering;
}

void PulseBackend::watch(std::function<void()> onChanged)
{
    std::lock_guard lock(m_watchMutex); // waits at most for a running call of the old watcher
    m_watcher = std::move(onChanged);
}

std::unique_ptr<AudioCapture> PulseBackend::open(const QString &source, int rate, int channels, Handlers handlers,
                                                 QString *error)
{
    Q_ASSERT(!pa_threaded_mainloop_in_thread(m_loop));
    const auto fail = [error](const char *why) {
        if (error)
            *error = QString::fromUtf8(why);
        return nullptr;
    };
    bool pinned = false;
    {
        std::lock_guard lock(m_mutex);
        if (m_snapshot.access == Access::Refused)
            return fail(pa_strerror(PA_ERR_ACCESS));
        // A monitor stays with its output: if the output goes away the stream ends (and the
        // recorder opens the new default output's monitor) instead of the server moving it to
        // whatever source is left, a microphone perhaps.
        pinned = m_snapshot.monitors.contains(source);
    }
    std::unique_ptr<PulseCapture> capture;
    {
        LoopLock lock(m_loop); // the loop's thread only holds it for its callbacks, never for the server
        if (pa_context_get_state(m_ctx) != PA_CONTEXT_READY)
            return fail(pa_strerror(PA_ERR_CONNECTIONREFUSED));
        capture = std::make_unique<PulseCapture>(m_loop, m_ctx, rate, channels, std::move(handlers));
        QString reason;
        if (capture->startLocked(source, pinned, &reason))
            return capture;
        if (error)
            *error = reason;
    }
    return nullptr; // destroyed outside the lock
}

// ---- The loop's thread -------------------------------------------------------------------

void PulseBackend::connectContext()
{
    if (m_ctx) { // the failed one: its streams have reported their end already
        pa_context_set_state_callback(m_ctx, nullptr, nullptr);
        pa_context_set_subscribe_callback(m_ctx, nullptr, nullptr);
        pa_context_disconnect(m_ctx);
        pa_context_unref(m_ctx);
    }
    m_ctx = pa_context_new(m_api, "Brava Recorder");
    Q_ASSERT(m_ctx);
    m_down = false;
    m_refreshSteps = 0;
    m_refreshAgain = false;
    pa_context_set_state_callback(
        m_ctx, [](pa_context *, void *self) { static_cast<PulseBackend *>(self)->contextStateChanged(); }, this);
    if (pa_context_connect(m_ctx, nullptr, PA_CONTEXT_NOAUTOSPAWN, nullptr) < 0)
        contextFailed();
}

void PulseBackend::contextStateChanged()
{
    const pa_context_state_t state = pa_context_get_state(m_ctx);
    if (state == PA_CONTEXT_READY) {
        m_backoffMs = kFirstBackoffMs;
        pa_context_set_subscribe_callback(
            m_ctx,
            [](pa_context *, pa_subscription_event_type_t, uint32_t, void *self) {
                static_cast<PulseBackend *>(self)->refresh();
            },
            this);
        const auto mask =
            pa_subscription_mask_t(PA_SUBSCRIPTION_MASK_SERVER | PA_SUBSCRIPTION_MASK_SOURCE | PA_SUBSCRIPTION_MASK_SINK);
        if (pa_operation *op = pa_context_subscribe(m_ctx, mask, nullptr, nullptr))
            pa_operation_unref(op);
        refresh();
    } else if (!PA_CONTEXT_IS_GOOD(state)) {
        contextFailed();
    }
}

void PulseBackend::contextFailed()
{
    if (m_down)
        return;
    m_down = true;
    const int error = pa_context_errno(m_ctx);
    if (m_healthOp) {
        pa_operation_unref(m_healthOp); // cancelled with its context
        m_healthOp = nullptr;
    }
    m_refreshSteps = 0; // cancelled too
    m_refreshAgain = false;
    m_reconnectAtUs = pa_rtclock_now() + usec(m_backoffMs);
    m_backoffMs = std::min(2 * m_backoffMs, kMaxBackoffMs);
    Snapshot gone;
    // A server that is there but turns this program away is a refusal; no server is no answer.
    gone.access = (error == PA_ERR_ACCESS || error == PA_ERR_AUTHKEY) ? Access::Refused : Access::Unknown;
    gone.filled = true;
    publish(gone);
}

void PulseBackend::tick()
{
    const uint64_t now = pa_rtclock_now();
    const pa_context_state_t state = pa_context_get_state(m_ctx);
    if (m_down && now >= m_reconnectAtUs) {
        connectContext();
    } else if (state == PA_CONTEXT_READY && !m_healthOp) {
        m_healthSentUs = now;
        m_healthOp = pa_context_get_server_info(
            m_ctx, [](pa_context *, const pa_server_info *i, void *self) { static_cast<PulseBackend *>(self)->healthArrived(i); },
            this);
    } else if (m_healthOp && now - m_healthSentUs > usec(kHungMs)) {
        setAnswering(false);
    }
    pa_context_rttime_restart(m_ctx, m_tick, now + usec(kTickMs));
}

void PulseBackend::healthArrived(const pa_server_info *info)
{
    pa_operation_unref(m_healthOp);
    m_healthOp = nullptr;
    if (!info)
        return;
    setAnswering(true);
    if (text(info->default_sink_name) != m_defaultSink || text(info->default_source_name) != m_defaultSource)
        refresh(); // an event got lost: the snapshot heals itself
}

void PulseBackend::refresh()
{
    if (m_refreshSteps > 0) {
        m_refreshAgain = true; // once the one under way is in
        return;
    }
    m_next = Snapshot{};
    m_refreshBroken = false;
    m_next.access = Access::Allowed;
    m_next.answering = true; // a refresh that completes is an answer
    m_next.filled = true;
    m_refreshSteps = 1;
    pa_operation *op = pa_context_get_server_info(
        m_ctx, [](pa_context *, const pa_server_info *i, void *self) { static_cast<PulseBackend *>(self)->serverInfoArrived(i); },
        this);
    if (!op) {
        m_refreshSteps = 0;
        return;
    }
    pa_operation_unref(op);
}

void PulseBackend::serverInfoArrived(const pa_server_info *info)
{
    if (info) {
        m_defaultSource = text(info->default_source_name);
        m_defaultSink = text(info->default_sink_name);
        pa_operation *sources = pa_context_get_source_info_list(
            m_ctx,
            [](pa_context *, const pa_source_info *i, int eol, void *self) {
                auto *backend = static_cast<PulseBackend *>(self);
                eol ? backend->refreshStepDone(eol > 0) : backend->sourceArrived(i);
            },
            this);
        pa_operation *sinks = pa_context_get_sink_info_list(
            m_ctx,
            [](pa_context *, const pa_sink_info *i, int eol, void *self) {
                auto *backend = static_cast<PulseBackend *>(self);
                eol ? backend->refreshStepDone(eol > 0) : backend->sinkArrived(i);
            },
            this);
        for (pa_operation *op : {sources, sinks}) {
            if (op) {
                ++m_refreshSteps;
                pa_operation_unref(op);
            }
        }
    }
    refreshStepDone(info != nullptr);
}

void PulseBackend::sourceArrived(const pa_source_info *i)
{
    Q_ASSERT(i && m_refreshSteps > 0);
    const QString uid = text(i->name);
    if (i->monitor_of_sink != PA_INVALID_INDEX || prop(i->proplist, "device.class") == QLatin1String("monitor")) {
        m_next.monitors.insert(uid);
        return;
    }
    Device d;
    d.uid = uid;
    d.name = i->description ? text(i->description) : uid;
    d.builtIn = DeviceChoice::isBuiltIn(prop(i->proplist, "device.form_factor"), prop(i->proplist, "device.bus"));
    d.isDefault = uid == m_defaultSource;
    if (DeviceChoice::isReal(d.name))
        m_next.inputs.append(d);
}

void PulseBackend::sinkArrived(const pa_sink_info *i)
{
    Q_ASSERT(i && m_refreshSteps > 0);
    if (text(i->name) == m_defaultSink)
        m_next.monitor = text(i->monitor_source_name);
}

void PulseBackend::refreshStepDone(bool answered)
{
    Q_ASSERT(m_refreshSteps > 0);
    m_refreshBroken = m_refreshBroken || !answered;
    if (--m_refreshSteps > 0)
        return;
    if (!m_refreshBroken) // a request that failed (timed out, say) leaves the old snapshot in place
        publish(m_next);
    if (m_refreshAgain) {
        m_refreshAgain = false;
        refresh();
    }
}

void PulseBackend::setAnswering(bool answering)
{
    Snapshot next;
    {
        std::lock_guard lock(m_mutex);
        next = m_snapshot;
    }
    next.answering = answering;
    publish(next);
}

void PulseBackend::publish(Snapshot next)
{
    bool changed = false;
    {
        std::lock_guard lock(m_mutex);
        changed = next.access != m_snapshot.access || !sameDevices(next.inputs, m_snapshot.inputs)
            || next.monitor != m_snapshot.monitor || next.answering != m_snapshot.answering;
        m_snapshot = std::move(next);
    }
    m_filled.notify_all();
    if (!changed)
        return;
    std::lock_guard lock(m_watchMutex);
    if (m_watcher)
        m_watcher();
}
