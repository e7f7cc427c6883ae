// Constant texts shared by every unit of the daemon: version, dates, status
// codes, table columns and settings keys. Each unit gets its own copy
// (namespace-scope const objects have internal linkage), so no unit depends
// on another unit's static initialisation order.
#ifndef BRVO_APP_CONSTANTS_H
#define BRVO_APP_CONSTANTS_H

#include <string>

namespace brvo {

// Application version, written to the log at start.
const std::string kAppVersion = "20220119_qtx";

// Dates (yyyymmdd).
const std::string kDate20200101 = "20200101";
const std::string kDate20160101 = "20160101";

// Status codes as text.
const std::string kStatus400 = "400";
const std::string kStatus401 = "401";
const std::string kStatus404 = "404";
const std::string kStatus500 = "500";
const std::string kStatus701 = "701";
const std::string kStatus702 = "702";

// Tables; each lives in a database file of the same name + ".db".
const std::string kTableSchedule = "output_control_schedule";
const std::string kTableScheduleUpdateInfo = "output_control_schedule_update_info";

// Columns of the update information table.
const std::string kColumnPlantId = "plantId";
const std::string kColumnLastUpdateTime = "lastUpdateTime";
const std::string kColumnNextUpdateTime = "nextUpdateTime";
const std::string kColumnFixedScheduleUpdateFlag = "fixedScheduleUpdateFlag";
const std::string kColumnIsNeedUpdateFixedSchedule = "isNeedUpdateFixedSchedule";

// Columns of the schedule table.
const std::string kColumnTime = "time";
const std::string kColumnControlRate = "controlRate";
const std::string kColumnSent = "sent";

// System settings, general section.
const std::string kGeneral = "general";
const std::string kLoggerIp = "loggerIp";
const std::string kLoggerDefaultGw = "loggerDefaultGw";
const std::string kServerUrl = "serverUrl";
const std::string kCloudCooperation = "cloudCooperation";
const std::string kPvStartupDate = "pvStartupDate";
const std::string kOutputControlPlantId = "outputControlPlantId";
const std::string kOutputControlStandAlone = "outputControlStandAlone";
const std::string kOutputScheduleInformationServerUrl = "outputScheduleInformationServerUrl";
const std::string kFacilityCertifiedCapacity = "facilityCertifiedCapacity";

// System settings, system section.
const std::string kSystem = "system";
const std::string kLocale = "locale";
const std::string kLocaleList = "localelist";
const std::string kTimezone = "timezone";
const std::string kCommunicationErrorRetry = "communicationErrorRetry";

// Device entries of the system settings.
const std::string kDeviceType = "type";
const std::string kDeviceSettingFile = "deviceSettingFile";
const std::string kHouseHoldSolarPowerGeneration = "HouseHoldSolarPowerGeneration";

// Attributes of the logger element. "plantId" stands here a second time on
// purpose: it is a different thing from the update information column.
const std::string kAttrPlaneName = "planeName";
const std::string kAttrPlantId = "plantId";
const std::string kAttrLoggerId = "loggerId";
const std::string kAttrAppVersion = "appversion";
const std::string kAttrVersion = "version";
const std::string kAttrSerial = "serial";
const std::string kAttrTimestamp = "timestamp";

// ECHONET Lite device description.
const std::string kEchonetLiteDevicesPath = "/lggrdev:EchonetLiteDevices";
const std::string kEchonetName = "Name";
const std::string kEchonetValue0 = "Value0";
const std::string kEchonetValue100 = "Value100";
const std::string kEchonetValueMin = "ValueMin";

} // namespace brvo

#endif
