// The real pvocd when its tables cannot be kept where they belong: a card
// that cannot be written, is full, or is pulled out while the daemon runs,
// a database directory that is read-only, a directory where a table file
// belongs, a table file that is damaged (garbage, cut short, of another
// schema, a page overwritten by noise), a table locked by another process,
// and the daemon killed in the middle of storing a year of slots. It never
// crashes, answers with the failures its flows define and at once (only a
// lock is waited for), stops promptly, moves a damaged file aside and
// fetches its schedules again, and a table is always either what it was
// or what the flow meant it to become.
//
// The measured times of the bounds are printed ("[ bound    ]" lines).
#include "server/CommandWire.h"
#include "support/ChildProcess.h"
#include "support/DaemonClient.h"
#include "support/HttpTestServer.h"
#include "support/Mounts.h"
#include "support/SchedulePayload.h"
#include "support/SqliteFile.h"
#include "support/StoredSchedule.h"
#include "support/TableLock.h"
#include "support/TestFiles.h"
#include "support/UnixPeer.h"
#include "util/TimeStamp.h"

#include <gtest/gtest.h>

#include <Poco/Clock.h>
#include <Poco/File.h>
#include <Poco/Timestamp.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <future>
#include <iostream>
#include <memory>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

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
const std::string kSuccess = test::UpdateAnswer(CommandWire::kUpdateSchedule);
// The rate of a schedule stored before the daemon starts.
const int kOldRate = 33;
// A year of half-hour slots: a table file of some fifty pages.
const std::size_t kYear = 17520;
const std::int64_t kSlotSeconds = 1800;
const std::size_t kPageSize = 4096;
const std::string kMarkFile = kDbDirectory + "/pvocd.clean-stop";

// The bounds (times TimeScale()). Before only a lock was waited for, each
// of these took a minute per table operation on a file that cannot be
// opened.
const int kSocketUpMs = 10000;
const int kAnswerMs = 5000;
const int kStopMs = 5000;

int Scaled(int ms) {
    return static_cast<int>(ms * test::TimeScale());
}

// Prints a measured time for the run's record and checks it against its
// bound.
void ExpectWithin(const std::string& what, long long ms, int boundMs) {
    std::cout << "[ bound    ] " << what << ": " << ms << " ms (bound " << boundMs << " ms)" << std::endl;
    EXPECT_LE(ms, boundMs) << what;
}

long long MsSince(const Poco::Clock& start) {
    return static_cast<long long>(start.elapsed() / 1000);
}

// Asks the daemon and checks that the answer came within the bound; a
// daemon that does not answer is given up on at the bound.
std::string AskWithin(const std::string& what, std::int32_t type, const std::string& params = "") {
    const Poco::Clock asked;
    const std::string answer = Ask(type, params, Scaled(kAnswerMs));
    ExpectWithin(what, MsSince(asked), Scaled(kAnswerMs));
    return answer;
}

// The files that the table file `file` was moved aside to, oldest first.
std::vector<std::string> MovedAside(const std::string& file) {
    std::vector<std::string> found;
    const std::size_t slash = file.rfind('/');
    const std::string directory = file.substr(0, slash);
    const std::string prefix = file.substr(slash + 1) + ".damaged-";
    DIR* dir = ::opendir(directory.c_str());
    if (dir == nullptr) return found;
    while (const dirent* entry = ::readdir(dir)) {
        const std::string name = entry->d_name;
        if (name.compare(0, prefix.size(), prefix) == 0) found.push_back(directory + "/" + name);
    }
    ::closedir(dir);
    std::sort(found.begin(), found.end());
    return found;
}

// Bytes that no SQLite file begins with.
std::string Garbage(std::size_t size) {
    std::string garbage;
    for (std::size_t i = 0; i < size; ++i) garbage += static_cast<char>((i * 7919 + 13) % 251);
    return garbage;
}

// Overwrites the last page of the table file `file` with noise, as a write
// cut short on a worn card leaves it; returns the file's bytes afterwards.
std::string DamageLastPage(const std::string& file) {
    std::string bytes = test::ReadFile(file);
    EXPECT_GE(bytes.size(), 16 * kPageSize) << file << " has too few pages";
    EXPECT_EQ(0u, bytes.size() % kPageSize) << file;
    std::uint32_t state = 2463534242u;
    for (std::size_t i = bytes.size() - std::min(bytes.size(), kPageSize); i < bytes.size(); ++i) {
        state ^= state << 13;
        state ^= state >> 17;
        state ^= state << 5;
        bytes[i] = static_cast<char>(state & 0xff);
    }
    test::WriteFile(file, bytes);
    return bytes;
}

