#include "Config.h"
#include "FrameDecoder.h"
#include "MediaProbe.h"
#include "Recorder.h"
#include "SerialQueue.h"
#include "SyntheticAudioBackend.h"
#include "SyntheticCamera.h"
#include "SyntheticCameraBackend.h"
#include "TestHome.h"
#include "TestPattern.h"
#include "Uploader.h"
#include "tst_video_probe.h"

#include <QDirIterator>
#include <QNetworkAccessManager>
#include <QtTest>

#include <atomic>
#include <cmath>
#include <ctime>
#include <linux/videodev2.h>
#include <mutex>
#include <thread>

extern "C" {
#include <libavutil/frame.h>
}

namespace {

constexpr int64_t kBlockNs = 10000000; // 10 ms audio blocks
const QString kMic = QStringLiteral("laptop");
const QString kMonitor = QStringLiteral("out.monitor");

int64_t nowNs()
{
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return int64_t(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

// Real-time audio into the synthetic sound system: 10 ms blocks of near-silence for the
// microphone and computer audio, stamped with the monotonic clock the cameras use, and a click in
// the microphone at `clickNs` when set.
class AudioFeed
{
public:
    explicit AudioFeed(SyntheticAudioBackend &backend, int64_t clickNs = 0)
        : m_backend(backend)
        , m_clickNs(clickNs)
    {
        m_thread = std::thread([this] { run(); });
    }
    ~AudioFeed()
    {
        m_stop = true;
        m_thread.join();
    }

private:
    void run()
    {
        const int64_t start = nowNs();
        for (int64_t b = 0; !m_stop; ++b) {
            const int64_t at = start + b * kBlockNs;
            timespec ts{time_t((at + kBlockNs) / 1000000000), long((at + kBlockNs) % 1000000000)};
            clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &ts, nullptr);
            QByteArray mono(480 * int(sizeof(float)), 0);
            auto *p = reinterpret_cast<float *>(mono.data());
            for (int i = 0; i < 480; ++i) {
                const int64_t t = at + int64_t(i) * 1000000000 / 48000;
                const int64_t since = t - m_clickNs;
                p[i] = (m_clickNs && since >= 0 && since < 1000000) ? 0.9f : 0.001f;
            }
            m_backend.deliver(kMic, mono, at);
            m_backend.deliver(kMonitor, QByteArray(480 * 2 * int(sizeof(float)), 0), at);
        }
    }

    SyntheticAudioBackend &m_backend;
    const int64_t m_clickNs;
    std::atomic<bool> m_stop{false};
    std::thread m_thread;
};

int cameraOf(const QByteArray &jpeg)
{
    FrameDecoder d;
    if (!d.open(V4L2_PIX_FMT_MJPEG, 0, 0))
        return -1;
    std::shared_ptr<AVFrame> f = d.decode(reinterpret_cast<const uint8_t *>(jpeg.constData()), size_t(jpeg.size()));
    const int64_t counter = f ? TestPattern::readCounter(*f) : -1;
    return counter < 0 ? -1 : int(counter / SyntheticCameraBackend::kCounterStep);
}

} // namespace

// The recorder with synthetic cameras and a synthetic sound system, both on the real monotonic
// clock: camera sessions, the camera in the start sync, camera tracks, preview routing.
class TstCameraSession : public QObject
{
    Q_OBJECT
    TestHome home;
    SyntheticAudioBackend *backend = nullptr;
    std::unique_ptr<CameraBackend> camBackend;
    Recorder *rec = nullptr;
    std::mutex mutex;
    QList<QPair<QString, QString>> done;
    QList<QByteArray> jpegs;

