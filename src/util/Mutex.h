// A non-recursive mutex the thread-safety build checks: members marked
// GUARDED_BY(a Mutex) are read and written only with it held. It is the
// same lock as before (Poco::FastMutex), only annotated.
//
// Lock rules: locking it again on the thread that holds it is not allowed
// (it deadlocks). It is held through a ScopedLock; lock and unlock are
// there for Poco::Condition's waits (which release and take it again by
// those names) and for ScopedLock.
#ifndef BRVO_UTIL_MUTEX_H
#define BRVO_UTIL_MUTEX_H

#include "util/ThreadAnnotations.h"

#include <Poco/Mutex.h>

namespace brvo {

class CAPABILITY("mutex") Mutex {
public:
    Mutex() = default;

    // Waits for and takes the lock.
    void lock() ACQUIRE() { mutex_.lock(); }
    // Releases the lock, held by the caller.
    void unlock() RELEASE() { mutex_.unlock(); }
    // Tells the analysis that the caller holds the lock, in a callback run
    // under it; does nothing at run time.
    void AssertHeld() const ASSERT_CAPABILITY(this) {}

private:
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;

    Poco::FastMutex mutex_;
};

} // namespace brvo

#endif
