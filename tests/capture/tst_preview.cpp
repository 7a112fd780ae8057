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

namespace {

// The size a JPEG decodes to, and the counter drawn in it.
struct Decoded {
    QSize size;
    int64_t counter = -1;
};

Decoded decodeJpeg(const QByteArray &jpeg)
{
    FrameDecoder d;
    if (!d.open(V4L2_PIX_FMT_MJPEG, 0, 0))
        return {};
    std::shared_ptr<AVFrame> f = d.decode(reinterpret_cast<const uint8_t *>(jpeg.constData()), size_t(jpeg.size()));
    if (!f)
        return {};
    return {QSize(f->width, f->height), TestPattern::readCounter(*f)};
}

} // namespace

class TstPreview : public QObject
{
    Q_OBJECT

private slots:
    void scalesDownToTheTargetWidthNeverUp_data()
    {
        QTest::addColumn<QSize>("source");
        QTest::addColumn<bool>("hd");
        QTest::addColumn<QSize>("sent");
        QTest::newRow("1080p") << QSize(1920, 1080) << false << QSize(480, 270);
        QTest::newRow("1080p hd") << QSize(1920, 1080) << true << QSize(960, 540);
        QTest::newRow("640 hd, own size") << QSize(640, 360) << true << QSize(640, 360);
        QTest::newRow("640") << QSize(640, 360) << false << QSize(480, 270);
        QTest::newRow("4:3") << QSize(1280, 960) << false << QSize(480, 360);
        QTest::newRow("small") << QSize(320, 180) << false << QSize(320, 180);
    }
    void scalesDownToTheTargetWidthNeverUp()
    {
        QFETCH(QSize, source);
        QFETCH(bool, hd);
        QFETCH(QSize, sent);
        QCOMPARE(PreviewEncoder::targetSize(source, hd), sent);
        std::shared_ptr<AVFrame> frame = TestPattern::draw(source.width(), source.height(), 4711, false);
        PreviewEncoder encoder;
        const QByteArray jpeg = encoder.encode(*frame, hd);
        QVERIFY(jpeg.startsWith("\xFF\xD8") && jpeg.endsWith("\xFF\xD9"));
        const Decoded d = decodeJpeg(jpeg);
        QCOMPARE(d.size, sent);
        QCOMPARE(d.counter, int64_t(4711)); // the picture survives scaling and coding
    }

    // One encoder serves frames of changing sizes and formats; an empty frame gives nothing.
    void encoderFollowsTheSourceAndRefusesEmptyFrames()
    {
        PreviewEncoder encoder;
        for (int round = 0; round < 2; ++round) {
            std::shared_ptr<AVFrame> big = TestPattern::draw(1280, 720, round, false);
            QCOMPARE(decodeJpeg(encoder.encode(*big, false)).size, QSize(480, 270));
            std::shared_ptr<AVFrame> small = TestPattern::draw(320, 240, round, false);
            QCOMPARE(decodeJpeg(encoder.encode(*small, true)).size, QSize(320, 240));
        }
        // What cameras deliver besides planar 4:2:0: decoded MJPEG (full range) and YUYV.
        const QByteArray fromCamera = encoder.encode(*TestPattern::draw(1280, 720, 77, false), true);
        FrameDecoder mjpeg;
        QVERIFY(mjpeg.open(V4L2_PIX_FMT_MJPEG, 1280, 720));
        std::shared_ptr<AVFrame> decoded =
            mjpeg.decode(reinterpret_cast<const uint8_t *>(fromCamera.constData()), size_t(fromCamera.size()));
        QVERIFY(decoded);
        const Decoded viaJpeg = decodeJpeg(encoder.encode(*decoded, false));
        QCOMPARE(viaJpeg.size, QSize(480, 270));
        QCOMPARE(viaJpeg.counter, int64_t(77));
        FrameDecoder yuyv;
        QVERIFY(yuyv.open(V4L2_PIX_FMT_YUYV, 640, 360));
        const QByteArray packed(640 * 360 * 2, char(128));
        std::shared_ptr<AVFrame> grey = yuyv.decode(reinterpret_cast<const uint8_t *>(packed.constData()), size_t(packed.size()));
        QVERIFY(grey);
        QCOMPARE(decodeJpeg(encoder.encode(*grey, false)).size, QSize(480, 270));

        AVFrame *empty = av_frame_alloc();
        QVERIFY(encoder.encode(*empty, false).isEmpty());
        av_frame_free(&empty);
    }

    // Frames every 1/30 s are thinned so that sent frames are at least 1/24 s apart, and no
    // frame is dropped that could have been sent.
    void thinsFramesToAtMost24PerSecond()
    {
        ManualClock clock(5000000000);
        PreviewThrottle throttle(clock);
        const int64_t frame = 1000000000 / 30;
        int64_t last = -1;
        int sent = 0;
        for (int i = 0; i < 90; ++i) {
            const bool admitted = throttle.admit();
            const int64_t now = clock.nowNs();
            if (admitted) {
                QVERIFY(last < 0 || now - last >= PreviewThrottle::kSpacingNs);
                last = now;
                ++sent;
            } else {
                QVERIFY(now - last < PreviewThrottle::kSpacingNs);
            }
            clock.advance(frame);
        }
        QCOMPARE(sent, 45);

        // Two cameras at 30 frames per second share the limit.
        ManualClock clock2;
        PreviewThrottle shared(clock2);
        int both = 0;
        for (int i = 0; i < 60; ++i) {
            both += shared.admit() ? 1 : 0;
            clock2.advance(frame / 2);
            both += shared.admit() ? 1 : 0;
            clock2.advance(frame / 2);
        }
        QVERIFY2(both <= 2 * 24 + 1, qPrintable(QString::number(both)));
        QVERIFY(both >= 2 * 20);
    }
};

QTEST_GUILESS_MAIN(TstPreview)
#include "tst_preview.moc"
