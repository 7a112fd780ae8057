#include "Clock.h"

#include <ctime>

namespace {
class MonotonicClock final : public Clock
{
public:
    int64_t nowNs() const override
    {
        timespec ts{};
        clock_gettime(CLOCK_MONOTONIC, &ts);
        return int64_t(ts.tv_sec) * 1000000000 + ts.tv_nsec;
    }
};
} // namespace

Clock &Clock::monotonic()
{
    static MonotonicClock clock;
    return clock;
}
