#include "schedule/RetryPolicy.h"

#include "schedule/UpdateResult.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <set>
#include <string>
#include <vector>

namespace brvo {
namespace {

using History = RetryPolicy::History;

const std::int64_t kHour = 3600;
const std::int64_t kHalfHour = 1800;
const std::int64_t kDay = 86400;
// 2022-01-19 03:10:00 UTC.
const std::int64_t kNow = 1642561800;
const std::string kPlant = "00000000000000000000000042";

const std::vector<FailureReason> kRetryableReasons = {FailureReason::kAccessFailed, FailureReason::kPayloadInvalid,
                                                      FailureReason::kNoSlots, FailureReason::kException};
const std::vector<FailureReason> kPermanentReasons = {FailureReason::kNone,
                                                      FailureReason::kResponseUnparsable,
                                                      FailureReason::kDatabaseWriteFailed,
                                                      FailureReason::kPlantIdNotRegistered,
                                                      FailureReason::kPlantIdMismatch,
                                                      FailureReason::kFileNotFound};

UpdateResult Failure(FailureReason reason, std::int32_t status) {
    return UpdateResult(reason, status, "failed");
}

UpdateResult RetryableFailure() {
    return Failure(FailureReason::kAccessFailed, 0);
}

UpdateResult PermanentFailure() {
    return Failure(FailureReason::kPlantIdNotRegistered, 404);
}

UpdateResult FailureWithRetryAfter(std::int32_t status, std::int64_t seconds) {
    UpdateResult result = Failure(FailureReason::kAccessFailed, status);
    result.SetRetryAfterSeconds(seconds);
    return result;
}

// The history after `count` results like `result`, from none.
History After(const UpdateResult& result, int count) {
    History history;
    for (int i = 0; i < count; ++i) history = RetryPolicy::Record(history, result);
    return history;
}

std::string PlantId(int number) {
    std::string digits = std::to_string(number);
    return std::string(26 - digits.size(), '0') + digits;
}

// Every kind of history the policy may see: each kind of failure from 1 to
// 12 in a row, and those with a Retry-After of each size.
std::vector<History> ManyHistories() {
    std::vector<History> histories;
    for (int count = 1; count <= 12; ++count) {
        histories.push_back(After(RetryableFailure(), count));
        histories.push_back(After(PermanentFailure(), count));
        for (const std::int64_t retryAfter : {0, 1, 29, 30, 600, 86400, 86401, 10 * 86400})
            histories.push_back(After(FailureWithRetryAfter(503, retryAfter), count));
    }
    return histories;
}

// --- IsRetryable ---

struct StatusCase {
    std::int32_t status;
    bool retryable;
};

TEST(RetryPolicyTest, SuccessIsNotRetryable) {
    EXPECT_FALSE(RetryPolicy::IsRetryable(UpdateResult()));
}

TEST(RetryPolicyTest, StatusClassDecidesAtEveryEdgeWhateverTheReason) {
    const std::vector<StatusCase> cases = {{100, true}, {199, true},  {200, false}, {299, false}, {300, true},
                                           {399, true}, {400, false}, {499, false}, {500, true},  {599, true}};
    std::vector<FailureReason> reasons = kRetryableReasons;
    reasons.insert(reasons.end(), kPermanentReasons.begin(), kPermanentReasons.end());
    for (const StatusCase& c : cases) {
        for (const FailureReason reason : reasons) {
            EXPECT_EQ(c.retryable, RetryPolicy::IsRetryable(Failure(reason, c.status)))
                << "status " << c.status << " reason " << ToWire(reason);
        }
    }
}

TEST(RetryPolicyTest, OutsideTheStatusClassesTheReasonDecides) {
    for (const std::int32_t status : {-1, 0, 99, 600, 1000}) {
        for (const FailureReason reason : kRetryableReasons) {
            EXPECT_TRUE(RetryPolicy::IsRetryable(Failure(reason, status)))
                << "status " << status << " reason " << ToWire(reason);
        }
        for (const FailureReason reason : kPermanentReasons) {
            EXPECT_FALSE(RetryPolicy::IsRetryable(Failure(reason, status)))
                << "status " << status << " reason " << ToWire(reason);
        }
    }
}

// --- Record ---

TEST(RetryPolicyTest, RecordCountsFailuresOfEachKind) {
    History history = After(RetryableFailure(), 3);
    EXPECT_EQ(3, history.failures);
    EXPECT_EQ(3, history.retryableFailures);
    EXPECT_EQ(0, history.permanentFailures);
    EXPECT_TRUE(history.lastRetryable);
    EXPECT_EQ(-1, history.retryAfterSeconds);

    history = RetryPolicy::Record(history, PermanentFailure());
    history = RetryPolicy::Record(history, PermanentFailure());
    EXPECT_EQ(5, history.failures);
    EXPECT_EQ(0, history.retryableFailures);
    EXPECT_EQ(2, history.permanentFailures);
    EXPECT_FALSE(history.lastRetryable);

    history = RetryPolicy::Record(history, RetryableFailure());
    EXPECT_EQ(6, history.failures);
    EXPECT_EQ(1, history.retryableFailures);
    EXPECT_EQ(0, history.permanentFailures);
    EXPECT_TRUE(history.lastRetryable);
}

TEST(RetryPolicyTest, RecordOfSuccessClearsTheHistory) {
    History history = After(PermanentFailure(), 2);
    history = RetryPolicy::Record(history, FailureWithRetryAfter(503, 120));
    const History cleared = RetryPolicy::Record(history, UpdateResult());
    EXPECT_EQ(0, cleared.failures);
    EXPECT_EQ(0, cleared.retryableFailures);
    EXPECT_EQ(0, cleared.permanentFailures);
    EXPECT_FALSE(cleared.lastRetryable);
    EXPECT_EQ(-1, cleared.retryAfterSeconds);
    EXPECT_EQ(0, RetryPolicy::BackOffSeconds(cleared));
}

TEST(RetryPolicyTest, RecordTakesTheLastFailuresRetryAfter) {
    History history = RetryPolicy::Record(History(), FailureWithRetryAfter(429, 120));
    EXPECT_EQ(120, history.retryAfterSeconds);
    EXPECT_FALSE(history.lastRetryable);
    history = RetryPolicy::Record(history, FailureWithRetryAfter(503, 900));
    EXPECT_EQ(900, history.retryAfterSeconds);
    // A failure that names none drops the one before.
    history = RetryPolicy::Record(history, RetryableFailure());
    EXPECT_EQ(-1, history.retryAfterSeconds);
}

// --- BackOffSeconds ---

TEST(RetryPolicyTest, NoFailureNoBackOff) {
    EXPECT_EQ(0, RetryPolicy::BackOffSeconds(History()));
}

TEST(RetryPolicyTest, RetryableBackOffDoublesFromHalfAnHourToSixHours) {
    const std::vector<std::int64_t> expected = {kHalfHour, kHour,     2 * kHour, 4 * kHour, 6 * kHour,
                                                6 * kHour, 6 * kHour, 6 * kHour, 6 * kHour, 6 * kHour};
    for (std::size_t i = 0; i < expected.size(); ++i) {
        EXPECT_EQ(expected[i], RetryPolicy::BackOffSeconds(After(RetryableFailure(), static_cast<int>(i) + 1)))
            << "after " << i + 1 << " failures";
    }
    EXPECT_EQ(6 * kHour, RetryPolicy::BackOffSeconds(After(RetryableFailure(), 1000)));
}

TEST(RetryPolicyTest, PermanentBackOffDoublesFromSixHoursToADay) {
    const std::vector<std::int64_t> expected = {6 * kHour, 12 * kHour, 24 * kHour, 24 * kHour, 24 * kHour};
    for (std::size_t i = 0; i < expected.size(); ++i) {
        EXPECT_EQ(expected[i], RetryPolicy::BackOffSeconds(After(PermanentFailure(), static_cast<int>(i) + 1)))
            << "after " << i + 1 << " failures";
    }
    EXPECT_EQ(24 * kHour, RetryPolicy::BackOffSeconds(After(PermanentFailure(), 1000)));
}

TEST(RetryPolicyTest, AChangeOfKindStartsTheOtherSequenceAfresh) {
    History history = After(PermanentFailure(), 3);
    history = RetryPolicy::Record(history, RetryableFailure());
    EXPECT_EQ(kHalfHour, RetryPolicy::BackOffSeconds(history));
    history = After(RetryableFailure(), 5);
    history = RetryPolicy::Record(history, PermanentFailure());
    EXPECT_EQ(6 * kHour, RetryPolicy::BackOffSeconds(history));
}

TEST(RetryPolicyTest, RetryAfterIsTheBackOffHeldWithinThirtySecondsAndADay) {
    const std::vector<std::pair<std::int64_t, std::int64_t>> cases = {
        {0, 30}, {1, 30}, {29, 30}, {30, 30}, {31, 31}, {7200, 7200}, {86400, 86400}, {86401, 86400}};
    for (const auto& c : cases) {
        EXPECT_EQ(c.second, RetryPolicy::BackOffSeconds(After(FailureWithRetryAfter(503, c.first), 4)))
            << "Retry-After " << c.first;
        EXPECT_EQ(c.second, RetryPolicy::BackOffSeconds(After(FailureWithRetryAfter(429, c.first), 4)))
            << "Retry-After " << c.first;
    }
}

// --- SpreadSeconds ---

TEST(RetryPolicyTest, SpreadStaysWithinItsShareOfTheDelay) {
    for (int plant = 0; plant < 2000; ++plant) {
        for (const std::int64_t delay : {1, 2, 3, 100, 1800, 3600, 21600, 86400}) {
            const std::int64_t spread = RetryPolicy::SpreadSeconds(PlantId(plant), delay);
            EXPECT_GE(spread, 0);
            EXPECT_LE(spread, delay * RetryPolicy::kSpreadPercent / 100) << "plant " << plant << " delay " << delay;
        }
    }
}

TEST(RetryPolicyTest, NoDelayNoSpread) {
    EXPECT_EQ(0, RetryPolicy::SpreadSeconds(kPlant, 0));
    EXPECT_EQ(0, RetryPolicy::SpreadSeconds(kPlant, -1800));
}

TEST(RetryPolicyTest, SpreadIsTheSameEveryTimeForOnePlant) {
    for (const std::int64_t delay : {1800, 3600, 21600}) {
        const std::int64_t first = RetryPolicy::SpreadSeconds(kPlant, delay);
        for (int i = 0; i < 5; ++i) EXPECT_EQ(first, RetryPolicy::SpreadSeconds(kPlant, delay));
        EXPECT_EQ(first, RetryPolicy::SpreadSeconds(std::string(kPlant), delay));
    }
}

TEST(RetryPolicyTest, SpreadDiffersAcrossPlantsAndCoversItsRange) {
    const std::int64_t delay = kHalfHour;
    const std::int64_t span = delay * RetryPolicy::kSpreadPercent / 100;
    const int kPlants = 1000;
    const int kBuckets = 10;
    std::set<std::int64_t> distinct;
    std::vector<int> buckets(kBuckets, 0);
    for (int plant = 0; plant < kPlants; ++plant) {
        const std::int64_t spread = RetryPolicy::SpreadSeconds(PlantId(plant), delay);
        distinct.insert(spread);
        ++buckets[static_cast<std::size_t>(std::min<std::int64_t>(spread * kBuckets / (span + 1), kBuckets - 1))];
    }
    // Plants that differ only in their last digits still land apart: most
    // seconds of the span are distinct, and every tenth of it is used about
    // evenly.
    EXPECT_GT(distinct.size(), static_cast<std::size_t>(kPlants / 2));
    for (int i = 0; i < kBuckets; ++i) {
        EXPECT_GT(buckets[static_cast<std::size_t>(i)], kPlants / kBuckets / 2) << "tenth " << i;
        EXPECT_LT(buckets[static_cast<std::size_t>(i)], kPlants / kBuckets * 2) << "tenth " << i;
    }
}

TEST(RetryPolicyTest, SpreadOfAGivenShareStaysWithinItAndNoneAtZero) {
    for (int plant = 0; plant < 500; ++plant) {
        const std::string id = PlantId(plant);
        for (const int percent : {1, 10, 100, 300}) {
            const std::int64_t spread = RetryPolicy::SpreadSeconds(id, kHour, percent);
            EXPECT_GE(spread, 0);
            EXPECT_LE(spread, kHour * percent / 100) << "plant " << plant << " percent " << percent;
        }
        EXPECT_EQ(0, RetryPolicy::SpreadSeconds(id, kHour, 0));
        EXPECT_EQ(0, RetryPolicy::SpreadSeconds(id, kHour, -50));
        EXPECT_EQ(RetryPolicy::SpreadSeconds(id, kHour),
                  RetryPolicy::SpreadSeconds(id, kHour, RetryPolicy::kSpreadPercent));
    }
}

// --- SteppedServerTime ---

TEST(RetryPolicyTest, ServerTimeHoursPastStepsOntoItsOwnGridJustAfterNow) {
    for (std::int64_t past = 1; past <= 30 * kHour; past += 7 * 60 + 13) {
        const std::int64_t server = kNow - past;
        const std::int64_t next = RetryPolicy::SteppedServerTime(server, kNow);
        EXPECT_GT(next, kNow) << "server time " << past << " s past";
        EXPECT_LE(next, kNow + kHalfHour) << "server time " << past << " s past";
        EXPECT_EQ(0, (next - server) % kHalfHour) << "server time " << past << " s past";
    }
}

TEST(RetryPolicyTest, ServerTimeFiveHoursAndAQuarterPastLandsAQuarterHourOn) {
    // 21:55 when now is 03:10 five hours on: 03:25, not 22:25.
    const std::int64_t server = kNow - 5 * kHour - 15 * 60;
    EXPECT_EQ(kNow + 15 * 60, RetryPolicy::SteppedServerTime(server, kNow));
}

TEST(RetryPolicyTest, ServerTimeExactlyNowOrOnTheGridBeforeStepsOnce) {
    EXPECT_EQ(kNow + kHalfHour, RetryPolicy::SteppedServerTime(kNow, kNow));
    EXPECT_EQ(kNow + kHalfHour, RetryPolicy::SteppedServerTime(kNow - 4 * kHour, kNow));
}

TEST(RetryPolicyTest, ServerTimeInTheFutureIsKept) {
    EXPECT_EQ(kNow + 1, RetryPolicy::SteppedServerTime(kNow + 1, kNow));
    // Days ahead: the same time of day, within a day.
    EXPECT_EQ(kNow + 86400, RetryPolicy::SteppedServerTime(kNow + 3 * 86400, kNow));
}

TEST(RetryPolicyTest, NoServerTimeIsHalfAnHourFromNow) {
    EXPECT_EQ(kNow + kHalfHour, RetryPolicy::SteppedServerTime(-1, kNow));
}

// --- NextUpdateAttempt ---

TEST(RetryPolicyTest, WithoutFailureTheSteppedServerTimeIsNext) {
    EXPECT_EQ(kNow + 600, RetryPolicy::NextUpdateAttempt(History(), kPlant, kNow, kNow + 600));
    EXPECT_EQ(kNow + 15 * 60, RetryPolicy::NextUpdateAttempt(History(), kPlant, kNow, kNow - 5 * kHour - 15 * 60));
    EXPECT_EQ(kNow + kHalfHour, RetryPolicy::NextUpdateAttempt(History(), kPlant, kNow, -1));
}

TEST(RetryPolicyTest, AfterASuccessNeverMoreThanADayAway) {
    // A server's next time three days (or years) ahead.
    EXPECT_EQ(kNow + RetryPolicy::kMaxDelaySeconds,
              RetryPolicy::NextUpdateAttempt(History(), "7", kNow, kNow + 3 * 86400));
    EXPECT_EQ(kNow + 3600, RetryPolicy::NextUpdateAttempt(History(), "7", kNow, kNow + 3600));
}

TEST(RetryPolicyTest, RetryableBackOffNeverBeyondSixHours) {
    for (int plant = 0; plant < 200; ++plant) {
        for (int failures = 1; failures <= 12; ++failures) {
            const std::int64_t next =
                RetryPolicy::NextUpdateAttempt(After(RetryableFailure(), failures), PlantId(plant), kNow, -1);
            EXPECT_LE(next, kNow + RetryPolicy::kRetryCapSeconds);
            EXPECT_GE(next, kNow + RetryPolicy::kRetryBaseSeconds);
        }
    }
}

TEST(RetryPolicyTest, AfterFailuresNeverMoreThanADayAway) {
    for (const History& history : ManyHistories()) {
        for (int plant = 0; plant < 50; ++plant) {
            for (const std::int64_t server : {std::int64_t{-1}, kNow - kHour, kNow, kNow + 2 * 86400}) {
                const std::int64_t next = RetryPolicy::NextUpdateAttempt(history, PlantId(plant), kNow, server);
                EXPECT_GT(next, kNow);
                EXPECT_LE(next, kNow + RetryPolicy::kMaxDelaySeconds)
                    << "failures " << history.failures << " plant " << plant;
            }
        }
    }
}

TEST(RetryPolicyTest, AfterFailuresTheBackOffIsSpreadPerPlant) {
    for (int plant = 0; plant < 200; ++plant) {
        for (const History& history : {After(RetryableFailure(), 1), After(RetryableFailure(), 4),
                                       After(RetryableFailure(), 9), After(PermanentFailure(), 1)}) {
            const std::int64_t delay = RetryPolicy::BackOffSeconds(history);
            const std::string id = PlantId(plant);
            // A retryable back-off stays within its 6-hour cap, spread and
            // all; one that is not retryable within a day.
            const std::int64_t cap =
                history.lastRetryable ? RetryPolicy::kRetryCapSeconds : RetryPolicy::kMaxDelaySeconds;
            // Not retryable: a stretch of at most an hour.
            const std::int64_t spread = history.lastRetryable
                                            ? RetryPolicy::SpreadSeconds(id, delay)
                                            : RetryPolicy::SpreadSeconds(id, RetryPolicy::kPermanentSpreadSeconds, 100);
            EXPECT_EQ(kNow + std::min(delay + spread, cap), RetryPolicy::NextUpdateAttempt(history, id, kNow, -1));
        }
    }
}

TEST(RetryPolicyTest, WithoutASpreadTheBackOffIsExact) {
    for (int plant = 0; plant < 200; ++plant) {
        for (const int failures : {1, 2, 3, 4, 5, 9}) {
            const History retryable = After(RetryableFailure(), failures);
            const History permanent = After(PermanentFailure(), failures);
            EXPECT_EQ(kNow + RetryPolicy::BackOffSeconds(retryable),
                      RetryPolicy::NextUpdateAttempt(retryable, PlantId(plant), kNow, -1, 0));
            EXPECT_EQ(kNow + RetryPolicy::BackOffSeconds(permanent),
                      RetryPolicy::NextUpdateAttempt(permanent, PlantId(plant), kNow, -1, 0));
        }
    }
}

TEST(RetryPolicyTest, TheDefaultSpreadIsKSpreadPercent) {
    for (int plant = 0; plant < 200; ++plant) {
        const History history = After(RetryableFailure(), 1 + plant % 6);
        EXPECT_EQ(RetryPolicy::NextUpdateAttempt(history, PlantId(plant), kNow, -1),
                  RetryPolicy::NextUpdateAttempt(history, PlantId(plant), kNow, -1, RetryPolicy::kSpreadPercent));
    }
}

TEST(RetryPolicyTest, TheSpreadDoesNotCarryAPermanentBackOffPastADay) {
    const History history = After(PermanentFailure(), 3);
    for (int plant = 0; plant < 200; ++plant)
        EXPECT_EQ(kNow + 86400, RetryPolicy::NextUpdateAttempt(history, PlantId(plant), kNow, -1));
}

TEST(RetryPolicyTest, RetryAfterIsHeldWithinThirtySecondsAndADayAndNotSpread) {
    const std::vector<std::pair<std::int64_t, std::int64_t>> cases = {
        {0, 30}, {10, 30}, {30, 30}, {45, 45}, {3600, 3600}, {86400, 86400}, {86401, 86400}, {400000, 86400}};
    for (const auto& c : cases) {
        for (int plant = 0; plant < 100; ++plant) {
            const History history = After(FailureWithRetryAfter(503, c.first), 1 + plant % 5);
            EXPECT_EQ(kNow + c.second, RetryPolicy::NextUpdateAttempt(history, PlantId(plant), kNow, -1))
                << "Retry-After " << c.first << " plant " << plant;
        }
    }
}

TEST(RetryPolicyTest, TheServersNextTimeWinsOnlyWhenFutureAndSooner) {
    const History history = After(RetryableFailure(), 3); // two hours and its spread
    const std::int64_t backOff = kNow + 2 * kHour + RetryPolicy::SpreadSeconds(kPlant, 2 * kHour);
    // Sooner and later than now: the server's time.
    EXPECT_EQ(kNow + 1, RetryPolicy::NextUpdateAttempt(history, kPlant, kNow, kNow + 1));
    EXPECT_EQ(kNow + kHour, RetryPolicy::NextUpdateAttempt(history, kPlant, kNow, kNow + kHour));
    EXPECT_EQ(backOff - 1, RetryPolicy::NextUpdateAttempt(history, kPlant, kNow, backOff - 1));
    // Not sooner: the back-off.
    EXPECT_EQ(backOff, RetryPolicy::NextUpdateAttempt(history, kPlant, kNow, backOff));
    EXPECT_EQ(backOff, RetryPolicy::NextUpdateAttempt(history, kPlant, kNow, backOff + 1));
    // Now or past, or none: the back-off, not the server's time stepped on.
    EXPECT_EQ(backOff, RetryPolicy::NextUpdateAttempt(history, kPlant, kNow, kNow));
    EXPECT_EQ(backOff, RetryPolicy::NextUpdateAttempt(history, kPlant, kNow, kNow - 10));
    EXPECT_EQ(backOff, RetryPolicy::NextUpdateAttempt(history, kPlant, kNow, kNow - 5 * kHour - 15 * 60));
    EXPECT_EQ(backOff, RetryPolicy::NextUpdateAttempt(history, kPlant, kNow, -1));
}

TEST(RetryPolicyTest, TheServersNextTimeAlsoWinsOverASoonerRetryAfterOnlyWhenSooner) {
    const History history = After(FailureWithRetryAfter(503, 600), 1);
    EXPECT_EQ(kNow + 300, RetryPolicy::NextUpdateAttempt(history, kPlant, kNow, kNow + 300));
    EXPECT_EQ(kNow + 600, RetryPolicy::NextUpdateAttempt(history, kPlant, kNow, kNow + 900));
}

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
