#include "util/LogLimiter.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <thread>
#include <vector>

namespace brvo {
namespace {

const std::int64_t kPeriod = LogLimiter::kPeriodMicroseconds;

class LogLimiterTest : public ::testing::Test {
protected:
    LogLimiterTest() : now_(std::make_shared<std::atomic<std::int64_t>>(1000)) {}

    std::unique_ptr<LogLimiter> Make(std::size_t maxKinds = LogLimiter::kMaxKinds) {
        std::shared_ptr<std::atomic<std::int64_t>> now = now_;
        return std::unique_ptr<LogLimiter>(new LogLimiter(
            kPeriod, [now] { return now->load(); }, maxKinds));
    }

    static LogLimiter::Line Line(const std::string& kind, const std::string& prefix = "[1] Tag") {
        return LogLimiter::Line{3, "W", prefix, kind};
    }

    void Advance(std::int64_t micros) { *now_ += micros; }

    // The counts the reports carry, added up.
    static std::uint64_t Counted(const std::vector<LogLimiter::Report>& reports) {
        std::uint64_t total = 0;
        for (const LogLimiter::Report& report : reports) {
            const std::string& text = report.message;
            const std::size_t start = text.find("] repeated ") + 11;
            total += std::stoull(text.substr(start, text.find(' ', start) - start));
        }
        return total;
    }

