#include "schedule/ScheduleUpdateManager.h"

#include "database/DatabaseManager.h"

#include "client/ServerAccessResult.h"
#include "client/ServerResponseParser.h"
#include "database/ScheduleDatabase.h"
#include "schedule/ExchangeGateway.h"
#include "schedule/ManagerRegistry.h"
#include "schedule/ScheduleModel.h"
#include "settings/LoggerSettingManager.h"
#include "settings/SystemSettingXmlManager.h"
#include "util/CancelEvent.h"
#include "util/Clock.h"
#include "util/GuardedCall.h"
#include "util/LoggerLog.h"
#include "util/ScopedLock.h"
#include "util/ThreadTimerService.h"
#include "util/TimeStamp.h"

#include <Poco/DateTime.h>
#include <Poco/Exception.h>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <iostream>

namespace brvo {

const std::string ScheduleUpdateManager::kUpdateScheduleKbn = "0000";
const std::string ScheduleUpdateManager::kFixedScheduleKbnPrefix = "999";
const std::string ScheduleUpdateManager::kCheckPlantIdKbn = "8888";

namespace {

const std::string kTag = "ScheduleUpdateManager";
const std::int64_t kHalfHourSeconds = 1800;
const std::int64_t kDaySeconds = 86400;
const std::int64_t kFixedLateSeconds = 20 * 60;
const std::int64_t kMicros = 1000000;

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
    return UpdateResult::FromCaught(caught);
}

std::string SlotRange(const std::vector<ScheduleRow>& slots) {
    std::shared_ptr<TimeStamp> first = TimeStamp::FromEpochSeconds(slots.front().time);
    std::shared_ptr<TimeStamp> last = TimeStamp::FromEpochSeconds(slots.back().time);
    return "[" + (first ? first->FormatDisplay() : std::string()) + "~" +
           (last ? last->FormatDisplay() : std::string()) + "]";
}

std::string Display(std::int64_t wallMicros) {
    return TimeStamp(Poco::Timestamp(wallMicros)).FormatDisplay();
}

// Whether the tables were emptied since `resets` was read (the caller holds
// the flow lock); a fetch begun before must not be stored: it belongs to a
// plant or state that no longer holds.
bool ResetSince(const ScheduleStore& store, std::uint64_t resets, const char* failureText) REQUIRES(store.FlowMutex()) {
    if (store.ResetsLocked() == resets) return false;
    LoggerLog::Warning(kTag, std::string(failureText) + " The stored schedule was reset while it was fetched.");
    return true;
}

void ForwardStoredRows() {
    ScheduleDatabase* database = ScheduleDatabase::GetInstance();
    if (database != nullptr) database->UpdateSentFlag();
}

} // namespace

ScheduleUpdateManager::Pin::Pin() : manager_(ManagerRegistry::Acquire()) {}

ScheduleUpdateManager::Pin::~Pin() {
    if (manager_ != nullptr) manager_->LeaveUse();
}

void ScheduleUpdateManager::CreateInstance() {
    ManagerRegistry::Create(Environment());
}

void ScheduleUpdateManager::CreateInstance(const Environment& environment) {
    ManagerRegistry::Create(environment);
}

ScheduleUpdateManager* ScheduleUpdateManager::GetInstance() {
    return ManagerRegistry::Get();
}

void ScheduleUpdateManager::DeleteInstance() {
    ManagerRegistry::Delete(kDeleteWaitMs);
}

bool ScheduleUpdateManager::HasParked() {
    return ManagerRegistry::HasParked();
}

ScheduleUpdateManager::ScheduleUpdateManager() : ScheduleUpdateManager(Environment()) {}

ScheduleUpdateManager::ScheduleUpdateManager(const Environment& environment)
    : clock_(environment.clock != nullptr ? environment.clock : &Clock::System()),
      ownUpdateTimers_(environment.updateTimers != nullptr ? nullptr : new ThreadTimerService(*clock_, "UpdateAlarm")),
      ownFixedTimers_(environment.fixedTimers != nullptr ? nullptr : new ThreadTimerService(*clock_, "FixedAlarm")),
      stepLane_(environment.updateTimers != nullptr ? environment.updateTimers : ownUpdateTimers_.get()),
      ownGateway_(environment.gateway != nullptr ? nullptr : new ExchangeGateway()),
      gateway_(environment.gateway != nullptr ? environment.gateway : ownGateway_.get()),
      updateAlarm_(environment.updateTimers != nullptr ? *environment.updateTimers : *ownUpdateTimers_, *clock_),
      fixedAlarm_(environment.fixedTimers != nullptr ? *environment.fixedTimers : *ownFixedTimers_, *clock_),
      stopEvent_(new CancelEvent()) {
    stepLane_->OnClockStep([this](std::int64_t step) { OnClockStep(step); });
    ScheduleDatabase::GetInstance()->SetForwarder([this] { return SendScheduleData(); });
}

