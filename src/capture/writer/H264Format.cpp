#include "H264Format.h"

#include "AvError.h"


extern "C" {
#include <QtGlobal>
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/opt.h>
}

H264Format::~H264Format()
{
    release();
}

QString H264Format::text(Text which, const QString &track, const QString &detail) const
{
    Q_UNUSED(track);
    switch (which) {
    case Text::CreateFailed:
        return QStringLiteral("video writer error: ") + detail;
    case Text::AddFailed:
        return QStringLiteral("cannot add video input");
    case Text::StartFailed:
        return QStringLiteral("could not write the video header: ") + detail;
    case Text::FinishFailed:
        return QStringLiteral("video finish failed: ") + detail;
    }
    return detail;
}

bool H264Format::accepts(const TimedSample &sample) const
{
    return sample.kind == TimedSample::Kind::Video && sample.frame && sample.frame->width >= 16
        && sample.frame->height >= 16 && sample.frame->format >= 0;
}

QStringList H264Format::ffmpegOptions(int bitRate, const char *preset)
{
    return {QStringLiteral("-c:v"), QStringLiteral("libx264"),      QStringLiteral("-preset"),
            QLatin1String(preset),  QStringLiteral("-tune"),        QLatin1String(kTune),
            QStringLiteral("-b:v"), QString::number(bitRate),       QStringLiteral("-g"),
            QString::number(kKeyInterval), QStringLiteral("-bf"),   QStringLiteral("0"),
            QStringLiteral("-pix_fmt"), QStringLiteral("yuv420p")};
}

bool H264Format::open(AVFormatContext *fmt, const TimedSample &first, MediaTime start, QString *error)
{
    Q_ASSERT(!m_enc && accepts(first) && start.isValid());
    const AVFrame &frame = *first.frame;
    int rc = 0;
    AVDictionary *options = nullptr;
    const AVCodec *codec = avcodec_find_encoder_by_name("libx264");
    if (!codec) {
        *error = QStringLiteral("no libx264 encoder");
        return false;
    }
    m_enc = avcodec_alloc_context3(codec);
    m_input = av_frame_alloc();
    if (!m_enc || !m_input) {
        *error = QStringLiteral("out of memory");
        release();
        return false;
    }
    // x264 needs even dimensions in 4:2:0; an odd camera loses its last row or column.
    m_enc->width = frame.width & ~1;
    m_enc->height = frame.height & ~1;
    m_enc->pix_fmt = AV_PIX_FMT_YUV420P;
    m_enc->time_base = AVRational{1, kTimescale};
    const double frameSeconds = first.duration.isValid() ? first.duration.seconds() : 0.0;
    m_enc->framerate = frameSeconds > 0.001 ? av_d2q(1.0 / frameSeconds, 1000) : AVRational{30, 1};
    m_enc->bit_rate = m_bitRate;
    m_enc->gop_size = kKeyInterval;
    m_enc->max_b_frames = 0;
    if (fmt->oformat->flags & AVFMT_GLOBALHEADER)
        m_enc->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
    av_dict_set(&options, "preset", m_preset, 0);
    av_dict_set(&options, "tune", kTune, 0);
    rc = avcodec_open2(m_enc, codec, &options);
    av_dict_free(&options);
    if (rc < 0)
        goto fail;

    m_stream = avformat_new_stream(fmt, nullptr);
    if (!m_stream) {
        rc = AVERROR(ENOMEM);
        goto fail;
    }
    m_stream->time_base = m_enc->time_base;
    m_stream->avg_frame_rate = m_enc->framerate;
    if ((rc = avcodec_parameters_from_context(m_stream->codecpar, m_enc)) < 0)
        goto fail;
    m_start = start;
    m_lastPts = -1;
    return true;

fail:
    *error = avErrorText(rc);
    release();
    return false;
}

// The frame in the encoder's size and pixel format; the frame itself when it already fits.
AVFrame *H264Format::convert(AVFrame *frame)
{
    if (frame->width == m_enc->width && frame->height == m_enc->height && frame->format == m_enc->pix_fmt
        && frame->color_range != AVCOL_RANGE_JPEG)
        return frame;
    if (!m_scaled) {
        m_scaled = av_frame_alloc();
        if (!m_scaled)
            return nullptr;
        m_scaled->format = m_enc->pix_fmt;
        m_scaled->width = m_enc->width;
        m_scaled->height = m_enc->height;
        if (av_frame_get_buffer(m_scaled, 0) < 0) {
            av_frame_free(&m_scaled);
            return nullptr;
        }
    }
    // The encoder may still hold the previous picture: give the scaler a writable buffer.
    if (av_frame_make_writable(m_scaled) < 0)
        return nullptr;
    if (!m_scaler.scale(*frame, *m_scaled))
        return nullptr;
    return m_scaled;
}

bool H264Format::write(const TimedSample &sample, const PacketSink &sink)
{
    Q_ASSERT(m_enc && sample.frame);
    const int64_t pts = (sample.pts - m_start).in(kTimescale);
    if (pts < 0 || pts <= m_lastPts)
        return true; // a frame from before the segment or out of order is skipped, not an error
    AVFrame *frame = convert(sample.frame.get());
    if (!frame)
        return false;
    // A reference, so the capture frame's own fields stay untouched.
    if (av_frame_ref(m_input, frame) < 0)
        return false;
    m_input->pts = pts;
    m_input->pict_type = AV_PICTURE_TYPE_NONE;
    m_lastPts = pts;
    const bool ok = encode(m_enc, m_stream, m_input, sink);
    av_frame_unref(m_input);
    return ok;
}

bool H264Format::drain(const PacketSink &sink)
{
    Q_ASSERT(m_enc);
    return encode(m_enc, m_stream, nullptr, sink);
}

void H264Format::release()
{
    avcodec_free_context(&m_enc);
    av_frame_free(&m_scaled);
    av_frame_free(&m_input);
    m_stream = nullptr; // owned by the format context
}
