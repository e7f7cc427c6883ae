// What the scripted server saw of one seed, kept across the gateways of
// the manager's successive instances: the requests of each kind, how many
// flows of one kind held an answer at once (a flow holds its answer from
// Fetch until it lets go of the result), the slots the answers carried
// since the sim last looked, and the logger daemon's notices.
#ifndef BRVO_TESTS_SIM_EXCHANGELEDGER_H
#define BRVO_TESTS_SIM_EXCHANGELEDGER_H

#include <cstdint>

namespace brvo {
namespace sim {

class ExchangeLedger {
public:
    // Kinds of request: update schedule, fixed schedule, plant ID check.
    enum Kind { kUpdate = 0, kFixed = 1, kCheck = 2, kKinds = 3 };

    // A flow of `kind` took an answer, and let go of it.
    void Enter(Kind kind);
    void Leave(Kind kind);
    // The most flows of one kind that held answers at once, and that kind.
    int MostAtOnce() const { return mostAtOnce_; }
    Kind MostAtOnceKind() const { return mostKind_; }

    // Requests of `kind` so far, and of every kind.
    std::int64_t Requests(Kind kind) const { return requests_[kind]; }
    std::int64_t Requests() const;

    // An answer carried slots from `first` to `last` (epoch seconds).
    void Served(std::int64_t first, std::int64_t last);
    // The span of the slots served since the last call; false when none.
    bool TakeServed(std::int64_t& first, std::int64_t& last);

    // A request of `kind` was answered rightly (`fault` -1) or failed by a
    // spell of fault kind `fault` (ServerScript::Fault as a number).
    void Answered(Kind kind, int fault);
    // Requests answered by fault kind; index 0 counts the right answers.
    const std::int64_t* AnsweredBy() const { return answered_; }
    static constexpr int kAnswerKinds = 9;
    // The answer to the last update schedule request, as an index of
    // AnsweredBy.
    int LastUpdateAnswer() const { return lastUpdateAnswer_; }

    // The logger daemon was told of new data.
    void Notified() { ++notices_; }
    std::int64_t Notices() const { return notices_; }

private:
    int inFlight_[kKinds] = {0, 0, 0};
    std::int64_t requests_[kKinds] = {0, 0, 0};
    int mostAtOnce_ = 0;
    Kind mostKind_ = kUpdate;
    bool served_ = false;
    std::int64_t servedFirst_ = 0;
    std::int64_t servedLast_ = 0;
    std::int64_t notices_ = 0;
    std::int64_t answered_[kAnswerKinds] = {0, 0, 0, 0, 0, 0, 0, 0, 0};
    int lastUpdateAnswer_ = 0;
};

} // namespace sim
} // namespace brvo

#endif
