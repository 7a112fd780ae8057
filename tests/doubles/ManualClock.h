#pragma once

#include "Clock.h"

#include <atomic>

// A clock that only moves when told to; for tests and simulations.
class ManualClock final : public Clock
{
public:
    explicit ManualClock(int64_t startNs = 1000000000) : m_now(startNs) {}
    int64_t nowNs() const override { return m_now.load(); }
    /// Sets the current time.
    void set(int64_t ns) { m_now = ns; }
    /// Moves the clock forward.
    void advance(int64_t ns) { m_now += ns; }

private:
    std::atomic<int64_t> m_now;
};
