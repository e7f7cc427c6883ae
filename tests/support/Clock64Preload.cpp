// Test-only library, preloaded into children of the tests on 32-bit
// targets in front of libfaketime. The daemon reads its wall clock through
// the C library's 64-bit calls (to stay right after 2038); Debian 12's
// 32-bit Arm libfaketime does not fake them, and Debian 13's computes them
// in a 32-bit time_t, so that every time after 2038 comes out wrong. This
// library fakes the wall clock's 64-bit calls from the same FAKETIME value:
//   "@YYYY-MM-DD HH:MM:SS"  the clock starts at that local time,
//   "+N" / "-N"             the clock is N seconds ahead / behind,
// either followed by " xR": the clock runs R times as fast.
// Any other value leaves the clock as it is. The real wall clock is read
// with the kernel's 64-bit call itself, past any other library; the other
// clocks (monotonic) go on to libfaketime.
//
// Built with _TIME_BITS=64, so time_t, struct timespec and mktime are the
// 64-bit ones and the functions below are the C library's 64-bit entries.
#include <dlfcn.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

typedef int (*ClockFunction)(clockid_t, struct timespec*);

struct Fake {
    bool active = false;
    std::int64_t realStartUs = 0; // real clock when faking began
    std::int64_t fakeStartUs = 0; // fake clock at that moment
    double rate = 1.0;
};

std::int64_t Microseconds(const struct timespec& ts) {
    return static_cast<std::int64_t>(ts.tv_sec) * 1000000 + ts.tv_nsec / 1000;
}

// The next library's 64-bit clock call (libfaketime's, or the C library's).
ClockFunction NextClock() {
    static ClockFunction next = reinterpret_cast<ClockFunction>(::dlsym(RTLD_NEXT, "__clock_gettime64"));
    return next;
}

// Reads FAKETIME once; `nowUs` is the real clock of the first call.
Fake ReadFake(std::int64_t nowUs) {
    Fake fake;
    const char* spec = std::getenv("FAKETIME");
    if (spec == nullptr) return fake;
    const char* speed = std::strstr(spec, " x");
    if (speed != nullptr) fake.rate = std::atof(speed + 2);
    fake.realStartUs = nowUs;
    if (spec[0] == '@') {
        struct tm local;
        std::memset(&local, 0, sizeof local);
        if (::strptime(spec + 1, "%Y-%m-%d %H:%M:%S", &local) == nullptr) return fake;
        local.tm_isdst = -1;
        const time_t start = ::mktime(&local);
        if (start == static_cast<time_t>(-1)) return fake;
        fake.fakeStartUs = static_cast<std::int64_t>(start) * 1000000;
    } else if (spec[0] == '+' || spec[0] == '-') {
        fake.fakeStartUs = nowUs + static_cast<std::int64_t>(std::atoll(spec)) * 1000000;
    } else {
        return fake;
    }
    fake.active = true;
    return fake;
}

// The real wall clock, 64-bit on every target.
bool RealWallClock(struct timespec* ts) {
#ifdef SYS_clock_gettime64
    return ::syscall(SYS_clock_gettime64, CLOCK_REALTIME, ts) == 0;
#else
#error "this library is for 32-bit targets, whose kernels have clock_gettime64"
#endif
}

// The faked wall clock in microseconds; false if it cannot be read.
bool FakeWallClock(std::int64_t* nowUs) {
    struct timespec ts;
    if (!RealWallClock(&ts)) return false;
    static const Fake fake = ReadFake(Microseconds(ts));
    *nowUs = Microseconds(ts);
    if (fake.active) {
        const std::int64_t elapsed = *nowUs - fake.realStartUs;
        *nowUs = fake.fakeStartUs + static_cast<std::int64_t>(static_cast<double>(elapsed) * fake.rate);
    }
    return true;
}

} // namespace

extern "C" int __clock_gettime64(clockid_t clock, struct timespec* ts) {
    static_assert(sizeof(time_t) == 8, "this library fakes the 64-bit clock call");
    if (clock != CLOCK_REALTIME && clock != CLOCK_REALTIME_COARSE) {
        const ClockFunction next = NextClock();
        return next != nullptr ? next(clock, ts) : -1;
    }
    std::int64_t now = 0;
    if (!FakeWallClock(&now)) return -1;
    ts->tv_sec = static_cast<time_t>(now / 1000000);
    ts->tv_nsec = static_cast<long>(now % 1000000) * 1000;
    return 0;
}

extern "C" time_t __time64(time_t* result) {
    std::int64_t now = 0;
    if (!FakeWallClock(&now)) return static_cast<time_t>(-1);
    const time_t seconds = static_cast<time_t>(now / 1000000);
    if (result != nullptr) *result = seconds;
    return seconds;
}

extern "C" int __gettimeofday64(struct timeval* tv, void* zone) {
    std::int64_t now = 0;
    if (!FakeWallClock(&now)) return -1;
    // As the C library does: the obsolete zone is reported as UTC.
    if (zone != nullptr) std::memset(zone, 0, sizeof(struct timezone));
    if (tv != nullptr) {
        tv->tv_sec = static_cast<time_t>(now / 1000000);
        tv->tv_usec = static_cast<suseconds_t>(now % 1000000);
    }
    return 0;
}
