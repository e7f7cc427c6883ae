// Brings output-control schedules into the schedule table: from the schedule
// server (the update schedule at the stored next update time, the fixed
// schedule at the plant's afternoon time, each with its retries) or from a
// local client, keeps the update information in step with the configured
// plant id, checks plant ids with the server and tells the logger daemon
// about new data. Every public flow returns an UpdateResult and never throws.
//
// The parts it is made of, each with its own contract and lock rules:
//   ManagerRegistry  the process-wide instance and the Pins on it
//   ExchangeGateway  the exchanges in flight with the server and the
//                    logger daemon, and their abort
//   ScheduleStore    the tables as the flows use them, under the flow lock
//   Alarm (twice)    the update and the fixed schedule alarms
//   RetryPolicy      when the update schedule is asked for next
// The flows themselves, and the alarms' callbacks, are this class.
//
// Never stuck. While a plant id is set and the daemon is not stand-alone,
// the update alarm always has a next attempt planned, at most 24 hours
// away: a failure that is not worth retrying soon backs off (6 h, 12 h,
// 24 h) instead of stopping the alarm; retryable failures back off from 30
// minutes, spread per plant; the fixed schedule, after its fifth failed
// attempt (or one not worth retrying), tries again the next day at its
// time. A step of the wall clock plans both alarms again at once from the
// stored times.
//
// Time. Due times are on the wall clock of the Clock the manager is given;
// waits are on its monotonic clock, on the timer lanes it is given. The
// daemon gives the system clocks and a thread per lane; tests and the
// simulation give simulated ones, so no test waits for time to pass.
//
// Concurrency. Flows run at once from the socket workers and the alarms'
// lanes. Their network waits happen outside every lock; the flow lock (the
// store's) covers only reading and writing the tables, so each flow's check
// of the stored state and its write are one step. A fetch that finds the
// tables reset meanwhile (a plant change, a forced fixed schedule) is not
// stored.
//
// Locks, always taken in this order, never the other way:
//   the store's flow lock   the tables as the flows use them
//   each Alarm's lock       its run, due time and deferred step (leaf)
//   historyMutex_           the update schedule's failure history (leaf)
//   the gateway's lock      the exchanges in flight (leaf)
//   the registry's locks    the instance and its users (leaf)
// No lock is held while a flow waits on the network, and no caller waits
// for an alarm's callback: a stopped alarm's callback sees its run's
// cancel event and ends by itself.
//
// Stopping. Shutdown sets the manager's stop event, stops both alarms and
// aborts every exchange in flight (its socket is shut down), so every flow
// ends promptly and nothing waits on the network after it.
#ifndef BRVO_SCHEDULE_SCHEDULEUPDATEMANAGER_H
#define BRVO_SCHEDULE_SCHEDULEUPDATEMANAGER_H

#include "database/ScheduleRow.h"
#include "database/ScheduleUpdateInfo.h"
#include "schedule/Alarm.h"
#include "schedule/RetryPolicy.h"
#include "schedule/ScheduleStore.h"
#include "schedule/UpdateResult.h"
#include "util/Mutex.h"
#include "util/ThreadAnnotations.h"
#include "util/UseCount.h"

#include <cstdint>
#include <future>
#include <memory>
#include <string>
#include <vector>

namespace brvo {

class CancelEvent;
class Clock;
class ExchangeGateway;
class ScheduleModel;
class ServerAccessResult;
class TimeStamp;
class TimerService;

class ScheduleUpdateManager {
public:
    // Schedule kinds asked of the server.
    static const std::string kUpdateScheduleKbn;
    static const std::string kFixedScheduleKbnPrefix;
    static const std::string kCheckPlantIdKbn;
    // Attempts of the fixed schedule in one run, and the wait between them.
    static constexpr int kFixedAttempts = 5;
    static constexpr std::int64_t kFixedRetryMs = 300000;

    // What the manager runs on. Null members are the daemon's own: the
    // system clocks, a timer thread per alarm, the request pool.
    struct Environment {
        Clock* clock = nullptr;
        TimerService* updateTimers = nullptr;
        TimerService* fixedTimers = nullptr;
        ExchangeGateway* gateway = nullptr;
    };

