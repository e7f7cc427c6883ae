// When the update schedule is asked for next: after a success, after a
// failure worth retrying and after one that is not. A pure function of what
// it is given, so the same rules serve the daemon, its tests and the fleet
// model of a server outage.
//
// The rules, in order:
//  - No failure since the last success: the server's next update time,
//    stepped on by 30 minutes while it is not later than now (a time that
//    does not read counts as now), and brought nearer by whole days while
//    it is more than 24 h away.
//  - The last failure named a Retry-After (a 429 or 503 answer): now plus
//    that many seconds, held within 30 s and 24 h.
//  - Retryable failures (IsRetryable) back off from 30 minutes: 30 min,
//    1 h, 2 h, 4 h, then 6 h.
//  - Failures that are not retryable back off from 6 hours: 6 h, 12 h,
//    then 24 h.
//  - A back-off is stretched by a share fixed per plant ID, so that devices
//    which failed together do not come back together: a retryable one by
//    up to kSpreadPercent of itself, never beyond 6 h; one that is not by
//    up to kPermanentSpreadSeconds, never beyond 24 h.
//  - The server's next update time wins over a back-off when it is later
//    than now and sooner than the back-off.
// Thread-safe: no state.
#ifndef BRVO_SCHEDULE_RETRYPOLICY_H
#define BRVO_SCHEDULE_RETRYPOLICY_H

#include <cstdint>
#include <string>

namespace brvo {

class UpdateResult;

class RetryPolicy {
public:
    // The failures since the last success of the update schedule.
    struct History {
        // Consecutive failures since the last success, of either kind.
        int failures = 0;
        // Whether the last failure was retryable.
        bool lastRetryable = false;
        // Consecutive failures that were not retryable.
        int permanentFailures = 0;
        // Consecutive retryable failures.
        int retryableFailures = 0;
        // The last failure's Retry-After in seconds; -1 when it named none.
        std::int64_t retryAfterSeconds = -1;
    };

    // Longest time to the next attempt, and the back-off steps.
    static constexpr std::int64_t kMaxDelaySeconds = 24 * 3600;
    static constexpr std::int64_t kRetryBaseSeconds = 30 * 60;
    static constexpr std::int64_t kRetryCapSeconds = 6 * 3600;
    static constexpr std::int64_t kPermanentBaseSeconds = 6 * 3600;
    static constexpr std::int64_t kRetryAfterMinSeconds = 30;
    // The largest stretch of a back-off, in percent of it: up to twice
    // itself (30 min to 1.5 h, 1 to 3 h, ..., 6 to 18 h). With a smaller
    // stretch most second retries still fall within two hours of the first
    // failure, so after a two-hour outage the first retries of the devices
    // that failed last and the second retries of those that failed first
    // reach the server in the same half hour. pvoc-fleet weighs it.
    static constexpr int kSpreadPercent = 200;
    // The largest stretch of a back-off after a failure not worth retrying
    // soon.
    static constexpr std::int64_t kPermanentSpreadSeconds = 3600;

    // Whether a failed flow result is worth trying again soon: by its HTTP
    // status class (1xx, 3xx, 5xx yes; 2xx, 4xx no), otherwise by its
    // failure reason (1, 3, 4, 12 yes). A success is not.
    static bool IsRetryable(const UpdateResult& result);

    // `history` after `result`: a success clears it.
    static History Record(const History& history, const UpdateResult& result);

    // The epoch second of the next attempt of the update schedule, given
    // the failures since the last success, the plant ID (for the spread),
    // now, and the server's next update time (epoch seconds; -1 when none
    // reads).
    static std::int64_t NextUpdateAttempt(const History& history, const std::string& plantId, std::int64_t now,
                                          std::int64_t serverNext);

    // The same with a back-off stretched by up to `spreadPercent` of itself
    // instead of kSpreadPercent (0: not at all), for weighing spreads
    // against each other.
    static std::int64_t NextUpdateAttempt(const History& history, const std::string& plantId, std::int64_t now,
                                          std::int64_t serverNext, int spreadPercent);

    // The back-off after the failures of `history`, before the spread; 0
    // when there was none.
    static std::int64_t BackOffSeconds(const History& history);

    // The stretch of a back-off of `delay` seconds for `plantId`: between 0
    // and kSpreadPercent of it, the same every time for one plant ID.
    static std::int64_t SpreadSeconds(const std::string& plantId, std::int64_t delay);

    // The same with a stretch of up to `spreadPercent` of the back-off
    // (none when it is 0 or less).
    static std::int64_t SpreadSeconds(const std::string& plantId, std::int64_t delay, int spreadPercent);

    // The next 30-minute step of `serverNext` after `now` (`now` + 30 min
    // stepping when serverNext is -1); a time more than kMaxDelaySeconds
    // ahead moves back by whole days to within them.
    static std::int64_t SteppedServerTime(std::int64_t serverNext, std::int64_t now);

private:
    RetryPolicy() = delete;
};

} // namespace brvo

#endif
