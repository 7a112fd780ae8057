#pragma once

#include "CameraAccess.h"

#include <QObject>

#include <functional>

class AudioBackend;
class QFileSystemWatcher;

// What this user may capture. On Linux there is no consent prompt: a device is "authorized" when
// the system lets this program open it and "denied" when it refuses; until a check has been made
// the answer is "not determined". Every decision of this kind is made here. Never opens a device:
// the sound server's answers are the backend's cached ones, and camera access is read once and
// again whenever /dev changes. Main thread only.
class Permissions : public QObject
{
    Q_OBJECT
public:
    enum class Status { NotDetermined, Denied, Authorized };

    /// Answers from this sound server and the computer's video devices (`cameraAccess` replaces
    /// the reading of /dev, for tests).
    explicit Permissions(AudioBackend &audio, std::function<CameraAccess::Status()> cameraAccess = CameraAccess::status,
                         QObject *parent = nullptr);
    ~Permissions() override;

    /// Microphone access: whether the sound server accepts this program.
    Status microphone() const;
    /// Computer-audio access: the server accepts this program and the default output has a monitor.
    Status computerAudio() const;
    /// Camera access: whether this user may open the video devices (cached).
    Status camera() const { return m_camera; }

    /// Reads camera access again (a camera was just refused, or the user asks again).
    void recheckCamera();

    /// Text for logs: "true" when authorized, else "false".
    static const char *flag(Status status);

private:

    AudioBackend &m_audio;
    std::function<CameraAccess::Status()> m_cameraAccess;
    QFileSystemWatcher *m_devWatcher;
    Status m_camera = Status::NotDetermined;
};
