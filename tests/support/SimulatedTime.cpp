#include "support/SimulatedTime.h"

#include <algorithm>
#include <atomic>

namespace brvo {
namespace test {

namespace {

// Wakes set at one instant run in the order they were set.
std::atomic<std::uint64_t> nextOrder(0);

} // namespace

SimulatedTime::SimulatedTime(std::int64_t wallMicros) : monotonic_(0), wallOffset_(wallMicros) {}

SimulatedTime::~SimulatedTime() = default;

std::int64_t SimulatedTime::WallMicroseconds() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return monotonic_ + wallOffset_;
}

std::int64_t SimulatedTime::MonotonicMicroseconds() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return monotonic_;
}

TimerService& SimulatedTime::NewLane() {
    std::lock_guard<std::mutex> lock(mutex_);
    lanes_.emplace_back(new SimulatedLane(*this));
    return *lanes_.back();
}

// Runs the earliest wake due at or before `limit`, moving the clock to it;
// false when there is none.
bool SimulatedTime::RunNextBefore(std::int64_t limit) {
    TimerService::Task task;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        SimulatedLane* first = nullptr;
        for (const auto& lane : lanes_) {
            if (!lane->pending_ || lane->due_ > limit) continue;
            if (first == nullptr || lane->due_ < first->due_ ||
                (lane->due_ == first->due_ && lane->order_ < first->order_))
                first = lane.get();
        }
        if (first == nullptr) return false;
        monotonic_ = std::max(monotonic_, first->due_);
        first->pending_ = false;
        task.swap(first->task_);
    }
    if (task) task();
    return true;
}

void SimulatedTime::Advance(std::int64_t ms) {
    const std::int64_t target = MonotonicMicroseconds() + ms * 1000;
    while (RunNextBefore(target)) {
    }
    std::lock_guard<std::mutex> lock(mutex_);
    monotonic_ = std::max(monotonic_, target);
}

bool SimulatedTime::AdvanceUntil(const std::function<bool()>& done, std::int64_t maxMs) {
    const std::int64_t target = MonotonicMicroseconds() + maxMs * 1000;
    if (done()) return true;
    while (RunNextBefore(target)) {
        if (done()) return true;
    }
    std::lock_guard<std::mutex> lock(mutex_);
    monotonic_ = std::max(monotonic_, target);
    return done();
}

void SimulatedTime::StepWall(std::int64_t micros) {
    std::vector<TimerService::StepHandler> handlers;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        wallOffset_ += micros;
        for (const auto& lane : lanes_) {
            if (lane->stepHandler_) handlers.push_back(lane->stepHandler_);
        }
    }
    for (const auto& handler : handlers) handler(micros);
}

void SimulatedTime::RunDue() {
    while (RunNextBefore(MonotonicMicroseconds())) {
    }
}

std::int64_t SimulatedTime::NextWake() const {
    std::lock_guard<std::mutex> lock(mutex_);
    std::int64_t next = -1;
    for (const auto& lane : lanes_) {
        if (lane->pending_ && (next < 0 || lane->due_ < next)) next = lane->due_;
    }
    return next;
}

SimulatedLane::SimulatedLane(SimulatedTime& time) : time_(time), pending_(false), due_(0), order_(0) {}

void SimulatedLane::WakeAfter(std::int64_t delayMs, const Task& task) {
    std::lock_guard<std::mutex> lock(time_.mutex_);
    pending_ = true;
    due_ = time_.monotonic_ + std::max<std::int64_t>(delayMs, 0) * 1000;
    order_ = ++nextOrder;
    task_ = task;
}

void SimulatedLane::CancelWake() {
    std::lock_guard<std::mutex> lock(time_.mutex_);
    pending_ = false;
    task_ = Task();
}

void SimulatedLane::OnClockStep(const StepHandler& handler) {
    std::lock_guard<std::mutex> lock(time_.mutex_);
    stepHandler_ = handler;
}

} // namespace test
} // namespace brvo
