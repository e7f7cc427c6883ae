#include "app/Watchdog.h"

#include "app/ServiceNotifier.h"
#include "schedule/ScheduleUpdateManager.h"
#include "settings/LoggerSettingManager.h"
#include "util/FileUtil.h"
#include "util/LoggerLog.h"
#include "util/TimeStamp.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <limits>

namespace brvo {

namespace {

const std::string kTag = "Watchdog";
const long kFirstTouchMs = 100;
// How often the update alarm is looked at for a change the service
// manager's status line should show at once.
const long kStatusCheckMs = 1000;

std::string WatchdogFile() {
    return LoggerSettingManager::Current().GetPVOutputControlWatchdogFile();
}

// The timer takes a long, of 32 bits on the device: a longer interval
// than it holds is the longest it holds.
long IntervalMs() {
    const std::int64_t seconds = LoggerSettingManager::Current().GetWatchdogFileUpdateInterval();
    return static_cast<long>(std::min<std::int64_t>(seconds * 1000, std::numeric_limits<long>::max()));
}

// Tells the service manager which plant and next update the daemon works
// towards. Only when a service manager listens: a daemon run by hand reads
// nothing extra here.
void NotifyService() {
    if (!ServiceNotifier::Enabled()) return;
    const ScheduleUpdateManager::Pin updates;
    if (!updates) return;
    const std::shared_ptr<TimeStamp> next = updates->GetScheduleUpdateTime();
    ServiceNotifier::Status(
        ServiceNotifier::PlantStatus(updates->GetUpdateInfo().plantId, next ? next->FormatDisplay() : ""));
}

} // namespace

Watchdog::Watchdog() : timer_(nullptr), statusTimer_(nullptr), lastDue_(-2) {}

Watchdog::~Watchdog() {
    delete statusTimer_;
    statusTimer_ = nullptr;
    delete timer_;
    timer_ = nullptr;
}

void Watchdog::Start() {
    if (timer_ != nullptr) return;
    const std::string path = WatchdogFile();
    FileUtil::CreateDirectory(FileUtil::GetDirectory(path), true);
    const long interval = IntervalMs();
    timer_ = new Poco::Timer(kFirstTouchMs, interval);
    timer_->start(Poco::TimerCallback<Watchdog>(*this, &Watchdog::OnTimer));
    LoggerLog::Debug(kTag, "Set Watchdog interval [" + std::to_string(interval) + "] file path[" + path + "]");
    if (!ServiceNotifier::Enabled()) return;
    statusTimer_ = new Poco::Timer(kStatusCheckMs, kStatusCheckMs);
    statusTimer_->start(Poco::TimerCallback<Watchdog>(*this, &Watchdog::OnStatusTimer));
}

void Watchdog::Stop() {}

// The path stands in double quotes so that blanks pass; a double quote in
// the path itself breaks the command, which the status line then shows.
// The service manager hears the status from every tick, whether the touch
// worked or not: the file is the device supervisor's concern.
void Watchdog::OnTimer(Poco::Timer&) {
    const std::string command = "/usr/bin/touch \"" + WatchdogFile() + "\"";
    const int status = std::system(command.c_str());
    if (status != 0) {
        LoggerLog::Debug(kTag, "status [" + std::to_string(status) + "] [" + command + "]");
    }
    NotifyService();
}

// A reload or settings change, a stored update and a failed one each plan
// the update alarm anew (or stop it): its due time moving is the sign that
// the status line is out of date.
void Watchdog::OnStatusTimer(Poco::Timer&) {
    std::int64_t due = -1;
    {
        const ScheduleUpdateManager::Pin updates;
        if (!updates) return;
        const std::shared_ptr<TimeStamp> next = updates->GetScheduleUpdateTime();
        if (next) due = next->Value().epochMicroseconds();
    }
    if (due == lastDue_) return;
    lastDue_ = due;
    NotifyService();
}

} // namespace brvo
