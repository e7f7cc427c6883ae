#include "schedule/RetryPolicy.h"

#include <gtest/gtest.h>

namespace brvo {
namespace {

const std::int64_t kNow = 1800000000;
const std::int64_t kHour = 3600;
const std::int64_t kDay = 86400;

TEST(RetryPolicyTest, ServerTimeAheadWithinADayIsKept) {
    EXPECT_EQ(kNow + 5 * kHour, RetryPolicy::SteppedServerTime(kNow + 5 * kHour, kNow));
    EXPECT_EQ(kNow + kDay, RetryPolicy::SteppedServerTime(kNow + kDay, kNow));
}

TEST(RetryPolicyTest, ServerTimePassedStepsOnByHalfHours) {
    EXPECT_EQ(kNow + 600, RetryPolicy::SteppedServerTime(kNow - 1200, kNow));
    EXPECT_EQ(kNow + 1800, RetryPolicy::SteppedServerTime(kNow, kNow));
    EXPECT_EQ(kNow + 1800, RetryPolicy::SteppedServerTime(-1, kNow));
}

// The next server day at the plant's time, asked before that time of day:
// the same time of day, a day sooner.
TEST(RetryPolicyTest, ServerTimeMoreThanADayAheadComesNearerByWholeDays) {
    EXPECT_EQ(kNow + 3 * kHour, RetryPolicy::SteppedServerTime(kNow + kDay + 3 * kHour, kNow));
    EXPECT_EQ(kNow + 1, RetryPolicy::SteppedServerTime(kNow + kDay + 1, kNow));
    // A clock set back by three days.
    EXPECT_EQ(kNow + 20 * kHour, RetryPolicy::SteppedServerTime(kNow + 3 * kDay + 20 * kHour, kNow));
}

TEST(RetryPolicyTest, NoFailureIsNeverMoreThanADayAway) {
    const RetryPolicy::History none;
    for (std::int64_t ahead = 0; ahead <= 5 * kDay; ahead += 1234) {
        const std::int64_t next = RetryPolicy::NextUpdateAttempt(none, "12345", kNow, kNow + ahead);
        EXPECT_GT(next, kNow) << ahead;
        EXPECT_LE(next, kNow + RetryPolicy::kMaxDelaySeconds) << ahead;
        if (ahead > kDay) {
            EXPECT_EQ(0, (kNow + ahead - next) % kDay) << ahead;
        }
    }
}

} // namespace
} // namespace brvo
