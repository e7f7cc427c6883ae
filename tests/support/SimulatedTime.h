// Simulated time for the schedule manager's tests and the simulation: a
// wall and a monotonic clock that move only when told, and timer lanes whose
// wakes run, in time order, on the thread that advances the time. Nothing
// waits for real time to pass.
//
// Thread-safe: lanes may be given wakes from any thread; wakes and clock-step
// handlers run on the thread that calls Advance or StepWall.
#ifndef BRVO_TESTS_SUPPORT_SIMULATEDTIME_H
#define BRVO_TESTS_SUPPORT_SIMULATEDTIME_H

#include "util/Clock.h"
#include "util/TimerService.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

namespace brvo {
namespace test {

class SimulatedLane;

class SimulatedTime : public Clock {
public:
    // Starts at `wallMicros` on the wall clock, 0 on the monotonic one.
    explicit SimulatedTime(std::int64_t wallMicros);
    ~SimulatedTime() override;

    std::int64_t WallMicroseconds() const override;
    std::int64_t MonotonicMicroseconds() const override;

    // A new lane on this time; it lives as long as the time.
    TimerService& NewLane();

    // Lets `ms` milliseconds pass, running every wake that falls due on
    // the way at its own time.
    void Advance(std::int64_t ms);
    // Lets time pass until `done` holds (checked after each wake) or
    // `maxMs` has passed; whether `done` held.
    bool AdvanceUntil(const std::function<bool()>& done, std::int64_t maxMs);
    // Steps the wall clock by `micros` (negative: back) and runs every
    // lane's clock-step handler.
    void StepWall(std::int64_t micros);
    // Runs the wakes due now (after a step, say) without moving the clock.
    void RunDue();
    // The monotonic time of the earliest pending wake; -1 when none.
    std::int64_t NextWake() const;

private:
    friend class SimulatedLane;

    SimulatedTime(const SimulatedTime&) = delete;
    SimulatedTime& operator=(const SimulatedTime&) = delete;

    bool RunNextBefore(std::int64_t limit);

    mutable std::mutex mutex_;
    std::int64_t monotonic_;
    std::int64_t wallOffset_;
    std::vector<std::unique_ptr<SimulatedLane>> lanes_;
};

// One lane of a SimulatedTime.
class SimulatedLane : public TimerService {
public:
    explicit SimulatedLane(SimulatedTime& time);

    void WakeAfter(std::int64_t delayMs, const Task& task) override;
    void CancelWake() override;
    void OnClockStep(const StepHandler& handler) override;

private:
    friend class SimulatedTime;

    SimulatedTime& time_;
    // Under the time's mutex.
    bool pending_;
    std::int64_t due_;
    std::uint64_t order_;
    Task task_;
    StepHandler stepHandler_;
};

} // namespace test
} // namespace brvo

#endif
