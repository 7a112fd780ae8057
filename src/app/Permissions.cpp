#include "Permissions.h"

#include "CameraAccess.h"
#include "AudioBackend.h"

Permissions::Permissions(AudioBackend &audio)
    : m_audio(audio)
{
}

// Linux has no consent prompt for sound, so the answer is what the sound server does:
// - microphone: Authorized when the server accepts this program's connection, Denied when it
//   turns it away (access or authentication refused, as in a sandbox without audio access),
//   NotDetermined when no server answers at all (nothing setup could repair);
// - computer audio: Authorized when the default output's monitor can be opened for capture,
//   Denied when the server or the stream refuses, NotDetermined when there is no output device.
Permissions::Status Permissions::microphone() const
{
    switch (m_audio.access()) {
    case AudioBackend::Access::Allowed:
        return Status::Authorized;
    case AudioBackend::Access::Refused:
        return Status::Denied;
    case AudioBackend::Access::Unknown:
        break;
    }
    return Status::NotDetermined;
}

Permissions::Status Permissions::computerAudio() const
{
    const Status server = microphone();
    if (server != Status::Authorized)
        return server;
    QString reason;
    const std::optional<QString> monitor = m_audio.outputMonitor(&reason);
    if (!monitor)
        return Status::NotDetermined;
    QString error;
    const std::unique_ptr<AudioCapture> probe = m_audio.open(*monitor, 48000, 2, {}, &error);
    return probe ? Status::Authorized : Status::Denied;
}

Permissions::Status Permissions::camera() const
{
    switch (CameraAccess::status()) {
    case CameraAccess::Status::Authorized: return Status::Authorized;
    case CameraAccess::Status::Denied: return Status::Denied;
    case CameraAccess::Status::NotDetermined: break;
    }
    return Status::NotDetermined;
}

const char *Permissions::flag(Status status) { return status == Status::Authorized ? "true" : "false"; }

