#include "DriftCorrector.h"

#include <QtTest>

#include <cmath>
#include <random>

namespace {
constexpr int kRate = 48000;
constexpr int kBlock = 480;
constexpr int64_t kStartNs = 1000000000;

// A capture device whose crystal runs at `rate` frames per second of monotonic time. Its blocks
// are stamped with the monotonic time of their first frame plus the jitter a real sound server
// shows (uniform ±1.5 ms); it puts a click (one 1 kHz cycle at 0.9) at the given times.
struct FastDevice {
    double rate;
    QVector<int64_t> clicksNs;
    int64_t frame = 0;
    std::mt19937 random{7};

    int64_t timeOf(int64_t f) const { return kStartNs + int64_t(double(f) * 1e9 / rate); }
    int64_t firstFrameOf(int64_t clickNs) const { return int64_t(std::ceil(double(clickNs - kStartNs) * rate / 1e9)); }
    // When the click's first frame reaches 0.3 (three frames into the cycle).
    int64_t risen(int64_t clickNs) const { return timeOf(firstFrameOf(clickNs) + 3); }

    AudioBuffer next()
    {
        AudioBuffer b{QByteArray(kBlock * int(sizeof(float)), 0), kRate, 1, timeOf(frame), false};
        auto *s = reinterpret_cast<float *>(b.pcm.data());
        for (int64_t c : clicksNs)
            for (int64_t d = frame - firstFrameOf(c), i = 0; i < kBlock; ++i, ++d)
                if (d >= 0 && d < 48)
                    s[i] = 0.9f * float(std::sin(2 * M_PI * double(d) / 48.0));
        b.captureNs += std::uniform_int_distribution<int64_t>(-1500000, 1500000)(random);
        frame += kBlock;
        return b;
    }
};

// The corrected stream: whether block times are contiguous, where the clicks are.
struct Timeline {
    int64_t nextNs = -1, frames = 0, lastClick = -100000;
    int gaps = 0;
    QVector<int64_t> clicksNs;

    void take(const TimedSample &s)
    {
        const int64_t pts = s.pts.in(1000000000);
        gaps += nextNs >= 0 && std::llabs(pts - nextNs) > 1;
        const auto *p = reinterpret_cast<const float *>(s.pcm.constData());
        for (int i = 0; i < s.frameCount(); ++i)
            if (std::fabs(p[i]) >= 0.3f && frames + i - lastClick > 4800) {
                clicksNs.append(pts + int64_t(i) * 1000000000 / kRate);
                lastClick = frames + i;
            }
        frames += s.frameCount();
        nextNs = pts + int64_t(s.frameCount()) * 1000000000 / kRate;
    }
};
} // namespace

class DriftTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    // A device 0.1 % fast for 30 minutes (1.8 s of extra samples) stays on the monotonic time
    // line with contiguous stamps and exactly 48000 frames per second of monotonic time; lost
    // blocks re-anchor the time line once, and what follows keeps its place.
    void staysOnTheTimeline_data()
    {
        QTest::addColumn<double>("rateError");
        QTest::addColumn<int>("seconds");
        QTest::addColumn<int>("lostBlocks"); // after 10 s
        QTest::addColumn<double>("toleranceMs");
        QTest::newRow("0.1 % fast, 30 min") << 0.001 << 1800 << 0 << 1.0;
        QTest::newRow("0.5 s lost") << 0.0 << 25 << 50 << 2.0;
    }
    void staysOnTheTimeline()
    {
        QFETCH(double, rateError);
        QFETCH(int, seconds);
        QFETCH(int, lostBlocks);
        QFETCH(double, toleranceMs);
        FastDevice dev{kRate * (1 + rateError), {kStartNs + seconds * 500000000LL, kStartNs + seconds * 990000000LL}};
        DriftCorrector corrector;
        Timeline out;
        const int64_t blocks = int64_t(seconds * dev.rate) / kBlock;
        for (int64_t b = 0; b < blocks; ++b) {
            const AudioBuffer block = dev.next();
            if (b < 1000 || b >= 1000 + lostBlocks)
                for (const TimedSample &s : corrector.process(block))
                    out.take(s);
        }
        QCOMPARE(out.gaps, lostBlocks ? 1 : 0);
        QCOMPARE(corrector.anchors(), lostBlocks ? 2 : 1);
        QCOMPARE(out.clicksNs.size(), dev.clicksNs.size());
        for (int i = 0; i < dev.clicksNs.size(); ++i) {
            const double errMs = double(out.clicksNs[i] - dev.risen(dev.clicksNs[i])) / 1e6;
            qInfo("click at %.0f s: %.3f ms off the time line", double(dev.clicksNs[i] - kStartNs) / 1e9, errMs);
            QVERIFY2(std::fabs(errMs) < toleranceMs, qPrintable(QString::number(errMs)));
        }
        const double written = double(out.frames) / kRate;
        const double elapsed = double(dev.timeOf(dev.frame) - kStartNs) / 1e9 - lostBlocks * 0.01;
        QVERIFY2(std::fabs(written - elapsed) < 0.005, qPrintable(QStringLiteral("%1 vs %2").arg(written).arg(elapsed)));
        QVERIFY(std::fabs(corrector.stretch() + rateError) < 0.0002); // it found the crystal's error
    }

    // A new format (another device) starts a new time line at its own first block; what the old
    // one still held comes out first. Blocks are held back only while a time line settles.
    void formatChangeStartsOver()
    {
        DriftCorrector corrector;
        std::vector<TimedSample> out;
        const auto feed = [&](int channels, int64_t fromNs, int blocks) {
            for (int b = 0; b < blocks; ++b)
                for (TimedSample &s : corrector.process({QByteArray(kBlock * 4 * channels, 0), kRate, channels, fromNs + b * 10000000LL, false}))
                    out.push_back(std::move(s));
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
        QVERIFY(stereo != out.end() && std::llabs(stereo->pts.in(1000000000) - 9000000000) < 1000000);
    }
};

QTEST_GUILESS_MAIN(DriftTest)
#include "tst_drift.moc"
