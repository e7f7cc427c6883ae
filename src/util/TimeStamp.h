// A point in time (microseconds since the epoch, UTC) with the daemon's text
// formats and the fixed nine-hour shift of the schedule server's clock.
#ifndef BRVO_UTIL_TIMESTAMP_H
#define BRVO_UTIL_TIMESTAMP_H

#include <Poco/Timestamp.h>

#include <cstdint>
#include <memory>
#include <string>

namespace brvo {

class TimeStamp {
public:
    // Compact form used in server payloads: "%Y%m%d%H%M%S".
    static const std::string kCompactFormat;
    // Display form used in the update information and the log:
    // "%Y-%m-%d %H:%M:%S".
    static const std::string kDisplayFormat;
    // Offset of the schedule server's clock from UTC, in seconds.
    static constexpr std::int64_t kServerOffsetSeconds = 9 * 3600;

    // The current time.
    TimeStamp();
    // The given time.
    explicit TimeStamp(const Poco::Timestamp& timestamp);
    TimeStamp(const TimeStamp& other);
    TimeStamp& operator=(const TimeStamp& other);
    virtual ~TimeStamp();

    // A new time stamp of the current time.
    static std::shared_ptr<TimeStamp> Now();
    // A time stamp of `seconds` since the epoch (UTC); null when the value
    // is outside what a time stamp can hold.
    static std::shared_ptr<TimeStamp> FromEpochSeconds(std::int64_t seconds);

    // Parses the compact form strictly (14 digits, a valid date and time).
    // Throws Poco::SyntaxException when the text does not match.
    static std::shared_ptr<TimeStamp> ParseCompact(const std::string& text);
    // Parses the display form strictly; null when the text does not match.
    static std::shared_ptr<TimeStamp> ParseDisplay(const std::string& text);
    // Parses `text` with a POCO date-time pattern, the way POCO's parser
    // reads it: literal characters of the pattern are not compared and
    // numbers may stand between any separators. Null when no valid date and
    // time can be read.
    static std::shared_ptr<TimeStamp> Parse(const std::string& pattern, const std::string& text);

    // Formats in UTC.
    std::string FormatCompact() const;
    std::string FormatDisplay() const;
    std::string Format(const std::string& pattern) const;
    // Formats in the system's local time zone.
    std::string FormatLocal(const std::string& pattern) const;

    // Server time to UTC: minus nine hours, in place.
    void SubtractServerOffset();
    // UTC to server time: plus nine hours, in place.
    void AddServerOffset();

    // Seconds since the epoch (UTC), rounded towards negative infinity.
    std::int64_t EpochSeconds() const;
    // The underlying POCO time stamp.
    const Poco::Timestamp& Value() const { return *timestamp_; }

private:
    Poco::Timestamp* timestamp_;
};

} // namespace brvo

#endif
