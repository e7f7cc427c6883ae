#include "schedule/Alarm.h"

#include "util/CancelEvent.h"
#include "util/Clock.h"
#include "util/ScopedLock.h"
#include "util/TimerService.h"

#include <algorithm>

namespace brvo {

Alarm::Alarm(TimerService& timers, Clock& clock)
    : timers_(timers), clock_(clock), run_(std::make_shared<CancelEvent>()), intervalMs_(0), tickDue_(0), due_(-1),
      everStarted_(false), retired_(false) {}

Alarm::~Alarm() {
    ScopedLock lock(mutex_);
    run_->Set();
    deferred_.reset();
    cancelled_.clear();
}

void Alarm::Retire() {
    {
        ScopedLock lock(mutex_);
        StopLocked();
        cancelled_.clear();
        retired_ = true;
    }
    timers_.CancelWake();
}

// Ends the current run and leaves an ended one in its place, with no due
// time (mutex_ held).
void Alarm::StopLocked() {
    EndRunLocked();
    run_ = std::make_shared<CancelEvent>();
    run_->Set();
    due_ = -1;
}

Alarm::Run Alarm::Start(std::int64_t intervalMs, const Step& onTick) {
    ScopedLock lock(mutex_);
    return BeginLocked(intervalMs, onTick);
}

Alarm::Run Alarm::StartFor(const Run& run, std::int64_t intervalMs, const Step& onTick, std::int64_t dueMicros) {
    ScopedLock lock(mutex_);
    if (run != run_ || run->IsSet()) return nullptr;
    due_ = dueMicros;
    return BeginLocked(intervalMs, onTick);
}

Alarm::Run Alarm::QuietFor(const Run& run) {
    ScopedLock lock(mutex_);
    if (run != run_ || run->IsSet()) return nullptr;
    due_ = -1;
    return BeginLocked(0, Step());
}

void Alarm::Stop() {
    ScopedLock lock(mutex_);
    StopLocked();
    if (cancelled_.empty() || retired_) {
        timers_.CancelWake();
    } else {
        const Run ended = run_;
        timers_.WakeAfter(0, [this, ended] { OnWake(ended); });
    }
}

// Ends the current run (its deferred step, if any, still runs once to see
// that it was cancelled) and begins a new one (mutex_ held).
Alarm::Run Alarm::BeginLocked(std::int64_t intervalMs, const Step& onTick) {
    EndRunLocked();
    run_ = std::make_shared<CancelEvent>();
    if (retired_) {
        run_->Set();
        return run_;
    }
    onTick_ = onTick;
    intervalMs_ = intervalMs;
    if (onTick) everStarted_ = true;
    tickDue_ = clock_.MonotonicMicroseconds() + intervalMs * 1000;
    const Run run = run_;
    if (!cancelled_.empty()) {
        timers_.WakeAfter(0, [this, run] { OnWake(run); });
    } else if (onTick) {
        timers_.WakeAfter(intervalMs, [this, run] { OnWake(run); });
    } else {
        timers_.CancelWake();
    }
    return run;
}

void Alarm::EndRunLocked() {
    run_->Set();
    onTick_ = Step();
    if (deferred_) {
        cancelled_.push_back(*deferred_);
        deferred_.reset();
    }
}

bool Alarm::DeferFor(const Run& run, std::int64_t wallDueMicros, std::int64_t delayMs, const Step& then) {
    ScopedLock lock(mutex_);
    if (run != run_ || run->IsSet()) return false;
    deferred_.reset(new Deferred());
    deferred_->run = run;
    deferred_->wallDue = wallDueMicros;
    deferred_->monotonicDue = clock_.MonotonicMicroseconds() + std::max<std::int64_t>(delayMs, 0) * 1000;
    deferred_->then = then;
    // Called from a tick: the wake after the tick is planned when it ends.
    // Called from elsewhere (a quiet run): plan it now.
    if (!onTick_) ScheduleNextLocked(run);
    return true;
}

std::int64_t Alarm::Due() const {
    ScopedLock lock(mutex_);
    return due_;
}

void Alarm::SetDue(std::int64_t wallMicros) {
    ScopedLock lock(mutex_);
    due_ = wallMicros;
}

bool Alarm::SetDueFor(const Run& run, std::int64_t wallMicros) {
    ScopedLock lock(mutex_);
    if (run != run_ || run->IsSet()) return false;
    due_ = wallMicros;
    return true;
}

bool Alarm::EverStarted() const {
    ScopedLock lock(mutex_);
    return everStarted_;
}

bool Alarm::IsCurrent(const Run& run) const {
    ScopedLock lock(mutex_);
    return run == run_ && !run->IsSet();
}

bool Alarm::HasDeferred() const {
    ScopedLock lock(mutex_);
    return deferred_ != nullptr;
}

bool Alarm::DeferredDueLocked() const {
    return deferred_ && (clock_.MonotonicMicroseconds() >= deferred_->monotonicDue ||
                         clock_.WallMicroseconds() >= deferred_->wallDue);
}

// What this wake runs: a due deferred step, else a tick (none while a step
// is deferred). Steps of ended runs are handed out to run first.
bool Alarm::TakeWorkLocked(const Run& run, Step& work, Run& workRun, std::vector<Deferred>& cancelled) {
    cancelled.swap(cancelled_);
    if (run != run_ || run->IsSet()) return false;
    if (DeferredDueLocked()) {
        work = deferred_->then;
        workRun = deferred_->run;
        deferred_.reset();
        return true;
    }
    if (deferred_ || !onTick_) return false;
    const std::int64_t now = clock_.MonotonicMicroseconds();
    if (now < tickDue_) return false;
    tickDue_ = now + intervalMs_ * 1000;
    work = onTick_;
    workRun = run;
    return true;
}

// Plans the lane's next wake for `run` (mutex_ held): the next tick, or
// sooner the deferred step's monotonic due time. The wall due time is seen
// at a tick, or at once after a step of the clock (the manager plans again).
void Alarm::ScheduleNextLocked(const Run& run) {
    if (run != run_ || run->IsSet()) return;
    const std::int64_t now = clock_.MonotonicMicroseconds();
    // Ticks missed while a step waited or a flow ran are left out; the
    // ticks go on at their own pace.
    if (onTick_ && !deferred_ && intervalMs_ > 0 && tickDue_ <= now) {
        const std::int64_t interval = intervalMs_ * 1000;
        tickDue_ += ((now - tickDue_) / interval + 1) * interval;
    }
    std::int64_t delayMs = onTick_ ? std::max<std::int64_t>((tickDue_ - now + 999) / 1000, 0) : -1;
    if (deferred_) {
        const std::int64_t left = (deferred_->monotonicDue - now + 999) / 1000;
        const std::int64_t soonest = std::max<std::int64_t>(left, 0);
        // A quiet run has no ticks: it looks at the wall clock once a
        // second while it waits, so a wall clock that passes the due time
        // is seen soon.
        const std::int64_t look = onTick_ ? intervalMs_ : 1000;
        delayMs = std::min(soonest, look);
    }
    if (delayMs < 0) return;
    timers_.WakeAfter(delayMs, [this, run] { OnWake(run); });
}

void Alarm::OnWake(const Run& run) {
    Step work;
    Run workRun;
    std::vector<Deferred> cancelled;
    bool take = false;
    {
        ScopedLock lock(mutex_);
        take = TakeWorkLocked(run, work, workRun, cancelled);
    }
    for (const Deferred& step : cancelled) step.then(step.run);
    if (take) work(workRun);
    ScopedLock lock(mutex_);
    ScheduleNextLocked(run);
}

} // namespace brvo
