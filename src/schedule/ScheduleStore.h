// The stored state the schedule flows share: the update information and
// schedule tables as the flows read and write them, under the flow lock,
// and the count of resets (each emptying of the tables), by which a fetch
// begun before a reset knows not to store its answer.
//
// Lock rules: the flow lock is not recursive. The public members without
// "Locked" take it themselves; those ending in "Locked" need it held by the
// caller (through Lock). It is never held across a network wait, and it is
// taken before the alarms' locks, never after.
#ifndef BRVO_SCHEDULE_SCHEDULESTORE_H
#define BRVO_SCHEDULE_SCHEDULESTORE_H

#include "database/ScheduleRow.h"
#include "database/ScheduleUpdateInfo.h"
#include "util/Mutex.h"
#include "util/ScopedLock.h"
#include "util/ThreadAnnotations.h"

#include <cstdint>
#include <vector>

namespace brvo {

class ScheduleUpdateInfoDatabase;

class ScheduleStore {
public:
    // Holds the flow lock for its scope.
    typedef ScopedLock<Mutex> Lock;

    // Opens the update information table; creates the schedule table's
    // instance if absent.
    ScheduleStore();
    ~ScheduleStore();

    // The flow lock, for a Lock of the caller.
    Mutex& FlowMutex() const RETURN_CAPABILITY(flowMutex_) { return flowMutex_; }

    // The stored update information.
    ScheduleUpdateInfo SelectUpdateInfo() EXCLUDES(flowMutex_);
    ScheduleUpdateInfo SelectUpdateInfoLocked() REQUIRES(flowMutex_);
    // The stored update information read without the flow lock (the
    // table's own lock keeps the read whole): for planning the alarms,
    // which happens both inside and outside the flows.
    ScheduleUpdateInfo PeekUpdateInfo();
    // Writes the update information (insert or replace).
    bool InsertUpdateInfoLocked(const ScheduleUpdateInfo& info) REQUIRES(flowMutex_);
    // Writes update-schedule slots (received ones win) / fixed-schedule
    // slots (stored ones win).
    bool InsertUpdateScheduleLocked(const std::vector<ScheduleRow>& slots) REQUIRES(flowMutex_);
    bool InsertFixedScheduleLocked(const std::vector<ScheduleRow>& slots) REQUIRES(flowMutex_);
    // Empties both tables and counts a reset.
    void DeleteAllLocked() REQUIRES(flowMutex_);

    // The count of resets so far.
    std::uint64_t Resets() EXCLUDES(flowMutex_);
    std::uint64_t ResetsLocked() const REQUIRES(flowMutex_) { return resets_; }

private:
    ScheduleStore(const ScheduleStore&) = delete;
    ScheduleStore& operator=(const ScheduleStore&) = delete;

    mutable Mutex flowMutex_;
    // Set once by the constructor; the table has its own lock.
    ScheduleUpdateInfoDatabase* infoDatabase_;
    std::uint64_t resets_ GUARDED_BY(flowMutex_);
};

} // namespace brvo

#endif
