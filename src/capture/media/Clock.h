#pragma once

#include <cstdint>

// A source of CLOCK_MONOTONIC nanoseconds. Everything in capture that stamps or waits reads one,
// so tests can replace real time with a clock they move themselves.
class Clock
{
public:
    virtual ~Clock() = default;
    /// Nanoseconds on the monotonic time line.
    virtual int64_t nowNs() const = 0;
    /// The system's CLOCK_MONOTONIC.
    static Clock &monotonic();
};
