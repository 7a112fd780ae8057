#pragma once

#include "AudioBackend.h"

#include <QMap>
#include <QSet>

#include <atomic>
#include <mutex>

// A sound system made of nothing, for tests and benchmarks: its devices are whatever the test
// lists, and each open capture delivers exactly the blocks the test hands it, stamped with the
// times the test chooses (for example from a ManualClock, so hours pass in milliseconds).
class SyntheticAudioBackend final : public AudioBackend
{
public:
    explicit SyntheticAudioBackend(Clock &clock = Clock::monotonic()) : m_clock(clock) {}

    Access access() override { return accessAnswer; }
    QList<Device> inputs() override { return devices; }
    std::optional<QString> outputMonitor(QString *reason) override;
    std::unique_ptr<AudioCapture> open(const QString &source, int rate, int channels, Handlers handlers,
                                       QString *error) override;
    Clock &clock() override { return m_clock; }
    bool answering() const override { return m_answering; }
    void watch(std::function<void()> onChanged) override;

    /// Makes `newMonitor` the default output's monitor (none: no output) and tells the watcher.
    void changeOutput(const std::optional<QString> &newMonitor);
    /// Makes the server (stop) answer its health checks and tells the watcher.
    void setAnswering(bool answering);
    /// Hands one block to the open capture of `source`; false when none is open.
    bool deliver(const QString &source, const QByteArray &pcm, int64_t captureNs, bool discontinuity = false);
    /// Makes the open capture of `source` report that it died.
    bool fail(const QString &source, const QString &reason);
    /// Whether a capture of `source` is open, and its channel count (0 when none).
    int openChannels(const QString &source) const;

    QList<Device> devices;
    std::optional<QString> monitor = QStringLiteral("synthetic.monitor");
    QString monitorReason = QStringLiteral("No audio output found");
    QSet<QString> refused; // sources whose open fails
    Access accessAnswer = Access::Allowed;

private:
    struct Capture;
    void notify();

    Clock &m_clock;
    mutable std::recursive_mutex m_mutex; // held through callbacks, like a real backend's loop lock
    QMap<QString, Capture *> m_open;
    std::function<void()> m_watcher;
    std::atomic<bool> m_answering{true};
};
