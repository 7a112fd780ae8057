#pragma once

#include "AudioBackend.h"

#include <QSet>

#include <condition_variable>
#include <cstdint>
#include <mutex>

struct pa_context;
struct pa_mainloop_api;
struct pa_operation;
struct pa_server_info;
struct pa_sink_info;
struct pa_source_info;
struct pa_threaded_mainloop;
struct pa_time_event;

// The PulseAudio client (also served by PipeWire's PulseAudio service). One threaded main loop
// runs on its own thread and owns the context, every stream and a snapshot of the server's
// state: it subscribes to the server's events and refreshes the snapshot (access, microphones,
// the default output's monitor) whenever one arrives, so the queries are cache reads that never
// wait for the server. A health check on the loop's thread asks for the server's info every
// kTickMs; an answer missing for kHungMs means the server is not answering. A context that fails
// (the server was killed or restarted) is replaced after a back-off. Microphones are input
// sources that are not monitors; the computer audio is the monitor of the default output.
class PulseBackend final : public AudioBackend
{
public:
    static constexpr int kTickMs = 500;
    static constexpr int kHungMs = 1500;
    static constexpr int kFirstBackoffMs = 500;
    static constexpr int kMaxBackoffMs = 5000;
    static constexpr int kFirstSnapshotMs = 1000;

    /// Starts the loop, connects and waits up to kFirstSnapshotMs for the first snapshot.
    PulseBackend();
    ~PulseBackend() override;
    PulseBackend(const PulseBackend &) = delete;
    PulseBackend &operator=(const PulseBackend &) = delete;

    Access access() override;
    QList<Device> inputs() override;
    std::optional<QString> outputMonitor(QString *reason) override;
    /// Connects a stream and returns at once; a stream that never becomes ready reports through
    /// Handlers::onFailed. None only when the server is not connected or refuses this program.
    std::unique_ptr<AudioCapture> open(const QString &source, int rate, int channels, Handlers handlers,
                                       QString *error) override;
    Clock &clock() override { return Clock::monotonic(); }
    bool answering() const override;
    /// The watcher runs on the loop's thread with its lock held: it must only hand over (never
    /// open or close a capture there).
    void watch(std::function<void()> onChanged) override;

private:
    struct Snapshot {
        Access access = Access::Unknown;
        QList<Device> inputs;
        QSet<QString> monitors; // every monitor source: streams on them stay with their output
        QString monitor;        // the default output's monitor; empty when there is none
        bool answering = false;
        bool filled = false; // the first refresh (or failure) has come in
    };

    // On the loop's thread, with its lock held.
    void connectContext();
    void contextStateChanged();
    void contextFailed();
    void tick();
    void refresh();
    void refreshStepDone(bool answered);
    void serverInfoArrived(const pa_server_info *info);
    void sourceArrived(const pa_source_info *info);
    void sinkArrived(const pa_sink_info *info);
    void healthArrived(const pa_server_info *info);
    void setAnswering(bool answering);
    void publish(Snapshot next);

    pa_threaded_mainloop *m_loop = nullptr;
    pa_mainloop_api *m_api = nullptr;
    pa_context *m_ctx = nullptr;
    pa_time_event *m_tick = nullptr;
    pa_operation *m_healthOp = nullptr;
    uint64_t m_healthSentUs = 0;
    bool m_down = false;       // the current context has failed
    uint64_t m_reconnectAtUs = 0;
    int m_backoffMs = kFirstBackoffMs;
    int m_refreshSteps = 0;    // requests of the refresh under way
    bool m_refreshAgain = false;
    bool m_refreshBroken = false; // a request of the refresh under way failed
    QString m_defaultSource, m_defaultSink;
    Snapshot m_next;           // the refresh under way

    mutable std::mutex m_mutex; // guards m_snapshot
    std::condition_variable m_filled;
    Snapshot m_snapshot;
    std::recursive_mutex m_watchMutex; // held while the watcher runs: watch() then replaces it safely
    std::function<void()> m_watcher;
};
