#include "PulseBackend.h"

#include "DeviceChoice.h"
#include "PulseCapture.h"

#include <pulse/pulseaudio.h>

#include <cassert>

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
} // namespace

PulseBackend::PulseBackend()
{
    m_loop = pa_threaded_mainloop_new();
    assert(m_loop);
    pa_threaded_mainloop_set_name(m_loop, "brava.pulse");
    pa_threaded_mainloop_start(m_loop);
}

PulseBackend::~PulseBackend()
{
    pa_threaded_mainloop_lock(m_loop);
    if (m_ctx) {
        pa_context_set_state_callback(m_ctx, nullptr, nullptr);
        pa_context_disconnect(m_ctx);
        pa_context_unref(m_ctx);
        m_ctx = nullptr;
    }
    pa_threaded_mainloop_unlock(m_loop);
    pa_threaded_mainloop_stop(m_loop);
    pa_threaded_mainloop_free(m_loop);
}

bool PulseBackend::connectLocked()
{
    if (m_ctx && pa_context_get_state(m_ctx) == PA_CONTEXT_READY)
        return true;
    if (m_ctx) { // failed or ended: the server may have come back
        pa_context_set_state_callback(m_ctx, nullptr, nullptr);
        pa_context_disconnect(m_ctx);
        pa_context_unref(m_ctx);
    }
    pa_mainloop_api *api = pa_threaded_mainloop_get_api(m_loop);
    m_ctx = pa_context_new(api, "Brava Recorder");
    if (!m_ctx)
        return false;
    pa_context_set_state_callback(
        m_ctx, [](pa_context *, void *loop) { pa_threaded_mainloop_signal(static_cast<pa_threaded_mainloop *>(loop), 0); },
        m_loop);
    if (pa_context_connect(m_ctx, nullptr, PA_CONTEXT_NOAUTOSPAWN, nullptr) < 0) {
        m_lastError = pa_context_errno(m_ctx);
        return false;
    }
    for (;;) {
        const pa_context_state_t state = pa_context_get_state(m_ctx);
        if (state == PA_CONTEXT_READY) {
            // Server events (a new default output among them) go to the output watcher.
            pa_context_set_subscribe_callback(
                m_ctx,
                [](pa_context *, pa_subscription_event_type_t, uint32_t, void *self) {
                    auto *backend = static_cast<PulseBackend *>(self);
                    if (backend->m_onOutputChanged)
                        backend->m_onOutputChanged();
                },
                this);
            if (pa_operation *op = pa_context_subscribe(m_ctx, PA_SUBSCRIPTION_MASK_SERVER, nullptr, nullptr))
                pa_operation_unref(op);
            return true;
        }
        if (!PA_CONTEXT_IS_GOOD(state)) {
            m_lastError = pa_context_errno(m_ctx);
            return false;
        }
        pa_threaded_mainloop_wait(m_loop);
    }
}

void PulseBackend::waitLocked(pa_operation *op)
{
    if (!op)
        return;
    while (pa_operation_get_state(op) == PA_OPERATION_RUNNING)
        pa_threaded_mainloop_wait(m_loop);
    pa_operation_unref(op);
}

AudioBackend::Access PulseBackend::access()
{
    LoopLock lock(m_loop);
    if (connectLocked())
        return Access::Allowed;
    // A server that is there but turns this program away is a refusal; no server is no answer.
    return (m_lastError == PA_ERR_ACCESS || m_lastError == PA_ERR_AUTHKEY) ? Access::Refused : Access::Unknown;
}

std::optional<PulseBackend::ServerInfo> PulseBackend::serverInfoLocked()
{
    struct Ctx {
        pa_threaded_mainloop *loop;
        ServerInfo info;
    } ctx{m_loop, {}};
    waitLocked(pa_context_get_server_info(
        m_ctx,
        [](pa_context *, const pa_server_info *i, void *data) {
            auto *c = static_cast<Ctx *>(data);
            if (i) {
                c->info.defaultSource = QString::fromUtf8(i->default_source_name ? i->default_source_name : "");
                c->info.defaultSink = QString::fromUtf8(i->default_sink_name ? i->default_sink_name : "");
            }
            pa_threaded_mainloop_signal(c->loop, 0);
        },
        &ctx));
    return ctx.info;
}

