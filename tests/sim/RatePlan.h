// The output rates the scripted server hands out, chosen so that a stored
// rate tells where it came from. Each of the seed's plants has a band of
// its own below 100 (update schedule rates at even steps in it, fixed
// schedule rates at odd ones), answers of another plant use a band above
// 100 and broken payloads one above 200: one look at a stored row tells
// whether it was fetched rightly for the plant configured now. The rate of
// each slot is a fixed function of the plant and the slot, so the sim
// knows what it served for every slot.
#ifndef BRVO_TESTS_SIM_RATEPLAN_H
#define BRVO_TESTS_SIM_RATEPLAN_H

#include <cstdint>
#include <string>

namespace brvo {
namespace sim {

class RatePlan {
public:
    // Plants a seed may configure (bands of the plan).
    static constexpr int kPlants = 3;

    // Where a stored rate came from.
    enum class Origin { kUpdate, kFixed, kForeign, kBroken, kUnknown };

    // The rate served for `slot` (epoch seconds) of plant `plant` in its
    // update schedule, in its fixed schedule, in an answer of another
    // plant, and in a payload that must be refused.
    static int UpdateRate(int plant, std::int64_t slot);
    static int FixedRate(int plant, std::int64_t slot);
    static int ForeignRate(std::int64_t slot);
    static int BrokenRate(std::int64_t slot);

    // The origin of `rate`, and for kUpdate and kFixed the plant whose
    // band it lies in.
    static Origin OriginOf(int rate, int& plant);
    // Whether `rate` stored for `slot` is one the server served for
    // `plant`, from either schedule.
    static bool IsServed(int plant, std::int64_t slot, int rate);
    // A short text naming the origin of `rate` for failure messages.
    static std::string Describe(int rate);
};

} // namespace sim
} // namespace brvo

#endif
