#pragma once

#include "Clock.h"

#include <cstdint>
#include <mutex>

// Spaces preview frames at least 1/24 s apart across all cameras, on a clock tests can replace.
class PreviewThrottle
{
public:
    /// Smallest spacing of two sent frames, in nanoseconds.
    static constexpr int64_t kSpacingNs = 1000000000 / 24;

    explicit PreviewThrottle(const Clock &clock = Clock::monotonic());

    /// True when a frame may be sent now (and counts it as sent); false to drop it.
    bool admit();

private:
    const Clock &m_clock;
    std::mutex m_mutex;
    int64_t m_last = 0;
    bool m_sent = false;
};
