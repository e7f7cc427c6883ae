// Test-only library, preloaded into children of the tests on 32-bit
// targets next to libfaketime. The 32-bit Arm libfaketime fakes only the
// C library's 32-bit clock calls; the daemon reads its wall clock through
// the 64-bit call (to stay right after 2038), which this library fakes the
// same way, from the same FAKETIME value:
//   "@YYYY-MM-DD HH:MM:SS"  the clock starts at that local time,
//   "+N" / "-N"             the clock is N seconds ahead / behind,
// either followed by " xR": the clock runs R times as fast.
// Any other value leaves the clock as it is.
//
// Built with _TIME_BITS=64, so time_t, struct timespec and mktime are the
// 64-bit ones and the function below is the C library's 64-bit entry.
#include <dlfcn.h>
#include <time.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

typedef int (*ClockFunction)(clockid_t, struct timespec*);

struct Fake {
    bool active = false;
    std::int64_t realStartUs = 0;  // real clock when faking began
    std::int64_t fakeStartUs = 0;  // fake clock at that moment
    double rate = 1.0;
};

std::int64_t Microseconds(const struct timespec& ts) {
    return static_cast<std::int64_t>(ts.tv_sec) * 1000000 + ts.tv_nsec / 1000;
}

ClockFunction RealClock() {
    static ClockFunction real = reinterpret_cast<ClockFunction>(::dlsym(RTLD_NEXT, "__clock_gettime64"));
    return real;
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

} // namespace

extern "C" int __clock_gettime64(clockid_t clock, struct timespec* ts) {
    static_assert(sizeof(time_t) == 8, "this library fakes the 64-bit clock call");
    const ClockFunction real = RealClock();
    if (real == nullptr) return -1;
    const int rc = real(clock, ts);
    if (rc != 0 || (clock != CLOCK_REALTIME && clock != CLOCK_REALTIME_COARSE)) return rc;
    static const Fake fake = ReadFake(Microseconds(*ts));
    if (!fake.active) return rc;
    const std::int64_t elapsed = Microseconds(*ts) - fake.realStartUs;
    const std::int64_t now = fake.fakeStartUs + static_cast<std::int64_t>(static_cast<double>(elapsed) * fake.rate);
    ts->tv_sec = static_cast<time_t>(now / 1000000);
    ts->tv_nsec = static_cast<long>(now % 1000000) * 1000;
    return rc;
}
