#include "AudioSignal.h"
#include "BravaLog.h"
#include "Config.h"
#include "MediaProbe.h"
#include "TestHome.h"
#include "TrackWriter.h"

#include <QDir>
#include <QFileInfo>
#include <QtTest>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

using AudioSignal::ns;

namespace {
constexpr int64_t kBase = 5000LL * 1000000000; // an arbitrary monotonic start (5000 s)
constexpr int kRate = 48000;

// A click: one 1 kHz cycle at 0.9 that survives AAC coding. It first reaches 0.3 three samples
// after it starts.
float clickAt(int64_t index, int64_t sampleIndex)
{
    const int64_t d = sampleIndex - index;
    return (d >= 0 && d < 48) ? 0.9f * float(std::sin(2 * M_PI * double(d) / 48.0)) : 0.0f;
}
constexpr int kRise = 3;

// A format that writes headers only and counts what it is given: exercises the writer core's
// decisions (naming, roll-over, final) at real 30-minute times without encoding audio.
class CountingFormat final : public SegmentFormat
{
public:
    struct Log {
        int opens = 0;
        int writes = 0;
        QList<MediaTime> starts;
        bool failDrain = false;
        bool failWrites = false;
    };
    explicit CountingFormat(Log &log) : m_log(log) {}
    QString extension() const override { return QStringLiteral("m4a"); }
    const char *muxer() const override { return "mov"; }
    QString text(Text which, const QString &track, const QString &detail) const override
    {
        return QStringLiteral("counting %1 %2: %3").arg(int(which)).arg(track, detail);
    }
    bool accepts(const TimedSample &s) const override { return s.sampleRate > 0; }
    bool open(AVFormatContext *fmt, const TimedSample &, MediaTime start, QString *) override
    {
        AVStream *st = avformat_new_stream(fmt, nullptr);
        st->codecpar->codec_type = AVMEDIA_TYPE_AUDIO;
        st->codecpar->codec_id = AV_CODEC_ID_PCM_S16LE;
        st->codecpar->sample_rate = kRate;
        av_channel_layout_default(&st->codecpar->ch_layout, 1);
        st->time_base = AVRational{1, kRate};
        ++m_log.opens;
        m_log.starts.append(start);
        return true;
    }
    bool write(const TimedSample &, const PacketSink &) override
    {
        ++m_log.writes;
        return !m_log.failWrites;
    }
    bool drain(const PacketSink &) override { return !m_log.failDrain; }
    void release() override {}

private:
    Log &m_log;
};

struct Done {
    QStringList paths;
    void attach(SegmentWriter &w)
    {
        w.onSegmentDone = [this](const QString &p) { paths.append(p); };
    }
};

QString writing(const QString &session) { return Config::dir(QStringLiteral("writing")) + QLatin1Char('/') + session; }

// Feeds `seconds` of a click train (one click every `every` samples, first at `first`) in 10 ms blocks.
int64_t feedClicks(SegmentWriter &w, int64_t startNs, int64_t totalFrames, int64_t first, int64_t every, int channels = 1)
{
    const int block = 480;
    for (int64_t at = 0; at < totalFrames; at += block) {
        const int n = int(std::min<int64_t>(block, totalFrames - at));
        w.append(AudioSignal::block(startNs + ns(at), n, channels, [&](int i) {
            const int64_t idx = at + i;
            if (idx < first)
                return 0.0f;
            return clickAt(first + ((idx - first) / every) * every, idx);
        }));
    }
    return totalFrames;
}
} // namespace

class SegmentWriterTest : public QObject
{
    Q_OBJECT
    TestHome home;

private slots:
    void init()
    {
        home.wipe();
        if (!MediaProbe::available())
            QSKIP("ffprobe/ffmpeg not installed");
    }

