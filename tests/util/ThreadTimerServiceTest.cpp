#include "util/ThreadTimerService.h"

#include "support/TestFiles.h"
#include "util/Clock.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <future>

namespace brvo {
namespace {

// The system's clocks, with a wall clock that a test can step.
class SteppableClock : public Clock {
public:
    std::int64_t WallMicroseconds() const override { return Clock::System().WallMicroseconds() + offset_; }
    std::int64_t MonotonicMicroseconds() const override { return Clock::System().MonotonicMicroseconds(); }
    void Step(std::int64_t micros) { offset_ += micros; }

private:
    std::atomic<std::int64_t> offset_{0};
};

TEST(ThreadTimerServiceTest, RunsTheWakeOnItsOwnThreadAfterItsDelay) {
    SteppableClock clock;
    ThreadTimerService lane(clock, "TestLane");
    std::promise<std::int64_t> ran;
    const std::int64_t set = clock.MonotonicMicroseconds();
    lane.WakeAfter(50, [&] { ran.set_value(clock.MonotonicMicroseconds()); });
    std::future<std::int64_t> at = ran.get_future();
    ASSERT_EQ(std::future_status::ready, at.wait_for(std::chrono::seconds(10)));
    EXPECT_GE(at.get() - set, 50000);
}

TEST(ThreadTimerServiceTest, ALaterWakeReplacesOneNotYetRun) {
    SteppableClock clock;
    ThreadTimerService lane(clock, "TestLane");
    std::atomic<int> first{0};
    std::promise<void> second;
    lane.WakeAfter(60000, [&] { ++first; });
    lane.WakeAfter(10, [&] { second.set_value(); });
    ASSERT_EQ(std::future_status::ready, second.get_future().wait_for(std::chrono::seconds(10)));
    EXPECT_EQ(0, first.load());
}

TEST(ThreadTimerServiceTest, CancelledWakeNeverRuns) {
    SteppableClock clock;
    std::atomic<int> runs{0};
    {
        ThreadTimerService lane(clock, "TestLane");
        lane.WakeAfter(0, [&] { ++runs; });
        lane.CancelWake();
        lane.WakeAfter(60000, [&] { ++runs; });
        lane.CancelWake();
        // Joined here: a wake still pending would be dropped, one running
        // finished.
    }
    EXPECT_LE(runs.load(), 1);
}

TEST(ThreadTimerServiceTest, AStepOfTheWallClockIsReportedEitherWay) {
    SteppableClock clock;
    ThreadTimerService lane(clock, "TestLane");
    std::mutex mutex;
    std::vector<std::int64_t> steps;
    lane.OnClockStep([&](std::int64_t step) {
        std::lock_guard<std::mutex> lock(mutex);
        steps.push_back(step);
    });
    const auto seen = [&](std::size_t count) {
        return test::WaitFor(
            [&] {
                std::lock_guard<std::mutex> lock(mutex);
                return steps.size() >= count;
            },
            10000);
    };
    clock.Step(-3600LL * 1000000);
    // A wake makes the lane look at once (it looks by itself every few
    // seconds too).
    lane.WakeAfter(0, [] {});
    ASSERT_TRUE(seen(1));
    clock.Step(86400LL * 1000000);
    lane.WakeAfter(0, [] {});
    ASSERT_TRUE(seen(2));
    std::lock_guard<std::mutex> lock(mutex);
    EXPECT_NEAR(-3600e6, static_cast<double>(steps[0]), 1e6);
    EXPECT_NEAR(86400e6, static_cast<double>(steps[1]), 1e6);
}

TEST(ThreadTimerServiceTest, DriftBelowTheToleranceIsNoStep) {
    SteppableClock clock;
    ThreadTimerService lane(clock, "TestLane");
    std::atomic<int> steps{0};
    lane.OnClockStep([&](std::int64_t) { ++steps; });
    clock.Step(ThreadTimerService::kStepToleranceMs * 1000 / 2);
    std::promise<void> ran;
    lane.WakeAfter(0, [&] { ran.set_value(); });
    ASSERT_EQ(std::future_status::ready, ran.get_future().wait_for(std::chrono::seconds(10)));
    EXPECT_EQ(0, steps.load());
}

} // namespace
} // namespace brvo
