#include "DriftCorrector.h"

#include <QtGlobal>

#include <algorithm>
#include <cmath>

extern "C" {
#include <libavutil/channel_layout.h>
#include <libswresample/swresample.h>
}

namespace {
// Loop constants: critically damped (integral time 4·τ²), measurement filtered over 0.5 s.
constexpr double kIntegralSeconds = 4 * DriftCorrector::kLoopSeconds * DriftCorrector::kLoopSeconds;
constexpr double kFilterSeconds = 1.0;
constexpr int kCompensationSeconds = 10;
// Weight of one block in the scatter's running mean (about a second of 10 ms blocks).
constexpr double kScatterWeight = 0.01;
} // namespace

DriftCorrector::~DriftCorrector()
{
    swr_free(&m_swr);
}

std::vector<TimedSample> DriftCorrector::flush()
{
    std::vector<TimedSample> out;
    if (m_swr) {
        settle(out);
        flushTail(out);
    }
    reset();
    return out;
}

void DriftCorrector::reset()
{
    swr_free(&m_swr);
    m_held.clear();
    m_heldFrames = 0;
    m_rate = m_channels = 0;
    m_integral = 0;
    m_anchors = 0;
    m_recent.clear();
    m_scatter = 0.001;
    m_skip = 0;
}

bool DriftCorrector::setUp(int rate, int channels)
{
    swr_free(&m_swr);
    AVChannelLayout layout{};
    av_channel_layout_default(&layout, channels);
    int rc = swr_alloc_set_opts2(&m_swr, &layout, AV_SAMPLE_FMT_FLT, rate, &layout, AV_SAMPLE_FMT_FLT, rate, 0, nullptr);
    av_channel_layout_uninit(&layout);
    if (rc < 0 || !m_swr)
        return false;
    // Compensation needs the resampler engaged even at equal rates.
    if (swr_init(m_swr) < 0 || swr_set_compensation(m_swr, 0, rate * kCompensationSeconds) < 0) {
        swr_free(&m_swr);
        return false;
    }
    m_rate = rate;
    m_channels = channels;
    return true;
}

void DriftCorrector::anchor(int64_t ns)
{
    m_anchorNs = ns;
    m_outFrames = 0;
    m_error = 0;
    m_recent.clear();
    m_skip = 0;
    ++m_anchors;
}

std::vector<TimedSample> DriftCorrector::process(const AudioBuffer &buffer)
{
    std::vector<TimedSample> out;
    const int frames = buffer.frames();
    if (frames <= 0 || buffer.rate <= 0)
        return out;

    if (!m_swr || buffer.rate != m_rate || buffer.channels != m_channels) {
        if (m_swr) { // what an older format still holds
            settle(out);
            flushTail(out);
        }
        m_integral = 0;
        if (!setUp(buffer.rate, buffer.channels))
            return out;
        m_held.push_back(buffer);
        m_heldFrames = frames;
        return out;
    }
    if (!m_held.empty()) {
        if (!buffer.discontinuity) {
            m_held.push_back(buffer);
            m_heldFrames += frames;
            if (m_heldFrames >= int64_t(kSettleSeconds * m_rate) && (steady() || m_heldFrames >= int64_t(kMaxSettleSeconds * m_rate)))
                settle(out);
            return out;
        }
        settle(out); // a gap while settling: place what came before it, then start over below
    }

    Q_ASSERT(m_swr && buffer.rate == m_rate && buffer.channels == m_channels);
    // Where this block's first frame lands on the time line, against when it was captured.
    const int64_t pending = swr_get_delay(m_swr, m_rate);
    const double landing = double(m_anchorNs) * 1e-9 + double(m_outFrames + pending) / m_rate;
    const double e = landing - double(buffer.captureNs) * 1e-9;
    if (buffer.discontinuity || std::fabs(e) > kJumpSeconds || std::fabs(m_error) > kDriftSeconds) {
        // Finish the old time line with what the resampler holds, then place a new one.
        flushTail(out);
        const double integral = m_integral;
        setUp(m_rate, m_channels);
        m_integral = integral; // the device's rate has not changed
        m_held.push_back(buffer);
        m_heldFrames = frames;
        return out;
    }
    const double dt = double(frames) / m_rate;
    const double a = std::min(1.0, dt / kFilterSeconds);
    // A step larger than the scatter is audio lost (or repeated): mend it now, on this track.
    const int step = stepFrames(e - m_error);
    if (step > 0) {
        ++m_steps.gaps;
        m_steps.gapFrames += step;
        std::vector<float> silence(size_t(step) * size_t(m_channels), 0.0f);
        TimedSample filled = convert(silence.data(), step);
        if (filled.frameCount() > 0)
            out.push_back(std::move(filled));
    } else if (step < 0) {
        ++m_steps.overlaps;
        m_steps.overlapFrames -= step;
        m_skip -= step;
    }
    if (step == 0 && std::fabs(e - m_error) < stepThreshold()) { // a block after a step does not steer
        m_error += a * (e - m_error);
        m_integral += m_error * dt / kIntegralSeconds;
        m_integral = std::clamp(m_integral, -kMaxStretch, kMaxStretch);
        m_stretch = std::clamp(-m_error / kLoopSeconds - m_integral, -kMaxStretch, kMaxStretch);
        const int distance = m_rate * kCompensationSeconds;
        swr_set_compensation(m_swr, int(std::lround(m_stretch * distance)), distance);
    }
    convertSkipping(buffer, out);
    return out;
}

