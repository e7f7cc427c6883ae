// Built with _TIME_BITS=64 (see CMakeLists.txt): keep POCO and every other
// header that uses time_t out of this file, so that no 64-bit time_t meets
// code built with the platform's default one.
#include "util/SystemClock.h"

#include <time.h>

namespace brvo {

static_assert(sizeof(time_t) == 8, "the wall clock must be read with a 64-bit time_t");

std::int64_t SystemClock::NowMicroseconds() {
    struct timespec now;
    if (::clock_gettime(CLOCK_REALTIME, &now) != 0) return 0;
    return static_cast<std::int64_t>(now.tv_sec) * 1000000 + static_cast<std::int64_t>(now.tv_nsec) / 1000;
}

} // namespace brvo
