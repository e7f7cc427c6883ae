#include "sim/ScriptedGateway.h"

#include "client/ServerAccessResult.h"
#include "schedule/ScheduleUpdateManager.h"
#include "sim/RatePlan.h"
#include "sim/ScheduleAnswers.h"
#include "sim/SeededDraw.h"
#include "sim/ServerDay.h"
#include "sim/ServerScript.h"

#include <algorithm>

namespace brvo {
namespace sim {

namespace {

const int kUpdateSlots = 2 * ServerDay::kSlotsPerDay;
const int kFixedSlots = ServerScript::kFixedDays * ServerDay::kSlotsPerDay;
const int kNotFound = 404;

ExchangeLedger::Kind KindOf(const std::string& kbn) {
    if (kbn == ScheduleUpdateManager::kUpdateScheduleKbn) return ExchangeLedger::kUpdate;
    if (kbn.compare(0, ScheduleUpdateManager::kFixedScheduleKbnPrefix.size(),
                    ScheduleUpdateManager::kFixedScheduleKbnPrefix) == 0)
        return ExchangeLedger::kFixed;
    return ExchangeLedger::kCheck;
}

// The flag a fixed schedule request names; -1 when it names none.
int FlagOf(const std::string& kbn) {
    const std::string digits = kbn.substr(ScheduleUpdateManager::kFixedScheduleKbnPrefix.size());
    if (digits.size() != 1 || digits[0] < '0' || digits[0] > '9') return -1;
    return digits[0] - '0';
}

} // namespace

ScriptedGateway::ScriptedGateway(const ServerScript& script, SeededDraw& draw, ExchangeLedger& ledger,
                                 const World& world)
    : ExchangeGateway(NoPool()), script_(script), draw_(draw), ledger_(ledger), world_(world), aborted_(false) {}

ScriptedGateway::~ScriptedGateway() = default;

// The answer is handed out under a second owner whose release tells the
// ledger that the flow has let go of it.
std::future<std::shared_ptr<ServerAccessResult>> ScriptedGateway::Fetch(const std::string& scheduleKbn,
                                                                        bool explicitTarget, const std::string& plantId,
                                                                        const std::string& /*url*/) {
    const ExchangeLedger::Kind kind = KindOf(scheduleKbn);
    ledger_.Enter(kind);
    std::shared_ptr<ServerAccessResult> answer =
        Answer(kind, scheduleKbn, explicitTarget ? plantId : world_.configuredPlant());
    if (world_.trace) Trace(scheduleKbn, *answer);
    ExchangeLedger* ledger = &ledger_;
    std::shared_ptr<ServerAccessResult> held(answer.get(),
                                             [answer, ledger, kind](ServerAccessResult*) { ledger->Leave(kind); });
    std::promise<std::shared_ptr<ServerAccessResult>> promise;
    promise.set_value(held);
    return promise.get_future();
}

std::shared_ptr<ServerAccessResult> ScriptedGateway::Answer(ExchangeLedger::Kind kind, const std::string& kbn,
                                                            const std::string& plantId) {
    if (aborted_) return ScheduleAnswers::NoAnswer("schedule server access failed. aborted");
    const int plant = script_.PlantIndex(plantId);
    if (plant < 0) return ScheduleAnswers::Status(kNotFound, -1);
    const std::int64_t now = world_.trueNow();
    const ServerScript::Episode* episode = script_.EpisodeAt(now);
    const bool fails = episode != nullptr && (episode->share >= 1.0 || draw_.Chance(episode->share));
    ledger_.Answered(kind, fails ? static_cast<int>(episode->fault) : -1);
    return fails ? FaultAnswer(kind, kbn, plant, now) : RightAnswer(kind, kbn, plant, now);
}

std::shared_ptr<ServerAccessResult> ScriptedGateway::RightAnswer(ExchangeLedger::Kind kind, const std::string& kbn,
                                                                 int plant, std::int64_t now) {
    if (kind == ExchangeLedger::kCheck) return ScheduleAnswers::Registered();
    ScheduleAnswers::Record record;
    record.plantId = script_.PlantId(plant);
    if (kind == ExchangeLedger::kUpdate) {
        record.first = ServerDay::DayStart(ServerDay::DayOf(now));
        record.slots = kUpdateSlots;
        record.flag = script_.FlagAt(now);
        record.next = script_.NextUpdateTime(plant, now);
        ledger_.Served(record.first, record.first + (record.slots - 1) * ServerDay::kSlotSeconds);
        return ScheduleAnswers::Payload(record,
                                        [plant](std::int64_t slot) { return RatePlan::UpdateRate(plant, slot); });
    }
    const int flag = FlagOf(kbn);
    if (flag < 0) return ScheduleAnswers::Status(kNotFound, -1);
    record.first = script_.FixedFirstSlot(flag, now);
    record.slots = kFixedSlots;
    record.fixed = true;
    ledger_.Served(record.first, record.first + (record.slots - 1) * ServerDay::kSlotSeconds);
    return ScheduleAnswers::Payload(record, [plant](std::int64_t slot) { return RatePlan::FixedRate(plant, slot); });
}

std::shared_ptr<ServerAccessResult> ScriptedGateway::FaultAnswer(ExchangeLedger::Kind kind, const std::string& kbn,
                                                                 int plant, std::int64_t now) {
    const ServerScript::Episode& episode = *script_.EpisodeAt(now);
    const bool payload = episode.fault == ServerScript::Fault::kTruncated ||
                         episode.fault == ServerScript::Fault::kBadChecksum ||
                         episode.fault == ServerScript::Fault::kOtherPlant;
    if (payload && kind == ExchangeLedger::kCheck) return ScheduleAnswers::Status(500, -1);
    switch (episode.fault) {
    case ServerScript::Fault::kRefused:
        return ScheduleAnswers::NoAnswer("schedule server access failed. EXCEPTION[Connection refused]");
    case ServerScript::Fault::kTimeout:
        return ScheduleAnswers::NoAnswer("schedule server access failed. EXCEPTION[Timeout]");
    case ServerScript::Fault::kClientError:
    case ServerScript::Fault::kServerError:
        return ScheduleAnswers::Status(episode.status, -1);
    case ServerScript::Fault::kBusy:
        return ScheduleAnswers::Status(episode.status, ServerScript::RetryAfter(episode, now, draw_.Fraction()));
    default:
        break;
    }
    ScheduleAnswers::Record record;
    record.plantId = script_.PlantId(plant);
    record.fixed = kind == ExchangeLedger::kFixed;
    record.first = record.fixed ? script_.FixedFirstSlot(std::max(0, FlagOf(kbn)), now)
                                : ServerDay::DayStart(ServerDay::DayOf(now));
    record.slots = record.fixed ? kFixedSlots : kUpdateSlots;
    record.flag = script_.FlagAt(now);
    record.next = script_.NextUpdateTime(plant, now);
    ledger_.Served(record.first, record.first + (record.slots - 1) * ServerDay::kSlotSeconds);
    const ScheduleAnswers::Rates broken = [](std::int64_t slot) { return RatePlan::BrokenRate(slot); };
    if (episode.fault == ServerScript::Fault::kTruncated) {
        return ScheduleAnswers::Truncated(record, broken, static_cast<int>(draw_.Uniform(1, 40)));
    }
    if (episode.fault == ServerScript::Fault::kBadChecksum) return ScheduleAnswers::BadChecksum(record, broken);
    record.plantId = script_.ForeignPlantId();
    return ScheduleAnswers::Payload(record, [](std::int64_t slot) { return RatePlan::ForeignRate(slot); });
}

void ScriptedGateway::Trace(const std::string& kbn, const ServerAccessResult& answer) const {
    const ServerScript::Episode* episode = script_.EpisodeAt(world_.trueNow());
    std::string text = "request " + kbn + ": status " + std::to_string(answer.GetStatusCode());
    if (!answer.IsResult()) text += " " + answer.GetFailureReason();
    if (answer.GetRetryAfterSeconds() >= 0) text += " Retry-After " + std::to_string(answer.GetRetryAfterSeconds());
    if (episode != nullptr) text += std::string(" (spell: ") + ServerScript::Name(episode->fault) + ")";
    world_.trace(text);
}

int ScriptedGateway::SendScheduleData() {
    ledger_.Notified();
    return 0;
}

void ScriptedGateway::Abort() {
    aborted_ = true;
}

} // namespace sim
} // namespace brvo
