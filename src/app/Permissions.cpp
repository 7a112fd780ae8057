#include "Permissions.h"

#include "AudioBackend.h"
#include "CameraAccess.h"

#include <QFileSystemWatcher>

Permissions::Permissions(AudioBackend &audio, std::function<CameraAccess::Status()> cameraAccess, QObject *parent)
    : QObject(parent)
    , m_audio(audio)
    , m_cameraAccess(std::move(cameraAccess))
    , m_devWatcher(new QFileSystemWatcher(this))
{
    // Plugging or unplugging a camera adds or removes a node in /dev.
    m_devWatcher->addPath(QStringLiteral("/dev"));
    connect(m_devWatcher, &QFileSystemWatcher::directoryChanged, this, &Permissions::recheckCamera);
    recheckCamera();
}

Permissions::~Permissions() = default;

void Permissions::recheckCamera()
{
    Q_ASSERT(m_cameraAccess);
    switch (m_cameraAccess()) {
    case CameraAccess::Status::Authorized:
        m_camera = Status::Authorized;
        return;
    case CameraAccess::Status::Denied:
        m_camera = Status::Denied;
        return;
    case CameraAccess::Status::NotDetermined:
        break;
    }
    m_camera = Status::NotDetermined;
}

// Linux has no consent prompt for sound, so the answer is what the sound server does:
// Authorized when the server accepts this program's connection, Denied when it turns it away
// (access or authentication refused, as in a sandbox without audio access), NotDetermined when
// no server answers at all (nothing setup could repair).
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
    return m_audio.outputMonitor(&reason) ? Status::Authorized : Status::NotDetermined;
}

const char *Permissions::flag(Status status)
{
    return status == Status::Authorized ? "true" : "false";
}
