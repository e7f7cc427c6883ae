// The system's wall clock, read with a 64-bit time on every target.
//
// On the 32-bit device the C library's and POCO's default clock reads use a
// 32-bit time_t, which cannot represent any instant after
// 2038-01-19 03:14:07 UTC. This class is compiled on its own with the C
// library's 64-bit time interface, and only a 64-bit count crosses its
// header, so every "now" of the daemon stays right past that instant.
#ifndef BRVO_UTIL_SYSTEMCLOCK_H
#define BRVO_UTIL_SYSTEMCLOCK_H

#include <cstdint>

namespace brvo {

class SystemClock {
public:
    // Microseconds since 1970-01-01 00:00:00 UTC. 0 when the clock cannot
    // be read (which the system clock does not do in practice).
    static std::int64_t NowMicroseconds();

private:
    SystemClock() = delete;
};

} // namespace brvo

#endif
