#include "support/SingletonTest.h"

#include "settings/LoggerSettingManager.h"
#include "support/SingletonScope.h"
#include "support/TestFiles.h"
#include "util/FileUtil.h"
#include "util/LoggerLog.h"

namespace brvo {
namespace test {

void SingletonTest::TearDown() {
    SingletonScope::DeleteAll();
}

void SingletonTest::UseLoggerSettings(const std::string& innerXml) {
    LoggerLog::DeleteInstance();
    LoggerSettingManager::DeleteInstance();
    FileUtil::ResetDataRoot();
    WriteLoggerSetting("<OutputScheduleEnableLogBufferedIO>0</OutputScheduleEnableLogBufferedIO>" + innerXml);
    LoggerSettingManager::CreateInstance();
    LoggerLog::CreateInstance();
}

} // namespace test
} // namespace brvo
