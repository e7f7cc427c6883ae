// Test-only library, preloaded into children of the tests on 32-bit
// targets in front of libfaketime. The daemon reads its wall clock through
// the C library's 64-bit calls (to stay right after 2038); Debian 12's
// 32-bit Arm libfaketime does not fake them, and Debian 13's computes them
// in a 32-bit time_t, so that every time after 2038 comes out wrong. This
// library fakes the wall clock's 64-bit calls from the same value as
// libfaketime takes: FAKETIME, or when that is not set the first line of the
// file named by FAKETIME_TIMESTAMP_FILE:
//   "@YYYY-MM-DD HH:MM:SS"  the clock starts at that local time,
//   "+N" / "-N"             the clock is N seconds ahead / behind,
// either followed by " xR": the clock runs R times as fast.
// Any other value leaves the clock as it is. FAKETIME is read once. The
// file is read once too, unless FAKETIME_NO_CACHE=1: then it is read on
// every call, and a changed text starts the clock anew from it, as
// libfaketime does, so that a test steps the clock by rewriting the file.
// The real wall clock is read with the kernel's 64-bit call itself, past
// any other library; the other clocks (monotonic) go on to libfaketime.
//
// Built with _TIME_BITS=64, so time_t, struct timespec and mktime are the
// 64-bit ones and the functions below are the C library's 64-bit entries.
#include <dlfcn.h>
#include <pthread.h>
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

// The clock of `spec` from now on; `nowUs` is the real clock now.
Fake ParseFake(const char* spec, std::int64_t nowUs) {
    Fake fake;
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

// The longest FAKETIME text kept, line end included.
const std::size_t kSpecSize = 256;

// The first line of `path` that is not a comment, without its line end,
// into `text`; empty when the file cannot be read.
void ReadSpecFile(const char* path, char* text) {
    text[0] = '\0';
    std::FILE* file = std::fopen(path, "re");
    if (file == nullptr) return;
    while (std::fgets(text, static_cast<int>(kSpecSize), file) != nullptr) {
        if (text[0] != '#' && text[0] != ';') break;
        text[0] = '\0';
    }
    std::fclose(file);
    text[std::strcspn(text, "\r\n")] = '\0';
}

// The faked clock as the FAKETIME text gives it now; `nowUs` is the real
// clock now.
Fake CurrentFake(std::int64_t nowUs) {
    static pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    static bool read = false;
    static char spec[kSpecSize];
    static Fake fake;
    const char* variable = std::getenv("FAKETIME");
    const char* file = variable == nullptr ? std::getenv("FAKETIME_TIMESTAMP_FILE") : nullptr;
    const char* noCache = std::getenv("FAKETIME_NO_CACHE");
    const bool again = file != nullptr && noCache != nullptr && std::strcmp(noCache, "1") == 0;
    ::pthread_mutex_lock(&mutex);
    if (!read || again) {
        char text[kSpecSize] = "";
        if (variable != nullptr) {
            std::strncpy(text, variable, kSpecSize - 1);
        } else if (file != nullptr) {
            ReadSpecFile(file, text);
        }
        if (!read || std::strcmp(text, spec) != 0) {
            std::memcpy(spec, text, kSpecSize);
            fake = ParseFake(spec, nowUs);
        }
        read = true;
    }
    const Fake current = fake;
    ::pthread_mutex_unlock(&mutex);
    return current;
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
    *nowUs = Microseconds(ts);
    const Fake fake = CurrentFake(*nowUs);
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
