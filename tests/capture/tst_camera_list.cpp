#include "CameraAccess.h"
#include "V4L2CameraBackend.h"

#include <QDir>
#include <QTemporaryDir>
#include <QtTest>

// The V4L2 camera list is a cache that follows the device folder: a node that appears or goes
// away shows in list() without anyone opening devices on the caller's thread.
class CameraListTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void listFollowsTheDeviceFolder()
    {
        QTemporaryDir root;
        const QString nodes = root.path() + QStringLiteral("/sys/class/video4linux");
        QVERIFY(QDir().mkpath(nodes + QStringLiteral("/video0")));
        std::atomic<int> probes{0};
        // Node 3 cannot capture (as a webcam's metadata node).
        const auto probe = [&](const QString &path) { return ++probes, std::optional<V4L2Discovery::Caps>({QFileInfo(path).fileName(), {}, !path.endsWith(u'3')}); };
        V4L2CameraBackend backend(V4L2Discovery(root.path(), probe), nodes);
        const auto listed = [&] { QStringList out; for (const Device &d : backend.list()) out << d.name + u'=' + d.uid + (d.builtIn ? QStringLiteral(" built-in") : QString()); return out.join(u' '); };
        QTRY_COMPARE(backend.list().size(), 1);
        const int probed = probes;
        QCOMPARE(backend.list().first().name, QStringLiteral("video0"));
        QCOMPARE(probes.load(), probed); // listing again opens nothing
        QVERIFY(QDir().mkpath(nodes + QStringLiteral("/video2")));
        QTRY_COMPARE(backend.list().size(), 2);
        QVERIFY(QDir(nodes + QStringLiteral("/video0")).removeRecursively());
        QTRY_COMPARE(backend.list().size(), 1);
        QCOMPARE(backend.list().first().name, QStringLiteral("video2"));
        // Cameras come in node-number order, named by their udev link when there is one; one on a
        // USB port marked "fixed" is built in.
        QVERIFY(QDir().mkpath(root.path() + QStringLiteral("/dev/v4l/by-id")) && QFile::link(root.path() + QStringLiteral("/dev/video10"), root.path() + QStringLiteral("/dev/v4l/by-id/usb-Cam-video-index0")));
        const QString port = root.path() + QStringLiteral("/sys/devices/pci0/usb1/1-5");
        QFile fixed(port + QStringLiteral("/removable"));
        QVERIFY(QDir().mkpath(nodes + QStringLiteral("/video10")) && QDir().mkpath(port + QStringLiteral("/1-5:1.0")) && fixed.open(QIODevice::WriteOnly) && fixed.write("fixed\n") == 6 && fixed.flush());
        QVERIFY(QFile::link(port + QStringLiteral("/1-5:1.0"), nodes + QStringLiteral("/video10/device")) && QDir().mkpath(nodes + QStringLiteral("/video3")));
        QTRY_COMPARE(listed(), QStringLiteral("video2=video2 video10=usb-Cam-video-index0 built-in"));
        // No video node: camera access is unknown; a node this user may open: allowed.
        const QByteArray dev = QFile::encodeName(root.path() + QStringLiteral("/dev"));
        QCOMPARE(CameraAccess::statusOf(dev.constData()), CameraAccess::Status::NotDetermined);
        QVERIFY(QFile(root.path() + QStringLiteral("/dev/video2")).open(QIODevice::WriteOnly));
        QCOMPARE(CameraAccess::statusOf(dev.constData()), CameraAccess::Status::Authorized);
    }
};

QTEST_GUILESS_MAIN(CameraListTest)
#include "tst_camera_list.moc"
