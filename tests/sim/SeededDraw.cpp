#include "sim/SeededDraw.h"

#include <algorithm>
#include <cmath>

namespace brvo {
namespace sim {

SeededDraw::SeededDraw(std::uint64_t seed, std::uint64_t stream)
    : engine_(seed * 0x9E3779B97F4A7C15ull + stream * 0xD1B54A32D192ED03ull + 1) {}

std::int64_t SeededDraw::Uniform(std::int64_t low, std::int64_t high) {
    if (high <= low) return low;
    const std::uint64_t span = static_cast<std::uint64_t>(high - low) + 1;
    return low + static_cast<std::int64_t>(engine_() % span);
}

double SeededDraw::Fraction() {
    return static_cast<double>(engine_() >> 11) / 9007199254740992.0;
}

bool SeededDraw::Chance(double p) {
    return Fraction() < p;
}

std::int64_t SeededDraw::LogUniform(std::int64_t low, std::int64_t high) {
    if (high <= low) return low;
    const double lower = std::log(static_cast<double>(low));
    const double upper = std::log(static_cast<double>(high));
    const double value = std::exp(lower + (upper - lower) * Fraction());
    return std::min(high, std::max(low, static_cast<std::int64_t>(std::llround(value))));
}

std::int64_t SeededDraw::Exponential(double meanSeconds) {
    const double wait = -std::log(1.0 - Fraction()) * meanSeconds;
    return std::max<std::int64_t>(1, static_cast<std::int64_t>(wait));
}

} // namespace sim
} // namespace brvo
