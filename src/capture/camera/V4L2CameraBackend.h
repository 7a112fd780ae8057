#pragma once

#include "CameraBackend.h"
#include "V4L2Discovery.h"

// Cameras of this computer through Video4Linux2.
class V4L2CameraBackend : public CameraBackend
{
public:
    QList<Device> list() override;
    CameraOpen open(const QString &uid, QSize wanted, FrameSink sink) override;

private:
    V4L2Discovery m_discovery;
};
