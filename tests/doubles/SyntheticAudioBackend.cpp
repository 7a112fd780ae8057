#include "SyntheticAudioBackend.h"

struct SyntheticAudioBackend::Capture final : AudioCapture {
    Capture(SyntheticAudioBackend &owner_, int rate_, int channels_, Handlers handlers_)
        : owner(owner_), rate(rate_), channels(channels_), handlers(std::move(handlers_)) {}
    ~Capture() override
    {
        std::lock_guard lock(owner.m_mutex);
        owner.m_open.remove(owner.m_open.key(this));
    }
    SyntheticAudioBackend &owner;
    const int rate, channels;
    const Handlers handlers;
};

std::optional<QString> SyntheticAudioBackend::outputMonitor(QString *reason)
{
    std::lock_guard lock(m_mutex);
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
    auto capture = std::make_unique<Capture>(*this, rate, channels, std::move(handlers));
    m_open.insert(source, capture.get());
    return capture;
}

bool SyntheticAudioBackend::deliver(const QString &source, const QByteArray &pcm, int64_t captureNs, bool discontinuity)
{
    std::lock_guard lock(m_mutex);
    const Capture *c = m_open.value(source);
    if (!c || !c->handlers.onBuffer)
        return false;
    c->handlers.onBuffer(AudioBuffer{pcm, c->rate, c->channels, captureNs, discontinuity});
    return true;
}

bool SyntheticAudioBackend::fail(const QString &source, const QString &reason)
{
    std::lock_guard lock(m_mutex);
    const Capture *c = m_open.value(source);
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
    m_watcher = std::move(onChanged);
}

void SyntheticAudioBackend::changeOutput(const std::optional<QString> &newMonitor)
{
    {
        std::lock_guard lock(m_mutex);
        monitor = newMonitor;
    }
    notify();
}

void SyntheticAudioBackend::setAnswering(bool answering)
{
    m_answering = answering;
    notify();
}

void SyntheticAudioBackend::notify()
{
    std::lock_guard lock(m_mutex); // watch() cannot return while the old watcher runs
    if (m_watcher)
        m_watcher();
}
