// The output-control schedule on the device: one row per 30-minute slot with
// its output rate and whether it was forwarded to the logger daemon. One
// process-wide instance; every operation holds the table's mutex, so the
// request workers, the schedule update timers and the target-power
// computation may call in from any thread.
//
// Locks: the table's mutex (`mutex_`) guards the session, the slot cache
// and the write count, and is never held while the logger daemon is told:
// a target-power select never waits on that exchange. `forwardMutex_`
// guards the forwarder and serialises forwarding; it is taken before the
// table's mutex, never after.
//
// Every successful store or delete, and a table made anew, is told to the
// write observer with the table's mutex still held, right after the
// commit: what it reads then (SelectSlots) is the table as that write left
// it, and no other write of the daemon comes between.
#ifndef BRVO_DATABASE_SCHEDULEDATABASE_H
#define BRVO_DATABASE_SCHEDULEDATABASE_H

#include "database/DatabaseManager.h"
#include "database/ScheduleRow.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace brvo {

class ScheduleDatabase : public DatabaseManager {
public:
    // Forwards the stored schedule to the logger daemon; 0 on success.
    typedef std::function<int()> Forwarder;
    // Told after a write (see above); `renewed` when the table was made
    // anew and must not be read in this call.
    typedef void (*WriteObserver)(ScheduleDatabase& database, bool renewed);

    // Installs the process-wide write observer (null: none).
    static void SetWriteObserver(WriteObserver observer);

    // Creates the process-wide instance if absent (which purges old rows).
    static void CreateInstance();
    // The instance, or null before CreateInstance.
    static ScheduleDatabase* GetInstance();
    // Deletes the instance.
    static void DeleteInstance();

    // Opens (creating on a fresh device) the table's file and deletes the
    // rows older than the retention cycle.
    ScheduleDatabase();
    ~ScheduleDatabase() override;

    // Deletes every row. True when at least one row was deleted.
    bool DeleteAll();
    // Deletes the rows that started before now minus the retention cycle
    // (OutputControlScheduleRetensionCycle days); a row exactly at the
    // cutoff stays.
    void DeleteOldData();
    // How long the two reads below, which answer target power, wait while
    // another process holds the file's lock (a tool with the table open in
    // a transaction) before they fail, instead of the 60 s of every other
    // operation: target power is never held up by a lock.
    static constexpr int kTargetPowerLockWaitMs = 200;

    // The slot in force at `time` (current: the latest slot starting at or
    // before it) or the next one (the earliest starting after it). A row
    // with time -1 when none matches or the table cannot be read (also
    // when another process held its lock for kTargetPowerLockWaitMs).
    ScheduleRow SelectSchedule(std::int64_t time, bool current);
    // The slot in force at `time`, the next one and the one after that
    // (time -1 for none), read in one step under the table's mutex (so no
    // write of the daemon falls between them); `version` is WriteCount()
    // at that moment. False (rows with time -1) when the table cannot be
    // read, also when another process held its lock for
    // kTargetPowerLockWaitMs.
    bool SelectSlots(std::int64_t time, ScheduleRow& current, ScheduleRow& next, ScheduleRow& after,
                     std::uint64_t& version);
    // The number of the last write operation begun (a table made anew
    // counts as one); read without the mutex. Numbers grow across every
    // instance of the process: two equal numbers mean no write began in
    // between, and a later write has the higher number.
    std::uint64_t WriteCount() const { return writes_.load(std::memory_order_acquire); }

    // Rows per INSERT statement of a large schedule.
    static constexpr std::size_t kRowsPerStatement = 500;

    // Writes `rows`, replacing rows of the same time (sent flag included):
    // in one statement, or, beyond kRowsPerStatement rows, in statements of
    // that many inside one transaction; either way all rows or none land.
    // True for no rows; else true when rows changed.
    bool InsertUpdateSchedule(const std::vector<ScheduleRow>& rows);
    // Writes the rows later than now minus 30 minutes as InsertUpdateSchedule
    // does, never replacing a stored row. True unless the table cannot be
    // opened or a statement fails.
    bool InsertFixedSchedule(const std::vector<ScheduleRow>& rows);
    // Forwards the schedule to the logger daemon and, when that succeeded,
    // marks every unsent row sent, unless the table was written meanwhile:
    // those rows stay unsent for the forwarding of the run that wrote them.
    // A failed (or not yet installed) forwarding is logged as "Cloud Send
    // error." and changes nothing. One forwarding at a time.
    void UpdateSentFlag() EXCLUDES(forwardMutex_);

    // Installs the forwarding used by UpdateSentFlag; waits for a
    // forwarding in progress, so that once it returns the old forwarder is
    // no longer called.
    void SetForwarder(const Forwarder& forwarder) EXCLUDES(forwardMutex_);

protected:
    std::string CreateTableStatement() const override;
    std::string ColumnList() const override;
    void OnSessionClosed() override REQUIRES(mutex_);

private:
    // The current and next slots found at `from` while the file's change
    // counter was `counter`: both stay the answers for every time from
    // `from` up to (not including) the next slot's start, until the file
    // changes.
    struct SlotCache {
        bool valid = false;
        std::uint32_t counter = 0;
        std::int64_t from = 0;
        ScheduleRow current;
        ScheduleRow next;
    };

    void BeginWrite();
    void NotifyWritten(bool renewed);
    ScheduleRow RunSelect(std::int64_t time, bool current, bool logErrors, bool& ok) REQUIRES(mutex_);
    bool CacheCovers(std::int64_t time, std::uint32_t counter) const REQUIRES(mutex_);
    std::string ValuesGroup(const ScheduleRow& row) const;
    std::size_t InsertRows(const std::string& header, const std::vector<ScheduleRow>& rows);
    std::size_t RunInsert(const std::string& header, const std::vector<ScheduleRow>& rows, std::size_t begin,
                          std::size_t end);

    RecursiveMutex forwardMutex_ ACQUIRED_BEFORE(mutex_);
    Forwarder forwarder_ GUARDED_BY(forwardMutex_);
    SlotCache slots_ GUARDED_BY(mutex_);
    // The last write operation begun (a change during a forwarding is
    // seen); moved on under mutex_.
    std::atomic<std::uint64_t> writes_;
};

} // namespace brvo

#endif
