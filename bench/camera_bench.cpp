// Prints what recording a camera costs: CPU time per minute of recording one 1080p30 camera (and
// the same with both audio tracks), against the ffmpeg command line encoding the same frames
// with the same encoder settings, and the CPU cost of preview at 24 frames per second.
// Usage: camera_bench [seconds of video, default 10]

#include "DataFolder.h"
#include "H264Format.h"
#include "PreviewEncoder.h"
#include "TestPattern.h"
#include "TrackWriter.h"
#include "VideoWriter.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QRandomGenerator>
#include <QTemporaryDir>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <vector>

#include <sys/resource.h>

extern "C" {
#include <libavutil/frame.h>
#include <libavutil/log.h>
}

namespace {

constexpr int kWidth = 1920, kHeight = 1080, kFps = 30, kDistinct = 30;
constexpr int64_t kBase = 9000LL * 1000000000;
// Full upload quality, the default.
constexpr int kBitRate = 8000000;

WriterSetup writerSetup()
{
    return WriterSetup{DataFolder::pathOf(QStringLiteral("writing")), kBitRate};
}

double cpuSeconds(int who)
{
    rusage ru{};
    getrusage(who, &ru);
    return double(ru.ru_utime.tv_sec + ru.ru_stime.tv_sec) + double(ru.ru_utime.tv_usec + ru.ru_stime.tv_usec) / 1e6;
}

double wallSeconds()
{
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return double(ts.tv_sec) + double(ts.tv_nsec) / 1e9;
}

// A grainy camera picture: the test pattern with sensor-like noise, different in every frame.
std::shared_ptr<AVFrame> grainy(int64_t index)
{
    std::shared_ptr<AVFrame> f = TestPattern::draw(kWidth, kHeight, index, false);
    QRandomGenerator rng(quint32(index + 1));
    for (int p = 0; p < 3; ++p) {
        const int w = p ? kWidth / 2 : kWidth, h = p ? kHeight / 2 : kHeight;
        for (int y = 0; y < h; ++y) {
            uint8_t *row = f->data[p] + size_t(y) * f->linesize[p];
            for (int x = 0; x < w; ++x)
                row[x] = uint8_t(std::clamp(int(row[x]) + int(rng.bounded(13)) - 6, 0, 255));
        }
    }
    return f;
}

struct Cost {
    double cpu = 0;
    double wall = 0;
};

Cost recordVideo(const std::vector<std::shared_ptr<AVFrame>> &frames, int count, bool withAudio)
{
    const WriterSetup setup = writerSetup();
    VideoWriter cam(QStringLiteral("cam"), setup);
    TrackWriter mic(QStringLiteral("mic"), setup), sys(QStringLiteral("sys"), setup);
    cam.begin(QStringLiteral("BENCH"), withAudio ? 2 : 1);
    mic.begin(QStringLiteral("BENCH"), 1);
    sys.begin(QStringLiteral("BENCH"), 1);
    TimedSample audio;
    audio.sampleRate = 48000;
    audio.channels = 1;
    audio.pcm = QByteArray(int(sizeof(float)) * 1600, 0); // 1/30 s of audio per video frame
    float *pcm = reinterpret_cast<float *>(audio.pcm.data());
    for (int i = 0; i < 1600; ++i)
        pcm[i] = 0.2f * float(std::sin(i * 0.0577));

    const double cpu0 = cpuSeconds(RUSAGE_SELF), wall0 = wallSeconds();
    for (int i = 0; i < count; ++i) {
        const int64_t t = kBase + int64_t(i) * 1000000000 / kFps;
        TimedSample v;
        v.kind = TimedSample::Kind::Video;
        v.pts = MediaTime::fromNanoseconds(t);
        v.duration = MediaTime::fromNanoseconds(1000000000 / kFps);
        v.frame = frames[size_t(i % kDistinct)];
        cam.append(v);
        if (withAudio) {
            audio.pts = MediaTime::make(int64_t(i) * 1600 + 9000LL * 48000, 48000);
            mic.append(audio);
            sys.append(audio);
        }
    }
    cam.close(true);
    mic.close(true);
    sys.close(true);
    return {cpuSeconds(RUSAGE_SELF) - cpu0, wallSeconds() - wall0};
}

// Four cameras written one after another on one thread, as the video queue does.
Cost recordFour(const std::vector<std::shared_ptr<AVFrame>> &frames, int count)
{
    std::vector<std::unique_ptr<VideoWriter>> writers;
    for (const char *track : {"cam", "cam2", "cam3", "cam4"}) {
        writers.push_back(std::make_unique<VideoWriter>(QString::fromLatin1(track), writerSetup()));
        writers.back()->begin(QStringLiteral("BENCH4"), 3);
    }
    const double cpu0 = cpuSeconds(RUSAGE_SELF), wall0 = wallSeconds();
    for (int i = 0; i < count; ++i) {
        TimedSample v;
        v.kind = TimedSample::Kind::Video;
        v.pts = MediaTime::fromNanoseconds(kBase + int64_t(i) * 1000000000 / kFps);
        v.duration = MediaTime::fromNanoseconds(1000000000 / kFps);
        for (size_t w = 0; w < writers.size(); ++w) {
            v.frame = frames[(size_t(i) + w * 7) % kDistinct];
            writers[w]->append(v);
        }
    }
    for (auto &w : writers)
        w->close(true);
    return {cpuSeconds(RUSAGE_SELF) - cpu0, wallSeconds() - wall0};
}

Cost ffmpegVideo(const QString &raw, const QString &out, int count)
{
    QStringList args = {"ffmpeg", "-hide_banner", "-loglevel", "error", "-y", "-stream_loop", "-1", "-f", "rawvideo",
                        "-pix_fmt", "yuv420p", "-s", QStringLiteral("%1x%2").arg(kWidth).arg(kHeight), "-r",
                        QString::number(kFps), "-i", raw, "-frames:v", QString::number(count)};
    args += H264Format::ffmpegOptions(kBitRate);
    args += {"-movflags", "frag_keyframe+empty_moov+default_base_moof", "-frag_duration", "2000000", out};
    QString command;
    for (const QString &a : args)
        command += QLatin1Char('\'') + a + QStringLiteral("' ");
    const double cpu0 = cpuSeconds(RUSAGE_CHILDREN), wall0 = wallSeconds();
    if (std::system(command.toLocal8Bit().constData()) != 0)
        return {-1, -1};
    return {cpuSeconds(RUSAGE_CHILDREN) - cpu0, wallSeconds() - wall0};
}

Cost preview(const std::vector<std::shared_ptr<AVFrame>> &frames, int count, bool hd)
{
    PreviewEncoder encoder;
    size_t bytes = 0;
    const double cpu0 = cpuSeconds(RUSAGE_SELF), wall0 = wallSeconds();
    for (int i = 0; i < count; ++i)
        bytes += size_t(encoder.encode(*frames[size_t(i % kDistinct)], hd).size());
    const Cost c{cpuSeconds(RUSAGE_SELF) - cpu0, wallSeconds() - wall0};
    std::printf("  preview %s: %.0f bytes per JPEG\n", hd ? "960x540" : "480x270", double(bytes) / count);
    return c;
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    av_log_set_level(AV_LOG_ERROR);
    const int seconds = argc > 1 ? std::max(2, std::atoi(argv[1])) : 10;
    const int count = seconds * kFps;
    QTemporaryDir home;
    qputenv("XDG_DATA_HOME", QFile::encodeName(home.path() + QStringLiteral("/data")));
    qputenv("XDG_CONFIG_HOME", QFile::encodeName(home.path() + QStringLiteral("/config")));

    std::printf("camera_bench: %d s of 1080p%d, %d distinct grainy frames, libx264 preset %s tune %s, %d bit/s, "
                "key frame every %d\n",
                seconds, kFps, kDistinct, H264Format::kPreset, H264Format::kTune, kBitRate,
                H264Format::kKeyInterval);
    std::vector<std::shared_ptr<AVFrame>> frames;
    const QString raw = home.path() + QStringLiteral("/frames.yuv");
    QFile rawFile(raw);
    if (!rawFile.open(QIODevice::WriteOnly))
        return 1;
    for (int i = 0; i < kDistinct; ++i) {
        frames.push_back(grainy(i));
        const AVFrame *f = frames.back().get();
        for (int p = 0; p < 3; ++p) {
            const int w = p ? kWidth / 2 : kWidth, h = p ? kHeight / 2 : kHeight;
            for (int y = 0; y < h; ++y)
                rawFile.write(reinterpret_cast<const char *>(f->data[p] + size_t(y) * f->linesize[p]), w);
        }
    }
    rawFile.close();

    const double perMinute = 60.0 / seconds;
    const Cost ours = recordVideo(frames, count, false);
    const Cost theirs = ffmpegVideo(raw, home.path() + QStringLiteral("/ffmpeg.mp4"), count);
    const Cost withAudio = recordVideo(frames, count, true);
    std::printf("  recorder, camera only:        %6.1f CPU s per minute (%.2f× real time)\n", ours.cpu * perMinute,
                seconds / ours.wall);
    std::printf("  ffmpeg command line, same:    %6.1f CPU s per minute (%.2f× real time)\n", theirs.cpu * perMinute,
                seconds / theirs.wall);
    std::printf("  ratio recorder / ffmpeg:      %6.2f\n", ours.cpu / theirs.cpu);
    std::printf("  recorder, camera + mic + sys: %6.1f CPU s per minute (%.2f× real time)\n", withAudio.cpu * perMinute,
                seconds / withAudio.wall);

    const Cost four = recordFour(frames, count / 2);
    std::printf("  recorder, four 1080p30 cameras: %6.1f CPU s per minute (%.2f× real time; below 1 drops frames)\n",
                four.cpu * perMinute * 2, seconds / 2.0 / four.wall);

    const int previewFrames = seconds * 24;
    const Cost small = preview(frames, previewFrames, false);
    const Cost large = preview(frames, previewFrames, true);
    std::printf("  preview 24 fps from 1080p:    %6.1f CPU s per minute (480 wide), %.1f (960 wide)\n",
                small.cpu * perMinute, large.cpu * perMinute);
    return 0;
}