    void makeRecorder(const char *cameras)
    {
        qputenv("BRAVA_FAKE_CAMERAS", cameras);
        backend = new SyntheticAudioBackend();
        backend->devices = {Device{kMic, QStringLiteral("Laptop Mic"), true, true}};
        backend->monitor = kMonitor;
        camBackend = CameraBackend::fromEnvironment();
        rec = new Recorder(*backend, *camBackend, Clock::monotonic());
        rec->onSegmentDone = [this](const QString &path, const QString &session) {
            std::lock_guard lock(mutex);
            done.append({path, session});
        };
        rec->onPreviewFrame = [this](const QByteArray &jpeg) {
            std::lock_guard lock(mutex);
            jpegs.append(jpeg);
        };
    }
    void startTake(const std::optional<QString> &session)
    {
        bool started = false;
        rec->start(session, [&] { started = true; });
        QTRY_VERIFY(started);
    }
    void stopTake()
    {
        bool stopped = false;
        rec->stop([&] { stopped = true; });
        QTRY_VERIFY(stopped);
        rec->videoQueue().sync([] {});
    }
    QStringList doneNames(const QString &prefix = QString())
    {
        std::lock_guard lock(mutex);
        QStringList names;
        for (const auto &[path, session] : done)
            if (QFileInfo(path).fileName().startsWith(prefix))
                names << QFileInfo(path).fileName();
        names.sort();
        return names;
    }
    QString path(const QString &session, const QString &name) const
    {
        return Config::dir(QStringLiteral("writing")) + QLatin1Char('/') + session + QLatin1Char('/') + name;
    }
    QList<QByteArray> takeJpegs()
    {
        std::lock_guard lock(mutex);
        return std::exchange(jpegs, {});
    }

private slots:
    void init()
    {
        home.wipe();
        done.clear();
        jpegs.clear();
    }
    void cleanup()
    {
        delete rec;
        rec = nullptr;
        delete backend;
        backend = nullptr;
        SyntheticCamera::flashAt(0);
        qunsetenv("BRAVA_FAKE_CAMERAS");
    }

    // With cameras enabled a take waits for the camera, writes cam_<take>_00000….mp4 at the
    // camera's size, and a frame that flashes when a click is heard lands within one frame of it.
    void cameraTrackLinesUpWithTheMicrophone()
    {
        makeRecorder("1:640x360@30");
        QVERIFY(rec->hasCamera());
        QCOMPARE(rec->cameras().size(), 1);
        rec->setCamerasEnabled(true);
        QTRY_VERIFY(rec->camRunning());
        QVERIFY(!rec->camError());
        QVERIFY(home.log().contains("Go Live ON by control"));
        QVERIFY(home.log().contains("camera: Synthetic Camera 1 running=true"));

        const int64_t click = nowNs() + 1513000000; // off the camera's frame grid
        SyntheticCamera::flashAt(click);
        startTake(QStringLiteral("CAM"));
        {
            AudioFeed feed(*backend, click);
            QTest::qWait(2800);
        }
        stopTake();
        QVERIFY(home.log().contains("sync: all tracks locked to one start"));
        const QString take = QString::number(rec->currentTake());
        const QString cam = "cam_" + take + "_00000_final.mp4";
        QCOMPARE(doneNames("cam"), QStringList({cam}));
        const QJsonObject s = VideoProbe::stream(path("CAM", cam));
        QCOMPARE(s.value("codec_name").toString(), QString("h264"));
        QCOMPARE(s.value("width").toInt(), 640);
        QCOMPARE(s.value("height").toInt(), 360);

        double flashAt = -1;
        for (const VideoProbe::Brightness &b : VideoProbe::brightness(path("CAM", cam)))
            if (b.luma > 200 && flashAt < 0)
                flashAt = b.pts;
        const QVector<float> mic = MediaProbe::decode(path("CAM", "mic_" + take + "_00000_final.m4a"));
        const qsizetype clickIndex = MediaProbe::firstAbove(mic, 0.3f);
        QVERIFY(flashAt > 0 && clickIndex > 0);
        const double clickAt = double(clickIndex) / 48000.0;
        // The flash is the first frame captured at or after the click: in the files the two lie
        // exactly as far apart as they were captured (within 2 ms), which is less than one frame
        // unless the camera thread woke late.
        const double captured = double(SyntheticCamera::lastFlashNs() - click) / 1e9;
        qInfo("flash at %.4f s, click at %.4f s in the files; captured %.4f s apart", flashAt, clickAt, captured);
        QVERIFY(captured >= 0 && captured < 0.5);
        QVERIFY(std::fabs((flashAt - clickAt) - captured) <= 0.002);

        // With cameras enabled the camera outlives the take.
        QVERIFY(rec->camRunning());
    }

