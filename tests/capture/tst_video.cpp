#include "BravaLog.h"
#include "Config.h"
#include "FrameDecoder.h"
#include "PreviewEncoder.h"
#include "TestHome.h"
#include "TestPattern.h"
#include "VideoWriter.h"
#include "tst_video_probe.h"

#include <QDir>
#include <QFileInfo>
#include <QProcess>
#include <QRandomGenerator>
#include <QtTest>

#include <csignal>
#include <linux/videodev2.h>

extern "C" {
#include <libavutil/frame.h>
}

namespace {

constexpr int64_t kBase = 7000LL * 1000000000; // an arbitrary monotonic start (7000 s)
constexpr int64_t kFrameNs = 1000000000 / 30;

QString writing(const QString &session) { return Config::dir(QStringLiteral("writing")) + QLatin1Char('/') + session; }

// A camera frame: the counted test pattern, optionally covered in noise so the encoder has to
// spend its whole bit budget the way a real, grainy webcam picture makes it.
TimedSample frameAt(int64_t ns, int64_t index, int w = 640, int h = 360, bool noise = false, bool flash = false)
{
    TimedSample s;
    s.kind = TimedSample::Kind::Video;
    s.pts = MediaTime::fromNanoseconds(ns);
    s.duration = MediaTime::fromNanoseconds(kFrameNs);
    s.frame = TestPattern::draw(w, h, index, flash);
    if (noise) {
        QRandomGenerator *rng = QRandomGenerator::global();
        for (int p = 0; p < 3; ++p) {
            const int pw = p ? w / 2 : w, ph = p ? h / 2 : h;
            for (int y = 0; y < ph; ++y) {
                uint8_t *row = s.frame->data[p] + size_t(y) * s.frame->linesize[p];
                for (int x = 0; x < pw; ++x)
                    row[x] = uint8_t(std::clamp(int(row[x]) + int(rng->bounded(48)) - 24, 0, 255));
            }
        }
    }
    return s;
}

// A writer with its reported files collected.
struct Recording {
    VideoWriter writer;
    QStringList done;
    explicit Recording(const QString &track = QStringLiteral("cam"), double seconds = SegmentWriter::kSegmentSeconds)
        : writer(track, seconds)
    {
        writer.onSegmentDone = [this](const QString &p) { done.append(p); };
    }
    void feed(int64_t from, int count, int64_t firstIndex = 0, int w = 640, int h = 360, bool noise = false)
    {
        for (int i = 0; i < count; ++i)
            writer.append(frameAt(from + i * kFrameNs, firstIndex + i, w, h, noise));
    }
};

// Child mode: writes frames forever at real-time pace into one segment, until killed.
int writeUntilKilled(const QString &home)
{
    qputenv("XDG_DATA_HOME", QFile::encodeName(home + QStringLiteral("/data")));
    qputenv("XDG_CONFIG_HOME", QFile::encodeName(home + QStringLiteral("/config")));
    VideoWriter w(QStringLiteral("cam"));
    w.begin(QStringLiteral("KILL"), 42);
    for (int64_t i = 0;; ++i) {
        w.append(frameAt(kBase + i * kFrameNs, i));
        if (i % 30 == 0)
            QThread::msleep(60); // about five times real time: fragments close at a steady pace
    }
}

} // namespace

class TstVideo : public QObject
{
    Q_OBJECT
    TestHome home;

private slots:
    void initTestCase()
    {
        if (QStandardPaths::findExecutable(QStringLiteral("ffprobe")).isEmpty())
            QSKIP("ffprobe is not installed");
    }
    void init() { home.wipe(); }

