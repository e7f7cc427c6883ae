// pvoctl status: what pvocd is doing, gathered from its settings, its two
// databases (opened read-only), the table files it moved aside as damaged,
// its storage error note, the log's I/O error note, the watchdog file and
// one harmless request on the command socket.
#ifndef BRVO_TOOLS_PVOCTL_STATUSREPORT_H
#define BRVO_TOOLS_PVOCTL_STATUSREPORT_H

#include "database/StorageNote.h"

#include <cstdint>
#include <string>
#include <vector>

namespace brvo {

class StatusReport {
public:
    // An update interval assumed when the stored record gives none: the
    // schedule server hands out one day at a time.
    static constexpr std::int64_t kDefaultUpdateInterval = 86400;

    // The verdict: healthy; degraded (it serves, but something will cost
    // data or updates unless mended: the /tmp fall-back, log writes failing,
    // an update overdue); unhealthy (it does not do its job).
    enum class Verdict { kHealthy, kDegraded, kUnhealthy };

    // Gathers everything; `socketPath` is asked with `timeoutMs`.
    StatusReport(const std::string& socketPath, int timeoutMs);

    // The verdict from the reasons below.
    Verdict GetVerdict() const;
    // True when the verdict is healthy.
    bool Healthy() const { return GetVerdict() == Verdict::kHealthy; }
    // Why the daemon is unhealthy, one sentence each.
    const std::vector<std::string>& Reasons() const { return reasons_; }
    // Why it is degraded, one sentence each.
    const std::vector<std::string>& DegradedReasons() const { return degraded_; }
    // The verdict's name: "healthy", "degraded" or "unhealthy".
    static const char* VerdictName(Verdict verdict);
    // Human-readable lines.
    std::string Text() const;
    // One JSON object.
    std::string Json() const;
    // The node-exporter textfile-collector format.
    std::string Prometheus() const;

private:
    // -1 stands for "not known" in every time below.
    struct UpdateInfo {
        std::string plantId;
        std::int64_t last = -1;
        std::int64_t next = -1;
        int fixedFlag = 0;
        bool fixedNeeded = false;
    };

    void ReadSettings();
    void ReadUpdateInfo();
    void ReadSchedule();
    void ReadFiles();
    void ReadStorageNotes();
    void AskSocket(int timeoutMs);
    void WorkOutTimers();
    void Judge();
    void JudgeDegraded();
    std::string Time(std::int64_t epoch) const;
    std::string DamagedText() const;
    std::string StorageErrorText() const;
    std::string StorageJson() const;

    std::int64_t now_;
    std::string socketPath_;
    std::string plantId_;
    bool standAlone_ = false;
    int monitoringInterval_ = 0;
    int watchdogInterval_ = 0;
    std::string sdcardPath_;
    std::string dataRoot_;
    bool fallback_ = false;
    std::string scheduleDb_;
    std::string updateInfoDb_;
    bool updateInfoRead_ = false;
    UpdateInfo info_;
    std::int64_t expectedInterval_ = kDefaultUpdateInterval;
    std::int64_t nextUpdate_ = -1;
    std::int64_t nextFixedUpdate_ = -1;
    std::int64_t firstSlot_ = -1;
    std::int64_t validUntil_ = -1;
    long long slotCount_ = 0;
    // Names of the table files moved aside, in the schedule table's directory.
    std::vector<std::string> damagedFiles_;
    // The daemon's last storage error; its time is -1 when none is noted.
    StorageNote::Entry storageError_;
    bool logIoError_ = false;
    std::string watchdogFile_;
    std::int64_t watchdogAge_ = -1;
    bool socketAnswers_ = false;
    std::string socketError_;
    std::vector<std::string> reasons_;
    std::vector<std::string> degraded_;
    // Modification times of the log I/O error note and of the log file,
    // -1 when missing: a note older than the log's last write is over.
    std::int64_t logIoErrorTime_ = -1;
    std::int64_t logWriteTime_ = -1;
    std::string logFile_;
};

} // namespace brvo

#endif
