#include "V4L2Discovery.h"

#include "DeviceChoice.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>

#include <algorithm>

#include <fcntl.h>
#include <linux/videodev2.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace {

QString readLine(const QString &path)
{
    QFile f(path);
    if (!f.open(QIODevice::ReadOnly))
        return QString();
    return QString::fromUtf8(f.readLine()).trimmed();
}

int nodeNumber(const QString &node) { return node.mid(5).toInt(); } // "videoN"

} // namespace

V4L2Discovery::V4L2Discovery()
    : V4L2Discovery(QStringLiteral("/"), &V4L2Discovery::queryDevice)
{
}

V4L2Discovery::V4L2Discovery(QString root, Probe probe)
    : m_root(std::move(root))
    , m_probe(std::move(probe))
{
}

std::optional<V4L2Discovery::Caps> V4L2Discovery::queryDevice(const QString &devicePath)
{
    const int fd = ::open(QFile::encodeName(devicePath).constData(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0)
        return std::nullopt;
    v4l2_capability cap{};
    const int r = ioctl(fd, VIDIOC_QUERYCAP, &cap);
    ::close(fd);
    if (r < 0)
        return std::nullopt;
    const uint32_t caps = (cap.capabilities & V4L2_CAP_DEVICE_CAPS) ? cap.device_caps : cap.capabilities;
    Caps out;
    out.card = QString::fromUtf8(reinterpret_cast<const char *>(cap.card)).trimmed();
    out.busInfo = QString::fromUtf8(reinterpret_cast<const char *>(cap.bus_info)).trimmed();
    out.capture = (caps & V4L2_CAP_VIDEO_CAPTURE) && (caps & V4L2_CAP_STREAMING);
    return out;
}

QList<V4L2Discovery::Found> V4L2Discovery::find() const
{
    const QDir classDir(m_root + QStringLiteral("/sys/class/video4linux"));
    QStringList nodes = classDir.entryList({QStringLiteral("video*")}, QDir::Dirs | QDir::System | QDir::NoDotAndDotDot);
    nodes.erase(std::remove_if(nodes.begin(), nodes.end(),
                               [](const QString &n) { return !QRegularExpression(QStringLiteral("^video\\d+$")).match(n).hasMatch(); }),
                nodes.end());
    std::sort(nodes.begin(), nodes.end(), [](const QString &a, const QString &b) { return nodeNumber(a) < nodeNumber(b); });

    QList<Found> found;
    for (const QString &node : nodes) {
        const QString path = m_root + QStringLiteral("/dev/") + node;
        const std::optional<Caps> caps = m_probe(path);
        if (!caps || !caps->capture)
            continue;
        QString name = caps->card;
        if (name.isEmpty())
            name = readLine(classDir.filePath(node + QStringLiteral("/name")));
        if (name.isEmpty() || !DeviceChoice::isReal(name))
            continue;
        Found f;
        f.path = QDir::cleanPath(path);
        f.device.name = name;
        f.device.uid = byIdName(node);
        if (f.device.uid.isEmpty())
            f.device.uid = caps->busInfo.isEmpty() ? node : caps->busInfo;
        f.device.builtIn = isBuiltIn(node);
        f.device.isDefault = false; // Linux has no system-wide default camera
        found.append(f);
    }
    return found;
}

// The udev link in /dev/v4l/by-id that points at this node: names by vendor, model and serial,
// so it survives reboots and re-plugs in the same port.
QString V4L2Discovery::byIdName(const QString &node) const
{
    const QDir byId(m_root + QStringLiteral("/dev/v4l/by-id"));
    QStringList links = byId.entryList(QDir::System | QDir::Files | QDir::NoDotAndDotDot, QDir::Name);
    for (const QString &link : links) {
        const QString target = QFileInfo(byId.filePath(link)).symLinkTarget();
        if (!target.isEmpty() && QFileInfo(target).fileName() == node)
            return link;
    }
    return QString();
}

// Built in: the device sits on an internal bus (PCI, platform) or its USB port is marked "fixed".
// Attached: its USB port is "removable" or unknown, or the device is virtual.
bool V4L2Discovery::isBuiltIn(const QString &node) const
{
    const QString device = QFileInfo(m_root + QStringLiteral("/sys/class/video4linux/") + node + QStringLiteral("/device"))
                               .canonicalFilePath();
    if (device.isEmpty() || device.contains(QLatin1String("/devices/virtual/")))
        return false;
    QDir dir(device);
    const QString stop = QDir::cleanPath(m_root + QStringLiteral("/sys/devices"));
    for (int depth = 0; depth < 16 && QDir::cleanPath(dir.absolutePath()).startsWith(stop)
         && QDir::cleanPath(dir.absolutePath()) != stop;
         ++depth) {
        const QString removable = readLine(dir.filePath(QStringLiteral("removable")));
        if (removable == QLatin1String("fixed"))
            return true;
        if (removable == QLatin1String("removable"))
            return false;
        if (!dir.cdUp())
            break;
    }
    return !device.contains(QLatin1String("/usb"));
}
