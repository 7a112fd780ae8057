#include "PreviewEncoder.h"

#include <cmath>

extern "C" {
#include <libavcodec/avcodec.h>
}

PreviewEncoder::~PreviewEncoder()
{
    release();
}

QSize PreviewEncoder::targetSize(QSize source, bool hd)
{
    const int target = hd ? 960 : 480;
    const int w = source.width();
    if (w < 1 || source.height() < 1 || w <= target)
        return source;
    const int h = std::max(1, int(std::lround(double(source.height()) * target / w)));
    return QSize(target, h);
}

void PreviewEncoder::release()
{
    avcodec_free_context(&m_jpeg);
    av_frame_free(&m_scaled);
    av_packet_free(&m_packet);
    m_size = QSize();
}

// One JPEG encoder and output frame per picture size, kept while the size stays the same.
bool PreviewEncoder::prepare(QSize size)
{
    if (m_jpeg && size == m_size)
        return true;
    release();
    const AVCodec *codec = avcodec_find_encoder(AV_CODEC_ID_MJPEG);
    if (!codec)
        return false;
    m_jpeg = avcodec_alloc_context3(codec);
    m_scaled = av_frame_alloc();
    m_packet = av_packet_alloc();
    if (!m_jpeg || !m_scaled || !m_packet) {
        release();
        return false;
    }
    m_jpeg->width = size.width();
    m_jpeg->height = size.height();
    // Full-range 4:2:0, the JPEG convention, declared through the range rather than the old
    // "J" pixel formats.
    m_jpeg->pix_fmt = AV_PIX_FMT_YUV420P;
    m_jpeg->color_range = AVCOL_RANGE_JPEG;
    m_jpeg->time_base = AVRational{1, 24};
    m_scaled->format = m_jpeg->pix_fmt;
    m_scaled->width = size.width();
    m_scaled->height = size.height();
    m_scaled->color_range = AVCOL_RANGE_JPEG;
    if (avcodec_open2(m_jpeg, codec, nullptr) < 0 || av_frame_get_buffer(m_scaled, 0) < 0) {
        release();
        return false;
    }
    m_size = size;
    return true;
}

QByteArray PreviewEncoder::encode(const AVFrame &frame, bool hd)
{
    const QSize source(frame.width, frame.height);
    if (source.isEmpty() || frame.format < 0)
        return {};
    const QSize size = targetSize(source, hd);
    if (!prepare(size))
        return {};
    if (av_frame_make_writable(m_scaled) < 0 || !m_scaler.scale(frame, *m_scaled))
        return {};
    if (avcodec_send_frame(m_jpeg, m_scaled) < 0)
        return {};
    if (avcodec_receive_packet(m_jpeg, m_packet) < 0)
        return {};
    QByteArray jpeg(reinterpret_cast<const char *>(m_packet->data), m_packet->size);
    av_packet_unref(m_packet);
    return jpeg;
}
