#include "util/UseCount.h"

#include "util/ScopedLock.h"

#include <Poco/Clock.h>

namespace brvo {

UseCount::UseCount() : users_(0) {}

void UseCount::Enter() {
    ScopedLock lock(mutex_);
    ++users_;
}

void UseCount::Leave() {
    ScopedLock lock(mutex_);
    if (--users_ == 0) unused_.broadcast();
}

bool UseCount::WaitUnused(long ms) {
    const Poco::Clock start;
    ScopedLock lock(mutex_);
    while (users_ > 0) {
        const long left = ms - static_cast<long>(start.elapsed() / 1000);
        if (left <= 0) return false;
        unused_.tryWait(mutex_, left);
    }
    return true;
}

} // namespace brvo
