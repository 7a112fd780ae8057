#include "SyntheticAudioBackend.h"

SyntheticAudioBackend::Capture::Capture(SyntheticAudioBackend &owner, QString source_, int rate_, int channels_,
                                        Handlers handlers_)
    : source(std::move(source_))
    , rate(rate_)
    , channels(channels_)
    , handlers(std::move(handlers_))
    , m_owner(owner)
{
}

SyntheticAudioBackend::Capture::~Capture()
{
    std::lock_guard lock(m_owner.m_mutex);
    if (m_owner.m_open.value(source) == this)
        m_owner.m_open.remove(source);
}

std::optional<QString> SyntheticAudioBackend::outputMonitor(QString *reason)
{
    if (!monitor && reason)
        *reason = monitorReason;
    return monitor;
}

std::unique_ptr<AudioCapture> SyntheticAudioBackend::open(const QString &source, int rate, int channels,
                                                          Handlers handlers, QString *error)
{
    std::lock_guard lock(m_mutex);
    if (refused.contains(source)) {
        if (error)
            *error = QStringLiteral("refused");
        return nullptr;
    }
    auto capture = std::make_unique<Capture>(*this, source, rate, channels, std::move(handlers));
    m_open.insert(source, capture.get());
    return capture;
}

bool SyntheticAudioBackend::deliver(const QString &source, const QByteArray &pcm, int64_t captureNs, bool discontinuity)
{
    std::lock_guard lock(m_mutex); // held through the callback, like a real backend's loop lock
    Capture *c = m_open.value(source);
    if (!c || !c->handlers.onBuffer)
        return false;
    AudioBuffer b;
    b.pcm = pcm;
    b.rate = c->rate;
    b.channels = c->channels;
    b.captureNs = captureNs;
    b.discontinuity = discontinuity;
    c->handlers.onBuffer(std::move(b));
    return true;
}

bool SyntheticAudioBackend::fail(const QString &source, const QString &reason)
{
    std::lock_guard lock(m_mutex);
    Capture *c = m_open.value(source);
    if (!c || !c->handlers.onFailed)
        return false;
    c->handlers.onFailed(reason);
    return true;
}

int SyntheticAudioBackend::openChannels(const QString &source) const
{
    std::lock_guard lock(m_mutex);
    const Capture *c = m_open.value(source);
    return c ? c->channels : 0;
}

void SyntheticAudioBackend::watch(std::function<void()> onChanged)
{
    std::lock_guard lock(m_mutex);
    m_onOutputChanged = std::move(onChanged);
}

void SyntheticAudioBackend::changeOutput(const std::optional<QString> &newMonitor)
{
    std::function<void()> watcher;
    {
        std::lock_guard lock(m_mutex);
        monitor = newMonitor;
        watcher = m_onOutputChanged;
    }
    if (watcher)
        watcher();
}
