#include "DriftCorrector.h"
#include "ManualClock.h"
#include "SyntheticAudioBackend.h"

#include <QtTest>

#include <cmath>
#include <random>

namespace {
constexpr int kRate = 48000;
constexpr int kBlock = 480;

// A capture device whose crystal runs at `trueRate` frames per second of monotonic time. It
// delivers blocks through the synthetic backend, stamped with the monotonic time of their first
// frame plus the stamping jitter a real sound server shows (uniform ± jitterNs), and puts a click
// (one 1 kHz cycle at 0.9) at the given monotonic times.
struct FastDevice {
    SyntheticAudioBackend &backend;
    ManualClock &clock;
    double trueRate;
    int64_t jitterNs = 1500000;
    int64_t startNs = 0;
    int64_t frame = 0;          // frames delivered
    QVector<int64_t> clicksNs; // monotonic times of clicks
    std::mt19937 random{7};

    int64_t timeOf(int64_t f) const { return startNs + int64_t(double(f) * 1e9 / trueRate); }

    void deliverBlock(bool skip = false)
    {
        QByteArray pcm(kBlock * int(sizeof(float)), 0);
        auto *s = reinterpret_cast<float *>(pcm.data());
        for (int64_t c : clicksNs) {
            const int64_t first = int64_t(std::ceil(double(c - startNs) * trueRate / 1e9));
            for (int i = 0; i < kBlock; ++i) {
                const int64_t d = frame + i - first;
                if (d >= 0 && d < 48)
                    s[i] = 0.9f * float(std::sin(2 * M_PI * double(d) / 48.0));
            }
        }
        const int64_t at = timeOf(frame);
        clock.set(timeOf(frame + kBlock));
        std::uniform_int_distribution<int64_t> jitter(-jitterNs, jitterNs);
        if (!skip)
            backend.deliver(QStringLiteral("fast"), pcm, at + jitter(random));
        frame += kBlock;
    }
};

// Collects the corrected stream: checks that block times are contiguous and finds clicks.
struct Timeline {
    int64_t nextNs = -1;
    int64_t frames = 0;
    int gaps = 0;
    QVector<int64_t> clicksNs;
    int64_t lastClickFrame = -100000;

    void take(const TimedSample &s)
    {
        const int64_t pts = s.pts.in(1000000000);
        if (nextNs >= 0 && std::llabs(pts - nextNs) > 1)
            ++gaps;
        const float *p = reinterpret_cast<const float *>(s.pcm.constData());
        for (int i = 0; i < s.frameCount(); ++i) {
            if (std::fabs(p[i]) >= 0.3f && frames + i - lastClickFrame > 4800) {
                clicksNs.append(pts + int64_t(i) * 1000000000 / kRate);
                lastClickFrame = frames + i;
            }
        }
        frames += s.frameCount();
        nextNs = pts + int64_t(s.frameCount()) * 1000000000 / kRate;
    }
};

// The monotonic time at which a click's first frame reaches 0.3 (three frames into the cycle).
int64_t risen(const FastDevice &d, int64_t clickNs)
{
    const int64_t first = int64_t(std::ceil(double(clickNs - d.startNs) * d.trueRate / 1e9));
    return d.timeOf(first + 3);
}
} // namespace

