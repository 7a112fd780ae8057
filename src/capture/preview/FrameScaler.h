#pragma once

struct AVFrame;
struct SwsContext;

// Converts frames to one fixed size, pixel format and range with libswscale, keeping one scaler
// for as long as the source's size, format and range stay the same. Sources in the old full-range
// "J" formats (as MJPEG decodes) are read as full range without re-creating the scaler per frame.
class FrameScaler
{
public:
    FrameScaler() = default;
    ~FrameScaler();
    FrameScaler(const FrameScaler &) = delete;
    FrameScaler &operator=(const FrameScaler &) = delete;

    /// Scales `src` into `dst`, whose width, height, format and color_range are set and whose
    /// buffers are allocated and writable; false when the conversion is not possible.
    bool scale(const AVFrame &src, AVFrame &dst);

private:
    SwsContext *m_sws = nullptr;
    int m_key[8] = {};
};
