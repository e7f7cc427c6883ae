// The numbers of a simulation: a line per seed (for people, and one for
// reading back, so that the seeds of several processes add up), and the
// totals over every seed with the targets they are held to:
//   no seed breaks an invariant (in particular none is stuck),
//   coverage is at least 99 % of the ideal device's,
//   requests per day are at most 1.5 times the ideal device's.
#ifndef BRVO_TESTS_SIM_REPORT_H
#define BRVO_TESTS_SIM_REPORT_H

#include "sim/SeedRun.h"

#include <string>
#include <vector>

namespace brvo {
namespace sim {

class Report {
public:
    static constexpr double kLeastCoverageRatio = 0.99;
    static constexpr double kMostRequestRatio = 1.5;

    // Adds the outcome of one seed.
    void Add(const SeedRun::Outcome& outcome);
    // Reads the result lines in the file at `path`; false (with the reason
    // in `error`) when it cannot be read or a line does not read.
    bool Read(const std::string& path, std::string& error);

    // A seed's line for people, and its line for Read.
    static std::string SeedLine(const SeedRun::Outcome& outcome);
    static std::string ResultLine(const SeedRun::Outcome& outcome);
    // The totals over every seed added, for people.
    std::string Totals() const;
    // Whether a seed broke an invariant.
    bool AnyFailed() const;
    // Whether the totals meet the targets; what they miss in `misses`.
    bool MeetsTargets(std::vector<std::string>& misses) const;

private:
    std::vector<SeedRun::Outcome> outcomes_;
};

} // namespace sim
} // namespace brvo

#endif
