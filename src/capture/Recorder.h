#pragma once

#include "AudioSources.h"
#include "Device.h"
#include "WriterSetup.h"

#include <QByteArray>
#include <QList>
#include <QObject>
#include <QString>

#include <atomic>
#include <functional>
#include <map>
#include <mutex>
#include <memory>
#include <optional>

class AudioBackend;
class AudioPath;
class CameraBackend;
class CameraManager;
class Clock;
class SerialQueue;
class Take;

// The recorder: a thin coordinator of one take at a time over the sound sources, the audio path
// and the cameras. The road of one recording, hop by hop:
//
//  1. The control room's "start" arrives on the link (main thread); the controller's command
//     handler decides the wanted state and calls Recorder::start(session).
//  2. Recorder::start makes a Take: the session, the take number, the start sync (SyncGate) and,
//     as tracks deliver, their writers (mic, sys, room, cam, cam2–cam4), made with the folder,
//     bit rate and segment length handed to start(). It hands the take to the
//     AudioPath (posted to the audio queue q) and to the CameraManager (posted to videoQ).
//  3. AudioSources opens the microphone, the computer audio (the default output's monitor) and the
//     room microphone on the main thread; the CameraManager opens the cameras on videoQ.
//  4. The sound server's thread copies each block to q (at most 22 s waiting per source); each
//     camera's capture thread hands its newest frame to videoQ.
//  5. On q the drift corrector makes the audio contiguous on the monotonic clock.
//  6. The take's start sync holds every track back until mic, sys and (when expected) cam have
//     delivered, or 2 s have passed, then fixes the common start T0 and gives it to every writer
//     of the take, also to those made later. Audio counts as delivered when its first block comes
//     in on q (before the corrector's hold), so no camera frame after T0 is turned away.
//  7. The track's SegmentWriter appends the sample; its format encodes it (AAC in M4A, H.264 in
//     MP4) into a fragmented file in writing/<session>/ (a shortened folder with the full text
//     in its ".session" file when the session is too long for a name); the header and a first
//     fragment reach the disk at once, then one fragment at most every 2 s. A failed write (a
//     full disk) hands over what reached the disk and becomes lastError until writing works again.
//  8. A segment rolls over after 30 min; Recorder::stop ends the take: the held audio is written,
//     every track is closed once with "_final" (posted; the main thread never waits).
//  9. Each finished file goes out through onSegmentDone (on the writer's queue) to the upload
//     queue, which moves it to pending/ and uploads it.
//
// Threads: every public method is for the main thread unless it says otherwise; the callbacks
// come on the queues named below.
class Recorder : public QObject
{
    Q_OBJECT
private:
    // Declared first: built first, destroyed last.
    std::unique_ptr<SerialQueue> m_q;
    std::unique_ptr<SerialQueue> m_videoQ;

public:
    /// A recorder on these sound-server and camera backends, stamping on `clock`.
    Recorder(AudioBackend &audio, CameraBackend &cameras, Clock &clock, QObject *parent = nullptr);
    /// Stops capture; no callback runs after it returns. Open segments stay in writing/.
    ~Recorder() override;

    /// Starts capture (a take when session is set, levels/live only otherwise) whose writers use
    /// `setup`; `done` runs later on the main thread. A running capture is stopped first.
    void start(const std::optional<QString> &session, const WriterSetup &setup, std::function<void()> done);
    /// Stops capture and finishes every file; `done` runs on the main thread afterwards.
    void stop(std::function<void()> done);
    /// Re-opens the microphone and room microphone after the chosen device changed.
    void restartMic();
    /// The microphone the user chose ("" = the system default), used from the next opening on.
    void setMicChoice(const QString &uid);
    /// The camera the user chose ("" = the default camera), used from the next opening on.
    void setCamChoice(const QString &uid);

    /// Capture is running.
    bool running() const { return m_take != nullptr; }
    /// Session of the current recording; none for a sound test or listen-only run.
    std::optional<QString> session() const;
    /// Running with a session.
    bool isRecording() const { return session().has_value(); }
    /// Take number of the current (or last) recording.
    qint64 currentTake() const { return m_lastTake; }

