#include "schedule/ScheduleUpdateManager.h"

#include <atomic>

#include "client/BrvfdAccessRequest.h"
#include "client/BrvfdSendCommandRequest.h"
#include "client/ScheduleServerAccessRequest.h"
#include "client/ScheduleServerSendRequest.h"
#include "client/ServerResponseParser.h"
#include "database/ScheduleDatabase.h"
#include "database/ScheduleUpdateInfoDatabase.h"
#include "schedule/ScheduleModel.h"
#include "schedule/ServerAccessResult.h"
#include "server/Channel.h"
#include "settings/LoggerSettingManager.h"
#include "settings/SystemSettingXmlManager.h"
#include "util/LoggerLog.h"
#include "util/SystemClock.h"
#include "util/TimeStamp.h"

#include <Poco/Clock.h>
#include <Poco/DateTime.h>
#include <Poco/Exception.h>
#include <Poco/Thread.h>

#include <iostream>

namespace brvo {

const std::string ScheduleUpdateManager::kUpdateScheduleKbn = "0000";
const std::string ScheduleUpdateManager::kFixedScheduleKbnPrefix = "999";
const std::string ScheduleUpdateManager::kCheckPlantIdKbn = "8888";

namespace {

const std::string kTag = "ScheduleUpdateManager";
const int kRequestWorkers = 3;
const int kDefaultMonitoringSeconds = 180;
const std::int64_t kHalfHourSeconds = 1800;
const std::int64_t kFixedLateSeconds = 20 * 60;
const int kFixedAttempts = 5;
const std::int64_t kFixedRetryMs = 300000;
// Longest stretch a timer callback sleeps before it looks for a stop.
const std::int64_t kSleepStepMs = 200;

// Read from every thread; created and deleted on the main thread.
std::atomic<ScheduleUpdateManager*> instance(nullptr);

SystemSettingXmlManager& SystemSettings() {
    SystemSettingXmlManager::CreateInstance();
    return *SystemSettingXmlManager::GetInstance();
}

std::shared_ptr<UpdateResult> Success() {
    return std::make_shared<UpdateResult>();
}

std::shared_ptr<UpdateResult> Failure(std::int32_t reason, std::int32_t status, const std::string& message) {
    return std::make_shared<UpdateResult>(reason, status, message);
}

std::string SlotRange(const std::vector<ScheduleRow>& slots) {
    std::shared_ptr<TimeStamp> first = TimeStamp::FromEpochSeconds(slots.front().time);
    std::shared_ptr<TimeStamp> last = TimeStamp::FromEpochSeconds(slots.back().time);
    return "[" + (first ? first->FormatDisplay() : std::string()) + "~" +
           (last ? last->FormatDisplay() : std::string()) + "]";
}

std::string NowDisplay() {
    return TimeStamp().FormatDisplay();
}

} // namespace

void ScheduleUpdateManager::CreateInstance() {
    if (instance == nullptr) instance = new ScheduleUpdateManager();
}

ScheduleUpdateManager* ScheduleUpdateManager::GetInstance() {
    return instance;
}

void ScheduleUpdateManager::DeleteInstance() {
    ScheduleUpdateManager* doomed = instance.exchange(nullptr);
    if (doomed == nullptr) return;
    doomed->Stop();
    if (!doomed->flowMutex_.tryLock(1000)) return;
    doomed->flowMutex_.unlock();
    delete doomed;
}

ScheduleUpdateManager::ScheduleUpdateManager()
    : channel_(new Channel(kRequestWorkers)),
      infoDatabase_(new ScheduleUpdateInfoDatabase()),
      schedule_timer_(nullptr),
      fixed_schedule_timer_(nullptr),
      updateGeneration_(0),
      fixedGeneration_(0) {
    channel_->StartWorkers();
    ScheduleDatabase::CreateInstance();
    ScheduleDatabase::GetInstance()->SetForwarder([this] { return SendScheduleData(); });
}

ScheduleUpdateManager::~ScheduleUpdateManager() {
    Stop();
    ScheduleDatabase* database = ScheduleDatabase::GetInstance();
    if (database != nullptr) database->SetForwarder(ScheduleDatabase::Forwarder());
    delete schedule_timer_;
    delete fixed_schedule_timer_;
    delete channel_;
    delete infoDatabase_;
}

ScheduleUpdateInfo ScheduleUpdateManager::GetUpdateInfo() {
    return infoDatabase_->SelectUpdateInfo();
}

std::future<std::shared_ptr<ServerAccessResult>> ScheduleUpdateManager::ServerAccess_c(
    const std::string& scheduleKbn) {
    LoggerLog::Debug(kTag, "ServerAccess_c");
    return StartExchange([&](ScheduleServerAccessRequest& request) { request.SetParameters(scheduleKbn); });
}

std::future<std::shared_ptr<ServerAccessResult>> ScheduleUpdateManager::ServerAccess_i(
    const std::string& scheduleKbn, const std::string& plantId, const std::string& url) {
    LoggerLog::Debug(kTag, "ServerAccess_i");
    return StartExchange(
        [&](ScheduleServerAccessRequest& request) { request.SetParameters(scheduleKbn, plantId, url); });
}

// Queues one exchange whose parameters `setParameters` fills in. The
// callback lives as long as the request, so it outlives its own report.
std::future<std::shared_ptr<ServerAccessResult>> ScheduleUpdateManager::StartExchange(
    const std::function<void(ScheduleServerAccessRequest&)>& setParameters) {
    auto callback = std::make_shared<ScheduleServerSendRequest>();
    std::future<std::shared_ptr<ServerAccessResult>> future = callback->GetFuture();
    ScheduleServerAccessRequest* request = new ScheduleServerAccessRequest(callback.get());
    setParameters(*request);
    request->Keep(callback);
    channel_->Enqueue(request);
    return future;
}

// Reports a failed exchange or an answer the parser could not read; null
// when the answer can be used.
std::shared_ptr<UpdateResult> ScheduleUpdateManager::AccessFailure(
    const std::string& failureText, const std::shared_ptr<ServerAccessResult>& access) {
    if (!access || !access->IsResult()) {
        const std::string printed = access ? access->ToString() : std::string();
        LoggerLog::Warning(kTag, failureText + printed + "]");
        return Failure(1, access ? access->GetStatusCode() : 0, access ? access->GetFailureReason() : "");
    }
    std::shared_ptr<ServerResponseParser> parser = access->GetResponseParser();
    if (!parser || !parser->IsBinary()) {
        const std::string message = parser ? parser->GetMessage() : std::string();
        LoggerLog::Warning(kTag, failureText + message + "]");
        return Failure(2, access->GetStatusCode(), message);
    }
    return nullptr;
}

std::shared_ptr<UpdateResult> ScheduleUpdateManager::UpdateSchedule() {
    Poco::Mutex::ScopedLock lock(flowMutex_);
    LoggerLog::Debug(kTag, "UpdateSchedule");
    std::int32_t status = 0;
    try {
        std::shared_ptr<ServerAccessResult> access = ServerAccess_c(kUpdateScheduleKbn).get();
        if (auto failed = AccessFailure("Schedule update failed. [", access)) return failed;
        status = access->GetStatusCode();
        const ScheduleModel model(access->GetResponseParser()->GetHexData(), ScheduleModel::kUpdateScheduleKind);
        if (!model.IsResult()) {
            LoggerLog::Warning(kTag, "Schedule parse failed. [" + model.GetMessage() + "]");
            return Failure(3, status, model.GetMessage());
        }
        const std::vector<ScheduleRow> slots = model.GetSlots();
        if (slots.empty()) {
            LoggerLog::Warning(kTag, "Schedule update failed. Schedule data is nothing.");
            return Failure(4, status, "Schedule data is nothing.");
        }
        if (!UpdateWithUpdateSchedule(model.GetUpdateInfo(), slots)) {
            LoggerLog::Warning(kTag, "Schedule update failed. Database update error.");
            return Failure(5, status, "Database update error.");
        }
        return Success();
    } catch (const Poco::Exception& e) {
        LoggerLog::Error(kTag, "Schedule update failed. EXCEPTION[" + e.displayText() + "]");
        return Failure(12, 0, e.displayText());
    } catch (const std::exception& e) {
        LoggerLog::Error(kTag, "Schedule update failed. exception");
        return Failure(12, 0, e.what());
    }
}

std::shared_ptr<UpdateResult> ScheduleUpdateManager::UpdateFixedSchedule() {
    Poco::Mutex::ScopedLock lock(flowMutex_);
    LoggerLog::Debug(kTag, "UpdateFixedSchedule");
    try {
        const ScheduleUpdateInfo info = infoDatabase_->SelectUpdateInfo();
        if (info.plantId.empty()) {
            const std::string message = "Update information of fixed schedule does not exist.";
            LoggerLog::Warning(kTag, message);
            return Failure(1, -1, message);
        }
        const std::string kbn = kFixedScheduleKbnPrefix + std::to_string(info.fixedScheduleUpdateFlag);
        std::shared_ptr<ServerAccessResult> access = ServerAccess_c(kbn).get();
        if (auto failed = AccessFailure("Fixed schedule update failed. [", access)) return failed;
        const std::int32_t status = access->GetStatusCode();
        const ScheduleModel model(access->GetResponseParser()->GetHexData(), 0);
        if (!model.IsResult()) {
            LoggerLog::Warning(kTag, "Fixed schedule parse failed. [" + model.GetMessage() + "]");
            return Failure(3, status, model.GetMessage());
        }
        const std::vector<ScheduleRow> slots = model.GetSlots();
        if (slots.empty()) {
            LoggerLog::Warning(kTag, "Fixed schedule update failed. Schedule data is nothing.");
            return Failure(4, status, "Schedule data is nothing.");
        }
        if (!UpdateWithFixedSchedule(slots, model.GetPlantId())) {
            LoggerLog::Warning(kTag, "Fixed schedule update failed. Database update error.");
            return Failure(5, status, "Database update error.");
        }
        return Success();
    } catch (const Poco::Exception& e) {
        LoggerLog::Error(kTag, "Fixed schedule update failed. EXCEPTION[" + e.displayText() + "]");
        return Failure(12, 0, e.displayText());
    } catch (const std::exception& e) {
        LoggerLog::Error(kTag, "Fixed schedule update failed. exception");
        return Failure(12, 0, e.what());
    }
}

bool ScheduleUpdateManager::UpdateWithUpdateSchedule(const ScheduleUpdateInfo& received,
                                                     const std::vector<ScheduleRow>& slots) {
    Poco::Mutex::ScopedLock lock(flowMutex_);
    LoggerLog::Debug(kTag, "UpdateWithUpdateSchedule");
    ScheduleUpdateInfo info = infoDatabase_->SelectUpdateInfo();
    if (!info.plantId.empty() && info.plantId != received.plantId) {
        LoggerLog::Error(kTag, "It is data of a different power station ID. Expected[" + info.plantId +
                                   "], but [" + received.plantId + "]");
        return false;
    }
    if (!info.plantId.empty()) {
        if (info.fixedScheduleUpdateFlag != received.fixedScheduleUpdateFlag) {
            info.fixedScheduleUpdateFlag = received.fixedScheduleUpdateFlag;
            info.isNeedUpdateFixedSchedule = true;
        }
        info.nextUpdateTime = received.nextUpdateTime;
    } else {
        info.plantId = received.plantId;
        info.nextUpdateTime = received.nextUpdateTime;
        info.fixedScheduleUpdateFlag = received.fixedScheduleUpdateFlag;
        info.isNeedUpdateFixedSchedule = true;
    }
    ScheduleDatabase* database = ScheduleDatabase::GetInstance();
    if (database == nullptr || !database->InsertUpdateSchedule(slots)) return false;
    if (!slots.empty()) LoggerLog::Info(kTag, "Schedule Update. " + SlotRange(slots));
    info.lastUpdateTime = NowDisplay();
    return infoDatabase_->InsertUpdateInfo(info);
}

bool ScheduleUpdateManager::UpdateWithFixedSchedule(const std::vector<ScheduleRow>& slots,
                                                    const std::string& plantId) {
    Poco::Mutex::ScopedLock lock(flowMutex_);
    LoggerLog::Debug(kTag, "UpdateWithFixedSchedule");
    ScheduleDatabase* database = ScheduleDatabase::GetInstance();
    if (database == nullptr || !database->InsertFixedSchedule(slots)) return false;
    if (!slots.empty()) LoggerLog::Info(kTag, "Fixed Schedule Update. " + SlotRange(slots));
    ScheduleUpdateInfo info = infoDatabase_->SelectUpdateInfo();
    if (info.plantId.empty()) {
        info.nextUpdateTime = "";
        info.fixedScheduleUpdateFlag = 0;
    }
    info.plantId = plantId;
    info.lastUpdateTime = NowDisplay();
    info.isNeedUpdateFixedSchedule = false;
    return infoDatabase_->InsertUpdateInfo(info);
}

std::shared_ptr<UpdateResult> ScheduleUpdateManager::UpdateOutputControlSchedule() {
    Poco::Mutex::ScopedLock lock(flowMutex_);
    LoggerLog::Debug(kTag, "UpdateOutputControlSchedule");
    std::shared_ptr<UpdateResult> result = UpdateSchedule();
    if (!result->IsResult()) return result;
    SetupUpdateScheduleAlarm(false, false);
    return UpdateFixedSchedule();
}

void ScheduleUpdateManager::DeleteAllUpdateControlInfoFromDB() {
    Poco::Mutex::ScopedLock lock(flowMutex_);
    LoggerLog::Debug(kTag, "DeleteAllUpdateControlInfoFromDB");
    infoDatabase_->DeleteUpdateInfo();
    ScheduleDatabase* database = ScheduleDatabase::GetInstance();
    if (database != nullptr) database->DeleteAll();
    Stop();
}

std::shared_ptr<UpdateResult> ScheduleUpdateManager::CheckAndUpdateWithSystemSetting(bool& started,
                                                                                     bool startIfUnchanged) {
    Poco::Mutex::ScopedLock lock(flowMutex_);
    LoggerLog::Debug(kTag, "CheckAndUpdateWithSystemSetting");
    try {
        SystemSettingXmlManager& settings = SystemSettings();
        settings.Load();
        if (!settings.HasGeneral()) return Success();
        const bool standAlone = settings.GetOutputControlStandAlone();
        if (standAlone) Stop();
        const std::string configured = settings.GetOutputControlPlantId();
        const std::string stored = infoDatabase_->SelectUpdateInfo().plantId;
        if (stored.empty() || stored != configured) {
            DeleteAllUpdateControlInfoFromDB();
            if (configured.empty()) {
                Stop();
                LoggerLog::Info(kTag, "Plant ID is not set. [" + stored + "]");
                return Success();
            }
            LoggerLog::Info(kTag, "Plant ID change. [" + stored + "] to [" + configured + "]");
            ScheduleUpdateInfo fresh;
            fresh.plantId = configured;
            fresh.lastUpdateTime = "";
            fresh.nextUpdateTime = NowDisplay();
            fresh.fixedScheduleUpdateFlag = -1;
            fresh.isNeedUpdateFixedSchedule = false;
            infoDatabase_->InsertUpdateInfo(fresh);
            if (standAlone) {
                LoggerLog::Warning(kTag, "Plant ID changed but, Standalone setting...");
                return Success();
            }
            std::shared_ptr<UpdateResult> result = UpdateOutputControlSchedule();
            if (result->IsResult()) started = true;
            Start();
            return result;
        }
        if (startIfUnchanged && !standAlone) Start();
        return Success();
    } catch (const Poco::Exception& e) {
        LoggerLog::Error(kTag, "Check System Setting failed. EXCEPTION[" + e.displayText() + "]");
        return Failure(12, 0, e.displayText());
    } catch (const std::exception& e) {
        LoggerLog::Error(kTag, "Check System Setting failed. exception");
        return Failure(12, 0, e.what());
    }
}

std::shared_ptr<UpdateResult> ScheduleUpdateManager::UpdateWithFixedData(
    const std::shared_ptr<ScheduleModel>& model, bool force) {
    Poco::Mutex::ScopedLock lock(flowMutex_);
    LoggerLog::Debug(kTag, "UpdateWithFixedData");
    try {
        if (!model || !model->IsResult()) {
            const std::string message = model ? model->GetMessage() : std::string();
            LoggerLog::Warning(kTag, "Fixed schedule parse failed. " + message);
            return Failure(3, 0, message);
        }
        const std::vector<ScheduleRow> slots = model->GetSlots();
        if (slots.empty()) {
            LoggerLog::Warning(kTag, "Fixed schedule update failed. Schedule data is nothing.");
            return Failure(4, 0, "Schedule data is nothing.");
        }
        const std::string stored = infoDatabase_->SelectUpdateInfo().plantId;
        const std::string received = model->GetPlantId();
        const bool differs = !stored.empty() && stored != received;
        if (differs && !force) {
            const std::string ids = "[" + stored + "] : [" + received + "]";
            LoggerLog::Warning(kTag, "Fixed schedule update failed. id not match. " + ids);
            return Failure(7, 0, ids);
        }
        if (differs) DeleteAllUpdateControlInfoFromDB();
        if (!UpdateWithFixedSchedule(slots, received)) {
            LoggerLog::Warning(kTag, "Fixed schedule update failed. Database update error.");
            return Failure(5, 0, "Database update error.");
        }
        SystemSettingXmlManager& settings = SystemSettings();
        if (!settings.HasGeneral()) settings.Load();
        const bool settingChanged = !settings.GetOutputControlStandAlone() || (force && differs);
        settings.SetOutputControlStandAlone(true);
        settings.SetOutputControlPlantId(received);
        Stop();
        return std::make_shared<UpdateResult>(settingChanged, received);
    } catch (const Poco::Exception& e) {
        LoggerLog::Error(kTag, "Fixed schedule send failed. EXCEPTION[" + e.displayText() + "]");
        return Failure(12, 0, e.displayText());
    } catch (const std::exception& e) {
        LoggerLog::Error(kTag, "Fixed schedule send failed. exception");
        return Failure(12, 0, e.what());
    }
}

std::shared_ptr<UpdateResult> ScheduleUpdateManager::CheckPlantId(const std::string& plantId,
                                                                  const std::string& url) {
    LoggerLog::Debug(kTag, "CheckPlantId");
    try {
        std::shared_ptr<ServerAccessResult> access = ServerAccess_i(kCheckPlantIdKbn, plantId, url).get();
        if (auto failed = AccessFailure("Check plant id failed. [", access)) return failed;
        if (access->GetResponseParser()->OCCheckIDModel()) return Success();
        return Failure(6, access->GetStatusCode(), "Plant ID is not registered");
    } catch (const Poco::Exception& e) {
        LoggerLog::Error(kTag, "Check plant id failed. EXCEPTION[" + e.displayText() + "]");
        return Failure(12, 0, e.displayText());
    } catch (const std::exception& e) {
        LoggerLog::Error(kTag, "Check plant id failed. exception");
        return Failure(12, 0, e.what());
    }
}

int ScheduleUpdateManager::SendScheduleData() {
    LoggerLog::Debug(kTag, "SendScheduleData");
    auto callback = std::make_shared<BrvfdSendCommandRequest>(BrvfdAccessRequest::kCommandScheduleUpdated);
    std::future<int> future = callback->GetFuture();
    BrvfdAccessRequest* request = new BrvfdAccessRequest(callback.get());
    request->SetCommand(BrvfdAccessRequest::kCommandScheduleUpdated);
    request->Keep(callback);
    channel_->Enqueue(request);
    return future.get();
}

bool ScheduleUpdateManager::IsRetryable(const UpdateResult& result) {
    if (result.IsResult()) return false;
    const std::int32_t status = result.GetStatusCode();
    if (status >= 100 && status <= 199) return true;
    if (status >= 200 && status <= 299) return false;
    if (status >= 300 && status <= 399) return true;
    if (status >= 400 && status <= 499) return false;
    if (status >= 500 && status <= 599) return true;
    const std::int32_t reason = result.GetFailureReason();
    return reason == 1 || reason == 3 || reason == 4 || reason == 12;
}

long ScheduleUpdateManager::MonitoringIntervalMs() const {
    LoggerSettingManager* settings = LoggerSettingManager::GetInstance();
    int seconds = settings != nullptr ? settings->GetOutputScheduleMonitoringInterval() : kDefaultMonitoringSeconds;
    if (seconds <= 0) seconds = kDefaultMonitoringSeconds;
    return static_cast<long>(seconds) * 1000;
}

std::shared_ptr<TimeStamp> ScheduleUpdateManager::GetScheduleUpdateTime() {
    Poco::Mutex::ScopedLock lock(timerMutex_);
    return schedule_update_time_;
}

std::shared_ptr<TimeStamp> ScheduleUpdateManager::GetFixedScheduleUpdateTime() {
    Poco::Mutex::ScopedLock lock(timerMutex_);
    return fixed_schedule_update_time_;
}

void ScheduleUpdateManager::Start() {
    LoggerLog::Debug(kTag, "Start");
    SetupUpdateScheduleAlarm(false, false);
    SetupFixedScheduleAlarm();
}

void ScheduleUpdateManager::Stop() {
    LoggerLog::Debug(kTag, "Stop");
    StopUpdateScheduleAlarm();
    StopFixedScheduleAlarm();
}

// The three conditions under which no alarm runs; fills `info` otherwise.
bool ScheduleUpdateManager::AlarmPreconditions(ScheduleUpdateInfo& info) {
    SystemSettingXmlManager& settings = SystemSettings();
    if (settings.GetOutputControlPlantId().empty()) {
        std::cout << "not PlantId" << std::endl;
        return false;
    }
    if (settings.GetOutputControlStandAlone()) {
        std::cout << "id StandAlone" << std::endl;
        return false;
    }
    info = infoDatabase_->SelectUpdateInfo();
    if (info.plantId.empty()) {
        std::cout << "not db" << std::endl;
        return false;
    }
    return true;
}

// Replaces `timer` with a new one ticking every monitoring interval. A
// running callback of the old timer notices its cleared time within one
// sleep step, so waiting for it here is short.
void ScheduleUpdateManager::ReplaceTimer(Poco::Timer*& timer, const char* deleteLabel,
                                         void (ScheduleUpdateManager::*callback)(Poco::Timer&)) {
    Poco::Timer* old = nullptr;
    {
        Poco::Mutex::ScopedLock lock(timerMutex_);
        old = timer;
        timer = nullptr;
    }
    if (old != nullptr) {
        std::cout << deleteLabel << std::endl;
        old->stop();
        delete old;
    }
    std::cout << "fixed_schedule_timer_ start" << std::endl;
    const long interval = MonitoringIntervalMs();
    Poco::Timer* fresh = new Poco::Timer(interval, interval);
    fresh->start(Poco::TimerCallback<ScheduleUpdateManager>(*this, callback));
    Poco::Mutex::ScopedLock lock(timerMutex_);
    timer = fresh;
}

void ScheduleUpdateManager::SetupUpdateScheduleAlarm(bool keepTimer, bool retry) {
    LoggerLog::Debug(kTag, "SetupUpdateScheduleAlarm");
    if (!keepTimer) StopUpdateScheduleAlarm();
    ScheduleUpdateInfo info;
    if (!AlarmPreconditions(info)) return;
    std::shared_ptr<TimeStamp> next = TimeStamp::ParseDisplay(info.nextUpdateTime);
    const TimeStamp now;
    if (!next) next = std::make_shared<TimeStamp>(now);
    std::int64_t seconds = next->EpochSeconds();
    while (seconds <= now.EpochSeconds()) seconds += kHalfHourSeconds;
    // Keep the sub-second part of a time read from the table (none) and of now.
    next = std::make_shared<TimeStamp>(Poco::Timestamp(next->Value() +
        (seconds - next->EpochSeconds()) * Poco::Timestamp::resolution()));
    {
        Poco::Mutex::ScopedLock lock(timerMutex_);
        schedule_update_time_ = next;
    }
    LoggerLog::Debug(kTag, std::string(retry ? "retry. " : "") + "schedule_update_time_ [" +
                               next->FormatDisplay() + "]");
    if (!keepTimer) {
        ReplaceTimer(schedule_timer_, "schedule_timer_ delete", &ScheduleUpdateManager::CallbackUpdateSchedule);
    }
}

void ScheduleUpdateManager::StopUpdateScheduleAlarm() {
    LoggerLog::Debug(kTag, "StopUpdateScheduleAlarm");
    std::cout << "fixed_schedule_timer_ restart(0)" << std::endl;
    Poco::Mutex::ScopedLock lock(timerMutex_);
    if (schedule_timer_ != nullptr) schedule_timer_->restart(0);
    schedule_update_time_.reset();
    ++updateGeneration_;
}

void ScheduleUpdateManager::SetupFixedScheduleAlarm() {
    LoggerLog::Debug(kTag, "SetupFixedScheduleAlarm");
    StopFixedScheduleAlarm();
    ScheduleUpdateInfo info;
    if (!AlarmPreconditions(info)) return;
    if (!info.isNeedUpdateFixedSchedule) {
        std::cout << "is need update false" << std::endl;
        return;
    }
    std::shared_ptr<TimeStamp> next = FixedScheduleUpdateTime(info.plantId);
    if (!next) return;
    {
        Poco::Mutex::ScopedLock lock(timerMutex_);
        fixed_schedule_update_time_ = next;
    }
    LoggerLog::Debug(kTag, "fixed_schedule_update_time_ [" + next->FormatDisplay() + "]");
    ReplaceTimer(fixed_schedule_timer_, "fixed_schedule_timer_ delete",
                 &ScheduleUpdateManager::CallbackFixedSchedule);
}

void ScheduleUpdateManager::StopFixedScheduleAlarm() {
    LoggerLog::Debug(kTag, "StopFixedScheduleAlarm");
    std::cout << "fixed_schedule_timer_ restart(0)" << std::endl;
    Poco::Mutex::ScopedLock lock(timerMutex_);
    if (fixed_schedule_timer_ != nullptr) fixed_schedule_timer_->restart(0);
    fixed_schedule_update_time_.reset();
    ++fixedGeneration_;
}

std::shared_ptr<TimeStamp> ScheduleUpdateManager::FixedScheduleUpdateTime(const std::string& plantId) {
    LoggerLog::Debug(kTag, "FixedScheduleUpdateTime");
    try {
        const TimeStamp now;
        const unsigned char last = plantId.empty() ? 0 : static_cast<unsigned char>(plantId.back());
        if (last < '0' || last > '9') {
            return TimeStamp::FromEpochSeconds(now.EpochSeconds() + kHalfHourSeconds);
        }
        // "0" at 12:10, then every half hour up to "9" at 16:40.
        const int digit = last - '0';
        const int minutes = 12 * 60 + 10 + digit * 30;
        const Poco::DateTime today(now.Value());
        const Poco::DateTime at(today.year(), today.month(), today.day(), minutes / 60, minutes % 60, 0);
        std::int64_t seconds = TimeStamp(at.timestamp()).EpochSeconds();
        if (seconds < now.EpochSeconds() - kFixedLateSeconds) seconds += 86400;
        return TimeStamp::FromEpochSeconds(seconds);
    } catch (const Poco::Exception& e) {
        LoggerLog::Debug(kTag, "fixedScheduleUpdateTime. EXCEPTION[" + e.displayText() + "]");
        return nullptr;
    }
}

// Sleeps `ms` in short steps; false as soon as the alarm was stopped (its
// count moved on from `seen`).
bool ScheduleUpdateManager::SleepUnlessCancelled(std::int64_t ms, const std::atomic<unsigned>& generation,
                                                 unsigned seen) {
    // Measured on the monotonic clock: setting the wall clock (a logger
    // without a battery-backed clock gets its time late) moves no sleep.
    const Poco::Clock start;
    for (;;) {
        if (generation != seen) return false;
        const std::int64_t left = ms - start.elapsed() / 1000;
        if (left <= 0) return true;
        Poco::Thread::sleep(static_cast<long>(std::min(left, kSleepStepMs)));
    }
}

// Takes the flow lock for a timer run, waiting in short steps while a flow
// runs; false (and not holding the lock) when the alarm was stopped
// meanwhile, so that a flow stopping the alarm never waits on this thread
// while this thread waits on the flow.
bool ScheduleUpdateManager::LockFlowsUnlessCancelled(const std::atomic<unsigned>& generation, unsigned seen) {
    for (;;) {
        if (generation != seen) return false;
        if (flowMutex_.tryLock()) {
            if (generation == seen) return true;
            flowMutex_.unlock();
            return false;
        }
        Poco::Thread::sleep(static_cast<long>(kSleepStepMs));
    }
}

namespace {

// Releases the flow lock that a timer run took.
class FlowUnlock {
public:
    explicit FlowUnlock(Poco::Mutex& mutex) : mutex_(mutex) {}
    ~FlowUnlock() { mutex_.unlock(); }

private:
    Poco::Mutex& mutex_;
};

} // namespace

void ScheduleUpdateManager::CallbackUpdateSchedule(Poco::Timer&) {
    LoggerLog::Debug(kTag, "CallbackUpdateSchedule");
    const unsigned seen = updateGeneration_;
    std::shared_ptr<TimeStamp> due = GetScheduleUpdateTime();
    if (!due) {
        LoggerLog::Debug(kTag, "Cancel 1");
        return;
    }
    const Poco::Timestamp now(SystemClock::NowMicroseconds());
    if (due->Value() > now + static_cast<Poco::Timestamp::TimeDiff>(MonitoringIntervalMs()) * 1000) {
        LoggerLog::Debug(kTag, "Waiting for next update time");
        return;
    }
    LoggerLog::Debug(kTag, "sleep");
    const std::int64_t diff = (due->Value() - now) / 1000;
    char text[32];
    std::snprintf(text, sizeof text, "%lld", static_cast<long long>(diff));
    LoggerLog::Debug(kTag, std::string("diffe_time") + text);
    if ((diff > 0 && !SleepUnlessCancelled(diff, updateGeneration_, seen)) ||
        !LockFlowsUnlessCancelled(updateGeneration_, seen)) {
        LoggerLog::Debug(kTag, "Cancel 2");
        return;
    }
    FlowUnlock unlock(flowMutex_);
    std::shared_ptr<UpdateResult> result = UpdateSchedule();
    if (!result->IsResult() && !IsRetryable(*result)) {
        LoggerLog::Error(kTag, "Update schedule failed. Stop retry. " + result->ToString());
        StopUpdateScheduleAlarm();
        return;
    }
    SetupUpdateScheduleAlarm(true, !result->IsResult());
    if (result->IsResult()) {
        SetupFixedScheduleAlarm();
        ScheduleDatabase* database = ScheduleDatabase::GetInstance();
        if (database != nullptr) database->UpdateSentFlag();
    }
}

void ScheduleUpdateManager::CallbackFixedSchedule(Poco::Timer&) {
    LoggerLog::Debug(kTag, "CallbackFixedSchedule");
    std::shared_ptr<TimeStamp> due = GetFixedScheduleUpdateTime();
    if (!due) {
        LoggerLog::Debug(kTag, "Cancel 1");
        return;
    }
    if (due->Value() > Poco::Timestamp(SystemClock::NowMicroseconds())) {
        LoggerLog::Debug(kTag, "Waiting for next update time");
        return;
    }
    StopFixedScheduleAlarm();
    const unsigned seen = fixedGeneration_;
    for (int attempt = 1; attempt <= kFixedAttempts; ++attempt) {
        if (!LockFlowsUnlessCancelled(fixedGeneration_, seen)) return;
        std::shared_ptr<UpdateResult> result;
        {
            FlowUnlock unlock(flowMutex_);
            result = UpdateFixedSchedule();
            if (result->IsResult()) {
                ScheduleDatabase* database = ScheduleDatabase::GetInstance();
                if (database != nullptr) database->UpdateSentFlag();
                return;
            }
        }
        if (!IsRetryable(*result)) {
            LoggerLog::Error(kTag, "Update fixed schedule failed. Stop retry. " + result->ToString());
            return;
        }
        if (attempt == kFixedAttempts) return;
        if (!SleepUnlessCancelled(kFixedRetryMs, fixedGeneration_, seen)) return;
        LoggerLog::Error(kTag, "Fixed schedule update retry. [" + std::to_string(attempt) + "]");
    }
}

} // namespace brvo
