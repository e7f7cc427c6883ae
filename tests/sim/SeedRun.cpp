#include "sim/SeedRun.h"

#include "database/ScheduleDatabase.h"
#include "schedule/RateControl.h"
#include "schedule/ScheduleUpdateManager.h"
#include "settings/DeviceSettingXmlManager.h"
#include "settings/LoggerSettingManager.h"
#include "settings/SystemSettingXmlManager.h"
#include "sim/RatePlan.h"
#include "sim/ServerDay.h"
#include "support/SimulatedTime.h"
#include "support/SingletonScope.h"
#include "util/FileUtil.h"
#include "util/LoggerLog.h"
#include "util/TimeStamp.h"

#include <Poco/File.h>
#include <Poco/Path.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <limits>

namespace brvo {
namespace sim {

namespace {

const std::uint64_t kAnswerStream = 3;
const std::int64_t kMicros = 1000000;
const std::int64_t kDay = 86400;
// The stored times start at a midnight a month after the real now: the
// schedule table keeps fixed schedule slots only from the real now on. A
// seed runs alike whenever it runs (its scripts count from the start).
const std::int64_t kLead = 30 * kDay;
const char kServerUrl[] = "http://schedule.invalid/output-control";
const char kScheduleFile[] = "/output_control_schedule.db";
// A stop that takes longer than this, in real time, is no prompt stop.
const double kLongestStopSeconds = 1.0;

std::int64_t SimulationStart() {
    return (TimeStamp().EpochSeconds() + kLead) / kDay * kDay;
}

bool WriteText(const std::string& path, const std::string& text) {
    Poco::File(Poco::Path(path).parent()).createDirectories();
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << text;
    out.close();
    return out.good();
}

std::string Hours(std::int64_t seconds) {
    char text[32];
    std::snprintf(text, sizeof text, "%.2f h", static_cast<double>(seconds) / 3600.0);
    return text;
}

} // namespace

SeedRun::SeedRun(std::uint64_t seed, const Options& options)
    : seed_(seed), options_(options), start_(SimulationStart()),
      server_(seed, start_, start_ + options.days * kDay, options.meanSpellGapDays),
      device_(seed, start_, start_ + options.days * kDay), answerDraw_(seed, kAnswerStream), ideal_(server_),
      updateLane_(nullptr), fixedLane_(nullptr), plant_(0), standAlone_(false), lastPlant_(0), clockError_(0),
      fullScan_(false), overdueSince_(-1), overdueDue_(-1), lastCheck_(-1), lastCounted_(false), lastCovered_(false),
      lastIdeal_(false), lastStale_(false), lastLate_(false), counted_(0), covered_(0), idealCovered_(0), stale_(0),
      late_(0), lateAfter_{}, lastAnswer_(0) {}

SeedRun::~SeedRun() {
    TearDown();
}

SeedRun::Outcome SeedRun::Run() {
    const auto began = std::chrono::steady_clock::now();
    if (SetUp()) {
        Loop(start_ + options_.days * kDay);
        // Whatever the steps' scans did not reach.
        if (failure_.empty()) {
            CheckStoredRows(std::numeric_limits<std::int64_t>::min(), std::numeric_limits<std::int64_t>::max());
        }
    }
    const double simulatedDays = static_cast<double>(TrueNow() - start_) / kDay;
    TearDown();
    Outcome outcome = Summary();
    outcome.realSeconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - began).count();
    outcome.simulatedDays = simulatedDays;
    return outcome;
}

SeedRun::Outcome SeedRun::Summary() const {
    Outcome outcome;
    outcome.seed = seed_;
    outcome.failure = failure_;
    outcome.countedSeconds = counted_;
    outcome.coveredSeconds = covered_;
    outcome.idealCoveredSeconds = idealCovered_;
    outcome.staleSeconds = stale_;
    outcome.lateSeconds = late_;
    outcome.lateAfter = lateAfter_;
    outcome.requests = ledger_.Requests();
    outcome.idealRequests = ideal_.Requests();
    outcome.serverSpells = static_cast<int>(server_.Episodes().size());
    outcome.cardFaults =
        device_.Count(DeviceScript::Action::kCardFull) + device_.Count(DeviceScript::Action::kCardReadOnly);
    outcome.clockSteps = 2 * device_.Count(DeviceScript::Action::kClockWrong);
    outcome.settingsChanges = device_.Count(DeviceScript::Action::kPlantChange) +
                              device_.Count(DeviceScript::Action::kStandAloneOn) +
                              device_.Count(DeviceScript::Action::kPlantRemoved);
    outcome.restarts = device_.Count(DeviceScript::Action::kRestart);
    if (options_.detail) outcome.detail = Detail();
    return outcome;
}

// Every process-wide instance anew, a fresh card, the settings files, the
// simulated time and the manager, started as the daemon starts it.
bool SeedRun::SetUp() {
    test::SingletonScope::DeleteAll();
    if (!WriteLoggerSetting()) return Fail("cannot write " + FileUtil::GetLoggerSettingFile());
    LoggerSettingManager::CreateInstance();
    LoggerLog::CreateInstance();
    const std::string directory = FileUtil::GetOutputControlDirectory();
    card_.reset(new CardStorage(directory));
    std::string error;
    if (!card_->Mount(error)) return Fail(error);
    table_.reset(new ScheduleTable(directory + kScheduleFile));
    if (!WriteSystemSetting()) return Fail("cannot write " + FileUtil::GetSystemSettingFile());
    time_.reset(new test::SimulatedTime(start_ * kMicros));
    updateLane_ = &time_->NewLane();
    fixedLane_ = &time_->NewLane();
    ideal_.Reset(plant_);
    return StartManager();
}

void SeedRun::TearDown() {
    ScheduleUpdateManager::DeleteInstance();
    if (table_) table_->Close();
    test::SingletonScope::DeleteAll();
    std::string ignored;
    if (card_) card_->Unmount(ignored);
    card_.reset();
}

// Steps from check to check: at most stepSeconds apart, and at every
// device event and every change of the server's script.
void SeedRun::Loop(std::int64_t end) {
    const std::vector<DeviceScript::Event>& events = device_.Events();
    std::size_t next = 0;
    for (;;) {
        const std::int64_t now = TrueNow();
        while (next < events.size() && events[next].at <= now) {
            if (!Apply(events[next++])) return;
        }
        ideal_.Step(now, Active(), card_->Writable());
        if (!CheckInvariants() || now >= end) return;
        time_->Advance((NextStop(now, end, next) - now) * 1000);
    }
}

std::int64_t SeedRun::NextStop(std::int64_t now, std::int64_t end, std::size_t nextEvent) const {
    std::int64_t stop = std::min(end, now + options_.stepSeconds);
    const std::vector<DeviceScript::Event>& events = device_.Events();
    if (nextEvent < events.size()) stop = std::min(stop, events[nextEvent].at);
    stop = std::min(stop, server_.NextChangeAfter(now));
    return std::max(stop, now + 1);
}

bool SeedRun::StartManager() {
    ScriptedGateway::World world;
    world.trueNow = [this] { return TrueNow(); };
    world.configuredPlant = [this] { return ConfiguredPlant(); };
    if (options_.trace != nullptr) world.trace = [this](const std::string& what) { Trace(what); };
    gateways_.emplace_back(new ScriptedGateway(server_, answerDraw_, ledger_, world));
    ScheduleUpdateManager::Environment environment;
    environment.clock = time_.get();
    environment.updateTimers = updateLane_;
    environment.fixedTimers = fixedLane_;
    environment.gateway = gateways_.back().get();
    ScheduleUpdateManager::CreateInstance(environment);
    ScheduleUpdateManager* manager = ScheduleUpdateManager::GetInstance();
    if (manager == nullptr) return Fail("the manager was not created");
    bool started = false;
    manager->CheckAndUpdateWithSystemSetting(started, true);
    if (started) ScheduleDatabase::GetInstance()->UpdateSentFlag();
    return true;
}

// As the daemon's exit: the manager first, then the table and the
// settings it read.
bool SeedRun::StopManager() {
    const auto began = std::chrono::steady_clock::now();
    ScheduleUpdateManager::DeleteInstance();
    const double took = std::chrono::duration<double>(std::chrono::steady_clock::now() - began).count();
    if (ScheduleUpdateManager::HasParked()) return Fail("a stop parked the manager: a flow did not end");
    if (ScheduleUpdateManager::GetInstance() != nullptr) return Fail("a stop left the manager in place");
    if (took > kLongestStopSeconds) return Fail("a stop took " + std::to_string(took) + " s");
    ScheduleDatabase::DeleteInstance();
    DeviceSettingXmlManager::DeleteInstance();
    SystemSettingXmlManager::DeleteInstance();
    return true;
}

bool SeedRun::Apply(const DeviceScript::Event& event) {
    Trace(std::string("event ") + DeviceScript::Name(event.action) + " " + std::to_string(event.value));
    switch (event.action) {
    case DeviceScript::Action::kCardFull:
    case DeviceScript::Action::kCardReadOnly:
    case DeviceScript::Action::kCardMended:
        return ApplyCard(event.action);
    case DeviceScript::Action::kClockWrong:
    case DeviceScript::Action::kClockRight:
        ApplyClock(event);
        return true;
    case DeviceScript::Action::kRestart:
        return StopManager() && StartManager();
    default:
        return ApplySettings(event);
    }
}

bool SeedRun::ApplyCard(DeviceScript::Action action) {
    std::string error;
    bool done = false;
    if (action == DeviceScript::Action::kCardFull) {
        done = card_->Fill(error);
    } else if (action == DeviceScript::Action::kCardReadOnly) {
        done = card_->MakeReadOnly(error);
    } else {
        done = card_->Mend(error);
    }
    return done || Fail("the sim could not change the card: " + error);
}

// The clock is set wrong by the event's error, or put right again.
void SeedRun::ApplyClock(const DeviceScript::Event& event) {
    const std::int64_t step = event.action == DeviceScript::Action::kClockWrong ? event.value : -clockError_;
    clockError_ += step;
    time_->StepWall(step * kMicros);
}

// The settings file changes and the manager is told, as the
// ChangeSettingNotify request tells it.
bool SeedRun::ApplySettings(const DeviceScript::Event& event) {
    switch (event.action) {
    case DeviceScript::Action::kPlantChange:
        plant_ = lastPlant_ = static_cast<int>(event.value);
        break;
    case DeviceScript::Action::kStandAloneOn:
    case DeviceScript::Action::kStandAloneOff:
        standAlone_ = event.action == DeviceScript::Action::kStandAloneOn;
        break;
    case DeviceScript::Action::kPlantRemoved:
        plant_ = -1;
        break;
    default:
        plant_ = lastPlant_;
        break;
    }
    if (event.action != DeviceScript::Action::kStandAloneOn && event.action != DeviceScript::Action::kStandAloneOff) {
        ideal_.Reset(plant_);
        fullScan_ = true;
    }
    if (!WriteSystemSetting()) return Fail("cannot write " + FileUtil::GetSystemSettingFile());
    return NotifySettingsChange();
}

bool SeedRun::NotifySettingsChange() {
    ScheduleUpdateManager* manager = ScheduleUpdateManager::GetInstance();
    if (manager == nullptr) return Fail("no manager to tell of the settings change");
    bool started = false;
    manager->CheckAndUpdateWithSystemSetting(started, false);
    if (started) ScheduleDatabase::GetInstance()->UpdateSentFlag();
    return true;
}

bool SeedRun::WriteLoggerSetting() {
    return WriteText(FileUtil::GetLoggerSettingFile(),
                     "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<LoggerSetting>\n<LogLevel>" +
                         std::to_string(options_.logLevel) + "</LogLevel>\n<OutputScheduleMonitoringInterval>" +
                         std::to_string(options_.monitoringSeconds) +
                         "</OutputScheduleMonitoringInterval>\n</LoggerSetting>\n");
}

bool SeedRun::WriteSystemSetting() {
    return WriteText(FileUtil::GetSystemSettingFile(),
                     "<logger><general><outputControlPlantId>" + ConfiguredPlant() +
                         "</outputControlPlantId><outputControlStandAlone>" + (standAlone_ ? "1" : "0") +
                         "</outputControlStandAlone><outputScheduleInformationServerUrl>" + kServerUrl +
                         "</outputScheduleInformationServerUrl></general></logger>");
}

bool SeedRun::CheckInvariants() {
    if (!CheckPlanned() || !CheckFlows()) return false;
    std::int64_t first = 0;
    std::int64_t last = 0;
    const bool served = ledger_.TakeServed(first, last);
    if (fullScan_) {
        first = std::numeric_limits<std::int64_t>::min();
        last = std::numeric_limits<std::int64_t>::max();
    }
    if ((served || fullScan_) && !CheckStoredRows(first, last)) return false;
    fullScan_ = false;
    const ScheduleRow slot = table_->SlotAt(DeviceNow());
    if (!table_->Error().empty()) return Fail("the sim cannot read the schedule table: " + table_->Error());
    if (plant_ >= 0 && !CheckTargetPower(slot)) return false;
    Count(slot);
    return true;
}

// Never stuck: an update attempt is planned, not more than a day and an
// interval ahead, and no planned attempt is left overdue for more than two
// intervals.
bool SeedRun::CheckPlanned() {
    if (!Active()) {
        overdueSince_ = -1;
        return true;
    }
    const std::shared_ptr<TimeStamp> due = ScheduleUpdateManager::GetInstance()->GetScheduleUpdateTime();
    if (!due) return Fail("stuck: plant ID set, not stand-alone, and no update attempt is planned");
    const std::int64_t ahead = due->EpochSeconds() - DeviceNow();
    const std::int64_t interval = options_.monitoringSeconds;
    if (ahead > kDay + interval) {
        return Fail("stuck: the next update attempt [" + due->FormatDisplay() + "] is " + Hours(ahead) + " ahead");
    }
    // A clock set forward makes the planned attempt overdue at once; the
    // next tick must see to it.
    if (ahead >= 0) {
        overdueSince_ = -1;
        return true;
    }
    if (overdueSince_ < 0 || overdueDue_ != due->EpochSeconds()) overdueSince_ = TrueNow();
    overdueDue_ = due->EpochSeconds();
    if (TrueNow() - overdueSince_ <= 2 * interval) return true;
    return Fail("stuck: the update attempt planned for [" + due->FormatDisplay() + "] is still overdue after " +
                Hours(TrueNow() - overdueSince_) + " (by " + Hours(-ahead) + ")");
}

bool SeedRun::CheckFlows() {
    if (ledger_.MostAtOnce() <= 1) return true;
    static const char* const kKinds[] = {"update schedule", "fixed schedule", "plant ID check"};
    return Fail(std::to_string(ledger_.MostAtOnce()) + " " + kKinds[ledger_.MostAtOnceKind()] +
                " flows held answers at once");
}

// Every stored rate in [first, last] came from a right answer of the
// server for its slot (of the plant configured now or of one before).
bool SeedRun::CheckStoredRows(std::int64_t first, std::int64_t last) {
    for (const ScheduleRow& row : table_->RowsBetween(first, last)) {
        int plant = -1;
        const RatePlan::Origin origin = RatePlan::OriginOf(row.controlRate, plant);
        const bool right = origin == RatePlan::Origin::kUpdate || origin == RatePlan::Origin::kFixed;
        if (!right || !RatePlan::IsServed(plant, row.time, row.controlRate)) {
            return Fail("stored slot [" + ServerDay::Utc(row.time) + "] holds rate " + std::to_string(row.controlRate) +
                        ", " + RatePlan::Describe(row.controlRate) +
                        (right ? ", not the one served for the slot" : ""));
        }
    }
    if (!table_->Error().empty()) return Fail("the sim cannot read the schedule table: " + table_->Error());
    return true;
}

// The target power for 100 % capacity is the rate of the stored slot in
// force now, or the no-schedule answer when none is stored.
bool SeedRun::CheckTargetPower(const ScheduleRow& slot) {
    RateControl control([this] { return Poco::Timestamp(time_->WallMicroseconds()); });
    const std::shared_ptr<TargetPowerResult> result = control.GetTargetPower(100.0, RateControl::kCurrentTargetPower);
    if (slot.time < 0) {
        if (result->GetCode() == TargetPowerResult::Code::kNoSchedule) return true;
        return Fail("target power answered code " + std::to_string(ToWire(result->GetCode())) + " with no slot stored");
    }
    const std::string slotText = TimeStamp::FromEpochSeconds(slot.time)->FormatCompact();
    if (result->IsSuccess() && result->GetTimeText() == slotText &&
        std::fabs(result->GetTargetPower() - slot.controlRate) < 1e-9)
        return true;
    return Fail("target power answered " + std::to_string(result->GetTargetPower()) + " for slot [" +
                result->GetTimeText() + "] (code " + std::to_string(ToWire(result->GetCode())) +
                "); the stored slot in force is [" + slotText + "] with rate " + std::to_string(slot.controlRate));
}

// Adds the time since the last check to the sums, by what that check
// found, and notes what this one finds.
void SeedRun::Count(const ScheduleRow& slot) {
    const std::int64_t now = TrueNow();
    if (lastCheck_ >= 0 && lastCounted_) {
        const std::int64_t span = now - lastCheck_;
        counted_ += span;
        if (lastCovered_) covered_ += span;
        if (lastIdeal_) idealCovered_ += span;
        if (lastStale_) stale_ += span;
        if (lastLate_) late_ += span;
        if (lastLate_) lateAfter_[static_cast<std::size_t>(lastAnswer_)] += span;
    }
    const bool wasGap = lastCounted_ && lastIdeal_ && !lastCovered_;
    lastCheck_ = now;
    lastCounted_ = Active() && clockError_ == 0;
    int plant = -1;
    RatePlan::OriginOf(slot.controlRate, plant);
    const bool current = slot.time >= 0 && slot.time > DeviceNow() - ServerDay::kSlotSeconds;
    lastCovered_ = current && plant == plant_;
    lastStale_ = current && plant != plant_;
    lastIdeal_ = ideal_.Covers(now);
    const bool gap = lastCounted_ && lastIdeal_ && !lastCovered_;
    lastLate_ = gap && server_.Serves(now) && card_->Writable();
    lastAnswer_ = ledger_.LastUpdateAnswer();
    if (gap != wasGap) TraceGap(gap, slot);
}

// Where the device lacks a slot the ideal device has, in the trace.
void SeedRun::TraceGap(bool begins, const ScheduleRow& slot) const {
    if (options_.trace == nullptr) return;
    const std::shared_ptr<TimeStamp> due = ScheduleUpdateManager::GetInstance()->GetScheduleUpdateTime();
    const RetryPolicy::History history = ScheduleUpdateManager::GetInstance()->GetUpdateHistory();
    Trace(std::string(begins ? "gap begins" : "gap ends") + ": last slot [" + ServerDay::Utc(slot.time) +
          "], next attempt [" + (due ? due->FormatDisplay() : std::string("none")) + "], " +
          std::to_string(history.failures) + " failures, card " + (card_->Writable() ? "writable" : "faulty"));
}

std::string SeedRun::Detail() const {
    std::string text = "requests: " + std::to_string(ledger_.Requests(ExchangeLedger::kUpdate)) + " update, " +
                       std::to_string(ledger_.Requests(ExchangeLedger::kFixed)) + " fixed; answered " +
                       std::to_string(ledger_.AnsweredBy()[0]) + " rightly";
    for (int fault = 0; fault < ServerScript::kFaultKinds; ++fault) {
        text += ", " + std::to_string(ledger_.AnsweredBy()[fault + 1]) + " " +
                ServerScript::Name(static_cast<ServerScript::Fault>(fault));
    }
    return text;
}

bool SeedRun::Fail(const std::string& what) {
    if (!failure_.empty()) return false;
    char day[32];
    std::snprintf(day, sizeof day, "%.3f", static_cast<double>(TrueNow() - start_) / kDay);
    failure_ = what + " (simulated day " + day + ", device clock " + ServerDay::Utc(DeviceNow()) + " UTC, true " +
               ServerDay::Utc(TrueNow()) + " UTC)";
    return false;
}

void SeedRun::Trace(const std::string& what) const {
    if (options_.trace == nullptr) return;
    std::fprintf(options_.trace, "%s true %s  %s\n", ServerDay::Utc(DeviceNow()).c_str(),
                 ServerDay::Utc(TrueNow()).c_str(), what.c_str());
}

std::int64_t SeedRun::TrueNow() const {
    return time_ ? start_ + time_->MonotonicMicroseconds() / kMicros : start_;
}

std::int64_t SeedRun::DeviceNow() const {
    return time_ ? time_->WallMicroseconds() / kMicros : start_;
}

std::string SeedRun::ConfiguredPlant() const {
    return plant_ >= 0 ? server_.PlantId(plant_) : std::string();
}

} // namespace sim
} // namespace brvo
