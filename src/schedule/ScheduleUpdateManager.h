// Brings output-control schedules into the schedule table: from the schedule
// server (the update schedule at the stored next update time, the fixed
// schedule at the plant's afternoon time, each with its retries) or from a
// local client, keeps the update information in step with the configured
// plant id, checks plant ids with the server and tells the logger daemon
// about new data. Every public flow returns an UpdateResult and never throws.
//
// Concurrency. Flows run at once from the socket workers and the timers.
// Their network waits (the schedule server, the logger daemon) happen
// outside every lock; the flow lock covers only reading and writing the
// update information and the tables, so each flow's check of the stored
// state and its write are one step. A fetch that finds the tables reset
// meanwhile (a plant change, a forced fixed schedule) is not stored.
//
// Locks, always taken in this order, never the other way:
//   flowMutex_ (recursive)  the update information and schedule tables as
//                           the flows read and write them; `resets_`
//   timerMutex_             the timers, retired timers, ticking timers,
//                           next fetch times and alarm cancel events
//   exchangeMutex_          the exchanges in flight
//   usersMutex_ (leaf)      `users_`
// No lock is held while waiting on the network or on a timer thread: timers
// are retired (their ticks end) rather than stopped and joined, so a flow
// never waits on a callback that waits on it.
//
// Stopping. Each alarm has a cancel event that its Stop sets; a callback
// sleeping towards its fetch time, or between fixed-schedule attempts,
// wakes at once. Shutdown sets the manager's stop event, cancels both
// alarms and aborts every exchange in flight (its socket is shut down), so
// every flow ends promptly and nothing waits on the network after it.
#ifndef BRVO_SCHEDULE_SCHEDULEUPDATEMANAGER_H
#define BRVO_SCHEDULE_SCHEDULEUPDATEMANAGER_H

#include "database/ScheduleRow.h"
#include "database/ScheduleUpdateInfo.h"
#include "schedule/UpdateResult.h"

#include <Poco/Condition.h>
#include <Poco/Mutex.h>
#include <Poco/Timer.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <vector>

namespace brvo {

class CancelEvent;
class Channel;
class Request;
class ScheduleModel;
class ScheduleServerAccessRequest;
class ScheduleUpdateInfoDatabase;
class ServerAccessResult;
class TimeStamp;

class ScheduleUpdateManager {
public:
    // Schedule kinds asked of the server.
    static const std::string kUpdateScheduleKbn;
    static const std::string kFixedScheduleKbnPrefix;
    static const std::string kCheckPlantIdKbn;

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
    // with it).
    static void CreateInstance();
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

    ScheduleUpdateManager();
    // Shuts down, then frees the timers and the request pool.
    virtual ~ScheduleUpdateManager();

    // Sets the stop event, stops both alarms and aborts every exchange in
    // flight; exchanges started later fail at once. Flows running now end
    // promptly with their failure results. Idempotent.
    void Shutdown();
    // Whether Shutdown ran.
    bool IsShuttingDown() const;

    // Starts one schedule server exchange on the manager's request pool and
    // returns the future of its result: with plant id and server address
    // from the system settings, or as given.
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
    bool UpdateWithUpdateSchedule(const ScheduleUpdateInfo& received, const std::vector<ScheduleRow>& slots);
    bool UpdateWithFixedSchedule(const std::vector<ScheduleRow>& slots, const std::string& plantId);
    // Empties both tables and stops the timers.
    void DeleteAllUpdateControlInfoFromDB();
    // Tells the logger daemon that schedule data is stored; its result word
    // (0 on success), 1 when the exchange failed.
    int SendScheduleData();

    // Timers.
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
    void CallbackUpdateSchedule(Poco::Timer& timer);
    void CallbackFixedSchedule(Poco::Timer& timer);

    // Whether a failed flow result is worth trying again.
    static bool IsRetryable(const UpdateResult& result);

    // The stored update information (for tools and tests).
    ScheduleUpdateInfo GetUpdateInfo();
    // Next fetch times; null when the alarm is stopped.
    std::shared_ptr<TimeStamp> GetScheduleUpdateTime();
    std::shared_ptr<TimeStamp> GetFixedScheduleUpdateTime();

private:
    class Tick;

    ScheduleUpdateManager(const ScheduleUpdateManager&) = delete;
    ScheduleUpdateManager& operator=(const ScheduleUpdateManager&) = delete;

    std::future<std::shared_ptr<ServerAccessResult>>
    StartExchange(const std::function<void(ScheduleServerAccessRequest&)>& setParameters);
    bool BringInfoInStep(bool startIfUnchanged);
    void Register(Request* request);
    void EnterUse();
    void LeaveUse();
    bool WaitUnused(long ms);
    std::uint64_t Resets();
    bool ResetSince(std::uint64_t resets, const char* failureText);
    std::shared_ptr<UpdateResult> AccessFailure(const std::string& failureText,
                                                const std::shared_ptr<ServerAccessResult>& access);
    bool AlarmPreconditions(ScheduleUpdateInfo& info);
    long MonitoringIntervalMs() const;
    void ReplaceTimer(Poco::Timer*& timer, const char* deleteLabel,
                      void (ScheduleUpdateManager::*callback)(Poco::Timer&));
    void RetireTimer(Poco::Timer* timer);
    void ReapRetiredTimers();
    void CancelAlarm(Poco::Timer* timer, std::shared_ptr<CancelEvent>& cancel);

    Channel* channel_;
    ScheduleUpdateInfoDatabase* infoDatabase_;

    // Recursive, since flows call flows. Never held across a network wait.
    Poco::Mutex flowMutex_;
    // Counted up (under flowMutex_) each time the tables are emptied.
    std::uint64_t resets_;

    // Under timerMutex_.
    Poco::Mutex timerMutex_;
    Poco::Timer* schedule_timer_;
    Poco::Timer* fixed_schedule_timer_;
    std::shared_ptr<TimeStamp> schedule_update_time_;
    std::shared_ptr<TimeStamp> fixed_schedule_update_time_;
    // Set by the alarm's Stop, then replaced by a fresh one for the
    // alarm's next run: a callback holds the one of its own run.
    std::shared_ptr<CancelEvent> updateCancel_;
    std::shared_ptr<CancelEvent> fixedCancel_;
    // Replaced timers whose thread may still be ending, and the timers
    // whose callback runs now (never deleted while it does).
    std::vector<Poco::Timer*> retired_;
    std::vector<Poco::Timer*> ticking_;

    // Under exchangeMutex_: the requests queued or running (and some that
    // finished, dropped at the next Register).
    Poco::FastMutex exchangeMutex_;
    std::vector<Request*> inFlight_;

    // Set by Shutdown.
    std::unique_ptr<CancelEvent> stopEvent_;

    // Under usersMutex_: pins, flows and timer callbacks running now;
    // `unused_` is signalled when the count drops to zero.
    Poco::FastMutex usersMutex_;
    Poco::Condition unused_;
    int users_;
};

} // namespace brvo

#endif
