// One seed of the simulation: the real schedule update manager on
// simulated time, with a scripted server behind its gateway and a scripted
// life of the device around it (card faults, clock steps, settings
// changes, restarts), run over simulated years while the invariants are
// checked at every step:
//   never stuck      while a plant ID is set and the device is not
//                    stand-alone, an update attempt is planned, at most
//                    24 h and one monitoring interval ahead, and none
//                    left overdue for more than two intervals
//   one flow a kind  never two flows of one kind hold answers at once
//   valid rows only  no row of a refused payload or of another plant's
//                    answer is ever stored, and every stored rate is the
//                    one the server served for its slot
//   stops complete   each stop of the manager returns and parks nothing
//   target power     the target power is the rate of the stored slot
// The first broken invariant ends the seed, named with the simulated time.
// Alongside, the seed's coverage and requests are measured against an
// ideal device (IdealDevice).
#ifndef BRVO_TESTS_SIM_SEEDRUN_H
#define BRVO_TESTS_SIM_SEEDRUN_H

#include "sim/CardStorage.h"
#include "sim/DeviceScript.h"
#include "sim/ExchangeLedger.h"
#include "sim/IdealDevice.h"
#include "sim/ScheduleTable.h"
#include "sim/ScriptedGateway.h"
#include "sim/SeededDraw.h"
#include "sim/ServerScript.h"

#include <array>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

namespace brvo {

class TimerService;

namespace test {
class SimulatedTime;
}

namespace sim {

class SeedRun {
public:
    // How a seed runs.
    struct Options {
        // Simulated days.
        std::int64_t days = 400;
        // The longest step between two checks, simulated seconds.
        std::int64_t stepSeconds = 1800;
        // The manager's monitoring interval (LoggerSetting.xml).
        int monitoringSeconds = 180;
        // The mean time between two spells of server faults, days.
        double meanSpellGapDays = ServerScript::kMeanSpellGapDays;
        // The lowest level the daemon's log writes.
        int logLevel = 4;
        // Where to trace each event and request (null: nowhere).
        FILE* trace = nullptr;
        // Whether the outcome tells the requests by kind and answer.
        bool detail = false;
    };

    // What a seed showed.
    struct Outcome {
        std::uint64_t seed = 0;
        // The first broken invariant with its simulated time; empty when
        // every invariant held.
        std::string failure;
        double realSeconds = 0;
        double simulatedDays = 0;
        // Simulated seconds in which coverage counts (a plant set, not
        // stand-alone, the clock right), and those of them in which a slot
        // of the configured plant was stored for now: on the device and on
        // the ideal device. Stale: the slot for now belonged to a plant
        // configured before.
        std::int64_t countedSeconds = 0;
        std::int64_t coveredSeconds = 0;
        std::int64_t idealCoveredSeconds = 0;
        std::int64_t staleSeconds = 0;
        // Counted seconds in which the ideal device had a slot for now and
        // the device had none although the server answered rightly and the
        // card took writes: the device's own lateness.
        std::int64_t lateSeconds = 0;
        // The late seconds by the answer to the device's last update
        // schedule request (ExchangeLedger::AnsweredBy's index): a right
        // answer that was not stored, or a failure whose back-off lasted.
        std::array<std::int64_t, ExchangeLedger::kAnswerKinds> lateAfter{};
        // Requests to the schedule server: the device's, the ideal one's.
        std::int64_t requests = 0;
        std::int64_t idealRequests = 0;
        // What the seed's scripts held.
        int serverSpells = 0;
        int cardFaults = 0;
        int clockSteps = 0;
        int settingsChanges = 0;
        int restarts = 0;
        // With Options::detail: the requests by kind and by answer.
        std::string detail;
    };

    SeedRun(std::uint64_t seed, const Options& options);
    ~SeedRun();

    // Runs the seed to its end or its first broken invariant.
    Outcome Run();

private:
    SeedRun(const SeedRun&) = delete;
    SeedRun& operator=(const SeedRun&) = delete;

    bool SetUp();
    void TearDown();
    Outcome Summary() const;
    void Loop(std::int64_t end);
    std::int64_t NextStop(std::int64_t now, std::int64_t end, std::size_t nextEvent) const;
    bool StartManager();
    bool StopManager();
    bool Apply(const DeviceScript::Event& event);
    bool ApplyCard(DeviceScript::Action action);
    void ApplyClock(const DeviceScript::Event& event);
    bool ApplySettings(const DeviceScript::Event& event);
    bool NotifySettingsChange();
    bool WriteLoggerSetting();
    bool WriteSystemSetting();

    bool CheckInvariants();
    bool CheckPlanned();
    bool CheckFlows();
    bool CheckStoredRows(std::int64_t first, std::int64_t last);
    bool CheckTargetPower(const ScheduleRow& slot);
    void Count(const ScheduleRow& slot);
    void TraceGap(bool begins, const ScheduleRow& slot) const;
    std::string Detail() const;
    bool Fail(const std::string& what);
    void Trace(const std::string& what) const;

    std::int64_t TrueNow() const;
    std::int64_t DeviceNow() const;
    bool Active() const { return plant_ >= 0 && !standAlone_; }
    std::string ConfiguredPlant() const;

    const std::uint64_t seed_;
    const Options options_;
    const std::int64_t start_;
    ServerScript server_;
    DeviceScript device_;
    SeededDraw answerDraw_;
    ExchangeLedger ledger_;
    IdealDevice ideal_;
    std::unique_ptr<test::SimulatedTime> time_;
    TimerService* updateLane_;
    TimerService* fixedLane_;
    std::vector<std::unique_ptr<ScriptedGateway>> gateways_;
    std::unique_ptr<CardStorage> card_;
    std::unique_ptr<ScheduleTable> table_;

    // The settings as written: plant index (-1: none), stand-alone, and
    // the plant a removed ID comes back as.
    int plant_;
    bool standAlone_;
    int lastPlant_;
    // The error of the device's clock, seconds.
    std::int64_t clockError_;
    bool fullScan_;
    // Since when (true time) the planned attempt `overdueDue_` (device
    // time) is overdue; -1: it is not.
    std::int64_t overdueSince_;
    std::int64_t overdueDue_;

    // Coverage counting: the state found at the last check, and the sums.
    std::int64_t lastCheck_;
    bool lastCounted_;
    bool lastCovered_;
    bool lastIdeal_;
    bool lastStale_;
    bool lastLate_;
    std::int64_t counted_;
    std::int64_t covered_;
    std::int64_t idealCovered_;
    std::int64_t stale_;
    std::int64_t late_;
    std::array<std::int64_t, ExchangeLedger::kAnswerKinds> lateAfter_;
    int lastAnswer_;

    std::string failure_;
};

} // namespace sim
} // namespace brvo

#endif
