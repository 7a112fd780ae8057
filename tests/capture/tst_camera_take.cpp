#include "CameraManager.h"
#include "FrameDecoder.h"
#include "MediaProbe.h"
#include "RecorderFixture.h"
#include "SyntheticCamera.h"
#include "TestHome.h"
#include "TestLiterals.h"
#include "TestPattern.h"

#include <linux/videodev2.h>

extern "C" {
#include <libavutil/frame.h>
}

using MediaProbe::number;

namespace {
// The camera a preview picture came from (synthetic camera n counts from n × 10,000,000).
int cameraOf(const QByteArray &jpeg)
{
    FrameDecoder d;
    const std::shared_ptr<AVFrame> f = d.open(V4L2_PIX_FMT_MJPEG, 0, 0)
        ? d.decode(reinterpret_cast<const uint8_t *>(jpeg.constData()), size_t(jpeg.size()))
        : nullptr;
    const int64_t counter = f ? TestPattern::readCounter(*f) : -1;
    return counter < 0 ? -1 : int(counter / SyntheticCameraBackend::kCounterStep);
}
} // namespace

// The recorder with synthetic cameras and real-time synthetic audio on the monotonic clock:
// cameras in the take, the start sync waiting for the camera, camera tracks, preview.
class CameraTakeTest : public QObject
{
    Q_OBJECT
    TestHome home;
    std::unique_ptr<RecorderFixture> f;

    void make(int cameras, bool enable = true)
    {
        f = std::make_unique<RecorderFixture>(cameras, false);
        if (enable) {
            f->rec->setCamerasEnabled(true);
            QTRY_VERIFY(f->rec->camRunning());
        }
    }
    QString cam(const QString &track, const QString &index = QStringLiteral("00000")) const { return f->finalName(track, QStringLiteral("mp4"), index); }

private Q_SLOTS:
    void init() { home.wipe(); }
    void cleanup() { f.reset(), SyntheticCamera::flashAt(0); }

    // The start sync waits for the camera; the H.264 track has the camera's size, and a frame
    // flashed at a click lies as far from the click in the files as it did when captured.
    void cameraTrackLinesUpWithTheMicrophone()
    {
        make(1);
        const int64_t click = Clock::monotonic().nowNs() + 1513000000; // off the frame grid
        SyntheticCamera::flashAt(click);
        QVERIFY(f->start(QStringLiteral("CAM")));
        {
            AudioFeed feed(*f->audio, click);
            QTest::qWait(2800);
        }
        QVERIFY(f->stop());
        QCOMPARE(f->doneNames(QStringLiteral("cam")), QStringList({cam(QStringLiteral("cam"))}));
        const QJsonObject s = MediaProbe::video(f->path(QStringLiteral("CAM"), cam(QStringLiteral("cam"))));
        QCOMPARE(s.value(QStringLiteral("codec_name")).toString(), QStringLiteral("h264"));
        QVERIFY(s.value(QStringLiteral("width")).toInt() == 320 && s.value(QStringLiteral("height")).toInt() == 180);
        // The picture starts with the take: no frame turned away while the audio was being placed.
        QVERIFY2(number(s, "start_time") < 0.07, qPrintable(s.value(QStringLiteral("start_time")).toString()));
        const double flashAt = MediaProbe::firstBrightFrame(f->path(QStringLiteral("CAM"), cam(QStringLiteral("cam"))));
        const double clickAt = double(MediaProbe::firstAbove(MediaProbe::decode(f->path(QStringLiteral("CAM"), f->finalName(QStringLiteral("mic")))), 0.3f)) / 48000.0;
        const double captured = double(SyntheticCamera::lastFlashNs() - click) / 1e9;
        QVERIFY(flashAt > 0 && clickAt > 0 && captured >= 0 && captured < 0.5);
        QVERIFY(std::fabs((flashAt - clickAt) - captured) <= 0.002);
        QVERIFY(f->rec->camRunning()); // enabled cameras outlive the take
    }

    // A main camera that delivers nothing holds the start back for 2 s, then the take starts
    // without it; an extra camera records from that start, not before.
    void syncWaitsForTheCamera()
    {
        make(2);
        f->cameras.unplugged = 1;
        QVERIFY(f->start(QStringLiteral("WAIT")));
        QElapsedTimer waited;
        waited.start();
        {
            AudioFeed feed(*f->audio);
            QTRY_VERIFY_WITH_TIMEOUT(home.log().contains(QStringLiteral("sync: started without cam (timed out)")), 5000);
            QVERIFY2(waited.elapsed() >= 1900, qPrintable(QString::number(waited.elapsed())));
            QTest::qWait(1000);
        }
        QVERIFY(f->stop());
        const int frames = number(MediaProbe::video(f->path(QStringLiteral("WAIT"), cam(QStringLiteral("cam2")))), "nb_read_frames");
        QVERIFY2(frames >= 20 && frames <= 45, qPrintable(QString::number(frames)));
    }

