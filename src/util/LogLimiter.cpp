#include "util/LogLimiter.h"

#include <chrono>

namespace brvo {

const std::int64_t LogLimiter::kPeriodMicroseconds;
const std::size_t LogLimiter::kMaxKinds;

LogLimiter::LogLimiter(std::int64_t periodMicroseconds, const Clock& clock, std::size_t maxKinds)
    : period_(periodMicroseconds > 0 ? periodMicroseconds : kPeriodMicroseconds), clock_(clock),
      maxKinds_(maxKinds > 0 ? maxKinds : 1) {}

std::int64_t LogLimiter::Now() const {
    if (clock_) return clock_();
    return std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

bool LogLimiter::Admit(const Line& line, std::vector<Report>& due) {
    const std::int64_t now = Now();
    std::lock_guard<std::mutex> lock(mutex_);
    EntryMap::iterator found = entries_.find(line.kind);
    if (found != entries_.end() && now - found->second.start < period_) {
        ++found->second.held;
        found->second.last = line;
        return false;
    }
    if (found != entries_.end()) {
        AppendReport(found->second, due);
        found->second = Entry{line, now, 0};
        return true;
    }
    MakeRoom(now, due);
    entries_.emplace(line.kind, Entry{line, now, 0});
    return true;
}

std::vector<LogLimiter::Report> LogLimiter::TakeEnded() {
    const std::int64_t now = Now();
    std::vector<Report> due;
    std::lock_guard<std::mutex> lock(mutex_);
    Sweep(now, false, due);
    return due;
}

std::vector<LogLimiter::Report> LogLimiter::TakeAll() {
    std::vector<Report> due;
    std::lock_guard<std::mutex> lock(mutex_);
    Sweep(0, true, due);
    return due;
}

std::size_t LogLimiter::TrackedKinds() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return entries_.size();
}

void LogLimiter::AppendReport(const Entry& entry, std::vector<Report>& due) const {
    if (entry.held == 0) return;
    due.push_back(Report{entry.last, "[" + entry.last.kind + "] repeated " + std::to_string(entry.held) +
                                         " more time(s) in the last " + std::to_string(period_ / 1000000) + " s."});
}

// Forgets the kinds whose period is over; when every tracked kind is still
// in its period, the one whose period began first makes way (its count is
// reported now rather than lost).
void LogLimiter::MakeRoom(std::int64_t now, std::vector<Report>& due) {
    if (entries_.size() < maxKinds_) return;
    Sweep(now, false, due);
    if (entries_.size() < maxKinds_) return;
    EntryMap::iterator oldest = entries_.begin();
    for (EntryMap::iterator it = entries_.begin(); it != entries_.end(); ++it) {
        if (it->second.start < oldest->second.start) oldest = it;
    }
    AppendReport(oldest->second, due);
    entries_.erase(oldest);
}

// Reports and forgets the kinds whose period is over (every kind when
// `all`); a kind is tracked again from its next line.
void LogLimiter::Sweep(std::int64_t now, bool all, std::vector<Report>& due) {
    for (EntryMap::iterator it = entries_.begin(); it != entries_.end();) {
        if (all || now - it->second.start >= period_) {
            AppendReport(it->second, due);
            it = entries_.erase(it);
        } else {
            ++it;
        }
    }
}

} // namespace brvo
