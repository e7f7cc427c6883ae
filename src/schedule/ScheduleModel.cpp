#include "schedule/ScheduleModel.h"

#include "util/LoggerLog.h"
#include "util/StringUtil.h"
#include "util/TimeStamp.h"

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

// The start is read leniently: the trailing "00" stands for the seconds the
// server does not send and is not compared.
const std::string kStartFormat = "%Y%m%d%H%M00";

// Slots start on the hour or the half hour.
const std::regex& SlotStartPattern() {
    static const std::regex pattern("[0-9][0-9][0-9][0-9][0-9][0-9][0-9][0-9][0-9][0-9](00|30)",
                                    std::regex::ECMAScript);
    return pattern;
}

// The field of `length` hex characters at `position`, decoded. A field cut
// short by the end of the text is what there is, one starting exactly at the
// end is empty; one starting beyond the end throws std::out_of_range.
std::string Decode(const std::string& hex, std::size_t position, std::size_t length) {
    return StringUtil::DecodeDigitHex(hex.substr(position, length));
}

// Reads `text` the way atoi does on the device: leading blanks, a sign, then
// digits; 0 when there are none. Values beyond 32 bits stop at the limit
// (the device's strtol saturates) instead of being undefined.
std::int32_t AtoiText(const std::string& text) {
    std::size_t i = 0;
    while (i < text.size() && StringUtil::IsSpace(static_cast<unsigned char>(text[i]))) ++i;
    bool negative = false;
    if (i < text.size() && (text[i] == '+' || text[i] == '-')) negative = text[i++] == '-';
    const std::int64_t limit = negative ? -static_cast<std::int64_t>(std::numeric_limits<std::int32_t>::min())
                                        : std::numeric_limits<std::int32_t>::max();
    std::int64_t value = 0;
    for (; i < text.size() && StringUtil::IsDigit(static_cast<unsigned char>(text[i])); ++i) {
        value = std::min(value * 10 + (text[i] - '0'), limit);
    }
    return static_cast<std::int32_t>(negative ? -value : value);
}

std::int32_t DecodeNumber(const std::string& hex, std::size_t position, std::size_t length) {
    return AtoiText(Decode(hex, position, length));
}

// The checksum text of a record: the rate sum modulo (month + day) of the
// start text, two digits at least. Empty when month and day are both zero
// (the lenient start parse lets "00" through), which no received text
// matches.
std::string ChecksumText(const std::string& start, std::int64_t sum) {
    const std::int64_t divisor = AtoiText(start.substr(4, 2)) + AtoiText(start.substr(6, 2));
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
    : result_(false), kind_(kind) {
    if (hexData.size() < kRecordCountChars) {
        message_ = "data is missing.";
        return;
    }
    // On an exception `result_` keeps the value it had: true once the record
    // count was read and no record failed. The update flows then judge the
    // model by its slots.
    try {
        Parse(hexData);
    } catch (const Poco::Exception& e) {
        Fail(LoggerLog::kError, "Schedule data error. EXCEPTION[" + e.displayText() + "]");
    } catch (...) {
        Fail(LoggerLog::kError, "Schedule data error. exception");
    }
}

ScheduleModel::~ScheduleModel() = default;

std::string ScheduleModel::GetPlantId() const {
    return updateInfo_.plantId;
}

// Every record moves the position on by at least the reserved and plant ID
// fields, so the loop runs out of text long before a huge count is reached.
void ScheduleModel::Parse(const std::string& hex) {
    const std::int32_t records = DecodeNumber(hex, 0, kRecordCountChars);
    result_ = true;
    std::size_t position = kRecordCountChars;
    for (std::int32_t i = 0; i < records; ++i) {
        if (!ParseRecord(hex, position)) {
            result_ = false;
            return;
        }
    }
}

// Returns false when the record is refused; a record whose start is not on
// the hour or half hour is skipped (true) without moving past its start.
bool ScheduleModel::ParseRecord(const std::string& hex, std::size_t& position) {
    position += kReservedChars;
    const std::string plantId = Decode(hex, position, kPlantIdChars);
    position += kPlantIdChars;
    const std::string start = Decode(hex, position, kStartChars);
    std::shared_ptr<TimeStamp> startTime = TimeStamp::Parse(kStartFormat, start);
    if (!startTime) {
        Fail(LoggerLog::kError, "Schedule start date error. [" + start + "]");
        return false;
    }
    if (!std::regex_search(start, SlotStartPattern())) {
        Fail(LoggerLog::kWarning, "Schedule start date error. [" + start + "]");
        return true;
    }
    updateInfo_.plantId = plantId;
    startTime->SubtractServerOffset();
    position += kStartChars;
    const std::int32_t count = DecodeNumber(hex, position, kSlotCountChars);
    position += kSlotCountChars;
    const std::int64_t sum = ReadSlots(hex, position, count, startTime->EpochSeconds());
    if (kind_ == kUpdateScheduleKind) {
        updateInfo_.fixedScheduleUpdateFlag = DecodeNumber(hex, position, kFixedFlagChars);
        position += kFixedFlagChars;
    }
    const std::string expected = ChecksumText(start, sum);
    const std::string received = Decode(hex, position, kChecksumChars);
    position += kChecksumChars;
    if (expected.empty() || expected != received) {
        Fail(LoggerLog::kError, "Output rate data Checksum error.");
        return false;
    }
    if (kind_ == kUpdateScheduleKind) {
        ReadNextUpdateTime(hex, position);
        position += kNextUpdateChars;
    }
    return true;
}

// Appends `count` slots from `position` on and returns the sum of their
// rates. The text runs out (std::out_of_range) long before a huge count does,
// so no more is reserved than the text can hold.
std::int64_t ScheduleModel::ReadSlots(const std::string& hex, std::size_t& position,
                                      std::int32_t count, std::int64_t firstTime) {
    if (count <= 0) return 0;
    const std::size_t room = position <= hex.size() ? (hex.size() - position) / kRateChars + 1 : 0;
    slots_.reserve(slots_.size() + std::min(static_cast<std::size_t>(count), room));
    std::int64_t sum = 0;
    for (std::int32_t i = 0; i < count; ++i) {
        const std::int32_t rate = DecodeNumber(hex, position, kRateChars);
        sum += rate;
        slots_.push_back(MakeSlot(firstTime + static_cast<std::int64_t>(i) * kSlotSeconds, rate));
        position += kRateChars;
    }
    return sum;
}

// A next update time that cannot be read leaves no time stamp to work with;
// using it is a null-pointer failure of the library, which the constructor
// reports as "Schedule data error. EXCEPTION[Null pointer]".
void ScheduleModel::ReadNextUpdateTime(const std::string& hex, std::size_t position) {
    const std::string text = Decode(hex, position, kNextUpdateChars);
    std::shared_ptr<TimeStamp> next = TimeStamp::Parse(TimeStamp::kCompactFormat, text);
    if (!next) throw Poco::NullPointerException();
    next->SubtractServerOffset();
    updateInfo_.nextUpdateTime = next->FormatDisplay();
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