std::int64_t TodayUtc() {
    return TimeStamp().EpochSeconds() / 86400 * 86400;
}

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
        UseLoggerSettings("");
        test::WriteFile("/sys/class/net/eth0/address", "00:1a:2b:3c:4d:5e\n");
        test::WriteFile(test::kLoggerSocket + ".keep", "");
        logger_.reset(new test::UnixPeer(test::kLoggerSocket, test::UnixPeer::kReply, std::string(12, '\0'), 8));
    }

    void TearDown() override { StopDaemon(); }

    // The logger settings of every test, with `more` elements.
    static void UseLoggerSettings(const std::string& more) {
        test::WriteLoggerSetting("<OutputScheduleEnableLogBufferedIO>0</OutputScheduleEnableLogBufferedIO>"
                                 "<OutputControlSocketTimeout>5</OutputControlSocketTimeout>" +
                                 more);
    }

    // Update alarm ticks every second (what waits for the next tick
    // happens within a second or two), and `more`.
    static void TickEverySecond(const std::string& more = "") {
        UseLoggerSettings("<OutputScheduleMonitoringInterval>1</OutputScheduleMonitoringInterval>" + more);
    }

    // Starts the daemon (with `env` added to its environment) and checks
    // that its command socket came up within the bound.
    void StartBounded(const std::map<std::string, std::string>& env = {}) {
        const Poco::Clock started;
        ASSERT_TRUE(test::StartDaemon(daemon_, test::kDaemonOutput, env));
        ExpectWithin("command socket up", MsSince(started), Scaled(kSocketUpMs));
    }

    // Stops the daemon with SIGTERM and checks that it ended, normally and
    // within the bound.
    void StopDaemon() {
        if (!daemon_.Running()) return;
        const Poco::Clock stopping;
        daemon_.Signal(SIGTERM);
        const bool ended = daemon_.WaitExit(Scaled(kStopMs));
        ExpectWithin("stop on SIGTERM", MsSince(stopping), Scaled(kStopMs));
        ASSERT_TRUE(ended) << test::ReadFile(test::kDaemonOutput);
        EXPECT_TRUE(daemon_.ExitedNormally());
        EXPECT_EQ(0, daemon_.ExitCode());
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
        if (!server_) server_ = Server();
        StartBounded(env);
        if (HasFatalFailure()) return;
        ASSERT_TRUE(WaitForSent(kStored, dbFile)) << test::ReadFile(test::kDaemonOutput);
    }

    // Waits until `rows` rows are stored in `dbFile` and all of them were
    // forwarded to the logger daemon.
    static bool WaitForSent(const std::string& rows, const std::string& dbFile = test::kScheduleDbFile) {
        return test::WaitFor(
            [&] {
                return test::FileExists(dbFile) &&
                       test::QueryValue(dbFile, "SELECT COUNT(*) FROM output_control_schedule WHERE sent = 1") ==
                           rows &&
                       test::QueryValue(dbFile, "SELECT COUNT(*) FROM output_control_schedule") == rows;
            },
            15000);
    }

    // A server that answers a year of slots of `rate`, the last of them
    // the half hour before today 00:00 UTC (so that it is the current slot
    // whenever a test runs, and its row lies in the last page of the table
    // file), then a fixed schedule of days the year already holds.
    std::unique_ptr<HttpTestServer> YearServer(int rate) {
        test::ScheduleRecord year = test::CurrentUpdateRecord(rate, kYear);
        year.start = test::ServerTime(TodayUtc() - static_cast<std::int64_t>(kYear) * kSlotSeconds, "%Y%m%d%H%M");
        std::unique_ptr<HttpTestServer> server(
            new HttpTestServer({ScheduleServerAnswer(year, test::kUpdateSchedule),
                                ScheduleServerAnswer(test::FixedRecordAhead(30, -2), test::kFixedSchedule)}));
        test::WriteSystemSetting(kPlant, server->Url("/schedule"), false);
        return server;
    }

    // The schedule of the configured plant at kOldRate, `slots` half hours
    // from yesterday 00:00 UTC on, and its update information (which alone
    // keeps the daemon from fetching at its start), stored before the
    // daemon starts.
    static void StoreOldSchedule(std::size_t slots = kSlots) {
        std::vector<std::pair<std::int64_t, int>> rows;
        for (std::size_t i = 0; i < slots; ++i) {
            rows.emplace_back(TodayUtc() - 86400 + static_cast<std::int64_t>(i) * kSlotSeconds, kOldRate);
        }
        test::StoreSchedule(kPlant, rows);
    }

    // The daemon emptied both tables, treated the plant as new, fetched the
    // update schedule and then the fixed one from `server`, stored them and
    // told the logger daemon.
    void ExpectFetchedAsNewPlant(const HttpTestServer& server) {
        EXPECT_TRUE(Logged("I", "ScheduleUpdateManager", "Plant ID change. [] to [" + kPlant + "]"));
        ASSERT_TRUE(WaitForSent(kStored)) << test::ReadFile(test::kDaemonOutput);
        const std::vector<HttpTestServer::Received> requests = server.Requests();
        ASSERT_EQ(2u, requests.size());
        EXPECT_NE(std::string::npos, requests[0].body.find("schedule_kbn=0000")) << requests[0].body;
        EXPECT_NE(std::string::npos, requests[1].body.find("schedule_kbn=999")) << requests[1].body;
        EXPECT_FALSE(logger_->Received().empty());
        EXPECT_EQ(kPlant,
                  test::QueryValue(test::kUpdateInfoDbFile, "SELECT plantId FROM output_control_schedule_update_info"));
    }

    // The table file `file` (of `tag`) was found damaged and moved aside,
    // holding `original`, and a fresh one took its place.
    void ExpectMovedAside(const std::string& file, const std::string& tag, const std::string& original) {
        EXPECT_TRUE(Logged("E", tag, "Damaged table moved aside. [" + file + "] to [" + file + ".damaged-"));
        const std::vector<std::string> aside = MovedAside(file);
        ASSERT_EQ(1u, aside.size());
        EXPECT_TRUE(original == test::ReadFile(aside[0])) << aside[0] << " does not hold the damaged bytes";
        EXPECT_EQ("ok", test::QueryValue(file, "PRAGMA integrity_check"));
    }

    // The current target power for a capacity of 10 is the stored rate's,
    // answered at once.
    static void ExpectCurrentTargetPower(int rate = kRate) {
        const std::string answer = AskWithin("target power (" + std::to_string(rate) + " %)",
                                             test::kCurrentTargetPowerRequest, Capacity(10.0));
        ASSERT_EQ(test::kTargetPowerAnswerSize, answer.size());
        EXPECT_EQ(0, WordAt(answer, CommandWire::kTargetCodeOffset))
            << answer.substr(CommandWire::kTargetMessageOffset);
        EXPECT_DOUBLE_EQ(10.0 * rate / 100.0, PowerOf(answer));
    }

    // The current target power cannot be got, and that is answered at once.
    static void ExpectNoTargetPower() {
        const std::string answer =
            AskWithin("target power (can not get)", test::kCurrentTargetPowerRequest, Capacity(10.0));
        ASSERT_EQ(test::kTargetPowerAnswerSize, answer.size());
        EXPECT_EQ(5, WordAt(answer, CommandWire::kTargetCodeOffset));
        EXPECT_EQ(Field("can not get.", CommandWire::kMessageSize), answer.substr(CommandWire::kTargetMessageOffset));
    }

    // An update request fails on the database, and that is answered at
    // once.
    static void ExpectDatabaseUpdateError() {
        const std::string answer = AskWithin("update (Database update error)", test::kUpdateScheduleRequest);
        ASSERT_EQ(test::kUpdateAnswerSize, answer.size());
        EXPECT_EQ(5, WordAt(answer, CommandWire::kUpdateReasonOffset));
        EXPECT_EQ(200, WordAt(answer, CommandWire::kUpdateStatusOffset));
        EXPECT_EQ(Field("Database update error.", CommandWire::kMessageSize),
                  answer.substr(CommandWire::kUpdateMessageOffset));
    }

    // An update request stores, answered at once.
    static void ExpectUpdateStored() {
        EXPECT_EQ(kSuccess, AskWithin("update (stored)", test::kUpdateScheduleRequest));
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

    // How many ticks of the update alarm the log shows so far.
    static std::size_t UpdateTicks() {
        const std::vector<std::string> lines = test::ReadLines(test::LogFilePath());
        return static_cast<std::size_t>(std::count_if(lines.begin(), lines.end(), [](const std::string& line) {
            return line.find("] ScheduleUpdateManager CallbackUpdateSchedule") != std::string::npos;
        }));
    }

    // Waits until the update alarm ticked `ticks` more times.
    static bool WaitForTicks(std::size_t ticks) {
        const std::size_t before = UpdateTicks();
        return test::WaitFor([&] { return UpdateTicks() >= before + ticks; }, 5000);
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
    StartBounded();
    if (HasFatalFailure()) return;

    ExpectCurrentTargetPower();
    std::unique_ptr<HttpTestServer> server = Server(25);
    ExpectDatabaseUpdateError();
    EXPECT_TRUE(Logged("E", "ScheduleDatabase", "Insert Update Schedule error. ["));
    EXPECT_TRUE(Logged("W", "ScheduleUpdateManager", "Schedule update failed. Database update error."));
    EXPECT_EQ(schedule, test::ScheduleRows());
    EXPECT_EQ(info, test::UpdateInfoRows());
    ExpectCurrentTargetPower();
    // A read-only file is no damage.
    EXPECT_TRUE(MovedAside(test::kScheduleDbFile).empty());
    EXPECT_TRUE(MovedAside(test::kUpdateInfoDbFile).empty());
    EXPECT_TRUE(daemon_.Running());
    StopDaemon();
}

// A table file that cannot be created fails each operation at once; the
// next operation tries again.
TEST_F(StorageFaultTest, UnwritableDatabaseDirectoryFailsUntilItCanBeWritten) {
    test::WriteFile(kDbDirectory + "/.keep", "");
    ASSERT_TRUE(test::MakeReadOnly(kDbDirectory));
    server_ = Server();
    StartBounded();
    if (HasFatalFailure()) return;
    // The start-up fetch finds no table to store into.
    ASSERT_TRUE(Logged("W", "ScheduleUpdateManager", "Schedule update failed. Database update error.",
                       test::LogFilePath(), kAnswerMs));
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
    ExpectUpdateStored();
    EXPECT_EQ(kStored, test::QueryValue(test::kScheduleDbFile, "SELECT COUNT(*) FROM output_control_schedule"));
    ExpectCurrentTargetPower();
    EXPECT_TRUE(daemon_.Running());
    StopDaemon();
}

// A directory where the schedule table's file belongs cannot be opened,
// and trying longer does not change that: every operation fails at once,
// and none takes it for a damaged file. Once it is gone, the next update
// makes the table and stores.
TEST_F(StorageFaultTest, DirectoryAtTheScheduleTablePathFailsAtOnceUntilRemoved) {
    Poco::File(test::kScheduleDbFile).createDirectories();
    test::WriteFile(std::string(test::kScheduleDbFile) + "/inside", "kept");
    server_ = Server();
    StartBounded();
    if (HasFatalFailure()) return;
    ASSERT_TRUE(Logged("W", "ScheduleUpdateManager", "Schedule update failed. Database update error.",
                       test::LogFilePath(), kAnswerMs));
    EXPECT_TRUE(Logged("E", "ScheduleDatabase", "InitDataBaseFile error. ["));
    EXPECT_TRUE(Logged("E", "ScheduleDatabase", "Database Open error."));

    ExpectNoTargetPower();
    std::unique_ptr<HttpTestServer> server = Server();
    ExpectDatabaseUpdateError();
    ExpectNoTargetPower();
    EXPECT_EQ("kept", test::ReadFile(std::string(test::kScheduleDbFile) + "/inside"));
    EXPECT_TRUE(MovedAside(test::kScheduleDbFile).empty());

    test::RemoveAll(test::kScheduleDbFile);
    server = Server();
    ExpectUpdateStored();
    EXPECT_EQ(kStored, test::QueryValue(test::kScheduleDbFile, "SELECT COUNT(*) FROM output_control_schedule"));
    ExpectCurrentTargetPower();
    EXPECT_TRUE(daemon_.Running());
    StopDaemon();
}

// A directory where the update information's file belongs: the schedule
// table still takes the fetched rows and answers the target power from
// them, but no flow that needs the update information succeeds, so the
// rows are never forwarded. Once the directory is gone, the next update
// stores both and forwards.
TEST_F(StorageFaultTest, DirectoryAtTheUpdateInfoTablePathFailsAtOnceUntilRemoved) {
    Poco::File(test::kUpdateInfoDbFile).createDirectories();
    server_ = Server();
    StartBounded();
    if (HasFatalFailure()) return;
    ASSERT_TRUE(Logged("W", "ScheduleUpdateManager", "Schedule update failed. Database update error.",
                       test::LogFilePath(), kAnswerMs));
    EXPECT_TRUE(Logged("E", "ScheduleUpdateDataInfo", "InitDataBaseFile error. ["));
    EXPECT_TRUE(Logged("E", "ScheduleUpdateDataInfo", "Database Open error."));
    EXPECT_EQ(std::to_string(kSlots),
              test::QueryValue(test::kScheduleDbFile, "SELECT COUNT(*) FROM output_control_schedule WHERE sent = 0"));

    ExpectCurrentTargetPower();
    std::unique_ptr<HttpTestServer> server = Server(25);
    ExpectDatabaseUpdateError();
    ExpectCurrentTargetPower(25);
    EXPECT_TRUE(logger_->Received().empty());
    EXPECT_TRUE(MovedAside(test::kUpdateInfoDbFile).empty());

    test::RemoveAll(test::kUpdateInfoDbFile);
    server = Server();
    ExpectUpdateStored();
    ASSERT_TRUE(WaitForSent(kStored));
    EXPECT_EQ(kPlant,
              test::QueryValue(test::kUpdateInfoDbFile, "SELECT plantId FROM output_control_schedule_update_info"));
    EXPECT_FALSE(logger_->Received().empty());
    ExpectCurrentTargetPower();
    EXPECT_TRUE(daemon_.Running());
    StopDaemon();
}

// The card is pulled out (its mount detached) after the daemon stored its
// schedule, and later a fresh one is put in. Reads go on from the table
// file the daemon holds open; the first write finds the file no longer at
// its path and fails at once, and that session is dropped, so the tables
// are opened again where they belong: the daemon does not stay on a card
// that is gone. Once the fresh card is in, updates store there again.
TEST_F(StorageFaultTest, CardPulledWhileRunningMovesToTheCardPutInItsPlace) {
    ASSERT_TRUE(test::MountTmpfs("/media/sdcard", "size=4m"));
    StartWithStoredSchedule();
    if (HasFatalFailure()) return;
    // The file as the card held it, still readable through a descriptor
    // once the card is gone.
    const int held = ::open(test::kScheduleDbFile, O_RDONLY | O_CLOEXEC);
    ASSERT_LE(0, held);
    const std::string heldPath = "/proc/self/fd/" + std::to_string(held);
    const std::string stored = test::ReadFile(heldPath);
    ASSERT_TRUE(test::UnmountLazily("/media/sdcard"));
    EXPECT_FALSE(test::FileExists(test::kScheduleDbFile));

    ExpectCurrentTargetPower();
    std::unique_ptr<HttpTestServer> server = Server(25);
    ExpectDatabaseUpdateError();
    EXPECT_TRUE(Logged("E", "ScheduleDatabase", "Insert Update Schedule error. ["));
    EXPECT_TRUE(stored == test::ReadFile(heldPath)) << "the held table file changed";
    ::close(held);

    // A fresh card: the update information's session still holds the old
    // file and is dropped at its first write, so the second update stores
    // everything on the new card.
    ASSERT_TRUE(test::MountTmpfs("/media/sdcard", "size=4m"));
    server = Server(25);
    const std::string first = Ask(test::kUpdateScheduleRequest);
    ASSERT_EQ(static_cast<std::size_t>(test::kUpdateAnswerSize), first.size());
    server = Server(25);
    EXPECT_EQ(kSuccess, Ask(test::kUpdateScheduleRequest));
    EXPECT_EQ(std::to_string(kSlots),
              test::QueryValue(test::kScheduleDbFile, "SELECT COUNT(*) FROM output_control_schedule WHERE "
                                                      "controlRate = 25"));
    EXPECT_EQ(kPlant,
              test::QueryValue(test::kUpdateInfoDbFile, "SELECT plantId FROM output_control_schedule_update_info"));
    ExpectCurrentTargetPower(25);
    EXPECT_TRUE(daemon_.Running());
    StopDaemon();
}

// A schedule table file of garbage is moved aside at the start, and the
// schedules are fetched again as for a new plant, although the update
// information says the plant has them.
TEST_F(StorageFaultTest, GarbageScheduleTableIsMovedAsideAndFetchedAgain) {
    StoreOldSchedule();
    const std::string garbage = Garbage(8192);
    test::WriteFile(test::kScheduleDbFile, garbage);
    server_ = Server();
    StartBounded();
    if (HasFatalFailure()) return;
    ExpectMovedAside(test::kScheduleDbFile, "ScheduleDatabase", garbage);
    ExpectFetchedAsNewPlant(*server_);
    ExpectCurrentTargetPower();
    StopDaemon();
}

// A schedule table file cut short (as a card that lost power while the
// file grew may leave it) counts more pages in its header than it holds:
// SQLite refuses it at its opening, and it is moved aside.
TEST_F(StorageFaultTest, TruncatedScheduleTableIsMovedAsideAndFetchedAgain) {
    StoreOldSchedule(3000);
    const std::string whole = test::ReadFile(test::kScheduleDbFile);
    ASSERT_GT(whole.size(), 8 * kPageSize);
    const std::string truncated = whole.substr(0, whole.size() / 2 + 100);
    test::WriteFile(test::kScheduleDbFile, truncated);
    server_ = Server();
    StartBounded();
    if (HasFatalFailure()) return;
    ExpectMovedAside(test::kScheduleDbFile, "ScheduleDatabase", truncated);
    ExpectFetchedAsNewPlant(*server_);
    ExpectCurrentTargetPower();
    StopDaemon();
}

// A table of the schedule's name with other columns (left by another
// program) would fail every statement for ever; it is moved aside.
TEST_F(StorageFaultTest, ScheduleTableOfAnotherSchemaIsMovedAsideAndFetchedAgain) {
    StoreOldSchedule();
    test::RemoveAll(test::kScheduleDbFile);
    test::CreateDatabase(test::kScheduleDbFile, "CREATE TABLE output_control_schedule (slot TEXT PRIMARY KEY, "
                                                "percent REAL); INSERT INTO output_control_schedule "
                                                "VALUES ('2030-01-01 00:00', 50.5)");
    const std::string foreign = test::ReadFile(test::kScheduleDbFile);
    server_ = Server();
    StartBounded();
    if (HasFatalFailure()) return;
    ExpectMovedAside(test::kScheduleDbFile, "ScheduleDatabase", foreign);
    ExpectFetchedAsNewPlant(*server_);
    ExpectCurrentTargetPower();
    StopDaemon();
}

// An empty file is an empty database to SQLite: the table is made in it,
// nothing is moved aside, and the plant's update information stays.
TEST_F(StorageFaultTest, EmptyScheduleTableFileIsSimplyUsed) {
    StoreOldSchedule();
    const auto info = test::UpdateInfoRows();
    test::WriteFile(test::kScheduleDbFile, "");
    server_ = Server();
    StartBounded();
    if (HasFatalFailure()) return;
    ExpectNoTargetPower();
    EXPECT_EQ(std::vector<std::string>{"output_control_schedule"}, test::TableNames(test::kScheduleDbFile));
    EXPECT_EQ(info, test::UpdateInfoRows());
    EXPECT_TRUE(server_->Requests().empty());

    ExpectUpdateStored();
    EXPECT_EQ(kStored, test::QueryValue(test::kScheduleDbFile, "SELECT COUNT(*) FROM output_control_schedule"));
    ExpectCurrentTargetPower();
    EXPECT_TRUE(MovedAside(test::kScheduleDbFile).empty());
    EXPECT_FALSE(Logged("E", "ScheduleDatabase", "Damaged table moved aside.", test::LogFilePath(), 0));
    EXPECT_FALSE(Logged("I", "ScheduleUpdateManager", "Plant ID change.", test::LogFilePath(), 0));
    StopDaemon();
}

// An update information file of garbage is moved aside at the start: the
// plant is new again, and the stored schedule goes with it.
TEST_F(StorageFaultTest, GarbageUpdateInfoTableIsMovedAsideAndFetchedAgain) {
    TickEverySecond();
    StoreOldSchedule();
    const std::string garbage = Garbage(4096);
    test::WriteFile(test::kUpdateInfoDbFile, garbage);
    server_ = Server();
    StartBounded();
    if (HasFatalFailure()) return;
    ExpectMovedAside(test::kUpdateInfoDbFile, "ScheduleUpdateDataInfo", garbage);
    ExpectFetchedAsNewPlant(*server_);
    EXPECT_EQ("0", test::QueryValue(test::kScheduleDbFile,
                                    "SELECT COUNT(*) FROM output_control_schedule WHERE controlRate = " +
                                        std::to_string(kOldRate)));
    ExpectCurrentTargetPower();
    // Fetched once: the ticks that follow leave the fresh tables alone.
    ASSERT_TRUE(WaitForTicks(2));
    EXPECT_EQ(2u, server_->Requests().size());
    EXPECT_EQ(kStored, test::QueryValue(test::kScheduleDbFile, "SELECT COUNT(*) FROM output_control_schedule"));
    ExpectCurrentTargetPower();
    StopDaemon();
}

// A page damaged while the daemon was stopped cleanly goes unnoticed by
// the start's checks (no check after a clean stop) until a statement reads
// it: the first read of the current slot, for the target power held in
// memory, whose slot lies in that page. The file is moved aside, and the
// next tick of the update alarm fetches everything again.
TEST_F(StorageFaultTest, DamageFoundByTheFirstReadIsMovedAsideAndFetchedAtTheNextTick) {
    // Rows are kept for longer than the year, so that the start deletes
    // none and leaves the file as it was.
    TickEverySecond("<OutputControlScheduleRetensionCycle>400</OutputControlScheduleRetensionCycle>");
    server_ = YearServer(45);
    StartBounded();
    if (HasFatalFailure()) return;
    ASSERT_TRUE(WaitForSent(std::to_string(kYear))) << test::ReadFile(test::kDaemonOutput);
    ExpectCurrentTargetPower(45);
    StopDaemon();
    ASSERT_TRUE(test::FileExists(kMarkFile));
    const std::string damaged = DamageLastPage(test::kScheduleDbFile);

    server_ = Server();
    StartBounded();
    if (HasFatalFailure()) return;
    EXPECT_TRUE(Logged("E", "ScheduleDatabase", "Select error. ["));
    ExpectFetchedAsNewPlant(*server_);
    ExpectMovedAside(test::kScheduleDbFile, "ScheduleDatabase", damaged);
    ExpectCurrentTargetPower();
    StopDaemon();
}

// A clean stop leaves its mark beside the tables and the start takes it;
// a kill leaves none. A page damaged then is found by the check at the
// next start, which moves the file aside before anything asks, and the
// settings check of that start fetches everything again.
TEST_F(StorageFaultTest, DamageLeftByAKillIsFoundAtTheNextStart) {
    // No tick comes before the start's own settings check has fetched; no
    // start deletes rows of the year.
    UseLoggerSettings("<OutputControlScheduleRetensionCycle>400</OutputControlScheduleRetensionCycle>");
    server_ = YearServer(45);
    StartBounded();
    if (HasFatalFailure()) return;
    ASSERT_TRUE(WaitForSent(std::to_string(kYear))) << test::ReadFile(test::kDaemonOutput);
    EXPECT_FALSE(test::FileExists(kMarkFile));
    StopDaemon();
    EXPECT_TRUE(test::FileExists(kMarkFile));
    StartBounded();
    if (HasFatalFailure()) return;
    EXPECT_FALSE(test::FileExists(kMarkFile));
    ExpectCurrentTargetPower(45);

    ASSERT_TRUE(daemon_.Signal(SIGKILL));
    ASSERT_TRUE(daemon_.WaitExit(Scaled(kStopMs)));
    EXPECT_FALSE(test::FileExists(kMarkFile));
    const std::string damaged = DamageLastPage(test::kScheduleDbFile);

    server_ = Server();
    StartBounded();
    if (HasFatalFailure()) return;
    ExpectMovedAside(test::kScheduleDbFile, "ScheduleDatabase", damaged);
    ExpectFetchedAsNewPlant(*server_);
    ExpectCurrentTargetPower();
    StopDaemon();
    EXPECT_TRUE(test::FileExists(kMarkFile));
}

// A full card fails the update with the defined answer and loses nothing;
// a full card is no damage. Once there is room, the next update stores.
TEST_F(StorageFaultTest, FullCardFailsTheUpdateAndLosesNothing) {
    ASSERT_TRUE(test::MountTmpfs("/media/sdcard", "size=1m"));
    StartWithStoredSchedule();
    if (HasFatalFailure()) return;
    const auto schedule = test::ScheduleRows();
    const auto info = test::UpdateInfoRows();
    const std::string filler = test::FillFileSystem("/media/sdcard");

    std::unique_ptr<HttpTestServer> server = Server(25);
    ExpectDatabaseUpdateError();
    EXPECT_EQ(schedule, test::ScheduleRows());
    EXPECT_EQ(info, test::UpdateInfoRows());
    ExpectCurrentTargetPower();
    EXPECT_TRUE(MovedAside(test::kScheduleDbFile).empty());
    EXPECT_TRUE(MovedAside(test::kUpdateInfoDbFile).empty());

    test::RemoveAll(filler);
    server = Server(25);
    ExpectUpdateStored();
    EXPECT_EQ(
        std::to_string(kSlots),
        test::QueryValue(test::kScheduleDbFile, "SELECT COUNT(*) FROM output_control_schedule WHERE controlRate = 25"));
    ExpectCurrentTargetPower(25);
    EXPECT_TRUE(MovedAside(test::kScheduleDbFile).empty());
    StopDaemon();
}

TEST_F(StorageFaultTest, LockedTableHoldsUpNoAnswerAndIsWrittenAfterRelease) {
    StartWithStoredSchedule();
    if (HasFatalFailure()) return;
    const int heldMs = static_cast<int>(1000 * test::TimeScale());

    // Target power is answered from memory, within the bound, while the
    // lock is held (a read of the table would wait 60 s for it).
    {
        test::TableLock readLock(test::kScheduleDbFile);
        ExpectCurrentTargetPower();
    }

    // A writer waits for the lock, and its rows are stored once it is gone.
    std::unique_ptr<HttpTestServer> server = Server(25);
    test::TableLock writeLock(test::kScheduleDbFile);
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
        test::TableLock lock(test::kScheduleDbFile);
        std::unique_ptr<HttpTestServer> server = Server(25);
        ExpectDatabaseUpdateError();
        EXPECT_TRUE(Logged("E", "ScheduleDatabase", "Insert Update Schedule error. ["));
    }
    std::unique_ptr<HttpTestServer> server = Server(25);
    EXPECT_EQ(kSuccess, Ask(test::kUpdateScheduleRequest));
    ExpectCurrentTargetPower(25);
    EXPECT_TRUE(daemon_.Running());
}

