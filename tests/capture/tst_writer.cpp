#include "DataFolder.h"
#include "MediaProbe.h"
#include "TestHome.h"
#include "TestPattern.h"
#include "TrackWriter.h"
#include "VideoWriter.h"

#include <QtTest>

extern "C" {
#include <libavutil/frame.h>
}

namespace {
constexpr int64_t kBase = 5000LL * 1000000000; // an arbitrary monotonic start (5000 s)
int64_t ns(int64_t frames) { return frames * 1000000000 / 48000; }

// Deterministic white noise at 0.3, so the encoders spend their budget.
float noise()
{
    static uint32_t state = 12345;
    state = state * 1664525u + 1013904223u;
    return 0.3f * (float(state >> 8) / float(1 << 23) - 1.0f);
}

// 10 ms of 48 kHz audio from frame `first`, every channel carrying gen(frame).
template<typename Gen>
TimedSample block(int64_t first, int channels, Gen gen)
{
    TimedSample s{TimedSample::Kind::Audio, MediaTime::fromNanoseconds(kBase + ns(first)), MediaTime::make(480, 48000), 48000, channels,
                  QByteArray(480 * channels * qsizetype(sizeof(float)), Qt::Uninitialized)};
    auto *out = reinterpret_cast<float *>(s.pcm.data());
    for (int i = 0; i < 480 * channels; ++i)
        out[i] = gen(first + i / channels);
    return s;
}

// A grainy camera frame: the counted test pattern under noise.
TimedSample frameAt(int64_t index)
{
    TimedSample s{TimedSample::Kind::Video, MediaTime::fromNanoseconds(kBase + index * 1000000000 / 30), MediaTime::make(1, 30)};
    s.frame = TestPattern::draw(640, 360, index, false);
    for (int y = 0; y < 360; ++y)
        for (int x = 0; x < 640; ++x) {
            uint8_t &v = s.frame->data[0][size_t(y) * size_t(s.frame->linesize[0]) + size_t(x)];
            v = uint8_t(std::clamp(int(v) + int(noise() * 80), 0, 255));
        }
    return s;
}
} // namespace

// The segment writer with its two formats, checked with ffprobe: codecs, rates, naming,
// roll-over, the common start and the final marker.
class WriterTest : public QObject
{
    Q_OBJECT
    TestHome home;
    QStringList done;

    void attach(SegmentWriter &w) { w.onSegmentDone = [this](const QString &p) { done.append(p); }; }
    static QString writing() { return DataFolder::pathOf(QStringLiteral("writing")); }

private Q_SLOTS:
    void init()
    {
        home.wipe();
        done.clear();
    }

    // AAC in M4A at 48 kHz (64 kbit/s mono, 128 kbit/s stereo; six channels to stereo), H.264 in MP4
    // at the quality's rate; nothing added or lost.
    void formats()
    {
        const struct { int channels; const char *name; int bitRate; const char *probed; } rows[] = { // channels 0: video
            {1, "mic_1_00000_final.m4a", 64000, "aac 48000 Hz 1 ch"}, {6, "sys_1_00000_final.m4a", 128000, "aac 48000 Hz 2 ch"},
            {0, "cam_1_00000_final.mp4", 8000000, "h264 640x360 yuv420p 90 frames"}};
        for (const auto &[channels, name, bitRate, probed] : rows) {
            done.clear();
            const WriterSetup setup{writing(), bitRate};
            std::unique_ptr<SegmentWriter> w = channels ? std::unique_ptr<SegmentWriter>(new TrackWriter(QString::fromLatin1(name, 3), setup))
                                                        : std::make_unique<VideoWriter>(QStringLiteral("cam"), setup);
            attach(*w);
            w->begin(QStringLiteral("S1"), 1);
            for (int i = 0; i < (channels ? 300 : 90); ++i)
                w->append(channels ? block(i * 480, channels, [](int64_t) { return noise(); }) : frameAt(i));
            w->close(true);
            QCOMPARE(done, QStringList({writing() + QLatin1String("/S1/") + QLatin1String(name)}));
            const QJsonObject s = channels ? MediaProbe::stream(done[0]) : MediaProbe::video(done[0]);
            const auto field = [&s](const char *key) { return QString::number(MediaProbe::number(s, key)); };
            QCOMPARE(channels ? QString(s[QLatin1String("codec_name")].toString() + QLatin1Char(' ') + field("sample_rate") + QLatin1String(" Hz ") + field("channels") + QLatin1String(" ch"))
                              : QString(s[QLatin1String("codec_name")].toString() + QLatin1Char(' ') + field("width") + QLatin1Char('x') + field("height") + QLatin1Char(' ') + s[QLatin1String("pix_fmt")].toString() + QLatin1Char(' ') + field("nb_read_frames") + QLatin1String(" frames")),
                     QString::fromLatin1(probed));
            QVERIFY(!channels || MediaProbe::decode(done[0]).size() == 300 * 480);
            QVERIFY2(std::abs(MediaProbe::number(s, "bit_rate") - bitRate) < 0.2 * bitRate, qPrintable(field("bit_rate")));
        }
    }

    // Samples before the common start are dropped, a hole in the stamps becomes silence, and
    // segments roll over at their length without losing or repeating a sample, named by take and
    // index. Ending again with nothing open, or a segment that holds no media yet, hands over no file.
    void rollOverFromTheCommonStart()
    {
        QVERIFY(WriterSetup().segmentSeconds == 1800.0 && WriterSetup().videoBitrate == 8000000 && H264Format::kKeyInterval == 60 && SegmentWriter::kRetrySeconds == 2); // the real length, shortened here
        TrackWriter w(QStringLiteral("mic"), {writing(), 8000000, 2.0});
        attach(w);
        w.begin(QStringLiteral("S2"), 42);
        w.setOpenAt(MediaTime::fromNanoseconds(kBase + ns(4800)));
        const int blocks = 5 * 100 + 17;
        for (int b = 0; b < blocks; ++b)
            if (b < 300 || b >= 310) // a 100 ms hole, filled with silence
                w.append(block(b * 480, 1, [](int64_t i) { return i % 997 ? 0.f : 0.5f; }));
        QCOMPARE(w.segStart(), MediaTime::fromNanoseconds(kBase + ns(4800 + 2 * 96000)));
        w.close(false);
        w.close(true);
        QCOMPARE(done.size(), 3);
        QVERIFY(done[0].endsWith(QLatin1String("/S2/mic_42_00000.m4a")) && done[1].endsWith(QLatin1String("/S2/mic_42_00001.m4a")) && done[2].endsWith(QLatin1String("/S2/mic_42_00002.m4a")));
        w.begin(QStringLiteral("S3"), 7); // a segment whose audio the encoder still holds when another format fails it
        w.append(block(0, 1, [](int64_t) { return 0.f; }));
        w.append(block(480, 2, [](int64_t) { return 0.f; }));
        w.close(true);
        QCOMPARE(done.size(), 3);
        qsizetype total = 0;
        for (const QString &p : done.mid(0, 3))
            total += MediaProbe::decode(p).size();
        QCOMPARE(total, qsizetype(blocks * 480 - 4800));
    }
};

QTEST_GUILESS_MAIN(WriterTest)
#include "tst_writer.moc"
