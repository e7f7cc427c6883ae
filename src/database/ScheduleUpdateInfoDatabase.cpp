#include "database/ScheduleUpdateInfoDatabase.h"

#include "database/TableNames.h"
#include "util/LoggerLog.h"

#include <Poco/Data/Statement.h>
#include <Poco/Exception.h>

#include <sstream>

namespace brvo {

namespace {
const std::string kTag = "ScheduleUpdateDataInfo";
}

ScheduleUpdateInfoDatabase::ScheduleUpdateInfoDatabase() : DatabaseManager(kTag, kTableScheduleUpdateInfo) {}

ScheduleUpdateInfoDatabase::~ScheduleUpdateInfoDatabase() {}

std::string ScheduleUpdateInfoDatabase::CreateTableStatement() const {
    std::ostringstream sql;
    sql << "CREATE TABLE IF NOT EXISTS " << kTableScheduleUpdateInfo << " (" << kColumnPlantId << " VARCHAR(26),"
        << kColumnLastUpdateTime << " VARCHAR(19)," << kColumnNextUpdateTime << " VARCHAR(19),"
        << kColumnFixedScheduleUpdateFlag << " INTEGER," << kColumnIsNeedUpdateFixedSchedule << " BOOLEAN DEFAULT 0,"
        << " PRIMARY KEY( " << kColumnPlantId << ") "
        << ")";
    return sql.str();
}

std::string ScheduleUpdateInfoDatabase::ColumnList() const {
    return kColumnPlantId + ", " + kColumnLastUpdateTime + ", " + kColumnNextUpdateTime + ", " +
           kColumnFixedScheduleUpdateFlag + ", " + kColumnIsNeedUpdateFixedSchedule;
}

// The values go in between single quotes as they are, without escaping: a
// value with a quote inside is refused before anything runs, and the
// failure is logged.
bool ScheduleUpdateInfoDatabase::InsertUpdateInfo(const ScheduleUpdateInfo& info) {
    bool inserted = false;
    Operate("Insert Update error. ", [&] {
        std::ostringstream sql;
        sql << "INSERT OR REPLACE INTO " << kTableScheduleUpdateInfo << " "
            << " ( "
            << " " << kColumnPlantId << " "
            << ", " << kColumnLastUpdateTime << " "
            << ", " << kColumnNextUpdateTime << " "
            << ", " << kColumnFixedScheduleUpdateFlag << " "
            << ", " << kColumnIsNeedUpdateFixedSchedule << " "
            << " )";
        sql << " VALUES ( "
            << " " << Quoted(info.plantId) << "," << Quoted(info.lastUpdateTime) << "," << Quoted(info.nextUpdateTime)
            << ",'" << info.fixedScheduleUpdateFlag << "'"
            << ",'" << (info.isNeedUpdateFixedSchedule ? 1 : 0) << "'"
            << " )";
        inserted = Execute(sql.str()) > 0;
    });
    return inserted;
}

ScheduleUpdateInfo ScheduleUpdateInfoDatabase::SelectUpdateInfo() {
    ScheduleUpdateInfo info;
    Operate("Select error. ", [&] {
        std::ostringstream sql;
        sql << "SELECT " << kColumnPlantId << ", " << kColumnLastUpdateTime << ", " << kColumnNextUpdateTime << ", "
            << kColumnFixedScheduleUpdateFlag << ", " << kColumnIsNeedUpdateFixedSchedule << " FROM "
            << kTableScheduleUpdateInfo;
        Poco::Data::Statement select(GetSession());
        select << sql.str(), Poco::Data::Keywords::into(info.plantId), Poco::Data::Keywords::into(info.lastUpdateTime),
            Poco::Data::Keywords::into(info.nextUpdateTime), Poco::Data::Keywords::into(info.fixedScheduleUpdateFlag),
            Poco::Data::Keywords::into(info.isNeedUpdateFixedSchedule), Poco::Data::Keywords::limit(1);
        if (!select.done()) select.execute();
    });
    return info;
}

bool ScheduleUpdateInfoDatabase::DeleteUpdateInfo() {
    bool deleted = false;
    Operate("Delete error. ", [&] {
        std::ostringstream sql;
        sql << "DELETE FROM " << kTableScheduleUpdateInfo << " ";
        deleted = Execute(sql.str()) > 0;
    });
    return deleted;
}

} // namespace brvo
