#include "CameraBackend.h"

#include "BravaLog.h"
#include "SyntheticCameraBackend.h"
#include "V4L2CameraBackend.h"

#include <mutex>
#include <vector>

CameraBackend &CameraBackend::system()
{
    static std::mutex mutex;
    static V4L2CameraBackend v4l2;
    static std::vector<std::unique_ptr<CameraBackend>> synthetic; // kept: streams may outlive a switch
    static QString lastSetting;

    const QString setting = qEnvironmentVariable("BRAVA_FAKE_CAMERAS");
    std::lock_guard lock(mutex);
    if (setting.isEmpty())
        return v4l2;
    if (synthetic.empty() || setting != lastSetting) {
        lastSetting = setting;
        const std::optional<SyntheticCameraBackend::Setup> setup = SyntheticCameraBackend::parse(setting);
        if (!setup)
            bravaLog(QStringLiteral("synthetic cameras: cannot read BRAVA_FAKE_CAMERAS=") + setting + QStringLiteral(", none offered"));
        synthetic.push_back(std::make_unique<SyntheticCameraBackend>(setup.value_or(SyntheticCameraBackend::Setup{})));
    }
    return *synthetic.back();
}