    // Five cameras give cam, cam2, cam3, cam4 from one start, reported with the session. Preview
    // shows the main camera, then only the chosen one, at most 24 pictures a second. Switched
    // off mid-take the cameras end their tracks once, audio goes on, preview stops.
    void fiveCamerasPreviewAndSwitchOff()
    {
        make(5);
        QTRY_COMPARE(f->rec->cameraManager().extraTracks(), strings({"cam2", "cam3", "cam4"}));
        f->rec->previewing = true;
        QTest::qWait(1000);
        QList<QByteArray> got = f->takeJpegs();
        QVERIFY2(got.size() >= 10 && got.size() <= 25, qPrintable(QString::number(got.size())));
        for (const QByteArray &j : got)
            QCOMPARE(cameraOf(j), 1);
        f->rec->setPreviewCamUID(QStringLiteral("synthetic-3"));
        f->rec->videoQueue().sync([] {});
        f->takeJpegs();
        QVERIFY(f->start(QStringLiteral("FIVE")));
        {
            AudioFeed feed(*f->audio);
            QTest::qWait(1200);
        }
        got = f->takeJpegs();
        QVERIFY(got.size() >= 4);
        for (const QByteArray &j : got)
            QCOMPARE(cameraOf(j), 3);
        f->rec->setCamerasEnabled(false);
        QVERIFY(!f->rec->previewing);
        f->rec->videoQueue().sync([] {});
        QVERIFY(!f->rec->camRunning() && f->rec->isRecording());
        const QStringList ended{cam(QStringLiteral("cam2")), cam(QStringLiteral("cam3")), cam(QStringLiteral("cam4")), cam(QStringLiteral("cam"))};
        QCOMPARE(f->doneNames(QStringLiteral("cam")), ended);
        QVERIFY(f->stop());
        QCOMPARE(f->doneNames(QStringLiteral("cam")), ended);
        QCOMPARE(f->doneNames(QStringLiteral("mic")).size(), 1);
        QVERIFY(home.log().contains(QStringLiteral("Go Live OFF by control")));
        for (const auto &[path, session] : f->done) {
            QCOMPARE(session, QStringLiteral("FIVE"));
            QVERIFY2(!path.endsWith(QStringLiteral(".mp4")) || number(MediaProbe::video(path), "nb_read_frames") >= 5, qPrintable(path));
        }
    }

    // Cameras enabled after the take locked on audio: every camera track takes the common start
    // (the same late start in each file), and an extra camera opened again continues numbering.
    // The main camera unplugged mid-take is named and opened again when back; its track goes on
    // in the same file, nothing overwritten.
    void camerasJoinLateAndComeBack()
    {
        make(2, false);
        QVERIFY(f->start(QStringLiteral("LATE")));
        AudioFeed feed(*f->audio);
        QTRY_VERIFY(home.log().contains(QStringLiteral("sync: all tracks locked to one start")));
        QTest::qWait(500);
        f->rec->setCamerasEnabled(true);
        QTRY_COMPARE(f->rec->cameraManager().extraTracks(), strings({"cam2"}));
        QTest::qWait(600);
        f->rec->restartCamera();
        QTest::qWait(600);
        f->cameras.unplugged = 1;
        QTRY_VERIFY_WITH_TIMEOUT(!f->rec->camRunning() && f->rec->camError(), 5000);
        f->cameras.unplugged = 0;
        QTRY_VERIFY_WITH_TIMEOUT(f->rec->camRunning(), 5000);
        QTest::qWait(800);
        QVERIFY(f->stop());
        QCOMPARE(f->doneNames(QStringLiteral("cam_")), QStringList({cam(QStringLiteral("cam"))}));
        QCOMPARE(f->doneNames(QStringLiteral("cam2")).mid(0, 2), QStringList({cam(QStringLiteral("cam2")), cam(QStringLiteral("cam2"), QStringLiteral("00001"))})); // (the main camera coming back may open it again)
        const QJsonObject main = MediaProbe::video(f->path(QStringLiteral("LATE"), cam(QStringLiteral("cam"))));
        QVERIFY2(number(main, "start_time") > 0.4, qPrintable(main[QLatin1String("start_time")].toString()));
        QVERIFY(std::fabs(number(main, "start_time") - number(MediaProbe::video(f->path(QStringLiteral("LATE"), cam(QStringLiteral("cam2")))), "start_time")) < 0.1);
        QVERIFY2(number(main, "format_duration") - number(main, "start_time") > 2.0, qPrintable(main[QLatin1String("format_duration")].toString()));
        QVERIFY(number(MediaProbe::video(f->path(QStringLiteral("LATE"), cam(QStringLiteral("cam2"), QStringLiteral("00001")))), "nb_read_frames") >= 5);
    }
};

QTEST_GUILESS_MAIN(CameraTakeTest)
#include "tst_camera_take.moc"
