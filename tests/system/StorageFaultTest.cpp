// The real pvocd when its tables cannot be kept where they belong: a card
// that cannot be written, a database directory that is read-only, a table
// file full of garbage, a table locked by another process, and the daemon
// killed in the middle of storing a year of slots. It never crashes,
// answers with the failures its flows define, and a table is always either
// what it was or what the flow meant it to become.
#include "support/ChildProcess.h"
#include "support/DaemonClient.h"
#include "support/HttpTestServer.h"
#include "support/Mounts.h"
#include "support/SchedulePayload.h"
#include "support/SqliteFile.h"
#include "support/TestFiles.h"
#include "support/UnixPeer.h"

#include <gtest/gtest.h>

#include <Poco/Thread.h>
#include <Poco/Timestamp.h>

#include <sqlite3.h>

#include <chrono>
#include <csignal>
#include <cstring>
#include <future>
#include <iostream>
#include <memory>
#include <sys/stat.h>

namespace brvo {
namespace {

using test::Ask;
using test::Capacity;
using test::Field;
using test::HttpTestServer;
using test::PowerOf;
using test::ScheduleServerAnswer;
using test::Word;
using test::WordAt;

const std::string kPlant = "00000000000000000000000777";
const std::string kDbDirectory = "/media/sdcard/kestrovanyx/Database/OutputControl";
const std::string kTmpDbFile = "/tmp/kestrovanyx/Database/OutputControl/output_control_schedule.db";
const int kRate = 60;
const std::size_t kSlots = 3 * 48;
const std::string kStored = std::to_string(kSlots + 48);
const std::string kSuccess = Word(144) + Word(2) + Word(0) + Word(0) + std::string(128, '\0');

// A connection of another process to a table file, holding its exclusive
// lock until released.
class TableLock {
public:
    explicit TableLock(const std::string& path) : db_(nullptr) {
        if (sqlite3_open_v2(path.c_str(), &db_, SQLITE_OPEN_READWRITE, nullptr) != SQLITE_OK ||
            sqlite3_exec(db_, "BEGIN EXCLUSIVE", nullptr, nullptr, nullptr) != SQLITE_OK) {
            ADD_FAILURE() << "cannot lock " << path << ": " << sqlite3_errmsg(db_);
        }
    }
    ~TableLock() { Release(); }

    // Ends the transaction and closes the connection.
    void Release() {
        if (db_ == nullptr) return;
        EXPECT_EQ(SQLITE_OK, sqlite3_exec(db_, "COMMIT", nullptr, nullptr, nullptr));
        sqlite3_close(db_);
        db_ = nullptr;
    }

private:
    sqlite3* db_;
};

// What a rollback journal file looks like on disk. A transaction that
// was cut short before its journal was synced leaves a journal that SQLite
// ignores and reuses; a new write transaction rewrites it.
struct JournalState {
    bool exists;
    struct stat info;

    static JournalState Of(const std::string& path) {
        JournalState state;
        std::memset(&state.info, 0, sizeof state.info);
        state.exists = stat(path.c_str(), &state.info) == 0;
        return state;
    }

    // Whether a write transaction has been at work on the journal since
    // `before` and left it there.
    bool WrittenSince(const JournalState& before) const {
        if (!exists) return false;
        if (!before.exists) return true;
        return info.st_ino != before.info.st_ino || info.st_size != before.info.st_size ||
               info.st_mtim.tv_sec != before.info.st_mtim.tv_sec || info.st_mtim.tv_nsec != before.info.st_mtim.tv_nsec;
    }
};

class StorageFaultTest : public ::testing::Test {
protected:
    void SetUp() override {
        test::WriteLoggerSetting("<OutputScheduleEnableLogBufferedIO>0</OutputScheduleEnableLogBufferedIO>"
                                 "<OutputControlSocketTimeout>5</OutputControlSocketTimeout>");
        test::WriteFile("/sys/class/net/eth0/address", "00:1a:2b:3c:4d:5e\n");
        test::WriteFile(test::kLoggerSocket + ".keep", "");
        logger_.reset(new test::UnixPeer(test::kLoggerSocket, test::UnixPeer::kReply, std::string(12, '\0'), 8));
    }

    void TearDown() override { StopDaemon(); }

    void StopDaemon() {
        if (!daemon_.Running()) return;
        daemon_.Signal(SIGTERM);
        EXPECT_TRUE(daemon_.WaitExit(static_cast<int>(5000 * test::TimeScale())));
    }

