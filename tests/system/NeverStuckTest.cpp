// The real pvocd under a wall clock that the test sets and steps (a clock
// file read on every call), against a schedule server on 127.0.0.1: no
// answer of the server and no step of the clock leaves the daemon without
// a next attempt. A refusal is tried again hours later, a clock set back
// re-plans the update at once, a fixed schedule that failed five times is
// tried again the next day, and a Retry-After is taken as it is given.
// The daemon's alarms tick every second; every wait of the test runs on
// the real monotonic clock, so no step of the daemon's clock stretches it.
#include "schedule/RetryPolicy.h"
#include "schedule/UpdateResult.h"
#include "support/ChildProcess.h"
#include "support/DaemonClient.h"
#include "support/HttpTestServer.h"
#include "support/SchedulePayload.h"
#include "support/SqliteFile.h"
#include "support/StoredSchedule.h"
#include "support/TestFiles.h"
#include "support/UnixPeer.h"
#include "util/TimeStamp.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace brvo {
namespace {

using test::HttpTestServer;
using test::ScheduleServerAnswer;

const std::string kPlant = "00000000000000000000000777";
const std::string kTag = "ScheduleUpdateManager";
const std::int64_t kHour = 3600;
const std::int64_t kDay = 86400;
// The fixed schedule time (UTC) of a plant whose ID ends in 7.
const std::int64_t kFixedTimeOfDay = 15 * kHour + 40 * 60;
// The rates of what the tests store before the start, and of what the
// server sends later: a stored schedule is told apart from a fetched one.
const int kStoredRate = 60;
const int kUpdateRate = 25;
const int kFixedRate = 30;
const std::size_t kSlots = 48;
// Real time allowed for a fetch that is due now (one alarm tick, the
// exchange, the store), and for checking that none comes before its time.
const int kDueMs = 15000;
const int kQuietMs = 2000;

std::string Display(std::int64_t utcSeconds) {
    return TimeStamp::FromEpochSeconds(utcSeconds)->FormatDisplay();
}

// The epoch second of a "YYYY-MM-DD HH:MM:SS" text (UTC); -1 when it does
// not read.
std::int64_t Seconds(const std::string& display) {
    const std::shared_ptr<TimeStamp> time = TimeStamp::ParseDisplay(display);
    return time ? time->EpochSeconds() : -1;
}

// An update schedule of plant "777": one day of `rate` from `start`, fixed
// schedule flag `fixedFlag`, the next update at `next` (all UTC).
test::ScheduleRecord UpdateRecord(std::int64_t start, int rate, std::int64_t next, int fixedFlag = 3) {
    test::ScheduleRecord record;
    record.plantId = "777";
    record.start = test::ServerTime(start, "%Y%m%d%H%M");
    record.rates = std::vector<int>(kSlots, rate);
    record.fixedFlag = fixedFlag;
    record.nextUpdate = test::ServerTime(next, "%Y%m%d%H%M%S");
    return record;
}

// A fixed schedule of plant "777": one day of `rate` from `start` (UTC).
test::ScheduleRecord FixedRecord(std::int64_t start, int rate) {
    return UpdateRecord(start, rate, start);
}

// One line of the daemon's log: its own time (the daemon's clock) and the
// message after the tag.
struct LogLine {
    bool found = false;
    std::int64_t at = -1;
    std::string message;
};

// The lines of the log of level `mark` from `tag` (any tag when it is
// empty) whose message begins with `prefix`, in their order.
std::vector<LogLine> FindLines(const std::string& mark, const std::string& tag, const std::string& prefix) {
    std::vector<LogLine> found;
    // "[YYYY-MM-DD HH:MM:SS UTC] [mark] [thread] tag message"
    const std::string level = " UTC] [" + mark + "] [";
    for (const std::string& line : test::ReadLines(test::LogFilePath())) {
        // A line still being written when the file was read may be cut.
        if (line.size() < 20 + level.size() || line.compare(0, 1, "[") != 0 ||
            line.compare(20, level.size(), level) != 0) {
            continue;
        }
        const std::size_t thread = line.find("] ", 20 + level.size());
        if (thread == std::string::npos) continue;
        const std::size_t space = line.find(' ', thread + 2);
        if (space == std::string::npos) continue;
        if (!tag.empty() && line.compare(thread + 2, space - thread - 2, tag) != 0) continue;
        if (line.compare(space + 1, prefix.size(), prefix) != 0) continue;
        LogLine match;
        match.found = true;
        match.at = Seconds(line.substr(1, 19));
        match.message = line.substr(space + 1);
        found.push_back(match);
    }
    return found;
}

// The first of FindLines; not found when there is none.
LogLine FindLine(const std::string& mark, const std::string& tag, const std::string& prefix) {
    const std::vector<LogLine> found = FindLines(mark, tag, prefix);
    return found.empty() ? LogLine() : found.front();
}

// The `count`-th of FindLines (from 1), waiting up to `timeoutMs` for it.
LogLine WaitForLine(const std::string& mark, const std::string& tag, const std::string& prefix, int timeoutMs = kDueMs,
                    std::size_t count = 1) {
    LogLine found;
    test::WaitFor(
        [&] {
            const std::vector<LogLine> lines = FindLines(mark, tag, prefix);
            if (lines.size() < count) return false;
            found = lines[count - 1];
            return true;
        },
        timeoutMs);
    return found;
}

// The time in the first "[YYYY-MM-DD HH:MM:SS]" after `marker` in `text`;
// -1 when there is none.
std::int64_t TimeAfter(const std::string& text, const std::string& marker) {
    const std::size_t at = text.find(marker + "[");
    if (at == std::string::npos || text.size() < at + marker.size() + 21) return -1;
    if (text[at + marker.size() + 20] != ']') return -1;
    return Seconds(text.substr(at + marker.size() + 1, 19));
}

class NeverStuckTest : public ::testing::Test {
protected:
    void SetUp() override {
        test::WriteLoggerSetting("<OutputScheduleEnableLogBufferedIO>0</OutputScheduleEnableLogBufferedIO>"
                                 "<OutputControlSocketTimeout>5</OutputControlSocketTimeout>"
                                 "<OutputScheduleMonitoringInterval>1</OutputScheduleMonitoringInterval>"
                                 "<LogLevel>1</LogLevel>");
        test::WriteFile("/sys/class/net/eth0/address", "00:1a:2b:3c:4d:5e\n");
        test::WriteFile(test::kLoggerSocket + ".keep", "");
        logger_.reset(new test::UnixPeer(test::kLoggerSocket, test::UnixPeer::kReply, std::string(12, '\0'), 8));
        // The day of the tests: tomorrow by the test's own clock, so that a
        // run whose clock is shifted as a whole has the daemon in its year.
        day_ = TimeStamp().EpochSeconds() / kDay * kDay + kDay;
    }

