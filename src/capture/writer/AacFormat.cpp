#include "AacFormat.h"

#include "AvError.h"

#include <QtGlobal>
#include <algorithm>
#include <cmath>
#include <vector>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/audio_fifo.h>
#include <libavutil/channel_layout.h>
#include <libswresample/swresample.h>
}

AacFormat::~AacFormat()
{
    release();
}

QString AacFormat::text(Text which, const QString &track, const QString &detail) const
{
    switch (which) {
    case Text::CreateFailed:
        return QStringLiteral("writer error ") + track + QStringLiteral(": ") + detail;
    case Text::AddFailed:
        return QStringLiteral("cannot add input ") + track;
    case Text::StartFailed:
        return QStringLiteral("could not write the header of ") + track + QStringLiteral(": ") + detail;
    case Text::FinishFailed:
        return QStringLiteral("finish failed ") + detail;
    }
    return detail;
}

bool AacFormat::accepts(const TimedSample &sample) const
{
    return sample.kind == TimedSample::Kind::Audio && sample.sampleRate > 0 && sample.channels > 0;
}

bool AacFormat::open(AVFormatContext *fmt, const TimedSample &first, MediaTime start, QString *error)
{
    Q_ASSERT(!m_enc && accepts(first) && start.isValid());
    m_rate = first.sampleRate;
    m_inChannels = first.channels;
    const int outChannels = channelsFor(m_inChannels);
    AVChannelLayout inLayout{}, outLayout{};
    av_channel_layout_default(&inLayout, m_inChannels);
    av_channel_layout_default(&outLayout, outChannels);

    int rc = 0;
    const AVCodec *codec = avcodec_find_encoder_by_name("aac");
    if (!codec) {
        *error = QStringLiteral("no aac encoder");
        return false;
    }
    m_enc = avcodec_alloc_context3(codec);
    if (!m_enc) {
        *error = QStringLiteral("out of memory");
        return false;
    }
    m_enc->sample_fmt = AV_SAMPLE_FMT_FLTP;
    m_enc->sample_rate = m_rate;
    av_channel_layout_copy(&m_enc->ch_layout, &outLayout);
    m_enc->bit_rate = bitRateFor(m_inChannels);
    m_enc->time_base = AVRational{1, m_rate};
    if (fmt->oformat->flags & AVFMT_GLOBALHEADER)
        m_enc->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
    if ((rc = avcodec_open2(m_enc, codec, nullptr)) < 0)
        goto fail;

    m_stream = avformat_new_stream(fmt, nullptr);
    if (!m_stream) {
        rc = AVERROR(ENOMEM);
        goto fail;
    }
    m_stream->time_base = AVRational{1, m_rate};
    if ((rc = avcodec_parameters_from_context(m_stream->codecpar, m_enc)) < 0)
        goto fail;

    if ((rc = swr_alloc_set_opts2(&m_swr, &outLayout, AV_SAMPLE_FMT_FLTP, m_rate, &inLayout, AV_SAMPLE_FMT_FLT,
                                  m_rate, 0, nullptr)) < 0
        || (rc = swr_init(m_swr)) < 0)
        goto fail;
    m_fifo = av_audio_fifo_alloc(AV_SAMPLE_FMT_FLTP, outChannels, 4 * m_enc->frame_size);
    m_frame = av_frame_alloc();
    if (!m_fifo || !m_frame) {
        rc = AVERROR(ENOMEM);
        goto fail;
    }
    m_start = start;
    m_written = 0;
    m_nextPts = 0;
    av_channel_layout_uninit(&inLayout);
    av_channel_layout_uninit(&outLayout);
    return true;

fail:
    *error = avErrorText(rc);
    av_channel_layout_uninit(&inLayout);
    av_channel_layout_uninit(&outLayout);
    release();
    return false;
}