    // Mono at 64 kbit/s, the final name, the reported path and a duration matching the input.
    void monoTrackBecomesFinalM4a()
    {
        TrackWriter w(QStringLiteral("mic"));
        Done done;
        done.attach(w);
        w.begin(QStringLiteral("S1"), 1712345678000);
        feedClicks(w, kBase, 3 * kRate, 24000, 24000);
        QVERIFY(w.isOpen());
        QCOMPARE(QFileInfo(w.path()).fileName(), QStringLiteral("mic_1712345678000_00000.m4a"));
        w.close(true);
        QVERIFY(!w.isOpen());
        const QString expected = writing(QStringLiteral("S1")) + QStringLiteral("/mic_1712345678000_00000_final.m4a");
        QCOMPARE(done.paths, QStringList{expected});
        QVERIFY(!QFile::exists(writing(QStringLiteral("S1")) + QStringLiteral("/mic_1712345678000_00000.m4a")));

        const QJsonObject s = MediaProbe::stream(expected);
        QCOMPARE(s.value("codec_name").toString(), QStringLiteral("aac"));
        QCOMPARE(s.value("sample_rate").toString(), QStringLiteral("48000"));
        QCOMPARE(s.value("channels").toInt(), 1);
        QString errors;
        const QVector<float> pcm = MediaProbe::decode(expected, &errors);
        QVERIFY2(errors.isEmpty(), qPrintable(errors));
        QCOMPARE(pcm.size(), qsizetype(3 * kRate)); // priming hidden, nothing added or lost
        for (int k = 1; k <= 5; ++k) {
            const qsizetype at = MediaProbe::firstAbove(pcm, 0.3f, k * 24000 - 100);
            QVERIFY2(std::abs(at - k * 24000 - kRise) <= 2, qPrintable(QString::number(at)));
        }
    }

    // Mono is encoded at 64 kbit/s; more than two channels are folded to stereo at 128 kbit/s.
    void bitRatesAndChannels()
    {
        {
            TrackWriter m(QStringLiteral("mic"));
            Done monoDone;
            monoDone.attach(m);
            m.begin(QStringLiteral("S2"), 8);
            AudioSignal::Noise noise;
            for (int b = 0; b < 200; ++b)
                m.append(AudioSignal::block(kBase + ns(b * 480), 480, 1, noise));
            m.close(true);
            const QJsonObject s = MediaProbe::stream(monoDone.paths.value(0));
            QCOMPARE(s.value("channels").toInt(), 1);
            QVERIFY(std::abs(s.value("bit_rate").toString().toInt() - 64000) < 3200);
        }
        TrackWriter w(QStringLiteral("sys"));
        Done done;
        done.attach(w);
        w.begin(QStringLiteral("S2"), 7);
        AudioSignal::Noise noise;
        for (int b = 0; b < 200; ++b)
            w.append(AudioSignal::block(kBase + ns(b * 480), 480, 6, noise));
        w.close(true);
        QCOMPARE(done.paths.size(), 1);
        const QJsonObject s = MediaProbe::stream(done.paths.first());
        QCOMPARE(s.value("channels").toInt(), 2);
        QVERIFY(std::abs(s.value("bit_rate").toString().toInt() - 128000) < 6400);
        QCOMPARE(AacFormat::bitRateFor(1), 64000);
        QCOMPARE(AacFormat::bitRateFor(2), 128000);
    }

    // Samples before openAt are dropped; a track that starts later than openAt begins with
    // silence so its first sound sits at its place on the common time line.
    void openAtTrimsEarlyAndPadsLateStarts()
    {
        const int64_t openAt = kBase + ns(4800); // 100 ms after the early track's first sample
        TrackWriter early(QStringLiteral("mic")), late(QStringLiteral("sys"));
        Done done;
        done.attach(early);
        done.attach(late);
        early.begin(QStringLiteral("S3"), 1);
        late.begin(QStringLiteral("S3"), 1);
        early.setOpenAt(MediaTime::fromNanoseconds(openAt));
        late.setOpenAt(MediaTime::fromNanoseconds(openAt));
        // Both carry a click at common time openAt + 0.5 s; "late" starts 237 ms after openAt.
        const int64_t click = openAt + 500000000;
        early.append(AudioSignal::silence(kBase - ns(4800), 4800)); // wholly before openAt
        QVERIFY(!early.isOpen());
        const auto feed = [&](SegmentWriter &w, int64_t from) {
            for (int64_t t = from; t < openAt + 1500000000; t += ns(480)) {
                const int64_t clickIdx = (click - t) * kRate / 1000000000;
                w.append(AudioSignal::block(t, 480, 1, [&](int i) { return clickAt(clickIdx, i); }));
            }
        };
        feed(early, kBase);
        feed(late, openAt + ns(11376)); // 237 ms
        QCOMPARE(early.segStart(), MediaTime::fromNanoseconds(openAt));
        QCOMPARE(late.segStart(), MediaTime::fromNanoseconds(openAt));
        early.close(true);
        late.close(true);
        QCOMPARE(done.paths.size(), 2);
        const QVector<float> a = MediaProbe::decode(done.paths[0]);
        const QVector<float> b = MediaProbe::decode(done.paths[1]);
        const qsizetype ca = MediaProbe::firstAbove(a, 0.3f), cb = MediaProbe::firstAbove(b, 0.3f);
        QVERIFY2(std::abs(ca - 24000 - kRise) <= 2 && std::abs(cb - 24000 - kRise) <= 2,
                 qPrintable(QStringLiteral("%1 %2").arg(ca).arg(cb)));
    }