    // A server that answers the update schedule of `rate`, then the fixed
    // schedule; the system settings point at it.
    std::unique_ptr<HttpTestServer> Server(int rate = kRate) {
        std::unique_ptr<HttpTestServer> server(
            new HttpTestServer({ScheduleServerAnswer(test::CurrentUpdateRecord(rate, kSlots), test::kUpdateSchedule),
                                ScheduleServerAnswer(test::FixedRecordAhead(30, 3), test::kFixedSchedule)}));
        test::WriteSystemSetting(kPlant, server->Url("/schedule"), false);
        return server;
    }

    // Starts the daemon (with `env` added to its environment) and waits
    // until it stored and forwarded both schedules into `dbFile`.
    void StartWithStoredSchedule(const std::string& dbFile = test::kScheduleDbFile,
                                 const std::map<std::string, std::string>& env = {}) {
        server_ = Server();
        ASSERT_TRUE(test::StartDaemon(daemon_, test::kDaemonOutput, env));
        ASSERT_TRUE(test::WaitFor(
            [&] {
                return test::FileExists(dbFile) &&
                       test::QueryValue(dbFile, "SELECT COUNT(*) FROM output_control_schedule WHERE sent = 1") ==
                           kStored;
            },
            15000))
            << test::ReadFile(test::kDaemonOutput);
    }

    // The current target power for a capacity of 10 is the stored rate's.
    static void ExpectCurrentTargetPower(int rate = kRate, int silenceMs = 30000) {
        const std::string answer = Ask(test::kCurrentTargetPowerRequest, Capacity(10.0), silenceMs);
        ASSERT_EQ(test::kTargetPowerAnswerSize, answer.size());
        EXPECT_EQ(0, WordAt(answer, 31)) << answer.substr(39);
        EXPECT_DOUBLE_EQ(10.0 * rate / 100.0, PowerOf(answer));
    }

    // The current target power cannot be got.
    static void ExpectNoTargetPower() {
        const std::string answer = Ask(test::kCurrentTargetPowerRequest, Capacity(10.0));
        ASSERT_EQ(test::kTargetPowerAnswerSize, answer.size());
        EXPECT_EQ(5, WordAt(answer, 31));
        EXPECT_EQ(Field("can not get.", 128), answer.substr(39));
    }

    // An update request fails on the database.
    static void ExpectDatabaseUpdateError() {
        const std::string answer = Ask(test::kUpdateScheduleRequest);
        ASSERT_EQ(test::kUpdateAnswerSize, answer.size());
        EXPECT_EQ(5, WordAt(answer, 8));
        EXPECT_EQ(200, WordAt(answer, 12));
        EXPECT_EQ(Field("Database update error.", 128), answer.substr(16));
    }

    // Whether the log (or, when the log cannot be written, its echo on
    // standard output) shows a line of `mark` from `tag` beginning with
    // `prefix`, within a few log ticks.
    static bool Logged(const std::string& mark, const std::string& tag, const std::string& prefix,
                       const std::string& file = test::LogFilePath(), int timeoutMs = 3000) {
        return test::WaitFor(
            [&] {
                std::vector<std::string> lines = test::ReadLines(file);
                if (file == test::kDaemonOutput) {
                    const std::string echo = "OutputSchedule_pvocd.log ";
                    for (std::string& line : lines) {
                        if (line.compare(0, echo.size(), echo) == 0) line = line.substr(echo.size());
                    }
                }
                return test::HasLogLineStarting(lines, mark, tag, prefix);
            },
            timeoutMs);
    }

    // A clock that starts now and runs 100 times faster: the 60 s time-outs
    // of the table sessions pass in 0.6 s.
    static std::map<std::string, std::string> FastClock() { return test::ChildProcess::FakeTimeEnv("+0 x100"); }

