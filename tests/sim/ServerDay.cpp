#include "sim/ServerDay.h"

#include "util/TimeStamp.h"

namespace brvo {
namespace sim {

namespace {

const std::int64_t kOffset = TimeStamp::kServerOffsetSeconds;

std::int64_t FloorDiv(std::int64_t value, std::int64_t divisor) {
    const std::int64_t quotient = value / divisor;
    return (value % divisor != 0 && value < 0) ? quotient - 1 : quotient;
}

} // namespace

std::int64_t ServerDay::DayOf(std::int64_t t) {
    return FloorDiv(t + kOffset, kDaySeconds);
}

std::int64_t ServerDay::DayStart(std::int64_t day) {
    return day * kDaySeconds - kOffset;
}

std::string ServerDay::MinuteText(std::int64_t t) {
    return TimeStamp::FromEpochSeconds(t + kOffset)->Format("%Y%m%d%H%M");
}

std::string ServerDay::SecondText(std::int64_t t) {
    return TimeStamp::FromEpochSeconds(t + kOffset)->Format("%Y%m%d%H%M%S");
}

std::string ServerDay::Utc(std::int64_t t) {
    std::shared_ptr<TimeStamp> stamp = TimeStamp::FromEpochSeconds(t);
    return stamp ? stamp->FormatDisplay() : std::to_string(t);
}

} // namespace sim
} // namespace brvo