ScheduleUpdateManager::~ScheduleUpdateManager() {
    // A lane given by the environment outlives the manager: it must not
    // call into it once it is gone.
    stepLane_->OnClockStep(TimerService::StepHandler());
    Shutdown();
    // Waits for a forwarding in progress (aborted by Shutdown) to end.
    ScheduleDatabase* database = ScheduleDatabase::GetInstance();
    if (database != nullptr) database->SetForwarder(ScheduleDatabase::Forwarder());
    // The lanes end before the alarms they drive.
    ownUpdateTimers_.reset();
    ownFixedTimers_.reset();
}

void ScheduleUpdateManager::Shutdown() {
    stopEvent_->Set();
    Stop();
    updateAlarm_.Retire();
    fixedAlarm_.Retire();
    gateway_->Abort();
}

bool ScheduleUpdateManager::IsShuttingDown() const {
    return stopEvent_->IsSet();
}

std::int64_t ScheduleUpdateManager::NowMicroseconds() const {
    return clock_->WallMicroseconds();
}

std::string ScheduleUpdateManager::NowDisplay() const {
    return Display(NowMicroseconds());
}

ScheduleUpdateInfo ScheduleUpdateManager::GetUpdateInfo() {
    return store_.SelectUpdateInfo();
}

std::future<std::shared_ptr<ServerAccessResult>> ScheduleUpdateManager::ServerAccess_c(const std::string& scheduleKbn) {
    LoggerLog::Debug(kTag, "ServerAccess_c");
    return gateway_->Fetch(scheduleKbn, false, "", "");
}

std::future<std::shared_ptr<ServerAccessResult>> ScheduleUpdateManager::ServerAccess_i(const std::string& scheduleKbn,
                                                                                       const std::string& plantId,
                                                                                       const std::string& url) {
    LoggerLog::Debug(kTag, "ServerAccess_i");
    return gateway_->Fetch(scheduleKbn, true, plantId, url);
}

// Reports a failed exchange or an answer the parser could not read; null
// when the answer can be used. A server's Retry-After travels on.
std::shared_ptr<UpdateResult> ScheduleUpdateManager::AccessFailure(const std::string& failureText,
                                                                   const std::shared_ptr<ServerAccessResult>& access) {
    std::shared_ptr<UpdateResult> failure;
    if (!access || !access->IsResult()) {
        const std::string printed = access ? access->ToString() : std::string();
        LoggerLog::Warning(kTag, failureText + printed + "]");
        failure = UpdateResult::Failure(FailureReason::kAccessFailed, access ? access->GetStatusCode() : 0,
                                        access ? access->GetFailureReason() : "");
    } else {
        std::shared_ptr<ServerResponseParser> parser = access->GetResponseParser();
        if (parser && parser->IsBinary()) return nullptr;
        const std::string message = parser ? parser->GetMessage() : std::string();
        LoggerLog::Warning(kTag, failureText + message + "]");
        failure = UpdateResult::Failure(FailureReason::kResponseUnparsable, access->GetStatusCode(), message);
    }
    if (access) failure->SetRetryAfterSeconds(access->GetRetryAfterSeconds());
    return failure;
}

std::shared_ptr<UpdateResult> ScheduleUpdateManager::UpdateSchedule() {
    LoggerLog::Debug(kTag, "UpdateSchedule");
    return GuardedFlow("Schedule update failed. ", [&]() -> std::shared_ptr<UpdateResult> {
        const std::uint64_t resets = store_.Resets();
        std::shared_ptr<ServerAccessResult> access = ServerAccess_c(kUpdateScheduleKbn).get();
        if (auto failed = AccessFailure("Schedule update failed. [", access)) return failed;
        const std::int32_t status = access->GetStatusCode();
        const ScheduleModel model(access->GetResponseParser()->GetHexData(), ScheduleModel::kUpdateScheduleKind);
        if (!model.IsResult()) {
            LoggerLog::Warning(kTag, "Schedule parse failed. [" + model.GetMessage() + "]");
            return UpdateResult::Failure(FailureReason::kPayloadInvalid, status, model.GetMessage());
        }
        const std::vector<ScheduleRow> slots = model.GetSlots();
        if (slots.empty()) {
            LoggerLog::Warning(kTag, "Schedule update failed. Schedule data is nothing.");
            return UpdateResult::Failure(FailureReason::kNoSlots, status, "Schedule data is nothing.");
        }
        ScheduleStore::Lock lock(store_.FlowMutex());
        if (ResetSince(store_, resets, "Schedule update failed."))
            return UpdateResult::Failure(FailureReason::kDatabaseWriteFailed, status, "Database update error.");
        if (!UpdateWithUpdateScheduleLocked(model.GetUpdateInfo(), slots)) {
            LoggerLog::Warning(kTag, "Schedule update failed. Database update error.");
            return UpdateResult::Failure(FailureReason::kDatabaseWriteFailed, status, "Database update error.");
        }
        return UpdateResult::Success();
    });
}

