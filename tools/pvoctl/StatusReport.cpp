#include "StatusReport.h"

#include "CommandSocket.h"
#include "JsonValue.h"
#include "StorageLocation.h"

#include "database/StorageNote.h"
#include "database/TableNames.h"
#include "server/CommandWire.h"
#include "settings/LoggerSettingManager.h"
#include "settings/SystemSettingXmlManager.h"
#include "util/FileUtil.h"
#include "util/LogFileOutput.h"
#include "util/LoggerLog.h"
#include "util/TimeStamp.h"

#include <sqlite3.h>

#include <algorithm>
#include <limits>
#include <sstream>
#include <sys/stat.h>

namespace brvo {

namespace {

// The update timer steps a passed update time forward by this much.
const std::int64_t kRetryStep = 1800;
// Slack of the fixed-schedule time: one that passed less long ago stays today.
const std::int64_t kFixedGrace = 20 * 60;
// Length of one schedule slot.
const std::int64_t kSlotSeconds = 1800;

// An SQLite file opened read-only; a missing file is not created.
class ReadOnlyDatabase {
public:
    explicit ReadOnlyDatabase(const std::string& path) {
        if (sqlite3_open_v2(path.c_str(), &handle_, SQLITE_OPEN_READONLY, nullptr) != SQLITE_OK) {
            sqlite3_close(handle_);
            handle_ = nullptr;
        }
    }
    ~ReadOnlyDatabase() {
        sqlite3_finalize(statement_);
        sqlite3_close(handle_);
    }
    ReadOnlyDatabase(const ReadOnlyDatabase&) = delete;
    ReadOnlyDatabase& operator=(const ReadOnlyDatabase&) = delete;

