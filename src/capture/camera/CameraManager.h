#pragma once

#include "CameraAccess.h"
#include "CameraBackend.h"
#include "Clock.h"
#include "NewestFrame.h"
#include "PreviewEncoder.h"
#include "PreviewThrottle.h"
#include "RetryTicker.h"
#include "SerialQueue.h"
#include "VideoWriter.h"

#include <QByteArray>
#include <QString>

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

// The recorder's cameras: the main camera (track "cam", waited for by the start sync) and up to
// three extra cameras (cam2–cam4, which take the common start when the sync locks), their writers
// and camera preview. Sessions are built, kept across takes and torn down on the video queue;
// frames reach the video queue through a newest-frame hand-off, so a busy queue drops frames
// rather than falling behind. While cameras are allowed, a main camera that is missing or has
// stopped (unplugged, busy) is tried again every retry period, so a camera plugged back in
// mid-take goes on recording its track.
class CameraManager
{
public:
    /// What the manager reads from its owner; each is called on the video queue.
    struct Hooks {
        std::function<bool()> allowed;          // cameras may run (control room or setup wizard)
        std::function<bool()> enabled;          // the control room enabled cameras (extras only then)
        std::function<bool()> running;          // capture is running
        std::function<bool(MediaTime)> gateCam; // the start sync passes a main-camera frame
        std::function<bool()> previewing;       // preview frames are wanted
        std::function<bool()> previewHd;        // in the larger size
        std::function<QString()> previewCamUID; // "" = the main camera
        std::function<QString()> savedCamUID;   // the camera chosen in settings
        std::function<CameraAccess::Status()> access = &CameraAccess::status;
    };
    /// Highest extra-camera number (cam2…cam4).
    static constexpr int kLastExtra = 4;
    /// Size asked of every camera.
    static constexpr int kWantWidth = 1920, kWantHeight = 1080;
    /// How often a missing or stopped main camera is tried again.
    static constexpr int kRetryMs = 2000;

    CameraManager(SerialQueue &videoQ, Hooks hooks, CameraBackend &backend,
                  const Clock &clock = Clock::monotonic(), int retryMs = kRetryMs);
    /// Stops every camera (on the video queue).
    ~CameraManager();
    CameraManager(const CameraManager &) = delete;
    CameraManager &operator=(const CameraManager &) = delete;

    /// The cameras of a backend, real devices only.
    static QList<Device> list(CameraBackend &backend);
    /// The camera to use: the saved one if present, else the default, else the first built-in,
    /// else the first; none when there is no camera.
    static std::optional<Device> pick(CameraBackend &backend, const QString &savedUid);

    /// Video queue: builds the main camera unless one runs, then the extra cameras.
    void build();
    /// Video queue: ends the "cam" track ("_final"), stops the main camera and the extras.
    void shut();
    /// Video queue: stops the main camera and builds again (another camera was chosen).
    void restart();
    /// Video queue: arms every camera writer for a take (numbering from 0, no common start yet).
    void beginTake(const std::optional<QString> &session, int64_t take);
    /// Video queue: finishes every camera writer's take ("_final") and makes them idle.
    void endTake();
    /// Any thread (the start sync's lock): the common start for "cam" and every extra camera.
    void lockAt(MediaTime t0);

    /// The main camera is delivering frames.
    bool camRunning() const;
    /// Last camera problem, none when fine.
    std::optional<QString> camError() const;
    /// Unique ID of the main camera ("" when none).
    QString primaryUID() const;
    /// Tracks of the running extra cameras, in order ("cam2", …).
    QStringList extraTracks() const;
    /// Writer of the main camera.
    VideoWriter &camW() { return m_camW; }

    /// A finished segment file of any camera track; called on the video queue.
    std::function<void(const QString &path)> onSegmentDone;
    /// One JPEG preview frame; called on the video queue.
    std::function<void(const QByteArray &jpeg)> onPreviewFrame;

private:
    struct Extra {
        QString uid;
        std::unique_ptr<NewestFrame> handoff;
        std::unique_ptr<CameraStream> stream;
        VideoWriter *writer = nullptr; // one of m_extraWriters
    };

    void buildMain();
    void buildExtras();
    void teardownExtras();
    void stopMain();
    std::unique_ptr<NewestFrame> handoffFor(const QString &uid, bool main);
    void onMainFrame(const TimedSample &frame);
    void onExtraFrame(const QString &uid, const TimedSample &frame);
    void sendPreview(const TimedSample &frame);
    VideoWriter *extraWriter(const QString &track);
    void fail(const QString &text, const QString &logLine);
    bool mainRunning() const;
    void assertOnQueue() const;

    SerialQueue &m_videoQ;
    const Hooks m_hooks;
    CameraBackend &m_backend;
    PreviewThrottle m_throttle;
    PreviewEncoder m_preview;
    VideoWriter m_camW{QStringLiteral("cam")};
    std::unique_ptr<NewestFrame> m_mainHandoff;
    // Extra-camera writers by track, kept for the manager's life: a camera that comes back within
    // a take continues its track's numbering instead of overwriting its earlier segments.
    std::map<QString, std::unique_ptr<VideoWriter>> m_extraWriters;
    std::unique_ptr<CameraStream> m_main;

    mutable std::mutex m_mutex; // guards the fields below against other threads
    QString m_primaryUID;
    std::optional<QString> m_camError;
    std::vector<Extra> m_extras;
    std::optional<MediaTime> m_lockedT0;
    std::optional<QString> m_session;
    int64_t m_take = 0;

    // Declared last: stopped first, before anything its jobs use.
    std::unique_ptr<RetryTicker> m_retry;
};
