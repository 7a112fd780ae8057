#pragma once

#include "Device.h"
#include "MediaTime.h"

#include <QByteArray>
#include <QList>
#include <QMutex>
#include <QObject>
#include <QString>

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

class AudioBackend;
class AudioCapture;
class CameraBackend;
class CameraManager;
class Clock;
class DriftCorrector;
class LiveConverter;
class SegmentWriter;
class SerialQueue;
class SyncGate;
class TrackWriter;
struct AudioBuffer;
struct TimedSample;

// Owns the capture graph: microphone, computer audio, room microphone and cameras. Starts and
// stops takes for the controller, routes samples through the start sync to the segment writers
// and hands live audio, preview frames and finished segments to its owner.
// running/session are main-thread state; the flags are atomics read by capture threads.
//
// Threads: start/stop/restartMic and the device opening run on the main thread. Every audio
// block is handed by the sound system's thread to the serial queue q ("brava.recorder.audio"),
// which owns the audio writers, the drift correctors and the live converters; camera samples and
// camera writers belong to videoQ ("brava.recorder.video"). Writer control is dispatched to these
// queues synchronously, so it never overlaps an append.
class Recorder : public QObject
{
    Q_OBJECT
public:
    /// A recorder on these sound-server and camera backends, stamping on `clock`.
    Recorder(AudioBackend &backend, CameraBackend &cameras, Clock &clock, QObject *parent = nullptr);
    ~Recorder() override;

    /// Starts capture (a take when session is set, levels/live only otherwise); `done` runs on the
    /// main thread once it has started. A running capture is stopped first.
    void start(const std::optional<QString> &session, std::function<void()> done);
    /// Stops capture and finishes every file; `done` runs on the main thread afterwards.
    void stop(std::function<void()> done);
    /// Re-opens the microphone and room microphone after the chosen device changed.
    void restartMic();

    /// Capture is running.
    bool running() const { return m_running; }
    /// Session of the current recording; none for a sound test or listen-only run.
    std::optional<QString> session() const { return m_session; }
    /// Running with a session.
    bool isRecording() const { return m_running && m_session.has_value(); }

    /// The control room has enabled cameras.
    bool camerasEnabled() const { return m_camerasEnabled; }
    /// Switches cameras on or off for the control room.
    void setCamerasEnabled(bool on);
    /// The setup wizard ends its use of the camera.
    void endSetupCamera();
    /// Opens the camera session when a camera is allowed and none runs (asynchronously).
    void ensureCamera();
    /// Ends the camera track and stops every camera unless the control room or the wizard uses them.
    void shutCamera();
    /// Opens the chosen camera again (after the choice changed).
    void restartCamera();
    /// The control room wants live audio.
    std::atomic<bool> listening{false};
    /// The control room wants preview frames.
    std::atomic<bool> previewing{false};
    /// Preview in the larger size.
    std::atomic<bool> previewHd{false};
    /// The setup wizard may use the camera.
    std::atomic<bool> setupCameraAllowed{false};
    /// camerasEnabled or setupCameraAllowed.
    bool cameraAllowed() const { return m_camerasEnabled || setupCameraAllowed; }

    /// Camera chosen for preview ("" = the main camera).
    QString previewCamUID() const;
    /// Chooses the camera for preview.
    void setPreviewCamUID(const QString &uid);

    /// Last capture problem, none when fine.
    std::optional<QString> lastError() const;
    /// Last camera problem, none when fine.
    std::optional<QString> camError() const;
    /// A camera can be picked.
    bool hasCamera() const;
    /// The camera session is running.
    bool camRunning() const;

    struct Levels {
        float mic = 0;
        float sys = 0;
    };
    /// Peak levels since the last call, then reset.
    Levels takeLevels();

    /// Available microphones (real devices only).
    QList<Device> mics() const;
    /// The microphone a start would use.
    std::optional<Device> pickMic() const;
    /// Available cameras (real devices only).
    QList<Device> cameras() const;

    /// A capture permission the last start found refused.
    enum class Blocked { None, Microphone, ComputerAudio };
    /// Which permission the current error is about (None when the error is of another kind).
    Blocked blocked() const;

