#include "sim/ExchangeLedger.h"

#include <algorithm>

namespace brvo {
namespace sim {

void ExchangeLedger::Enter(Kind kind) {
    ++requests_[kind];
    const int now = ++inFlight_[kind];
    if (now > mostAtOnce_) {
        mostAtOnce_ = now;
        mostKind_ = kind;
    }
}

void ExchangeLedger::Leave(Kind kind) {
    --inFlight_[kind];
}

std::int64_t ExchangeLedger::Requests() const {
    std::int64_t total = 0;
    for (std::int64_t count : requests_) total += count;
    return total;
}

void ExchangeLedger::Answered(Kind kind, int fault) {
    const int index = fault + 1;
    if (index < 0 || index >= kAnswerKinds) return;
    ++answered_[index];
    if (kind == kUpdate) lastUpdateAnswer_ = index;
}

void ExchangeLedger::Served(std::int64_t first, std::int64_t last) {
    if (!served_) {
        servedFirst_ = first;
        servedLast_ = last;
    }
    servedFirst_ = std::min(servedFirst_, first);
    servedLast_ = std::max(servedLast_, last);
    served_ = true;
}

bool ExchangeLedger::TakeServed(std::int64_t& first, std::int64_t& last) {
    if (!served_) return false;
    first = servedFirst_;
    last = servedLast_;
    served_ = false;
    return true;
}

} // namespace sim
} // namespace brvo
