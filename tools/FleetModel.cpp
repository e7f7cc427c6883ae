// pvoc-fleet: what a fleet of devices does to the schedule server around an
// outage, under RetryPolicy and under the fixed 30-minute retry the devices
// used before it. Simulated time, in one process, no sleeping.
//
// Each device has a plant ID of 26 digits (its number, zero-padded) and a
// daily update time of its own, the devices' times spread evenly over the
// day. It asks the server when its next attempt is due. For two days the
// server answers each request with success and the device's next daily
// time, except during an outage in the middle, when every request fails
// as a refused connection does (status 0, reason 1). The tool counts the
// server's requests per minute and prints, for the policy with its spread,
// the same policy without a spread and the fixed 30-minute retry: the mean
// over the whole run, the peak in the six hours after the outage and their
// ratio.
//
//   pvoc-fleet [--devices N] [--outage-minutes M] [--spread-percent P] [--check]
//
// --check exits 1 unless the peak with the spread is at most three times
// the mean.
#include "schedule/RetryPolicy.h"
#include "schedule/UpdateResult.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <iomanip>
#include <iostream>
#include <queue>
#include <string>
#include <utility>
#include <vector>

namespace brvo {
namespace {

const std::int64_t kDaySeconds = 86400;
const std::int64_t kMinuteSeconds = 60;
const std::int64_t kRunSeconds = 2 * kDaySeconds;
const std::int64_t kAfterRecoverySeconds = 6 * 3600;
// 2026-01-01 00:00:00 UTC: the run's first second.
const std::int64_t kRunStart = 1767225600;
const std::size_t kPlantIdDigits = 26;
const double kCheckRatio = 3.0;

// What the command line asks for.
struct Options {
    int devices = 10000;                             // size of the fleet
    int outageMinutes = 120;                         // length of the outage
    int spreadPercent = RetryPolicy::kSpreadPercent; // the policy's spread
    bool check = false;                              // exit 1 above kCheckRatio
};

// How a device picks its next attempt.
enum class Rule {
    kPolicy,    // RetryPolicy with the given spread
    kFixedStep, // the stored next time, stepped by 30 minutes past now
};

// One device as far as the server sees it.
struct Device {
    std::string plantId;
    std::int64_t secondOfDay = 0; // its daily update time
    std::int64_t storedNext = -1; // the server's next update time last received
    RetryPolicy::History history; // failures since the last success
};

// What one run's requests per minute sum up to.
struct Load {
    double mean = 0;           // over the whole run
    int peakAfterRecovery = 0; // busiest minute in the 6 h after the outage
};

// An attempt due: its epoch second and the device's index.
using Attempt = std::pair<std::int64_t, std::size_t>;
using AttemptQueue = std::priority_queue<Attempt, std::vector<Attempt>, std::greater<Attempt>>;

// Device `number`'s plant ID: the number, zero-padded to 26 digits.
std::string PlantId(int number) {
    const std::string digits = std::to_string(number);
    return std::string(kPlantIdDigits - std::min(digits.size(), kPlantIdDigits), '0') + digits;
}

// `count` devices whose daily times are spread evenly over the day, each
// due first at its time of the run's first day.
std::vector<Device> MakeFleet(int count) {
    std::vector<Device> fleet(static_cast<std::size_t>(count));
    for (int i = 0; i < count; ++i) {
        Device& device = fleet[static_cast<std::size_t>(i)];
        device.plantId = PlantId(i);
        device.secondOfDay = kDaySeconds * i / count;
        device.storedNext = kRunStart + device.secondOfDay;
    }
    return fleet;
}

// The device's daily time next after `now`, as the server names it.
std::int64_t NextDailyTime(const Device& device, std::int64_t now) {
    std::int64_t next = now - (now - kRunStart) % kDaySeconds + device.secondOfDay;
    while (next <= now) next += kDaySeconds;
    return next;
}

// The outage lies in the middle of the run.
std::int64_t OutageStart(const Options& options) {
    return kRunStart + (kRunSeconds - options.outageMinutes * kMinuteSeconds) / 2;
}

// The first second the server answers again.
std::int64_t OutageEnd(const Options& options) {
    return OutageStart(options) + options.outageMinutes * kMinuteSeconds;
}

// The server's answer at `now`: refused during the outage, else success.
UpdateResult Answer(const Options& options, std::int64_t now) {
    if (now >= OutageStart(options) && now < OutageEnd(options))
        return UpdateResult(FailureReason::kAccessFailed, 0, "Connection refused");
    return UpdateResult();
}

// One request of `device` at `now`; returns its next attempt.
std::int64_t Fetch(Device& device, const Options& options, Rule rule, int spreadPercent, std::int64_t now) {
    const UpdateResult result = Answer(options, now);
    device.history = RetryPolicy::Record(device.history, result);
    if (result.IsResult()) device.storedNext = NextDailyTime(device, now);
    if (rule == Rule::kFixedStep) return RetryPolicy::SteppedServerTime(device.storedNext, now);
    return RetryPolicy::NextUpdateAttempt(device.history, device.plantId, now, device.storedNext, spreadPercent);
}

// The mean over the run and the peak after the outage of `perMinute`.
Load Summarise(const std::vector<int>& perMinute, const Options& options) {
    Load load;
    std::int64_t total = 0;
    for (const int count : perMinute) total += count;
    load.mean = static_cast<double>(total) / static_cast<double>(perMinute.size());
    const std::size_t from = static_cast<std::size_t>((OutageEnd(options) - kRunStart) / kMinuteSeconds);
    const std::size_t to =
        std::min(perMinute.size(), from + static_cast<std::size_t>(kAfterRecoverySeconds / kMinuteSeconds));
    for (std::size_t minute = from; minute < to; ++minute)
        load.peakAfterRecovery = std::max(load.peakAfterRecovery, perMinute[minute]);
    return load;
}

// Two days of the fleet under `rule`, attempt by attempt in time order.
Load Simulate(const Options& options, Rule rule, int spreadPercent) {
    std::vector<Device> fleet = MakeFleet(options.devices);
    AttemptQueue due;
    for (std::size_t i = 0; i < fleet.size(); ++i) due.push(Attempt(fleet[i].storedNext, i));
    std::vector<int> perMinute(static_cast<std::size_t>(kRunSeconds / kMinuteSeconds), 0);
    const std::int64_t end = kRunStart + kRunSeconds;
    while (!due.empty() && due.top().first < end) {
        const Attempt attempt = due.top();
        due.pop();
        ++perMinute[static_cast<std::size_t>((attempt.first - kRunStart) / kMinuteSeconds)];
        due.push(Attempt(Fetch(fleet[attempt.second], options, rule, spreadPercent, attempt.first), attempt.second));
    }
    return Summarise(perMinute, options);
}

// How far the busiest minute after the outage is above the mean.
double PeakToMean(const Load& load) {
    return load.mean > 0 ? load.peakAfterRecovery / load.mean : 0;
}

// One run's numbers, one a line, each labelled with `name`.
void Print(const std::string& name, const Load& load) {
    std::cout << std::fixed << std::setprecision(2) << "mean requests per minute, " << name << ": " << load.mean << "\n"
              << "peak requests per minute in the 6 h after recovery, " << name << ": " << load.peakAfterRecovery
              << "\n"
              << "peak / mean, " << name << ": " << PeakToMean(load) << "\n";
}

// The command line into `options`; false when it is not understood.
bool ReadOptions(int argc, char** argv, Options& options) {
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        const bool hasValue = i + 1 < argc;
        if (arg == "--devices" && hasValue) {
            options.devices = std::atoi(argv[++i]);
        } else if (arg == "--outage-minutes" && hasValue) {
            options.outageMinutes = std::atoi(argv[++i]);
        } else if (arg == "--spread-percent" && hasValue) {
            options.spreadPercent = std::atoi(argv[++i]);
        } else if (arg == "--check") {
            options.check = true;
        } else {
            return false;
        }
    }
    return options.devices > 0 && options.outageMinutes >= 0 && options.outageMinutes * kMinuteSeconds <= kRunSeconds &&
           options.spreadPercent >= 0;
}

} // namespace
} // namespace brvo

int main(int argc, char** argv) {
    brvo::Options options;
    if (!brvo::ReadOptions(argc, argv, options)) {
        std::cerr << "usage: pvoc-fleet [--devices N] [--outage-minutes M] [--spread-percent P] [--check]\n";
        return 2;
    }
    const brvo::Load spread = brvo::Simulate(options, brvo::Rule::kPolicy, options.spreadPercent);
    const brvo::Load plain = brvo::Simulate(options, brvo::Rule::kPolicy, 0);
    const brvo::Load fixed = brvo::Simulate(options, brvo::Rule::kFixedStep, 0);
    std::cout << "devices: " << options.devices << "\n"
              << "outage minutes: " << options.outageMinutes << "\n"
              << "spread percent: " << options.spreadPercent << "\n";
    brvo::Print("with spread", spread);
    brvo::Print("without spread", plain);
    brvo::Print("fixed 30-minute step", fixed);
    if (options.check && brvo::PeakToMean(spread) > brvo::kCheckRatio) {
        std::cerr << "pvoc-fleet: peak after recovery above " << brvo::kCheckRatio << " times the mean\n";
        return 1;
    }
    return 0;
}
