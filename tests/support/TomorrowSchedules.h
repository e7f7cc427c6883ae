// The pair of schedules the flow tests have the schedule server send: the
// update schedule for tomorrow and the fixed schedule for the day after,
// both for plant 777, so that neither covers the slot in force now.
#ifndef BRVO_TESTS_SUPPORT_TOMORROWSCHEDULES_H
#define BRVO_TESTS_SUPPORT_TOMORROWSCHEDULES_H

#include "support/SchedulePayload.h"

#include <cstdint>

namespace brvo {
namespace test {

struct TomorrowSchedules {
    // Tomorrow's midnight (UTC), in seconds since the epoch.
    std::int64_t tomorrow = 0;
    // The update schedule: from tomorrow's midnight, 48 slots at 60 %, fixed
    // schedule update flag 3, next update time tomorrow's midnight.
    ScheduleRecord update;
    // The fixed schedule: from the midnight after, 48 slots at 30 %.
    ScheduleRecord fixed;
};

// The schedules above for the day after today by the wall clock.
TomorrowSchedules MakeTomorrowSchedules();

} // namespace test
} // namespace brvo

#endif