bool AacFormat::write(const TimedSample &sample, const PacketSink &sink)
{
    Q_ASSERT(m_enc);
    if (sample.sampleRate != m_rate || sample.channels != m_inChannels)
        return false; // another device's format: the writer starts a new segment for it

    // Where this block belongs on the segment's time line, in samples (rounded to nearest).
    const MediaTime offset = sample.pts - m_start;
    const int64_t pos = (int64_t)std::llround(offset.seconds() * m_rate);
    // The first block is placed exactly: the start sets where the whole segment lies against the
    // other tracks. Later blocks follow on unless they are clearly elsewhere.
    const int64_t tolerance = m_written == 0 ? 0 : std::llround(kToleranceSeconds * m_rate);
    const int frames = sample.frameCount();
    const int64_t diff = pos - m_written;
    int skip = 0;
    if (diff > tolerance) {
        if (!pushSilence(diff, sink))
            return false;
    } else if (diff < -tolerance) {
        if (-diff >= frames)
            return true; // entirely in the past
        skip = int(-diff);
    }
    const float *data = reinterpret_cast<const float *>(sample.pcm.constData()) + qsizetype(skip) * m_inChannels;
    return push(data, frames - skip, sink);
}

bool AacFormat::push(const float *interleaved, int frames, const PacketSink &sink)
{
    if (frames <= 0)
        return true;
    const int outChannels = m_enc->ch_layout.nb_channels;
    std::vector<std::vector<float>> planes(outChannels, std::vector<float>(frames));
    std::vector<uint8_t *> out(outChannels);
    for (int c = 0; c < outChannels; ++c)
        out[c] = reinterpret_cast<uint8_t *>(planes[c].data());
    const uint8_t *in[1] = {reinterpret_cast<const uint8_t *>(interleaved)};
    const int converted = swr_convert(m_swr, out.data(), frames, in, frames);
    if (converted < 0)
        return false;
    if (av_audio_fifo_write(m_fifo, reinterpret_cast<void **>(out.data()), converted) < converted)
        return false;
    m_written += converted;
    return encodeFrames(false, sink);
}

bool AacFormat::pushSilence(int64_t frames, const PacketSink &sink)
{
    const int outChannels = m_enc->ch_layout.nb_channels;
    const int chunk = m_enc->frame_size;
    std::vector<float> zeros(chunk, 0.0f);
    std::vector<void *> planes(outChannels, zeros.data());
    while (frames > 0) {
        const int n = int(std::min<int64_t>(frames, chunk));
        if (av_audio_fifo_write(m_fifo, planes.data(), n) < n)
            return false;
        m_written += n;
        frames -= n;
        if (!encodeFrames(false, sink))
            return false;
    }
    return true;
}

bool AacFormat::encodeFrames(bool all, const PacketSink &sink)
{
    const int size = m_enc->frame_size;
    while (av_audio_fifo_size(m_fifo) >= size || (all && av_audio_fifo_size(m_fifo) > 0)) {
        const int n = std::min(size, av_audio_fifo_size(m_fifo));
        av_frame_unref(m_frame);
        m_frame->nb_samples = n;
        m_frame->format = m_enc->sample_fmt;
        m_frame->sample_rate = m_rate;
        if (av_channel_layout_copy(&m_frame->ch_layout, &m_enc->ch_layout) < 0 || av_frame_get_buffer(m_frame, 0) < 0)
            return false;
        if (av_audio_fifo_read(m_fifo, reinterpret_cast<void **>(m_frame->data), n) < n)
            return false;
        m_frame->pts = m_nextPts;
        m_nextPts += n;
        if (!encode(m_enc, m_stream, m_frame, sink))
            return false;
    }
    return true;
}

bool AacFormat::drain(const PacketSink &sink)
{
    Q_ASSERT(m_enc);
    return encodeFrames(true, sink) && encode(m_enc, m_stream, nullptr, sink);
}

void AacFormat::release()
{
    av_frame_free(&m_frame);
    if (m_fifo) {
        av_audio_fifo_free(m_fifo);
        m_fifo = nullptr;
    }
    swr_free(&m_swr);
    avcodec_free_context(&m_enc);
    m_stream = nullptr; // owned by the format context
}
