// The daemon's local operating parameters from LoggerSetting.xml, read once
// at start over a table of built-in defaults. Every value is kept as text
// and converted at each get.
#ifndef BRVO_SETTINGS_LOGGERSETTINGMANAGER_H
#define BRVO_SETTINGS_LOGGERSETTINGMANAGER_H

#include "util/FileUtil.h"
#include "util/LoggerLog.h"

#include <string>
#include <unordered_map>
#include <vector>

namespace brvo {

class LoggerSettingManager {
public:
    // Creates the instance (defaults, then the file) if none exists, and
    // hands its SD card path to FileUtil and its log file settings to
    // LoggerLog.
    static void CreateInstance();
    // The instance, or null before CreateInstance.
    static LoggerSettingManager* GetInstance();
    // Deletes the instance and gives FileUtil and LoggerLog back what they
    // use without one: the built-in SD card path and no log file settings.
    // The daemon never does; tests do.
    static void DeleteInstance();
    // Names of every element of LoggerSetting.xml that is read.
    static std::vector<std::string> KnownKeys();
    // Element names whose values are read as whole numbers.
    static std::vector<std::string> NumericKeys();
    // The built-in value of every element that has one, by element name.
    static std::unordered_map<std::string, std::string> Defaults();
    // The loaded instance, or one holding only the built-in values before
    // CreateInstance and after DeleteInstance. Never destroyed.
    static const LoggerSettingManager& Current();

    // Built-in path of the logger daemon's socket.
    static constexpr const char kDefaultLoggerSocketPath[] = "/mnt/system/brvlogger/brevanta.logger";
    // Built-in path of this daemon's command socket.
    static constexpr const char kDefaultOutputControlSocketPath[] = "/mnt/system/pvoctrl/brevanta.octrl";
    // Built-in path of the watchdog file.
    static constexpr const char kDefaultWatchdogFile[] = "/mnt/system/check/brvo";
    // Built-in seconds between touches of the watchdog file.
    static constexpr int kDefaultWatchdogFileUpdateInterval = 30;
    // Built-in mount point of the SD card.
    static constexpr const char* kDefaultSdcardPath = FileUtil::kDefaultSdcardPath;
    // Built-in number of rolled log files kept.
    static constexpr int kDefaultLogMaxRollIndex = 12;
    // Built-in buffered-log switch.
    static constexpr int kDefaultEnableLogBufferedIO = 1;
    // Lowest log level written when the file names none.
    static constexpr int kDefaultLogLevel = 1;
    // Built-in bytes buffered before the log is written.
    static constexpr int kDefaultLogMaxBufferedSize = 4096;
    // Built-in size at which the log is rolled.
    static constexpr const char kDefaultLogMaxFileSize[] = "500KB";
    // Built-in days schedule rows are kept.
    static constexpr int kDefaultScheduleRetensionCycle = 90;
    // Built-in test-mode switch (off).
    static constexpr int kDefaultTestMode = 0;
    // Built-in seconds between periodic schedule checks; the schedule
    // timers also tick at it when the setting is below 1.
    static constexpr int kDefaultMonitoringInterval = 180;
    // Built-in time-out of socket exchanges in seconds; they also wait
    // this long when the setting is below 1 (GetBoundedSocketTimeout).
    static constexpr int kDefaultSocketTimeout = 60;

    // Path of the logger daemon's socket.
    std::string GetLoggerSocketPath() const;
    // Path of this daemon's command socket.
    std::string GetOutputControlSocketPath() const;
    // Path of the watchdog file.
    std::string GetPVOutputControlWatchdogFile() const;
    // Seconds between touches of the watchdog file; 30 when not a number.
    int GetWatchdogFileUpdateInterval() const;
    // Mount point of the SD card.
    std::string GetSdcardPath() const;
    // Number of rolled log files kept; 12 when not a number.
    int GetOutputScheduleLogMaxRollIndex() const;
    // Whether the log is written through a buffer; true when not a number.
    bool GetOutputScheduleEnableLogBufferedIO() const;
    // Lowest log level written; 1 when absent or not a number.
    int GetLogLevel() const;
    // Bytes buffered before the log is written; 4096 when not a number.
    int GetOutputScheduleLogMaxBufferedSize() const;
    // Size at which the log is rolled, as text ("500KB").
    std::string GetOutputScheduleLogMaxFileSize() const;
    // Days schedule rows are kept; 90 when not a number.
    int GetOutputControlScheduleRetensionCycle() const;
    // Test-mode switch; 0 when not a number.
    int GetOutputControlTestMode() const;
    // Seconds between periodic schedule checks; 180 when not a number.
    int GetOutputScheduleMonitoringInterval() const;
    // Time-out of socket exchanges in seconds; 60 when not a number.
    int GetOutputControlSocketTimeout() const;
    // The time-out that socket exchanges wait, in seconds: the one above,
    // or kDefaultSocketTimeout for a value below 1, since no wait on a
    // peer may be unbounded. Always at least 1.
    int GetBoundedSocketTimeout() const;
    // SdcardPath + "/kestrovanyx/Log/OutputScheduleLog".
    std::string GetLogDirectory() const;

    // The log file's part of these settings, as LoggerLog takes it.
    LoggerLog::FileSettings GetLogFileSettings() const;

    // Writes every value to the log, one Debug line each.
    void Dump();

    virtual ~LoggerSettingManager();

private:
    // Built-in values, then the file unless `load` is false.
    explicit LoggerSettingManager(bool load = true);
    void SetDefaults();
    void Load();
    std::string GetString(const std::string& key) const;
    int GetInt(const std::string& key, int fallback) const;

    std::unordered_map<std::string, std::string>* table_;
};

} // namespace brvo

#endif
