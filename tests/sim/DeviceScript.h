// What happens to the device over the simulated years of one seed, drawn
// from the seed before the run: its card fills up or turns read-only and
// is mended later, its wall clock is set wrong by hours or days and put
// right again, its settings change (another plant, stand-alone operation
// for a while, the plant ID taken away for a while) and it restarts. Times
// are true times (epoch seconds), in order.
#ifndef BRVO_TESTS_SIM_DEVICESCRIPT_H
#define BRVO_TESTS_SIM_DEVICESCRIPT_H

#include <cstdint>
#include <vector>

namespace brvo {
namespace sim {

class DeviceScript {
public:
    // What happens.
    enum class Action {
        kCardFull,
        kCardReadOnly,
        kCardMended,
        kClockWrong,
        kClockRight,
        kPlantChange,
        kStandAloneOn,
        kStandAloneOff,
        kPlantRemoved,
        kPlantRestored,
        kRestart,
    };

    // One event: for kClockWrong the clock's error in seconds, for
    // kPlantChange the new plant's index.
    struct Event {
        std::int64_t at = 0;
        Action action = Action::kRestart;
        std::int64_t value = 0;
    };

    // Draws the events of `seed` for the true times [begin, end); plant 0
    // is configured at the start.
    DeviceScript(std::uint64_t seed, std::int64_t begin, std::int64_t end);

    // The events, in time order.
    const std::vector<Event>& Events() const { return events_; }
    // How many events of `action` the script holds.
    int Count(Action action) const;
    // A name for `action`, for traces.
    static const char* Name(Action action);

private:
    std::vector<Event> events_;
};

} // namespace sim
} // namespace brvo

#endif
