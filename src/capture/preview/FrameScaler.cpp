#include "FrameScaler.h"

#include <algorithm>
#include <iterator>

extern "C" {
#include <libavutil/frame.h>
#include <libswscale/swscale.h>
}

namespace {

bool fullRange(const AVFrame &f)
{
    return f.color_range == AVCOL_RANGE_JPEG || f.format == AV_PIX_FMT_YUVJ420P || f.format == AV_PIX_FMT_YUVJ422P
        || f.format == AV_PIX_FMT_YUVJ444P;
}

// The "J" formats are the same layouts as their limited-range twins.
AVPixelFormat plainFormat(int format)
{
    switch (format) {
    case AV_PIX_FMT_YUVJ420P: return AV_PIX_FMT_YUV420P;
    case AV_PIX_FMT_YUVJ422P: return AV_PIX_FMT_YUV422P;
    case AV_PIX_FMT_YUVJ444P: return AV_PIX_FMT_YUV444P;
    default: return AVPixelFormat(format);
    }
}

} // namespace

FrameScaler::~FrameScaler()
{
    sws_freeContext(m_sws);
}

bool FrameScaler::scale(const AVFrame &src, AVFrame &dst)
{
    if (src.width <= 0 || src.height <= 0 || src.format < 0 || dst.width <= 0 || dst.height <= 0 || !dst.data[0])
        return false;
    const int key[8] = {src.width, src.height, src.format, int(fullRange(src)), dst.width, dst.height, dst.format,
                        int(fullRange(dst))};
    if (!m_sws || !std::equal(std::begin(key), std::end(key), std::begin(m_key))) {
        sws_freeContext(m_sws);
        m_sws = sws_getContext(src.width, src.height, plainFormat(src.format), dst.width, dst.height,
                               plainFormat(dst.format), SWS_BILINEAR, nullptr, nullptr, nullptr);
        if (!m_sws)
            return false;
        const int *table = sws_getCoefficients(SWS_CS_DEFAULT);
        sws_setColorspaceDetails(m_sws, table, key[3], table, key[7], 0, 1 << 16, 1 << 16);
        std::copy(std::begin(key), std::end(key), std::begin(m_key));
    }
    return sws_scale(m_sws, src.data, src.linesize, 0, src.height, dst.data, dst.linesize) == dst.height;
}
