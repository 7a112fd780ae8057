#include "PreviewThrottle.h"

PreviewThrottle::PreviewThrottle(const Clock &clock)
    : m_clock(clock)
{
}

bool PreviewThrottle::admit()
{
    const int64_t now = m_clock.nowNs();
    std::lock_guard lock(m_mutex);
    if (m_sent && now - m_last < kSpacingNs)
        return false;
    m_sent = true;
    m_last = now;
    return true;
}
