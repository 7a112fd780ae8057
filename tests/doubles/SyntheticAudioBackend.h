#pragma once

#include "AudioBackend.h"

#include <QMap>
#include <QSet>

#include <atomic>
#include <mutex>

// A sound system made of nothing, for tests and benchmarks: its devices are whatever the test
// lists, and each open capture delivers exactly the blocks the test hands it, stamped with the
// times the test chooses (for example from a ManualClock, so hours pass in milliseconds). Its
// lock is held through every callback, like a real backend's loop lock.
class SyntheticAudioBackend final : public AudioBackend
{
    template<typename F>
    auto locked(F f) const
    {
        std::lock_guard lock(m_mutex);
        return f();
    }
    // Runs f on the open capture of `source`; a default value when none is open.
    template<typename F>
    auto with(const QString &source, F f) const
    {
        return locked([&] { return m_open.contains(source) ? f(*m_open.value(source)) : decltype(f(*m_open.first()))(); });
    }
    template<typename H, typename... A>
    static bool call(const H &handler, A &&...args)
    {
        if (handler)
            handler(std::forward<A>(args)...);
        return bool(handler);
    }

    struct Capture final : AudioCapture {
        Capture(SyntheticAudioBackend &o, int r, int c, Handlers h) : owner(o), rate(r), channels(c), handlers(std::move(h)) {}
        ~Capture() override { owner.locked([this] { owner.m_open.remove(owner.m_open.key(this)); }); }
        SyntheticAudioBackend &owner;
        const int rate, channels;
        const Handlers handlers;
    };

public:
    explicit SyntheticAudioBackend(Clock &clock = Clock::monotonic()) : m_clock(clock) {}

    Access access() override { return accessAnswer; }
    QList<Device> inputs() override { return devices; }
    std::optional<QString> outputMonitor(QString *reason) override
    {
        std::lock_guard lock(m_mutex);
        if (!monitor && reason)
            *reason = QStringLiteral("No audio output found");
        return monitor;
    }
    std::unique_ptr<AudioCapture> open(const QString &source, int rate, int channels, Handlers handlers, QString *error) override
    {
        std::lock_guard lock(m_mutex);
        if (refused.contains(source) && error)
            *error = QStringLiteral("refused");
        auto capture = refused.contains(source) ? nullptr : std::make_unique<Capture>(*this, rate, channels, std::move(handlers));
        if (capture)
            m_open.insert(source, capture.get());
        return capture;
    }
    Clock &clock() override { return m_clock; }
    bool answering() const override { return m_answering; }
    void watch(std::function<void()> onChanged) override { locked([&] { m_watcher = std::move(onChanged); }); }

    /// Makes `newMonitor` the default output's monitor (none: no output) and tells the watcher.
    void changeOutput(const std::optional<QString> &newMonitor) { locked([&] { monitor = newMonitor, call(m_watcher); }); }
    /// Makes the server (stop) answer its health checks and tells the watcher.
    void setAnswering(bool answering) { locked([&] { m_answering = answering, call(m_watcher); }); }
    /// Hands one block to the open capture of `source` (with the loss its server positions show); false when none is open.
    bool deliver(const QString &source, const QByteArray &pcm, int64_t captureNs, bool discontinuity = false, int lostFrames = 0, int64_t lostAtNs = 0)
    {
        return with(source, [&](const Capture &c) {
            return call(c.handlers.onBuffer, AudioBuffer{pcm, c.rate, c.channels, captureNs, discontinuity, lostFrames, lostAtNs});
        });
    }
    /// Makes the open capture of `source` report that it died; false when none is open.
    bool fail(const QString &source, const QString &reason)
    {
        return with(source, [&](const Capture &c) { return call(c.handlers.onFailed, reason); });
    }
    /// Whether a capture of `source` is open, and its channel count (0 when none).
    int openChannels(const QString &source) const { return with(source, [](const Capture &c) { return c.channels; }); }

    QList<Device> devices;
    std::optional<QString> monitor = QStringLiteral("synthetic.monitor");
    QSet<QString> refused; // sources whose open fails
    Access accessAnswer = Access::Allowed;

private:
    Clock &m_clock;
    mutable std::recursive_mutex m_mutex;
    QMap<QString, Capture *> m_open;
    std::function<void()> m_watcher;
    std::atomic<bool> m_answering{true};
};