    void TearDown() override {
        if (daemon_.Running()) {
            daemon_.Signal(SIGTERM);
            daemon_.WaitExit(5000);
        }
    }

    // One day of stored schedule from the test's day, and its update
    // information: the next update at `next` (UTC), fixed schedule flag 3,
    // and whether a fixed schedule is still to be fetched.
    void StoreState(std::int64_t next, bool fixedNeeded) {
        std::vector<std::pair<std::int64_t, int>> slots;
        for (std::size_t i = 0; i < kSlots; ++i)
            slots.emplace_back(day_ + static_cast<std::int64_t>(i) * 1800, kStoredRate);
        test::StoreSchedule(kPlant, slots);
        test::CreateDatabase(test::kUpdateInfoDbFile,
                             "UPDATE output_control_schedule_update_info SET nextUpdateTime = '" + Display(next) +
                                 "', isNeedUpdateFixedSchedule = " + (fixedNeeded ? "1" : "0"));
    }

    // Sets the daemon's wall clock to `utcSeconds`, from where it runs on.
    void SetClock(std::int64_t utcSeconds) { test::ChildProcess::SetFakeTime(clockFile_, "@" + Display(utcSeconds)); }

    // Starts the daemon against `server` with its clock at `utcSeconds`.
    void StartAt(const HttpTestServer& server, std::int64_t utcSeconds) {
        test::WriteSystemSetting(kPlant, server.Url("/schedule"), false);
        SetClock(utcSeconds);
        std::map<std::string, std::string> env = test::ChildProcess::FakeTimeFileEnv(clockFile_);
        env["TZ"] = "UTC";
        ASSERT_TRUE(test::StartDaemon(daemon_, test::kDaemonOutput, env));
    }

