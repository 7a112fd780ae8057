#pragma once

#include <cstdint>
#include <compare>

// A media time: value / timescale seconds. The all-zero time (timescale 0) is invalid and compares
// below every valid time; differences and seconds of invalid times are invalid / 0.
struct MediaTime {
    int64_t value = 0;
    int32_t timescale = 0;

    /// The invalid time.
    static constexpr MediaTime invalid() { return {}; }
    /// A time from a value and a timescale.
    static constexpr MediaTime make(int64_t value, int32_t timescale) { return {value, timescale}; }
    /// A time from nanoseconds on CLOCK_MONOTONIC (timescale 1e9).
    static constexpr MediaTime fromNanoseconds(int64_t ns) { return {ns, 1000000000}; }

    /// True unless this is the invalid time.
    constexpr bool isValid() const { return timescale > 0; }
    /// The time in seconds (0 when invalid).
    double seconds() const { return isValid() ? double(value) / double(timescale) : 0.0; }
    /// The time converted to another timescale, rounded down.
    int64_t in(int32_t scale) const;

    /// Exact comparison across timescales; invalid sorts first, two invalid times are equal.
    std::strong_ordering operator<=>(const MediaTime &other) const;
    bool operator==(const MediaTime &other) const { return (*this <=> other) == 0; }
};

/// a − b in the finer of the two timescales; invalid when either is invalid.
MediaTime operator-(const MediaTime &a, const MediaTime &b);
/// a + b in the finer of the two timescales; invalid when either is invalid.
MediaTime operator+(const MediaTime &a, const MediaTime &b);
