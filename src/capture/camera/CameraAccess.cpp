#include "CameraAccess.h"

#include <QByteArray>
#include <QDir>
#include <QFile>

#include <unistd.h>

namespace CameraAccess {

Status statusOf(const char *devFolder)
{
    const QDir dev(QFile::decodeName(devFolder));
    const QStringList nodes = dev.entryList({QStringLiteral("video*")}, QDir::System | QDir::Files | QDir::NoDotAndDotDot);
    if (nodes.isEmpty())
        return Status::NotDetermined;
    for (const QString &node : nodes) {
        if (::access(QFile::encodeName(dev.filePath(node)).constData(), R_OK | W_OK) == 0)
            return Status::Authorized;
    }
    return Status::Denied;
}

Status status()
{
    if (!qEnvironmentVariableIsEmpty("BRAVA_FAKE_CAMERAS"))
        return Status::Authorized;
    return statusOf("/dev");
}

} // namespace CameraAccess
