// pvoc-schedule-sim: runs the real schedule update manager on simulated time
// against a scripted schedule server over simulated years of faults, one
// seed after another, and checks that the update schedule is never stuck
// (see SeedRun). Runs as root in the sandbox:
//
//   tests/support/run-in-sandbox BUILD/tests/sim/pvoc-schedule-sim --seed 17
//
// Every seed replays exactly by its number.
#include "sim/Report.h"
#include "sim/SeedRun.h"
#include "support/TestRoot.h"

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <streambuf>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

using brvo::sim::Report;
using brvo::sim::SeedRun;

const char kUsage[] = "usage: pvoc-schedule-sim [options]          run seeds (root, in tests/support/run-in-sandbox)\n"
                      "       pvoc-schedule-sim --totals FILE...   add up the --results files of earlier runs\n"
                      "  --seed N         run seed N (may be given more than once)\n"
                      "  --seeds A-B      run seeds A to B\n"
                      "  --days N         simulated days per seed (default 400)\n"
                      "  --step S         longest step between two checks, simulated seconds (default 1800)\n"
                      "  --interval S     the manager's monitoring interval in seconds (default 180)\n"
                      "  --spell-gap D    mean days between two spells of server faults (default 3)\n"
                      "  --log-level L    lowest level the daemon's log writes, 0-5 (default 4)\n"
                      "  --results FILE   write each seed's result line to FILE too (for --totals)\n"
                      "                   and leave the totals to --totals\n"
                      "  --targets        fail unless the totals meet the targets too\n"
                      "  --trace          trace every event and request to standard error\n"
                      "  --detail         tell each seed's requests by kind and answer\n"
                      "Exit status: 0 when every seed kept every invariant (and, with --targets,\n"
                      "the totals met the targets), 1 otherwise, 2 on a usage error.\n";

struct Arguments {
    std::vector<std::uint64_t> seeds;
    SeedRun::Options options;
    std::string results;
    bool targets = false;
    std::vector<std::string> totals;
};

// The manager, the parser and the log echo trace to standard output; the
// sim's report goes to `report`, their traces nowhere.
class Discard : public std::streambuf {
protected:
    int overflow(int c) override { return traits_type::not_eof(c); }
    std::streamsize xsputn(const char*, std::streamsize count) override { return count; }
};

FILE* report = stdout;

// Keeps standard output for the report and sends what else is written
// there to /dev/null.
bool SetAsideStandardOutput() {
    std::fflush(stdout);
    const int kept = ::dup(STDOUT_FILENO);
    FILE* stream = kept >= 0 ? ::fdopen(kept, "w") : nullptr;
    if (stream == nullptr || std::freopen("/dev/null", "w", stdout) == nullptr) return false;
    report = stream;
    return true;
}

bool Number(const char* text, long long& value) {
    char* end = nullptr;
    value = std::strtoll(text, &end, 10);
    return end != text && *end == '\0' && value >= 0;
}

bool AddRange(const std::string& text, std::vector<std::uint64_t>& seeds) {
    const std::size_t dash = text.find('-');
    long long first = 0;
    long long last = 0;
    if (dash == std::string::npos || !Number(text.substr(0, dash).c_str(), first) ||
        !Number(text.substr(dash + 1).c_str(), last) || last < first)
        return false;
    for (long long seed = first; seed <= last; ++seed) seeds.push_back(static_cast<std::uint64_t>(seed));
    return true;
}

bool Parse(int argc, char** argv, Arguments& arguments) {
    for (int i = 1; i < argc; ++i) {
        const std::string flag = argv[i];
        long long value = 0;
        if (flag == "--targets") {
            arguments.targets = true;
        } else if (flag == "--trace") {
            arguments.options.trace = stderr;
        } else if (flag == "--detail") {
            arguments.options.detail = true;
        } else if (flag == "--totals") {
            for (++i; i < argc; ++i) arguments.totals.push_back(argv[i]);
            return !arguments.totals.empty();
        } else if (i + 1 >= argc) {
            return false;
        } else if (flag == "--seeds") {
            if (!AddRange(argv[++i], arguments.seeds)) return false;
        } else if (flag == "--results") {
            arguments.results = argv[++i];
        } else if (!Number(argv[++i], value)) {
            return false;
        } else if (flag == "--seed") {
            arguments.seeds.push_back(static_cast<std::uint64_t>(value));
        } else if (flag == "--days" && value > 0) {
            arguments.options.days = value;
        } else if (flag == "--step" && value > 0) {
            arguments.options.stepSeconds = value;
        } else if (flag == "--spell-gap" && value > 0) {
            arguments.options.meanSpellGapDays = static_cast<double>(value);
        } else if (flag == "--interval" && value > 0) {
            arguments.options.monitoringSeconds = static_cast<int>(value);
        } else if (flag == "--log-level" && value <= 5) {
            arguments.options.logLevel = static_cast<int>(value);
        } else {
            return false;
        }
    }
    return !arguments.seeds.empty();
}

int Conclude(const Report& totals, bool targets) {
    std::vector<std::string> misses;
    const bool met = totals.MeetsTargets(misses);
    std::fprintf(report, "%s\n", totals.Totals().c_str());
    for (const std::string& miss : misses) std::fprintf(report, "  miss: %s\n", miss.c_str());
    std::fflush(report);
    bool failed = false;
    for (const std::string& miss : misses) failed = failed || miss.compare(0, 5, "seed ") == 0;
    return failed || (targets && !met) ? 1 : 0;
}

int AddUp(const std::vector<std::string>& files, bool targets) {
    Report totals;
    for (const std::string& file : files) {
        std::string error;
        if (!totals.Read(file, error)) {
            std::fprintf(stderr, "pvoc-schedule-sim: %s\n", error.c_str());
            return 2;
        }
    }
    return Conclude(totals, targets);
}

int RunSeeds(const Arguments& arguments) {
    std::ofstream results;
    if (!arguments.results.empty()) results.open(arguments.results, std::ios::app);
    if (!SetAsideStandardOutput()) {
        std::perror("pvoc-schedule-sim: standard output");
        return 2;
    }
    Discard discard;
    std::streambuf* const kept = std::cout.rdbuf(&discard);
    Report totals;
    for (const std::uint64_t seed : arguments.seeds) {
        SeedRun run(seed, arguments.options);
        const SeedRun::Outcome outcome = run.Run();
        totals.Add(outcome);
        std::fprintf(report, "%s\n", Report::SeedLine(outcome).c_str());
        std::fflush(report);
        if (results.is_open()) results << Report::ResultLine(outcome) << std::endl;
    }
    // Given back before `discard` goes: the stream is flushed at the exit.
    std::cout.rdbuf(kept);
    // The totals of several such runs are added up from their results.
    if (results.is_open()) return totals.AnyFailed() ? 1 : 0;
    return Conclude(totals, arguments.targets);
}

} // namespace

int main(int argc, char** argv) {
    Arguments arguments;
    if (!Parse(argc, argv, arguments)) {
        std::fputs(kUsage, stderr);
        return 2;
    }
    if (!arguments.totals.empty()) return AddUp(arguments.totals, arguments.targets);
    if (!brvo::test::TestRoot::InSandbox()) {
        std::fprintf(stderr, "pvoc-schedule-sim: run me as root through tests/support/run-in-sandbox: I mount "
                             "over the card's database directory\n");
        return 2;
    }
    brvo::test::TestRoot::Prefix();
    return RunSeeds(arguments);
}
