#include "support/SingletonScope.h"

#include "app/BrevantaOutputControlManager.h"
#include "database/ScheduleDatabase.h"
#include "schedule/ScheduleUpdateManager.h"
#include "settings/DeviceSettingXmlManager.h"
#include "settings/LoggerSettingManager.h"
#include "settings/SystemSettingXmlManager.h"
#include "util/FileUtil.h"
#include "util/LoggerLog.h"

namespace brvo {
namespace test {

// Each layer may still log or read settings while it ends, so the log and
// the logger settings go last.
void SingletonScope::DeleteAll() {
    BrevantaOutputControlManager::DeleteInstance();
    ScheduleUpdateManager::DeleteInstance();
    ScheduleDatabase::DeleteInstance();
    DeviceSettingXmlManager::DeleteInstance();
    SystemSettingXmlManager::DeleteInstance();
    LoggerLog::DeleteInstance();
    LoggerSettingManager::DeleteInstance();
    FileUtil::ResetDataRoot();
}

} // namespace test
} // namespace brvo
