// A manual-reset event for cancelling waits: once set it stays set, and
// every wait on it ends at once.
//
// Waits are measured on the monotonic clock (poll on an eventfd), so setting
// the wall clock, which a logger without a battery-backed clock does late,
// neither shortens nor stretches them. Set is async-signal-safe.
// Thread-safe.
#ifndef BRVO_UTIL_CANCELEVENT_H
#define BRVO_UTIL_CANCELEVENT_H

#include <atomic>
#include <cstdint>

namespace brvo {

class CancelEvent {
public:
    CancelEvent();
    ~CancelEvent();

    // Sets the event and wakes every waiter.
    void Set();
    // Whether the event is set.
    bool IsSet() const { return set_; }
    // Waits up to `ms` milliseconds; true when the event is (or became) set.
    bool Wait(std::int64_t ms) const;

private:
    CancelEvent(const CancelEvent&) = delete;
    CancelEvent& operator=(const CancelEvent&) = delete;

    // -1 when the process had no descriptor left; waits then sleep in
    // short steps.
    int fd_;
    std::atomic<bool> set_;
};

} // namespace brvo

#endif
