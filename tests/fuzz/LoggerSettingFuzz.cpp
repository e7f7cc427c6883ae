// Fuzz target of the LoggerSetting.xml reader: the input is the file's
// content. The settings are built afresh from it for every input and every
// getter is read. No log is made from them: a fuzzed SD card path would
// put it anywhere on the machine.
#include "fuzz/FuzzEnvironment.h"

#include "settings/LoggerSettingManager.h"
#include "util/FileUtil.h"

#include <cstdint>
#include <string>

using brvo::fuzz::FuzzEnvironment;

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    FuzzEnvironment::RequireSandbox("LoggerSettingFuzz");
    // No log: its buffer keeps lines across inputs, which makes libFuzzer
    // check for leaks after every input and slows the run many times over.
    // The messages are built all the same.
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    FuzzEnvironment::WriteFile(brvo::FileUtil::GetLoggerSettingFile(), FuzzEnvironment::Text(data, size));
    brvo::LoggerSettingManager::DeleteInstance();
    brvo::LoggerSettingManager::CreateInstance();
    brvo::LoggerSettingManager& settings = *brvo::LoggerSettingManager::GetInstance();

    const std::string sdcard = settings.GetSdcardPath();
    FuzzEnvironment::Check(settings.GetLogDirectory() == sdcard + "/kestrovanyx/Log/OutputScheduleLog",
                           "log directory is not the card path and the suffix");
    settings.GetLoggerSocketPath();
    settings.GetOutputControlSocketPath();
    settings.GetPVOutputControlWatchdogFile();
    settings.GetWatchdogFileUpdateInterval();
    settings.GetOutputScheduleLogMaxRollIndex();
    settings.GetOutputScheduleEnableLogBufferedIO();
    settings.GetLogLevel();
    settings.GetOutputScheduleLogMaxBufferedSize();
    settings.GetOutputScheduleLogMaxFileSize();
    settings.GetOutputControlScheduleRetensionCycle();
    settings.GetOutputControlTestMode();
    settings.GetOutputScheduleMonitoringInterval();
    settings.GetOutputControlSocketTimeout();
    settings.Dump();
    return 0;
}
