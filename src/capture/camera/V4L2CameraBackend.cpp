#include "V4L2CameraBackend.h"

#include "CameraTexts.h"
#include "V4L2Camera.h"

QList<Device> V4L2CameraBackend::list()
{
    QList<Device> cameras;
    for (const V4L2Discovery::Found &f : m_discovery.find())
        cameras.append(f.device);
    return cameras;
}

CameraOpen V4L2CameraBackend::open(const QString &uid, QSize wanted, FrameSink sink)
{
    for (const V4L2Discovery::Found &f : m_discovery.find()) {
        if (f.device.uid == uid)
            return V4L2Camera::open(f.device, f.path, wanted, std::move(sink));
    }
    return {nullptr, CameraTexts::noneFound()};
}