std::shared_ptr<UpdateResult> ScheduleUpdateManager::UpdateFixedSchedule() {
    LoggerLog::Debug(kTag, "UpdateFixedSchedule");
    return GuardedFlow("Fixed schedule update failed. ", [&]() -> std::shared_ptr<UpdateResult> {
        ScheduleUpdateInfo info;
        std::uint64_t resets = 0;
        {
            ScheduleStore::Lock lock(store_.FlowMutex());
            info = store_.SelectUpdateInfoLocked();
            resets = store_.ResetsLocked();
        }
        if (info.plantId.empty()) {
            const std::string message = "Update information of fixed schedule does not exist.";
            LoggerLog::Warning(kTag, message);
            return UpdateResult::Failure(FailureReason::kAccessFailed, -1, message);
        }
        const std::string kbn = kFixedScheduleKbnPrefix + std::to_string(info.fixedScheduleUpdateFlag);
        std::shared_ptr<ServerAccessResult> access = ServerAccess_c(kbn).get();
        if (auto failed = AccessFailure("Fixed schedule update failed. [", access)) return failed;
        const std::int32_t status = access->GetStatusCode();
        const ScheduleModel model(access->GetResponseParser()->GetHexData(), 0);
        if (!model.IsResult()) {
            LoggerLog::Warning(kTag, "Fixed schedule parse failed. [" + model.GetMessage() + "]");
            return UpdateResult::Failure(FailureReason::kPayloadInvalid, status, model.GetMessage());
        }
        const std::vector<ScheduleRow> slots = model.GetSlots();
        if (slots.empty()) {
            LoggerLog::Warning(kTag, "Fixed schedule update failed. Schedule data is nothing.");
            return UpdateResult::Failure(FailureReason::kNoSlots, status, "Schedule data is nothing.");
        }
        ScheduleStore::Lock lock(store_.FlowMutex());
        if (ResetSince(store_, resets, "Fixed schedule update failed."))
            return UpdateResult::Failure(FailureReason::kDatabaseWriteFailed, status, "Database update error.");
        // The server's answer for another plant (a mix-up on its side) is
        // not ours to store: it would also make that plant the stored one.
        const std::string stored = store_.SelectUpdateInfoLocked().plantId;
        if (model.GetPlantId() != stored) {
            const std::string ids = "[" + stored + "] : [" + model.GetPlantId() + "]";
            LoggerLog::Error(kTag, "Fixed schedule update failed. It is data of a different power station ID. " + ids);
            return UpdateResult::Failure(FailureReason::kPlantIdMismatch, status, ids);
        }
        if (!UpdateWithFixedScheduleLocked(slots, model.GetPlantId())) {
            LoggerLog::Warning(kTag, "Fixed schedule update failed. Database update error.");
            return UpdateResult::Failure(FailureReason::kDatabaseWriteFailed, status, "Database update error.");
        }
        return UpdateResult::Success();
    });
}

bool ScheduleUpdateManager::UpdateWithUpdateSchedule(const ScheduleUpdateInfo& received,
                                                     const std::vector<ScheduleRow>& slots) {
    ScheduleStore::Lock lock(store_.FlowMutex());
    return UpdateWithUpdateScheduleLocked(received, slots);
}

