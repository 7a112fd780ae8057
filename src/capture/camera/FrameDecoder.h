#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

struct AVCodecContext;
struct AVFrame;
struct AVPacket;

// Turns one captured buffer into a decoded frame: MJPEG through libavcodec's decoder, raw formats
// (YUYV, UYVY, NV12, YUV 4:2:0) by copying into a reference-counted frame.
class FrameDecoder
{
public:
    FrameDecoder() = default;
    ~FrameDecoder();
    FrameDecoder(const FrameDecoder &) = delete;
    FrameDecoder &operator=(const FrameDecoder &) = delete;

    /// True when this V4L2 pixel format (fourcc) can be decoded.
    static bool supports(uint32_t fourcc);
    /// Prepares for frames of this format, size and first-plane line length (0: packed); false
    /// when unsupported or the decoder fails.
    bool open(uint32_t fourcc, int width, int height, int bytesPerLine = 0);
    /// The frame in one buffer; empty when the buffer is short or does not decode.
    std::shared_ptr<AVFrame> decode(const uint8_t *data, size_t size);

private:
    std::shared_ptr<AVFrame> decodeJpeg(const uint8_t *data, size_t size);
    std::shared_ptr<AVFrame> copyRaw(const uint8_t *data, size_t size);

    uint32_t m_fourcc = 0;
    int m_width = 0;
    int m_height = 0;
    int m_bytesPerLine = 0;
    int m_pixfmt = -1;
    AVCodecContext *m_ctx = nullptr;
    AVPacket *m_packet = nullptr;
};
