// What a target power answer needs, held in memory so that the command
// server's event loop can answer CurrentTargetPower and NextTargetPower
// itself, without a file, a statement or a lock that a flow may hold.
//
// A view is immutable once published. It holds two parts:
// - settings: whether a plant ID is set, the device's rate scale (Value0,
//   Value100, ValueMin) and the earliest plausible date of the test mode,
//   with the settings watch's generation they were read under;
// - slots: the current slot, the next one and the one after it at the
//   time `from` they were read, with their start times already formatted,
//   and the table's write count then. They are fresh from `from` up to
//   (not including) the next slot's start, and hold on until the start of
//   the slot after it: past the next slot's start, that slot is in force
//   and the one after it is next. A request answered from slots that are
//   no longer fresh asks for a rebuild, so the slot boundary never sends
//   target power to the table while the view holds.
//
// Publishing: whoever changes an input publishes a new view by swapping the
// pointer: the table after every store or delete and when it was made anew
// (through ScheduleDatabase's write observer, with the table's mutex held,
// right after the commit, from one read of both slots), and Rebuild (run by
// the command server before it takes its first request, then on an answer
// worker when a request found the view not covering it: a settings change
// reported, a slot boundary passed; one at a time). A request therefore gets
// the schedule before a store or after it, never a mix. The table's reads
// behind target power wait at most ScheduleDatabase::kTargetPowerLockWaitMs
// for another process's lock. Publishers take publishMutex_, after the table's
// mutex when they hold that, never before it; a part read earlier than the
// part published is never put back (the table's write count and the watch's
// generation only grow).
//
// Answering (Covers): a request is answered from the view only when
// - a view exists, and its settings were read under a watch generation
//   that is still the watch's generation (no report since, taken by a
//   settings reader or noted by the event loop, which looks at the watch's
//   descriptors before each answer): otherwise a rebuild is due or pending;
// - the plant ID is missing or the date is implausible (those answers need
//   no slot), or the slots are known and the request's time lies in
//   [from, start of the slot after next): past that the slot boundary
//   has passed.
// Everything else (no view yet, a rebuild due or pending, the slot
// boundary passed, settings the watch cannot vouch for or a table that
// could not be read, these two retried after kRetryMicroseconds) goes to
// the answer workers, which read the files as before, and the table too
// unless the view's slots still hold (HeldSlot: so a settings change never
// waits on a locked table), and the server posts a rebuild. Another
// process writing the table is seen by the workers' reads, and by the view
// only once the daemon writes the table or the slot boundary passes. The
// only lock an answer from the view takes is the log's, for appending its
// lines.
//
// Reclaiming: a reader (one of kReaders, each with its own number, used by
// one thread at a time) holds the view it answers from with Hold, which
// names it in the reader's slot, and lets go of it with LetGo. A view
// replaced by a publisher goes onto a lock-free retire list; Reclaim frees
// the retired views that no slot names and keeps the others for a later
// Reclaim. Hold checks, after naming a view, that it is still the current
// one, so a view it returns was named before it could be retired, and
// Reclaim, which reads the slots after taking the list, sees the name.
// Readers take no lock.
#ifndef BRVO_SCHEDULE_TARGETPOWERSNAPSHOT_H
#define BRVO_SCHEDULE_TARGETPOWERSNAPSHOT_H

#include "schedule/TargetPowerResult.h"
#include "settings/DeviceSettingXmlManager.h"

