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
    settleStep(0); // no verdict came: nothing is filled on one track's stamps alone
    for (const Candidate &c : std::exchange(m_located, {})) { // shown too late to be judged
        ++m_steps.doubtful;
        m_steps.doubtfulFrames += std::abs(c.frames);
    }
    if (m_swr) {
        settle(out);
        flushTail(newestNs());
    }
    release(out, true);
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
    m_pending.reset();
    m_located.clear();
    m_setAside = 0;
    m_marks.clear();
    m_explained = 0;
    m_inFrames = 0;
    m_outHeld.clear();
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
    m_recentAt.clear();
    m_skip = 0;
    m_setAside = 0; // the new time line is placed on the stamps as they are now
    m_marks.clear();
    m_inFrames = 0;
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
            settleStep(0);
            settle(out);
            flushTail(newestNs());
            release(out, true);
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
            release(out, false);
            return out;
        }
        settle(out); // a gap while settling: place what came before it, then start over below
    }

    Q_ASSERT(m_swr && buffer.rate == m_rate && buffer.channels == m_channels);
    if (m_pending && buffer.captureNs - m_pending->seenNs > int64_t(kVerdictSeconds * 1e9))
        settleStep(0); // nobody compared it with another track
    if (buffer.lostFrames != 0 && !buffer.discontinuity)
        m_located.push_back(Candidate{buffer.lostFrames, buffer.lostAtNs, buffer.captureNs, true, 0});
    proposeLocated(buffer.captureNs);
    // Where this block's first frame lands on the time line, against when it was captured (the
    // stamps' moves set aside taken out).
    const int64_t pending = swr_get_delay(m_swr, m_rate);
    const double landing = double(m_anchorNs) * 1e-9 + double(m_outFrames + pending) / m_rate;
    const double e = landing - (double(buffer.captureNs) * 1e-9 - m_setAside);
    // Stamps that moved for good by more than kDriftSeconds set aside are followed: the time line
    // is placed again on them (a stream whose stamps keep moving is not held to an old line).
    if (buffer.discontinuity || std::fabs(e) > kJumpSeconds || std::fabs(m_error) > kDriftSeconds
        || (!m_pending && std::fabs(m_setAside) > kDriftSeconds)) {
        // Finish the old time line with what the resampler holds, then place a new one.
        settleStep(0);
        flushTail(buffer.captureNs);
        const double integral = m_integral;
        setUp(m_rate, m_channels);
        m_integral = integral; // the device's rate has not changed
        m_held.push_back(buffer);
        m_heldFrames = frames;
        release(out, false);
        return out;
    }
    const double dt = double(frames) / m_rate;
    const double a = std::min(1.0, dt / kFilterSeconds);
    // A step larger than the scatter: audio lost (or repeated), or stamps gone late. Set aside
    // until the owner has compared it with the other tracks.
    int64_t stepAt = 0;
    const int step = stepFrames(e - m_error, buffer.captureNs, &stepAt);
    if (step != 0 && !m_pending) // one verdict at a time; a further move shows again after it
        propose(step, stepAt, buffer.captureNs, false);
    if (step == 0 && std::fabs(e - m_error) < stepThreshold()) { // a block after a step does not steer
        m_error += a * (e - m_error);
        m_integral += m_error * dt / kIntegralSeconds;
        m_integral = std::clamp(m_integral, -kMaxStretch, kMaxStretch);
        m_stretch = std::clamp(-m_error / kLoopSeconds - m_integral, -kMaxStretch, kMaxStretch);
        const int distance = m_rate * kCompensationSeconds;
        swr_set_compensation(m_swr, int(std::lround(m_stretch * distance)), distance);
    }
    mark(buffer.captureNs, frames);
    convertSkipping(buffer, out);
    release(out, false);
    return out;
}

void DriftCorrector::propose(int frames, int64_t atNs, int64_t seenNs, bool located)
{
    m_pending = Candidate{frames, atNs, seenNs, located, double(frames) / m_rate};
    m_setAside += double(frames) / m_rate;
    m_recent.clear();
    m_recentAt.clear();
}

void DriftCorrector::proposeLocated(int64_t seenNs)
{
    if (m_located.empty() || m_pending)
        return;
    const Candidate c = m_located.front();
    m_located.pop_front();
    propose(c.frames, c.atNs, seenNs, true);
}