    // Waits until `server` received `count` requests.
    static bool WaitForRequests(const HttpTestServer& server, std::size_t count, int timeoutMs = kDueMs) {
        return test::WaitFor([&] { return server.Requests().size() >= count; }, timeoutMs);
    }

    // The schedule kinds the daemon asked `server` for, in order; a
    // request that is not the daemon's form for the plant shows whole.
    static std::vector<std::string> Kinds(const HttpTestServer& server) {
        const std::string form = "power_plant_id=" + kPlant + "&mac_address=001A2B3C4D5E&schedule_kbn=";
        std::vector<std::string> kinds;
        for (const HttpTestServer::Received& request : server.Requests()) {
            const bool ours = request.body.compare(0, form.size(), form) == 0;
            kinds.push_back(ours ? request.body.substr(form.size()) : request.body);
        }
        return kinds;
    }

    static std::string CountOfRate(int rate) {
        return test::QueryValue(test::kScheduleDbFile,
                                "SELECT COUNT(*) FROM output_control_schedule WHERE controlRate = " +
                                    std::to_string(rate));
    }

    static std::string StoredNextUpdate() {
        return test::QueryValue(test::kUpdateInfoDbFile,
                                "SELECT nextUpdateTime FROM output_control_schedule_update_info");
    }

    static std::string Log() { return test::ReadFile(test::LogFilePath()); }

