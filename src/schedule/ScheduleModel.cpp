#include "schedule/ScheduleModel.h"

#include "util/LoggerLog.h"
#include "util/StringUtil.h"
#include "util/TimeStamp.h"

#include <Poco/DateTime.h>
#include <Poco/Exception.h>

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <limits>
#include <memory>
#include <regex>

namespace brvo {

namespace {

const std::string kTag = "ScheduleUpdateManager";
const std::int64_t kSlotSeconds = 1800;

// Field widths in hex characters (twice the byte counts).
const std::size_t kRecordCountChars = 12;
const std::size_t kReservedChars = 20;
const std::size_t kPlantIdChars = 52;
const std::size_t kStartChars = 24;
const std::size_t kSlotCountChars = 10;
const std::size_t kRateChars = 2;
const std::size_t kFixedFlagChars = 2;
const std::size_t kChecksumChars = 4;
const std::size_t kNextUpdateChars = 28;
// What a skipped record takes: its reserved and plant ID fields.
const std::size_t kSkippedRecordChars = kReservedChars + kPlantIdChars;

// The years a start or a next update time may lie in.
const int kFirstYear = 2000;
const int kLastYear = 2100;

// The start is read leniently: the trailing "00" stands for the seconds the
// server does not send and is not compared.
const std::string kStartFormat = "%Y%m%d%H%M00";

// Slots start on the hour or the half hour.
const std::regex& SlotStartPattern() {
    static const std::regex pattern("[0-9][0-9][0-9][0-9][0-9][0-9][0-9][0-9][0-9][0-9](00|30)",
                                    std::regex::ECMAScript);
    return pattern;
}

// A payload the model refuses, with the failure text it is refused with.
// Thrown by the readers below and turned into the model's failure (logged at
// error level) by the constructor.
struct Refusal {
    std::string message;
};

const std::string kTruncated = "Schedule data error. data is truncated.";
const std::string kNotHex = "Schedule data error. data is not hex text.";

// The field of `length` hex characters at `position`, decoded. Every field
// must be there whole and be hex digits: a field cut short by the end of the
// text, or starting at or after it, is a truncated payload.
std::string Field(const std::string& hex, std::size_t position, std::size_t length) {
    if (position > hex.size() || hex.size() - position < length) throw Refusal{kTruncated};
    for (std::size_t i = position; i < position + length; ++i) {
        if (!StringUtil::IsHexDigit(static_cast<unsigned char>(hex[i]))) throw Refusal{kNotHex};
    }
    return StringUtil::DecodeDigitHex(hex.substr(position, length));
}

// The number a decoded field text (decimal digits only) stands for. A text
// beyond 32 bits, which byte values above 9 easily make, is refused.
std::int32_t NumberOf(const std::string& text) {
    std::int64_t value = 0;
    for (char ch : text) {
        value = value * 10 + (ch - '0');
        if (value > std::numeric_limits<std::int32_t>::max()) {
            throw Refusal{"Schedule data error. number out of range. [" + text + "]"};
        }
    }
    return static_cast<std::int32_t>(value);
}

std::int32_t DecodeNumber(const std::string& hex, std::size_t position, std::size_t length) {
    return NumberOf(Field(hex, position, length));
}

// Schedules are made for the years the device can be in service; a date
// outside them comes from a broken payload, not from the server's plan.
bool IsPlausible(const TimeStamp& time) {
    const int year = Poco::DateTime(time.Value()).year();
    return year >= kFirstYear && year <= kLastYear;
}

// A date text (year, month, day, ...) whose month or day is "00" names no
// date. POCO's parser read such a field as 01 up to 1.11 and refuses it
// from 1.12 on; refusing it here gives the same answer with either.
bool HasZeroMonthOrDay(const std::string& text) {
    return text.size() >= 8 && (text.compare(4, 2, "00") == 0 || text.compare(6, 2, "00") == 0);
}

// The checksum text of a record: the rate sum modulo (month + day) of the
// start text, two digits at least. Empty when month and day are both zero,
// which no received text matches (a start with either zero is refused
// before, so this stays a guard against a division by zero).
std::string ChecksumText(const std::string& start, std::int64_t sum) {
    const std::int64_t divisor = NumberOf(start.substr(4, 2)) + NumberOf(start.substr(6, 2));
    if (divisor <= 0) return std::string();
    char text[24];
    std::snprintf(text, sizeof text, "%02" PRId64, sum % divisor);
    return text;
}

ScheduleRow MakeSlot(std::int64_t time, std::int32_t rate) {
    ScheduleRow row;
    row.time = time;
    row.controlRate = rate;
    row.sent = false;
    return row;
}

} // namespace

ScheduleModel::ScheduleModel(const std::string& hexData, int kind)
    : result_(false), kind_(kind), earliestSlot_(std::numeric_limits<std::int64_t>::max()) {
    if (hexData.size() < kRecordCountChars) {
        message_ = "data is missing.";
        return;
    }
    // Whatever stops the decoding refuses the payload: the slots read so far
    // are never used.
    try {
        Parse(hexData);
    } catch (const Refusal& refusal) {
        Refuse(refusal.message);
    } catch (const Poco::Exception& e) {
        Refuse("Schedule data error. EXCEPTION[" + e.displayText() + "]");
    } catch (...) {
        Refuse("Schedule data error. exception");
    }
}

ScheduleModel::~ScheduleModel() = default;

std::string ScheduleModel::GetPlantId() const {
    return updateInfo_.plantId;
}

// A record count the rest of the text cannot hold is refused before any
// record is read: every record takes at least its reserved and plant ID
// fields, and the last one its start as well.
void ScheduleModel::Parse(const std::string& hex) {
    const std::int32_t records = DecodeNumber(hex, 0, kRecordCountChars);
    result_ = true;
    std::size_t position = kRecordCountChars;
    const std::uint64_t least = static_cast<std::uint64_t>(records) * kSkippedRecordChars + kStartChars;
    if (records > 0 && least > hex.size() - position) throw Refusal{kTruncated};
    for (std::int32_t i = 0; i < records; ++i) {
        const std::size_t begin = position;
        if (!ParseRecord(hex, position)) i += SkipRepeats(hex, begin, position, records - 1 - i);
    }
}

// Returns false when the record is skipped: its start is not on the hour or
// half hour, and the position stays at its start. Throws Refusal when the
// record is refused.
bool ScheduleModel::ParseRecord(const std::string& hex, std::size_t& position) {
    position += kReservedChars;
    const std::string plantId = Field(hex, position, kPlantIdChars);
    position += kPlantIdChars;
    const std::string start = Field(hex, position, kStartChars);
    std::shared_ptr<TimeStamp> startTime = TimeStamp::Parse(kStartFormat, start);
    if (!startTime || !IsPlausible(*startTime) || HasZeroMonthOrDay(start))
        throw Refusal{"Schedule start date error. [" + start + "]"};
    if (!std::regex_search(start, SlotStartPattern())) {
        Fail(LoggerLog::kWarning, "Schedule start date error. [" + start + "]");
        return false;
    }
    updateInfo_.plantId = plantId;
    startTime->SubtractServerOffset();
    position += kStartChars;
    const std::int32_t count = DecodeNumber(hex, position, kSlotCountChars);
    position += kSlotCountChars;
    CheckSlotCount(hex, position, count);
    const std::int64_t firstSlot = startTime->EpochSeconds();
    earliestSlot_ = std::min(earliestSlot_, firstSlot);
    const std::int64_t sum = ReadSlots(hex, position, count, firstSlot);
    if (kind_ == kUpdateScheduleKind) {
        updateInfo_.fixedScheduleUpdateFlag = DecodeNumber(hex, position, kFixedFlagChars);
        position += kFixedFlagChars;
    }
    const std::string expected = ChecksumText(start, sum);
    const std::string received = Field(hex, position, kChecksumChars);
    position += kChecksumChars;
    if (expected.empty() || expected != received) throw Refusal{"Output rate data Checksum error."};
    if (kind_ == kUpdateScheduleKind) {
        ReadNextUpdateTime(hex, position);
        position += kNextUpdateChars;
    }
    return true;
}

// Refuses a slot count beyond the cap (over the whole payload) or beyond
// what the rest of the text holds, before a single slot is appended.
void ScheduleModel::CheckSlotCount(const std::string& hex, std::size_t position, std::int32_t count) const {
    const std::uint64_t total = slots_.size() + static_cast<std::uint64_t>(count);
    if (total > kMaxSlots) {
        throw Refusal{"Schedule data error. too many slots. [" + std::to_string(total) + "]"};
    }
    std::uint64_t needed = static_cast<std::uint64_t>(count) * kRateChars + kChecksumChars;
    if (kind_ == kUpdateScheduleKind) needed += kFixedFlagChars + kNextUpdateChars;
    if (position > hex.size() || needed > hex.size() - position) throw Refusal{kTruncated};
}

// Appends `count` slots from `position` on and returns the sum of their
// rates. A rate is one byte's value and is kept as it is, above 100 too.
std::int64_t ScheduleModel::ReadSlots(const std::string& hex, std::size_t& position, std::int32_t count,
                                      std::int64_t firstTime) {
    slots_.reserve(slots_.size() + static_cast<std::size_t>(count));
    std::int64_t sum = 0;
    for (std::int32_t i = 0; i < count; ++i) {
        const std::int32_t rate = DecodeNumber(hex, position, kRateChars);
        sum += rate;
        slots_.push_back(MakeSlot(firstTime + static_cast<std::int64_t>(i) * kSlotSeconds, rate));
        position += kRateChars;
    }
    return sum;
}

// The next update time must be a real time of the service years, not before
// the first slot of the schedule. Records of later days may well carry a
// next update time before their own start.
void ScheduleModel::ReadNextUpdateTime(const std::string& hex, std::size_t position) {
    const std::string text = Field(hex, position, kNextUpdateChars);
    std::shared_ptr<TimeStamp> next = TimeStamp::Parse(TimeStamp::kCompactFormat, text);
    const bool plausible = next && IsPlausible(*next) && !HasZeroMonthOrDay(text);
    if (plausible) next->SubtractServerOffset();
    if (!plausible || next->EpochSeconds() < earliestSlot_) {
        throw Refusal{"Schedule next update time error. [" + text + "]"};
    }
    updateInfo_.nextUpdateTime = next->FormatDisplay();
}

// A skipped record leaves the position at its start, so when the text
// repeats with the length of a skipped record the following records are the
// very same skip. They are passed over at once with one line for all of
// them; returns how many. `begin` is where the skipped record began, `left`
// how many records the count still announces.
std::int32_t ScheduleModel::SkipRepeats(const std::string& hex, std::size_t begin, std::size_t& position,
                                        std::int32_t left) {
    const std::size_t span = kSkippedRecordChars + kStartChars;
    std::int32_t repeats = 0;
    std::size_t next = position;
    while (repeats < left && next <= hex.size() && hex.size() - next >= span &&
           hex.compare(next, span, hex, begin, span) == 0) {
        ++repeats;
        next += kSkippedRecordChars;
    }
    if (repeats == 0) return 0;
    position = next;
    LoggerLog::Warning(kTag, message_ + " repeated for " + std::to_string(repeats) + " more record(s).");
    return repeats;
}

void ScheduleModel::Refuse(const std::string& message) {
    result_ = false;
    Fail(LoggerLog::kError, message);
}

void ScheduleModel::Fail(int level, const std::string& message) {
    message_ = message;
    if (level == LoggerLog::kWarning) {
        LoggerLog::Warning(kTag, message_);
    } else {
        LoggerLog::Error(kTag, message_);
    }
}

} // namespace brvo
