#include "schedule/RateControl.h"

#include "database/ScheduleDatabase.h"
#include "schedule/TargetPowerSnapshot.h"
#include "settings/LoggerSettingManager.h"
#include "settings/SystemSettingXmlManager.h"
#include "util/LoggerLog.h"
#include "util/StringUtil.h"
#include "util/SystemClock.h"
#include "util/TimeStamp.h"

#include <cmath>
#include <cstdio>
#include <limits>

namespace brvo {

namespace {

const char kTag[] = "RateControl";
const std::string kDateFormat = "%Y%m%d";
// The earliest date the clock may show, in test mode and in normal use.
const std::string kDate20160101 = "20160101";
const std::string kDate20200101 = "20200101";
const std::int64_t kServerOffsetMicros = TimeStamp::kServerOffsetSeconds * 1000000;

// The failure messages and the log lines that report them (also the kind
// under which their repeats are counted); made once, so that reporting a
// failure builds no text.
struct FailureText {
    std::string message;
    std::string line;
};

const FailureText& TextOf(TargetPowerResult::Code code) {
    static const FailureText* const plantId =
        new FailureText{"Plantid not found.", "Get Target Power failed. Plantid not found."};
    static const FailureText* const date =
        new FailureText{"Current date error.", "Get Target Power failed. Current date error."};
    static const FailureText* const slot = new FailureText{"can not get.", "Get Target Power failed. can not get."};
    switch (code) {
    case TargetPowerResult::Code::kPlantIdNotFound:
        return *plantId;
    case TargetPowerResult::Code::kDateError:
        return *date;
    default:
        return *slot;
    }
}

Poco::Timestamp WallClock() {
    return Poco::Timestamp(SystemClock::NowMicroseconds());
}

std::shared_ptr<TargetPowerResult> Failure(double power, TargetPowerResult::Code code) {
    // Asked for by every target power request: held to one line a period.
    RateControl::LogFailure(code);
    return std::make_shared<TargetPowerResult>(power, code, RateControl::FailureMessage(code));
}

bool TestMode() {
    return LoggerSettingManager::Current().GetOutputControlTestMode() != 0;
}

} // namespace

RateControl::RateControl() : clock_(WallClock) {}

RateControl::RateControl(const Clock& clock) : clock_(clock) {}

RateControl::~RateControl() {}

std::int64_t RateControl::EarliestDateMicros(bool testMode) {
    std::shared_ptr<TimeStamp> minimum = TimeStamp::Parse(kDateFormat, testMode ? kDate20160101 : kDate20200101);
    return minimum ? minimum->Value().epochMicroseconds() : std::numeric_limits<std::int64_t>::max();
}

bool RateControl::DateIsPlausible(std::int64_t nowMicros, std::int64_t earliestMicros) {
    return nowMicros + kServerOffsetMicros >= earliestMicros;
}

// Rounded in single precision as the inverters expect. The span and the
// result are wider than an int: a device file may hold any two ints, and a
// stored rate above 100 stretches the scale further. With 32-bit inputs
// the result stays below 2^57, far inside 64 bits.
std::int64_t RateControl::ScaleRate(std::int32_t rate, const DeviceSettingXmlManager::Limit& limit) {
    if (limit.value100 == 100 && limit.value0 == 0) return rate;
    const std::int64_t span = static_cast<std::int64_t>(limit.value100) - limit.value0;
    const float scaled =
        (static_cast<float>(rate) / 100.0f) * static_cast<float>(span) + static_cast<float>(limit.value0);
    return static_cast<std::int64_t>(std::roundf(scaled));
}

double RateControl::Target(std::int64_t rate, double capacity, double floor) {
    const double target = static_cast<double>(rate) * capacity / 100.0;
    return floor > target ? floor : target;
}

// Each double is formatted into a buffer of its own first: a value too
// wide for it is cut there, as the line has always shown it.
std::size_t RateControl::FormatRateLine(char* text, const char* display, std::int64_t rate, double target,
                                        double capacity) {
    char targetText[kDoubleTextSize];
    char capacityText[kDoubleTextSize];
    StringUtil::FormatFixed(target, targetText, sizeof targetText);
    StringUtil::FormatFixed(capacity, capacityText, sizeof capacityText);
    const int length = std::snprintf(text, kRateLineSize, "%s(UTC) Output Rate [%lld]  target power[%s]  capacity[%s]",
                                     display, static_cast<long long>(rate), targetText, capacityText);
    if (length < 0) return 0;
    return static_cast<std::size_t>(length) < kRateLineSize ? static_cast<std::size_t>(length) : kRateLineSize - 1;
}

void RateControl::LogRate(const char* display, std::int64_t rate, double target, double capacity) {
    if (!LoggerLog::Writes(LoggerLog::kInfo)) return;
    char line[kRateLineSize];
    const std::size_t length = FormatRateLine(line, display, rate, target, capacity);
    LoggerLog::WriteText(LoggerLog::kInfo, kTag, line, length);
}

const std::string& RateControl::FailureMessage(TargetPowerResult::Code code) {
    return TextOf(code).message;
}

void RateControl::LogFailure(TargetPowerResult::Code code) {
    if (!LoggerLog::Writes(LoggerLog::kWarning)) return;
    static const std::string* const tag = new std::string(kTag);
    const FailureText& text = TextOf(code);
    LoggerLog::Limited(LoggerLog::kWarning, *tag, text.line, text.line);
}

std::shared_ptr<TargetPowerResult> RateControl::GetTargetPower(double capacity, int requestType) {
    SystemSettingXmlManager& systemSettings = SystemSettingXmlManager::Shared();
    systemSettings.Load();
    if (systemSettings.GetOutputControlPlantId().empty()) {
        return Failure(capacity, TargetPowerResult::Code::kPlantIdNotFound);
    }
    DeviceSettingXmlManager::Limit limit;
    DeviceSettingXmlManager::Shared().GetLimit(limit);
    const double floor = static_cast<double>(limit.valueMin);

    if (!DateIsPlausible(clock_().epochMicroseconds(), EarliestDateMicros(TestMode()))) {
        return Failure(floor, TargetPowerResult::Code::kDateError);
    }
    const TimeStamp now(clock_());
    ScheduleDatabase* database = ScheduleDatabase::GetInstance();
    ScheduleRow slot;
    const bool current = requestType == kCurrentTargetPower;
    if (database != nullptr && !TargetPowerSnapshot::Instance().HeldSlot(now.EpochSeconds(), current, slot)) {
        slot = database->SelectSchedule(now.EpochSeconds(), current);
    }
    if (slot.time < 0) {
        return Failure(floor, TargetPowerResult::Code::kNoSchedule);
    }
    const std::int64_t rate = ScaleRate(slot.controlRate, limit);
    const double target = Target(rate, capacity, floor);

    std::shared_ptr<TimeStamp> start = TimeStamp::FromEpochSeconds(slot.time);
    const std::string display = start ? start->FormatDisplay() : std::string();
    LogRate(display.c_str(), rate, target, capacity);
    return std::make_shared<TargetPowerResult>(target, start ? start->FormatCompact() : std::string());
}

} // namespace brvo
