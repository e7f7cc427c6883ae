#include "schedule/Alarm.h"

#include "support/SimulatedTime.h"
#include "util/CancelEvent.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

namespace brvo {
namespace {

const std::int64_t kStart = 1800000000LL * 1000000;

class AlarmTest : public ::testing::Test {
protected:
    AlarmTest() : time_(kStart), lane_(time_.NewLane()), alarm_(lane_, time_) {}
    ~AlarmTest() override { alarm_.Retire(); }

    // A tick that notes the monotonic time (in ms) it ran at.
    Alarm::Step Noting() {
        return [this](const Alarm::Run&) { ticks_.push_back(time_.MonotonicMicroseconds() / 1000); };
    }

    test::SimulatedTime time_;
    TimerService& lane_;
    Alarm alarm_;
    std::vector<std::int64_t> ticks_;
};

TEST_F(AlarmTest, TicksEveryIntervalFirstAfterOne) {
    alarm_.Start(1000, Noting());
    time_.Advance(3500);
    EXPECT_EQ((std::vector<std::int64_t>{1000, 2000, 3000}), ticks_);
    EXPECT_TRUE(alarm_.EverStarted());
}

TEST_F(AlarmTest, StopEndsTheTicksAndClearsTheDueTime) {
    const Alarm::Run run = alarm_.Start(1000, Noting());
    alarm_.SetDue(kStart + 5000000);
    time_.Advance(1500);
    alarm_.Stop();
    time_.Advance(5000);
    EXPECT_EQ(1u, ticks_.size());
    EXPECT_EQ(-1, alarm_.Due());
    EXPECT_TRUE(run->IsSet());
    EXPECT_FALSE(alarm_.IsCurrent(run));
}

TEST_F(AlarmTest, StartEndsTheRunBefore) {
    const Alarm::Run first = alarm_.Start(1000, Noting());
    const Alarm::Run second = alarm_.Start(3000, Noting());
    EXPECT_TRUE(first->IsSet());
    EXPECT_TRUE(alarm_.IsCurrent(second));
    time_.Advance(3500);
    EXPECT_EQ((std::vector<std::int64_t>{3000}), ticks_);
}

// A stop that lands while the run's flow is under way wins over the flow's
// plan for its next time.
TEST_F(AlarmTest, ADueTimeForAnEndedRunIsNotSet) {
    const Alarm::Run run = alarm_.Start(1000, Noting());
    alarm_.Stop();
    EXPECT_FALSE(alarm_.SetDueFor(run, kStart + 1000000));
    EXPECT_EQ(-1, alarm_.Due());
    EXPECT_EQ(nullptr, alarm_.StartFor(run, 1000, Noting(), kStart));
    time_.Advance(5000);
    EXPECT_TRUE(ticks_.empty());
}

TEST_F(AlarmTest, DeferredStepRunsAtItsDelayInsteadOfTheTicks) {
    std::vector<std::int64_t> deferred;
    alarm_.Start(1000, [&](const Alarm::Run& run) {
        ticks_.push_back(time_.MonotonicMicroseconds() / 1000);
        if (ticks_.size() == 1) {
            alarm_.DeferFor(run, kStart + 60000000, 2500, [&](const Alarm::Run& then) {
                EXPECT_FALSE(then->IsSet());
                deferred.push_back(time_.MonotonicMicroseconds() / 1000);
            });
        }
    });
    time_.Advance(5000);
    EXPECT_EQ((std::vector<std::int64_t>{3500}), deferred);
    // No tick while the step waited; they go on afterwards.
    EXPECT_EQ((std::vector<std::int64_t>{1000, 4000, 5000}), ticks_);
}

TEST_F(AlarmTest, DeferredStepRunsEarlyWhenTheWallClockReachesItsTime) {
    std::vector<std::int64_t> deferred;
    const Alarm::Run quiet = alarm_.QuietFor(alarm_.Start(1000, Noting()));
    ASSERT_NE(nullptr, quiet);
    alarm_.DeferFor(quiet, kStart + 300000000, 300000,
                    [&](const Alarm::Run&) { deferred.push_back(time_.MonotonicMicroseconds() / 1000); });
    time_.Advance(2000);
    time_.StepWall(300000000);
    time_.Advance(1500);
    ASSERT_EQ(1u, deferred.size());
    EXPECT_LE(deferred[0], 3500);
    EXPECT_TRUE(ticks_.empty());
}

TEST_F(AlarmTest, DeferredStepOfAStoppedRunRunsOnceCancelled) {
    std::vector<bool> cancelled;
    const Alarm::Run quiet = alarm_.QuietFor(alarm_.Start(1000, Noting()));
    alarm_.DeferFor(quiet, kStart + 60000000, 5000, [&](const Alarm::Run& run) { cancelled.push_back(run->IsSet()); });
    alarm_.Stop();
    time_.Advance(10000);
    EXPECT_EQ((std::vector<bool>{true}), cancelled);
}

TEST_F(AlarmTest, QuietForAnEndedRunBeginsNothing) {
    const Alarm::Run run = alarm_.Start(1000, Noting());
    const Alarm::Run next = alarm_.Start(1000, Noting());
    EXPECT_EQ(nullptr, alarm_.QuietFor(run));
    EXPECT_TRUE(alarm_.IsCurrent(next));
}

TEST_F(AlarmTest, RetiredAlarmStartsNoMore) {
    alarm_.Retire();
    const Alarm::Run run = alarm_.Start(1000, Noting());
    EXPECT_TRUE(run->IsSet());
    time_.Advance(5000);
    EXPECT_TRUE(ticks_.empty());
    EXPECT_EQ(-1, time_.NextWake());
}

} // namespace
} // namespace brvo
