#include "support/StoredSchedule.h"

#include "support/SqliteFile.h"

#include <sstream>

namespace brvo {
namespace test {

void StoreSchedule(const std::string& plantId, const std::vector<std::pair<std::int64_t, int>>& slots) {
    std::ostringstream schedule;
    schedule << "CREATE TABLE IF NOT EXISTS output_control_schedule (time INTEGER PRIMARY KEY ,"
                "controlRate INTEGER,sent BOOLEAN DEFAULT 0 );";
    for (const auto& slot : slots) {
        schedule << "INSERT INTO output_control_schedule VALUES (" << slot.first << "," << slot.second << ",0);";
    }
    CreateDatabase(kScheduleDbFile, schedule.str());
    std::string quoted;
    for (const char ch : plantId) quoted += ch == '\'' ? std::string("''") : std::string(1, ch);
    CreateDatabase(kUpdateInfoDbFile,
                   "CREATE TABLE IF NOT EXISTS output_control_schedule_update_info (plantId VARCHAR(26),"
                   "lastUpdateTime VARCHAR(19),nextUpdateTime VARCHAR(19),fixedScheduleUpdateFlag INTEGER,"
                   "isNeedUpdateFixedSchedule BOOLEAN DEFAULT 0, PRIMARY KEY( plantId) );"
                   "INSERT INTO output_control_schedule_update_info VALUES ('" +
                       quoted + "','2030-01-01 00:00:00','2099-01-01 00:00:00',3,0);");
}

std::vector<std::vector<std::string>> ScheduleRows(const std::string& file) {
    return QueryFile(file, "SELECT time, controlRate, sent FROM output_control_schedule ORDER BY time");
}

std::vector<std::vector<std::string>> UpdateInfoRows(const std::string& file) {
    return QueryFile(file, "SELECT plantId, lastUpdateTime, nextUpdateTime, fixedScheduleUpdateFlag, "
                           "isNeedUpdateFixedSchedule FROM output_control_schedule_update_info ORDER BY plantId");
}

std::vector<std::string> TableNames(const std::string& path) {
    std::vector<std::string> names;
    for (const auto& row : QueryFile(path, "SELECT name FROM sqlite_master WHERE type = 'table' ORDER BY name")) {
        names.push_back(row.at(0));
    }
    return names;
}

} // namespace test
} // namespace brvo
