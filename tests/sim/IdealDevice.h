// The yardstick of one seed: a device that knows the server's script and
// its own card. For coverage it fetches whenever the server would answer
// rightly and its card can be written, so a slot is covered whenever any
// device could have stored it: through the end of the next server day
// after the last such moment, and the fixed schedule of the flag in force
// then. For requests it asks as rarely as a device can: the update
// schedule once at each of the server's next update times (or at the first
// moment after it that the server answers), the fixed schedule once per
// flag it learns, and both at once after a change of plant.
#ifndef BRVO_TESTS_SIM_IDEALDEVICE_H
#define BRVO_TESTS_SIM_IDEALDEVICE_H

#include <cstdint>
#include <vector>

namespace brvo {
namespace sim {

class ServerScript;

class IdealDevice {
public:
    // Knows `script`, which outlives it.
    explicit IdealDevice(const ServerScript& script);

    // Plant `plant` is configured now, and nothing is stored for it.
    void Reset(int plant);
    // Acts at the true time `now`: only while `active` (a plant is set and
    // the device is not stand-alone), when the server answers rightly and
    // `writable` (the card takes writes).
    void Step(std::int64_t now, bool active, bool writable);
    // Whether a slot for `t`, the true time now, is stored.
    bool Covers(std::int64_t t) const;
    // Requests made so far.
    std::int64_t Requests() const { return requests_; }

private:
    struct Span {
        std::int64_t first = 0;
        std::int64_t end = 0;
    };

    const ServerScript& script_;
    int plant_;
    // Update schedule slots are stored up to here (exclusive).
    std::int64_t coveredUntil_;
    // Fixed schedules stored, by the span of their slots.
    std::vector<Span> fixed_;
    // When the next update schedule is asked for; -1: at once.
    std::int64_t nextDue_;
    int knownFlag_;
    std::int64_t requests_;
};

} // namespace sim
} // namespace brvo

#endif
