#pragma once

#include "CameraAccess.h"
#include "Device.h"
#include "TimedSample.h"

#include <QList>
#include <QSize>
#include <QString>

#include <functional>
#include <memory>

// An open camera. Frames arrive on the camera's own capture thread until the object is destroyed;
// destruction stops capture and joins that thread, after which no frame is delivered.
class CameraStream
{
public:
    virtual ~CameraStream() = default;
    /// Unique ID of the device.
    virtual QString uid() const = 0;
    /// Display name of the device.
    virtual QString name() const = 0;
    /// Frame size actually delivered.
    virtual QSize size() const = 0;
    /// True while frames are being delivered.
    virtual bool running() const = 0;
};

// Result of opening a camera: a stream, or the text the recorder shows for the failure.
struct CameraOpen {
    std::unique_ptr<CameraStream> stream;
    QString error;
};

// Lists and opens cameras. Frames carry CLOCK_MONOTONIC presentation times (the audio clock).
class CameraBackend
{
public:
    /// Called on the capture thread with each new video frame.
    using FrameSink = std::function<void(TimedSample frame)>;

    virtual ~CameraBackend() = default;
    /// Cameras as last listed, real devices only, in a stable order; never opens a device.
    virtual QList<Device> list() = 0;
    /// Opens the camera with this uid, asking for `wanted` when the device offers it.
    virtual CameraOpen open(const QString &uid, QSize wanted, FrameSink sink) = 0;
    /// Whether this user may open the cameras (read from the devices, never opening one).
    virtual CameraAccess::Status access() const = 0;

    /// The computer's cameras: synthetic ones when BRAVA_FAKE_CAMERAS is set, else V4L2.
    static std::unique_ptr<CameraBackend> fromEnvironment();
};