    std::shared_ptr<std::atomic<std::int64_t>> now_;
};

TEST_F(LogLimiterTest, FirstLineIsWrittenAndRepeatsAreCounted) {
    std::unique_ptr<LogLimiter> limiter = Make();
    std::vector<LogLimiter::Report> due;
    EXPECT_TRUE(limiter->Admit(Line("late"), due));
    for (int i = 0; i < 3; ++i) {
        Advance(kPeriod / 10);
        EXPECT_FALSE(limiter->Admit(Line("late", "[7] Tag"), due));
    }
    EXPECT_TRUE(due.empty());
    EXPECT_TRUE(limiter->TakeEnded().empty());

    Advance(kPeriod);
    const std::vector<LogLimiter::Report> ended = limiter->TakeEnded();
    ASSERT_EQ(1u, ended.size());
    EXPECT_EQ("[late] repeated 3 more time(s) in the last 60 s.", ended[0].message);
    EXPECT_EQ(3, ended[0].line.level);
    EXPECT_EQ("W", ended[0].line.mark);
    EXPECT_EQ("[7] Tag", ended[0].line.prefix);
    EXPECT_EQ(0u, limiter->TrackedKinds());
    EXPECT_TRUE(limiter->TakeEnded().empty());
}

TEST_F(LogLimiterTest, ALineAfterThePeriodIsWrittenAfterItsCount) {
    std::unique_ptr<LogLimiter> limiter = Make();
    std::vector<LogLimiter::Report> due;
    EXPECT_TRUE(limiter->Admit(Line("late"), due));
    EXPECT_FALSE(limiter->Admit(Line("late"), due));
    EXPECT_FALSE(limiter->Admit(Line("late"), due));
    Advance(kPeriod - 1);
    EXPECT_FALSE(limiter->Admit(Line("late"), due));
    Advance(1);
    EXPECT_TRUE(limiter->Admit(Line("late"), due));
    ASSERT_EQ(1u, due.size());
    EXPECT_EQ("[late] repeated 3 more time(s) in the last 60 s.", due[0].message);
    // The new period starts with that line.
    due.clear();
    EXPECT_FALSE(limiter->Admit(Line("late"), due));
    EXPECT_TRUE(due.empty());
}

TEST_F(LogLimiterTest, ALineNotRepeatedLeavesNoCountLine) {
    std::unique_ptr<LogLimiter> limiter = Make();
    std::vector<LogLimiter::Report> due;
    EXPECT_TRUE(limiter->Admit(Line("once"), due));
    Advance(kPeriod);
    EXPECT_TRUE(limiter->TakeEnded().empty());
    EXPECT_TRUE(limiter->Admit(Line("once"), due));
    EXPECT_TRUE(due.empty());
}

TEST_F(LogLimiterTest, KindsAreCountedApart) {
    std::unique_ptr<LogLimiter> limiter = Make();
    std::vector<LogLimiter::Report> due;
    EXPECT_TRUE(limiter->Admit(Line("a"), due));
    EXPECT_TRUE(limiter->Admit(Line("b"), due));
    EXPECT_FALSE(limiter->Admit(Line("a"), due));
    EXPECT_FALSE(limiter->Admit(Line("b"), due));
    EXPECT_FALSE(limiter->Admit(Line("b"), due));
    const std::vector<LogLimiter::Report> all = limiter->TakeAll();
    ASSERT_EQ(2u, all.size());
    EXPECT_EQ("[a] repeated 1 more time(s) in the last 60 s.", all[0].message);
    EXPECT_EQ("[b] repeated 2 more time(s) in the last 60 s.", all[1].message);
}

TEST_F(LogLimiterTest, PendingCountsAreTakenBeforeThePeriodEnds) {
    std::unique_ptr<LogLimiter> limiter = Make();
    std::vector<LogLimiter::Report> due;
    limiter->Admit(Line("late"), due);
    limiter->Admit(Line("late"), due);
    Advance(1);
    const std::vector<LogLimiter::Report> all = limiter->TakeAll();
    ASSERT_EQ(1u, all.size());
    EXPECT_EQ("[late] repeated 1 more time(s) in the last 60 s.", all[0].message);
    EXPECT_EQ(0u, limiter->TrackedKinds());
    EXPECT_TRUE(limiter->TakeAll().empty());
}

// Past the cap the oldest kind makes way and its count is reported then:
// memory stays bounded and no count is lost.
TEST_F(LogLimiterTest, ManyKindsStayBoundedAndLoseNoCount) {
    const std::size_t cap = 4;
    std::unique_ptr<LogLimiter> limiter = Make(cap);
    std::vector<LogLimiter::Report> due;
    std::size_t written = 0;
    for (int i = 0; i < 1000; ++i) {
        const std::string kind = "kind " + std::to_string(i);
        for (int repeat = 0; repeat < 3; ++repeat) {
            if (limiter->Admit(Line(kind), due)) ++written;
        }
        Advance(1);
        EXPECT_LE(limiter->TrackedKinds(), cap);
    }
    EXPECT_EQ(1000u, written);
    const std::vector<LogLimiter::Report> rest = limiter->TakeAll();
    EXPECT_EQ(cap, rest.size());
    EXPECT_EQ(2000u, Counted(due) + Counted(rest));
}

TEST_F(LogLimiterTest, ConcurrentCallersWriteOneLineAndCountTheRest) {
    std::unique_ptr<LogLimiter> limiter = Make();
    const int threads = 8;
    const int perThread = 2000;
    std::atomic<int> written(0);
    std::atomic<std::uint64_t> reported(0);
    std::vector<std::thread> callers;
    for (int t = 0; t < threads; ++t) {
        callers.emplace_back([&limiter, &written, &reported, t] {
            std::vector<LogLimiter::Report> due;
            for (int i = 0; i < perThread; ++i) {
                if (limiter->Admit(Line("shared"), due)) ++written;
                if (limiter->Admit(Line("own " + std::to_string(t)), due)) ++written;
            }
            reported += Counted(due);
        });
    }
    // Meanwhile the writer's tick takes what has ended (nothing: the clock
    // stands still), as it does every 500 ms.
    for (int i = 0; i < 100; ++i) reported += Counted(limiter->TakeEnded());
    for (std::thread& caller : callers) caller.join();
    reported += Counted(limiter->TakeAll());
    EXPECT_EQ(1 + threads, written.load());
    EXPECT_EQ(static_cast<std::uint64_t>(2 * threads * perThread - 1 - threads), reported.load());
}

} // namespace
} // namespace brvo
