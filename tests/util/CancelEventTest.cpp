#include "util/CancelEvent.h"

#include "support/TestFiles.h"

#include <gtest/gtest.h>

#include <Poco/Clock.h>
#include <Poco/Thread.h>

#include <chrono>
#include <future>

namespace brvo {
namespace {

// Milliseconds since `start` on the monotonic clock.
long long ElapsedMs(const Poco::Clock& start) {
    return static_cast<long long>(start.elapsed() / 1000);
}

TEST(CancelEventTest, NewEventIsNotSet) {
    const CancelEvent event;
    EXPECT_FALSE(event.IsSet());
}

TEST(CancelEventTest, WaitOnAnUnsetEventTimesOutAfterTheAskedTime) {
    const CancelEvent event;
    const Poco::Clock start;
    EXPECT_FALSE(event.Wait(200));
    // Only a lower bound: a busy machine may wake the waiter late.
    EXPECT_GE(ElapsedMs(start), 200);
    EXPECT_FALSE(event.IsSet());
}

TEST(CancelEventTest, ZeroOrNegativeWaitReturnsAtOnce) {
    CancelEvent event;
    EXPECT_FALSE(event.Wait(0));
    EXPECT_FALSE(event.Wait(-5));
    event.Set();
    EXPECT_TRUE(event.Wait(0));
}

TEST(CancelEventTest, SetBeforeTheWaitEndsItAtOnce) {
    CancelEvent event;
    event.Set();
    EXPECT_TRUE(event.IsSet());
    const Poco::Clock start;
    EXPECT_TRUE(event.Wait(60000));
    EXPECT_LT(ElapsedMs(start), 5000 * test::TimeScale());
}

// The event is manual-reset: a wait never consumes it, so every later wait
// (a retry loop asking again) still sees it set.
TEST(CancelEventTest, StaysSetForEveryLaterWait) {
    CancelEvent event;
    event.Set();
    event.Set();
    for (int i = 0; i < 5; ++i) EXPECT_TRUE(event.Wait(60000));
    EXPECT_TRUE(event.IsSet());
}

TEST(CancelEventTest, SetFromAnotherThreadWakesALongWait) {
    CancelEvent event;
    const Poco::Clock start;
    std::future<bool> woken = std::async(std::launch::async, [&event] { return event.Wait(60000); });
    Poco::Thread::sleep(100);
    event.Set();
    ASSERT_EQ(std::future_status::ready, woken.wait_for(std::chrono::seconds(10 * test::TimeScale())));
    EXPECT_TRUE(woken.get());
    EXPECT_LT(ElapsedMs(start), 10000 * test::TimeScale());
}

TEST(CancelEventTest, OneSetWakesEveryWaiter) {
    CancelEvent event;
    std::future<bool> first = std::async(std::launch::async, [&event] { return event.Wait(60000); });
    std::future<bool> second = std::async(std::launch::async, [&event] { return event.Wait(60000); });
    Poco::Thread::sleep(100);
    event.Set();
    const auto bound = std::chrono::seconds(10 * test::TimeScale());
    ASSERT_EQ(std::future_status::ready, first.wait_for(bound));
    ASSERT_EQ(std::future_status::ready, second.wait_for(bound));
    EXPECT_TRUE(first.get());
    EXPECT_TRUE(second.get());
}

} // namespace
} // namespace brvo