#include "util/Mutex.h"
#include "util/ThreadAnnotations.h"

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace brvo {

class ScheduleDatabase;
struct ScheduleRow;

class TargetPowerSnapshot {
public:
    // Room for a slot start "%Y%m%d%H%M%S" and "%Y-%m-%d %H:%M:%S".
    static constexpr std::size_t kCompactSize = 15;
    static constexpr std::size_t kDisplaySize = 20;
    // How long a view that cannot answer (settings the watch cannot vouch
    // for, a table that cannot be read) is kept before it is built again.
    static constexpr std::int64_t kRetryMicroseconds = 1000000;

    // One slot as the answer shows it.
    struct Slot {
        std::int64_t time = -1;
        std::int32_t rate = 0;
        char compact[kCompactSize] = {};
        char display[kDisplaySize] = {};
    };

    // One published view; never changed after publishing.
    struct View {
        // Settings part; known only when the watch vouches for the files.
        bool settingsKnown = false;
        std::int64_t generation = -1;
        bool hasPlantId = false;
        DeviceSettingXmlManager::Limit limit;
        std::int64_t earliestMicros = 0;
        // Slots part; known only when the table could be read.
        bool slotsKnown = false;
        std::uint64_t version = 0;
        std::int64_t from = 0;
        Slot current;
        Slot next;
        Slot after;
        // Before this time (microseconds since the epoch) a view that
        // cannot answer is not built again.
        std::int64_t retryAfterMicros = 0;
        // Link of the retire list.
        View* retired = nullptr;
    };

    // Why a view does not answer a request.
    enum class Miss {
        kNone,     // it answers
        kRebuild,  // no view, or the settings moved: build one now
        kBoundary, // the slot boundary passed: build one now
        kUnusable, // settings or table unusable: build again after a while
    };

    // An answer computed from a view.
    struct Answer {
        TargetPowerResult::Code code = TargetPowerResult::Code::kSuccess;
        double power = 0.0;
        // The slot's start ("%Y%m%d%H%M%S"); empty on failure. Points into
        // the view.
        const char* timeText = "";
        // For the log line: the slot's start as the log shows it (empty on
        // failure; points into the view) and the scaled rate.
        const char* display = "";
        std::int64_t rate = 0;
    };

    // The process-wide holder; installs the table's write observer.
    // Never destroyed.
    static TargetPowerSnapshot& Instance();

    // Readers that may hold a view at once (the command server's loops).
    static constexpr int kReaders = 2;

    // The view now, held for reader `reader` (0 .. kReaders - 1) until its
    // LetGo: Reclaim does not free it meanwhile. Null before the first
    // publish. A reader holds one view at a time.
    const View* Hold(int reader);
    // Ends reader `reader`'s hold.
    void LetGo(int reader);
    // Whether `view` answers a target power request (current or next) at
    // `nowMicros`, and if not, why. Reads nothing but the view and the
    // watch's generation.
    static Miss Covers(const View* view, std::int64_t nowMicros);
    // Whether a view that covers a request at `nowMicros` should be built
    // again: its slots are past their freshness and no rebuild of it failed
    // within kRetryMicroseconds.
    static bool Aging(const View& view, std::int64_t nowMicros);
    // The answer for `capacity` from a view that covers the request. No
    // file, no lock, no log line: LogAnswer writes its lines.
    static Answer Compute(const View& view, std::int64_t nowMicros, int type, double capacity);
    // RateControl's log lines for `answer`, computed for `capacity`, while
    // the view it came from is still held.
    static void LogAnswer(const Answer& answer, double capacity);
    // Frees the views retired so far that no reader holds. Any thread.
    void Reclaim();

    // The slot (`current`, else the next one) the view holds for `seconds`,
    // when the view's slots were read after the table's last write and
    // hold at `seconds`: what a select would find, without the table.
    // False otherwise. Any thread (takes publishMutex_ for the copy).
    bool HeldSlot(std::int64_t seconds, bool current, ScheduleRow& slot) EXCLUDES(publishMutex_);

    // Reads the settings and (unless the view's slots are still fresh) the
    // table, and publishes a view. When the table cannot be read, slots
    // that still hold are kept, to be read again after kRetryMicroseconds.
    // Runs on the command server before its first request, then on a
    // worker; waits on the table's mutex while a write of the daemon runs.
    void Rebuild() EXCLUDES(publishMutex_);

    TargetPowerSnapshot(const TargetPowerSnapshot&) = delete;
    TargetPowerSnapshot& operator=(const TargetPowerSnapshot&) = delete;

private:
    TargetPowerSnapshot();
    ~TargetPowerSnapshot() = delete;

    static void OnTableWritten(ScheduleDatabase& database, bool renewed);
    bool ReadSettings(View& view);
    static void ReadSettingValues(View& view);
    bool ReadSlots(ScheduleDatabase* database, std::int64_t nowMicros, View& view);
    static void FillSlot(const ScheduleRow& row, Slot& slot);
    void PublishSlots(const View& slots) EXCLUDES(publishMutex_);
    void PublishSettings(const View& settings) EXCLUDES(publishMutex_);
    void Publish(View* view) REQUIRES(publishMutex_);
    void Retire(View* view);
    bool IsHeld(const View* view) const;

    // Taken by publishers only.
    Mutex publishMutex_;

    std::atomic<View*> current_;
    std::atomic<View*> retired_;
    // The view each reader holds; null when it holds none.
    std::atomic<const View*> held_[kReaders];
};

} // namespace brvo

#endif