    test::ChildProcess daemon_;
    std::unique_ptr<test::UnixPeer> logger_;
    std::unique_ptr<HttpTestServer> server_;
};

TEST_F(StorageFaultTest, UnwritableCardKeepsTheTablesUnderTmp) {
    ASSERT_TRUE(test::MountTmpfs("/media/sdcard", "size=64k", true));
    StartWithStoredSchedule(kTmpDbFile);
    if (HasFatalFailure()) return;
    EXPECT_TRUE(test::FileExists("/tmp/kestrovanyx/Database/OutputControl/output_control_schedule_update_info.db"));
    ExpectCurrentTargetPower();
    // Another update goes to the same place.
    std::unique_ptr<HttpTestServer> server = Server(25);
    EXPECT_EQ(kSuccess, Ask(test::kUpdateScheduleRequest));
    EXPECT_EQ(std::to_string(kSlots),
              test::QueryValue(kTmpDbFile, "SELECT COUNT(*) FROM output_control_schedule WHERE controlRate = 25"));
    ExpectCurrentTargetPower(25);
    // The log cannot be written either: one note for the whole run.
    EXPECT_EQ(1u, test::ReadLines("/tmp/logger_io_file_error").size());
    EXPECT_FALSE(test::FileExists("/media/sdcard/kestrovanyx"));
    EXPECT_TRUE(daemon_.Running());
}

TEST_F(StorageFaultTest, ReadOnlyTablesAreReadButNeverWritten) {
    StartWithStoredSchedule();
    if (HasFatalFailure()) return;
    StopDaemon();
    const auto schedule = test::ScheduleRows();
    const auto info = test::UpdateInfoRows();
    ASSERT_TRUE(test::MakeReadOnly(kDbDirectory));
    ASSERT_TRUE(test::StartDaemon(daemon_, test::kDaemonOutput));

    ExpectCurrentTargetPower();
    std::unique_ptr<HttpTestServer> server = Server(25);
    ExpectDatabaseUpdateError();
    EXPECT_TRUE(Logged("E", "ScheduleDatabase", "Insert Update Schedule error. ["));
    EXPECT_TRUE(Logged("W", "ScheduleUpdateManager", "Schedule update failed. Database update error."));
    EXPECT_EQ(schedule, test::ScheduleRows());
    EXPECT_EQ(info, test::UpdateInfoRows());
    ExpectCurrentTargetPower();
    EXPECT_TRUE(daemon_.Running());
}

// A table file that cannot be created is retried for the session's 60 s
// time-out at every operation; the daemon's clock runs 100 times faster
// here so that each attempt takes 0.6 s.
TEST_F(StorageFaultTest, UnwritableDatabaseDirectoryFailsUntilItCanBeWritten) {
    test::WriteFile(kDbDirectory + "/.keep", "");
    ASSERT_TRUE(test::MakeReadOnly(kDbDirectory));
    server_ = Server();
    ASSERT_TRUE(test::StartDaemon(daemon_, test::kDaemonOutput, FastClock()));
    // The start-up fetch finds no table to store into.
    ASSERT_TRUE(Logged("W", "ScheduleUpdateManager", "Schedule update failed. Database update error.",
                       test::LogFilePath(), 15000));
    EXPECT_EQ(1u, server_->Requests().size());
    EXPECT_TRUE(Logged("E", "ScheduleDatabase", "InitDataBaseFile error. ["));
    EXPECT_TRUE(Logged("E", "ScheduleDatabase", "Database Open error."));
    EXPECT_TRUE(Logged("E", "ScheduleUpdateDataInfo", "Database Open error."));

    ExpectNoTargetPower();
    std::unique_ptr<HttpTestServer> server = Server();
    ExpectDatabaseUpdateError();
    EXPECT_FALSE(test::FileExists(test::kScheduleDbFile));

    // Writable again: the next operations open the tables and work.
    ASSERT_TRUE(test::Unmount(kDbDirectory));
    server = Server();
    EXPECT_EQ(kSuccess, Ask(test::kUpdateScheduleRequest));
    EXPECT_EQ(kStored, test::QueryValue(test::kScheduleDbFile, "SELECT COUNT(*) FROM output_control_schedule"));
    ExpectCurrentTargetPower();
    EXPECT_TRUE(daemon_.Running());
}

TEST_F(StorageFaultTest, GarbageTableFileIsReportedAndLeftAlone) {
    std::string garbage;
    for (int i = 0; i < 8192; ++i) garbage += static_cast<char>((i * 7919 + 13) % 251);
    test::WriteFile(test::kScheduleDbFile, garbage);
    server_ = Server();
    ASSERT_TRUE(test::StartDaemon(daemon_, test::kDaemonOutput));
    EXPECT_TRUE(Logged("E", "ScheduleDatabase", "InitDataBaseFile error. ["));

    ExpectNoTargetPower();
    EXPECT_TRUE(Logged("E", "ScheduleDatabase", "Select error. ["));
    std::unique_ptr<HttpTestServer> server = Server();
    ExpectDatabaseUpdateError();
    EXPECT_TRUE(Logged("E", "ScheduleDatabase", "Insert Update Schedule error. ["));
    EXPECT_EQ(Word(144) + Word(8), Ask(test::kFlushLogRequest).substr(0, 8));
    EXPECT_EQ(garbage, test::ReadFile(test::kScheduleDbFile));
    EXPECT_TRUE(daemon_.Running());
}

TEST_F(StorageFaultTest, LockedTableHoldsUpNoAnswerAndIsWrittenAfterRelease) {
    StartWithStoredSchedule();
    if (HasFatalFailure()) return;
    const int heldMs = static_cast<int>(1000 * test::TimeScale());

    // Target power is answered from memory while the lock is held (a read
    // of the table would wait 60 s for it, past the silence allowed here).
    {
        TableLock readLock(test::kScheduleDbFile);
        ExpectCurrentTargetPower(kRate, 20000);
    }

    // A writer waits for the lock, and its rows are stored once it is gone.
    std::unique_ptr<HttpTestServer> server = Server(25);
    TableLock writeLock(test::kScheduleDbFile);
    std::future<std::string> update = std::async(std::launch::async, [] { return Ask(test::kUpdateScheduleRequest); });
    EXPECT_EQ(std::future_status::timeout, update.wait_for(std::chrono::milliseconds(heldMs)));
    writeLock.Release();
    EXPECT_EQ(kSuccess, update.get());
    EXPECT_EQ(
        std::to_string(kSlots),
        test::QueryValue(test::kScheduleDbFile, "SELECT COUNT(*) FROM output_control_schedule WHERE controlRate = 25"));
    ExpectCurrentTargetPower(25);
}

// A lock held past the 60 s busy time-out of the session fails the write
// with the defined answer; once the lock is gone, writes work again. The
// daemon's clock runs 100 times faster, so the time-out passes in 0.6 s
// (and a slot in 18 s: whether target power is answered from memory under
// the lock is tested at the real pace, above).
TEST_F(StorageFaultTest, LockHeldPastTheBusyTimeOutFailsTheWrite) {
    StartWithStoredSchedule(test::kScheduleDbFile, FastClock());
    if (HasFatalFailure()) return;
    {
        TableLock lock(test::kScheduleDbFile);
        std::unique_ptr<HttpTestServer> server = Server(25);
        ExpectDatabaseUpdateError();
        EXPECT_TRUE(Logged("E", "ScheduleDatabase", "Insert Update Schedule error. ["));
    }
    std::unique_ptr<HttpTestServer> server = Server(25);
    EXPECT_EQ(kSuccess, Ask(test::kUpdateScheduleRequest));
    ExpectCurrentTargetPower(25);
    EXPECT_TRUE(daemon_.Running());
}

// Kills the daemon (SIGKILL) while it stores a year of slots, at several
// moments, and restarts it each time: both table files pass SQLite's
// integrity check, and the schedule table holds exactly one of the two
// schedules, never a mix, never the fixed schedule's rows.
TEST_F(StorageFaultTest, KillWhileStoringAYearLeavesOldOrNewRows) {
    const std::size_t kYear = 17520;
    const int kFixedRate = 1;
    auto serverFor = [&](int rate) {
        std::unique_ptr<HttpTestServer> server(
            new HttpTestServer({ScheduleServerAnswer(test::CurrentUpdateRecord(rate, kYear), test::kUpdateSchedule),
                                ScheduleServerAnswer(test::FixedRecordAhead(kFixedRate, 2), test::kFixedSchedule)}));
        test::WriteSystemSetting(kPlant, server->Url("/schedule"), false);
        return server;
    };
    const std::string journal = std::string(test::kScheduleDbFile) + "-journal";
    const std::string year = std::to_string(kYear);

    std::unique_ptr<HttpTestServer> server = serverFor(10);
    ASSERT_TRUE(test::StartDaemon(daemon_, test::kDaemonOutput));
    ASSERT_TRUE(test::WaitFor(
        [&] {
            return test::QueryValue(test::kScheduleDbFile,
                                    "SELECT COUNT(*) FROM output_control_schedule WHERE sent = 1") == year;
        },
        30000))
        << test::ReadFile(test::kDaemonOutput);
    const std::int64_t first =
        std::stoll(test::QueryValue(test::kScheduleDbFile, "SELECT MIN(time) FROM output_control_schedule"));

    // One undisturbed update gives the time the whole flow takes, up to
    // its rows being marked sent after the answer.
    server = serverFor(20);
    Poco::Timestamp started;
    ASSERT_EQ(kSuccess, Ask(test::kUpdateScheduleRequest));
    ASSERT_TRUE(test::WaitFor(
        [&] {
            return test::QueryValue(
                       test::kScheduleDbFile,
                       "SELECT COUNT(*) FROM output_control_schedule WHERE sent = 1 AND controlRate = 20") == year;
        },
        30000));
    const Poco::Timestamp::TimeDiff requestUs = started.elapsed();
    int stored = 20;

    // Kills as soon as the journal shows a write under way (and a little
    // later), then at fixed fractions of the whole flow.
    const std::vector<int> afterJournalUs = {0, 0, 1000, 3000, 10000, -1, -1, -1};
    const std::vector<double> ofRequest = {0, 0, 0, 0, 0, 0.25, 0.6, 0.95};
    int hotJournals = 0;
    for (std::size_t attempt = 0; attempt < afterJournalUs.size(); ++attempt) {
        SCOPED_TRACE("attempt " + std::to_string(attempt));
        const int target = 30 + 10 * static_cast<int>(attempt);
        server = serverFor(target);
        const JournalState before = JournalState::Of(journal);
        const int connection = test::SendRequest(test::kUpdateScheduleRequest);
        const Poco::Timestamp asked;
        if (afterJournalUs[attempt] >= 0) {
            while (!JournalState::Of(journal).WrittenSince(before) && asked.elapsed() < 4 * requestUs + 2000000) {
                Poco::Thread::sleep(0);
            }
            if (afterJournalUs[attempt] > 0) Poco::Thread::sleep(afterJournalUs[attempt] / 1000);
        } else {
            const Poco::Timestamp::TimeDiff delayUs =
                static_cast<Poco::Timestamp::TimeDiff>(static_cast<double>(requestUs) * ofRequest[attempt]);
            while (asked.elapsed() < delayUs) Poco::Thread::sleep(1);
        }
        const Poco::Timestamp::TimeDiff killedAtUs = asked.elapsed();
        ASSERT_TRUE(daemon_.Signal(SIGKILL));
        ASSERT_TRUE(daemon_.WaitExit(5000));
        test::ReadAnswer(connection, 1000);
        const bool hot = JournalState::Of(journal).WrittenSince(before);
        if (hot) ++hotJournals;

        ASSERT_TRUE(test::StartDaemon(daemon_, test::kDaemonOutput));
        EXPECT_EQ("ok", test::QueryValue(test::kScheduleDbFile, "PRAGMA integrity_check"));
        EXPECT_EQ("ok", test::QueryValue(test::kUpdateInfoDbFile, "PRAGMA integrity_check"));
        const auto shape = test::QueryFile(test::kScheduleDbFile,
                                           "SELECT COUNT(*), MIN(time), MAX(time), COUNT(DISTINCT controlRate), "
                                           "MIN(controlRate), COUNT(DISTINCT sent) FROM output_control_schedule");
        ASSERT_EQ(1u, shape.size());
        EXPECT_EQ(year, shape[0][0]);
        EXPECT_EQ(std::to_string(first), shape[0][1]);
        EXPECT_EQ(std::to_string(first + static_cast<std::int64_t>(kYear - 1) * 1800), shape[0][2]);
        EXPECT_EQ("1", shape[0][3]) << "rates of two schedules";
        EXPECT_EQ("1", shape[0][5]) << "rows both sent and unsent";
        const int rate = std::stoi(shape[0][4]);
        EXPECT_TRUE(rate == stored || rate == target) << rate << " is neither " << stored << " nor " << target;
        std::cout << "attempt " << attempt << ": killed after " << killedAtUs << " us of " << requestUs
                  << (hot ? ", during a write" : "") << "; rate " << rate << (rate == target ? " (new)" : " (old)")
                  << std::endl;
        stored = rate;
        ExpectCurrentTargetPower(stored);
    }
    // Without a kill in the middle of a write transaction this test would
    // prove little.
    EXPECT_GT(hotJournals, 0);
    RecordProperty("KillsDuringAWrite", hotJournals);
}

} // namespace
} // namespace brvo
