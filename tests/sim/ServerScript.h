// What the schedule server does over the simulated years of one seed, drawn
// from the seed before the run: spells of faults (refused connections,
// time-outs, 4xx and 5xx answers, 429/503 with a Retry-After, truncated or
// badly summed payloads, answers for another plant), each failing all or
// only some of the requests made during it; the fixed schedule update flag
// and its changes; the plants it knows with their update times. Times are
// the true time (epoch seconds), which the device's clock shows only while
// it is right. A busy server's Retry-After is its guess of when it takes
// requests again: the rest of the spell, guessed short or long (a quarter
// to one and a half of it), at least a minute.
#ifndef BRVO_TESTS_SIM_SERVERSCRIPT_H
#define BRVO_TESTS_SIM_SERVERSCRIPT_H

#include "sim/RatePlan.h"

#include <cstdint>
#include <string>
#include <vector>

namespace brvo {
namespace sim {

class ServerScript {
public:
    // What goes wrong in a spell.
    enum class Fault {
        kRefused,
        kTimeout,
        kClientError,
        kServerError,
        kBusy,
        kTruncated,
        kBadChecksum,
        kOtherPlant,
    };
    // Number of the kinds above.
    static constexpr int kFaultKinds = 8;

    // One spell of faults: [begin, end).
    struct Episode {
        std::int64_t begin = 0;
        std::int64_t end = 0;
        Fault fault = Fault::kRefused;
        // Share of the requests during the spell that fail (1: all).
        double share = 1.0;
        // HTTP status of kClientError, kServerError and kBusy.
        int status = 0;
    };

    // The mean time between two spells by default, days.
    static constexpr double kMeanSpellGapDays = 3.0;

    // Draws the script of `seed` for the true times [begin, end), with a
    // spell of faults every `meanSpellGapDays` on average.
    ServerScript(std::uint64_t seed, std::int64_t begin, std::int64_t end, double meanSpellGapDays = kMeanSpellGapDays);

    // The spell at `t`; null when the server answers rightly.
    const Episode* EpisodeAt(std::int64_t t) const;
    // Whether a request at `t` may get a right answer: no spell, or one
    // that fails only some requests.
    bool Serves(std::int64_t t) const;
    // The fixed schedule update flag (0-9) in force at `t`.
    int FlagAt(std::int64_t t) const;
    // The first slot (epoch seconds) of the fixed schedule of `flag` as
    // served at `t`: the server day after the flag came in. Its slots
    // cover kFixedDays days.
    std::int64_t FixedFirstSlot(int flag, std::int64_t t) const;
    static constexpr int kFixedDays = 7;
    // The Retry-After a busy server names at `t` in `episode`, given a
    // `guess` in [0, 1) (how far off it is).
    static std::int64_t RetryAfter(const Episode& episode, std::int64_t t, double guess);
    // The next time after `t` at which a spell begins or ends or the flag
    // changes; the script's end when none.
    std::int64_t NextChangeAfter(std::int64_t t) const;

    // The plants the server knows, by index (0 .. RatePlan::kPlants - 1).
    const std::string& PlantId(int plant) const;
    // The index of `plantId`; -1 for a plant the server does not know.
    int PlantIndex(const std::string& plantId) const;
    // The plant whose answers the server sends by mistake in kOtherPlant.
    const std::string& ForeignPlantId() const { return foreignPlantId_; }
    // The server's next update time for `plant` asked at `t`: the next
    // server day at the plant's own time.
    std::int64_t NextUpdateTime(int plant, std::int64_t t) const;

    // The spells, in time order.
    const std::vector<Episode>& Episodes() const { return episodes_; }
    // How many flag changes the script holds.
    int FlagChanges() const { return static_cast<int>(flags_.size()) - 1; }
    // A name for `fault`, for reports.
    static const char* Name(Fault fault);

private:
    struct FlagChange {
        std::int64_t at = 0;
        int flag = 0;
    };

    std::vector<Episode> episodes_;
    std::vector<FlagChange> flags_;
    std::vector<std::string> plantIds_;
    std::vector<int> updateMinutes_;
    std::string foreignPlantId_;
    std::int64_t end_;
};

} // namespace sim
} // namespace brvo

#endif
