#include "sim/ServerScript.h"

#include "sim/SeededDraw.h"
#include "sim/ServerDay.h"

#include <algorithm>

namespace brvo {
namespace sim {

namespace {

const std::uint64_t kServerStream = 1;
const std::int64_t kDay = 86400;
// Spells of faults last from five minutes to three days (as many short as
// long ones per factor of ten).
const std::int64_t kShortestEpisode = 300;
const std::int64_t kLongestEpisode = 3 * kDay;
// The flag changes every fifteen days on average.
const double kMeanFlagGap = 15.0 * kDay;

// How often each fault kind is drawn, in the order of ServerScript::Fault.
const int kFaultWeights[ServerScript::kFaultKinds] = {22, 10, 10, 18, 10, 10, 10, 10};

ServerScript::Fault DrawFault(SeededDraw& draw) {
    int total = 0;
    for (int weight : kFaultWeights) total += weight;
    std::int64_t pick = draw.Uniform(0, total - 1);
    for (int kind = 0; kind < ServerScript::kFaultKinds; ++kind) {
        pick -= kFaultWeights[kind];
        if (pick < 0) return static_cast<ServerScript::Fault>(kind);
    }
    return ServerScript::Fault::kRefused;
}

// Network and server faults hit every request or, as often as not, only
// some; broken payloads often come and go; the rest is the server's
// standing answer while it lasts.
double DrawShare(ServerScript::Fault fault, SeededDraw& draw) {
    switch (fault) {
    case ServerScript::Fault::kRefused:
    case ServerScript::Fault::kTimeout:
    case ServerScript::Fault::kServerError:
        return draw.Chance(0.35) ? static_cast<double>(draw.Uniform(30, 80)) / 100.0 : 1.0;
    case ServerScript::Fault::kTruncated:
    case ServerScript::Fault::kBadChecksum:
        return draw.Chance(0.5) ? static_cast<double>(draw.Uniform(20, 60)) / 100.0 : 1.0;
    default:
        return 1.0;
    }
}

void DrawStatus(ServerScript::Episode& episode, SeededDraw& draw) {
    static const int kClientErrors[] = {400, 403, 404};
    static const int kServerErrors[] = {500, 502, 504};
    if (episode.fault == ServerScript::Fault::kClientError) episode.status = kClientErrors[draw.Uniform(0, 2)];
    if (episode.fault == ServerScript::Fault::kServerError) episode.status = kServerErrors[draw.Uniform(0, 2)];
    if (episode.fault == ServerScript::Fault::kBusy) episode.status = draw.Chance(0.5) ? 429 : 503;
}

// A plant ID of 26 digits ending in `last`, led by `lead`.
std::string DrawPlantId(SeededDraw& draw, char lead, int last) {
    std::string id(1, lead);
    while (id.size() < 25) id.push_back(static_cast<char>('0' + draw.Uniform(0, 9)));
    id.push_back(static_cast<char>('0' + last));
    return id;
}

} // namespace

ServerScript::ServerScript(std::uint64_t seed, std::int64_t begin, std::int64_t end, double meanSpellGapDays)
    : end_(end) {
    const double meanEpisodeGap = meanSpellGapDays * kDay;
    SeededDraw draw(seed, kServerStream);
    const std::int64_t firstLast = draw.Uniform(0, 9);
    for (int plant = 0; plant < RatePlan::kPlants; ++plant) {
        // Different last digits: the plants' fixed schedule times differ.
        plantIds_.push_back(DrawPlantId(draw, '1', static_cast<int>((firstLast + 3 * plant) % 10)));
        updateMinutes_.push_back(static_cast<int>(draw.Uniform(0, 24 * 60 - 1)));
    }
    foreignPlantId_ = DrawPlantId(draw, '9', static_cast<int>(draw.Uniform(0, 9)));
    flags_.push_back(FlagChange{begin, static_cast<int>(draw.Uniform(0, 9))});
    for (std::int64_t at = begin + draw.Exponential(kMeanFlagGap); at < end; at += draw.Exponential(kMeanFlagGap)) {
        flags_.push_back(FlagChange{at, static_cast<int>((flags_.back().flag + draw.Uniform(1, 9)) % 10)});
    }
    for (std::int64_t at = begin + draw.Exponential(meanEpisodeGap); at < end;) {
        Episode episode;
        episode.begin = at;
        episode.end = std::min(end, at + draw.LogUniform(kShortestEpisode, kLongestEpisode));
        episode.fault = DrawFault(draw);
        episode.share = DrawShare(episode.fault, draw);
        DrawStatus(episode, draw);
        episodes_.push_back(episode);
        at = episode.end + draw.Exponential(meanEpisodeGap);
    }
}

const ServerScript::Episode* ServerScript::EpisodeAt(std::int64_t t) const {
    auto after = std::upper_bound(episodes_.begin(), episodes_.end(), t,
                                  [](std::int64_t time, const Episode& episode) { return time < episode.begin; });
    if (after == episodes_.begin()) return nullptr;
    const Episode& episode = *(after - 1);
    return t < episode.end ? &episode : nullptr;
}

bool ServerScript::Serves(std::int64_t t) const {
    const Episode* episode = EpisodeAt(t);
    return episode == nullptr || episode->share < 1.0;
}

int ServerScript::FlagAt(std::int64_t t) const {
    auto after = std::upper_bound(flags_.begin(), flags_.end(), t,
                                  [](std::int64_t time, const FlagChange& change) { return time < change.at; });
    return after == flags_.begin() ? flags_.front().flag : (after - 1)->flag;
}

std::int64_t ServerScript::FixedFirstSlot(int flag, std::int64_t t) const {
    std::int64_t since = flags_.front().at;
    for (const FlagChange& change : flags_) {
        if (change.at > t) break;
        if (change.flag == flag) since = change.at;
    }
    return ServerDay::DayStart(ServerDay::DayOf(since) + 1);
}

std::int64_t ServerScript::RetryAfter(const Episode& episode, std::int64_t t, double guess) {
    const double rest = static_cast<double>(episode.end - t);
    return std::max<std::int64_t>(60, static_cast<std::int64_t>(rest * (0.25 + 1.25 * guess)));
}

std::int64_t ServerScript::NextChangeAfter(std::int64_t t) const {
    std::int64_t next = end_;
    auto flag = std::upper_bound(flags_.begin(), flags_.end(), t,
                                 [](std::int64_t time, const FlagChange& change) { return time < change.at; });
    if (flag != flags_.end()) next = std::min(next, flag->at);
    auto episode = std::upper_bound(episodes_.begin(), episodes_.end(), t,
                                    [](std::int64_t time, const Episode& spell) { return time < spell.begin; });
    if (episode != episodes_.end()) next = std::min(next, episode->begin);
    if (episode != episodes_.begin() && (episode - 1)->end > t) next = std::min(next, (episode - 1)->end);
    return next;
}

const std::string& ServerScript::PlantId(int plant) const {
    return plantIds_.at(static_cast<std::size_t>(plant));
}

int ServerScript::PlantIndex(const std::string& plantId) const {
    for (std::size_t plant = 0; plant < plantIds_.size(); ++plant) {
        if (plantIds_[plant] == plantId) return static_cast<int>(plant);
    }
    return -1;
}

std::int64_t ServerScript::NextUpdateTime(int plant, std::int64_t t) const {
    const std::int64_t minute = updateMinutes_.at(static_cast<std::size_t>(plant));
    return ServerDay::DayStart(ServerDay::DayOf(t) + 1) + minute * 60;
}

const char* ServerScript::Name(Fault fault) {
    switch (fault) {
    case Fault::kRefused:
        return "refused";
    case Fault::kTimeout:
        return "time-out";
    case Fault::kClientError:
        return "4xx";
    case Fault::kServerError:
        return "5xx";
    case Fault::kBusy:
        return "busy+Retry-After";
    case Fault::kTruncated:
        return "truncated";
    case Fault::kBadChecksum:
        return "bad checksum";
    case Fault::kOtherPlant:
        return "other plant";
    }
    return "?";
}

} // namespace sim
} // namespace brvo