    test::ChildProcess daemon_;
    std::unique_ptr<test::UnixPeer> logger_;
    std::int64_t day_ = 0;
    const std::string clockFile_ = test::FixedPath("/tmp/pvocd.clock");
};

// The server refuses the update (404) when it is due. The daemon does not
// give up: it names its next attempt, the 6 hours of a refusal's back-off
// plus its plant's spread on, and a day later, with the server answering
// again, the schedule is fetched and stored.
TEST_F(NeverStuckTest, NotFoundAtTheUpdateTimeIsTriedAgainHoursLater) {
    const std::int64_t due = day_ + 3 * kHour;
    StoreState(due, false);
    const std::vector<std::vector<std::string>> stored = test::ScheduleRows();
    HttpTestServer server(HttpTestServer::Answer(404, "text/plain", "no"));
    StartAt(server, due - 600);
    if (HasFatalFailure()) return;
    ASSERT_TRUE(WaitForLine("D", kTag, "schedule_update_time_ [" + Display(due) + "]").found) << Log();
    SetClock(due - 2);

    const std::string stop = "Update schedule failed. Stop retry. " +
                             UpdateResult(FailureReason::kAccessFailed, 404, "Data is not found.").ToString();
    const LogLine failed = WaitForLine("E", kTag, stop);
    ASSERT_TRUE(failed.found) << Log();
    EXPECT_EQ(std::vector<std::string>{"0000"}, Kinds(server));
    EXPECT_GE(failed.at, due);
    const std::int64_t next = TimeAfter(failed.message, stop + " Next attempt ");
    ASSERT_NE(-1, next) << failed.message;
    EXPECT_EQ(stop + " Next attempt [" + Display(next) + "]", failed.message);
    const std::int64_t backOff = RetryPolicy::kPermanentBaseSeconds;
    const std::int64_t delay =
        std::min(backOff + RetryPolicy::SpreadSeconds(kPlant, RetryPolicy::kPermanentSpreadSeconds, 100), kDay);
    // Counted from the failure's now, which the line's own time may pass by
    // a second.
    EXPECT_LE(next, failed.at + delay) << failed.message;
    EXPECT_GE(next, failed.at + delay - 1) << failed.message;
    // The alarm holds that time.
    const LogLine planned = WaitForLine("D", kTag, "retry. schedule_update_time_ [");
    ASSERT_TRUE(planned.found) << Log();
    EXPECT_EQ("retry. schedule_update_time_ [" + Display(next) + "]", planned.message);
    EXPECT_FALSE(WaitForRequests(server, 2, kQuietMs)) << "tried again before its time";
    EXPECT_EQ(stored, test::ScheduleRows());

    const std::int64_t nextDay = day_ + kDay;
    server.SetAnswers({ScheduleServerAnswer(UpdateRecord(nextDay + kDay, kUpdateRate, nextDay + kDay + 3 * kHour),
                                            test::kUpdateSchedule)});
    SetClock(due + kDay);
    const LogLine updated = WaitForLine("I", kTag, "Schedule Update. [");
    ASSERT_TRUE(updated.found) << Log();
    EXPECT_EQ((std::vector<std::string>{"0000", "0000"}), Kinds(server));
    EXPECT_GE(updated.at, due + kDay);
    EXPECT_EQ(std::to_string(kSlots), CountOfRate(kUpdateRate));
    EXPECT_EQ(Display(nextDay + kDay + 3 * kHour), StoredNextUpdate());
}

// The clock runs a day ahead when the daemon starts, so the update is
// planned on that day; then the clock is set back to just before the
// stored update time. The daemon notes the step and plans again at once:
// it fetches at the stored time, not a day later.
TEST_F(NeverStuckTest, ClockSetBackReplansTheUpdateAtOnce) {
    const std::int64_t due = day_ + 3 * kHour;
    StoreState(due, false);
    const std::int64_t nextDay = day_ + kDay;
    HttpTestServer server(
        ScheduleServerAnswer(UpdateRecord(nextDay, kUpdateRate, nextDay + 3 * kHour), test::kUpdateSchedule));
    StartAt(server, nextDay + 10 * kHour);
    if (HasFatalFailure()) return;
    ASSERT_TRUE(WaitForLine("D", kTag, "schedule_update_time_ [" + Display(nextDay + 10 * kHour + 1800) + "]").found)
        << Log();
    EXPECT_TRUE(server.Requests().empty());

    SetClock(due - 10);
    const LogLine set = WaitForLine("I", "", "The clock was set by [");
    EXPECT_TRUE(set.found) << Log();
    EXPECT_LT(set.at, due);
    const LogLine updated = WaitForLine("I", kTag, "Schedule Update. [", kDueMs + 10000);
    ASSERT_TRUE(updated.found) << Log();
    EXPECT_EQ(std::vector<std::string>{"0000"}, Kinds(server));
    EXPECT_GE(updated.at, due);
    EXPECT_LE(updated.at, due + 10);
    EXPECT_EQ(std::to_string(kSlots), CountOfRate(kUpdateRate));
    EXPECT_EQ(Display(nextDay + 3 * kHour), StoredNextUpdate());
}

// The fixed schedule's fetch meets a failing server (500) at the plant's
// time and then every 5 minutes of the daemon's clock; after the fifth
// failure the next attempt is the plant's time of the next day. There,
// after that day's update (which the server answers again), the fixed
// schedule is fetched and stored.
TEST_F(NeverStuckTest, FixedScheduleIsTriedAgainTheNextDayAfterFiveFailures) {
    const std::int64_t first = day_ + kFixedTimeOfDay;
    const std::int64_t nextDay = day_ + kDay;
    // The update information asks for the fixed schedule of flag 3; the
    // next update comes the next day, before the plant's time.
    const std::int64_t update = nextDay + 15 * kHour;
    StoreState(update, true);
    HttpTestServer server(HttpTestServer::Answer(500, "text/plain", "down"));
    StartAt(server, first - 600);
    if (HasFatalFailure()) return;
    ASSERT_TRUE(WaitForLine("D", kTag, "fixed_schedule_update_time_ [" + Display(first) + "]").found) << Log();
    EXPECT_TRUE(server.Requests().empty());
    SetClock(first - 2);

    const std::string failure = "Fixed schedule update failed. [";
    for (int attempt = 1; attempt <= 4; ++attempt) {
        // The failure's line is queued just before its next attempt is
        // planned, and reaches the file only at the log writer's next tick:
        // once it is there, the plan counts from the clock before the step.
        const LogLine failed = WaitForLine("W", kTag, failure, kDueMs, static_cast<std::size_t>(attempt));
        ASSERT_TRUE(failed.found) << attempt << "\n" << Log();
        EXPECT_GE(failed.at, first + (attempt - 1) * 300);
        if (attempt == 1) {
            EXPECT_FALSE(WaitForRequests(server, 2, kQuietMs)) << "tried again before 5 minutes passed";
        }
        SetClock(first + attempt * 300);
        const std::string retry = "Fixed schedule update retry. [" + std::to_string(attempt) + "]";
        const LogLine retried = WaitForLine("E", kTag, retry);
        ASSERT_TRUE(retried.found) << Log();
        // Five minutes after the failure on the daemon's clock.
        EXPECT_GE(retried.at, failed.at + 300);
    }
    const std::string failed = "Fixed schedule update failed 5 times. Next attempt [" + Display(first + kDay) + "]";
    ASSERT_TRUE(WaitForLine("E", kTag, failed).found) << Log();
    EXPECT_EQ(std::vector<std::string>(5, "9993"), Kinds(server));
    EXPECT_EQ(5u, FindLines("W", kTag, failure).size());
    EXPECT_FALSE(FindLine("E", kTag, "Fixed schedule update retry. [5]").found);
    EXPECT_FALSE(WaitForRequests(server, 6, kQuietMs)) << "tried again before the next day";
    EXPECT_EQ("0", CountOfRate(kFixedRate));

    server.SetAnswers(
        {ScheduleServerAnswer(UpdateRecord(nextDay + kDay, kUpdateRate, update + kDay), test::kUpdateSchedule)});
    SetClock(update);
    ASSERT_TRUE(WaitForLine("I", kTag, "Schedule Update. [").found) << Log();
    EXPECT_EQ(std::to_string(kSlots), CountOfRate(kUpdateRate));
    EXPECT_FALSE(FindLine("I", kTag, "Fixed Schedule Update. [").found);

    server.SetAnswers({ScheduleServerAnswer(FixedRecord(nextDay + 2 * kDay, kFixedRate), test::kFixedSchedule)});
    SetClock(first + kDay);
    const LogLine stored = WaitForLine("I", kTag, "Fixed Schedule Update. [");
    ASSERT_TRUE(stored.found) << Log();
    std::vector<std::string> kinds(5, "9993");
    kinds.push_back("0000");
    kinds.push_back("9993");
    EXPECT_EQ(kinds, Kinds(server));
    EXPECT_GE(stored.at, first + kDay);
    EXPECT_EQ(std::to_string(kSlots), CountOfRate(kFixedRate));
    EXPECT_EQ("0", test::QueryValue(test::kUpdateInfoDbFile,
                                    "SELECT isNeedUpdateFixedSchedule FROM output_control_schedule_update_info"));
}

// The server is busy (503) and says when to come back: the next attempt
// is that many seconds on, not a back-off of the daemon's own, and when the
// clock gets there the daemon fetches again.
TEST_F(NeverStuckTest, RetryAfterOfTheServerSetsTheNextAttempt) {
    const std::int64_t due = day_ + 3 * kHour;
    StoreState(due, false);
    const std::int64_t nextDay = day_ + kDay;
    HttpTestServer server(
        {HttpTestServer::AnswerWithHeaders(503, "text/plain", "busy", "Retry-After: 120\r\n"),
         ScheduleServerAnswer(UpdateRecord(nextDay, kUpdateRate, nextDay + 3 * kHour), test::kUpdateSchedule)});
    StartAt(server, due - 600);
    if (HasFatalFailure()) return;
    ASSERT_TRUE(WaitForLine("D", kTag, "schedule_update_time_ [" + Display(due) + "]").found) << Log();
    SetClock(due - 2);

    const LogLine retry = WaitForLine("D", kTag, "retry. schedule_update_time_ [");
    ASSERT_TRUE(retry.found) << Log();
    EXPECT_EQ(std::vector<std::string>{"0000"}, Kinds(server));
    const std::int64_t next = TimeAfter(retry.message, "retry. schedule_update_time_ ");
    ASSERT_NE(-1, next) << retry.message;
    // Now plus 120 s, now being when the answer came; the line's own time
    // may pass it by a second, or by a few on a machine under load (the
    // default back-off would be half an hour).
    EXPECT_GE(next, due + 120) << retry.message;
    EXPECT_LE(next, retry.at + 120) << retry.message;
    EXPECT_GE(next, retry.at + 115) << retry.message;
    EXPECT_FALSE(WaitForRequests(server, 2, kQuietMs)) << "tried again before the server's time";

    SetClock(next);
    const LogLine updated = WaitForLine("I", kTag, "Schedule Update. [");
    ASSERT_TRUE(updated.found) << Log();
    EXPECT_EQ((std::vector<std::string>{"0000", "0000"}), Kinds(server));
    EXPECT_GE(updated.at, next);
    EXPECT_EQ(std::to_string(kSlots), CountOfRate(kUpdateRate));
    EXPECT_EQ(Display(nextDay + 3 * kHour), StoredNextUpdate());
}

} // namespace
} // namespace brvo