    /// The control room has enabled cameras.
    bool camerasEnabled() const;
    /// Switches cameras on or off for the control room.
    void setCamerasEnabled(bool on);
    /// The setup wizard ends its use of the camera.
    void endSetupCamera();
    /// Opens the chosen camera when cameras are allowed and none runs.
    void ensureCamera();
    /// Opens the chosen camera again (after the choice changed).
    void restartCamera();
    /// Camera chosen for preview ("" = the main camera).
    QString previewCamUID() const;
    /// Chooses the camera for preview.
    void setPreviewCamUID(const QString &uid);

private:
    std::atomic<bool> m_listening{false};
    std::unique_ptr<AudioPath> m_path;
    std::unique_ptr<AudioSources> m_sources;
    std::unique_ptr<CameraManager> m_cameras;

public:
    /// The control room wants live audio.
    std::atomic<bool> &listening;
    /// The control room wants preview frames (the camera manager's).
    std::atomic<bool> &previewing;
    /// Preview in the larger size (the camera manager's).
    std::atomic<bool> &previewHd;
    /// The setup wizard may use the camera (the camera manager's).
    std::atomic<bool> &setupCameraAllowed;

    /// Last capture problem as shown, none when fine: a track that cannot be written first (a
    /// full disk), else the sound sources' fault in words.
    std::optional<QString> lastError() const;
    /// A capture permission the last start found refused.
    using Blocked = AudioSources::Blocked;
    /// Which permission the current error is about (None when the error is of another kind).
    Blocked blocked() const;
    /// Last camera problem, none when fine.
    std::optional<QString> camError() const;
    /// A camera can be picked.
    bool hasCamera() const { return !cameras().isEmpty(); }
    /// The main camera is delivering frames.
    bool camRunning() const;
    /// The cameras refused this user at the last try (not in the video group, say).
    bool cameraRefused() const;

    struct Levels {
        float mic = 0;
        float sys = 0;
    };
    /// Peak levels since the last call, then reset. Never waits.
    Levels takeLevels();

    /// Available microphones (real devices only), as last listed.
    QList<Device> mics() const;
    /// The microphone a start would use.
    std::optional<Device> pickMic() const;
    /// Available cameras (real devices only), as last listed.
    QList<Device> cameras() const;
    /// Name and unique ID of the microphone in use, name of the room microphone ("" when none).
    QString micName() const { return m_sources->micName(); }
    QString micUID() const { return m_sources->micUID(); }
    QString roomName() const { return m_sources->roomName(); }

    /// The sound sources (tests replace their retry scheduling).
    AudioSources &sources() { return *m_sources; }
    /// The audio path (tests read its drop count).
    AudioPath &audioPath() { return *m_path; }
    /// The cameras.
    CameraManager &cameraManager() { return *m_cameras; }
    /// The audio queue.
    SerialQueue &audioQueue() { return *m_q; }
    /// The camera queue.
    SerialQueue &videoQueue() { return *m_videoQ; }

    /// A finished segment file and its session ("" when none); called on a writer's queue.
    std::function<void(const QString &path, const QString &session)> onSegmentDone;
    /// One live-audio block; source 0 = microphone, 1 = computer audio; called on the audio queue.
    std::function<void(quint8 source, const QByteArray &pcm)> onLiveAudio;
    /// One JPEG preview frame; called on the video queue.
    std::function<void(const QByteArray &jpeg)> onPreviewFrame;

private:
    CameraBackend &m_cameraBackend;
    Clock &m_clock;
    std::shared_ptr<Take> m_take; // the running take; none when stopped
    QString m_takeFolder;         // its session folder in writing/ ("" without a session)
    mutable std::mutex m_faultMutex; // guards m_writeFaults (set on the writers' queues)
    std::map<QString, QString> m_writeFaults; // track → why it cannot be written
    qint64 m_faultTake = 0; // the take m_writeFaults belong to
    qint64 m_lastTake = 0;
};
