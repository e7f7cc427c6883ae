#include "sim/RatePlan.h"

namespace brvo {
namespace sim {

namespace {

const int kBandWidth = 33;
const int kSteps = 16;
const int kForeignBase = 120;
const int kForeignSpan = 30;
const int kBrokenBase = 200;
const int kBrokenSpan = 50;

// A spread of values per plant and half hour, the same on every run.
std::uint64_t Mix(std::int64_t plant, std::int64_t slot) {
    std::uint64_t value = static_cast<std::uint64_t>(slot / 1800) * 0x9E3779B97F4A7C15ull +
                          static_cast<std::uint64_t>(plant + 1) * 0xC2B2AE3D27D4EB4Full;
    value ^= value >> 29;
    value *= 0xBF58476D1CE4E5B9ull;
    value ^= value >> 32;
    return value;
}

int BandBase(int plant) {
    return 1 + kBandWidth * plant;
}

} // namespace

int RatePlan::UpdateRate(int plant, std::int64_t slot) {
    return BandBase(plant) + 2 * static_cast<int>(Mix(plant, slot) % kSteps);
}

int RatePlan::FixedRate(int plant, std::int64_t slot) {
    return BandBase(plant) + 1 + 2 * static_cast<int>(Mix(plant + kPlants, slot) % kSteps);
}

int RatePlan::ForeignRate(std::int64_t slot) {
    return kForeignBase + static_cast<int>(Mix(-2, slot) % kForeignSpan);
}

int RatePlan::BrokenRate(std::int64_t slot) {
    return kBrokenBase + static_cast<int>(Mix(-3, slot) % kBrokenSpan);
}

RatePlan::Origin RatePlan::OriginOf(int rate, int& plant) {
    plant = -1;
    if (rate >= kBrokenBase) return Origin::kBroken;
    if (rate >= kForeignBase) return Origin::kForeign;
    if (rate < 1 || rate >= BandBase(kPlants)) return Origin::kUnknown;
    plant = (rate - 1) / kBandWidth;
    return (rate - BandBase(plant)) % 2 == 0 ? Origin::kUpdate : Origin::kFixed;
}

bool RatePlan::IsServed(int plant, std::int64_t slot, int rate) {
    return rate == UpdateRate(plant, slot) || rate == FixedRate(plant, slot);
}

std::string RatePlan::Describe(int rate) {
    int plant = -1;
    switch (OriginOf(rate, plant)) {
    case Origin::kUpdate:
        return "an update schedule rate of plant #" + std::to_string(plant);
    case Origin::kFixed:
        return "a fixed schedule rate of plant #" + std::to_string(plant);
    case Origin::kForeign:
        return "a rate of another plant's answer";
    case Origin::kBroken:
        return "a rate of a payload that must be refused";
    default:
        return "a rate the server never served";
    }
}

} // namespace sim
} // namespace brvo