// Kills the daemon (SIGKILL) while it stores a year of slots, at twenty
// moments spread over the store, and restarts it each time: both table
// files pass SQLite's integrity check, the schedule table holds exactly
// one of the two schedules, never a mix, never the fixed schedule's rows,
// and no file is ever taken for damaged.
TEST_F(StorageFaultTest, KillWhileStoringAYearLeavesOldOrNewRows) {
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
    // its rows being marked sent after the answer, and the span in which
    // the journal shows the rows being written before the answer.
    server = serverFor(20);
    const JournalState quiet = JournalState::Of(journal);
    const Poco::Timestamp started;
    std::future<std::string> answer = std::async(std::launch::async, [] { return Ask(test::kUpdateScheduleRequest); });
    Poco::Timestamp::TimeDiff firstWriteUs = -1;
    Poco::Timestamp::TimeDiff lastWriteUs = -1;
    while (answer.wait_for(std::chrono::seconds(0)) != std::future_status::ready) {
        if (JournalState::Of(journal).WrittenSince(quiet)) {
            lastWriteUs = started.elapsed();
            if (firstWriteUs < 0) firstWriteUs = lastWriteUs;
        }
        std::this_thread::sleep_for(std::chrono::microseconds(100));
    }
    ASSERT_EQ(kSuccess, answer.get());
    ASSERT_TRUE(test::WaitFor(
        [&] {
            return test::QueryValue(
                       test::kScheduleDbFile,
                       "SELECT COUNT(*) FROM output_control_schedule WHERE sent = 1 AND controlRate = 20") == year;
        },
        30000));
    const Poco::Timestamp::TimeDiff requestUs = started.elapsed();
    const Poco::Timestamp::TimeDiff writeUs = firstWriteUs < 0 ? 0 : lastWriteUs - firstWriteUs;
    std::cout << "undisturbed update: " << requestUs << " us, journal written from " << firstWriteUs << " us for "
              << writeUs << " us" << std::endl;
    int stored = 20;

    // Twelve kills at fractions of the writing span, counted from the
    // moment the journal shows a write under way; eight at fractions of
    // the whole flow (fetch, store, answer, forward, sent flags).
    const std::vector<double> ofWrite = {0, 0, 0.02, 0.05, 0.1, 0.2, 0.3, 0.45, 0.6, 0.75, 0.9, 1.0};
    const std::vector<double> ofRequest = {0.02, 0.1, 0.25, 0.4, 0.55, 0.7, 0.85, 0.97};
    int hotJournals = 0;
    for (std::size_t attempt = 0; attempt < ofWrite.size() + ofRequest.size(); ++attempt) {
        SCOPED_TRACE("attempt " + std::to_string(attempt));
        const bool afterJournal = attempt < ofWrite.size();
        const double fraction = afterJournal ? ofWrite[attempt] : ofRequest[attempt - ofWrite.size()];
        const int target = 30 + 10 * static_cast<int>(attempt);
        server = serverFor(target);
        const JournalState before = JournalState::Of(journal);
        const int connection = test::SendRequest(test::kUpdateScheduleRequest);
        const Poco::Timestamp asked;
        Poco::Timestamp::TimeDiff delayUs =
            static_cast<Poco::Timestamp::TimeDiff>(static_cast<double>(afterJournal ? writeUs : requestUs) * fraction);
        if (afterJournal) {
            while (!JournalState::Of(journal).WrittenSince(before) && asked.elapsed() < 4 * requestUs + 2000000) {
                std::this_thread::sleep_for(std::chrono::microseconds(100));
            }
            delayUs += asked.elapsed();
        }
        while (asked.elapsed() < delayUs) std::this_thread::sleep_for(std::chrono::microseconds(100));
        const Poco::Timestamp::TimeDiff killedAtUs = asked.elapsed();
        ASSERT_TRUE(daemon_.Signal(SIGKILL));
        ASSERT_TRUE(daemon_.WaitExit(Scaled(5000)));
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
        EXPECT_TRUE(MovedAside(test::kScheduleDbFile).empty());
        EXPECT_TRUE(MovedAside(test::kUpdateInfoDbFile).empty());
    }
    // Without a kill in the middle of a write transaction this test would
    // prove little.
    EXPECT_GT(hotJournals, 0);
    RecordProperty("KillsDuringAWrite", hotJournals);
}

} // namespace
} // namespace brvo
