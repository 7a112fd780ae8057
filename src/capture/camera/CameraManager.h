#pragma once

#include "CameraAccess.h"
#include "CameraBackend.h"
#include "Clock.h"
#include "NewestFrame.h"
#include "PreviewEncoder.h"
#include "PreviewThrottle.h"
#include "RetryTicker.h"
#include "SerialQueue.h"

#include <QByteArray>
#include <QString>
#include <QStringList>

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

class Take;

// The recorder's cameras and every decision about them: whether cameras may run (enabled by the
// control room, or the setup wizard's camera), which ones run (the main camera, track "cam", and
// up to three extra cameras, cam2–cam4), what preview shows (on/off, size, chosen camera, at most
// 24 frames per second) and which take their frames go to. Sessions are built, kept across takes
// and torn down on the video queue; frames reach it through a newest-frame hand-off, so a busy
// queue drops frames rather than falling behind. While cameras are allowed, a main camera that is
// missing or has stopped (unplugged, busy) is tried again every retry period, so a camera plugged
// back in mid-take goes on recording its track.
//
// Policy setters are called on the main thread and only post work to the video queue.
class CameraManager
{
public:
    /// Highest extra-camera number (cam2…cam4).
    static constexpr int kLastExtra = 4;
    /// Size asked of every camera.
    static constexpr int kWantWidth = 1920, kWantHeight = 1080;
    /// How often a missing or stopped main camera is tried again.
    static constexpr int kRetryMs = 2000;

    /// Cameras of `backend` run on `videoQ`; preview spacing reads `clock`.
    CameraManager(SerialQueue &videoQ, CameraBackend &backend, const Clock &clock, int retryMs = kRetryMs);
    /// Stops every camera (waits for the video queue).
    ~CameraManager();
    CameraManager(const CameraManager &) = delete;
    CameraManager &operator=(const CameraManager &) = delete;

    /// The camera to use from `cameras`: the saved one if present, else the default, else the
    /// first built-in, else the first; none when there is no camera.
    static std::optional<Device> pick(const QList<Device> &cameras, const QString &savedUid);

    /// Main thread: the control room switches cameras on or off.
    void setEnabled(bool on);
    /// The control room has enabled cameras.
    bool enabled() const { return m_enabled; }
    /// Main thread: the setup wizard ends its use of the camera.
    void endSetupCamera();
    /// Cameras may run (enabled, or the setup wizard's camera).
    bool allowed() const { return m_enabled || setupAllowed; }
    /// Main thread: opens the chosen camera when allowed and none runs (posted).
    void ensure();
    /// Main thread: opens the chosen camera again after the choice changed (posted).
    void restart();
    /// The start sync of a take starting now must wait for the main camera.
    bool expectsCamera() const;

    /// The control room wants preview frames.
    std::atomic<bool> previewing{false};
    /// Preview in the larger size.
    std::atomic<bool> previewHd{false};
    /// The setup wizard may use the camera.
    std::atomic<bool> setupAllowed{false};
    /// Camera chosen for preview ("" = the main camera).
    QString previewCamUID() const;
    /// Chooses the camera for preview.
    void setPreviewCamUID(const QString &uid);
    /// The camera the user chose ("" = the default one); read when the main camera is opened.
    void setChosenUID(const QString &uid);

    /// Main thread: frames go to `take` from now on (posted).
    void beginTake(std::shared_ptr<Take> take);
    /// Main thread: ends every camera track of the current take ("_final") and lets it go;
    /// `done` runs on the video queue afterwards (posted).
    void endTake(std::function<void()> done);

    /// The main camera is delivering frames.
    bool camRunning() const;
    /// Last camera problem, none when fine.
    std::optional<QString> camError() const;
    /// The last try found that this user may not open the cameras.
    bool refused() const { return m_refused; }
    /// Unique ID of the main camera ("" when none).
    QString primaryUID() const;
    /// Tracks of the running extra cameras, in order ("cam2", …).
    QStringList extraTracks() const;

    /// One JPEG preview frame; called on the video queue.
    std::function<void(const QByteArray &jpeg)> onPreviewFrame;

private:
    struct Extra {
        QString uid;
        QString track;
        std::unique_ptr<NewestFrame> handoff;
        std::unique_ptr<CameraStream> stream;
    };

    void build();
    void shut();
    void buildMain();
    void buildExtras();
    void teardownExtras();
    void stopMain();
    std::unique_ptr<NewestFrame> handoffFor(const QString &uid, bool main);
    void onMainFrame(const TimedSample &frame);
    void onExtraFrame(const QString &uid, const TimedSample &frame);
    void sendPreview(const TimedSample &frame);
    void fail(const QString &text, const QString &logLine);
    bool mainRunning() const;

    SerialQueue &m_videoQ;
    CameraBackend &m_backend;
    std::atomic<bool> m_refused{false};
    std::atomic<bool> m_enabled{false};
    PreviewThrottle m_throttle;
    PreviewEncoder m_preview;
    std::unique_ptr<NewestFrame> m_mainHandoff;
    std::unique_ptr<CameraStream> m_main;
    std::shared_ptr<Take> m_take; // video queue

    mutable std::mutex m_mutex; // guards the fields below against other threads
    QString m_primaryUID;
    QString m_previewCamUID;
    QString m_chosenUID;
    std::optional<QString> m_camError;
    std::vector<Extra> m_extras;

    // Declared last: stopped first, before anything its jobs use.
    std::unique_ptr<RetryTicker> m_retry;
};