    // The file is H.264 at the camera's size, at the bit rate of the upload quality, with a key
    // frame at least every 60 frames.
    void bitRateFollowsTheQualitySetting_data()
    {
        QTest::addColumn<QString>("quality");
        QTest::addColumn<int>("bitRate");
        QTest::newRow("low") << "low" << 2000000;
        QTest::newRow("med") << "med" << 4000000;
        QTest::newRow("full") << "full" << 8000000;
    }
    void bitRateFollowsTheQualitySetting()
    {
        QFETCH(QString, quality);
        QFETCH(int, bitRate);
        Config::setUploadQuality(quality);
        Recording r;
        r.writer.begin(QStringLiteral("Q"), 1);
        r.feed(kBase, 150, 0, 640, 360, true);
        r.writer.close(true);
        QCOMPARE(r.done.size(), 1);
        QCOMPARE(QFileInfo(r.done[0]).fileName(), QString("cam_1_00000_final.mp4"));
        const QJsonObject s = VideoProbe::stream(r.done[0]);
        QCOMPARE(s.value("codec_name").toString(), QString("h264"));
        QCOMPARE(s.value("width").toInt(), 640);
        QCOMPARE(s.value("height").toInt(), 360);
        QCOMPARE(s.value("nb_read_frames").toString().toInt(), 150);
        const double measured = s.value("bit_rate").toString().toDouble();
        QVERIFY2(std::abs(measured - bitRate) < 0.2 * bitRate, qPrintable(QString::number(measured)));

        const QVector<VideoProbe::Packet> packets = VideoProbe::packets(r.done[0]);
        QCOMPARE(packets.size(), 150);
        QVERIFY(packets[0].key);
        int sinceKey = 0;
        for (const VideoProbe::Packet &p : packets) {
            sinceKey = p.key ? 0 : sinceKey + 1;
            QVERIFY(sinceKey < 60);
        }
    }

    void fullHdKeepsItsSize()
    {
        Config::setUploadQuality(QStringLiteral("low"));
        Recording r;
        r.writer.begin(QStringLiteral("HD"), 2);
        r.feed(kBase, 20, 0, 1920, 1080);
        r.writer.close(true);
        QCOMPARE(r.done.size(), 1);
        const QJsonObject s = VideoProbe::stream(r.done[0]);
        QCOMPARE(s.value("width").toInt(), 1920);
        QCOMPARE(s.value("height").toInt(), 1080);
        QCOMPARE(s.value("nb_read_frames").toString().toInt(), 20);
    }

    // Frames keep their place on the common time line: openAt is file time 0, a frame that
    // flashes 1 s after it is shown at 1 s, frames before openAt are dropped.
    void framesSitOnTheCommonTimeline()
    {
        Recording r;
        r.writer.begin(QStringLiteral("T"), 3);
        const int64_t openAt = kBase + 500000000;
        r.writer.setOpenAt(MediaTime::fromNanoseconds(openAt));
        const int64_t first = openAt - 10 * kFrameNs + 12000000; // 10 frames early, 12 ms off the grid
        for (int i = 0; i < 90; ++i) {
            const int64_t t = first + i * kFrameNs;
            const bool flash = t >= openAt + 1000000000 && t < openAt + 1000000000 + kFrameNs;
            r.writer.append(frameAt(t, i, 320, 180, false, flash));
        }
        r.writer.close(true);
        QCOMPARE(r.done.size(), 1);
        const QVector<VideoProbe::Brightness> frames = VideoProbe::brightness(r.done[0]);
        QCOMPARE(frames.size(), 80);
        QVERIFY2(std::abs(frames[0].pts - 0.012) < 0.002, qPrintable(QString::number(frames[0].pts)));
        int flashes = 0;
        for (const auto &f : frames) {
            if (f.luma > 200) {
                ++flashes;
                QVERIFY2(f.pts >= 1.0 && f.pts < 1.0 + 1.0 / 30, qPrintable(QString::number(f.pts)));
            }
        }
        QCOMPARE(flashes, 1);
    }

    void rollsOverAndEndsWithAFinalFile()
    {
        Recording r(QStringLiteral("cam2"), 2.0);
        r.writer.begin(QStringLiteral("R"), 4);
        r.feed(kBase, 150); // 5 s: segments at 0, 2 and 4 s
        r.writer.close(true);
        QStringList names;
        for (const QString &p : r.done)
            names << QFileInfo(p).fileName();
        QCOMPARE(names, QStringList({"cam2_4_00000.mp4", "cam2_4_00001.mp4", "cam2_4_00002_final.mp4"}));
        int total = 0;
        for (const QString &p : r.done) {
            QVERIFY(p.startsWith(writing("R")));
            const QJsonObject s = VideoProbe::stream(p);
            QCOMPARE(s.value("codec_name").toString(), QString("h264"));
            total += s.value("nb_read_frames").toString().toInt();
            QVERIFY(VideoProbe::packets(p).value(0).key); // every segment starts with a key frame
        }
        QCOMPARE(total, 150);

        // A new take numbers from zero again; a stop with nothing open leaves a final marker.
        r.done.clear();
        r.writer.begin(QStringLiteral("R"), 5);
        r.feed(kBase + 10000000000, 10);
        r.writer.close(false);
        r.writer.close(true);
        QCOMPARE(r.done.size(), 2);
        QCOMPARE(QFileInfo(r.done[1]).fileName(), QString("cam2_5_00001_final.mp4"));
        QCOMPARE(QFileInfo(r.done[1]).size(), 0);
    }

