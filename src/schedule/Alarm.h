// One alarm of the schedule update manager: a due time on the wall clock,
// ticks every monitoring interval on a timer lane, and a run whose cancel
// event tells everything begun for it that the alarm has been stopped or
// set up anew since.
//
// A run begins with Start (ticking) or Quiet (no ticks: only deferred work,
// such as the fixed schedule's attempts) and ends with the next Start,
// Quiet or Stop, which set its cancel event. A tick may Defer the run's
// next step: it runs once its delay has passed on the monotonic clock or
// the wall clock has reached its due time, whichever comes first, and the
// ticks in between are left out (as a sleeping callback would miss them).
// A step deferred by a run that then ends still runs, at the next wake,
// with its cancelled event, so that it can say it was cancelled.
//
// Every change that depends on the run still being current (SetDueFor,
// StartFor, DeferFor) is checked and made under the alarm's lock, so a
// stop that lands meanwhile always wins.
//
// Lock rules: mutex_ guards every member below it; it is a leaf lock, never
// held while a tick or deferred step runs, and taken after the manager's
// flow lock.
#ifndef BRVO_SCHEDULE_ALARM_H
#define BRVO_SCHEDULE_ALARM_H

#include "util/Mutex.h"
#include "util/ThreadAnnotations.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

namespace brvo {

class CancelEvent;
class Clock;
class TimerService;

class Alarm {
public:
    // The cancel event of one run.
    typedef std::shared_ptr<CancelEvent> Run;
    // A tick or a deferred step, given the run it belongs to.
    typedef std::function<void(const Run&)> Step;

    // Drives `timers`, reads `clock`; both outlive the alarm.
    Alarm(TimerService& timers, Clock& clock);
    // Ends the run. The owner retires the alarm (and so leaves its lane
    // with no wake) before the lane or the alarm goes.
    ~Alarm();

    // Ends the current run and begins one that calls `onTick` every
    // `intervalMs`, first after `intervalMs`. Returns the new run.
    Run Start(std::int64_t intervalMs, const Step& onTick) EXCLUDES(mutex_);
    // The same, only while `run` is current, with the due time
    // `dueMicros`; null otherwise.
    Run StartFor(const Run& run, std::int64_t intervalMs, const Step& onTick, std::int64_t dueMicros) EXCLUDES(mutex_);
    // Ends `run`, if it is current, clears the due time and begins a quiet
    // run (no ticks), which lives on its deferred steps. Returns the new
    // run; null when `run` was no longer current.
    Run QuietFor(const Run& run) EXCLUDES(mutex_);
    // Ends the current run: no more ticks, the due time cleared.
    void Stop() EXCLUDES(mutex_);
    // Stops for good: as Stop, and drops the deferred steps of ended runs
    // and the lane's wake, so nothing of the alarm runs afterwards.
    void Retire() EXCLUDES(mutex_);

    // Runs `then` for `run` once `delayMs` has passed on the monotonic
    // clock or the wall clock has reached `wallDueMicros`; false (and
    // nothing planned) when `run` is no longer current. Replaces a step
    // deferred before.
    bool DeferFor(const Run& run, std::int64_t wallDueMicros, std::int64_t delayMs, const Step& then) EXCLUDES(mutex_);

    // The due time (wall microseconds); -1 when none is set.
    std::int64_t Due() const EXCLUDES(mutex_);
    // Sets the due time.
    void SetDue(std::int64_t wallMicros) EXCLUDES(mutex_);
    // Sets the due time only while `run` is current; false otherwise.
    bool SetDueFor(const Run& run, std::int64_t wallMicros) EXCLUDES(mutex_);
    // Whether a run was ever started (a replaced timer is reported as such).
    bool EverStarted() const EXCLUDES(mutex_);
    // Whether `run` is the current run and not cancelled.
    bool IsCurrent(const Run& run) const EXCLUDES(mutex_);
    // Whether a deferred step is waiting.
    bool HasDeferred() const EXCLUDES(mutex_);

private:
    struct Deferred {
        Run run;
        std::int64_t wallDue = 0;
        std::int64_t monotonicDue = 0;
        Step then;
    };

    Alarm(const Alarm&) = delete;
    Alarm& operator=(const Alarm&) = delete;

    Run BeginLocked(std::int64_t intervalMs, const Step& onTick) REQUIRES(mutex_);
    void EndRunLocked() REQUIRES(mutex_);
    void StopLocked() REQUIRES(mutex_);
    void OnWake(const Run& run) EXCLUDES(mutex_);
    bool TakeWorkLocked(const Run& run, Step& work, Run& workRun, std::vector<Deferred>& cancelled) REQUIRES(mutex_);
    void ScheduleNextLocked(const Run& run) REQUIRES(mutex_);
    bool DeferredDueLocked() const REQUIRES(mutex_);

    TimerService& timers_;
    Clock& clock_;

    mutable Mutex mutex_;
    Run run_ GUARDED_BY(mutex_);
    Step onTick_ GUARDED_BY(mutex_);
    std::int64_t intervalMs_ GUARDED_BY(mutex_);
    // When the next tick is due, on the monotonic clock.
    std::int64_t tickDue_ GUARDED_BY(mutex_);
    std::int64_t due_ GUARDED_BY(mutex_);
    bool everStarted_ GUARDED_BY(mutex_);
    bool retired_ GUARDED_BY(mutex_);
    std::unique_ptr<Deferred> deferred_ GUARDED_BY(mutex_);
    // Steps of runs that ended before their time: run at the next wake.
    std::vector<Deferred> cancelled_ GUARDED_BY(mutex_);
};

} // namespace brvo

#endif
