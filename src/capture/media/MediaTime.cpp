#include "MediaTime.h"

#include <algorithm>

namespace {
// value * num / den without overflow for realistic media times (128-bit intermediate).
int64_t rescale(int64_t value, int64_t num, int64_t den)
{
    const __int128 product = (__int128)value * num;
    __int128 q = product / den;
    if ((product % den != 0) && ((product < 0) != (den < 0)))
        --q; // floor
    return int64_t(q);
}
} // namespace

int64_t MediaTime::in(int32_t scale) const
{
    if (!isValid() || scale <= 0)
        return 0;
    return rescale(value, scale, timescale);
}

std::strong_ordering MediaTime::operator<=>(const MediaTime &other) const
{
    if (!isValid() || !other.isValid())
        return isValid() <=> other.isValid();
    const __int128 a = (__int128)value * other.timescale;
    const __int128 b = (__int128)other.value * timescale;
    return a <=> b;
}

MediaTime operator-(const MediaTime &a, const MediaTime &b)
{
    if (!a.isValid() || !b.isValid())
        return MediaTime::invalid();
    const int32_t scale = std::max(a.timescale, b.timescale);
    return MediaTime::make(a.in(scale) - b.in(scale), scale);
}

MediaTime operator+(const MediaTime &a, const MediaTime &b)
{
    if (!a.isValid() || !b.isValid())
        return MediaTime::invalid();
    const int32_t scale = std::max(a.timescale, b.timescale);
    return MediaTime::make(a.in(scale) + b.in(scale), scale);
}
