#include "FrameDecoder.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/imgutils.h>
}

#include <linux/videodev2.h>

namespace {

AVPixelFormat rawFormat(uint32_t fourcc)
{
    switch (fourcc) {
    case V4L2_PIX_FMT_YUYV: return AV_PIX_FMT_YUYV422;
    case V4L2_PIX_FMT_UYVY: return AV_PIX_FMT_UYVY422;
    case V4L2_PIX_FMT_NV12: return AV_PIX_FMT_NV12;
    case V4L2_PIX_FMT_YUV420: return AV_PIX_FMT_YUV420P;
    default: return AV_PIX_FMT_NONE;
    }
}

bool isJpeg(uint32_t fourcc) { return fourcc == V4L2_PIX_FMT_MJPEG || fourcc == V4L2_PIX_FMT_JPEG; }

std::shared_ptr<AVFrame> own(AVFrame *f)
{
    return std::shared_ptr<AVFrame>(f, [](AVFrame *p) { av_frame_free(&p); });
}

} // namespace

FrameDecoder::~FrameDecoder()
{
    avcodec_free_context(&m_ctx);
    av_packet_free(&m_packet);
}

bool FrameDecoder::supports(uint32_t fourcc) { return isJpeg(fourcc) || rawFormat(fourcc) != AV_PIX_FMT_NONE; }

bool FrameDecoder::open(uint32_t fourcc, int width, int height, int bytesPerLine)
{
    m_bytesPerLine = bytesPerLine;
    avcodec_free_context(&m_ctx);
    av_packet_free(&m_packet);
    m_fourcc = fourcc;
    m_width = width;
    m_height = height;
    m_pixfmt = rawFormat(fourcc);
    if (!isJpeg(fourcc))
        return m_pixfmt != AV_PIX_FMT_NONE && width > 0 && height > 0;

    const AVCodec *codec = avcodec_find_decoder(AV_CODEC_ID_MJPEG);
    if (!codec)
        return false;
    m_ctx = avcodec_alloc_context3(codec);
    m_packet = av_packet_alloc();
    if (!m_ctx || !m_packet)
        return false;
    m_ctx->thread_count = 1;
    if (avcodec_open2(m_ctx, codec, nullptr) < 0) {
        avcodec_free_context(&m_ctx);
        return false;
    }
    return true;
}

std::shared_ptr<AVFrame> FrameDecoder::decode(const uint8_t *data, size_t size)
{
    if (!data || size == 0)
        return {};
    return isJpeg(m_fourcc) ? decodeJpeg(data, size) : copyRaw(data, size);
}

std::shared_ptr<AVFrame> FrameDecoder::decodeJpeg(const uint8_t *data, size_t size)
{
    if (!m_ctx)
        return {};
    // The packet borrows the capture buffer; the decoder copies what it keeps.
    m_packet->data = const_cast<uint8_t *>(data);
    m_packet->size = int(size);
    const int sent = avcodec_send_packet(m_ctx, m_packet);
    m_packet->data = nullptr;
    m_packet->size = 0;
    if (sent < 0)
        return {};
    std::shared_ptr<AVFrame> frame = own(av_frame_alloc());
    if (!frame || avcodec_receive_frame(m_ctx, frame.get()) < 0)
        return {};
    return frame;
}

std::shared_ptr<AVFrame> FrameDecoder::copyRaw(const uint8_t *data, size_t size)
{
    const AVPixelFormat fmt = AVPixelFormat(m_pixfmt);
    uint8_t *srcData[4] = {};
    int srcLines[4] = {};
    const int packed = av_image_fill_arrays(srcData, srcLines, data, fmt, m_width, m_height, 1);
    if (packed <= 0)
        return {};
    size_t need = size_t(packed);
    const int bpl = m_bytesPerLine;
    if (bpl > srcLines[0]) {
        // Rows padded by the driver: plane 0 lines are bpl long, chroma planes follow the same rule.
        srcLines[0] = bpl;
        if (fmt == AV_PIX_FMT_NV12) {
            srcLines[1] = bpl;
            srcData[1] = const_cast<uint8_t *>(data) + size_t(bpl) * m_height;
            need = size_t(bpl) * m_height * 3 / 2;
        } else if (fmt == AV_PIX_FMT_YUV420P) {
            srcLines[1] = srcLines[2] = bpl / 2;
            srcData[1] = const_cast<uint8_t *>(data) + size_t(bpl) * m_height;
            srcData[2] = srcData[1] + size_t(bpl / 2) * (m_height / 2);
            need = size_t(bpl) * m_height * 3 / 2;
        } else {
            need = size_t(bpl) * m_height;
        }
    }
    if (size < need)
        return {};
    std::shared_ptr<AVFrame> frame = own(av_frame_alloc());
    if (!frame)
        return {};
    frame->format = fmt;
    frame->width = m_width;
    frame->height = m_height;
    if (av_frame_get_buffer(frame.get(), 0) < 0)
        return {};
    av_image_copy(frame->data, frame->linesize, const_cast<const uint8_t **>(srcData), srcLines, fmt, m_width, m_height);
    return frame;
}
