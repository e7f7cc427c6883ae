#include "sim/Report.h"

#include "sim/ServerScript.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <utility>

namespace brvo {
namespace sim {

namespace {

const char kResultTag[] = "result";
const char kFailureKey[] = " failure=";

double Ratio(double part, double whole) {
    return whole > 0 ? part / whole : 1.0;
}

std::string Format(const char* format, double value) {
    char text[64];
    std::snprintf(text, sizeof text, format, value);
    return text;
}

double CoverageRatio(const SeedRun::Outcome& outcome) {
    return Ratio(static_cast<double>(outcome.coveredSeconds), static_cast<double>(outcome.idealCoveredSeconds));
}

double RequestRatio(const SeedRun::Outcome& outcome) {
    return Ratio(static_cast<double>(outcome.requests), static_cast<double>(outcome.idealRequests));
}

bool Stuck(const SeedRun::Outcome& outcome) {
    return outcome.failure.compare(0, 6, "stuck:") == 0;
}

// The sums of every seed.
struct Sums {
    double days = 0;
    double counted = 0;
    double covered = 0;
    double ideal = 0;
    double stale = 0;
    double late = 0;
    std::array<double, ExchangeLedger::kAnswerKinds> lateAfter{};
    double requests = 0;
    double idealRequests = 0;
    double seconds = 0;
    double slowest = 0;
    double worstCoverage = 1.0;
    int failed = 0;
    int stuck = 0;
};

Sums SumOf(const std::vector<SeedRun::Outcome>& outcomes) {
    Sums sums;
    for (const SeedRun::Outcome& outcome : outcomes) {
        sums.days += outcome.simulatedDays;
        sums.counted += static_cast<double>(outcome.countedSeconds);
        sums.covered += static_cast<double>(outcome.coveredSeconds);
        sums.ideal += static_cast<double>(outcome.idealCoveredSeconds);
        sums.stale += static_cast<double>(outcome.staleSeconds);
        sums.late += static_cast<double>(outcome.lateSeconds);
        for (std::size_t answer = 0; answer < sums.lateAfter.size(); ++answer) {
            sums.lateAfter[answer] += static_cast<double>(outcome.lateAfter[answer]);
        }
        sums.requests += static_cast<double>(outcome.requests);
        sums.idealRequests += static_cast<double>(outcome.idealRequests);
        sums.seconds += outcome.realSeconds;
        sums.slowest = std::max(sums.slowest, outcome.realSeconds);
        sums.worstCoverage = std::min(sums.worstCoverage, CoverageRatio(outcome));
        if (!outcome.failure.empty()) ++sums.failed;
        if (Stuck(outcome)) ++sums.stuck;
    }
    return sums;
}

// The late time by the answer to the device's last update schedule
// request, in hours, largest first.
std::string LateCauses(const Sums& sums) {
    std::vector<std::pair<double, std::string>> causes;
    for (std::size_t answer = 0; answer < sums.lateAfter.size(); ++answer) {
        const std::string name = answer == 0 ? "a right answer not stored"
                                             : ServerScript::Name(static_cast<ServerScript::Fault>(answer - 1));
        if (sums.lateAfter[answer] > 0) causes.emplace_back(sums.lateAfter[answer] / 3600.0, name);
    }
    std::sort(causes.rbegin(), causes.rend());
    std::string text = "after";
    for (const auto& cause : causes) text += " " + cause.second + " " + Format("%.0f h", cause.first) + ",";
    if (!causes.empty()) text.pop_back();
    return text;
}

} // namespace

void Report::Add(const SeedRun::Outcome& outcome) {
    outcomes_.push_back(outcome);
}

std::string Report::SeedLine(const SeedRun::Outcome& outcome) {
    const double counted = static_cast<double>(outcome.countedSeconds);
    const double days = outcome.simulatedDays > 0 ? outcome.simulatedDays : 1.0;
    std::ostringstream line;
    line << "seed " << outcome.seed << ": " << (outcome.failure.empty() ? "ok" : "FAILED") << " "
         << Format("%.2f", outcome.realSeconds) << " s, " << Format("%.0f", outcome.simulatedDays) << " days"
         << ", coverage " << Format("%.3f%%", 100.0 * Ratio(static_cast<double>(outcome.coveredSeconds), counted))
         << " (ideal " << Format("%.3f%%", 100.0 * Ratio(static_cast<double>(outcome.idealCoveredSeconds), counted))
         << ", ratio " << Format("%.4f", CoverageRatio(outcome)) << ")"
         << ", requests/day " << Format("%.3f", static_cast<double>(outcome.requests) / days) << " (ideal "
         << Format("%.3f", static_cast<double>(outcome.idealRequests) / days) << ", ratio "
         << Format("%.3f", RequestRatio(outcome)) << ")"
         << ", late " << Format("%.1f h", static_cast<double>(outcome.lateSeconds) / 3600.0) << ", stale "
         << Format("%.1f h", static_cast<double>(outcome.staleSeconds) / 3600.0) << "; " << outcome.serverSpells
         << " server spells, " << outcome.cardFaults << " card faults, " << outcome.clockSteps << " clock steps, "
         << outcome.settingsChanges << " settings changes, " << outcome.restarts << " restarts";
    if (!outcome.detail.empty()) line << "\n  " << outcome.detail;
    if (!outcome.failure.empty()) line << "\n  " << outcome.failure;
    return line.str();
}

std::string Report::ResultLine(const SeedRun::Outcome& outcome) {
    std::ostringstream line;
    line << kResultTag << " " << outcome.seed << " " << outcome.realSeconds << " " << outcome.simulatedDays << " "
         << outcome.countedSeconds << " " << outcome.coveredSeconds << " " << outcome.idealCoveredSeconds << " "
         << outcome.staleSeconds << " " << outcome.lateSeconds << " " << outcome.requests << " "
         << outcome.idealRequests;
    for (const std::int64_t seconds : outcome.lateAfter) line << " " << seconds;
    line << kFailureKey << outcome.failure;
    return line.str();
}

bool Report::Read(const std::string& path, std::string& error) {
    std::ifstream in(path);
    if (!in) {
        error = "cannot read " + path;
        return false;
    }
    std::string text;
    while (std::getline(in, text)) {
        const std::size_t failure = text.find(kFailureKey);
        std::istringstream fields(text.substr(0, failure));
        std::string tag;
        SeedRun::Outcome outcome;
        fields >> tag >> outcome.seed >> outcome.realSeconds >> outcome.simulatedDays >> outcome.countedSeconds >>
            outcome.coveredSeconds >> outcome.idealCoveredSeconds >> outcome.staleSeconds >> outcome.lateSeconds >>
            outcome.requests >> outcome.idealRequests;
        for (std::int64_t& seconds : outcome.lateAfter) fields >> seconds;
        if (tag != kResultTag || failure == std::string::npos || fields.fail()) {
            error = path + ": not a result line: " + text;
            return false;
        }
        outcome.failure = text.substr(failure + std::string(kFailureKey).size());
        outcomes_.push_back(outcome);
    }
    return true;
}

std::string Report::Totals() const {
    const Sums sums = SumOf(outcomes_);
    const double seeds = outcomes_.empty() ? 1.0 : static_cast<double>(outcomes_.size());
    const double days = sums.days > 0 ? sums.days : 1.0;
    std::ostringstream text;
    text << "total: " << outcomes_.size() << " seeds, " << Format("%.0f", sums.days) << " simulated days, "
         << sums.failed << " failed, " << sums.stuck << " stuck\n"
         << "  coverage " << Format("%.3f%%", 100.0 * Ratio(sums.covered, sums.counted)) << " (ideal device "
         << Format("%.3f%%", 100.0 * Ratio(sums.ideal, sums.counted)) << "), ratio "
         << Format("%.4f", Ratio(sums.covered, sums.ideal)) << ", worst seed " << Format("%.4f", sums.worstCoverage)
         << "; stale slot " << Format("%.4f%%", 100.0 * Ratio(sums.stale, sums.counted)) << " of the time\n"
         << "  late (no slot while the ideal device had one, the server answered and the card took writes) "
         << Format("%.3f%%", 100.0 * Ratio(sums.late, sums.counted)) << " of the time; " << LateCauses(sums) << "\n"
         << "  requests per device per day " << Format("%.3f", sums.requests / days) << " (ideal device "
         << Format("%.3f", sums.idealRequests / days) << "), ratio "
         << Format("%.3f", Ratio(sums.requests, sums.idealRequests)) << "\n"
         << "  real time per seed " << Format("%.2f s", sums.seconds / seeds) << " (slowest "
         << Format("%.2f s", sums.slowest) << ")";
    return text.str();
}

bool Report::AnyFailed() const {
    return SumOf(outcomes_).failed > 0;
}

bool Report::MeetsTargets(std::vector<std::string>& misses) const {
    const Sums sums = SumOf(outcomes_);
    for (const SeedRun::Outcome& outcome : outcomes_) {
        if (!outcome.failure.empty()) misses.push_back("seed " + std::to_string(outcome.seed) + ": " + outcome.failure);
    }
    const double coverage = Ratio(sums.covered, sums.ideal);
    if (coverage < kLeastCoverageRatio) {
        misses.push_back("coverage ratio " + Format("%.4f", coverage) + " is below " +
                         Format("%.2f", kLeastCoverageRatio));
    }
    const double requests = Ratio(sums.requests, sums.idealRequests);
    if (requests > kMostRequestRatio) {
        misses.push_back("requests ratio " + Format("%.3f", requests) + " is above " +
                         Format("%.2f", kMostRequestRatio));
    }
    return misses.empty();
}

} // namespace sim
} // namespace brvo