    // Five cameras give cam, cam2, cam3 and cam4; the extra tracks are reported with the session
    // and end in unrecognized/ by the upload rules.
    void fiveCamerasGiveFourTracks()
    {
        makeRecorder("5:320x180@30");
        rec->setCamerasEnabled(true);
        QTRY_VERIFY(rec->camRunning());
        startTake(QStringLiteral("FIVE"));
        {
            AudioFeed feed(*backend);
            QTest::qWait(1200);
        }
        stopTake();
        const QString take = QString::number(rec->currentTake());
        QCOMPARE(doneNames("cam"), QStringList({"cam2_" + take + "_00000_final.mp4", "cam3_" + take + "_00000_final.mp4",
                                                "cam4_" + take + "_00000_final.mp4", "cam_" + take + "_00000_final.mp4"}));
        QVERIFY(!home.log().contains("Synthetic Camera 5"));
        {
            std::lock_guard lock(mutex);
            for (const auto &[p, session] : done)
                QCOMPARE(session, QString("FIVE"));
        }

        QNetworkAccessManager net;
        Uploader uploader(net);
        uploader.tickIntervalMs = 20;
        {
            std::lock_guard lock(mutex);
            for (const auto &[p, session] : done)
                uploader.enqueue(p, session);
        }
        uploader.start();
        const QString unrecognized = Config::dir(QStringLiteral("unrecognized"));
        for (const char *track : {"cam2_", "cam3_", "cam4_"})
            QTRY_VERIFY(QFile::exists(unrecognized + "/" + track + take + "_00000_final.mp4"));
        QVERIFY(!QFile::exists(unrecognized + "/cam_" + take + "_00000_final.mp4"));
    }

    // Switching cameras off mid-take ends the camera track with a "_final" file; audio goes on.
    void camerasOffMidTakeFinishTheCameraTrack()
    {
        makeRecorder("2:320x180@30");
        rec->setCamerasEnabled(true);
        QTRY_VERIFY(rec->camRunning());
        startTake(QStringLiteral("OFF"));
        AudioFeed feed(*backend);
        QTest::qWait(1000);
        rec->previewing = true;
        rec->setCamerasEnabled(false);
        QVERIFY(!rec->previewing);
        rec->videoQueue().sync([] {});
        QVERIFY(!rec->camRunning());
        const QString take = QString::number(rec->currentTake());
        QCOMPARE(doneNames("cam"), QStringList({"cam2_" + take + "_00000_final.mp4", "cam_" + take + "_00000_final.mp4"}));
        QVERIFY(rec->isRecording());
        QTest::qWait(300);
        stopTake();
        QVERIFY(doneNames("mic").size() == 1);
        QVERIFY(home.log().contains("Go Live OFF by control"));
    }

    // Without cameras enabled the start does not wait for a camera and no camera file is written.
    void disabledCamerasAreNotRecorded()
    {
        makeRecorder("1:320x180@30");
        startTake(QStringLiteral("NOCAM"));
        {
            AudioFeed feed(*backend);
            QTest::qWait(700);
        }
        stopTake();
        QVERIFY(!rec->camRunning());
        QVERIFY(doneNames("cam").isEmpty());
        QCOMPARE(doneNames("mic").size(), 1);
        QVERIFY(home.log().contains("sync: all tracks locked to one start"));
    }

    // Preview comes from the main camera by default and from the chosen extra camera after setCam.
    void previewFollowsSetCam()
    {
        makeRecorder("3:320x180@30");
        rec->setCamerasEnabled(true);
        QTRY_VERIFY(rec->camRunning());
        rec->previewing = true;
        QTest::qWait(400);
        QList<QByteArray> got = takeJpegs();
        QVERIFY(got.size() >= 4);
        for (const QByteArray &j : got)
            QCOMPARE(cameraOf(j), 1);
        rec->setPreviewCamUID(QStringLiteral("synthetic-2"));
        rec->videoQueue().sync([] {});
        takeJpegs();
        QTest::qWait(400);
        got = takeJpegs();
        QVERIFY(got.size() >= 4);
        for (const QByteArray &j : got)
            QCOMPARE(cameraOf(j), 2);
    }
};

QTEST_GUILESS_MAIN(TstCameraSession)
#include "tst_camera_session.moc"