class DriftTest : public QObject
{
    Q_OBJECT

private slots:
    // A device 0.1 % fast for 30 simulated minutes (about 1.8 s of extra samples) stays within
    // 5 ms of the monotonic time line, with exactly contiguous output time stamps.
    void fastClockStaysOnTheTimeline()
    {
        ManualClock clock(0);
        SyntheticAudioBackend backend(clock);
        DriftCorrector corrector;
        Timeline out;
        AudioBackend::Handlers h;
        h.onBuffer = [&](AudioBuffer &&b) {
            for (const TimedSample &s : corrector.process(b))
                out.take(s);
        };
        QString error;
        auto capture = backend.open(QStringLiteral("fast"), kRate, 1, h, &error);
        QVERIFY(capture);

        FastDevice dev{backend, clock, kRate * 1.001};
        dev.startNs = 1000000000;
        const QVector<int64_t> clicks = {dev.startNs + 10000000000LL, dev.startNs + 900000000000LL,
                                         dev.startNs + 1795000000000LL};
        dev.clicksNs = clicks;
        const int64_t blocks = int64_t(30 * 60 * dev.trueRate) / kBlock;
        for (int64_t b = 0; b < blocks; ++b)
            dev.deliverBlock();

        QCOMPARE(out.gaps, 0);
        QCOMPARE(corrector.anchors(), 1);
        QCOMPARE(out.clicksNs.size(), clicks.size());
        for (int i = 0; i < clicks.size(); ++i) {
            const double errMs = double(out.clicksNs[i] - risen(dev, clicks[i])) / 1e6;
            qInfo("click at %.0f s: %.3f ms off the time line", double(clicks[i] - dev.startNs) / 1e9, errMs);
            if (i > 0)
                QVERIFY2(std::fabs(errMs) < 5.0, qPrintable(QString::number(errMs)));
        }
        // The written audio per second of monotonic time is exact: 30 minutes hold 30 minutes.
        const double writtenSeconds = double(out.frames) / kRate;
        const double elapsed = double(dev.timeOf(dev.frame) - dev.startNs) / 1e9;
        QVERIFY2(std::fabs(writtenSeconds - elapsed) < 0.005, qPrintable(QStringLiteral("%1 vs %2").arg(writtenSeconds).arg(elapsed)));
        QVERIFY(std::fabs(corrector.stretch() + 0.001) < 0.0002); // it found the crystal's error
    }

    // Lost blocks are a real discontinuity: the time line re-anchors and what follows keeps its
    // place; small jitter never re-anchors.
    void lostBlocksReanchor()
    {
        ManualClock clock(0);
        SyntheticAudioBackend backend(clock);
        DriftCorrector corrector;
        Timeline out;
        AudioBackend::Handlers h;
        h.onBuffer = [&](AudioBuffer &&b) {
            for (const TimedSample &s : corrector.process(b))
                out.take(s);
        };
        QString error;
        auto capture = backend.open(QStringLiteral("fast"), kRate, 1, h, &error);
        FastDevice dev{backend, clock, double(kRate)};
        dev.startNs = 5000000000LL;
        const int64_t click = dev.startNs + 20000000000LL;
        dev.clicksNs = {click};
        for (int b = 0; b < 1000; ++b) // 10 s
            dev.deliverBlock();
        QCOMPARE(corrector.anchors(), 1);
        for (int b = 0; b < 50; ++b) // 0.5 s never arrive
            dev.deliverBlock(true);
        for (int b = 0; b < 1500; ++b)
            dev.deliverBlock();
        QCOMPARE(corrector.anchors(), 2);
        QCOMPARE(out.gaps, 1);
        QCOMPARE(out.clicksNs.size(), 1);
        QVERIFY(std::llabs(out.clicksNs[0] - risen(dev, click)) < 2000000);
    }

    // A new format (another device) starts a new time line at its own first block; what the old
    // one still held comes out first. Blocks are held back only while a time line settles.
    void formatChangeStartsOver()
    {
        DriftCorrector corrector;
        std::vector<TimedSample> out;
        const auto feed = [&](int channels, int64_t fromNs, int blocks) {
            for (int b = 0; b < blocks; ++b) {
                AudioBuffer a;
                a.rate = kRate;
                a.channels = channels;
                a.pcm = QByteArray(kBlock * 4 * channels, 0);
                a.captureNs = fromNs + b * 10000000LL;
                for (TimedSample &s : corrector.process(a))
                    out.push_back(std::move(s));
            }
        };
        feed(1, 1000000000, 9);
        QVERIFY(out.empty()); // 0.09 s: still settling
        feed(1, 1090000000, 10);
        QVERIFY(!out.empty());
        QVERIFY(std::llabs(out.front().pts.in(1000000000) - 1000000000) < 1000);
        out.clear();
        feed(2, 9000000000, 40);
        QVERIFY(!out.empty());
        QCOMPARE(out.front().channels, 1); // the mono time line's last held frames
        const auto stereo = std::find_if(out.begin(), out.end(), [](const TimedSample &s) { return s.channels == 2; });
        QVERIFY(stereo != out.end());
        QVERIFY(std::llabs(stereo->pts.in(1000000000) - 9000000000) < 1000000);
    }
};

QTEST_GUILESS_MAIN(DriftTest)
#include "tst_drift.moc"
