#include "V4L2CameraBackend.h"

#include "CameraTexts.h"
#include "V4L2Camera.h"

#include <QFile>

V4L2CameraBackend::V4L2CameraBackend(V4L2Discovery discovery, const QString &devFolder)
    : m_discovery(std::move(discovery))
    , m_devFolder(QFile::encodeName(devFolder))
{
    m_watcher.addPath(devFolder);
    QObject::connect(&m_watcher, &QFileSystemWatcher::directoryChanged, &m_watcher, [this] { refresh(); });
    refresh();
}

V4L2CameraBackend::~V4L2CameraBackend()
{
    QObject::disconnect(&m_watcher, nullptr, nullptr, nullptr);
    m_queue.sync([] {}); // a discovery under way finishes before the cache goes
}

void V4L2CameraBackend::refresh()
{
    m_queue.async([this] {
        const QList<V4L2Discovery::Found> found = m_discovery.find();
        std::lock_guard lock(m_mutex);
        m_found = found;
    });
}

QList<Device> V4L2CameraBackend::list()
{
    std::lock_guard lock(m_mutex);
    QList<Device> cameras;
    for (const V4L2Discovery::Found &f : m_found)
        cameras.append(f.device);
    return cameras;
}

CameraOpen V4L2CameraBackend::open(const QString &uid, QSize wanted, FrameSink sink)
{
    // Called on the video queue: a fresh look at the nodes costs nothing the main thread waits for.
    for (const V4L2Discovery::Found &f : m_discovery.find()) {
        if (f.device.uid == uid)
            return V4L2Camera::open(f.device, f.path, wanted, std::move(sink));
    }
    return {nullptr, CameraTexts::noneFound()};
}

CameraAccess::Status V4L2CameraBackend::access() const
{
    return CameraAccess::statusOf(m_devFolder.constData());
}
