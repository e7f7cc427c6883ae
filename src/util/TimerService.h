// One lane of timed work: at most one wake is pending, and its task runs on
// the lane's own thread, one task at a time. An Alarm drives one lane.
//
// The lane also watches the wall clock: when it has been stepped (set
// forward or back), the clock-step handler runs on the lane's thread before
// the next task, so that due times kept on the wall clock can be planned
// again at once.
//
// The daemon uses ThreadTimerService; tests and the simulation use lanes of
// a simulated time that runs without waiting. Implementations are
// thread-safe; a task may call WakeAfter and CancelWake of its own lane.
#ifndef BRVO_UTIL_TIMERSERVICE_H
#define BRVO_UTIL_TIMERSERVICE_H

#include <cstdint>
#include <functional>

namespace brvo {

class TimerService {
public:
    typedef std::function<void()> Task;
    // Given the step of the wall clock against the monotonic clock, in
    // microseconds (negative when it was set back).
    typedef std::function<void(std::int64_t)> StepHandler;

    virtual ~TimerService();

    // Runs `task` once `delayMs` milliseconds have passed on the monotonic
    // clock (0 or less: as soon as the lane is free). Replaces a wake that
    // has not run yet.
    virtual void WakeAfter(std::int64_t delayMs, const Task& task) = 0;
    // Drops the pending wake. A task running now is not waited for.
    virtual void CancelWake() = 0;
    // Sets the handler of wall-clock steps (empty: none).
    virtual void OnClockStep(const StepHandler& handler) = 0;
};

} // namespace brvo

#endif
