#include "sim/IdealDevice.h"

#include "sim/ServerDay.h"
#include "sim/ServerScript.h"

#include <algorithm>

namespace brvo {
namespace sim {

IdealDevice::IdealDevice(const ServerScript& script)
    : script_(script), plant_(-1), coveredUntil_(0), nextDue_(-1), knownFlag_(-1), requests_(0) {}

void IdealDevice::Reset(int plant) {
    plant_ = plant;
    coveredUntil_ = 0;
    fixed_.clear();
    nextDue_ = -1;
    knownFlag_ = -1;
}

void IdealDevice::Step(std::int64_t now, bool active, bool writable) {
    if (!active || !writable || plant_ < 0 || !script_.Serves(now)) return;
    coveredUntil_ = std::max(coveredUntil_, ServerDay::DayStart(ServerDay::DayOf(now) + 2));
    const int flag = script_.FlagAt(now);
    const std::int64_t first = script_.FixedFirstSlot(flag, now);
    const std::int64_t end = first + ServerScript::kFixedDays * ServerDay::kDaySeconds;
    if (fixed_.empty() || fixed_.back().first != first) fixed_.push_back(Span{first, end});
    if (nextDue_ >= 0 && now < nextDue_) return;
    ++requests_;
    nextDue_ = script_.NextUpdateTime(plant_, now);
    if (flag != knownFlag_) ++requests_;
    knownFlag_ = flag;
}

bool IdealDevice::Covers(std::int64_t t) const {
    // Asked for now: every fetch so far began before it.
    if (t < coveredUntil_) return true;
    for (const Span& span : fixed_) {
        if (t >= span.first && t < span.end) return true;
    }
    return false;
}

} // namespace sim
} // namespace brvo