void DriftCorrector::convertSkipping(const AudioBuffer &buffer, std::vector<TimedSample> &out)
{
    const int frames = buffer.frames();
    const int64_t skipped = std::min<int64_t>(m_skip, frames);
    m_skip -= skipped;
    if (skipped == frames)
        return;
    TimedSample block = convert(reinterpret_cast<const float *>(buffer.pcm.constData()) + skipped * m_channels,
                                frames - int(skipped));
    if (block.frameCount() > 0)
        out.push_back(std::move(block));
}

int DriftCorrector::stepFrames(double deviation)
{
    // + = the block lands later than it was captured: frames were repeated; − = frames were lost.
    m_recent.push_back(deviation);
    if (m_recent.size() > size_t(kStepBlocks))
        m_recent.erase(m_recent.begin());
    std::vector<double> sorted = m_recent;
    std::sort(sorted.begin(), sorted.end());
    const double median = sorted[sorted.size() / 2];
    m_scatter += kScatterWeight * (std::min(std::fabs(deviation - median), 0.02) - m_scatter);
    if (m_recent.size() < size_t(kStepBlocks) || std::fabs(median) < stepThreshold())
        return 0;
    // The step is the mean of the blocks after it (those beyond the threshold on its side).
    double sum = 0;
    int after = 0;
    for (double d : m_recent) {
        if (std::fabs(d) >= stepThreshold() && (d < 0) == (median < 0)) {
            sum += d;
            ++after;
        }
    }
    Q_ASSERT(after > 0);
    m_recent.clear();
    return int(std::lround(-sum / after * m_rate));
}

double DriftCorrector::stepThreshold() const
{
    return std::max(kMinStepSeconds, kStepScatters * m_scatter);
}

void DriftCorrector::flushTail(std::vector<TimedSample> &out)
{
    const int64_t pending = swr_get_delay(m_swr, m_rate) + 64;
    std::vector<float> tail(size_t(pending) * size_t(m_channels));
    uint8_t *dst[1] = {reinterpret_cast<uint8_t *>(tail.data())};
    const int n = swr_convert(m_swr, dst, int(pending), nullptr, 0);
    if (n > 0)
        out.push_back(blockAt(std::move(tail), n));
}

std::vector<int64_t> DriftCorrector::heldStarts() const
{
    // Each held block implies a start for the time line: its stamp minus the audio before it.
    std::vector<int64_t> starts;
    starts.reserve(m_held.size());
    int64_t before = 0;
    for (const AudioBuffer &b : m_held) {
        starts.push_back(b.captureNs - before * 1000000000 / m_rate);
        before += b.frames();
    }
    return starts;
}

bool DriftCorrector::steady() const
{
    const std::vector<int64_t> starts = heldStarts();
    if (starts.size() < size_t(kSteadyBlocks))
        return false;
    const auto [lo, hi] = std::minmax_element(starts.end() - kSteadyBlocks, starts.end());
    return double(*hi - *lo) * 1e-9 <= kSteadySpreadSeconds;
}

void DriftCorrector::settle(std::vector<TimedSample> &out)
{
    if (m_held.empty())
        return;
    // The newest blocks are the ones after the stream's start-up; their median ignores odd stamps.
    std::vector<int64_t> starts = heldStarts();
    std::vector<int64_t> recent(starts.end() - std::min<ptrdiff_t>(ptrdiff_t(starts.size()), kSteadyBlocks), starts.end());
    std::nth_element(recent.begin(), recent.begin() + ptrdiff_t(recent.size() / 2), recent.end());
    anchor(recent[recent.size() / 2]);
    std::vector<AudioBuffer> held;
    held.swap(m_held);
    m_heldFrames = 0;
    for (const AudioBuffer &b : held) {
        TimedSample block = convert(reinterpret_cast<const float *>(b.pcm.constData()), b.frames());
        if (block.frameCount() > 0)
            out.push_back(std::move(block));
    }
}

TimedSample DriftCorrector::convert(const float *data, int frames)
{
    const int capacity = swr_get_out_samples(m_swr, frames) + 64;
    std::vector<float> pcm(size_t(capacity) * size_t(m_channels));
    uint8_t *dst[1] = {reinterpret_cast<uint8_t *>(pcm.data())};
    const uint8_t *src[1] = {reinterpret_cast<const uint8_t *>(data)};
    const int n = swr_convert(m_swr, dst, capacity, src, frames);
    if (n <= 0)
        return {};
    return blockAt(std::move(pcm), n);
}

TimedSample DriftCorrector::blockAt(std::vector<float> &&pcm, int frames)
{
    TimedSample s;
    s.kind = TimedSample::Kind::Audio;
    s.pts = MediaTime::fromNanoseconds(m_anchorNs + m_outFrames * 1000000000 / m_rate);
    s.duration = MediaTime::make(frames, m_rate);
    s.sampleRate = m_rate;
    s.channels = m_channels;
    s.pcm = QByteArray(reinterpret_cast<const char *>(pcm.data()), qsizetype(frames) * m_channels * qsizetype(sizeof(float)));
    m_outFrames += frames;
    return s;
}
