#include "CameraBackend.h"

#include "BravaLog.h"
#include "SyntheticCameraBackend.h"
#include "V4L2CameraBackend.h"

std::unique_ptr<CameraBackend> CameraBackend::fromEnvironment()
{
    const QString setting = qEnvironmentVariable("BRAVA_FAKE_CAMERAS");
    if (setting.isEmpty())
        return std::make_unique<V4L2CameraBackend>();
    const std::optional<SyntheticCameraBackend::Setup> setup = SyntheticCameraBackend::parse(setting);
    if (!setup)
        bravaLog(QStringLiteral("synthetic cameras: cannot read BRAVA_FAKE_CAMERAS=") + setting + QStringLiteral(", none offered"));
    return std::make_unique<SyntheticCameraBackend>(setup.value_or(SyntheticCameraBackend::Setup{}));
}