void DriftCorrector::settleStep(int mend)
{
    if (!m_pending)
        return;
    Candidate c = *std::exchange(m_pending, std::nullopt);
    if (mend == 0 || (mend > 0) != (c.frames > 0)) {
        ++m_steps.doubtful;
        m_steps.doubtfulFrames += std::abs(c.frames);
        return;
    }
    c.frames = mend > 0 ? std::min(mend, c.frames) : std::max(mend, c.frames); // the rest stays set aside
    m_setAside -= double(c.frames) / m_rate;
    if (c.frames < 0) {
        ++m_steps.overlaps;
        m_steps.overlapFrames -= c.frames;
        m_skip -= c.frames;
        return;
    }
    ++m_steps.gaps;
    m_steps.gapFrames += c.frames;
    m_steps.located += c.located ? 1 : 0;
    if (c.located)
        m_explained += double(c.frames) / m_rate;
    // Silence goes before the first output of this time line from a block stamped at or after
    // the loss; what follows moves later by as much.
    size_t at = m_outHeld.size();
    for (size_t i = 0; i < m_outHeld.size(); ++i) {
        if (m_outHeld[i].anchorNs == m_anchorNs && m_outHeld[i].captureNs >= c.atNs) {
            at = i;
            break;
        }
    }
    if (at < m_outHeld.size() && m_outHeld[at].lead > 0 && m_outHeld[at].lead < m_outHeld[at].sample.frameCount()) {
        // Its first frames are the resampler's rest of the block before the loss: they stay before.
        Held &h = m_outHeld[at];
        const qsizetype bytes = qsizetype(h.lead) * m_channels * qsizetype(sizeof(float));
        Held before{h.sample, h.anchorNs, h.startFrame, h.captureNs, 0};
        before.sample.pcm = h.sample.pcm.left(bytes);
        before.sample.duration = MediaTime::make(h.lead, m_rate);
        h.sample.pcm = h.sample.pcm.mid(bytes);
        h.sample.duration = MediaTime::make(h.sample.frameCount(), m_rate);
        h.startFrame += h.lead;
        h.lead = 0;
        m_outHeld.insert(m_outHeld.begin() + ptrdiff_t(at), std::move(before));
        ++at;
    }
    const int64_t startFrame = at < m_outHeld.size() ? m_outHeld[at].startFrame : m_outFrames;
    TimedSample silence;
    silence.kind = TimedSample::Kind::Audio;
    silence.duration = MediaTime::make(c.frames, m_rate);
    silence.sampleRate = m_rate;
    silence.channels = m_channels;
    silence.pcm = QByteArray(qsizetype(c.frames) * m_channels * qsizetype(sizeof(float)), 0);
    shiftHeld(at, c.frames);
    m_outHeld.insert(m_outHeld.begin() + ptrdiff_t(at), Held{std::move(silence), m_anchorNs, startFrame, c.atNs, 0});
    m_outFrames += c.frames;
}

void DriftCorrector::shiftHeld(size_t from, int64_t frames)
{
    for (size_t i = from; i < m_outHeld.size(); ++i)
        if (m_outHeld[i].anchorNs == m_anchorNs)
            m_outHeld[i].startFrame += frames;
}

void DriftCorrector::mark(int64_t captureNs, int frames)
{
    const double count = double(m_anchorNs) * 1e-9 + double(m_inFrames) / m_rate;
    m_marks.push_back({captureNs, double(captureNs) * 1e-9 - count - m_explained});
    m_inFrames += frames;
    while (m_marks.size() > 1 && m_marks.back().captureNs - m_marks.front().captureNs > 3000000000LL)
        m_marks.pop_front();
}

std::optional<double> DriftCorrector::stampMove(int64_t beforeNs, int64_t afterNs) const
{
    std::vector<double> before, after;
    for (const Mark &m : m_marks) {
        if (m.captureNs <= beforeNs && m.captureNs > beforeNs - 150000000)
            before.push_back(m.offset);
        if (m.captureNs >= afterNs)
            after.push_back(m.offset);
    }
    if (before.size() < 3 || after.size() < 3)
        return std::nullopt;
    const auto median = [](std::vector<double> &v) {
        std::nth_element(v.begin(), v.begin() + ptrdiff_t(v.size() / 2), v.end());
        return v[v.size() / 2];
    };
    return median(after) - median(before);
}

void DriftCorrector::release(std::vector<TimedSample> &out, bool all)
{
    const int64_t newest = m_outHeld.empty() ? 0 : m_outHeld.back().captureNs;
    while (!m_outHeld.empty()) {
        const Held &h = m_outHeld.front();
        const bool awaited = (m_pending && h.captureNs >= m_pending->atNs) || (!m_located.empty() && h.captureNs >= m_located.front().atNs);
        if (!all && (newest - h.captureNs <= int64_t(kHoldSeconds * 1e9) || awaited))
            break;
        TimedSample s = h.sample;
        s.pts = MediaTime::fromNanoseconds(h.anchorNs + h.startFrame * 1000000000 / s.sampleRate);
        out.push_back(std::move(s));
        m_outHeld.pop_front();
    }
}