    // Other pixel formats and sizes are converted; audio and idle-time frames are ignored.
    void oddInputIsConvertedOrIgnored()
    {
        Recording r;
        r.writer.append(frameAt(kBase, 0)); // no session yet: ignored
        TimedSample audio;
        audio.pts = MediaTime::fromNanoseconds(kBase);
        audio.sampleRate = 48000;
        audio.channels = 1;
        audio.pcm = QByteArray(4 * 480, 0);
        r.writer.begin(QStringLiteral("O"), 6);
        r.writer.append(audio);
        QVERIFY(!r.writer.isOpen());

        std::shared_ptr<AVFrame> yuyv(av_frame_alloc(), [](AVFrame *f) { av_frame_free(&f); });
        yuyv->format = AV_PIX_FMT_YUYV422;
        yuyv->width = 320;
        yuyv->height = 180;
        QVERIFY(av_frame_get_buffer(yuyv.get(), 0) >= 0);
        for (int y = 0; y < 180; ++y)
            memset(yuyv->data[0] + y * yuyv->linesize[0], 128, 640);
        PreviewEncoder jpeg;
        FrameDecoder mjpeg;
        QVERIFY(mjpeg.open(V4L2_PIX_FMT_MJPEG, 320, 180));
        const QByteArray bytes = jpeg.encode(*TestPattern::draw(320, 180, 8, false), false);
        std::shared_ptr<AVFrame> fromJpeg = mjpeg.decode(reinterpret_cast<const uint8_t *>(bytes.constData()), size_t(bytes.size()));
        QVERIFY(fromJpeg);
        for (int i = 0; i < 10; ++i) {
            TimedSample s = frameAt(kBase + i * kFrameNs, i, 320, 180);
            if (i % 2)
                s.frame = yuyv;
            if (i == 5)
                s.frame = TestPattern::draw(640, 360, i, false); // the camera changed size
            if (i == 8)
                s.frame = fromJpeg; // full-range 4:2:0 as an MJPEG camera delivers it
            r.writer.append(s);
        }
        r.writer.append(frameAt(kBase + 3 * kFrameNs, 99, 320, 180)); // back in time: skipped
        r.writer.close(true);
        QCOMPARE(r.done.size(), 1);
        const QJsonObject s = VideoProbe::stream(r.done[0]);
        QCOMPARE(s.value("width").toInt(), 320);
        QCOMPARE(s.value("nb_read_frames").toString().toInt(), 10);
    }

    // A writer killed mid-take leaves a file that plays up to its last complete fragment.
    void killedWriterLeavesAReadableFile()
    {
        QProcess child;
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert(QStringLiteral("BRAVA_TEST_VIDEO_CHILD"), home.root());
        child.setProcessEnvironment(env);
        child.start(QCoreApplication::applicationFilePath(), {});
        QVERIFY(child.waitForStarted());
        const QString file = writing(QStringLiteral("KILL")) + QStringLiteral("/cam_42_00000.mp4");
        QElapsedTimer timer;
        timer.start();
        while (QFileInfo(file).size() < 400000 && timer.elapsed() < 20000)
            QThread::msleep(50);
        ::kill(pid_t(child.processId()), SIGKILL);
        QVERIFY(child.waitForFinished());
        QVERIFY(QFileInfo(file).size() >= 400000);
        const QJsonObject s = VideoProbe::stream(file);
        QCOMPARE(s.value("codec_name").toString(), QString("h264"));
        QVERIFY2(s.value("nb_read_frames").toString().toInt() >= 60, qPrintable(QString::number(s.value("nb_read_frames").toString().toInt())));
    }
};

int main(int argc, char **argv)
{
    const QString childHome = qEnvironmentVariable("BRAVA_TEST_VIDEO_CHILD");
    if (!childHome.isEmpty())
        return writeUntilKilled(childHome);
    QCoreApplication app(argc, argv);
    TstVideo test;
    return QTest::qExec(&test, argc, argv);
}
#include "tst_video.moc"
