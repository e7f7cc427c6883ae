// Turns the stored schedule into a power limit: the output rate of the
// current or the next slot, mapped through the inverter's own rate scale
// and applied to the plant capacity, never below the inverter's floor.
//
// The rules themselves (date check, rate scale, floor, log line) are
// static and read nothing, so that an answer computed from a snapshot of
// the inputs (TargetPowerSnapshot) is the same as one computed here.
#ifndef BRVO_SCHEDULE_RATECONTROL_H
#define BRVO_SCHEDULE_RATECONTROL_H

#include "schedule/TargetPowerResult.h"
#include "settings/DeviceSettingXmlManager.h"

#include <Poco/Timestamp.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace brvo {

class RateControl {
public:
    // Request types of the command protocol.
    static constexpr int kCurrentTargetPower = 6;
    static constexpr int kNextTargetPower = 7;
    // Room for one double formatted with "%f" in a log line; a wider value
    // is cut to it.
    static constexpr std::size_t kDoubleTextSize = 64;
    // Room for the Info line of a computed target power.
    static constexpr std::size_t kRateLineSize = 256;

    // The source of the current time.
    typedef std::function<Poco::Timestamp()> Clock;

    // Uses the system clock.
    RateControl();
    // Uses `clock` for the current time (tests set the date this way).
    explicit RateControl(const Clock& clock);
    virtual ~RateControl();

    // The target power for `capacity` (in the client's unit) in the slot in
    // force now (`requestType` 6) or the next slot (any other type). Uses
    // the system settings (reloaded), the device's rate scale, the logger
    // settings' test mode, and the slot the target power snapshot holds or
    // else the schedule table's (TargetPowerSnapshot::HeldSlot: a table
    // locked by another process holds up no answer that memory has). Never
    // throws: failures are
    // results with code 11 (no plant id; power = capacity), 10 (clock before
    // the earliest plausible date; power = the floor) or 5 (no slot; power =
    // the floor).
    std::shared_ptr<TargetPowerResult> GetTargetPower(double capacity, int requestType);

    // The earliest plausible date in microseconds since the epoch: 2016-01-01
    // in test mode, else 2020-01-01 (read as UTC).
    static std::int64_t EarliestDateMicros(bool testMode);
    // Whether the clock at `nowMicros`, read in the device's home time
    // (UTC+9), has reached `earliestMicros`.
    static bool DateIsPlausible(std::int64_t nowMicros, std::int64_t earliestMicros);
    // Maps `rate` through the inverter's scale from Value0 (at 0 %) to
    // Value100 (at 100 %), rounded in single precision.
    static std::int64_t ScaleRate(std::int32_t rate, const DeviceSettingXmlManager::Limit& limit);
    // The power for the scaled `rate` and `capacity`, never below `floor`.
    static double Target(std::int64_t rate, double capacity, double floor);
    // Formats the Info line of a computed target power into `text` (room
    // for kRateLineSize bytes): the slot's start `display` ("%Y-%m-%d
    // %H:%M:%S"), the rate, the target and the capacity. Its length.
    static std::size_t FormatRateLine(char* text, const char* display, std::int64_t rate, double target,
                                      double capacity);
    // Writes the Info line of a computed target power at RateControl's tag.
    static void LogRate(const char* display, std::int64_t rate, double target, double capacity);
    // The message of a failure `code` ("Plantid not found.", "Current date
    // error.", "can not get.").
    static const std::string& FailureMessage(TargetPowerResult::Code code);
    // Logs a failure `code` as GetTargetPower does: "Get Target Power
    // failed. " and its message at Warning level, held to one line a period.
    static void LogFailure(TargetPowerResult::Code code);

private:
    Clock clock_;
};

} // namespace brvo

#endif
