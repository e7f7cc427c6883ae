#include "schedule/TargetPowerSnapshot.h"

#include "database/ScheduleDatabase.h"
#include "schedule/RateControl.h"
#include "settings/LoggerSettingManager.h"
#include "settings/SystemSettingXmlManager.h"
#include "util/FileChangeWatch.h"
#include "util/FileUtil.h"
#include "util/ScopedLock.h"
#include "util/SystemClock.h"
#include "util/TimeStamp.h"

#include <algorithm>
#include <cstring>
#include <string>

namespace brvo {

namespace {

// Reads of the settings that a report spoils before one holds.
const int kSettingsAttempts = 3;
const std::int64_t kMicrosPerSecond = 1000000;

std::int64_t SecondsOf(std::int64_t micros) {
    return micros / kMicrosPerSecond - (micros % kMicrosPerSecond < 0 ? 1 : 0);
}

// Copies at most `size` - 1 bytes of `text`, NUL-terminated.
void CopyText(char* target, std::size_t size, const std::string& text) {
    const std::size_t length = std::min(size - 1, text.size());
    std::memcpy(target, text.data(), length);
    target[length] = '\0';
}

void CopySlots(const TargetPowerSnapshot::View& from, TargetPowerSnapshot::View& to) {
    to.slotsKnown = from.slotsKnown;
    to.version = from.version;
    to.from = from.from;
    to.current = from.current;
    to.next = from.next;
    to.after = from.after;
}

// Whether the slots of `view` were read for the slot in force at
// `seconds`: from their reading up to the next slot's start.
bool SlotsFresh(const TargetPowerSnapshot::View& view, std::int64_t seconds) {
    return view.slotsKnown && seconds >= view.from && (view.next.time < 0 || seconds < view.next.time);
}

// Whether the slots of `view` answer at `seconds`: while fresh, and then
// up to the start of the slot after next.
bool SlotsHold(const TargetPowerSnapshot::View& view, std::int64_t seconds) {
    return SlotsFresh(view, seconds) || (view.slotsKnown && view.next.time >= 0 && seconds >= view.next.time &&
                                         (view.after.time < 0 || seconds < view.after.time));
}

// The slot in force at `seconds` (`current`), or the next one, of slots
// that hold then.
const TargetPowerSnapshot::Slot& SlotAt(const TargetPowerSnapshot::View& view, std::int64_t seconds, bool current) {
    const bool moved = view.next.time >= 0 && seconds >= view.next.time;
    if (current) return moved ? view.next : view.current;
    return moved ? view.after : view.next;
}

} // namespace

TargetPowerSnapshot& TargetPowerSnapshot::Instance() {
    static TargetPowerSnapshot* const holder = new TargetPowerSnapshot();
    return *holder;
}

TargetPowerSnapshot::TargetPowerSnapshot() : current_(nullptr), retired_(nullptr) {
    for (std::atomic<const View*>& held : held_) held.store(nullptr);
    ScheduleDatabase::SetWriteObserver(&TargetPowerSnapshot::OnTableWritten);
}

TargetPowerSnapshot::Miss TargetPowerSnapshot::Covers(const View* view, std::int64_t nowMicros) {
    if (view == nullptr) return Miss::kRebuild;
    if (!view->settingsKnown) return Miss::kUnusable;
    if (view->generation != FileChangeWatch::Instance().Generation()) return Miss::kRebuild;
    if (!view->hasPlantId || !RateControl::DateIsPlausible(nowMicros, view->earliestMicros)) return Miss::kNone;
    if (!view->slotsKnown) return Miss::kUnusable;
    return SlotsHold(*view, SecondsOf(nowMicros)) ? Miss::kNone : Miss::kBoundary;
}

bool TargetPowerSnapshot::Aging(const View& view, std::int64_t nowMicros) {
    return view.slotsKnown && !SlotsFresh(view, SecondsOf(nowMicros)) && nowMicros >= view.retryAfterMicros;
}

TargetPowerSnapshot::Answer TargetPowerSnapshot::Compute(const View& view, std::int64_t nowMicros, int type,
                                                         double capacity) {
    Answer answer;
    if (!view.hasPlantId) {
        answer.code = TargetPowerResult::Code::kPlantIdNotFound;
        answer.power = capacity;
    } else if (!RateControl::DateIsPlausible(nowMicros, view.earliestMicros)) {
        answer.code = TargetPowerResult::Code::kDateError;
        answer.power = static_cast<double>(view.limit.valueMin);
    } else {
        const Slot& slot = SlotAt(view, SecondsOf(nowMicros), type == RateControl::kCurrentTargetPower);
        if (slot.time < 0) {
            answer.code = TargetPowerResult::Code::kNoSchedule;
            answer.power = static_cast<double>(view.limit.valueMin);
        } else {
            const std::int64_t rate = RateControl::ScaleRate(slot.rate, view.limit);
            answer.power = RateControl::Target(rate, capacity, static_cast<double>(view.limit.valueMin));
            answer.timeText = slot.compact;
            answer.display = slot.display;
            answer.rate = rate;
        }
    }
    return answer;
}

void TargetPowerSnapshot::LogAnswer(const Answer& answer, double capacity) {
    if (answer.code == TargetPowerResult::Code::kSuccess) {
        RateControl::LogRate(answer.display, answer.rate, answer.power, capacity);
    } else {
        RateControl::LogFailure(answer.code);
    }
}

// Names the current view in the reader's slot, then checks that it is
// still current: a publisher that replaced it in between retired it
// possibly before the name was visible, so the new one is taken instead.
const TargetPowerSnapshot::View* TargetPowerSnapshot::Hold(int reader) {
    const View* view = current_.load();
    for (;;) {
        held_[reader].store(view);
        const View* now = current_.load();
        if (now == view) return view;
        view = now;
    }
}

void TargetPowerSnapshot::LetGo(int reader) {
    held_[reader].store(nullptr);
}

bool TargetPowerSnapshot::IsHeld(const View* view) const {
    for (const std::atomic<const View*>& held : held_) {
        if (held.load() == view) return true;
    }
    return false;
}

void TargetPowerSnapshot::Reclaim() {
    View* view = retired_.exchange(nullptr);
    while (view != nullptr) {
        View* next = view->retired;
        if (IsHeld(view)) {
            Retire(view);
        } else {
            delete view;
        }
        view = next;
    }
}

bool TargetPowerSnapshot::HeldSlot(std::int64_t seconds, bool current, ScheduleRow& slot) {
    ScheduleDatabase* database = ScheduleDatabase::GetInstance();
    if (database == nullptr) return false;
    ScopedLock lock(publishMutex_);
    const View* view = current_.load(std::memory_order_acquire);
    if (view == nullptr || !SlotsHold(*view, seconds) || view->version != database->WriteCount()) return false;
    const Slot& held = SlotAt(*view, seconds, current);
    slot.time = held.time;
    slot.controlRate = held.rate;
    return true;
}

void TargetPowerSnapshot::Rebuild() {
    View fresh;
    for (int attempt = 0; attempt < kSettingsAttempts && !fresh.settingsKnown; ++attempt) {
        fresh.settingsKnown = ReadSettings(fresh);
    }
    const std::int64_t now = SystemClock::NowMicroseconds();
    // The slots of the view now are kept while no write began since they
    // were read and they still hold: a settings change then needs no read
    // of the table (which another process may hold locked).
    ScheduleDatabase* database = ScheduleDatabase::GetInstance();
    View held;
    {
        ScopedLock lock(publishMutex_);
        const View* current = current_.load(std::memory_order_acquire);
        if (current != nullptr) held = *current;
    }
    const bool unwritten = database != nullptr && held.version == database->WriteCount();
    if (unwritten && SlotsFresh(held, SecondsOf(now))) {
        CopySlots(held, fresh);
    } else if (!ReadSlots(database, now, fresh) && unwritten &&
               SlotsHold(held, SecondsOf(SystemClock::NowMicroseconds()))) {
        // The table could not be read (another process may hold it
        // locked): the slots known answer on while they hold.
        CopySlots(held, fresh);
        fresh.retryAfterMicros = now + kRetryMicroseconds;
    }
    if (!fresh.settingsKnown || !fresh.slotsKnown) fresh.retryAfterMicros = now + kRetryMicroseconds;
    PublishSettings(fresh);
}

void TargetPowerSnapshot::OnTableWritten(ScheduleDatabase& database, bool renewed) {
    TargetPowerSnapshot& holder = Instance();
    View slots;
    if (renewed) {
        // The new table is read by the next rebuild, which is due at once.
        slots.version = database.WriteCount();
    } else {
        holder.ReadSlots(&database, SystemClock::NowMicroseconds(), slots);
    }
    holder.PublishSlots(slots);
}

// Reads the settings twice: the first read finds the device description
// (and lets the readers take what the watch reported), the second is made
// with every file it reads watched, and holds when no report came in
// between.
bool TargetPowerSnapshot::ReadSettings(View& view) {
    FileChangeWatch& watch = FileChangeWatch::Instance();
    ReadSettingValues(view);
    const std::string devicePath =
        view.hasPlantId ? DeviceSettingXmlManager::Shared().GetLimitFilePath() : std::string();
    const std::int64_t systemGeneration = watch.Arm(FileUtil::GetSystemSettingFile());
    const std::int64_t generation = devicePath.empty() ? systemGeneration : watch.Arm(devicePath);
    if (systemGeneration == FileChangeWatch::kNotWatched || generation == FileChangeWatch::kNotWatched) return false;
    ReadSettingValues(view);
    if (!watch.Unchanged(generation)) return false;
    view.generation = generation;
    return true;
}

// The settings as RateControl reads them: the device only when a plant ID
// is set.
void TargetPowerSnapshot::ReadSettingValues(View& view) {
    SystemSettingXmlManager& systemSettings = SystemSettingXmlManager::Shared();
    systemSettings.Load();
    view.hasPlantId = !systemSettings.GetOutputControlPlantId().empty();
    view.limit = DeviceSettingXmlManager::Limit();
    if (view.hasPlantId) DeviceSettingXmlManager::Shared().GetLimit(view.limit);
    view.earliestMicros =
        RateControl::EarliestDateMicros(LoggerSettingManager::Current().GetOutputControlTestMode() != 0);
}

bool TargetPowerSnapshot::ReadSlots(ScheduleDatabase* database, std::int64_t nowMicros, View& view) {
    ScheduleRow current;
    ScheduleRow next;
    ScheduleRow after;
    const std::int64_t seconds = SecondsOf(nowMicros);
    view.slotsKnown = database != nullptr && database->SelectSlots(seconds, current, next, after, view.version);
    view.from = seconds;
    FillSlot(current, view.current);
    FillSlot(next, view.next);
    FillSlot(after, view.after);
    return view.slotsKnown;
}

void TargetPowerSnapshot::FillSlot(const ScheduleRow& row, Slot& slot) {
    slot = Slot();
    slot.time = row.time;
    slot.rate = row.controlRate;
    if (row.time < 0) return;
    std::shared_ptr<TimeStamp> start = TimeStamp::FromEpochSeconds(row.time);
    if (!start) return;
    CopyText(slot.compact, sizeof slot.compact, start->FormatCompact());
    CopyText(slot.display, sizeof slot.display, start->FormatDisplay());
}

// The slots read right after a write replace those of the view, settings
// kept; slots read before a later write never do.
void TargetPowerSnapshot::PublishSlots(const View& slots) {
    ScopedLock lock(publishMutex_);
    const View* current = current_.load(std::memory_order_acquire);
    if (current != nullptr && slots.version < current->version) return;
    View* view = new View(current != nullptr ? *current : View());
    CopySlots(slots, *view);
    // Without settings yet, or with a table to read again, the next request
    // asks for a rebuild at once.
    view->retryAfterMicros = 0;
    Publish(view);
}

// Settings read by a rebuild replace those of the view, and so do its
// slots unless a write published newer ones meanwhile.
void TargetPowerSnapshot::PublishSettings(const View& settings) {
    ScopedLock lock(publishMutex_);
    const View* current = current_.load(std::memory_order_acquire);
    View* view = new View(settings);
    if (current != nullptr && current->version > settings.version) CopySlots(*current, *view);
    Publish(view);
}

// Swaps `view` in and retires the one it replaces (publishMutex_ held).
void TargetPowerSnapshot::Publish(View* view) {
    view->retired = nullptr;
    View* old = current_.exchange(view);
    if (old != nullptr) Retire(old);
}

// Pushes `view` onto the retire list.
void TargetPowerSnapshot::Retire(View* view) {
    view->retired = retired_.load(std::memory_order_relaxed);
    while (!retired_.compare_exchange_weak(view->retired, view)) {
    }
}

} // namespace brvo
