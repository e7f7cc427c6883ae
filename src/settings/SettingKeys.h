// Element and attribute names read from the system settings, the device
// descriptions and the logger element. Each unit gets its own copy
// (namespace-scope const objects have internal linkage), so no unit depends
// on another unit's static initialisation order.
#ifndef BRVO_SETTINGS_SETTINGKEYS_H
#define BRVO_SETTINGS_SETTINGKEYS_H

#include <string>

namespace brvo {

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

// Attributes of the logger element. "plantId" is also the name of a column
// of the update information table; the two are different things.
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
