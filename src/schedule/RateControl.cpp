#include "schedule/RateControl.h"

#include "database/ScheduleDatabase.h"
#include "settings/DeviceSettingXmlManager.h"
#include "settings/LoggerSettingManager.h"
#include "settings/SystemSettingXmlManager.h"
#include "util/LoggerLog.h"
#include "util/SystemClock.h"
#include "util/TimeStamp.h"

#include <cmath>
#include <cstdio>

namespace brvo {

namespace {

const std::string kTag = "RateControl";
const std::string kDateFormat = "%Y%m%d";
// The earliest date the clock may show, in test mode and in normal use.
const std::string kDate20160101 = "20160101";
const std::string kDate20200101 = "20200101";

Poco::Timestamp WallClock() {
    return Poco::Timestamp(SystemClock::NowMicroseconds());
}

std::shared_ptr<TargetPowerResult> Failure(double power, TargetPowerResult::Code code, const std::string& message) {
    // Asked for by every target power request: held to one line a period.
    LoggerLog::Limited(LoggerLog::kWarning, kTag, "Get Target Power failed. " + message,
                       "Get Target Power failed. " + message);
    return std::make_shared<TargetPowerResult>(power, code, message);
}

std::string FormatDouble(double value) {
    char text[64];
    std::snprintf(text, sizeof text, "%f", value);
    return text;
}

// The settings readers shared by the flows; created on first use.
SystemSettingXmlManager& SystemSettings() {
    SystemSettingXmlManager::CreateInstance();
    return *SystemSettingXmlManager::GetInstance();
}

DeviceSettingXmlManager& DeviceSettings() {
    DeviceSettingXmlManager::CreateInstance();
    return *DeviceSettingXmlManager::GetInstance();
}

// Whether the clock, read in the device's home time (UTC+9), has reached
// the earliest date a schedule can be for.
bool DateIsPlausible(const Poco::Timestamp& now) {
    const bool testMode = LoggerSettingManager::Current().GetOutputControlTestMode() != 0;
    std::shared_ptr<TimeStamp> minimum = TimeStamp::Parse(kDateFormat, testMode ? kDate20160101 : kDate20200101);
    TimeStamp shifted(now);
    shifted.AddServerOffset();
    return minimum != nullptr && shifted.Value() >= minimum->Value();
}

// Maps `rate` through the inverter's scale from Value0 (at 0 %) to Value100
// (at 100 %), rounded in single precision as the inverters expect. The
// span and the result are wider than an int: a device file may hold any
// two ints, and a stored rate above 100 stretches the scale further. With
// 32-bit inputs the result stays below 2^57, far inside 64 bits.
std::int64_t ScaleRate(std::int32_t rate, const DeviceSettingXmlManager::Limit& limit) {
    if (limit.value100 == 100 && limit.value0 == 0) return rate;
    const std::int64_t span = static_cast<std::int64_t>(limit.value100) - limit.value0;
    const float scaled =
        (static_cast<float>(rate) / 100.0f) * static_cast<float>(span) + static_cast<float>(limit.value0);
    return static_cast<std::int64_t>(std::roundf(scaled));
}

} // namespace

RateControl::RateControl() : clock_(WallClock) {}

RateControl::RateControl(const Clock& clock) : clock_(clock) {}

RateControl::~RateControl() {}

std::shared_ptr<TargetPowerResult> RateControl::GetTargetPower(double capacity, int requestType) {
    SystemSettingXmlManager& systemSettings = SystemSettings();
    systemSettings.Load();
    if (systemSettings.GetOutputControlPlantId().empty()) {
        return Failure(capacity, TargetPowerResult::Code::kPlantIdNotFound, "Plantid not found.");
    }
    DeviceSettingXmlManager::Limit limit;
    DeviceSettings().GetLimit(limit);
    const double floor = static_cast<double>(limit.valueMin);

    if (!DateIsPlausible(clock_())) {
        return Failure(floor, TargetPowerResult::Code::kDateError, "Current date error.");
    }
    const TimeStamp now(clock_());
    ScheduleDatabase* database = ScheduleDatabase::GetInstance();
    ScheduleRow slot;
    if (database != nullptr) {
        slot = database->SelectSchedule(now.EpochSeconds(), requestType == kCurrentTargetPower);
    }
    if (slot.time < 0) {
        return Failure(floor, TargetPowerResult::Code::kNoSchedule, "can not get.");
    }
    const std::int64_t rate = ScaleRate(slot.controlRate, limit);
    double target = static_cast<double>(rate) * capacity / 100.0;
    if (floor > target) target = floor;

    std::shared_ptr<TimeStamp> start = TimeStamp::FromEpochSeconds(slot.time);
    const std::string display = start ? start->FormatDisplay() : std::string();
    LoggerLog::Info(kTag, display + "(UTC) Output Rate [" + std::to_string(rate) + "]  target power[" +
                              FormatDouble(target) + "]  capacity[" + FormatDouble(capacity) + "]");
    return std::make_shared<TargetPowerResult>(target, start ? start->FormatCompact() : std::string());
}

} // namespace brvo
