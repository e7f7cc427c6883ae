#include "util/ThreadTimerService.h"

#include "util/Clock.h"
#include "util/GuardedCall.h"
#include "util/LoggerLog.h"
#include "util/ScopedLock.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdint>

namespace brvo {

namespace {

const std::string kTag = "ThreadTimerService";

} // namespace

ThreadTimerService::ThreadTimerService(Clock& clock, const std::string& name)
    : clock_(clock), name_(name), eventFd_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      clockSetFd_(timerfd_create(CLOCK_REALTIME, TFD_CLOEXEC | TFD_NONBLOCK)), started_(false), stopping_(false),
      pending_(false), dueMonotonic_(0), lastOffset_(0) {
    thread_.setName(name);
    lastOffset_ = Offset();
    ArmClockSetWatch();
    ScopedLock lock(mutex_);
    EnsureThread();
}

ThreadTimerService::~ThreadTimerService() {
    bool started = false;
    {
        ScopedLock lock(mutex_);
        stopping_ = true;
        pending_ = false;
        task_ = Task();
        started = started_;
    }
    Notify();
    if (started) thread_.join();
    if (eventFd_ >= 0) close(eventFd_);
    if (clockSetFd_ >= 0) close(clockSetFd_);
}

// Starts the thread if it does not run yet (mutex_ held); false when it
// cannot be started.
bool ThreadTimerService::EnsureThread() {
    if (started_) return true;
    const Caught caught = GuardedCall([&] { thread_.start(*this); });
    if (caught) {
        LoggerLog::Error(kTag, caught.DescribeTagged("Timer thread [" + name_ + "] not started. "));
        return false;
    }
    started_ = true;
    return true;
}

void ThreadTimerService::WakeAfter(std::int64_t delayMs, const Task& task) {
    {
        ScopedLock lock(mutex_);
        if (stopping_) return;
        pending_ = true;
        dueMonotonic_ = clock_.MonotonicMicroseconds() + std::max<std::int64_t>(delayMs, 0) * 1000;
        task_ = task;
        EnsureThread();
    }
    Notify();
}

void ThreadTimerService::CancelWake() {
    {
        ScopedLock lock(mutex_);
        pending_ = false;
        task_ = Task();
    }
    Notify();
}

void ThreadTimerService::OnClockStep(const StepHandler& handler) {
    ScopedLock lock(mutex_);
    stepHandler_ = handler;
}

void ThreadTimerService::Notify() {
    if (eventFd_ < 0) return;
    const std::uint64_t one = 1;
    const ssize_t written = write(eventFd_, &one, sizeof one);
    (void)written;
}

// How long the thread may sleep now (mutex_ held).
int ThreadTimerService::SleepMsLocked() const {
    if (!pending_) return kLongestSleepMs;
    const std::int64_t left = dueMonotonic_ - clock_.MonotonicMicroseconds();
    if (left <= 0) return 0;
    // Rounded up, so that a wake is never run a little early.
    return static_cast<int>(std::min<std::int64_t>((left + 999) / 1000, kLongestSleepMs));
}

// Arms the timerfd so that any setting of the system clock cancels it.
void ThreadTimerService::ArmClockSetWatch() {
    if (clockSetFd_ < 0) return;
    itimerspec far = {};
    far.it_value.tv_sec = INT_MAX;
    if (timerfd_settime(clockSetFd_, TFD_TIMER_ABSTIME | TFD_TIMER_CANCEL_ON_SET, &far, nullptr) != 0) {
        close(clockSetFd_);
        clockSetFd_ = -1;
    }
}

// Reads the cancelled timerfd (a read fails with ECANCELED after a clock
// setting) and arms it again.
void ThreadTimerService::DrainClockSetWatch() {
    std::uint64_t expirations = 0;
    const ssize_t got = read(clockSetFd_, &expirations, sizeof expirations);
    (void)got;
    ArmClockSetWatch();
}

std::int64_t ThreadTimerService::Offset() const {
    return clock_.WallMicroseconds() - clock_.MonotonicMicroseconds();
}

void ThreadTimerService::CheckClockStep() {
    const std::int64_t offset = Offset();
    const std::int64_t step = offset - lastOffset_;
    lastOffset_ = offset;
    if (step <= kStepToleranceMs * 1000 && step >= -kStepToleranceMs * 1000) return;
    StepHandler handler;
    {
        ScopedLock lock(mutex_);
        handler = stepHandler_;
    }
    if (handler) handler(step);
}

void ThreadTimerService::run() {
    for (;;) {
        int sleepMs = 0;
        {
            ScopedLock lock(mutex_);
            if (stopping_) return;
            sleepMs = SleepMsLocked();
        }
        pollfd fds[2] = {{eventFd_, POLLIN, 0}, {clockSetFd_, POLLIN, 0}};
        const int ready = poll(fds, clockSetFd_ >= 0 ? 2 : 1, sleepMs);
        if (ready > 0 && (fds[0].revents & POLLIN) != 0) {
            std::uint64_t count = 0;
            const ssize_t got = read(eventFd_, &count, sizeof count);
            (void)got;
        }
        if (ready > 0 && clockSetFd_ >= 0 && (fds[1].revents & POLLIN) != 0) DrainClockSetWatch();
        CheckClockStep();
        Task task;
        {
            ScopedLock lock(mutex_);
            if (stopping_) return;
            if (!pending_ || dueMonotonic_ > clock_.MonotonicMicroseconds()) continue;
            pending_ = false;
            task.swap(task_);
        }
        const Caught caught = GuardedCall(task);
        if (caught) LoggerLog::Error(kTag, caught.DescribeTagged("Timer task failed. "));
    }
}

} // namespace brvo