QList<Device> PulseBackend::inputs()
{
    LoopLock lock(m_loop);
    if (!connectLocked())
        return {};
    const std::optional<ServerInfo> server = serverInfoLocked();
    struct Ctx {
        pa_threaded_mainloop *loop;
        QString defaultSource;
        QList<Device> list;
    } ctx{m_loop, server ? server->defaultSource : QString(), {}};
    waitLocked(pa_context_get_source_info_list(
        m_ctx,
        [](pa_context *, const pa_source_info *i, int eol, void *data) {
            auto *c = static_cast<Ctx *>(data);
            if (eol || !i) {
                pa_threaded_mainloop_signal(c->loop, 0);
                return;
            }
            if (i->monitor_of_sink != PA_INVALID_INDEX || prop(i->proplist, "device.class") == QLatin1String("monitor"))
                return;
            Device d;
            d.uid = QString::fromUtf8(i->name);
            d.name = QString::fromUtf8(i->description ? i->description : i->name);
            d.builtIn = DeviceChoice::isBuiltIn(prop(i->proplist, "device.form_factor"), prop(i->proplist, "device.bus"));
            d.isDefault = d.uid == c->defaultSource;
            if (DeviceChoice::isReal(d.name))
                c->list.append(d);
        },
        &ctx));
    return ctx.list;
}

std::optional<QString> PulseBackend::outputMonitor(QString *reason)
{
    const QString none = QStringLiteral("No audio output found");
    LoopLock lock(m_loop);
    if (!connectLocked()) {
        const bool refused = m_lastError == PA_ERR_ACCESS || m_lastError == PA_ERR_AUTHKEY;
        if (reason)
            *reason = refused ? QStringLiteral("Computer audio blocked — re-run setup on this computer") : none;
        return std::nullopt;
    }
    const std::optional<ServerInfo> server = serverInfoLocked();
    if (!server || server->defaultSink.isEmpty()) {
        if (reason)
            *reason = none;
        return std::nullopt;
    }
    struct Ctx {
        pa_threaded_mainloop *loop;
        QString monitor;
    } ctx{m_loop, {}};
    const QByteArray sink = server->defaultSink.toUtf8();
    waitLocked(pa_context_get_sink_info_by_name(
        m_ctx, sink.constData(),
        [](pa_context *, const pa_sink_info *i, int eol, void *data) {
            auto *c = static_cast<Ctx *>(data);
            if (!eol && i && i->monitor_source_name)
                c->monitor = QString::fromUtf8(i->monitor_source_name);
            pa_threaded_mainloop_signal(c->loop, 0);
        },
        &ctx));
    if (ctx.monitor.isEmpty()) {
        if (reason)
            *reason = none;
        return std::nullopt;
    }
    return ctx.monitor;
}

void PulseBackend::watch(std::function<void()> onChanged)
{
    assert(!pa_threaded_mainloop_in_thread(m_loop));
    LoopLock lock(m_loop);
    m_onOutputChanged = std::move(onChanged);
    connectLocked(); // events flow once connected
}

bool PulseBackend::isMonitorLocked(const QString &source)
{
    struct Ctx {
        pa_threaded_mainloop *loop;
        bool monitor = false;
    } ctx{m_loop};
    const QByteArray name = source.toUtf8();
    waitLocked(pa_context_get_source_info_by_name(
        m_ctx, name.constData(),
        [](pa_context *, const pa_source_info *i, int eol, void *data) {
            auto *c = static_cast<Ctx *>(data);
            if (!eol && i)
                c->monitor = i->monitor_of_sink != PA_INVALID_INDEX;
            pa_threaded_mainloop_signal(c->loop, 0);
        },
        &ctx));
    return ctx.monitor;
}

std::unique_ptr<AudioCapture> PulseBackend::open(const QString &source, int rate, int channels, Handlers handlers,
                                                 QString *error)
{
    assert(!pa_threaded_mainloop_in_thread(m_loop));
    std::unique_ptr<PulseCapture> capture;
    {
        LoopLock lock(m_loop);
        if (!connectLocked()) {
            if (error)
                *error = QString::fromUtf8(pa_strerror(m_lastError));
            return nullptr;
        }
        capture = std::make_unique<PulseCapture>(m_loop, m_ctx, rate, channels, std::move(handlers));
        QString reason;
        // A monitor stays with its output: if the output goes away the stream ends (and the
        // recorder opens the new default output's monitor) instead of the server moving it to
        // whatever source is left, a microphone perhaps.
        if (capture->startLocked(source, isMonitorLocked(source), &reason))
            return capture;
        if (error)
            *error = reason;
    }
    return nullptr; // destroyed outside the lock
}
