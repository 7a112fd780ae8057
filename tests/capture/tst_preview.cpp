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
    // The JPEGs have these sizes (through the scaler when the camera is larger) and still show
    // the frame's counter: 1080p, 720p, 4:3 VGA, as wide as SD, smaller (never up), a rounded
    // height, no picture.
    void everyCameraSizeHasItsPreviewSize()
    {
        const QList<std::tuple<QSize, QSize, QSize>> rows = { // camera, SD, HD
            {{1920, 1080}, {480, 270}, {960, 540}}, {{1280, 720}, {480, 270}, {960, 540}}, {{640, 480}, {480, 360}, {640, 480}},
            {{480, 300}, {480, 300}, {480, 300}}, {{320, 180}, {320, 180}, {320, 180}}, {{1000, 333}, {480, 160}, {960, 320}}, {{0, 0}, {0, 0}, {0, 0}}};
        PreviewEncoder encoder;
        FrameDecoder decoder;
        QVERIFY(decoder.open(V4L2_PIX_FMT_MJPEG, 0, 0));
        for (const auto &[camera, sd, hd] : rows)
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
