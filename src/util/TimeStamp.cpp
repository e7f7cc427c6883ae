#include "util/TimeStamp.h"

#include "util/SystemClock.h"

#include <Poco/DateTime.h>
#include <Poco/DateTimeFormatter.h>
#include <Poco/DateTimeParser.h>
#include <Poco/Exception.h>
#include <Poco/LocalDateTime.h>

#include <limits>

namespace brvo {

namespace {

const Poco::Timestamp::TimeDiff kMicrosPerSecond = 1000000;

// Reads exactly `count` digits at `pos`; false if any is not a digit.
bool ReadDigits(const std::string& text, std::size_t pos, std::size_t count, int& value) {
    if (pos + count > text.size()) return false;
    value = 0;
    for (std::size_t i = pos; i < pos + count; ++i) {
        const unsigned char ch = static_cast<unsigned char>(text[i]);
        if (ch < '0' || ch > '9') return false;
        value = value * 10 + (ch - '0');
    }
    return true;
}

// Strict reading of a fixed layout: `layout` holds 'd' for a digit and the
// literal characters that must stand in between. Fields are taken in order
// year (4 digits), month, day, hour, minute, second (2 digits each).
std::shared_ptr<TimeStamp> ParseFixed(const std::string& text, const std::string& layout) {
    if (text.size() != layout.size()) return nullptr;
    static constexpr std::size_t kWidths[] = {4, 2, 2, 2, 2, 2};
    int fields[6] = {0, 0, 0, 0, 0, 0};
    std::size_t pos = 0;
    for (int field = 0; field < 6; ++field) {
        while (pos < layout.size() && layout[pos] != 'd') {
            if (text[pos] != layout[pos]) return nullptr;
            ++pos;
        }
        if (!ReadDigits(text, pos, kWidths[field], fields[field])) return nullptr;
        pos += kWidths[field];
    }
    if (!Poco::DateTime::isValid(fields[0], fields[1], fields[2], fields[3], fields[4], fields[5])) {
        return nullptr;
    }
    Poco::DateTime dateTime(fields[0], fields[1], fields[2], fields[3], fields[4], fields[5]);
    return std::make_shared<TimeStamp>(dateTime.timestamp());
}

} // namespace

const std::string TimeStamp::kCompactFormat = "%Y%m%d%H%M%S";
const std::string TimeStamp::kDisplayFormat = "%Y-%m-%d %H:%M:%S";

TimeStamp::TimeStamp() : timestamp_(new Poco::Timestamp(SystemClock::NowMicroseconds())) {}

TimeStamp::TimeStamp(const Poco::Timestamp& timestamp) : timestamp_(new Poco::Timestamp(timestamp)) {}

TimeStamp::TimeStamp(const TimeStamp& other) : timestamp_(new Poco::Timestamp(*other.timestamp_)) {}

TimeStamp& TimeStamp::operator=(const TimeStamp& other) {
    if (this != &other) *timestamp_ = *other.timestamp_;
    return *this;
}

TimeStamp::~TimeStamp() {
    delete timestamp_;
}

std::shared_ptr<TimeStamp> TimeStamp::Now() {
    return std::make_shared<TimeStamp>();
}

std::shared_ptr<TimeStamp> TimeStamp::FromEpochSeconds(std::int64_t seconds) {
    const std::int64_t limit = std::numeric_limits<Poco::Timestamp::TimeVal>::max() / kMicrosPerSecond;
    if (seconds > limit || seconds < -limit) return nullptr;
    return std::make_shared<TimeStamp>(Poco::Timestamp(seconds * kMicrosPerSecond));
}

std::shared_ptr<TimeStamp> TimeStamp::ParseCompact(const std::string& text) {
    std::shared_ptr<TimeStamp> parsed = ParseFixed(text, "dddddddddddddd");
    if (!parsed) throw Poco::SyntaxException("Cannot parse date and time", text);
    return parsed;
}

std::shared_ptr<TimeStamp> TimeStamp::ParseDisplay(const std::string& text) {
    return ParseFixed(text, "dddd-dd-dd dd:dd:dd");
}

std::shared_ptr<TimeStamp> TimeStamp::Parse(const std::string& pattern, const std::string& text) {
    try {
        Poco::DateTime dateTime;
        int zoneDifferential = 0;
        if (!Poco::DateTimeParser::tryParse(pattern, text, dateTime, zoneDifferential)) return nullptr;
        if (!Poco::DateTime::isValid(dateTime.year(), dateTime.month(), dateTime.day(), dateTime.hour(),
                                     dateTime.minute(), dateTime.second())) {
            return nullptr;
        }
        return std::make_shared<TimeStamp>(dateTime.timestamp());
    } catch (const Poco::Exception&) {
        return nullptr;
    }
}

std::string TimeStamp::FormatCompact() const {
    return Format(kCompactFormat);
}

std::string TimeStamp::FormatDisplay() const {
    return Format(kDisplayFormat);
}

std::string TimeStamp::Format(const std::string& pattern) const {
    return Poco::DateTimeFormatter::format(*timestamp_, pattern);
}

std::string TimeStamp::FormatLocal(const std::string& pattern) const {
    return Poco::DateTimeFormatter::format(Poco::LocalDateTime(Poco::DateTime(*timestamp_)), pattern);
}

void TimeStamp::SubtractServerOffset() {
    *timestamp_ -= kServerOffsetSeconds * kMicrosPerSecond;
}

void TimeStamp::AddServerOffset() {
    *timestamp_ += kServerOffsetSeconds * kMicrosPerSecond;
}

std::int64_t TimeStamp::EpochSeconds() const {
    const std::int64_t micros = timestamp_->epochMicroseconds();
    std::int64_t seconds = micros / kMicrosPerSecond;
    if (micros % kMicrosPerSecond < 0) --seconds;
    return seconds;
}

} // namespace brvo