    /// Forgets the take's common start; expectCam: the main camera must be waited for.
    void resetSync(bool expectCam);
    /// The start sync: true when the sample of `track` ("mic", "sys", "room", "cam") at `time`
    /// is to be written. Safe from q and videoQ at once.
    bool syncGate(const QString &track, MediaTime time);
    /// Adds a writer whose openAt is set when the sync locks (the camera writers); any thread.
    void addSyncedWriter(SegmentWriter *writer);
    /// Removes a writer added with addSyncedWriter.
    void removeSyncedWriter(SegmentWriter *writer);
    /// The audio queue.
    SerialQueue &audioQueue() { return *m_q; }
    /// The camera queue.
    SerialQueue &videoQueue() { return *m_videoQ; }
    /// Take number of the current (or last) recording.
    qint64 currentTake() const { return m_currentTake; }
    /// Name and unique ID of the microphone in use, name of the room microphone ("" when none).
    QString micName() const;
    QString micUID() const;
    QString roomName() const;
    /// Replaces how a delayed action is scheduled (the 2 s retry); tests run it at once or never.
    std::function<void(int ms, std::function<void()> action)> schedule;

    /// A finished segment file and its session ("" when none); called on a writer thread.
    std::function<void(const QString &path, const QString &session)> onSegmentDone;
    /// One live-audio block; source 0 = microphone, 1 = computer audio; called on the audio queue.
    std::function<void(quint8 source, const QByteArray &pcm)> onLiveAudio;
    /// One JPEG preview frame; called on the video queue.
    std::function<void(const QByteArray &jpeg)> onPreviewFrame;

protected:
    /// Sets lastError and its kind (thread-safe).
    void setLastError(const std::optional<QString> &error, Blocked kind = Blocked::None);

private:
    enum Source { Mic = 0, Sys = 1, Room = 2 };

    void startMic();
    void startRoomMic();
    void startSystemAudio();
    void systemAudioStopped(const QString &reason);
    void outputChanged();
    std::unique_ptr<AudioCapture> openSource(Source source, const QString &name, int channels, QString *error);
    void onAudio(Source source, int generation, const AudioBuffer &buffer);
    void write(Source source, const std::vector<TimedSample> &samples);
    void lockStart(MediaTime t0);

    // Camera hooks (the camera paths fill these in).
    bool cameraExpected(const std::optional<QString> &session) const;
    void beginCameraWriters(const std::optional<QString> &session, qint64 take);
    void closeCameraWriters();
    void stopCamerasIfDisabled();

    AudioBackend &m_backend;
    CameraBackend &m_cameraBackend;
    QString m_sysMonitor; // the source computer audio is taken from
    Clock &m_clock;

    bool m_running = false;
    std::optional<QString> m_session;
    qint64 m_currentTake = 0;
    std::atomic<bool> m_camerasEnabled{false};
    mutable QMutex m_textMutex;
    QString m_previewCamUID;
    std::optional<QString> m_lastError;
    Blocked m_blocked = Blocked::None;
    QString m_micName, m_micUID, m_roomName;

    // Audio sources (main thread) and their generation, bumped at every open so blocks of a
    // closed device are recognised on q.
    std::unique_ptr<AudioCapture> m_caps[3];
    std::atomic<int> m_generation[3] = {0, 0, 0};
    int m_retryToken = 0;

    // Owned by q.
    std::unique_ptr<TrackWriter> m_micW, m_sysW, m_roomW;
    std::unique_ptr<DriftCorrector> m_drift[3];
    int m_driftGeneration[3] = {-1, -1, -1};
    std::unique_ptr<LiveConverter> m_micLive, m_sysLive;
    std::atomic<bool> m_capturing{false}; // running, as seen from q: cleared inside the closing job

    std::unique_ptr<SyncGate> m_sync;
    std::mutex m_syncedMutex;
    std::vector<SegmentWriter *> m_synced;

    // The cameras, their writers and preview; works on videoQ, destroyed before the queues.
    std::unique_ptr<CameraManager> m_cameras;

    // Declared last: destroyed first, draining their jobs while everything they use still exists.
    std::unique_ptr<SerialQueue> m_videoQ;
    std::unique_ptr<SerialQueue> m_q;
};
