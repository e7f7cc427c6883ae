// The daemon's timer lane: a thread of its own (not a shared pool, so that
// a lane never waits on another's work) that sleeps in poll() until the
// pending wake is due on the monotonic clock, or until it is told of a new
// wake, or of a stop.
//
// Steps of the wall clock are seen two ways: a timerfd armed with
// TFD_TIMER_CANCEL_ON_SET reports every setting of the system clock at
// once, and at every wake (at least every kLongestSleepMs) the offset
// between the wall and the monotonic clock is compared with the last one;
// a change of more than kStepToleranceMs counts as a step. The second way
// also sees a wall clock that is moved without the kernel (a faked clock
// in tests).
//
// Lock rules: mutex_ guards the wake, the handler and the stop flag; it is
// never held while a task or the handler runs.
#ifndef BRVO_UTIL_THREADTIMERSERVICE_H
#define BRVO_UTIL_THREADTIMERSERVICE_H

#include "util/Mutex.h"
#include "util/ThreadAnnotations.h"
#include "util/TimerService.h"

#include <Poco/Runnable.h>
#include <Poco/Thread.h>

#include <cstdint>
#include <string>

namespace brvo {

class Clock;

class ThreadTimerService : public TimerService, private Poco::Runnable {
public:
    // Longest sleep between two looks at the wall clock.
    static constexpr int kLongestSleepMs = 5000;
    // A change of the wall clock's offset beyond this counts as a step.
    static constexpr std::int64_t kStepToleranceMs = 2000;

    // Starts the lane's thread, named `name`. When the thread cannot be
    // started, the failure is logged and each WakeAfter tries again.
    ThreadTimerService(Clock& clock, const std::string& name);
    // Stops and joins the thread; a running task is finished first.
    ~ThreadTimerService() override;

    void WakeAfter(std::int64_t delayMs, const Task& task) override EXCLUDES(mutex_);
    void CancelWake() override EXCLUDES(mutex_);
    void OnClockStep(const StepHandler& handler) override EXCLUDES(mutex_);

private:
    ThreadTimerService(const ThreadTimerService&) = delete;
    ThreadTimerService& operator=(const ThreadTimerService&) = delete;

    void run() override EXCLUDES(mutex_);
    bool EnsureThread() REQUIRES(mutex_);
    void Notify();
    int SleepMsLocked() const REQUIRES(mutex_);
    void ArmClockSetWatch();
    void DrainClockSetWatch();
    std::int64_t Offset() const;
    void CheckClockStep() EXCLUDES(mutex_);

    Clock& clock_;
    std::string name_;
    Poco::Thread thread_;
    int eventFd_;
    int clockSetFd_;

    Mutex mutex_;
    bool started_ GUARDED_BY(mutex_);
    bool stopping_ GUARDED_BY(mutex_);
    bool pending_ GUARDED_BY(mutex_);
    std::int64_t dueMonotonic_ GUARDED_BY(mutex_);
    Task task_ GUARDED_BY(mutex_);
    StepHandler stepHandler_ GUARDED_BY(mutex_);
    // Only on the lane's thread.
    std::int64_t lastOffset_;
};

} // namespace brvo

#endif
