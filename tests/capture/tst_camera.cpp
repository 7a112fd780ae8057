#include "CameraAccess.h"
#include "CameraBackend.h"
#include "CameraTexts.h"
#include "FrameDecoder.h"
#include "NewestFrame.h"
#include "PreviewEncoder.h"
#include "RealDeviceName.h"
#include "SyntheticCamera.h"
#include "SyntheticCameraBackend.h"
#include "TestHome.h"
#include "TestPattern.h"
#include "V4L2Camera.h"
#include "V4L2Discovery.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QtTest>

#include <condition_variable>
#include <ctime>
#include <deque>
#include <mutex>

extern "C" {
#include <libavutil/frame.h>
}

#include <linux/videodev2.h>

namespace {

int64_t nowNs()
{
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return int64_t(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

// Collects frames delivered on a capture thread.
struct FrameLog {
    std::mutex mutex;
    std::condition_variable arrived;
    std::vector<TimedSample> frames;

    CameraBackend::FrameSink sink()
    {
        return [this](TimedSample s) {
            std::lock_guard lock(mutex);
            frames.push_back(std::move(s));
            arrived.notify_all();
        };
    }
    bool waitFor(size_t count, int ms = 3000)
    {
        std::unique_lock lock(mutex);
        return arrived.wait_for(lock, std::chrono::milliseconds(ms), [&] { return frames.size() >= count; });
    }
};

// A fake sysfs and /dev for discovery: nodes with a device link into /sys/devices.
struct FakeSystem {
    QTemporaryDir dir;
    QMap<QString, V4L2Discovery::Caps> caps; // by node path

    void addNode(const QString &node, const QString &devicePath, const QString &card, bool capture,
                 const QString &bus = QString())
    {
        const QString root = dir.path();
        QDir().mkpath(root + "/sys/devices" + devicePath);
        QDir().mkpath(root + "/sys/class/video4linux/" + node);
        QFile::link(root + "/sys/devices" + devicePath, root + "/sys/class/video4linux/" + node + "/device");
        QDir().mkpath(root + "/dev");
        QFile f(root + "/dev/" + node);
        f.open(QIODevice::WriteOnly);
        V4L2Discovery::Caps c;
        c.card = card;
        c.busInfo = bus;
        c.capture = capture;
        caps.insert(QDir::cleanPath(root + "/dev/" + node), c);
    }
    void setAttr(const QString &devicePath, const QString &name, const QByteArray &value)
    {
        QFile f(dir.path() + "/sys/devices" + devicePath + "/" + name);
        f.open(QIODevice::WriteOnly);
        f.write(value + "\n");
    }
    void addById(const QString &link, const QString &node)
    {
        QDir().mkpath(dir.path() + "/dev/v4l/by-id");
        QFile::link("../../" + node, dir.path() + "/dev/v4l/by-id/" + link);
    }
    V4L2Discovery discovery()
    {
        return V4L2Discovery(dir.path(), [this](const QString &path) -> std::optional<V4L2Discovery::Caps> {
            const auto it = caps.find(QDir::cleanPath(path));
            if (it == caps.end())
                return std::nullopt;
            return *it;
        });
    }
};

} // namespace

class TstCamera : public QObject
{
    Q_OBJECT
    TestHome home;

private slots:
    void cleanup() { SyntheticCamera::flashAt(0); }

    void nameFilterDropsVirtualAndPhoneCameras()
    {
        QVERIFY(RealDeviceName::isReal("Integrated Camera: Integrated C"));
        QVERIFY(RealDeviceName::isReal("HD Pro Webcam C920"));
        QVERIFY(!RealDeviceName::isReal("OBS Virtual Camera"));
        QVERIFY(!RealDeviceName::isReal("Dummy video device (0x0000) loopback"));
        QVERIFY(!RealDeviceName::isReal("iPhone Camera"));
        QVERIFY(!RealDeviceName::isReal("NDI Webcam Input"));
    }

    void discoveryListsCaptureNodesWithStableIds()
    {
        FakeSystem sys;
        // Laptop camera: USB inside the lid, port marked fixed; node 0 captures, node 1 is metadata.
        sys.addNode("video0", "/pci0000:00/0000:00:14.0/usb1/1-5/1-5:1.0", "Integrated Camera", true, "usb-0000:00:14.0-5");
        sys.addNode("video1", "/pci0000:00/0000:00:14.0/usb1/1-5/1-5:1.0", "Integrated Camera", false, "usb-0000:00:14.0-5");
        sys.setAttr("/pci0000:00/0000:00:14.0/usb1/1-5", "removable", "fixed");
        sys.addById("usb-Chicony_Integrated_Camera_0001-video-index0", "video0");
        // External webcam in a removable port, no by-id link: identified by its bus.
        sys.addNode("video2", "/pci0000:00/0000:00:14.0/usb1/1-2/1-2:1.0", "HD Pro Webcam C920", true, "usb-0000:00:14.0-2");
        sys.setAttr("/pci0000:00/0000:00:14.0/usb1/1-2", "removable", "removable");
        // A virtual camera and a capture card on PCI.
        sys.addNode("video10", "/virtual/video4linux/video10", "OBS Virtual Camera", true, "platform:v4l2loopback-000");
        sys.addNode("video3", "/pci0000:00/0000:03:00.0", "PCIe Capture", true, "PCI:0000:03:00.0");

        const QList<V4L2Discovery::Found> found = sys.discovery().find();
        QCOMPARE(found.size(), 3);
        QCOMPARE(found[0].device.name, QString("Integrated Camera"));
        QCOMPARE(found[0].device.uid, QString("usb-Chicony_Integrated_Camera_0001-video-index0"));
        QVERIFY(found[0].device.builtIn);
        QVERIFY(found[0].path.endsWith("/dev/video0"));
        QCOMPARE(found[1].device.uid, QString("usb-0000:00:14.0-2"));
        QVERIFY(!found[1].device.builtIn);
        QCOMPARE(found[2].device.name, QString("PCIe Capture"));
        QVERIFY(found[2].device.builtIn);
        for (const auto &f : found)
            QVERIFY(!f.device.isDefault);
    }

    void openFailuresGiveTheRecorderTexts()
    {
        QCOMPARE(V4L2Camera::textForErrno(EACCES), CameraTexts::notAllowed());
        QCOMPARE(V4L2Camera::textForErrno(EBUSY), CameraTexts::busy());
        FrameLog log;
        const CameraOpen missing = V4L2Camera::open({"x", "Missing", false, false}, "/nonexistent/video9", {1920, 1080}, log.sink());
        QVERIFY(!missing.stream);
        QCOMPARE(missing.error, CameraTexts::busy());
        // A node that is no video device (a plain file): refused, nothing delivered.
        QTemporaryDir dir;
        QFile f(dir.filePath("video0"));
        QVERIFY(f.open(QIODevice::WriteOnly));
        f.close();
        const CameraOpen notVideo = V4L2Camera::open({"y", "File", false, false}, f.fileName(), {1920, 1080}, log.sink());
        QVERIFY(!notVideo.stream);
        QVERIFY(!notVideo.error.isEmpty());
        QVERIFY(log.frames.empty());
    }

    void accessFollowsTheNodes()
    {
        QTemporaryDir empty;
        QCOMPARE(CameraAccess::statusOf(QFile::encodeName(empty.path())), CameraAccess::Status::NotDetermined);
        QTemporaryDir dev;
        QFile f(dev.filePath("video0"));
        QVERIFY(f.open(QIODevice::WriteOnly));
        f.close();
        QCOMPARE(CameraAccess::statusOf(QFile::encodeName(dev.path())), CameraAccess::Status::Authorized);
    }

    void syntheticSettingIsReadOrRefused()
    {
        auto s = SyntheticCameraBackend::parse("3");
        QVERIFY(s);
        QCOMPARE(s->count, 3);
        QCOMPARE(s->size, QSize(1280, 720));
        s = SyntheticCameraBackend::parse("5:640x360@15");
        QVERIFY(s);
        QCOMPARE(s->count, 5);
        QCOMPARE(s->size, QSize(640, 360));
        QCOMPARE(s->fps, 15);
        QVERIFY(!SyntheticCameraBackend::parse("two"));
        QVERIFY(!SyntheticCameraBackend::parse("2:641x360@30")); // odd width
        QVERIFY(!SyntheticCameraBackend::parse("2:640x360@0"));

        qputenv("BRAVA_FAKE_CAMERAS", "nonsense");
        QVERIFY(CameraBackend::fromEnvironment()->list().isEmpty());
        QVERIFY(home.log().contains("synthetic cameras: cannot read BRAVA_FAKE_CAMERAS=nonsense"));
        qputenv("BRAVA_FAKE_CAMERAS", "2:320x180@30");
        const QList<Device> cams = CameraBackend::fromEnvironment()->list();
        QCOMPARE(cams.size(), 2);
        QCOMPARE(cams[0].uid, QString("synthetic-1"));
        QVERIFY(cams[0].builtIn && cams[0].isDefault);
        QVERIFY(!cams[1].builtIn && !cams[1].isDefault);
        QCOMPARE(CameraAccess::status(), CameraAccess::Status::Authorized);
        qunsetenv("BRAVA_FAKE_CAMERAS");
    }

    void syntheticCameraDeliversTimedCountedFrames()
    {
        SyntheticCameraBackend backend({1, {320, 180}, 30});
        FrameLog log;
        const int64_t before = nowNs();
        CameraOpen open = backend.open("synthetic-1", {1920, 1080}, log.sink());
        QVERIFY(open.stream);
        QCOMPARE(open.stream->size(), QSize(320, 180));
        QVERIFY(log.waitFor(10));
        open.stream.reset(); // stops and joins
        const int64_t after = nowNs();
        const size_t count = log.frames.size();
        QThread::msleep(100);
        QCOMPARE(log.frames.size(), count); // nothing after destruction

        int64_t last = before;
        for (size_t i = 0; i < count; ++i) {
            const TimedSample &s = log.frames[i];
            QVERIFY(s.isValid());
            QCOMPARE(s.frame->width, 320);
            QCOMPARE(s.frame->height, 180);
            const int64_t t = s.pts.in(1000000000);
            QVERIFY(t >= last && t <= after);
            if (i > 0) // steady 30 frames per second, give or take scheduling
                QVERIFY2(t - last > 20000000 && t - last < 60000000, qPrintable(QString::number(t - last)));
            last = t;
            QCOMPARE(TestPattern::readCounter(*s.frame), SyntheticCameraBackend::kCounterStep + int64_t(i));
        }
        QVERIFY(backend.open("synthetic-7", {}, log.sink()).error == CameraTexts::busy());
    }

    void flashLandsOnTheFirstFrameAtItsTime()
    {
        SyntheticCameraBackend backend({1, {320, 180}, 30});
        FrameLog log;
        const int64_t flash = nowNs() + 200000000;
        SyntheticCamera::flashAt(flash);
        CameraOpen open = backend.open("synthetic-1", {}, log.sink());
        QVERIFY(log.waitFor(15));
        open.stream.reset();
        int white = 0;
        for (const TimedSample &s : log.frames) {
            const bool bright = TestPattern::meanLuma(*s.frame) > 200;
            const int64_t t = s.pts.in(1000000000);
            if (bright) {
                ++white;
                QVERIFY(t >= flash);
                QCOMPARE(t, SyntheticCamera::lastFlashNs());
            }
        }
        QCOMPARE(white, 1);
    }

    void newestFrameKeepsOnlyTheLatest()
    {
        std::deque<std::function<void()>> queue;
        std::vector<int64_t> got;
        NewestFrame hand([&](std::function<void()> job) { queue.push_back(std::move(job)); },
                         [&](TimedSample s) { got.push_back(s.pts.value); });
        for (int64_t i = 1; i <= 5; ++i) {
            TimedSample s;
            s.pts = MediaTime::make(i, 1000);
            hand.push(s);
        }
        QCOMPARE(queue.size(), size_t(1)); // one job however many frames waited
        queue.front()();
        queue.pop_front();
        QCOMPARE(got, std::vector<int64_t>{5});
        QCOMPARE(hand.dropped(), 4LL);

        TimedSample s;
        s.pts = MediaTime::make(6, 1000);
        hand.push(s);
        hand.close();
        queue.front()(); // a job posted before close runs after it and delivers nothing
        QCOMPARE(got.size(), size_t(1));
    }

    void decoderTurnsCapturedBuffersIntoFrames()
    {
        // YUYV: one 4×2 picture, then a short buffer.
        FrameDecoder yuyv;
        QVERIFY(FrameDecoder::supports(V4L2_PIX_FMT_YUYV));
        QVERIFY(!FrameDecoder::supports(V4L2_PIX_FMT_H264));
        QVERIFY(yuyv.open(V4L2_PIX_FMT_YUYV, 4, 2));
        const uint8_t raw[16] = {10, 128, 20, 128, 30, 128, 40, 128, 50, 128, 60, 128, 70, 128, 80, 128};
        std::shared_ptr<AVFrame> f = yuyv.decode(raw, sizeof raw);
        QVERIFY(f);
        QCOMPARE(f->width, 4);
        QCOMPARE(f->format, int(AV_PIX_FMT_YUYV422));
        QCOMPARE(f->data[0][f->linesize[0] + 2], uint8_t(60));
        QVERIFY(!yuyv.decode(raw, 8));

        // MJPEG: a JPEG made from the test pattern decodes back to its size and counter.
        std::shared_ptr<AVFrame> picture = TestPattern::draw(640, 360, 1234, false);
        PreviewEncoder jpeg;
        const QByteArray bytes = jpeg.encode(*picture, true);
        QVERIFY(bytes.startsWith("\xFF\xD8"));
        FrameDecoder mjpeg;
        QVERIFY(mjpeg.open(V4L2_PIX_FMT_MJPEG, 640, 360));
        f = mjpeg.decode(reinterpret_cast<const uint8_t *>(bytes.constData()), size_t(bytes.size()));
        QVERIFY(f);
        QCOMPARE(f->width, 640);
        QCOMPARE(f->height, 360);
        QCOMPARE(TestPattern::readCounter(*f), int64_t(1234));
        const QByteArray garbage(2000, 'x');
        QVERIFY(!mjpeg.decode(reinterpret_cast<const uint8_t *>(garbage.constData()), size_t(garbage.size())));
    }
};

QTEST_GUILESS_MAIN(TstCamera)
#include "tst_camera.moc"
