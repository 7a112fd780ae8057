#pragma once

#include "Device.h"

#include <QList>
#include <QString>

#include <functional>
#include <optional>

// Finds the video capture nodes of this computer. Each node's capabilities come from the device
// (a probe), everything else from sysfs and udev's /dev/v4l/by-id links under a root folder that
// tests may replace.
class V4L2Discovery
{
public:
    // What the device itself says about one node.
    struct Caps {
        QString card;    // display name
        QString busInfo; // for example "usb-0000:00:14.0-1"
        bool capture = false; // a single-planar video capture node (not metadata, not output)
    };
    using Probe = std::function<std::optional<Caps>(const QString &devicePath)>;

    // One listed camera and the node that opens it.
    struct Found {
        Device device;
        QString path;
    };

    /// Discovery of the real system ("/" and the VIDIOC_QUERYCAP probe).
    V4L2Discovery();
    /// Discovery under another root with another probe (tests).
    V4L2Discovery(QString root, Probe probe);

    /// Capture nodes with real-device names, in node-number order.
    QList<Found> find() const;
    /// The VIDIOC_QUERYCAP probe; none when the node cannot be opened or queried.
    static std::optional<Caps> queryDevice(const QString &devicePath);

private:
    QString byIdName(const QString &node) const;
    bool isBuiltIn(const QString &node) const;

    const QString m_root;
    const Probe m_probe;
};