    // Keeps the process-wide instance alive while a caller on another
    // thread uses it; DeleteInstance waits (briefly) for every pin to go.
    class Pin {
    public:
        Pin();
        ~Pin();
        // The pinned instance; null when there is none or it is being
        // deleted.
        ScheduleUpdateManager* get() const { return manager_; }
        ScheduleUpdateManager* operator->() const { return manager_; }
        explicit operator bool() const { return manager_ != nullptr; }

    private:
        Pin(const Pin&) = delete;
        Pin& operator=(const Pin&) = delete;
        ScheduleUpdateManager* manager_;
    };

    // Longest wait of DeleteInstance for the flows to end after Shutdown.
    static constexpr long kDeleteWaitMs = 250;

    // Creates the process-wide instance if absent (and the schedule table
    // with it), on the daemon's clocks and lanes or on `environment`'s.
    static void CreateInstance();
    static void CreateInstance(const Environment& environment);
    // The instance, or null. Only for a thread that nothing can delete it
    // under (the main thread, tests); other threads take a Pin.
    static ScheduleUpdateManager* GetInstance();
    // Shuts the instance down and deletes it once its flows have ended. A
    // flow that does not end within kDeleteWaitMs (a name lookup cannot be
    // aborted) keeps the object: it is left to the process exit instead of
    // being freed under it.
    static void DeleteInstance();
    // Whether DeleteInstance left a manager to the exit: its flow still
    // runs, so the process must not run its static destructors under it.
    static bool HasParked();

    // On the daemon's own clocks, lanes and request pool.
    ScheduleUpdateManager();
    // On `environment` (null members: the daemon's own).
    explicit ScheduleUpdateManager(const Environment& environment);
    // Shuts down, then frees the alarms, the lanes and the gateway it owns.
    virtual ~ScheduleUpdateManager();

    // Sets the stop event, stops both alarms and aborts every exchange in
    // flight; exchanges started later fail at once. Flows running now end
    // promptly with their failure results. Idempotent.
    void Shutdown();
    // Whether Shutdown ran.
    bool IsShuttingDown() const;

    // Starts one schedule server exchange and returns the future of its
    // result: with plant id and server address from the system settings,
    // or as given.
    std::future<std::shared_ptr<ServerAccessResult>> ServerAccess_c(const std::string& scheduleKbn);
    std::future<std::shared_ptr<ServerAccessResult>> ServerAccess_i(const std::string& scheduleKbn,
                                                                    const std::string& plantId, const std::string& url);

    // Fetches and stores the update schedule.
    std::shared_ptr<UpdateResult> UpdateSchedule();
    // Fetches and stores the fixed schedule named by the update information.
    std::shared_ptr<UpdateResult> UpdateFixedSchedule();
    // The update schedule, then (on success) its alarm and the fixed schedule.
    std::shared_ptr<UpdateResult> UpdateOutputControlSchedule();
    // Brings the update information in step with the system settings; sets
    // `started` when a fetch ran and succeeded.
    std::shared_ptr<UpdateResult> CheckAndUpdateWithSystemSetting(bool& started, bool startIfUnchanged);
    // Stores a fixed schedule handed in by a local client and switches the
    // daemon to stand-alone operation.
    std::shared_ptr<UpdateResult> UpdateWithFixedData(const std::shared_ptr<ScheduleModel>& model, bool force);
    // Asks the server whether `plantId` is registered at `url`.
    std::shared_ptr<UpdateResult> CheckPlantId(const std::string& plantId, const std::string& url);

    // Store a payload; false when nothing (or not everything) was stored.
    // They take the flow lock.
    bool UpdateWithUpdateSchedule(const ScheduleUpdateInfo& received, const std::vector<ScheduleRow>& slots)
        EXCLUDES(store_.FlowMutex());
    bool UpdateWithFixedSchedule(const std::vector<ScheduleRow>& slots, const std::string& plantId)
        EXCLUDES(store_.FlowMutex());
    // Empties both tables and stops the alarms. Takes the flow lock.
    void DeleteAllUpdateControlInfoFromDB() EXCLUDES(store_.FlowMutex());
    // Tells the logger daemon that schedule data is stored; its result word
    // (0 on success), 1 when the exchange failed.
    int SendScheduleData();

