#pragma once

#include <QByteArray>
#include <QSize>

#include "FrameScaler.h"

struct AVCodecContext;
struct AVFrame;
struct AVPacket;

// Turns a camera frame into a small JPEG for the control room: scaled with libswscale to 480
// pixels wide (960 in HD), never up, aspect kept, encoded by libavcodec's JPEG encoder at its
// default quality. Used on one queue at a time.
class PreviewEncoder
{
public:
    PreviewEncoder() = default;
    ~PreviewEncoder();
    PreviewEncoder(const PreviewEncoder &) = delete;
    PreviewEncoder &operator=(const PreviewEncoder &) = delete;

    /// Size of the picture sent for a frame of `source` size.
    static QSize targetSize(QSize source, bool hd);
    /// The JPEG bytes of one frame; empty when it cannot be converted or encoded.
    QByteArray encode(const AVFrame &frame, bool hd);

private:
    bool prepare(QSize size);
    void release();

    QSize m_size;
    AVCodecContext *m_jpeg = nullptr;
    FrameScaler m_scaler;
    AVFrame *m_scaled = nullptr;
    AVPacket *m_packet = nullptr;
};