    // Rolling over cuts exactly at a block boundary: the decoded segments put end to end give back
    // every sample once, with each click where it was.
    void rollOverLosesAndRepeatsNothing()
    {
        TrackWriter w(QStringLiteral("mic"), 2.0);
        Done done;
        done.attach(w);
        w.begin(QStringLiteral("S4"), 42);
        const int64_t total = 5 * kRate + 480 * 7;
        feedClicks(w, kBase, total, 1000, 7919);
        w.close(true);
        QCOMPARE(done.paths.size(), 3);
        QVERIFY(done.paths[0].endsWith(QStringLiteral("mic_42_00000.m4a")));
        QVERIFY(done.paths[1].endsWith(QStringLiteral("mic_42_00001.m4a")));
        QVERIFY(done.paths[2].endsWith(QStringLiteral("mic_42_00002_final.m4a")));
        QVector<float> all;
        for (const QString &p : done.paths) {
            QString errors;
            const QVector<float> part = MediaProbe::decode(p, &errors);
            QVERIFY2(errors.isEmpty(), qPrintable(errors));
            all += part;
        }
        QCOMPARE(all.size(), qsizetype(total));
        qsizetype from = 0;
        for (int64_t c = 1000; c < total - 48; c += 7919) {
            const qsizetype at = MediaProbe::firstAbove(all, 0.3f, from);
            QVERIFY2(std::abs(at - c - kRise) <= 2, qPrintable(QStringLiteral("click %1 found at %2").arg(c).arg(at)));
            from = c + 200;
        }
    }

    // A gap in the time stamps is filled with silence, so later audio keeps its place.
    void gapIsFilledWithSilence()
    {
        TrackWriter w(QStringLiteral("mic"));
        Done done;
        done.attach(w);
        w.begin(QStringLiteral("S5"), 3);
        w.append(AudioSignal::silence(kBase, 4800));
        w.append(AudioSignal::block(kBase + ns(4800 + 9600), 4800, 1, [](int i) { return clickAt(0, i); }));
        w.close(true);
        const QVector<float> pcm = MediaProbe::decode(done.paths.value(0));
        QCOMPARE(pcm.size(), qsizetype(4800 + 9600 + 4800));
        QVERIFY(std::abs(MediaProbe::firstAbove(pcm, 0.3f) - (4800 + 9600) - kRise) <= 2);
    }

    // The 1800 s threshold, at real times, with a format that encodes nothing.
    void rollOverAtExactly1800Seconds()
    {
        QVERIFY(SegmentWriter::crossesBoundary(MediaTime::make(0, 1), MediaTime::make(1800, 1)));
        QVERIFY(!SegmentWriter::crossesBoundary(MediaTime::make(0, 1), MediaTime::make(1799999, 1000)));
        QVERIFY(!SegmentWriter::crossesBoundary(MediaTime::invalid(), MediaTime::make(1800, 1)));

        CountingFormat::Log log;
        SegmentWriter w(QStringLiteral("mic"), std::make_unique<CountingFormat>(log));
        Done done;
        done.attach(w);
        w.begin(QStringLiteral("S6"), 9);
        w.append(AudioSignal::silence(kBase, 480));
        w.append(AudioSignal::silence(kBase + 1799999000000, 480)); // 1799.999 s: same segment
        QCOMPARE(log.opens, 1);
        w.append(AudioSignal::silence(kBase + 1800000000000, 480)); // 1800.0 s: new segment at T
        QCOMPARE(log.opens, 2);
        QCOMPARE(log.starts.last(), MediaTime::fromNanoseconds(kBase + 1800000000000));
        QCOMPARE(done.paths.size(), 1);
        QVERIFY(done.paths[0].endsWith(QStringLiteral("mic_9_00000.m4a")));
        QCOMPARE(w.idx(), 2);
    }

