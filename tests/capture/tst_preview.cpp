#include "FrameDecoder.h"
#include "ManualClock.h"
#include "PreviewEncoder.h"
#include "PreviewThrottle.h"
#include "TestPattern.h"

#include <QtTest>

#include <linux/videodev2.h>

extern "C" {
#include <libavutil/frame.h>
}

// The control room's preview pictures: the size each camera size is sent at, the pictures
// themselves, and their spacing.
class PreviewTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void everyCameraSizeHasItsPreviewSize_data()
    {
        QTest::addColumn<QSize>("camera");
        QTest::addColumn<QSize>("sd");
        QTest::addColumn<QSize>("hd");
        QTest::newRow("1080p") << QSize(1920, 1080) << QSize(480, 270) << QSize(960, 540);
        QTest::newRow("720p") << QSize(1280, 720) << QSize(480, 270) << QSize(960, 540);
        QTest::newRow("4:3 VGA") << QSize(640, 480) << QSize(480, 360) << QSize(640, 480);
        QTest::newRow("as wide as SD") << QSize(480, 300) << QSize(480, 300) << QSize(480, 300);
        QTest::newRow("smaller: never up") << QSize(320, 180) << QSize(320, 180) << QSize(320, 180);
        QTest::newRow("rounded height") << QSize(1000, 333) << QSize(480, 160) << QSize(960, 320);
        QTest::newRow("no picture") << QSize(0, 0) << QSize(0, 0) << QSize(0, 0);
    }
    // The JPEGs have these sizes (through the scaler when the camera is larger) and still show
    // the frame's counter.
    void everyCameraSizeHasItsPreviewSize()
    {
        QFETCH(QSize, camera);
        QFETCH(QSize, sd);
        QFETCH(QSize, hd);
        PreviewEncoder encoder;
        FrameDecoder decoder;
        QVERIFY(decoder.open(V4L2_PIX_FMT_MJPEG, 0, 0));
        for (const bool big : {false, true, false}) {
            const QSize expected = big ? hd : sd;
            QCOMPARE(PreviewEncoder::targetSize(camera, big), expected);
            if (camera.isEmpty())
                continue;
            const QByteArray jpeg = encoder.encode(*TestPattern::draw(camera.width(), camera.height(), 42, false), big);
            const std::shared_ptr<AVFrame> back = decoder.decode(reinterpret_cast<const uint8_t *>(jpeg.constData()), size_t(jpeg.size()));
            QVERIFY(jpeg.startsWith("\xff\xd8") && back);
            QCOMPARE(QSize(back->width, back->height), expected);
            QCOMPARE(TestPattern::readCounter(*back), 42);
        }
    }

    // At most 24 pictures a second across all cameras: one exactly 1/24 s after the last goes out.
    void throttleSpacesPicturesAt24PerSecond()
    {
        QCOMPARE(PreviewThrottle::kSpacingNs, int64_t(41666666));
        ManualClock clock(5000000000);
        PreviewThrottle throttle(clock);
        QVERIFY(throttle.admit());
        clock.advance(PreviewThrottle::kSpacingNs - 1);
        QVERIFY(!throttle.admit());
        clock.advance(1);
        QVERIFY(throttle.admit());
        QVERIFY(!throttle.admit());
    }
};

QTEST_GUILESS_MAIN(PreviewTest)
#include "tst_preview.moc"
