#pragma once

#include "AudioBackend.h"

#include <memory>

struct pa_context;
struct pa_threaded_mainloop;

// The PulseAudio client (also served by PipeWire's PulseAudio service). One threaded main loop
// runs on its own thread and owns the context and every stream; callers take its lock for each
// request and wait for the answer. Microphones are input sources that are not monitors; the
// computer audio is the monitor of the server's default output.
class PulseBackend final : public AudioBackend
{
public:
    PulseBackend();
    ~PulseBackend() override;
    PulseBackend(const PulseBackend &) = delete;
    PulseBackend &operator=(const PulseBackend &) = delete;

    Access access() override;
    QList<Device> inputs() override;
    std::optional<QString> outputMonitor(QString *reason) override;
    std::unique_ptr<AudioCapture> open(const QString &source, int rate, int channels, Handlers handlers,
                                       QString *error) override;
    Clock &clock() override { return Clock::monotonic(); }
    void watch(std::function<void()> onChanged) override;

private:
    struct ServerInfo {
        QString defaultSource;
        QString defaultSink;
    };
    bool connectLocked();
    bool isMonitorLocked(const QString &source);
    std::optional<ServerInfo> serverInfoLocked();
    void waitLocked(struct pa_operation *op);

    pa_threaded_mainloop *m_loop = nullptr;
    pa_context *m_ctx = nullptr;
    int m_lastError = 0;
    std::function<void()> m_onOutputChanged; // guarded by the main loop's lock
};
