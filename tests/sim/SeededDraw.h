// The simulation's only source of chance: every draw of one seed comes from
// one stream, so a seed replays exactly. The numbers are made from the
// generator's raw output, not through the standard distributions, whose
// results may differ between standard libraries.
#ifndef BRVO_TESTS_SIM_SEEDEDDRAW_H
#define BRVO_TESTS_SIM_SEEDEDDRAW_H

#include <cstdint>
#include <random>

namespace brvo {
namespace sim {

class SeededDraw {
public:
    // A stream for `seed`; `stream` tells apart independent streams of one
    // seed (the server's, the device's), so that adding draws to one does
    // not move the other.
    SeededDraw(std::uint64_t seed, std::uint64_t stream);

    // A whole number in [low, high].
    std::int64_t Uniform(std::int64_t low, std::int64_t high);
    // A number in [0, 1).
    double Fraction();
    // True with probability `p`.
    bool Chance(double p);
    // A number in [low, high] whose logarithm is uniform: as many short as
    // long spans per factor of ten.
    std::int64_t LogUniform(std::int64_t low, std::int64_t high);
    // The wait to the next of events that come `meanSeconds` apart on
    // average, at random (exponential), at least one second.
    std::int64_t Exponential(double meanSeconds);

private:
    std::mt19937_64 engine_;
};

} // namespace sim
} // namespace brvo

#endif
