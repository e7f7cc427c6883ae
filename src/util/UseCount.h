// Counts the users of an object that is deleted from another thread: the
// deleter waits, for a bounded time, until no user is left. Thread-safe;
// mutex_ is a leaf lock.
#ifndef BRVO_UTIL_USECOUNT_H
#define BRVO_UTIL_USECOUNT_H

#include "util/Mutex.h"
#include "util/ThreadAnnotations.h"

#include <Poco/Condition.h>

namespace brvo {

class UseCount {
public:
    UseCount();

    // One more user.
    void Enter() EXCLUDES(mutex_);
    // One user fewer; wakes WaitUnused when none is left.
    void Leave() EXCLUDES(mutex_);
    // Waits up to `ms` for every user to leave; true when none is left.
    bool WaitUnused(long ms) EXCLUDES(mutex_);

private:
    UseCount(const UseCount&) = delete;
    UseCount& operator=(const UseCount&) = delete;

    Mutex mutex_;
    // Waited on with mutex_ held (Poco::Condition releases and takes it
    // again through its lock and unlock).
    Poco::Condition unused_;
    int users_ GUARDED_BY(mutex_);
};

} // namespace brvo

#endif
