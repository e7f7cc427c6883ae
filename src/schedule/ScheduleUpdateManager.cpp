#include "schedule/ScheduleUpdateManager.h"

#include <atomic>

#include "client/BrvfdAccessRequest.h"
#include "client/BrvfdSendCommandRequest.h"
#include "client/Channel.h"
#include "client/Request.h"
#include "client/ScheduleServerAccessRequest.h"
#include "client/ScheduleServerSendRequest.h"
#include "client/ServerAccessResult.h"
#include "client/ServerResponseParser.h"
#include "database/ScheduleDatabase.h"
#include "database/ScheduleUpdateInfoDatabase.h"
#include "schedule/ScheduleModel.h"
#include "settings/LoggerSettingManager.h"
#include "settings/SystemSettingXmlManager.h"
#include "util/CancelEvent.h"
#include "util/GuardedCall.h"
#include "util/LoggerLog.h"
#include "util/SystemClock.h"
#include "util/TimeStamp.h"

#include <Poco/Clock.h>
#include <Poco/DateTime.h>
#include <Poco/Exception.h>
#include <Poco/Thread.h>

#include <functional>
#include <iostream>

namespace brvo {

const std::string ScheduleUpdateManager::kUpdateScheduleKbn = "0000";
const std::string ScheduleUpdateManager::kFixedScheduleKbnPrefix = "999";
const std::string ScheduleUpdateManager::kCheckPlantIdKbn = "8888";

namespace {

const std::string kTag = "ScheduleUpdateManager";
const int kRequestWorkers = 3;
const std::int64_t kHalfHourSeconds = 1800;
const std::int64_t kFixedLateSeconds = 20 * 60;
const int kFixedAttempts = 5;
const std::int64_t kFixedRetryMs = 300000;

// Created and deleted on the main thread; pins take it under the mutex, so
// none is taken once DeleteInstance has begun.
Poco::FastMutex instanceMutex;
std::atomic<ScheduleUpdateManager*> instance(nullptr);

// Managers whose flows outlived DeleteInstance's wait: kept (and reachable)
// until the process exits.
std::vector<ScheduleUpdateManager*>& Parked() {
    static std::vector<ScheduleUpdateManager*>* parked = new std::vector<ScheduleUpdateManager*>();
    return *parked;
}

SystemSettingXmlManager& SystemSettings() {
    SystemSettingXmlManager::CreateInstance();
    return *SystemSettingXmlManager::GetInstance();
}

std::shared_ptr<UpdateResult> Success() {
    return std::make_shared<UpdateResult>();
}

std::shared_ptr<UpdateResult> Failure(FailureReason reason, std::int32_t status, const std::string& message) {
    return std::make_shared<UpdateResult>(reason, status, message);
}

// Runs one flow so that nothing it throws goes further: an exception is
// logged at error level as `failure` + "EXCEPTION[...]" (library) or
// `failure` + "exception" and becomes a failure of its own, status 0, with
// the exception's text as message.
std::shared_ptr<UpdateResult> GuardedFlow(const std::string& failure,
                                          const std::function<std::shared_ptr<UpdateResult>()>& flow) {
    std::shared_ptr<UpdateResult> result;
    const Caught caught = GuardedCall([&] { result = flow(); });
    if (!caught) return result;
    LoggerLog::Error(kTag, caught.DescribeTagged(failure));
    return Failure(FailureReason::kException, 0, caught.GetText());
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

ScheduleUpdateManager::Pin::Pin() : manager_(nullptr) {
    Poco::FastMutex::ScopedLock lock(instanceMutex);
    manager_ = instance;
    if (manager_ != nullptr) manager_->EnterUse();
}

ScheduleUpdateManager::Pin::~Pin() {
    if (manager_ != nullptr) manager_->LeaveUse();
}

// One tick of an alarm's timer, for the length of its callback: whether the
// timer still serves its alarm (the last tick of a replaced timer does
// nothing), and the alarm's cancel event and next time as the tick found
// them. A serving tick counts as a use of the manager.
class ScheduleUpdateManager::Tick {
public:
    Tick(ScheduleUpdateManager& manager, Poco::Timer& timer, Poco::Timer* const& alarmTimer,
         const std::shared_ptr<CancelEvent>& cancel, const std::shared_ptr<TimeStamp>& due)
        : manager_(manager), timer_(timer), current_(false) {
        {
            Poco::Mutex::ScopedLock lock(manager_.timerMutex_);
            current_ = &timer == alarmTimer && !manager_.IsShuttingDown();
            if (!current_) return;
            manager_.ticking_.push_back(&timer);
            cancel_ = cancel;
            due_ = due;
        }
        manager_.EnterUse();
    }

    ~Tick() {
        if (!current_) return;
        {
            Poco::Mutex::ScopedLock lock(manager_.timerMutex_);
            std::vector<Poco::Timer*>& ticking = manager_.ticking_;
            ticking.erase(std::find(ticking.begin(), ticking.end(), &timer_));
        }
        manager_.LeaveUse();
    }

    bool IsCurrent() const { return current_; }
    const std::shared_ptr<CancelEvent>& Cancel() const { return cancel_; }
    const std::shared_ptr<TimeStamp>& Due() const { return due_; }

private:
    Tick(const Tick&) = delete;
    Tick& operator=(const Tick&) = delete;

    ScheduleUpdateManager& manager_;
    Poco::Timer& timer_;
    bool current_;
    std::shared_ptr<CancelEvent> cancel_;
    std::shared_ptr<TimeStamp> due_;
};

void ScheduleUpdateManager::CreateInstance() {
    Poco::FastMutex::ScopedLock lock(instanceMutex);
    if (instance == nullptr) instance = new ScheduleUpdateManager();
}

ScheduleUpdateManager* ScheduleUpdateManager::GetInstance() {
    return instance;
}

void ScheduleUpdateManager::DeleteInstance() {
    ScheduleUpdateManager* doomed = nullptr;
    {
        Poco::FastMutex::ScopedLock lock(instanceMutex);
        doomed = instance.exchange(nullptr);
    }
    if (doomed == nullptr) return;
    doomed->Shutdown();
    if (doomed->WaitUnused(kDeleteWaitMs)) {
        delete doomed;
        return;
    }
    LoggerLog::Warning(kTag, "A schedule flow did not end in time; it is left to the exit.");
    Poco::FastMutex::ScopedLock lock(instanceMutex);
    Parked().push_back(doomed);
}

bool ScheduleUpdateManager::HasParked() {
    Poco::FastMutex::ScopedLock lock(instanceMutex);
    return !Parked().empty();
}

ScheduleUpdateManager::ScheduleUpdateManager()
    : channel_(new Channel(kRequestWorkers)), infoDatabase_(new ScheduleUpdateInfoDatabase()), resets_(0),
      schedule_timer_(nullptr), fixed_schedule_timer_(nullptr), updateCancel_(std::make_shared<CancelEvent>()),
      fixedCancel_(std::make_shared<CancelEvent>()), stopEvent_(new CancelEvent()), users_(0) {
    channel_->StartWorkers();
    ScheduleDatabase::CreateInstance();
    ScheduleDatabase::GetInstance()->SetForwarder([this] { return SendScheduleData(); });
}

ScheduleUpdateManager::~ScheduleUpdateManager() {
    Shutdown();
    // Waits for a forwarding in progress (aborted by Shutdown) to end.
    ScheduleDatabase* database = ScheduleDatabase::GetInstance();
    if (database != nullptr) database->SetForwarder(ScheduleDatabase::Forwarder());
    std::vector<Poco::Timer*> timers;
    {
        Poco::Mutex::ScopedLock lock(timerMutex_);
        timers.swap(retired_);
        timers.push_back(schedule_timer_);
        timers.push_back(fixed_schedule_timer_);
        schedule_timer_ = fixed_schedule_timer_ = nullptr;
    }
    for (Poco::Timer* timer : timers) delete timer;
    delete channel_;
    delete infoDatabase_;
    Poco::FastMutex::ScopedLock lock(exchangeMutex_);
    for (Request* request : inFlight_) request->release();
    inFlight_.clear();
}

void ScheduleUpdateManager::Shutdown() {
    stopEvent_->Set();
    Stop();
    Poco::FastMutex::ScopedLock lock(exchangeMutex_);
    for (Request* request : inFlight_) request->Abort();
}

bool ScheduleUpdateManager::IsShuttingDown() const {
    return stopEvent_->IsSet();
}

void ScheduleUpdateManager::EnterUse() {
    Poco::FastMutex::ScopedLock lock(usersMutex_);
    ++users_;
}

void ScheduleUpdateManager::LeaveUse() {
    Poco::FastMutex::ScopedLock lock(usersMutex_);
    if (--users_ == 0) unused_.broadcast();
}

// Waits up to `ms` for every pin, flow and callback to end; true when none
// is left.
bool ScheduleUpdateManager::WaitUnused(long ms) {
    const Poco::Clock start;
    Poco::FastMutex::ScopedLock lock(usersMutex_);
    while (users_ > 0) {
        const long left = ms - static_cast<long>(start.elapsed() / 1000);
        if (left <= 0) return false;
        unused_.tryWait(usersMutex_, left);
    }
    return true;
}

// Tracks `request` (before it is queued) so that Shutdown can abort it.
// Requests that have finished (only this list still holds them) are dropped
// here. After Shutdown a request fails as soon as it starts.
void ScheduleUpdateManager::Register(Request* request) {
    Poco::FastMutex::ScopedLock lock(exchangeMutex_);
    const auto finished = std::remove_if(inFlight_.begin(), inFlight_.end(), [](Request* tracked) {
        if (tracked->referenceCount() > 1) return false;
        tracked->release();
        return true;
    });
    inFlight_.erase(finished, inFlight_.end());
    request->duplicate();
    inFlight_.push_back(request);
    if (IsShuttingDown()) request->Abort();
}

std::uint64_t ScheduleUpdateManager::Resets() {
    Poco::Mutex::ScopedLock lock(flowMutex_);
    return resets_;
}

// Whether the tables were emptied since `resets` was read (the caller holds
// the flow lock); a fetch begun before must not be stored: it belongs to a
// plant or state that no longer holds.
bool ScheduleUpdateManager::ResetSince(std::uint64_t resets, const char* failureText) {
    if (resets_ == resets) return false;
    LoggerLog::Warning(kTag, std::string(failureText) + " The stored schedule was reset while it was fetched.");
    return true;
}

ScheduleUpdateInfo ScheduleUpdateManager::GetUpdateInfo() {
    return infoDatabase_->SelectUpdateInfo();
}

std::future<std::shared_ptr<ServerAccessResult>> ScheduleUpdateManager::ServerAccess_c(const std::string& scheduleKbn) {
    LoggerLog::Debug(kTag, "ServerAccess_c");
    return StartExchange([&](ScheduleServerAccessRequest& request) { request.SetParameters(scheduleKbn); });
}

std::future<std::shared_ptr<ServerAccessResult>> ScheduleUpdateManager::ServerAccess_i(const std::string& scheduleKbn,
                                                                                       const std::string& plantId,
                                                                                       const std::string& url) {
    LoggerLog::Debug(kTag, "ServerAccess_i");
    return StartExchange(
        [&](ScheduleServerAccessRequest& request) { request.SetParameters(scheduleKbn, plantId, url); });
}

// Queues one exchange whose parameters `setParameters` fills in. The
// callback lives as long as the request, so it outlives its own report.
std::future<std::shared_ptr<ServerAccessResult>>
ScheduleUpdateManager::StartExchange(const std::function<void(ScheduleServerAccessRequest&)>& setParameters) {
    auto callback = std::make_shared<ScheduleServerSendRequest>();
    std::future<std::shared_ptr<ServerAccessResult>> future = callback->GetFuture();
    ScheduleServerAccessRequest* request = new ScheduleServerAccessRequest(callback.get());
    setParameters(*request);
    request->Keep(callback);
    Register(request);
    channel_->Enqueue(request);
    return future;
}

// Reports a failed exchange or an answer the parser could not read; null
// when the answer can be used.
std::shared_ptr<UpdateResult> ScheduleUpdateManager::AccessFailure(const std::string& failureText,
                                                                   const std::shared_ptr<ServerAccessResult>& access) {
    if (!access || !access->IsResult()) {
        const std::string printed = access ? access->ToString() : std::string();
        LoggerLog::Warning(kTag, failureText + printed + "]");
        return Failure(FailureReason::kAccessFailed, access ? access->GetStatusCode() : 0,
                       access ? access->GetFailureReason() : "");
    }
    std::shared_ptr<ServerResponseParser> parser = access->GetResponseParser();
    if (!parser || !parser->IsBinary()) {
        const std::string message = parser ? parser->GetMessage() : std::string();
        LoggerLog::Warning(kTag, failureText + message + "]");
        return Failure(FailureReason::kResponseUnparsable, access->GetStatusCode(), message);
    }
    return nullptr;
}

std::shared_ptr<UpdateResult> ScheduleUpdateManager::UpdateSchedule() {
    LoggerLog::Debug(kTag, "UpdateSchedule");
    return GuardedFlow("Schedule update failed. ", [&]() -> std::shared_ptr<UpdateResult> {
        const std::uint64_t resets = Resets();
        std::shared_ptr<ServerAccessResult> access = ServerAccess_c(kUpdateScheduleKbn).get();
        if (auto failed = AccessFailure("Schedule update failed. [", access)) return failed;
        const std::int32_t status = access->GetStatusCode();
        const ScheduleModel model(access->GetResponseParser()->GetHexData(), ScheduleModel::kUpdateScheduleKind);
        if (!model.IsResult()) {
            LoggerLog::Warning(kTag, "Schedule parse failed. [" + model.GetMessage() + "]");
            return Failure(FailureReason::kPayloadInvalid, status, model.GetMessage());
        }
        const std::vector<ScheduleRow> slots = model.GetSlots();
        if (slots.empty()) {
            LoggerLog::Warning(kTag, "Schedule update failed. Schedule data is nothing.");
            return Failure(FailureReason::kNoSlots, status, "Schedule data is nothing.");
        }
        Poco::Mutex::ScopedLock lock(flowMutex_);
        if (ResetSince(resets, "Schedule update failed."))
            return Failure(FailureReason::kDatabaseWriteFailed, status, "Database update error.");
        if (!UpdateWithUpdateSchedule(model.GetUpdateInfo(), slots)) {
            LoggerLog::Warning(kTag, "Schedule update failed. Database update error.");
            return Failure(FailureReason::kDatabaseWriteFailed, status, "Database update error.");
        }
        return Success();
    });
}

std::shared_ptr<UpdateResult> ScheduleUpdateManager::UpdateFixedSchedule() {
    LoggerLog::Debug(kTag, "UpdateFixedSchedule");
    return GuardedFlow("Fixed schedule update failed. ", [&]() -> std::shared_ptr<UpdateResult> {
        ScheduleUpdateInfo info;
        std::uint64_t resets = 0;
        {
            Poco::Mutex::ScopedLock lock(flowMutex_);
            info = infoDatabase_->SelectUpdateInfo();
            resets = resets_;
        }
        if (info.plantId.empty()) {
            const std::string message = "Update information of fixed schedule does not exist.";
            LoggerLog::Warning(kTag, message);
            return Failure(FailureReason::kAccessFailed, -1, message);
        }
        const std::string kbn = kFixedScheduleKbnPrefix + std::to_string(info.fixedScheduleUpdateFlag);
        std::shared_ptr<ServerAccessResult> access = ServerAccess_c(kbn).get();
        if (auto failed = AccessFailure("Fixed schedule update failed. [", access)) return failed;
        const std::int32_t status = access->GetStatusCode();
        const ScheduleModel model(access->GetResponseParser()->GetHexData(), 0);
        if (!model.IsResult()) {
            LoggerLog::Warning(kTag, "Fixed schedule parse failed. [" + model.GetMessage() + "]");
            return Failure(FailureReason::kPayloadInvalid, status, model.GetMessage());
        }
        const std::vector<ScheduleRow> slots = model.GetSlots();
        if (slots.empty()) {
            LoggerLog::Warning(kTag, "Fixed schedule update failed. Schedule data is nothing.");
            return Failure(FailureReason::kNoSlots, status, "Schedule data is nothing.");
        }
        Poco::Mutex::ScopedLock lock(flowMutex_);
        if (ResetSince(resets, "Fixed schedule update failed."))
            return Failure(FailureReason::kDatabaseWriteFailed, status, "Database update error.");
        if (!UpdateWithFixedSchedule(slots, model.GetPlantId())) {
            LoggerLog::Warning(kTag, "Fixed schedule update failed. Database update error.");
            return Failure(FailureReason::kDatabaseWriteFailed, status, "Database update error.");
        }
        return Success();
    });
}

bool ScheduleUpdateManager::UpdateWithUpdateSchedule(const ScheduleUpdateInfo& received,
                                                     const std::vector<ScheduleRow>& slots) {
    Poco::Mutex::ScopedLock lock(flowMutex_);
    LoggerLog::Debug(kTag, "UpdateWithUpdateSchedule");
    ScheduleUpdateInfo info = infoDatabase_->SelectUpdateInfo();
    if (!info.plantId.empty() && info.plantId != received.plantId) {
        LoggerLog::Error(kTag, "It is data of a different power station ID. Expected[" + info.plantId + "], but [" +
                                   received.plantId + "]");
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

bool ScheduleUpdateManager::UpdateWithFixedSchedule(const std::vector<ScheduleRow>& slots, const std::string& plantId) {
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
    LoggerLog::Debug(kTag, "UpdateOutputControlSchedule");
    std::shared_ptr<UpdateResult> result = UpdateSchedule();
    if (!result->IsResult()) return result;
    SetupUpdateScheduleAlarm(false, false);
    return UpdateFixedSchedule();
}

void ScheduleUpdateManager::DeleteAllUpdateControlInfoFromDB() {
    Poco::Mutex::ScopedLock lock(flowMutex_);
    LoggerLog::Debug(kTag, "DeleteAllUpdateControlInfoFromDB");
    ++resets_;
    infoDatabase_->DeleteUpdateInfo();
    ScheduleDatabase* database = ScheduleDatabase::GetInstance();
    if (database != nullptr) database->DeleteAll();
    Stop();
}

std::shared_ptr<UpdateResult> ScheduleUpdateManager::CheckAndUpdateWithSystemSetting(bool& started,
                                                                                     bool startIfUnchanged) {
    LoggerLog::Debug(kTag, "CheckAndUpdateWithSystemSetting");
    return GuardedFlow("Check System Setting failed. ", [&]() -> std::shared_ptr<UpdateResult> {
        if (!BringInfoInStep(startIfUnchanged)) return Success();
        std::shared_ptr<UpdateResult> result = UpdateOutputControlSchedule();
        if (result->IsResult()) started = true;
        Start();
        return result;
    });
}

// The locked part of the settings check: true when a new plant needs its
// first fetch (done by the caller, outside the lock).
bool ScheduleUpdateManager::BringInfoInStep(bool startIfUnchanged) {
    Poco::Mutex::ScopedLock lock(flowMutex_);
    SystemSettingXmlManager& settings = SystemSettings();
    settings.Load();
    if (!settings.HasGeneral()) return false;
    const bool standAlone = settings.GetOutputControlStandAlone();
    if (standAlone) Stop();
    const std::string configured = settings.GetOutputControlPlantId();
    const std::string stored = infoDatabase_->SelectUpdateInfo().plantId;
    if (stored.empty() || stored != configured) {
        DeleteAllUpdateControlInfoFromDB();
        if (configured.empty()) {
            Stop();
            LoggerLog::Info(kTag, "Plant ID is not set. [" + stored + "]");
            return false;
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
            return false;
        }
        return true;
    }
    if (startIfUnchanged && !standAlone) Start();
    return false;
}

std::shared_ptr<UpdateResult> ScheduleUpdateManager::UpdateWithFixedData(const std::shared_ptr<ScheduleModel>& model,
                                                                         bool force) {
    Poco::Mutex::ScopedLock lock(flowMutex_);
    LoggerLog::Debug(kTag, "UpdateWithFixedData");
    return GuardedFlow("Fixed schedule send failed. ", [&]() -> std::shared_ptr<UpdateResult> {
        if (!model || !model->IsResult()) {
            const std::string message = model ? model->GetMessage() : std::string();
            LoggerLog::Limited(LoggerLog::kWarning, kTag, "Fixed schedule file parse failed",
                               "Fixed schedule parse failed. " + message);
            return Failure(FailureReason::kPayloadInvalid, 0, message);
        }
        const std::vector<ScheduleRow> slots = model->GetSlots();
        if (slots.empty()) {
            LoggerLog::Limited(LoggerLog::kWarning, kTag, "Fixed schedule file without data",
                               "Fixed schedule update failed. Schedule data is nothing.");
            return Failure(FailureReason::kNoSlots, 0, "Schedule data is nothing.");
        }
        const std::string stored = infoDatabase_->SelectUpdateInfo().plantId;
        const std::string received = model->GetPlantId();
        const bool differs = !stored.empty() && stored != received;
        if (differs && !force) {
            const std::string ids = "[" + stored + "] : [" + received + "]";
            LoggerLog::Limited(LoggerLog::kWarning, kTag, "Fixed schedule file of another plant",
                               "Fixed schedule update failed. id not match. " + ids);
            return Failure(FailureReason::kPlantIdMismatch, 0, ids);
        }
        if (differs) DeleteAllUpdateControlInfoFromDB();
        if (!UpdateWithFixedSchedule(slots, received)) {
            LoggerLog::Warning(kTag, "Fixed schedule update failed. Database update error.");
            return Failure(FailureReason::kDatabaseWriteFailed, 0, "Database update error.");
        }
        SystemSettingXmlManager& settings = SystemSettings();
        if (!settings.HasGeneral()) settings.Load();
        const bool settingChanged = !settings.GetOutputControlStandAlone() || (force && differs);
        settings.SetOutputControlStandAlone(true);
        settings.SetOutputControlPlantId(received);
        Stop();
        return std::make_shared<UpdateResult>(settingChanged, received);
    });
}

std::shared_ptr<UpdateResult> ScheduleUpdateManager::CheckPlantId(const std::string& plantId, const std::string& url) {
    LoggerLog::Debug(kTag, "CheckPlantId");
    return GuardedFlow("Check plant id failed. ", [&]() -> std::shared_ptr<UpdateResult> {
        std::shared_ptr<ServerAccessResult> access = ServerAccess_i(kCheckPlantIdKbn, plantId, url).get();
        if (auto failed = AccessFailure("Check plant id failed. [", access)) return failed;
        if (access->GetResponseParser()->OCCheckIDModel()) return Success();
        return Failure(FailureReason::kPlantIdNotRegistered, access->GetStatusCode(), "Plant ID is not registered");
    });
}

int ScheduleUpdateManager::SendScheduleData() {
    LoggerLog::Debug(kTag, "SendScheduleData");
    auto callback = std::make_shared<BrvfdSendCommandRequest>(BrvfdAccessRequest::kCommandScheduleUpdated);
    std::future<int> future = callback->GetFuture();
    BrvfdAccessRequest* request = new BrvfdAccessRequest(callback.get());
    request->SetCommand(BrvfdAccessRequest::kCommandScheduleUpdated);
    request->Keep(callback);
    Register(request);
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
    switch (result.GetFailureReason()) {
    case FailureReason::kAccessFailed:
    case FailureReason::kPayloadInvalid:
    case FailureReason::kNoSlots:
    case FailureReason::kException:
        return true;
    default:
        return false;
    }
}

long ScheduleUpdateManager::MonitoringIntervalMs() const {
    int seconds = LoggerSettingManager::Current().GetOutputScheduleMonitoringInterval();
    if (seconds <= 0) seconds = LoggerSettingManager::kDefaultMonitoringInterval;
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

// Replaces `timer` with a new one ticking every monitoring interval. The
// old one is retired, not joined: its thread ends after the callback it may
// be running, which no longer acts (it is not the alarm's timer), and it is
// freed later. So no caller, whatever lock it holds, waits on a callback.
void ScheduleUpdateManager::ReplaceTimer(Poco::Timer*& timer, const char* deleteLabel,
                                         void (ScheduleUpdateManager::*callback)(Poco::Timer&)) {
    const long interval = MonitoringIntervalMs();
    {
        Poco::Mutex::ScopedLock lock(timerMutex_);
        if (timer != nullptr) {
            std::cout << deleteLabel << std::endl;
            RetireTimer(timer);
        }
        std::cout << "fixed_schedule_timer_ start" << std::endl;
        timer = new Poco::Timer(interval, interval);
        timer->start(Poco::TimerCallback<ScheduleUpdateManager>(*this, callback));
    }
    ReapRetiredTimers();
}

// Ends `timer`'s periodic run without waiting for it (timerMutex_ held).
void ScheduleUpdateManager::RetireTimer(Poco::Timer* timer) {
    timer->restart(0);
    retired_.push_back(timer);
}

// Frees the retired timers whose callback is not running; freeing waits for
// a thread that is ending anyway, never for a callback.
void ScheduleUpdateManager::ReapRetiredTimers() {
    std::vector<Poco::Timer*> idle;
    {
        Poco::Mutex::ScopedLock lock(timerMutex_);
        const auto busy = std::partition(retired_.begin(), retired_.end(), [this](Poco::Timer* timer) {
            return std::find(ticking_.begin(), ticking_.end(), timer) != ticking_.end();
        });
        idle.assign(busy, retired_.end());
        retired_.erase(busy, retired_.end());
    }
    for (Poco::Timer* timer : idle) delete timer;
}

// Ends `timer`'s periodic run (a running callback finishes first, without
// being waited for), wakes a callback of the alarm that sleeps or waits and
// gives the alarm's next run a fresh cancel event (timerMutex_ held).
void ScheduleUpdateManager::CancelAlarm(Poco::Timer* timer, std::shared_ptr<CancelEvent>& cancel) {
    if (timer != nullptr) timer->restart(0);
    cancel->Set();
    cancel = std::make_shared<CancelEvent>();
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
    next = std::make_shared<TimeStamp>(
        Poco::Timestamp(next->Value() + (seconds - next->EpochSeconds()) * Poco::Timestamp::resolution()));
    {
        Poco::Mutex::ScopedLock lock(timerMutex_);
        schedule_update_time_ = next;
    }
    LoggerLog::Debug(kTag,
                     std::string(retry ? "retry. " : "") + "schedule_update_time_ [" + next->FormatDisplay() + "]");
    if (!keepTimer) {
        ReplaceTimer(schedule_timer_, "schedule_timer_ delete", &ScheduleUpdateManager::CallbackUpdateSchedule);
    }
}

void ScheduleUpdateManager::StopUpdateScheduleAlarm() {
    LoggerLog::Debug(kTag, "StopUpdateScheduleAlarm");
    std::cout << "fixed_schedule_timer_ restart(0)" << std::endl;
    Poco::Mutex::ScopedLock lock(timerMutex_);
    CancelAlarm(schedule_timer_, updateCancel_);
    schedule_update_time_.reset();
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
    ReplaceTimer(fixed_schedule_timer_, "fixed_schedule_timer_ delete", &ScheduleUpdateManager::CallbackFixedSchedule);
}

void ScheduleUpdateManager::StopFixedScheduleAlarm() {
    LoggerLog::Debug(kTag, "StopFixedScheduleAlarm");
    std::cout << "fixed_schedule_timer_ restart(0)" << std::endl;
    Poco::Mutex::ScopedLock lock(timerMutex_);
    CancelAlarm(fixed_schedule_timer_, fixedCancel_);
    fixed_schedule_update_time_.reset();
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

void ScheduleUpdateManager::CallbackUpdateSchedule(Poco::Timer& timer) {
    const Tick tick(*this, timer, schedule_timer_, updateCancel_, schedule_update_time_);
    if (!tick.IsCurrent()) return;
    LoggerLog::Debug(kTag, "CallbackUpdateSchedule");
    const std::shared_ptr<TimeStamp>& due = tick.Due();
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
    const CancelEvent& cancel = *tick.Cancel();
    if ((diff > 0 && cancel.Wait(diff)) || cancel.IsSet()) {
        LoggerLog::Debug(kTag, "Cancel 2");
        return;
    }
    std::shared_ptr<UpdateResult> result = UpdateSchedule();
    // Stopped while the flow ran (a plant change, stand-alone operation,
    // the daemon stopping): the alarm stays as the stop left it.
    if (cancel.IsSet()) return;
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

void ScheduleUpdateManager::CallbackFixedSchedule(Poco::Timer& timer) {
    const Tick tick(*this, timer, fixed_schedule_timer_, fixedCancel_, fixed_schedule_update_time_);
    if (!tick.IsCurrent()) return;
    LoggerLog::Debug(kTag, "CallbackFixedSchedule");
    const std::shared_ptr<TimeStamp>& due = tick.Due();
    if (!due) {
        LoggerLog::Debug(kTag, "Cancel 1");
        return;
    }
    if (due->Value() > Poco::Timestamp(SystemClock::NowMicroseconds())) {
        LoggerLog::Debug(kTag, "Waiting for next update time");
        return;
    }
    // The attempts below belong to no alarm run any more: stopping the alarm
    // again (a new set-up, a plant change, the daemon stopping) ends them.
    StopFixedScheduleAlarm();
    std::shared_ptr<CancelEvent> cancel;
    {
        Poco::Mutex::ScopedLock lock(timerMutex_);
        cancel = fixedCancel_;
    }
    for (int attempt = 1; attempt <= kFixedAttempts; ++attempt) {
        if (cancel->IsSet()) return;
        std::shared_ptr<UpdateResult> result = UpdateFixedSchedule();
        if (result->IsResult()) {
            ScheduleDatabase* database = ScheduleDatabase::GetInstance();
            if (database != nullptr) database->UpdateSentFlag();
            return;
        }
        if (!IsRetryable(*result)) {
            LoggerLog::Error(kTag, "Update fixed schedule failed. Stop retry. " + result->ToString());
            return;
        }
        if (attempt == kFixedAttempts || cancel->Wait(kFixedRetryMs)) return;
        LoggerLog::Error(kTag, "Fixed schedule update retry. [" + std::to_string(attempt) + "]");
    }
}

} // namespace brvo
