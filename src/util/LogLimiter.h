// Holds back repeats of one kind of log line. The first line of a kind in a
// period is written as it is; further ones in the same period are only
// counted, and once the period is over one line reports the count. A peer
// that repeats a failure without end thus costs a few lines a minute, and
// cannot roll the log's history away.
#ifndef BRVO_UTIL_LOGLIMITER_H
#define BRVO_UTIL_LOGLIMITER_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace brvo {

class LogLimiter {
public:
    // Monotonic time in microseconds.
    typedef std::function<std::int64_t()> Clock;

    // Length of one period.
    static const std::int64_t kPeriodMicroseconds = 60LL * 1000000;
    // Kinds tracked at once; a new kind past this pushes out the oldest.
    static const std::size_t kMaxKinds = 64;

    // A line that was held back, as it would have been written: its level,
    // mark and prefix (thread and tag), and its kind.
    struct Line {
        int level;
        std::string mark;
        std::string prefix;
        std::string kind;
    };

    // One count line that is due: the line it counts and the count text.
    struct Report {
        Line line;
        std::string message;
    };

    // Periods of `periodMicroseconds` on `clock` (the steady clock by default).
    explicit LogLimiter(std::int64_t periodMicroseconds = kPeriodMicroseconds, const Clock& clock = Clock(),
                        std::size_t maxKinds = kMaxKinds);

    LogLimiter(const LogLimiter&) = delete;
    LogLimiter& operator=(const LogLimiter&) = delete;

    // Whether this occurrence of `line.kind` is to be written; otherwise it
    // is counted. Count lines that fell due on the way (a period of the
    // same kind that ended, a kind pushed out) are appended to `due`, to be
    // written before the line.
    bool Admit(const Line& line, std::vector<Report>& due);
    // Takes the count lines of every period that is over.
    std::vector<Report> TakeEnded();
    // Takes every pending count, whether or not its period is over.
    std::vector<Report> TakeAll();
    // Number of kinds tracked now.
    std::size_t TrackedKinds() const;

private:
    struct Entry {
        Line last;
        std::int64_t start;
        std::uint64_t held;
    };
    typedef std::map<std::string, Entry> EntryMap;

    std::int64_t Now() const;
    void AppendReport(const Entry& entry, std::vector<Report>& due) const;
    void MakeRoom(std::int64_t now, std::vector<Report>& due);
    void Sweep(std::int64_t now, bool all, std::vector<Report>& due);

    const std::int64_t period_;
    const Clock clock_;
    const std::size_t maxKinds_;
    mutable std::mutex mutex_;
    EntryMap entries_;
};

} // namespace brvo

#endif
