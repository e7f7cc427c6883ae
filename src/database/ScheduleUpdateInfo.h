// The schedule update bookkeeping of one plant, as kept in the update
// information table: for which plant the schedule was fetched, when, when the
// next update is due, and the state of the fixed-schedule handling.
#ifndef BRVO_DATABASE_SCHEDULEUPDATEINFO_H
#define BRVO_DATABASE_SCHEDULEUPDATEINFO_H

#include <cstdint>
#include <string>

namespace brvo {

struct ScheduleUpdateInfo {
    // The power plant id; empty when no row exists.
    std::string plantId;
    // Time of the last successful update, "%Y-%m-%d %H:%M:%S" in UTC.
    std::string lastUpdateTime;
    // Time at which the next update is due, same form.
    std::string nextUpdateTime;
    // State number of the fixed-schedule update.
    std::int32_t fixedScheduleUpdateFlag = 0;
    // True when the fixed schedule must be fetched again.
    bool isNeedUpdateFixedSchedule = false;
};

} // namespace brvo

#endif
