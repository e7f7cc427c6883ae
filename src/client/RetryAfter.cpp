#include "client/RetryAfter.h"

#include <Poco/DateTime.h>
#include <Poco/DateTimeFormat.h>
#include <Poco/DateTimeFormatter.h>
#include <Poco/DateTimeParser.h>

#include <algorithm>

namespace brvo {

namespace {

const int kTooManyRequests = 429;
const int kServiceUnavailable = 503;
const std::int64_t kMicrosecondsPerSecond = 1000000;

// The byte classes are ASCII's, compared on unsigned bytes: on the device
// char is unsigned and elsewhere signed, and a header may carry any byte.
bool IsBlank(unsigned char byte) {
    return byte == ' ' || byte == '\t';
}

bool IsDigit(unsigned char byte) {
    return byte >= '0' && byte <= '9';
}

bool IsLetter(unsigned char byte) {
    return (byte >= 'A' && byte <= 'Z') || (byte >= 'a' && byte <= 'z');
}

// `text` without the blanks at either end.
std::string TrimBlanks(const std::string& text) {
    std::size_t begin = 0;
    std::size_t end = text.size();
    while (begin < end && IsBlank(static_cast<unsigned char>(text[begin]))) ++begin;
    while (end > begin && IsBlank(static_cast<unsigned char>(text[end - 1]))) --end;
    return text.substr(begin, end - begin);
}

// The delta-seconds in `text`, cut to kMaxSeconds; -1 unless `text` is one
// or more ASCII digits and nothing else. The count stops growing once it
// reaches the ceiling, so no number of digits overflows it.
std::int64_t DeltaSeconds(const std::string& text) {
    if (text.empty()) return -1;
    std::int64_t seconds = 0;
    for (const char ch : text) {
        const unsigned char byte = static_cast<unsigned char>(ch);
        if (!IsDigit(byte)) return -1;
        if (seconds < RetryAfter::kMaxSeconds) seconds = seconds * 10 + (byte - '0');
    }
    return std::min(seconds, RetryAfter::kMaxSeconds);
}

// Whether `text` is one of the `count` names at `names`, as written there.
bool IsOneOf(const std::string& text, const char* const* names, std::size_t count) {
    return std::find(names, names + count, text) != names + count;
}

// Whether `text` has the shape of an IMF-fixdate, "Sun, 06 Nov 1994
// 08:49:37 GMT", with a day and a month name as they are written there.
// The date parser makes the best of whatever it gets, so the shape is
// checked before it sees the text, and the date it read is checked after.
bool IsFixdate(const std::string& text) {
    static const std::string kShape = "Aaa, 00 Aaa 0000 00:00:00 GMT";
    static const char* const kDays[] = {"Mon", "Tue", "Wed", "Thu", "Fri", "Sat", "Sun"};
    static const char* const kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                          "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    if (text.size() != kShape.size()) return false;
    for (std::size_t i = 0; i < kShape.size(); ++i) {
        const unsigned char byte = static_cast<unsigned char>(text[i]);
        const char expected = kShape[i];
        const bool fits = expected == 'A' || expected == 'a' ? IsLetter(byte)
                          : expected == '0'                  ? IsDigit(byte)
                                                             : byte == static_cast<unsigned char>(expected);
        if (!fits) return false;
    }
    return IsOneOf(text.substr(0, 3), kDays, 7) && IsOneOf(text.substr(8, 3), kMonths, 12);
}

// Seconds from `nowMicroseconds` to the IMF-fixdate `text`, rounded up and
// cut to kMaxSeconds; 0 when it has passed, -1 when `text` is not one.
std::int64_t SecondsUntil(const std::string& text, std::int64_t nowMicroseconds) {
    if (!IsFixdate(text)) return -1;
    Poco::DateTime date(1970, 1, 1);
    int zone = 0;
    if (!Poco::DateTimeParser::tryParse(Poco::DateTimeFormat::HTTP_FORMAT, text, date, zone) || zone != 0) return -1;
    // The parser takes day 00 for the 1st; a date it had to mend is none.
    if (Poco::DateTimeFormatter::format(date, "%d %b %Y %H:%M:%S") != text.substr(5, 20)) return -1;
    // Years 0 to 9999 lie within some 3 * 10^17 microseconds of 1970: the
    // checks below keep the difference with any `nowMicroseconds` in range.
    const std::int64_t at = date.timestamp().epochMicroseconds();
    if (nowMicroseconds >= at) return 0;
    if (nowMicroseconds < at - RetryAfter::kMaxSeconds * kMicrosecondsPerSecond) return RetryAfter::kMaxSeconds;
    const std::int64_t left = at - nowMicroseconds;
    return std::min((left + kMicrosecondsPerSecond - 1) / kMicrosecondsPerSecond, RetryAfter::kMaxSeconds);
}

} // namespace

std::int64_t RetryAfter::Seconds(const std::string& value, std::int64_t nowMicroseconds) {
    const std::string text = TrimBlanks(value);
    const std::int64_t delta = DeltaSeconds(text);
    if (delta >= 0) return delta;
    return SecondsUntil(text, nowMicroseconds);
}

std::int64_t RetryAfter::ForAnswer(int status, bool present, const std::string& value, std::int64_t nowMicroseconds) {
    if (!present || (status != kTooManyRequests && status != kServiceUnavailable)) return -1;
    return Seconds(value, nowMicroseconds);
}

} // namespace brvo
