#pragma once

#include "SegmentFormat.h"

struct AVAudioFifo;
struct AVCodecContext;
struct AVFrame;
struct AVStream;
struct SwrContext;

// AAC in M4A: interleaved float PCM at the source rate, at most 2 channels, 64 kbit/s for mono and
// 128 kbit/s otherwise. The file's time line is kept continuous: a segment that starts before its
// first sample begins with silence, a gap is filled with silence and an overlap is trimmed, so the
// decoded audio sits exactly where the time stamps say. The encoder's priming is declared to the
// muxer, which writes the edit that hides it.
class AacFormat final : public SegmentFormat
{
public:
    /// Samples further than this from where the time line expects them count as a gap or overlap.
    static constexpr double kToleranceSeconds = 0.001;

    AacFormat() = default;
    ~AacFormat() override;

    QString extension() const override { return QStringLiteral("m4a"); }
    const char *muxer() const override { return "ipod"; }
    QString text(Text which, const QString &track, const QString &detail) const override;
    bool accepts(const TimedSample &sample) const override;
    bool open(AVFormatContext *fmt, const TimedSample &first, MediaTime start, QString *error) override;
    bool write(const TimedSample &sample, const PacketSink &sink) override;
    bool drain(const PacketSink &sink) override;
    void release() override;

    /// Bit rate for a source with this many channels.
    static int bitRateFor(int channels) { return channels == 1 ? 64000 : 128000; }
    /// Encoded channels for a source with this many channels.
    static int channelsFor(int channels) { return channels < 2 ? channels : 2; }

private:
    bool push(const float *interleaved, int frames, const PacketSink &sink);
    bool pushSilence(int64_t frames, const PacketSink &sink);
    bool encodeFrames(bool all, const PacketSink &sink);

    AVCodecContext *m_enc = nullptr;
    AVStream *m_stream = nullptr;
    SwrContext *m_swr = nullptr;
    AVAudioFifo *m_fifo = nullptr;
    AVFrame *m_frame = nullptr;
    int m_rate = 0;
    int m_inChannels = 0;
    MediaTime m_start;
    int64_t m_written = 0; // samples placed on the segment's time line
    int64_t m_nextPts = 0; // pts of the next frame handed to the encoder
};
