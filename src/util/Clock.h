// The two clocks that planning in time reads: the wall clock, on which due
// times are kept (the server and the stored tables speak of wall times),
// and the monotonic clock, on which waits are measured (so that a step of
// the wall clock neither shortens nor stretches a wait).
//
// The daemon uses System(); tests and the simulation give their own
// clocks, so that simulated time passes without waiting. Implementations
// are thread-safe.
#ifndef BRVO_UTIL_CLOCK_H
#define BRVO_UTIL_CLOCK_H

#include <cstdint>

namespace brvo {

class Clock {
public:
    virtual ~Clock();

    // Microseconds since 1970-01-01 00:00:00 UTC, 64-bit on every target.
    virtual std::int64_t WallMicroseconds() const = 0;
    // Microseconds since an arbitrary start that never steps.
    virtual std::int64_t MonotonicMicroseconds() const = 0;

    // The system's clocks (SystemClock and CLOCK_MONOTONIC); lives as long
    // as the process.
    static Clock& System();
};

} // namespace brvo

#endif
