// Test-only library for the ThreadSanitizer build, preloaded in front of
// libfaketime into the children that run under a fake clock.
//
// libfaketime wraps pthread_cond_timedwait (to turn the fake deadline into a
// real one) and passes the call on to the C library by symbol version, past
// the sanitizer's own wrapper. The sanitizer then never sees the wait give
// up its mutex and take it again, misses the hand-over from the thread that
// signalled, and reports every hand-over through a timed wait as a race.
// This wrapper tells the sanitizer what the wait does to the mutex, as its
// own wrapper would, and leaves the wait itself to libfaketime.
//
// Built without the sanitizer and not linked to its runtime, which it looks
// up when loaded: a child that is not built with it (the daemon's
// /usr/bin/touch) gets a plain pass-through.
#include <dlfcn.h>
#include <pthread.h>

namespace {

typedef int (*TimedWait)(pthread_cond_t*, pthread_mutex_t*, const struct timespec*);
typedef int (*PreUnlock)(void*, unsigned);
typedef void (*PostUnlock)(void*, unsigned);
typedef void (*PreLock)(void*, unsigned);
typedef void (*PostLock)(void*, unsigned, int);

// The next pthread_cond_timedwait (libfaketime's) and the sanitizer's mutex
// annotations (all null in a child without the sanitizer).
struct Entries {
    TimedWait timedWait;
    PreUnlock preUnlock;
    PostUnlock postUnlock;
    PreLock preLock;
    PostLock postLock;

    Entries()
        : timedWait(reinterpret_cast<TimedWait>(dlvsym(RTLD_NEXT, "pthread_cond_timedwait", "GLIBC_2.3.2"))),
          preUnlock(reinterpret_cast<PreUnlock>(dlsym(RTLD_DEFAULT, "__tsan_mutex_pre_unlock"))),
          postUnlock(reinterpret_cast<PostUnlock>(dlsym(RTLD_DEFAULT, "__tsan_mutex_post_unlock"))),
          preLock(reinterpret_cast<PreLock>(dlsym(RTLD_DEFAULT, "__tsan_mutex_pre_lock"))),
          postLock(reinterpret_cast<PostLock>(dlsym(RTLD_DEFAULT, "__tsan_mutex_post_lock"))) {
        if (timedWait == nullptr) timedWait = reinterpret_cast<TimedWait>(dlsym(RTLD_NEXT, "pthread_cond_timedwait"));
    }

    bool Annotated() const {
        return preUnlock != nullptr && postUnlock != nullptr && preLock != nullptr && postLock != nullptr;
    }
};

const Entries& Next() {
    static const Entries entries;
    return entries;
}

} // namespace

extern "C" int pthread_cond_timedwait(pthread_cond_t* cond, pthread_mutex_t* mutex, const struct timespec* deadline) {
    const Entries& next = Next();
    if (next.Annotated()) {
        next.preUnlock(mutex, 0);
        next.postUnlock(mutex, 0);
    }
    const int result = next.timedWait(cond, mutex, deadline);
    if (next.Annotated()) {
        next.preLock(mutex, 0);
        next.postLock(mutex, 0, 0);
    }
    return result;
}
