// Brings output-control schedules into the schedule table: from the schedule
// server (the update schedule at the stored next update time, the fixed
// schedule at the plant's afternoon time, each with its retries) or from a
// local client, keeps the update information in step with the configured
// plant id, checks plant ids with the server and tells the logger daemon
// about new data. Every public flow returns an UpdateResult and never throws.
//
// Flows never run at once: each public flow holds the flow lock for its
// whole run, so a socket request arriving during a timer run waits for it
// and the update information and the schedule always change as one step.
// The timer callbacks only try the lock (a busy lock postpones their work
// to a later tick) and sleep in short steps that notice a stop, so a flow
// that replaces or stops a timer never waits on a callback that waits on it.
#ifndef BRVO_SCHEDULE_SCHEDULEUPDATEMANAGER_H
#define BRVO_SCHEDULE_SCHEDULEUPDATEMANAGER_H

#include "database/ScheduleRow.h"
#include "database/ScheduleUpdateInfo.h"
#include "schedule/UpdateResult.h"

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

class Channel;
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

    // Creates the process-wide instance if absent (and the schedule table
    // with it).
    static void CreateInstance();
    // The instance, or null.
    static ScheduleUpdateManager* GetInstance();
    // Stops the timers and deletes the instance. A flow still running on
    // another thread keeps its object: it is then left to the process exit
    // instead of being freed under it.
    static void DeleteInstance();

    ScheduleUpdateManager();
    virtual ~ScheduleUpdateManager();

    // Starts one schedule server exchange on the manager's request pool and
    // returns the future of its result: with plant id and server address
    // from the system settings, or as given.
    std::future<std::shared_ptr<ServerAccessResult>> ServerAccess_c(const std::string& scheduleKbn);
    std::future<std::shared_ptr<ServerAccessResult>> ServerAccess_i(const std::string& scheduleKbn,
                                                                    const std::string& plantId,
                                                                    const std::string& url);

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
    ScheduleUpdateManager(const ScheduleUpdateManager&) = delete;
    ScheduleUpdateManager& operator=(const ScheduleUpdateManager&) = delete;

    std::future<std::shared_ptr<ServerAccessResult>> StartExchange(
        const std::function<void(ScheduleServerAccessRequest&)>& setParameters);
    std::shared_ptr<UpdateResult> AccessFailure(const std::string& failureText,
                                                const std::shared_ptr<ServerAccessResult>& access);
    bool AlarmPreconditions(ScheduleUpdateInfo& info);
    long MonitoringIntervalMs() const;
    void ReplaceTimer(Poco::Timer*& timer, const char* deleteLabel,
                      void (ScheduleUpdateManager::*callback)(Poco::Timer&));
    bool SleepUnlessCancelled(std::int64_t ms, const std::atomic<unsigned>& generation, unsigned seen);
    bool LockFlowsUnlessCancelled(const std::atomic<unsigned>& generation, unsigned seen);

    Channel* channel_;
    ScheduleUpdateInfoDatabase* infoDatabase_;
    // Held by every public flow; recursive, since flows call flows.
    Poco::Mutex flowMutex_;
    // Guards the timers and their next times.
    Poco::Mutex timerMutex_;
    Poco::Timer* schedule_timer_;
    Poco::Timer* fixed_schedule_timer_;
    std::shared_ptr<TimeStamp> schedule_update_time_;
    std::shared_ptr<TimeStamp> fixed_schedule_update_time_;
    // Counted up by every stop of an alarm: a callback that sees its count
    // change was cancelled and ends.
    std::atomic<unsigned> updateGeneration_;
    std::atomic<unsigned> fixedGeneration_;
};

} // namespace brvo

#endif
