// Counts the users of an object that is deleted from another thread: the
// deleter waits, for a bounded time, until no user is left. Thread-safe;
// mutex_ is a leaf lock.
#ifndef BRVO_UTIL_USECOUNT_H
#define BRVO_UTIL_USECOUNT_H

#include <Poco/Condition.h>
#include <Poco/Mutex.h>

namespace brvo {

class UseCount {
public:
    UseCount();

    // One more user.
    void Enter();
    // One user fewer; wakes WaitUnused when none is left.
    void Leave();
    // Waits up to `ms` for every user to leave; true when none is left.
    bool WaitUnused(long ms);

private:
    UseCount(const UseCount&) = delete;
    UseCount& operator=(const UseCount&) = delete;

    Poco::FastMutex mutex_;
    Poco::Condition unused_;
    int users_;
};

} // namespace brvo

#endif
