#include "LiveConverter.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <numeric>
#include <vector>

extern "C" {
#include <libavutil/channel_layout.h>
#include <libswresample/swresample.h>
}

LiveConverter::~LiveConverter()
{
    swr_free(&m_swr);
}

int LiveConverter::outputCapacity(int frames, int rate)
{
    return int(int64_t(frames) * kLiveRate / rate) + 64;
}

int16_t LiveConverter::toPcm16(float sample)
{
    const float clamped = std::clamp(sample, -1.0f, 1.0f);
    return int16_t(std::trunc(clamped * 32767.0f));
}

bool LiveConverter::rebuild(int rate, int channels)
{
    swr_free(&m_swr);
    m_rate = m_channels = 0;
    AVChannelLayout in{}, out{};
    av_channel_layout_default(&in, channels);
    av_channel_layout_default(&out, 1);
    int rc = swr_alloc_set_opts2(&m_swr, &out, AV_SAMPLE_FMT_FLT, kLiveRate, &in, AV_SAMPLE_FMT_FLT, rate, 0, nullptr);
    av_channel_layout_uninit(&in);
    av_channel_layout_uninit(&out);
    if (rc < 0 || !m_swr)
        return false;
    // Down-mix as the plain average of all channels, so full scale stays full scale.
    std::vector<double> matrix(size_t(channels), 1.0 / channels);
    if (channels > 1 && swr_set_matrix(m_swr, matrix.data(), channels) < 0) {
        swr_free(&m_swr);
        return false;
    }
    if (swr_init(m_swr) < 0) {
        swr_free(&m_swr);
        return false;
    }
    m_rate = rate;
    m_channels = channels;
    return true;
}

std::optional<QByteArray> LiveConverter::process(const float *interleaved, int frames, int rate, int channels, bool wantPCM)
{
    if (!interleaved || frames <= 0 || rate <= 0 || channels <= 0)
        return std::nullopt;
    if ((rate != m_rate || channels != m_channels || !m_swr) && !rebuild(rate, channels))
        return std::nullopt;

    const int capacity = outputCapacity(frames, rate);
    std::vector<float> out(size_t(capacity), 0.0f);
    uint8_t *dst[1] = {reinterpret_cast<uint8_t *>(out.data())};
    const uint8_t *src[1] = {reinterpret_cast<const uint8_t *>(interleaved)};
    const int n = swr_convert(m_swr, dst, capacity, src, frames);
    if (n <= 0)
        return std::nullopt;

    for (int i = 0; i < n; ++i) {
        const double square = double(out[i]) * out[i];
        m_sum += square - m_squares[m_next];
        m_squares[m_next] = square;
        m_next = (m_next + 1) % m_squares.size();
        m_peak = std::max(m_peak, float(std::sqrt(std::max(0.0, m_sum) / kLevelFrames)));
    }
    if (m_next == 0)
        m_sum = std::accumulate(m_squares.begin(), m_squares.end(), 0.0); // no rounding builds up
    if (!wantPCM)
        return std::nullopt;

    QByteArray pcm(qsizetype(n) * 2, Qt::Uninitialized);
    auto *bytes = reinterpret_cast<uint8_t *>(pcm.data());
    for (int i = 0; i < n; ++i) {
        const uint16_t v = uint16_t(toPcm16(out[i]));
        bytes[2 * i] = uint8_t(v & 0xff);
        bytes[2 * i + 1] = uint8_t(v >> 8);
    }
    return pcm;
}

float LiveConverter::takePeak()
{
    const float peak = m_peak;
    m_peak = 0;
    return peak;
}
