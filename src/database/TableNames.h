// Names of the daemon's tables and of their columns. Each unit gets its own
// copy (namespace-scope const objects have internal linkage), so no unit
// depends on another unit's static initialisation order.
#ifndef BRVO_DATABASE_TABLENAMES_H
#define BRVO_DATABASE_TABLENAMES_H

#include <string>

namespace brvo {

// Tables; each lives in a database file of the same name + ".db".
const std::string kTableSchedule = "output_control_schedule";
const std::string kTableScheduleUpdateInfo = "output_control_schedule_update_info";

// Columns of the update information table. "plantId" is also the name of an
// attribute of the logger settings element; the two are different things.
const std::string kColumnPlantId = "plantId";
const std::string kColumnLastUpdateTime = "lastUpdateTime";
const std::string kColumnNextUpdateTime = "nextUpdateTime";
const std::string kColumnFixedScheduleUpdateFlag = "fixedScheduleUpdateFlag";
const std::string kColumnIsNeedUpdateFixedSchedule = "isNeedUpdateFixedSchedule";

// Columns of the schedule table.
const std::string kColumnTime = "time";
const std::string kColumnControlRate = "controlRate";
const std::string kColumnSent = "sent";

} // namespace brvo

#endif
