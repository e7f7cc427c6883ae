// Turns the stored schedule into a power limit: the output rate of the
// current or the next slot, mapped through the inverter's own rate scale
// and applied to the plant capacity, never below the inverter's floor.
#ifndef BRVO_SCHEDULE_RATECONTROL_H
#define BRVO_SCHEDULE_RATECONTROL_H

#include "schedule/TargetPowerResult.h"

#include <Poco/Timestamp.h>

#include <functional>
#include <memory>

namespace brvo {

class RateControl {
public:
    // Request types of the command protocol.
    static constexpr int kCurrentTargetPower = 6;
    static constexpr int kNextTargetPower = 7;

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
    // settings' test mode and the schedule table. Never throws: failures are
    // results with code 11 (no plant id; power = capacity), 10 (clock before
    // the earliest plausible date; power = the floor) or 5 (no slot; power =
    // the floor).
    std::shared_ptr<TargetPowerResult> GetTargetPower(double capacity, int requestType);

private:
    Clock clock_;
};

} // namespace brvo

#endif
