#pragma once

#include "CameraBackend.h"
#include "SerialQueue.h"
#include "V4L2Discovery.h"

#include <QFileSystemWatcher>

#include <mutex>

// Cameras of this computer through Video4Linux2. The list is a cache: discovery (which opens
// every /dev/video* node) runs on a queue of its own at start and whenever /dev changes, so
// list() never touches a device.
class V4L2CameraBackend : public CameraBackend
{
public:
    /// Watches `devFolder` and lists with `discovery`; the first discovery starts at once.
    explicit V4L2CameraBackend(V4L2Discovery discovery = V4L2Discovery(),
                               const QString &devFolder = QStringLiteral("/dev"));
    ~V4L2CameraBackend() override;

    QList<Device> list() override;
    CameraOpen open(const QString &uid, QSize wanted, FrameSink sink) override;
    CameraAccess::Status access() const override;

private:
    void refresh();

    const V4L2Discovery m_discovery;
    const QByteArray m_devFolder;
    QFileSystemWatcher m_watcher;
    std::mutex m_mutex;
    QList<V4L2Discovery::Found> m_found;
    SerialQueue m_queue{QStringLiteral("brava.cameras.discovery")}; // declared last: drained first
};