void DriftCorrector::convertSkipping(const AudioBuffer &buffer, std::vector<TimedSample> &out)
{
    const int frames = buffer.frames();
    const int64_t skipped = std::min<int64_t>(m_skip, frames);
    m_skip -= skipped;
    if (skipped == frames)
        return;
    (void)out;
    convert(reinterpret_cast<const float *>(buffer.pcm.constData()) + skipped * m_channels, frames - int(skipped),
            buffer.captureNs);
}

int DriftCorrector::stepFrames(double deviation, int64_t captureNs, int64_t *atNs)
{
    // + = the block lands later than it was captured: frames were repeated; − = frames were lost.
    m_recent.push_back(deviation);
    m_recentAt.push_back(captureNs);
    if (m_recent.size() > size_t(kStepBlocks)) {
        m_recent.erase(m_recent.begin());
        m_recentAt.erase(m_recentAt.begin());
    }
    std::vector<double> sorted = m_recent;
    std::sort(sorted.begin(), sorted.end());
    const double median = sorted[sorted.size() / 2];
    m_scatter += kScatterWeight * (std::min(std::fabs(deviation - median), 0.02) - m_scatter);
    if (m_recent.size() < size_t(kStepBlocks) || std::fabs(median) < stepThreshold())
        return 0;
    // The step is the mean of the blocks after it (those beyond the threshold on its side).
    double sum = 0;
    int after = 0;
    for (size_t i = 0; i < m_recent.size(); ++i) {
        const double d = m_recent[i];
        if (std::fabs(d) >= stepThreshold() && (d < 0) == (median < 0)) {
            if (after == 0)
                *atNs = m_recentAt[i]; // the first block after the step
            sum += d;
            ++after;
        }
    }
    Q_ASSERT(after > 0);
    m_recent.clear();
    m_recentAt.clear();
    return int(std::lround(-sum / after * m_rate));
}

double DriftCorrector::stepThreshold() const
{
    return std::max(kMinStepSeconds, kStepScatters * m_scatter);
}

void DriftCorrector::flushTail(int64_t captureNs)
{
    const int64_t pending = swr_get_delay(m_swr, m_rate) + 64;
    std::vector<float> tail(size_t(pending) * size_t(m_channels));
    uint8_t *dst[1] = {reinterpret_cast<uint8_t *>(tail.data())};
    const int n = swr_convert(m_swr, dst, int(pending), nullptr, 0);
    if (n > 0)
        blockAt(std::move(tail), n, captureNs);
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
    (void)out;
    for (const AudioBuffer &b : held) {
        mark(b.captureNs, b.frames());
        convert(reinterpret_cast<const float *>(b.pcm.constData()), b.frames(), b.captureNs);
    }
}

void DriftCorrector::convert(const float *data, int frames, int64_t captureNs)
{
    const int capacity = swr_get_out_samples(m_swr, frames) + 64;
    std::vector<float> pcm(size_t(capacity) * size_t(m_channels));
    uint8_t *dst[1] = {reinterpret_cast<uint8_t *>(pcm.data())};
    const uint8_t *src[1] = {reinterpret_cast<const uint8_t *>(data)};
    const int lead = int(swr_get_delay(m_swr, m_rate)); // earlier input still inside: it comes out first
    const int n = swr_convert(m_swr, dst, capacity, src, frames);
    if (n > 0)
        blockAt(std::move(pcm), n, captureNs, lead);
}

void DriftCorrector::blockAt(std::vector<float> &&pcm, int frames, int64_t captureNs, int lead)
{
    TimedSample s;
    s.kind = TimedSample::Kind::Audio;
    s.pts = MediaTime::fromNanoseconds(m_anchorNs + m_outFrames * 1000000000 / m_rate);
    s.duration = MediaTime::make(frames, m_rate);
    s.sampleRate = m_rate;
    s.channels = m_channels;
    s.pcm = QByteArray(reinterpret_cast<const char *>(pcm.data()), qsizetype(frames) * m_channels * qsizetype(sizeof(float)));
    m_outHeld.push_back(Held{std::move(s), m_anchorNs, m_outFrames, captureNs, lead});
    m_outFrames += frames;
}