    // Runs `sql`; true when it gave a first row, then readable by column.
    bool FirstRow(const std::string& sql) {
        if (handle_ == nullptr) return false;
        if (sqlite3_prepare_v2(handle_, sql.c_str(), -1, &statement_, nullptr) != SQLITE_OK) return false;
        return sqlite3_step(statement_) == SQLITE_ROW;
    }
    std::string Text(int column) const {
        const unsigned char* text = sqlite3_column_text(statement_, column);
        return text == nullptr ? std::string() : reinterpret_cast<const char*>(text);
    }
    std::int64_t Integer(int column) const { return sqlite3_column_int64(statement_, column); }
    bool Null(int column) const { return sqlite3_column_type(statement_, column) == SQLITE_NULL; }

private:
    sqlite3* handle_ = nullptr;
    sqlite3_stmt* statement_ = nullptr;
};

std::int64_t ParseTime(const std::string& text) {
    std::shared_ptr<TimeStamp> time = TimeStamp::ParseDisplay(text);
    return time ? time->EpochSeconds() : -1;
}

// The fixed schedule's fetch time: spread over the afternoon (UTC) by the
// plant ID's last digit, from 12:10 in steps of 30 minutes.
std::int64_t FixedScheduleTime(const std::string& plantId, std::int64_t now) {
    const char last = plantId.empty() ? '\0' : plantId.back();
    if (last < '0' || last > '9') return now + kRetryStep;
    const std::int64_t midnight = now - ((now % 86400) + 86400) % 86400;
    std::int64_t time = midnight + 12 * 3600 + 10 * 60 + (last - '0') * 1800;
    if (time < now - kFixedGrace) time += 86400;
    return time;
}

std::string Escaped(const std::string& label) {
    std::string out;
    for (const char c : label) {
        if (c == '\\' || c == '"') out += '\\';
        out += c == '\n' ? std::string("\\n") : std::string(1, c);
    }
    return out;
}

std::string JsonTime(std::int64_t epoch) {
    return epoch < 0 ? "null" : std::to_string(epoch);
}

} // namespace

StatusReport::StatusReport(const std::string& socketPath, int timeoutMs)
    : now_(TimeStamp().EpochSeconds()), socketPath_(socketPath) {
    ReadSettings();
    ReadUpdateInfo();
    ReadSchedule();
    ReadFiles();
    ReadStorageNotes();
    AskSocket(timeoutMs);
    WorkOutTimers();
    Judge();
}

void StatusReport::ReadSettings() {
    LoggerSettingManager::CreateInstance();
    const LoggerSettingManager& logger = *LoggerSettingManager::GetInstance();
    monitoringInterval_ = logger.GetOutputScheduleMonitoringInterval();
    watchdogInterval_ = logger.GetWatchdogFileUpdateInterval();
    watchdogFile_ = logger.GetPVOutputControlWatchdogFile();
    sdcardPath_ = logger.GetSdcardPath();
    logFile_ = logger.GetLogDirectory() + "/" + LoggerLog::kLogFileName;
    SystemSettingXmlManager::CreateInstance();
    SystemSettingXmlManager& system = *SystemSettingXmlManager::GetInstance();
    system.Load();
    plantId_ = system.GetOutputControlPlantId();
    standAlone_ = system.GetOutputControlStandAlone();
    const StorageLocation storage(sdcardPath_);
    dataRoot_ = storage.Root();
    fallback_ = storage.Fallback();
    scheduleDb_ = storage.ScheduleDatabase();
    updateInfoDb_ = storage.UpdateInfoDatabase();
}

void StatusReport::ReadUpdateInfo() {
    ReadOnlyDatabase db(updateInfoDb_);
    const std::string sql = "SELECT " + kColumnPlantId + ", " + kColumnLastUpdateTime + ", " + kColumnNextUpdateTime +
                            ", " + kColumnFixedScheduleUpdateFlag + ", " + kColumnIsNeedUpdateFixedSchedule + " FROM " +
                            kTableScheduleUpdateInfo;
    if (!db.FirstRow(sql)) return;
    updateInfoRead_ = true;
    info_.plantId = db.Text(0);
    info_.last = ParseTime(db.Text(1));
    info_.next = ParseTime(db.Text(2));
    info_.fixedFlag = static_cast<int>(db.Integer(3));
    info_.fixedNeeded = db.Integer(4) != 0;
}

void StatusReport::ReadSchedule() {
    ReadOnlyDatabase db(scheduleDb_);
    if (!db.FirstRow("SELECT COUNT(*), MIN(" + kColumnTime + "), MAX(" + kColumnTime + ") FROM " + kTableSchedule)) {
        return;
    }
    slotCount_ = db.Integer(0);
    if (db.Null(1)) return;
    firstSlot_ = db.Integer(1);
    const std::int64_t last = db.Integer(2);
    // A damaged table may hold any number: no overflow past the last slot.
    validUntil_ = last <= std::numeric_limits<std::int64_t>::max() - kSlotSeconds ? last + kSlotSeconds : -1;
}

void StatusReport::ReadFiles() {
    struct stat info;
    logIoError_ = ::stat(LogFileOutput::kErrorFilePath.c_str(), &info) == 0;
    if (logIoError_) logIoErrorTime_ = static_cast<std::int64_t>(info.st_mtime);
    if (::stat(logFile_.c_str(), &info) == 0) logWriteTime_ = static_cast<std::int64_t>(info.st_mtime);
    if (!watchdogFile_.empty() && ::stat(watchdogFile_.c_str(), &info) == 0) {
        watchdogAge_ = std::max<std::int64_t>(0, now_ - static_cast<std::int64_t>(info.st_mtime));
    }
}

// Damaged tables are moved aside beside the schedule table in use, on the
// card or in the /tmp fall-back alike. Both are shown, never judged: the
// daemon made new tables and goes on.
void StatusReport::ReadStorageNotes() {
    damagedFiles_ = StorageNote::DamagedFiles(FileUtil::GetDirectory(scheduleDb_));
    StorageNote::Read(storageError_);
}

// A target-power request changes nothing in the daemon: it only reads.
void StatusReport::AskSocket(int timeoutMs) {
    const std::string request =
        CommandWire::EncodeRequest(CommandWire::kCurrentTargetPower, CommandWire::EncodeCapacityBlock(100.0));
    const std::string answer = CommandSocket::Exchange(socketPath_, request, timeoutMs, socketError_);
    CommandWire::TargetPowerReply reply;
    socketAnswers_ = CommandWire::DecodeTargetPowerAnswer(answer, reply);
    if (!socketAnswers_ && socketError_.empty()) socketError_ = "short answer from pvocd";
}

// The timers are armed only with a plant ID in the settings, not in
// stand-alone mode, and with stored update information.
void StatusReport::WorkOutTimers() {
    if (info_.last >= 0 && info_.next > info_.last) expectedInterval_ = info_.next - info_.last;
    expectedInterval_ = std::max(expectedInterval_, kRetryStep);
    if (plantId_.empty() || standAlone_ || info_.plantId.empty()) return;
    std::int64_t next = info_.next >= 0 ? info_.next : now_;
    if (next <= now_) next += ((now_ - next) / kRetryStep + 1) * kRetryStep;
    nextUpdate_ = next;
    if (info_.fixedNeeded) nextFixedUpdate_ = FixedScheduleTime(info_.plantId, now_);
}

void StatusReport::Judge() {
    if (plantId_.empty()) reasons_.push_back("no outputControlPlantId in SystemSetting.xml");
    if (!plantId_.empty() && !standAlone_) {
        if (info_.plantId.empty()) {
            reasons_.push_back("no update information stored in " + updateInfoDb_);
        } else if (info_.last < 0) {
            reasons_.push_back("no successful update recorded");
        } else if (now_ - info_.last > 2 * expectedInterval_) {
            reasons_.push_back("last successful update " + std::to_string(now_ - info_.last) +
                               " s ago, more than twice the expected interval of " + std::to_string(expectedInterval_) +
                               " s");
        }
    }
    if (!socketAnswers_) reasons_.push_back("command socket does not answer: " + socketError_);
    JudgeDegraded();
}

// Each of these leaves the daemon serving, but costs data or updates unless
// someone mends it.
void StatusReport::JudgeDegraded() {
    if (fallback_) {
        degraded_.push_back("the data is kept in the /tmp fall-back " + dataRoot_ +
                            ", which a reboot loses: " + sdcardPath_ + " cannot be written");
    }
    // The note is appended once per period of failing writes; a log file
    // written since then shows the writes work again.
    if (logIoError_ && logIoErrorTime_ >= logWriteTime_) {
        degraded_.push_back("log writes failing since " + Time(logIoErrorTime_) + " (" + LogFileOutput::kErrorFilePath +
                            "), none succeeded since");
    }
    const bool updating = !plantId_.empty() && !standAlone_ && !info_.plantId.empty() && info_.last >= 0;
    if (updating && now_ - info_.last > expectedInterval_ && now_ - info_.last <= 2 * expectedInterval_) {
        degraded_.push_back("last successful update " + std::to_string(now_ - info_.last) +
                            " s ago, more than the expected interval of " + std::to_string(expectedInterval_) + " s");
    }
}

StatusReport::Verdict StatusReport::GetVerdict() const {
    if (!reasons_.empty()) return Verdict::kUnhealthy;
    return degraded_.empty() ? Verdict::kHealthy : Verdict::kDegraded;
}

const char* StatusReport::VerdictName(Verdict verdict) {
    switch (verdict) {
    case Verdict::kHealthy:
        return "healthy";
    case Verdict::kDegraded:
        return "degraded";
    default:
        return "unhealthy";
    }
}

std::string StatusReport::Time(std::int64_t epoch) const {
    if (epoch < 0) return "none";
    const std::shared_ptr<TimeStamp> time = TimeStamp::FromEpochSeconds(epoch);
    return time ? time->FormatDisplay() + " UTC" : "invalid (" + std::to_string(epoch) + ")";
}

std::string StatusReport::DamagedText() const {
    if (damagedFiles_.empty()) return "none";
    std::string text;
    for (std::size_t i = 0; i < damagedFiles_.size(); ++i) text += (i > 0 ? ", " : "") + damagedFiles_[i];
    const std::size_t count = damagedFiles_.size();
    return text + " (" + std::to_string(count) + (count == 1 ? " file)" : " files)");
}

std::string StatusReport::StorageErrorText() const {
    if (storageError_.time < 0) return "none noted";
    return Time(storageError_.time) + " " + storageError_.file + ": " + storageError_.error;
}

std::string StatusReport::Text() const {
    std::ostringstream out;
    out << "pvocd status: " << VerdictName(GetVerdict()) << "\n";
    out << "  plant ID:          " << (plantId_.empty() ? "(none)" : plantId_) << " (SystemSetting.xml)";
    if (!info_.plantId.empty() && info_.plantId != plantId_) out << ", stored: " << info_.plantId;
    out << "\n  mode:              " << (standAlone_ ? "stand-alone (fixed schedules only)" : "schedule server")
        << "\n  last update:       " << Time(info_.last);
    if (info_.last >= 0) out << " (" << now_ - info_.last << " s ago)";
    out << "\n  next update:       " << Time(nextUpdate_) << "\n  update interval:   " << expectedInterval_
        << " s expected\n  fixed schedule:    flag " << info_.fixedFlag << ", fetch "
        << (info_.fixedNeeded ? "pending at " + Time(nextFixedUpdate_) : std::string("not needed"))
        << "\n  stored slots:      " << slotCount_;
    if (slotCount_ > 0) out << ", " << Time(firstSlot_) << " until " << Time(validUntil_);
    out << "\n  storage:           " << dataRoot_
        << (fallback_ ? " (/tmp fall-back: " + sdcardPath_ + " cannot be written)" : std::string(" (SD card)"))
        << "\n  damaged tables:    " << DamagedText() << "\n  storage error:     " << StorageErrorText()
        << "\n  log I/O errors:    "
        << (logIoError_ ? LogFileOutput::kErrorFilePath + " present" : std::string("none noted"))
        << "\n  watchdog file:     " << watchdogFile_;
    if (watchdogAge_ >= 0) {
        out << ", " << watchdogAge_ << " s old (touched every " << watchdogInterval_ << " s)";
    } else {
        out << ", missing";
    }
    out << "\n  command socket:    " << socketPath_
        << (socketAnswers_ ? std::string(" answers") : " does not answer: " + socketError_) << "\n";
    for (const std::string& reason : reasons_) out << "unhealthy: " << reason << "\n";
    for (const std::string& reason : degraded_) out << "degraded: " << reason << "\n";
    return out.str();
}

std::string StatusReport::Json() const {
    std::ostringstream out;
    out << "{\"healthy\":" << (Healthy() ? "true" : "false") << ",\"reasons\":[";
    for (std::size_t i = 0; i < reasons_.size(); ++i) out << (i > 0 ? "," : "") << JsonValue::Text(reasons_[i]);
    out << "],\"state\":\"" << VerdictName(GetVerdict()) << "\",\"degradedReasons\":[";
    for (std::size_t i = 0; i < degraded_.size(); ++i) out << (i > 0 ? "," : "") << JsonValue::Text(degraded_[i]);
    out << "],\"plantId\":" << JsonValue::Text(plantId_) << ",\"storedPlantId\":" << JsonValue::Text(info_.plantId)
        << ",\"standAlone\":" << (standAlone_ ? "true" : "false") << ",\"lastUpdate\":" << JsonTime(info_.last)
        << ",\"nextUpdate\":" << JsonTime(nextUpdate_) << ",\"expectedUpdateInterval\":" << expectedInterval_
        << ",\"fixedSchedule\":{\"flag\":" << info_.fixedFlag
        << ",\"updateNeeded\":" << (info_.fixedNeeded ? "true" : "false")
        << ",\"nextFetch\":" << JsonTime(nextFixedUpdate_) << ",\"slots\":" << slotCount_
        << ",\"firstSlot\":" << JsonTime(firstSlot_) << ",\"validUntil\":" << JsonTime(validUntil_)
        << "},\"storage\":{\"dataRoot\":" << JsonValue::Text(dataRoot_)
        << ",\"fallback\":" << (fallback_ ? "true" : "false")
        << ",\"scheduleDatabase\":" << JsonValue::Text(scheduleDb_)
        << ",\"updateInfoDatabase\":" << JsonValue::Text(updateInfoDb_) << StorageJson()
        << "},\"logIoError\":" << (logIoError_ ? "true" : "false")
        << ",\"watchdog\":{\"file\":" << JsonValue::Text(watchdogFile_) << ",\"ageSeconds\":" << JsonTime(watchdogAge_)
        << ",\"interval\":" << watchdogInterval_ << "},\"socket\":{\"path\":" << JsonValue::Text(socketPath_)
        << ",\"answers\":" << (socketAnswers_ ? "true" : "false") << ",\"error\":" << JsonValue::Text(socketError_)
        << "}}";
    return out.str();
}

// The damaged files and the last storage error, as members of the storage
// object.
std::string StatusReport::StorageJson() const {
    std::string json = ",\"damagedFiles\":[";
    for (std::size_t i = 0; i < damagedFiles_.size(); ++i) {
        json += (i > 0 ? "," : "") + JsonValue::Text(damagedFiles_[i]);
    }
    json += "],\"lastError\":";
    if (storageError_.time < 0) return json + "null";
    return json + "{\"time\":" + std::to_string(storageError_.time) +
           ",\"file\":" + JsonValue::Text(storageError_.file) + ",\"error\":" + JsonValue::Text(storageError_.error) +
           "}";
}

// Metrics without a value (no update yet, no watchdog file) are left out,
// as the textfile collector expects for unknown samples.
std::string StatusReport::Prometheus() const {
    const std::string labels = "{plant_id=\"" + Escaped(plantId_) + "\"}";
    std::ostringstream out;
    const auto metric = [&](const std::string& name, const std::string& help, std::int64_t value, bool known) {
        if (!known) return;
        out << "# HELP " << name << " " << help << "\n# TYPE " << name << " gauge\n"
            << name << labels << " " << value << "\n";
    };
    metric("pvocd_up", "Whether the command socket answered a request.", socketAnswers_ ? 1 : 0, true);
    metric("pvocd_healthy", "Whether the daemon is healthy (recent update, socket answering).", Healthy() ? 1 : 0,
           true);
    out << "# HELP pvocd_health The verdict of pvoctl status: 1 for the state it is in.\n"
        << "# TYPE pvocd_health gauge\n";
    for (const Verdict verdict : {Verdict::kHealthy, Verdict::kDegraded, Verdict::kUnhealthy}) {
        out << "pvocd_health{plant_id=\"" << Escaped(plantId_) << "\",state=\"" << VerdictName(verdict) << "\"} "
            << (GetVerdict() == verdict ? 1 : 0) << "\n";
    }
    metric("pvocd_last_update_timestamp_seconds", "Time of the last successful schedule update.", info_.last,
           info_.last >= 0);
    metric("pvocd_next_update_timestamp_seconds", "Time of the next schedule update.", nextUpdate_, nextUpdate_ >= 0);
    metric("pvocd_expected_update_interval_seconds", "Expected time between schedule updates.", expectedInterval_,
           true);
    metric("pvocd_fixed_schedule_update_needed", "Whether a fixed schedule fetch is pending.",
           info_.fixedNeeded ? 1 : 0, updateInfoRead_);
    metric("pvocd_schedule_slots", "Number of stored schedule slots.", slotCount_, true);
    metric("pvocd_schedule_valid_until_timestamp_seconds", "End of the last stored schedule slot.", validUntil_,
           validUntil_ >= 0);
    metric("pvocd_storage_fallback", "Whether the /tmp fall-back is used instead of the SD card.", fallback_ ? 1 : 0,
           true);
    metric("pvocd_storage_damaged_files", "Number of table files moved aside as damaged.",
           static_cast<std::int64_t>(damagedFiles_.size()), true);
    metric("pvocd_storage_last_error_timestamp_seconds", "Time of the last storage error noted; 0 when none.",
           storageError_.time >= 0 ? storageError_.time : 0, true);
    metric("pvocd_log_io_error", "Whether the log's I/O error note file is present.", logIoError_ ? 1 : 0, true);
    metric("pvocd_watchdog_age_seconds", "Seconds since the watchdog file was touched.", watchdogAge_,
           watchdogAge_ >= 0);
    return out.str();
}

} // namespace brvo