    // Alarms.
    void Start();
    void Stop();
    void SetupUpdateScheduleAlarm(bool keepTimer, bool retry);
    void StopUpdateScheduleAlarm();
    void SetupFixedScheduleAlarm();
    void StopFixedScheduleAlarm();
    // When the fixed schedule of `plantId` is fetched: an afternoon time
    // (UTC) chosen by the id's last digit, today unless it passed more than
    // 20 minutes ago; now + 30 minutes for an id not ending in a digit.
    std::shared_ptr<TimeStamp> FixedScheduleUpdateTime(const std::string& plantId);
    // The alarms' ticks, for the run they belong to.
    void CallbackUpdateSchedule(const Alarm::Run& run);
    void CallbackFixedSchedule(const Alarm::Run& run);
    // Plans both alarms again after the wall clock was stepped by
    // `stepMicros`.
    void OnClockStep(std::int64_t stepMicros);

    // Whether a failed flow result is worth trying again soon.
    static bool IsRetryable(const UpdateResult& result);

    // The stored update information (for tools and tests).
    ScheduleUpdateInfo GetUpdateInfo();
    // Next fetch times; null when the alarm is stopped.
    std::shared_ptr<TimeStamp> GetScheduleUpdateTime();
    std::shared_ptr<TimeStamp> GetFixedScheduleUpdateTime();
    // The update schedule's failures since its last success.
    RetryPolicy::History GetUpdateHistory() EXCLUDES(historyMutex_);
    // Whether the fixed schedule's attempts are under way (waiting between
    // two of them).
    bool FixedAttemptsPending() const;

    // One more user (a pin, a tick), and one fewer.
    void EnterUse() { users_.Enter(); }
    void LeaveUse() { users_.Leave(); }
    // Waits up to `ms` for every user to go; true when none is left.
    bool WaitUnused(long ms) { return users_.WaitUnused(ms); }

private:
    ScheduleUpdateManager(const ScheduleUpdateManager&) = delete;
    ScheduleUpdateManager& operator=(const ScheduleUpdateManager&) = delete;

    std::int64_t NowMicroseconds() const;
    std::string NowDisplay() const;
    bool BringInfoInStep(bool startIfUnchanged) EXCLUDES(store_.FlowMutex());
    // When a table was found damaged and made anew since the last look,
    // empties both tables (the plant is new again) and returns true.
    bool ForgetRenewedTables();
    void DeleteAllLocked() REQUIRES(store_.FlowMutex()) EXCLUDES(historyMutex_);
    bool UpdateWithUpdateScheduleLocked(const ScheduleUpdateInfo& received, const std::vector<ScheduleRow>& slots)
        REQUIRES(store_.FlowMutex());
    bool UpdateWithFixedScheduleLocked(const std::vector<ScheduleRow>& slots, const std::string& plantId)
        REQUIRES(store_.FlowMutex());
    std::shared_ptr<UpdateResult> AccessFailure(const std::string& failureText,
                                                const std::shared_ptr<ServerAccessResult>& access);
    bool AlarmPreconditions(ScheduleUpdateInfo& info);
    std::int64_t MonitoringIntervalMs() const;
    void PlanUpdateAlarm(bool keepTimer, bool retry, const Alarm::Run& run);
    std::int64_t NextUpdateAttempt(const ScheduleUpdateInfo& info);
    void FetchUpdateSchedule(const Alarm::Run& run);
    void RecordUpdateResult(const UpdateResult& result) EXCLUDES(historyMutex_);
    void PlanFixedAlarm(const Alarm::Run& run, bool nextDay);
    std::int64_t NextFixedTime(const std::string& plantId, bool nextDay);
    void FixedAttempt(const Alarm::Run& run, int attempt);
    void ForwardScheduleData();
    bool EnterTick();
    void LeaveTick();

    Clock* clock_;
    std::unique_ptr<TimerService> ownUpdateTimers_;
    std::unique_ptr<TimerService> ownFixedTimers_;
    // The update alarm's lane, whose clock steps plan the alarms again.
    TimerService* stepLane_;
    std::unique_ptr<ExchangeGateway> ownGateway_;
    ExchangeGateway* gateway_;
    ScheduleStore store_;
    Alarm updateAlarm_;
    Alarm fixedAlarm_;

    // A leaf lock, taken after the flow lock.
    Mutex historyMutex_ ACQUIRED_AFTER(store_.FlowMutex());
    RetryPolicy::History history_ GUARDED_BY(historyMutex_);

    // Set by Shutdown.
    std::unique_ptr<CancelEvent> stopEvent_;

    // Pins and alarm ticks running now.
    UseCount users_;
};

} // namespace brvo

#endif
