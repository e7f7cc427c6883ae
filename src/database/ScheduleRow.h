// One row of the schedule table in memory: used for inserts and as the
// result of a query.
#ifndef BRVO_DATABASE_SCHEDULEROW_H
#define BRVO_DATABASE_SCHEDULEROW_H

#include <cstdint>

namespace brvo {

struct ScheduleRow {
    // Start of the slot in seconds since 1970-01-01 00:00 UTC; -1 in a query
    // result means that no row matched.
    std::int64_t time = -1;
    // Output rate of the slot in percent of the capacity.
    std::int32_t controlRate = 0;
    // True once the row has been forwarded to the logger daemon.
    bool sent = false;
};

} // namespace brvo

#endif
