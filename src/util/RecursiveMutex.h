// A recursive mutex the thread-safety build checks: the same lock as before
// (Poco::Mutex, recursive on every target), only annotated. The analysis
// knows nothing of recursion: a function that takes it again while it is
// held says so (NO_THREAD_SAFETY_ANALYSIS and why), or holds it through a
// REQUIRES instead.
//
// Lock rules: held through a ScopedLock; lock and unlock are there for
// Poco::Condition's waits and for ScopedLock.
#ifndef BRVO_UTIL_RECURSIVEMUTEX_H
#define BRVO_UTIL_RECURSIVEMUTEX_H

#include "util/ThreadAnnotations.h"

#include <Poco/Mutex.h>

namespace brvo {

class CAPABILITY("mutex") RecursiveMutex {
public:
    RecursiveMutex() = default;

    // Waits for and takes the lock (once more, when the caller holds it).
    void lock() ACQUIRE() { mutex_.lock(); }
    // Releases the lock once.
    void unlock() RELEASE() { mutex_.unlock(); }

private:
    RecursiveMutex(const RecursiveMutex&) = delete;
    RecursiveMutex& operator=(const RecursiveMutex&) = delete;

    Poco::Mutex mutex_;
};

} // namespace brvo

#endif
