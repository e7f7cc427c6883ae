#include "sim/DeviceScript.h"

#include "sim/RatePlan.h"
#include "sim/SeededDraw.h"

#include <algorithm>

namespace brvo {
namespace sim {

namespace {

const std::uint64_t kDeviceStream = 2;
const std::int64_t kMinute = 60;
const std::int64_t kHour = 3600;
const std::int64_t kDay = 86400;

// A card fault every forty days on average, mended after ten minutes to
// two days.
const double kMeanCardGap = 40.0 * kDay;
// The clock is set wrong by one hour to three days, either way, every
// thirty days on average, and put right (as the time service does) after
// a minute to six hours.
const double kMeanClockGap = 30.0 * kDay;
// A change of the settings every forty days on average.
const double kMeanSettingsGap = 40.0 * kDay;
// A restart every ten days on average.
const double kMeanRestartGap = 10.0 * kDay;

void Add(std::vector<DeviceScript::Event>& events, std::int64_t at, DeviceScript::Action action,
         std::int64_t value = 0) {
    DeviceScript::Event event;
    event.at = at;
    event.action = action;
    event.value = value;
    events.push_back(event);
}

void DrawCardFaults(SeededDraw& draw, std::int64_t begin, std::int64_t end, std::vector<DeviceScript::Event>& out) {
    for (std::int64_t at = begin + draw.Exponential(kMeanCardGap); at < end;) {
        const bool full = draw.Chance(0.6);
        const std::int64_t mended = at + draw.LogUniform(10 * kMinute, 2 * kDay);
        Add(out, at, full ? DeviceScript::Action::kCardFull : DeviceScript::Action::kCardReadOnly);
        Add(out, mended, DeviceScript::Action::kCardMended);
        at = mended + draw.Exponential(kMeanCardGap);
    }
}

void DrawClockSteps(SeededDraw& draw, std::int64_t begin, std::int64_t end, std::vector<DeviceScript::Event>& out) {
    for (std::int64_t at = begin + draw.Exponential(kMeanClockGap); at < end;) {
        const std::int64_t error = draw.LogUniform(kHour, 3 * kDay) * (draw.Chance(0.5) ? 1 : -1);
        const std::int64_t right = at + draw.LogUniform(kMinute, 6 * kHour);
        Add(out, at, DeviceScript::Action::kClockWrong, error);
        Add(out, right, DeviceScript::Action::kClockRight);
        at = right + draw.Exponential(kMeanClockGap);
    }
}

void DrawSettings(SeededDraw& draw, std::int64_t begin, std::int64_t end, std::vector<DeviceScript::Event>& out) {
    std::int64_t plant = 0;
    for (std::int64_t at = begin + draw.Exponential(kMeanSettingsGap); at < end;) {
        const std::int64_t pick = draw.Uniform(0, 9);
        std::int64_t over = at;
        if (pick < 5) {
            plant = (plant + draw.Uniform(1, RatePlan::kPlants - 1)) % RatePlan::kPlants;
            Add(out, at, DeviceScript::Action::kPlantChange, plant);
        } else if (pick < 8) {
            over = at + draw.LogUniform(kHour, 5 * kDay);
            Add(out, at, DeviceScript::Action::kStandAloneOn);
            Add(out, over, DeviceScript::Action::kStandAloneOff);
        } else {
            over = at + draw.LogUniform(10 * kMinute, 2 * kDay);
            Add(out, at, DeviceScript::Action::kPlantRemoved);
            Add(out, over, DeviceScript::Action::kPlantRestored);
        }
        at = over + draw.Exponential(kMeanSettingsGap);
    }
}

void DrawRestarts(SeededDraw& draw, std::int64_t begin, std::int64_t end, std::vector<DeviceScript::Event>& out) {
    for (std::int64_t at = begin + draw.Exponential(kMeanRestartGap); at < end;
         at += draw.Exponential(kMeanRestartGap)) {
        Add(out, at, DeviceScript::Action::kRestart);
    }
}

} // namespace

DeviceScript::DeviceScript(std::uint64_t seed, std::int64_t begin, std::int64_t end) {
    SeededDraw draw(seed, kDeviceStream);
    DrawCardFaults(draw, begin, end, events_);
    DrawClockSteps(draw, begin, end, events_);
    DrawSettings(draw, begin, end, events_);
    DrawRestarts(draw, begin, end, events_);
    std::stable_sort(events_.begin(), events_.end(), [](const Event& a, const Event& b) { return a.at < b.at; });
}

int DeviceScript::Count(Action action) const {
    return static_cast<int>(
        std::count_if(events_.begin(), events_.end(), [action](const Event& event) { return event.action == action; }));
}

const char* DeviceScript::Name(Action action) {
    static const char* const kNames[] = {"card full",     "card read-only", "card mended",    "clock wrong",
                                         "clock right",   "plant change",   "stand-alone on", "stand-alone off",
                                         "plant removed", "plant restored", "restart"};
    return kNames[static_cast<int>(action)];
}

} // namespace sim
} // namespace brvo
