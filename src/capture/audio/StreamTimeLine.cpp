#include "StreamTimeLine.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <utility>

StreamTimeLine::StreamTimeLine(int rate, int frameBytes)
    : m_rate(rate)
    , m_bytesPerSecond(int64_t(rate) * frameBytes)
{
}

void StreamTimeLine::reset()
{
    m_placements.clear();
    m_held.clear();
    m_timed = false;
    m_levelWriteIndex = 0;
    m_loss = {};
}

StreamTimeLine::Loss StreamTimeLine::takeLoss()
{
    return std::exchange(m_loss, Loss{});
}

int64_t StreamTimeLine::level() const
{
    int64_t lowest = m_originNs;
    for (const Held &h : m_held)
        lowest = std::min(lowest, h.originNs);
    return lowest;
}

void StreamTimeLine::add(int64_t takenNs, int64_t originNs, int64_t writeIndex, bool latencyGiven)
{
    m_placements.push_back({takenNs, originNs, writeIndex});
    const auto stale = std::find_if(m_placements.begin(), m_placements.end(),
                                    [&](const Placement &p) { return takenNs - p.takenNs <= kWindowNs; });
    m_placements.erase(m_placements.begin(), stale);
    std::vector<int64_t> origins;
    for (const Placement &p : m_placements)
        origins.push_back(p.originNs);
    int64_t estimate = 0;
    if (latencyGiven) {
        std::nth_element(origins.begin(), origins.begin() + std::ptrdiff_t(origins.size() / 2), origins.end());
        estimate = origins[origins.size() / 2];
    } else {
        estimate = *std::min_element(origins.begin(), origins.end());
    }
    // The time line moves later only on a full window of answers: after a stall (no snapshot for
    // longer than the window: a loaded machine, the server busy) the first answers are late ones,
    // and taking their placement would move every later stamp by their lateness, which the drift
    // corrector would then see as lost audio. A placement earlier than the estimate is a prompter
    // answer than any before (latency 0) and is taken at once.
    const bool full = m_placements.size() >= size_t(kMinPlacements) && takenNs - m_placements.front().takenNs >= kWindowNs / 2;
    if (!m_timed || (!latencyGiven && estimate < m_originNs)) {
        m_originNs = estimate;
    } else if (full && estimate != m_originNs) {
        if (!latencyGiven && estimate - m_originNs >= kMinLossNs)
            noteLoss(estimate);
        m_originNs = estimate;
    }
    if (originNs <= m_originNs + kLevelNs)
        m_levelWriteIndex = writeIndex; // audio up to here is on the time line's level
    m_timed = true;
    if (m_held.empty() || m_held.back().originNs != m_originNs)
        m_held.push_back({takenNs, m_originNs});
    while (m_held.size() > 1 && takenNs - m_held[1].sinceNs > kLevelMemoryNs)
        m_held.pop_front();
}

void StreamTimeLine::noteLoss(int64_t estimate)
{
    // Latency 0 and a write position that moves in whole quanta: every answer of the window places
    // the stream later than before, so its write position has fallen behind the clock for good,
    // which is audio the server dropped before handing it to this stream (PipeWire's service does
    // so now and then without an overflow). It happened between the newest write position still
    // on the old level and the first one on the new level; the middle is taken.
    int64_t firstNew = m_placements.back().writeIndex;
    for (const Placement &p : m_placements) {
        if (p.originNs <= estimate + kLevelNs) {
            firstNew = p.writeIndex;
            break;
        }
    }
    const int64_t at = (std::min(m_levelWriteIndex, firstNew) + firstNew) / 2;
    if (m_loss.frames == 0)
        m_loss.atNs = m_originNs + at * 1000000000 / m_bytesPerSecond;
    m_loss.frames += int(std::llround(double(estimate - level()) * m_rate / 1e9));
    m_held.clear(); // the new level starts here
}
