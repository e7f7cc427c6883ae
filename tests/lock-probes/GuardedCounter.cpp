// A counter guarded by its mutex. Built as it is, every read holds the
// lock; with PVOCD_PROBE_UNGUARDED, Read reads the counter without it, a
// broken lock rule that the thread-safety build must refuse.
#include "util/Mutex.h"
#include "util/ScopedLock.h"
#include "util/ThreadAnnotations.h"

namespace {

class GuardedCounter {
public:
    // One more.
    void Add() EXCLUDES(mutex_) {
        brvo::ScopedLock lock(mutex_);
        ++count_;
    }
    // The count now.
    int Read() const EXCLUDES(mutex_) {
#ifndef PVOCD_PROBE_UNGUARDED
        brvo::ScopedLock lock(mutex_);
#endif
        return count_;
    }

private:
    mutable brvo::Mutex mutex_;
    int count_ GUARDED_BY(mutex_) = 0;
};

} // namespace

int CountOnce();

int CountOnce() {
    GuardedCounter counter;
    counter.Add();
    return counter.Read();
}
