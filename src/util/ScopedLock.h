// Holds a Mutex or RecursiveMutex from its construction to the end of its
// scope; the thread-safety build knows the lock is held in between.
//
// Lock rules: it takes the lock in its constructor and releases it in its
// destructor; it is never copied or moved.
#ifndef BRVO_UTIL_SCOPEDLOCK_H
#define BRVO_UTIL_SCOPEDLOCK_H

#include "util/ThreadAnnotations.h"

namespace brvo {

template <typename M>
class SCOPED_CAPABILITY ScopedLock {
public:
    // Takes `mutex` (waits for it).
    explicit ScopedLock(M& mutex) ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
    // Releases it.
    ~ScopedLock() RELEASE() { mutex_.unlock(); }

    ScopedLock(const ScopedLock&) = delete;
    ScopedLock& operator=(const ScopedLock&) = delete;

private:
    M& mutex_;
};

} // namespace brvo

#endif
