#pragma once

#include "FrameScaler.h"
#include "SegmentFormat.h"

#include <QStringList>

struct AVCodecContext;
struct AVFrame;
struct AVStream;

// H.264 in MP4 for camera tracks: libx264 at the bit rate it is given, a key frame at least every 60
// frames, no B-frames, at the camera's own size. Frames keep their capture times on the segment's
// time line (offset from the segment start), so camera and audio files line up when played together.
// The preset was chosen by measurement (bench/camera_bench): it keeps up with 1080p30 in real time
// on a two-core laptop with room left for audio and preview.
class H264Format final : public SegmentFormat
{
public:
    /// Encoder settings; the benchmark passes the same ones to the ffmpeg command line.
    static constexpr const char *kPreset = "superfast";
    /// Preset of the extra cameras: four 1080p30 cameras at kPreset need more than two cores.
    static constexpr const char *kExtraPreset = "ultrafast";
    static constexpr const char *kTune = "zerolatency";
    static constexpr int kKeyInterval = 60;
    /// Time base of the encoder (90 kHz, the usual video clock).
    static constexpr int kTimescale = 90000;

    /// A format encoding at `bitRate` bits per second with this x264 preset.
    explicit H264Format(int bitRate, const char *preset = kPreset) : m_bitRate(bitRate), m_preset(preset) {}
    ~H264Format() override;

    QString extension() const override { return QStringLiteral("mp4"); }
    const char *muxer() const override { return "mp4"; }
    QString text(Text which, const QString &track, const QString &detail) const override;
    bool accepts(const TimedSample &sample) const override;
    bool open(AVFormatContext *fmt, const TimedSample &first, MediaTime start, QString *error) override;
    bool write(const TimedSample &sample, const PacketSink &sink) override;
    bool drain(const PacketSink &sink) override;
    void release() override;

    /// The ffmpeg command-line options that select the same encoder settings.
    static QStringList ffmpegOptions(int bitRate, const char *preset = kPreset);

private:
    AVFrame *convert(AVFrame *frame);

    const int m_bitRate;
    const char *const m_preset;
    AVCodecContext *m_enc = nullptr;
    AVStream *m_stream = nullptr;
    FrameScaler m_scaler;
    AVFrame *m_scaled = nullptr;
    AVFrame *m_input = nullptr;
    MediaTime m_start;
    int64_t m_lastPts = -1;
};
