#include "util/Clock.h"

#include "util/SystemClock.h"

#include <time.h>

namespace brvo {

namespace {

class SystemClocks : public Clock {
public:
    std::int64_t WallMicroseconds() const override { return SystemClock::NowMicroseconds(); }

    std::int64_t MonotonicMicroseconds() const override {
        timespec now = {};
        clock_gettime(CLOCK_MONOTONIC, &now);
        return static_cast<std::int64_t>(now.tv_sec) * 1000000 + now.tv_nsec / 1000;
    }
};

} // namespace

Clock::~Clock() = default;

Clock& Clock::System() {
    // Never destroyed: timer threads may read it while statics go.
    static Clock* clock = new SystemClocks();
    return *clock;
}

} // namespace brvo
