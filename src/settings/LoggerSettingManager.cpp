#include "settings/LoggerSettingManager.h"

#include <atomic>

#include "settings/XmlNode.h"
#include "settings/XmlSettingsParser.h"
#include "util/FileUtil.h"
#include "util/GuardedCall.h"
#include "util/LoggerLog.h"

#include <Poco/AutoPtr.h>
#include <Poco/DOM/Document.h>
#include <Poco/Exception.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>

namespace brvo {

namespace {

const std::string kTag = "LoggerSettingManager";
const std::string kRootPath = "/LoggerSetting";
const std::string kLogDirectorySuffix = "/kestrovanyx/Log/OutputScheduleLog";
const std::string kRule = "---------------------------";

// Keys are plain character arrays: the command-server thread still reads
// settings while the process exits and static objects are destroyed.
const char kLoggerSocketPath[] = "LoggerSocketPath";
const char kOutputControlSocketPath[] = "OutputControlSocketPath";
const char kWatchdogFile[] = "PVOutputControlWatchdogFile";
const char kWatchdogInterval[] = "WatchdogFileUpdateInterval";
const char kSdcardPath[] = "SdcardPath";
const char kMaxRollIndex[] = "OutputScheduleLogMaxRollIndex";
const char kEnableBufferedIO[] = "OutputScheduleEnableLogBufferedIO";
const char kLogLevel[] = "LogLevel";
const char kMaxBufferedSize[] = "OutputScheduleLogMaxBufferedSize";
const char kMaxFileSize[] = "OutputScheduleLogMaxFileSize";
const char kRetentionCycle[] = "OutputControlScheduleRetensionCycle";
const char kTestMode[] = "OutputControlTestMode";
const char kMonitoringInterval[] = "OutputScheduleMonitoringInterval";
const char kSocketTimeout[] = "OutputControlSocketTimeout";

// Read from every thread; created and deleted on the main thread.
std::atomic<LoggerSettingManager*> instance(nullptr);

// Decimal text to a 32-bit int the way the settings have always been read:
// leading white space and a sign are accepted and reading stops at the first
// non-digit ("45s" is 45). False when no digit can be read or the number
// does not fit 32 bits.
bool ParseInt32(const std::string& text, int& value) {
    const char* begin = text.c_str();
    char* end = nullptr;
    errno = 0;
    const long long parsed = std::strtoll(begin, &end, 10);
    if (end == begin || errno == ERANGE) return false;
    if (parsed < INT32_MIN || parsed > INT32_MAX) return false;
    value = static_cast<int>(parsed);
    return true;
}

std::string Bracketed(const std::string& label, const std::string& value) {
    return "[" + label + "] = [" + value + "]";
}

} // namespace

// The values are handed down before the instance is published; they cannot
// change afterwards, since the table is read-only once built.
void LoggerSettingManager::CreateInstance() {
    if (instance != nullptr) return;
    LoggerSettingManager* created = new LoggerSettingManager();
    FileUtil::SetSdcardPath(created->GetSdcardPath());
    LoggerLog::SetFileSettings(created->GetLogFileSettings());
    instance = created;
}

std::vector<std::string> LoggerSettingManager::KnownKeys() {
    std::vector<std::string> keys = {kLoggerSocketPath, kOutputControlSocketPath, kWatchdogFile, kSdcardPath,
                                     kMaxFileSize};
    const std::vector<std::string> numeric = NumericKeys();
    keys.insert(keys.end(), numeric.begin(), numeric.end());
    return keys;
}

std::vector<std::string> LoggerSettingManager::NumericKeys() {
    return {kWatchdogInterval, kMaxRollIndex, kEnableBufferedIO,   kLogLevel,     kMaxBufferedSize,
            kRetentionCycle,   kTestMode,     kMonitoringInterval, kSocketTimeout};
}

LoggerSettingManager* LoggerSettingManager::GetInstance() {
    return instance;
}

// The defaults-only instance is leaked on purpose: threads still read
// settings while static objects are destroyed at exit.
const LoggerSettingManager& LoggerSettingManager::Current() {
    const LoggerSettingManager* loaded = instance;
    if (loaded != nullptr) return *loaded;
    static const LoggerSettingManager* const defaults = new LoggerSettingManager(false);
    return *defaults;
}

void LoggerSettingManager::DeleteInstance() {
    LoggerSettingManager* deleted = instance.exchange(nullptr);
    LoggerLog::ClearFileSettings();
    FileUtil::SetSdcardPath(std::string());
    delete deleted;
}

LoggerSettingManager::LoggerSettingManager(bool load) : table_(new std::unordered_map<std::string, std::string>(10)) {
    SetDefaults();
    if (load) Load();
}

LoggerSettingManager::~LoggerSettingManager() {
    delete table_;
}

std::unordered_map<std::string, std::string> LoggerSettingManager::Defaults() {
    std::unordered_map<std::string, std::string> table(10);
    table[kLoggerSocketPath] = FileUtil::UnderRoot(kDefaultLoggerSocketPath);
    table[kOutputControlSocketPath] = FileUtil::UnderRoot(kDefaultOutputControlSocketPath);
    table[kWatchdogFile] = FileUtil::UnderRoot(kDefaultWatchdogFile);
    table[kWatchdogInterval] = std::to_string(kDefaultWatchdogFileUpdateInterval);
    table[kSdcardPath] = FileUtil::UnderRoot(kDefaultSdcardPath);
    table[kMaxRollIndex] = std::to_string(kDefaultLogMaxRollIndex);
    table[kEnableBufferedIO] = std::to_string(kDefaultEnableLogBufferedIO);
    // LogLevel has no default on purpose: its getter falls back to 1.
    table[kMaxBufferedSize] = std::to_string(kDefaultLogMaxBufferedSize);
    table[kMaxFileSize] = kDefaultLogMaxFileSize;
    table[kRetentionCycle] = std::to_string(kDefaultScheduleRetensionCycle);
    table[kTestMode] = std::to_string(kDefaultTestMode);
    table[kMonitoringInterval] = std::to_string(kDefaultMonitoringInterval);
    table[kSocketTimeout] = std::to_string(kDefaultSocketTimeout);
    return table;
}

void LoggerSettingManager::SetDefaults() {
    *table_ = Defaults();
}

// A missing, unreadable, oversized or malformed file (too deep a nesting
// included), or one that is no regular file, leaves the defaults in force
// and is not logged: the log itself is configured from these values
// afterwards.
void LoggerSettingManager::Load() {
    GuardedCall([this] {
        const std::string path = FileUtil::GetLoggerSettingFile();
        std::string text;
        std::string unusable;
        if (!XmlSettingsParser::ReadFile(path, text, unusable)) return;
        Poco::AutoPtr<Poco::XML::Document> document = XmlSettingsParser::Parse(path, text, true);
        Poco::XML::Node* root = document->getNodeByPath(kRootPath);
        if (root == nullptr) return;
        XmlNode tree(nullptr, root);
        for (const XmlNode* child : tree.GetChildren()) {
            (*table_)[child->GetName()] = child->GetValue();
        }
    });
}

// Lookups never insert, so the table is strictly read-only once built and
// any thread may read it; a key missing from the table reads as empty text.
std::string LoggerSettingManager::GetString(const std::string& key) const {
    auto found = table_->find(key);
    return found == table_->end() ? std::string() : found->second;
}

int LoggerSettingManager::GetInt(const std::string& key, int fallback) const {
    const std::string text = GetString(key);
    if (text.empty()) return fallback;
    int value = 0;
    return ParseInt32(text, value) ? value : fallback;
}

std::string LoggerSettingManager::GetLoggerSocketPath() const {
    return GetString(kLoggerSocketPath);
}

std::string LoggerSettingManager::GetOutputControlSocketPath() const {
    return GetString(kOutputControlSocketPath);
}

std::string LoggerSettingManager::GetPVOutputControlWatchdogFile() const {
    return GetString(kWatchdogFile);
}

int LoggerSettingManager::GetWatchdogFileUpdateInterval() const {
    return GetInt(kWatchdogInterval, kDefaultWatchdogFileUpdateInterval);
}

std::string LoggerSettingManager::GetSdcardPath() const {
    return GetString(kSdcardPath);
}

int LoggerSettingManager::GetOutputScheduleLogMaxRollIndex() const {
    return GetInt(kMaxRollIndex, kDefaultLogMaxRollIndex);
}

bool LoggerSettingManager::GetOutputScheduleEnableLogBufferedIO() const {
    return GetInt(kEnableBufferedIO, kDefaultEnableLogBufferedIO) != 0;
}

int LoggerSettingManager::GetLogLevel() const {
    return GetInt(kLogLevel, kDefaultLogLevel);
}

int LoggerSettingManager::GetOutputScheduleLogMaxBufferedSize() const {
    return GetInt(kMaxBufferedSize, kDefaultLogMaxBufferedSize);
}

std::string LoggerSettingManager::GetOutputScheduleLogMaxFileSize() const {
    return GetString(kMaxFileSize);
}

int LoggerSettingManager::GetOutputControlScheduleRetensionCycle() const {
    return GetInt(kRetentionCycle, kDefaultScheduleRetensionCycle);
}

int LoggerSettingManager::GetOutputControlTestMode() const {
    return GetInt(kTestMode, kDefaultTestMode);
}

int LoggerSettingManager::GetOutputScheduleMonitoringInterval() const {
    return GetInt(kMonitoringInterval, kDefaultMonitoringInterval);
}

// The command server reads this at every round of its loop: the key is
// made once, not at each call, and never destroyed, since the loop may
// still run while the process exits.
int LoggerSettingManager::GetOutputControlSocketTimeout() const {
    static const std::string* const key = new std::string(kSocketTimeout);
    return GetInt(*key, kDefaultSocketTimeout);
}

int LoggerSettingManager::GetBoundedSocketTimeout() const {
    const int seconds = GetOutputControlSocketTimeout();
    return seconds > 0 ? seconds : kDefaultSocketTimeout;
}

std::string LoggerSettingManager::GetLogDirectory() const {
    return GetSdcardPath() + kLogDirectorySuffix;
}

LoggerLog::FileSettings LoggerSettingManager::GetLogFileSettings() const {
    LoggerLog::FileSettings settings;
    settings.directory = GetLogDirectory();
    settings.maxFileSize = GetOutputScheduleLogMaxFileSize();
    settings.maxRollIndex = GetOutputScheduleLogMaxRollIndex();
    settings.logLevel = GetLogLevel();
    settings.bufferedIO = GetOutputScheduleEnableLogBufferedIO();
    settings.maxBufferedSize = GetOutputScheduleLogMaxBufferedSize();
    return settings;
}

void LoggerSettingManager::Dump() {
    LoggerLog::Debug(kTag, kRule);
    LoggerLog::Debug(kTag, Bracketed(kLoggerSocketPath, GetLoggerSocketPath()));
    LoggerLog::Debug(kTag, Bracketed(kOutputControlSocketPath, GetOutputControlSocketPath()));
    LoggerLog::Debug(kTag, Bracketed(kWatchdogFile, GetPVOutputControlWatchdogFile()));
    LoggerLog::Debug(kTag, Bracketed(kWatchdogInterval, std::to_string(GetWatchdogFileUpdateInterval())));
    LoggerLog::Debug(kTag, Bracketed(kSdcardPath, GetSdcardPath()));
    LoggerLog::Debug(kTag, Bracketed(kMaxRollIndex, std::to_string(GetOutputScheduleLogMaxRollIndex())));
    LoggerLog::Debug(kTag, Bracketed(kEnableBufferedIO, GetOutputScheduleEnableLogBufferedIO() ? "1" : "0"));
    LoggerLog::Debug(kTag, Bracketed(kMaxBufferedSize, std::to_string(GetOutputScheduleLogMaxBufferedSize())));
    LoggerLog::Debug(kTag, Bracketed(kMaxFileSize, GetOutputScheduleLogMaxFileSize()));
    LoggerLog::Debug(kTag, Bracketed("GetLogDirectory", GetLogDirectory()));
    LoggerLog::Debug(kTag,
                     Bracketed("OCScheduleRetensionCycle", std::to_string(GetOutputControlScheduleRetensionCycle())));
    LoggerLog::Debug(kTag, Bracketed(kTestMode, std::to_string(GetOutputControlTestMode())));
    LoggerLog::Debug(kTag, Bracketed(kMonitoringInterval, std::to_string(GetOutputScheduleMonitoringInterval())));
    LoggerLog::Debug(
        kTag, Bracketed("SettingTagOutputControlSocketTimeout", std::to_string(GetOutputControlSocketTimeout())));
    LoggerLog::Debug(kTag, kRule);
}

} // namespace brvo