    // Stopping with nothing open: an empty final marker numbered after the last segment, or
    // nothing at all when the take never opened one; a new take restarts at 00000.
    void finalMarkerAndNumbering()
    {
        CountingFormat::Log log;
        SegmentWriter w(QStringLiteral("room"), std::make_unique<CountingFormat>(log));
        Done done;
        done.attach(w);
        w.begin(QStringLiteral("S7"), 11);
        w.close(true);
        QVERIFY(done.paths.isEmpty());

        w.append(AudioSignal::silence(kBase, 480));
        w.close(false);
        QCOMPARE(done.paths.size(), 1);
        w.close(true);
        QCOMPARE(done.paths.size(), 2);
        QVERIFY(done.paths[1].endsWith(QStringLiteral("/S7/room_11_00001_final.m4a")));
        QCOMPARE(QFileInfo(done.paths[1]).size(), 0);

        w.begin(QStringLiteral("S7"), 12);
        w.append(AudioSignal::silence(kBase, 480));
        QVERIFY(w.path().endsWith(QStringLiteral("room_12_00000.m4a")));
        w.close(true);
        QVERIFY(done.paths.last().endsWith(QStringLiteral("room_12_00000_final.m4a")));

        // Idle writers (no session) ignore samples.
        w.clearSession();
        w.append(AudioSignal::silence(kBase, 480));
        QVERIFY(!w.isOpen());
    }

    // A write the disk refuses ends the segment as it stands; the next one is tried 2 s later and
    // starts at its own first sample, not at the take's start (which would fill it with silence).
    void failedWriteStartsAFreshSegmentWhereTheAudioIs()
    {
        CountingFormat::Log log;
        SegmentWriter w(QStringLiteral("mic"), std::make_unique<CountingFormat>(log));
        Done done;
        done.attach(w);
        w.begin(QStringLiteral("S10"), 5);
        w.setOpenAt(MediaTime::fromNanoseconds(kBase));
        w.append(AudioSignal::silence(kBase, 480));
        log.failWrites = true;
        w.append(AudioSignal::silence(kBase + ns(480), 480));
        QVERIFY(!w.isOpen());
        QCOMPARE(done.paths.size(), 1);
        log.failWrites = false;
        for (int b = 2; b < 200; ++b) // 1.98 s more: no new file yet
            w.append(AudioSignal::silence(kBase + ns(480 * b), 480));
        QVERIFY(!w.isOpen());
        QCOMPARE(log.opens, 1);
        const int64_t later = kBase + ns(480) + 2000000000;
        w.append(AudioSignal::silence(later, 480));
        QVERIFY(w.isOpen());
        QCOMPARE(w.segStart(), MediaTime::fromNanoseconds(later));
        QVERIFY(w.path().endsWith(QStringLiteral("mic_5_00001.m4a")));
        w.close(true);
    }

    // A segment that cannot be completed is logged and never reported; one that cannot be created
    // is logged and retried by the next sample.
    void failuresAreLoggedNotReported()
    {
        CountingFormat::Log log;
        SegmentWriter w(QStringLiteral("mic"), std::make_unique<CountingFormat>(log));
        Done done;
        done.attach(w);
        w.begin(QStringLiteral("S8"), 5);
        w.append(AudioSignal::silence(kBase, 480));
        log.failDrain = true;
        w.close(true);
        QVERIFY(done.paths.isEmpty());
        QVERIFY2(home.log().contains(QStringLiteral("counting 3 mic: mic_5_00000.m4a: ")), qPrintable(home.log()));

        TrackWriter t(QStringLiteral("mic"));
        t.onSegmentDone = [&](const QString &p) { done.paths.append(p); };
        QFile blocker(writing(QStringLiteral("S9")));
        QVERIFY(blocker.open(QIODevice::WriteOnly)); // a file where the session folder should be
        blocker.close();
        t.begin(QStringLiteral("S9"), 6);
        t.append(AudioSignal::silence(kBase, 480));
        QVERIFY(!t.isOpen());
        t.append(AudioSignal::silence(kBase + ns(240), 240)); // fails the same way: logged once
        QVERIFY(!t.isOpen());
        QCOMPARE(home.log().count(QStringLiteral("writer error mic: ")), 1);
        QFile::remove(blocker.fileName());
        t.append(AudioSignal::silence(kBase + ns(480), 480));
        QVERIFY(t.isOpen());
        QCOMPARE(t.segStart(), MediaTime::fromNanoseconds(kBase + ns(480)));
        t.close(true);
        QCOMPARE(done.paths.size(), 1);
    }
};

QTEST_GUILESS_MAIN(SegmentWriterTest)
#include "tst_segment_writer.moc"