bool ScheduleUpdateManager::UpdateWithUpdateScheduleLocked(const ScheduleUpdateInfo& received,
                                                           const std::vector<ScheduleRow>& slots) {
    LoggerLog::Debug(kTag, "UpdateWithUpdateSchedule");
    ScheduleUpdateInfo info = store_.SelectUpdateInfoLocked();
    const std::string configured = SystemSettingXmlManager::Shared().GetOutputControlPlantId();
    // A record of a plant no longer configured: the reset at the change of
    // plant could not be written (the card was full or read-only). It is
    // done now, with the configured plant's answer.
    if (!info.plantId.empty() && info.plantId != configured && received.plantId == configured) {
        LoggerLog::Info(kTag, "Plant ID change. [" + info.plantId + "] to [" + configured + "]");
        store_.DeleteAllLocked();
        info = ScheduleUpdateInfo();
    }
    // Without a record (it could not be written when the plant was set),
    // the answer must be the configured plant's, as the record would say.
    const std::string expected = info.plantId.empty() ? configured : info.plantId;
    if (received.plantId != expected) {
        LoggerLog::Error(kTag, "It is data of a different power station ID. Expected[" + expected + "], but [" +
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
    if (!store_.InsertUpdateScheduleLocked(slots)) return false;
    if (!slots.empty()) LoggerLog::Info(kTag, "Schedule Update. " + SlotRange(slots));
    info.lastUpdateTime = NowDisplay();
    return store_.InsertUpdateInfoLocked(info);
}

bool ScheduleUpdateManager::UpdateWithFixedSchedule(const std::vector<ScheduleRow>& slots, const std::string& plantId) {
    ScheduleStore::Lock lock(store_.FlowMutex());
    return UpdateWithFixedScheduleLocked(slots, plantId);
}

bool ScheduleUpdateManager::UpdateWithFixedScheduleLocked(const std::vector<ScheduleRow>& slots,
                                                          const std::string& plantId) {
    LoggerLog::Debug(kTag, "UpdateWithFixedSchedule");
    if (!store_.InsertFixedScheduleLocked(slots)) return false;
    if (!slots.empty()) LoggerLog::Info(kTag, "Fixed Schedule Update. " + SlotRange(slots));
    ScheduleUpdateInfo info = store_.SelectUpdateInfoLocked();
    if (info.plantId.empty()) {
        info.nextUpdateTime = "";
        info.fixedScheduleUpdateFlag = 0;
    }
    info.plantId = plantId;
    info.lastUpdateTime = NowDisplay();
    info.isNeedUpdateFixedSchedule = false;
    return store_.InsertUpdateInfoLocked(info);
}

std::shared_ptr<UpdateResult> ScheduleUpdateManager::UpdateOutputControlSchedule() {
    LoggerLog::Debug(kTag, "UpdateOutputControlSchedule");
    std::shared_ptr<UpdateResult> result = UpdateSchedule();
    RecordUpdateResult(*result);
    if (!result->IsResult()) return result;
    SetupUpdateScheduleAlarm(false, false);
    return UpdateFixedSchedule();
}

void ScheduleUpdateManager::DeleteAllUpdateControlInfoFromDB() {
    ScheduleStore::Lock lock(store_.FlowMutex());
    DeleteAllLocked();
}

void ScheduleUpdateManager::DeleteAllLocked() {
    LoggerLog::Debug(kTag, "DeleteAllUpdateControlInfoFromDB");
    // A table made anew before this wipe lost nothing that the wipe does
    // not take as well. Left pending, it would have the next tick wipe the
    // schedules fetched after this one (the settings check's own read of
    // the update information is what finds that file damaged).
    DatabaseManager::TakeRenewed();
    store_.DeleteAllLocked();
    {
        // The failures belonged to what was wiped.
        ScopedLock lock(historyMutex_);
        history_ = RetryPolicy::History();
    }
    Stop();
}

std::shared_ptr<UpdateResult> ScheduleUpdateManager::CheckAndUpdateWithSystemSetting(bool& started,
                                                                                     bool startIfUnchanged) {
    LoggerLog::Debug(kTag, "CheckAndUpdateWithSystemSetting");
    return GuardedFlow("Check System Setting failed. ", [&]() -> std::shared_ptr<UpdateResult> {
        ForgetRenewedTables();
        if (!BringInfoInStep(startIfUnchanged)) return UpdateResult::Success();
        std::shared_ptr<UpdateResult> result = UpdateOutputControlSchedule();
        if (result->IsResult()) started = true;
        Start();
        return result;
    });
}

// A table made anew lost its rows, and what the other table says about
// them no longer holds: both start again from nothing, and the settings
// check that follows treats the plant as new (its first fetch, the fixed
// schedule after it).
bool ScheduleUpdateManager::ForgetRenewedTables() {
    if (!DatabaseManager::TakeRenewed()) return false;
    DeleteAllUpdateControlInfoFromDB();
    return true;
}

// The locked part of the settings check: true when a new plant needs its
// first fetch (done by the caller, outside the lock).
bool ScheduleUpdateManager::BringInfoInStep(bool startIfUnchanged) {
    ScheduleStore::Lock lock(store_.FlowMutex());
    SystemSettingXmlManager& settings = SystemSettingXmlManager::Shared();
    settings.Load();
    if (!settings.HasGeneral()) return false;
    const bool standAlone = settings.GetOutputControlStandAlone();
    if (standAlone) Stop();
    const std::string configured = settings.GetOutputControlPlantId();
    const std::string stored = store_.SelectUpdateInfoLocked().plantId;
    if (stored.empty() || stored != configured) {
        DeleteAllLocked();
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
        store_.InsertUpdateInfoLocked(fresh);
        if (standAlone) {
            LoggerLog::Warning(kTag, "Plant ID changed but, Standalone setting...");
            return false;
        }
        return true;
    }
    // The daemon's start starts the alarms. A settings change starts them
    // when they stand stopped (stand-alone operation has just ended) and
    // leaves running ones as they are.
    if (!standAlone && (startIfUnchanged || updateAlarm_.Due() < 0)) Start();
    return false;
}

std::shared_ptr<UpdateResult> ScheduleUpdateManager::UpdateWithFixedData(const std::shared_ptr<ScheduleModel>& model,
                                                                         bool force) {
    ScheduleStore::Lock lock(store_.FlowMutex());
    LoggerLog::Debug(kTag, "UpdateWithFixedData");
    return GuardedFlow("Fixed schedule send failed. ", [&]() -> std::shared_ptr<UpdateResult> {
        // GuardedFlow runs this at once, under the flow lock taken above.
        store_.FlowMutex().AssertHeld();
        if (!model || !model->IsResult()) {
            const std::string message = model ? model->GetMessage() : std::string();
            LoggerLog::Limited(LoggerLog::kWarning, kTag, "Fixed schedule file parse failed",
                               "Fixed schedule parse failed. " + message);
            return UpdateResult::Failure(FailureReason::kPayloadInvalid, 0, message);
        }
        const std::vector<ScheduleRow> slots = model->GetSlots();
        if (slots.empty()) {
            LoggerLog::Limited(LoggerLog::kWarning, kTag, "Fixed schedule file without data",
                               "Fixed schedule update failed. Schedule data is nothing.");
            return UpdateResult::Failure(FailureReason::kNoSlots, 0, "Schedule data is nothing.");
        }
        const std::string stored = store_.SelectUpdateInfoLocked().plantId;
        const std::string received = model->GetPlantId();
        const bool differs = !stored.empty() && stored != received;
        if (differs && !force) {
            const std::string ids = "[" + stored + "] : [" + received + "]";
            LoggerLog::Limited(LoggerLog::kWarning, kTag, "Fixed schedule file of another plant",
                               "Fixed schedule update failed. id not match. " + ids);
            return UpdateResult::Failure(FailureReason::kPlantIdMismatch, 0, ids);
        }
        if (differs) DeleteAllLocked();
        if (!UpdateWithFixedScheduleLocked(slots, received)) {
            LoggerLog::Warning(kTag, "Fixed schedule update failed. Database update error.");
            return UpdateResult::Failure(FailureReason::kDatabaseWriteFailed, 0, "Database update error.");
        }
        SystemSettingXmlManager& settings = SystemSettingXmlManager::Shared();
        if (!settings.HasGeneral()) settings.Load();
        const bool settingChanged = !settings.GetOutputControlStandAlone() || (force && differs);
        settings.SetOutputControlStandAlone(true);
        settings.SetOutputControlPlantId(received);
        Stop();
        return UpdateResult::FixedDataApplied(settingChanged, received);
    });
}

std::shared_ptr<UpdateResult> ScheduleUpdateManager::CheckPlantId(const std::string& plantId, const std::string& url) {
    LoggerLog::Debug(kTag, "CheckPlantId");
    return GuardedFlow("Check plant id failed. ", [&]() -> std::shared_ptr<UpdateResult> {
        std::shared_ptr<ServerAccessResult> access = ServerAccess_i(kCheckPlantIdKbn, plantId, url).get();
        if (auto failed = AccessFailure("Check plant id failed. [", access)) return failed;
        if (access->GetResponseParser()->OCCheckIDModel()) return UpdateResult::Success();
        return UpdateResult::Failure(FailureReason::kPlantIdNotRegistered, access->GetStatusCode(),
                                     "Plant ID is not registered");
    });
}

int ScheduleUpdateManager::SendScheduleData() {
    LoggerLog::Debug(kTag, "SendScheduleData");
    return gateway_->SendScheduleData();
}

bool ScheduleUpdateManager::IsRetryable(const UpdateResult& result) {
    return RetryPolicy::IsRetryable(result);
}

std::int64_t ScheduleUpdateManager::MonitoringIntervalMs() const {
    int seconds = LoggerSettingManager::Current().GetOutputScheduleMonitoringInterval();
    if (seconds <= 0) seconds = LoggerSettingManager::kDefaultMonitoringInterval;
    return static_cast<std::int64_t>(seconds) * 1000;
}

std::shared_ptr<TimeStamp> ScheduleUpdateManager::GetScheduleUpdateTime() {
    const std::int64_t due = updateAlarm_.Due();
    return due < 0 ? nullptr : std::make_shared<TimeStamp>(Poco::Timestamp(due));
}

std::shared_ptr<TimeStamp> ScheduleUpdateManager::GetFixedScheduleUpdateTime() {
    const std::int64_t due = fixedAlarm_.Due();
    return due < 0 ? nullptr : std::make_shared<TimeStamp>(Poco::Timestamp(due));
}

RetryPolicy::History ScheduleUpdateManager::GetUpdateHistory() {
    ScopedLock lock(historyMutex_);
    return history_;
}

bool ScheduleUpdateManager::FixedAttemptsPending() const {
    return fixedAlarm_.HasDeferred();
}

void ScheduleUpdateManager::RecordUpdateResult(const UpdateResult& result) {
    ScopedLock lock(historyMutex_);
    history_ = RetryPolicy::Record(history_, result);
}

// A tick, a deferred step or a clock step counts as a use of the manager;
// none begins once it shuts down.
bool ScheduleUpdateManager::EnterTick() {
    EnterUse();
    if (!IsShuttingDown()) return true;
    LeaveUse();
    return false;
}

void ScheduleUpdateManager::LeaveTick() {
    LeaveUse();
}

namespace {

// Leaves a tick that EnterTick let in, however the tick ends.
class TickScope {
public:
    explicit TickScope(const std::function<void()>& leave) : leave_(leave) {}
    ~TickScope() { leave_(); }

private:
    TickScope(const TickScope&) = delete;
    TickScope& operator=(const TickScope&) = delete;
    std::function<void()> leave_;
};

} // namespace

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

// The two conditions under which no alarm runs; fills `info` otherwise.
// A plant whose record could not be written (the card was full or
// read-only when the plant was set) is planned as a fresh record of the
// configured plant would be: its attempts write the record once the card
// takes it, instead of leaving the plant without any.
bool ScheduleUpdateManager::AlarmPreconditions(ScheduleUpdateInfo& info) {
    SystemSettingXmlManager& settings = SystemSettingXmlManager::Shared();
    const std::string configured = settings.GetOutputControlPlantId();
    if (configured.empty()) {
        std::cout << "not PlantId" << std::endl;
        return false;
    }
    if (settings.GetOutputControlStandAlone()) {
        std::cout << "id StandAlone" << std::endl;
        return false;
    }
    info = store_.PeekUpdateInfo();
    if (info.plantId.empty()) {
        std::cout << "not db" << std::endl;
        info = ScheduleUpdateInfo();
        info.plantId = configured;
        info.fixedScheduleUpdateFlag = -1;
    }
    return true;
}

// The next update attempt (wall microseconds) for the stored `info` and the
// failures since the last success. With none, the stored next update time
// stepped on by 30 minutes while it is not later than now, keeping its
// sub-second part (none from the table, now's when it does not read).
std::int64_t ScheduleUpdateManager::NextUpdateAttempt(const ScheduleUpdateInfo& info) {
    const std::int64_t now = NowMicroseconds();
    const std::int64_t nowSeconds = TimeStamp(Poco::Timestamp(now)).EpochSeconds();
    const std::shared_ptr<TimeStamp> stored = TimeStamp::ParseDisplay(info.nextUpdateTime);
    const RetryPolicy::History history = GetUpdateHistory();
    if (history.failures == 0) {
        const std::int64_t base = stored ? stored->Value().epochMicroseconds() : now;
        const std::int64_t baseSeconds = TimeStamp(Poco::Timestamp(base)).EpochSeconds();
        return base + (RetryPolicy::SteppedServerTime(baseSeconds, nowSeconds) - baseSeconds) * kMicros;
    }
    const std::int64_t next =
        RetryPolicy::NextUpdateAttempt(history, info.plantId, nowSeconds, stored ? stored->EpochSeconds() : -1);
    return now + (next - nowSeconds) * kMicros;
}

void ScheduleUpdateManager::SetupUpdateScheduleAlarm(bool keepTimer, bool retry) {
    LoggerLog::Debug(kTag, "SetupUpdateScheduleAlarm");
    if (!keepTimer) StopUpdateScheduleAlarm();
    PlanUpdateAlarm(keepTimer, retry, nullptr);
}

// Sets the update alarm's due time from the stored update information (for
// `run` only while it is current, when one is given) and, unless
// `keepTimer`, starts its ticks.
void ScheduleUpdateManager::PlanUpdateAlarm(bool keepTimer, bool retry, const Alarm::Run& run) {
    ScheduleUpdateInfo info;
    if (!AlarmPreconditions(info)) return;
    const std::int64_t next = NextUpdateAttempt(info);
    if (run) {
        if (!updateAlarm_.SetDueFor(run, next)) return;
    } else {
        updateAlarm_.SetDue(next);
    }
    LoggerLog::Debug(kTag, std::string(retry ? "retry. " : "") + "schedule_update_time_ [" + Display(next) + "]");
    if (keepTimer) return;
    if (updateAlarm_.EverStarted()) std::cout << "schedule_timer_ delete" << std::endl;
    std::cout << "fixed_schedule_timer_ start" << std::endl;
    updateAlarm_.Start(MonitoringIntervalMs(), [this](const Alarm::Run& tick) { CallbackUpdateSchedule(tick); });
}

void ScheduleUpdateManager::StopUpdateScheduleAlarm() {
    LoggerLog::Debug(kTag, "StopUpdateScheduleAlarm");
    std::cout << "fixed_schedule_timer_ restart(0)" << std::endl;
    updateAlarm_.Stop();
}

void ScheduleUpdateManager::SetupFixedScheduleAlarm() {
    LoggerLog::Debug(kTag, "SetupFixedScheduleAlarm");
    StopFixedScheduleAlarm();
    PlanFixedAlarm(nullptr, false);
}

// Sets the fixed alarm's due time and starts its ticks: at the plant's time
// (today unless it passed more than 20 minutes ago), or after failed
// attempts (`nextDay`) at its next time still to come. With a `run`, only
// while that run is current.
void ScheduleUpdateManager::PlanFixedAlarm(const Alarm::Run& run, bool nextDay) {
    ScheduleUpdateInfo info;
    if (!AlarmPreconditions(info)) return;
    if (!info.isNeedUpdateFixedSchedule) {
        std::cout << "is need update false" << std::endl;
        return;
    }
    const std::int64_t next = NextFixedTime(info.plantId, nextDay);
    if (next < 0) return;
    LoggerLog::Debug(kTag, "fixed_schedule_update_time_ [" + Display(next) + "]");
    if (fixedAlarm_.EverStarted()) std::cout << "fixed_schedule_timer_ delete" << std::endl;
    std::cout << "fixed_schedule_timer_ start" << std::endl;
    const Alarm::Step tick = [this](const Alarm::Run& ticking) { CallbackFixedSchedule(ticking); };
    if (run) {
        fixedAlarm_.StartFor(run, MonitoringIntervalMs(), tick, next);
    } else {
        fixedAlarm_.SetDue(next);
        fixedAlarm_.Start(MonitoringIntervalMs(), tick);
    }
}

// The fixed schedule's next fetch time (wall microseconds); -1 when it
// cannot be told. `nextDay`: the first of the plant's times after now.
std::int64_t ScheduleUpdateManager::NextFixedTime(const std::string& plantId, bool nextDay) {
    const std::shared_ptr<TimeStamp> time = FixedScheduleUpdateTime(plantId);
    if (!time) return -1;
    std::int64_t next = time->Value().epochMicroseconds();
    const std::int64_t now = NowMicroseconds();
    while (nextDay && next <= now) next += kDaySeconds * kMicros;
    return next;
}

void ScheduleUpdateManager::StopFixedScheduleAlarm() {
    LoggerLog::Debug(kTag, "StopFixedScheduleAlarm");
    std::cout << "fixed_schedule_timer_ restart(0)" << std::endl;
    fixedAlarm_.Stop();
}

std::shared_ptr<TimeStamp> ScheduleUpdateManager::FixedScheduleUpdateTime(const std::string& plantId) {
    LoggerLog::Debug(kTag, "FixedScheduleUpdateTime");
    try {
        const TimeStamp now{Poco::Timestamp(NowMicroseconds())};
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
        if (seconds < now.EpochSeconds() - kFixedLateSeconds) seconds += kDaySeconds;
        return TimeStamp::FromEpochSeconds(seconds);
    } catch (const Poco::Exception& e) {
        LoggerLog::Debug(kTag, "fixedScheduleUpdateTime. EXCEPTION[" + e.displayText() + "]");
        return nullptr;
    }
}

void ScheduleUpdateManager::CallbackUpdateSchedule(const Alarm::Run& run) {
    if (!EnterTick()) return;
    const TickScope scope([this] { LeaveTick(); });
    LoggerLog::Debug(kTag, "CallbackUpdateSchedule");
    if (ForgetRenewedTables()) {
        // Fetched again at once, as for a new plant; the alarms are
        // planned anew by that check.
        bool started = false;
        CheckAndUpdateWithSystemSetting(started, true);
        if (started) ForwardStoredRows();
        return;
    }
    const std::int64_t due = updateAlarm_.Due();
    if (due < 0) {
        LoggerLog::Debug(kTag, "Cancel 1");
        return;
    }
    const std::int64_t now = NowMicroseconds();
    if (due > now + MonitoringIntervalMs() * 1000) {
        LoggerLog::Debug(kTag, "Waiting for next update time");
        return;
    }
    LoggerLog::Debug(kTag, "sleep");
    const std::int64_t diff = (due - now) / 1000;
    char text[32];
    std::snprintf(text, sizeof text, "%lld", static_cast<long long>(diff));
    LoggerLog::Debug(kTag, std::string("diffe_time") + text);
    // The fetch happens at the exact update time: the rest of the wait is
    // the alarm's deferred step, which a stop cancels.
    const Alarm::Step fetch = [this](const Alarm::Run& deferred) { FetchUpdateSchedule(deferred); };
    if (diff > 0) {
        // Rounded up, so that the fetch is never a little early: a stored
        // time still ahead of the failed fetch would be taken for the
        // server's next time.
        const std::int64_t waitMs = (due - now + 999) / 1000;
        if (!updateAlarm_.DeferFor(run, due, waitMs, fetch)) LoggerLog::Debug(kTag, "Cancel 2");
        return;
    }
    FetchUpdateSchedule(run);
}

// The update alarm's fetch, and the plan of the next one: never none while
// a plant is set and the daemon is not stand-alone.
void ScheduleUpdateManager::FetchUpdateSchedule(const Alarm::Run& run) {
    if (!EnterTick()) return;
    const TickScope scope([this] { LeaveTick(); });
    if (run->IsSet() || updateAlarm_.Due() < 0) {
        LoggerLog::Debug(kTag, "Cancel 2");
        return;
    }
    std::shared_ptr<UpdateResult> result = UpdateSchedule();
    // Stopped while the flow ran (a plant change, stand-alone operation,
    // the daemon stopping): the alarm stays as the stop left it.
    if (run->IsSet()) return;
    RecordUpdateResult(*result);
    if (!result->IsResult() && !IsRetryable(*result)) {
        const std::int64_t next = NextUpdateAttempt(store_.PeekUpdateInfo());
        LoggerLog::Error(kTag, "Update schedule failed. Stop retry. " + result->ToString() + " Next attempt [" +
                                   Display(next) + "]");
    }
    LoggerLog::Debug(kTag, "SetupUpdateScheduleAlarm");
    PlanUpdateAlarm(true, !result->IsResult(), run);
    if (result->IsResult()) {
        SetupFixedScheduleAlarm();
        ForwardStoredRows();
    }
}

void ScheduleUpdateManager::CallbackFixedSchedule(const Alarm::Run& run) {
    if (!EnterTick()) return;
    const TickScope scope([this] { LeaveTick(); });
    LoggerLog::Debug(kTag, "CallbackFixedSchedule");
    const std::int64_t due = fixedAlarm_.Due();
    if (due < 0) {
        LoggerLog::Debug(kTag, "Cancel 1");
        return;
    }
    if (due > NowMicroseconds()) {
        LoggerLog::Debug(kTag, "Waiting for next update time");
        return;
    }
    // The attempts below belong to a quiet run of their own: stopping the
    // alarm again (a new set-up, a plant change, the daemon stopping) ends
    // them. Taken in one step with the end of this run, so no set-up can
    // slip in between.
    LoggerLog::Debug(kTag, "StopFixedScheduleAlarm");
    std::cout << "fixed_schedule_timer_ restart(0)" << std::endl;
    const Alarm::Run attempts = fixedAlarm_.QuietFor(run);
    if (attempts) FixedAttempt(attempts, 1);
}

// One attempt of the fixed schedule; the next one is deferred five minutes,
// and after the last (or one not worth retrying) the next day is planned.
void ScheduleUpdateManager::FixedAttempt(const Alarm::Run& run, int attempt) {
    if (run->IsSet()) return;
    std::shared_ptr<UpdateResult> result = UpdateFixedSchedule();
    if (result->IsResult()) {
        ForwardStoredRows();
        return;
    }
    const bool retryable = IsRetryable(*result);
    if (!retryable || attempt == kFixedAttempts) {
        const ScheduleUpdateInfo info = store_.PeekUpdateInfo();
        const std::int64_t next = NextFixedTime(info.plantId, true);
        const std::string when = " Next attempt [" + (next < 0 ? std::string() : Display(next)) + "]";
        if (!retryable) {
            LoggerLog::Error(kTag, "Update fixed schedule failed. Stop retry. " + result->ToString() + when);
        } else {
            LoggerLog::Error(kTag, "Fixed schedule update failed " + std::to_string(kFixedAttempts) + " times." + when);
        }
        PlanFixedAlarm(run, true);
        return;
    }
    const std::int64_t wallDue = NowMicroseconds() + kFixedRetryMs * 1000;
    fixedAlarm_.DeferFor(run, wallDue, kFixedRetryMs, [this, attempt](const Alarm::Run& deferred) {
        if (!EnterTick()) return;
        const TickScope scope([this] { LeaveTick(); });
        if (deferred->IsSet()) return;
        LoggerLog::Error(kTag, "Fixed schedule update retry. [" + std::to_string(attempt) + "]");
        FixedAttempt(deferred, attempt + 1);
    });
}

void ScheduleUpdateManager::OnClockStep(std::int64_t stepMicros) {
    if (!EnterTick()) return;
    const TickScope scope([this] { LeaveTick(); });
    LoggerLog::Info(kTag, "The clock was set by [" + std::to_string(stepMicros / kMicros) +
                              " s]; the alarms are planned again.");
    // A time that the step moved into the past is due now; one that it
    // moved far ahead gives way to the time planned from the stored
    // information and the failure history, counted from the new now.
    ScheduleUpdateInfo info;
    if (!AlarmPreconditions(info)) return;
    const std::int64_t due = updateAlarm_.Due();
    if (due >= 0) {
        const std::int64_t next = std::min(due, NextUpdateAttempt(info));
        updateAlarm_.SetDue(next);
        LoggerLog::Debug(kTag, "schedule_update_time_ [" + Display(next) + "]");
    }
    const std::int64_t fixedDue = fixedAlarm_.Due();
    if (fixedDue >= 0 && info.isNeedUpdateFixedSchedule) {
        const std::int64_t planned = NextFixedTime(info.plantId, false);
        if (planned >= 0 && planned < fixedDue) {
            fixedAlarm_.SetDue(planned);
            LoggerLog::Debug(kTag, "fixed_schedule_update_time_ [" + Display(planned) + "]");
        }
    }
}

} // namespace brvo
