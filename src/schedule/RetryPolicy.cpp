#include "schedule/RetryPolicy.h"

#include "schedule/UpdateResult.h"

#include <algorithm>

namespace brvo {

namespace {

const std::int64_t kHalfHourSeconds = 1800;
const std::int64_t kDaySeconds = 86400;

// Doubles `base` (failures - 1) times, stopping at `cap`.
std::int64_t Doubled(std::int64_t base, int failures, std::int64_t cap) {
    std::int64_t delay = base;
    for (int i = 1; i < failures && delay < cap; ++i) delay *= 2;
    return std::min(delay, cap);
}

// FNV-1a of the plant ID: a spread that differs between devices and stays
// the same on one.
std::uint32_t PlantHash(const std::string& plantId) {
    std::uint32_t hash = 2166136261u;
    for (const char c : plantId) {
        hash ^= static_cast<unsigned char>(c);
        hash *= 16777619u;
    }
    return hash;
}

} // namespace

bool RetryPolicy::IsRetryable(const UpdateResult& result) {
    if (result.IsResult()) return false;
    const std::int32_t status = result.GetStatusCode();
    if (status >= 100 && status <= 199) return true;
    if (status >= 200 && status <= 299) return false;
    if (status >= 300 && status <= 399) return true;
    if (status >= 400 && status <= 499) return false;
    if (status >= 500 && status <= 599) return true;
    switch (result.GetFailureReason()) {
    case FailureReason::kAccessFailed:
    case FailureReason::kPayloadInvalid:
    case FailureReason::kNoSlots:
    case FailureReason::kException:
        return true;
    default:
        return false;
    }
}

RetryPolicy::History RetryPolicy::Record(const History& history, const UpdateResult& result) {
    if (result.IsResult()) return History();
    History next = history;
    ++next.failures;
    next.lastRetryable = IsRetryable(result);
    if (next.lastRetryable) {
        ++next.retryableFailures;
        next.permanentFailures = 0;
    } else {
        ++next.permanentFailures;
        next.retryableFailures = 0;
    }
    next.retryAfterSeconds = result.GetRetryAfterSeconds();
    return next;
}

std::int64_t RetryPolicy::BackOffSeconds(const History& history) {
    if (history.failures <= 0) return 0;
    if (history.retryAfterSeconds >= 0)
        return std::min(std::max(history.retryAfterSeconds, kRetryAfterMinSeconds), kMaxDelaySeconds);
    if (history.lastRetryable) return Doubled(kRetryBaseSeconds, history.retryableFailures, kRetryCapSeconds);
    return Doubled(kPermanentBaseSeconds, history.permanentFailures, kMaxDelaySeconds);
}

std::int64_t RetryPolicy::SpreadSeconds(const std::string& plantId, std::int64_t delay) {
    return SpreadSeconds(plantId, delay, kSpreadPercent);
}

std::int64_t RetryPolicy::SpreadSeconds(const std::string& plantId, std::int64_t delay, int spreadPercent) {
    if (delay <= 0) return 0;
    const std::int64_t span = delay * spreadPercent / 100;
    if (span <= 0) return 0;
    return static_cast<std::int64_t>(PlantHash(plantId) % static_cast<std::uint64_t>(span + 1));
}

std::int64_t RetryPolicy::SteppedServerTime(std::int64_t serverNext, std::int64_t now) {
    std::int64_t next = serverNext < 0 ? now : serverNext;
    if (next <= now) next += (now - next) / kHalfHourSeconds * kHalfHourSeconds;
    while (next <= now) next += kHalfHourSeconds;
    // The server names the next server day at the plant's time, which is
    // more than a day away when it was asked before that time of day (a
    // retry, a new plant, a restart); a clock set back does the same to a
    // stored time. Whole days earlier keeps the plant's time of day, so
    // devices stay spread over the day as the server spread them.
    if (next > now + kMaxDelaySeconds) next -= (next - now - 1) / kDaySeconds * kDaySeconds;
    return next;
}

std::int64_t RetryPolicy::NextUpdateAttempt(const History& history, const std::string& plantId, std::int64_t now,
                                            std::int64_t serverNext) {
    return NextUpdateAttempt(history, plantId, now, serverNext, kSpreadPercent);
}

std::int64_t RetryPolicy::NextUpdateAttempt(const History& history, const std::string& plantId, std::int64_t now,
                                            std::int64_t serverNext, int spreadPercent) {
    // Even a server's next time days ahead (or a wrong one, years ahead)
    // leaves the device asking again within a day (SteppedServerTime).
    if (history.failures <= 0) return SteppedServerTime(serverNext, now);
    const std::int64_t delay = BackOffSeconds(history);
    // A server's own hint is honoured as given; only our own back-off is
    // spread, and never beyond its cap.
    const bool hinted = history.retryAfterSeconds >= 0;
    // Failures not worth retrying soon are not what a fleet meets at once
    // after an outage: their stretch stays within an hour.
    const std::int64_t spread = hinted ? 0
                                : history.lastRetryable
                                    ? SpreadSeconds(plantId, delay, spreadPercent)
                                    : SpreadSeconds(plantId, kPermanentSpreadSeconds, spreadPercent > 0 ? 100 : 0);
    const std::int64_t cap = hinted || !history.lastRetryable ? kMaxDelaySeconds : kRetryCapSeconds;
    std::int64_t next = now + std::min(delay + spread, cap);
    if (serverNext > now && serverNext < next) next = serverNext;
    return next;
}

} // namespace brvo
