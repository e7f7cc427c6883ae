// The daemon's two database files as tests prepare and inspect them: a
// schedule and its update information stored before the daemon starts, and
// every row read back afterwards.
#ifndef BRVO_TESTS_SUPPORT_STOREDSCHEDULE_H
#define BRVO_TESTS_SUPPORT_STOREDSCHEDULE_H

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace brvo {
namespace test {

// The files with the default settings.
const char kScheduleDbFile[] = "/media/sdcard/kestrovanyx/Database/OutputControl/output_control_schedule.db";
const char kUpdateInfoDbFile[] =
    "/media/sdcard/kestrovanyx/Database/OutputControl/output_control_schedule_update_info.db";

// Creates both tables as the daemon does and stores `slots` (start time in
// epoch seconds, rate) unsent, and one update information row for
// `plantId`, so that a daemon configured for that plant keeps them.
void StoreSchedule(const std::string& plantId, const std::vector<std::pair<std::int64_t, int>>& slots);
// Every row of the schedule table in `file`, ordered by time: time, rate,
// sent.
std::vector<std::vector<std::string>> ScheduleRows(const std::string& file = kScheduleDbFile);
// Every row of the update information table in `file`, all columns in
// their order, ordered by plant ID.
std::vector<std::vector<std::string>> UpdateInfoRows(const std::string& file = kUpdateInfoDbFile);
// The names of the tables in the file at `path`, ordered.
std::vector<std::string> TableNames(const std::string& path);

} // namespace test
} // namespace brvo

#endif
