// The real pvocd in the sandbox fed with hostile input: SQL in plant IDs
// and paths, socket paths longer than a socket address holds, a missing
// touch command for the watchdog, and output rates above 100 %.
#include "server/CommandWire.h"
#include "support/ChildProcess.h"
#include "support/CommandClient.h"
#include "support/HttpTestServer.h"
#include "support/ProcessStatus.h"
#include "support/SchedulePayload.h"
#include "support/SqliteFile.h"
#include "support/StoredSchedule.h"
#include "support/TestFiles.h"
#include "support/UnixPeer.h"
#include "util/TimeStamp.h"

#include <gtest/gtest.h>

#include <Poco/Thread.h>

#include <algorithm>
#include <csignal>
#include <set>
#include <sys/un.h>

namespace brvo {
namespace {

using test::Field;
using test::HttpTestServer;
using test::Word;
using test::WordAt;

const std::string kPlant = "00000000000000000000000444";
const std::int64_t kSlotSeconds = 1800;
const std::string kWatchdogFile = "/mnt/system/check/brvo";

// Texts that close the value's quote and try to run SQL of their own.
const std::vector<std::string>& SqlTexts() {
    static const std::vector<std::string> texts = {
        "x','','',0,0); DELETE FROM output_control_schedule; --",
        "'; DROP TABLE output_control_schedule; --",
        "'; DROP TABLE output_control_schedule_update_info; --",
        // One statement that writes rows of its own choosing.
        "x','2000-01-01 00:00:00','2000-01-01 00:00:00',9,1),('evil','','',0,0) --",
        "x','','',0,0); ATTACH DATABASE '" + std::string(test::kScheduleDbFile) +
            "' AS s; INSERT INTO s.output_control_schedule VALUES (1,1,1); --",
        "x','','',0,0); CREATE TABLE pwned(a); --",
    };
    return texts;
}

// A path of exactly `length` characters below /mnt/system.
std::string PathOfLength(std::size_t length, const std::string& name) {
    const std::string head = "/mnt/system/";
    return head + std::string(length - head.size() - 1 - name.size(), 'p') + "/" + name;
}

class HostileInputTest : public ::testing::Test {
protected:
    void SetUp() override {
        UseLoggerSettings("");
        test::WriteFile("/sys/class/net/eth0/address", "00:1a:2b:3c:4d:5e\n");
        // The tests expect the slot that is current now to stay current
        // while they run: near its end, wait for the next one.
        const std::int64_t margin = std::min<std::int64_t>(20 * test::TimeScale(), 60);
        const std::int64_t now = TimeStamp().EpochSeconds();
        if (kSlotSeconds - now % kSlotSeconds < margin) {
            Poco::Thread::sleep(static_cast<long>((kSlotSeconds - now % kSlotSeconds + 1) * 1000));
        }
        slot0_ = TimeStamp().EpochSeconds() / kSlotSeconds * kSlotSeconds;
    }

    void TearDown() override {
        if (daemon_.Running()) {
            daemon_.Signal(SIGTERM);
            daemon_.WaitExit(Scaled(5000));
        }
    }

    static int Scaled(int ms) { return ms * static_cast<int>(test::TimeScale()); }

    static void UseLoggerSettings(const std::string& innerXml) {
        test::WriteLoggerSetting("<OutputScheduleEnableLogBufferedIO>0</OutputScheduleEnableLogBufferedIO>"
                                 "<OutputControlSocketTimeout>5</OutputControlSocketTimeout>" +
                                 innerXml);
    }

    // Starts `command` (the daemon by default) and waits for its start in
    // the log.
    void StartDaemon(std::vector<std::string> command = {}) {
        if (command.empty()) command = test::ChildProcess::DaemonCommand();
        ASSERT_TRUE(daemon_.Start(command, test::kDaemonOutput));
        ASSERT_TRUE(test::WaitFor([] { return LogHas("BrevantaOutputControlManager Start Server"); }, Scaled(10000)))
            << test::ReadFile(test::kDaemonOutput);
    }

    void StartServing() {
        StartDaemon();
        ASSERT_TRUE(test::WaitForSocket(test::kCommandSocket, Scaled(10000))) << test::ReadFile(test::kDaemonOutput);
    }

    static std::string Ask(std::int32_t type, const std::string& params = "") {
        return test::Ask(test::kCommandSocket, type, params);
    }

    static bool LogHas(const std::string& text) {
        return test::ReadFile(test::LogFilePath()).find(text) != std::string::npos;
    }

    static std::vector<std::string> LogLines() { return test::ReadLines(test::LogFilePath()); }

    // Stores for kPlant the slot before the current one (rate 10), the
    // current one (20) and the two after it (30, 40).
    void StoreFourSlots() {
        test::StoreSchedule(
            kPlant,
            {{slot0_ - kSlotSeconds, 10}, {slot0_, 20}, {slot0_ + kSlotSeconds, 30}, {slot0_ + 2 * kSlotSeconds, 40}});
    }

    // The expected answer when the slot `slot` has the rate `rate`.
    static std::string TargetAnswer(std::int32_t type, int rate, double capacity, std::int64_t slot) {
        return test::TargetPowerAnswer(type, static_cast<double>(rate) * capacity / 100.0,
                                       TimeStamp::FromEpochSeconds(slot)->FormatCompact());
    }

    // A fixed schedule of `rates` for kPlant from the current slot on.
    test::ScheduleRecord FixedFromNow(const std::vector<int>& rates) const {
        test::ScheduleRecord record;
        record.plantId = "444";
        record.start = ServerTime(slot0_, "%Y%m%d%H%M");
        record.rates = rates;
        return record;
    }

    static std::string ServerTime(std::int64_t utcSeconds, const std::string& pattern) {
        return TimeStamp::FromEpochSeconds(utcSeconds + 9 * 3600)->Format(pattern);
    }

    static bool StopsCleanly(test::ChildProcess& daemon) {
        return daemon.Signal(SIGTERM) && daemon.WaitExit(Scaled(5000)) && daemon.ExitedNormally() &&
               daemon.ExitCode() == 0 && LogHas("BrevantaOutputControlManager Kill complete.");
    }

    test::ChildProcess daemon_;
    std::int64_t slot0_ = 0;
};

// --- SQL in plant IDs and paths --------------------------------------------

TEST_F(HostileInputTest, SqlInThePlantIdOfTheSettingsRunsNothing) {
    StoreFourSlots();
    test::WriteSystemSetting(kPlant, "", true);
    StartServing();
    for (const std::string& hostile : SqlTexts()) {
        SCOPED_TRACE(hostile);
        // A plant change wipes both tables and writes the new plant's
        // update information; the quote makes that one statement fail.
        test::WriteSystemSetting(hostile, "", true);
        EXPECT_EQ(test::UpdateAnswer(CommandWire::kChangeSettingNotify), Ask(CommandWire::kChangeSettingNotify));
        EXPECT_TRUE(test::ScheduleRows().empty());
        EXPECT_TRUE(test::UpdateInfoRows().empty());
        EXPECT_EQ(std::vector<std::string>{"output_control_schedule"}, test::TableNames(test::kScheduleDbFile));
        EXPECT_EQ(std::vector<std::string>{"output_control_schedule_update_info"},
                  test::TableNames(test::kUpdateInfoDbFile));
        EXPECT_TRUE(test::WaitFor(
            [&] {
                return test::HasLogLine(LogLines(), "I", "ScheduleUpdateManager",
                                        "Plant ID change. [" + kPlant + "] to [" + hostile + "]");
            },
            Scaled(3000)));
        // Back to a known plant with its rows for the next text.
        test::WriteSystemSetting(kPlant, "", true);
        EXPECT_EQ(144u, Ask(CommandWire::kChangeSettingNotify).size());
        test::QueryFile(test::kUpdateInfoDbFile, "DELETE FROM output_control_schedule_update_info");
        test::QueryFile(test::kScheduleDbFile, "DELETE FROM output_control_schedule");
        StoreFourSlots();
    }
    EXPECT_TRUE(test::HasLogLineStarting(LogLines(), "E", "ScheduleUpdateDataInfo", "Insert Update error. ["));
    EXPECT_TRUE(StopsCleanly(daemon_));
}

TEST_F(HostileInputTest, SqlInThePlantIdAtStartUpRunsNothing) {
    StoreFourSlots();
    const std::string hostile = "x','2000-01-01 00:00:00','2000-01-01 00:00:00',9,1),('evil','','',0,0) --";
    test::WriteSystemSetting(hostile, "", true);
    StartServing();
    ASSERT_TRUE(test::WaitFor([] { return LogHas("Plant ID changed but, Standalone setting..."); }, Scaled(5000)));
    EXPECT_TRUE(test::ScheduleRows().empty());
    EXPECT_TRUE(test::UpdateInfoRows().empty());
    EXPECT_TRUE(test::HasLogLineStarting(LogLines(), "E", "ScheduleUpdateDataInfo", "Insert Update error. ["));
    EXPECT_EQ(144u, Ask(CommandWire::kFlushLog).size());
    EXPECT_TRUE(StopsCleanly(daemon_));
}

TEST_F(HostileInputTest, SqlInCheckPlantIdTouchesNoRow) {
    StoreFourSlots();
    test::WriteSystemSetting(kPlant, "", true);
    StartServing();
    const auto schedule = test::ScheduleRows();
    const auto info = test::UpdateInfoRows();
    ASSERT_EQ(4u, schedule.size());
    ASSERT_EQ(1u, info.size());
    HttpTestServer registered(
        HttpTestServer::Answer(200, test::MultipartContentType("b"), test::BinaryPartBody("b", std::string(40, '\0'))));
    // The plant ID field holds 26 characters and its NUL.
    const std::vector<std::string> ids = {"'; DROP TABLE t; --", "x');DELETE FROM o;--", "';DELETE FROM s;--"};
    for (const std::string& id : ids) {
        ASSERT_LE(id.size(), 26u);
        EXPECT_EQ(test::UpdateAnswer(CommandWire::kCheckPlantId),
                  Ask(CommandWire::kCheckPlantId,
                      Field(id, CommandWire::kPlantIdSize) + Field(registered.Url("/c"), CommandWire::kPlantUrlSize)))
            << id;
    }
    EXPECT_EQ(ids.size(), registered.Requests().size());
    EXPECT_EQ(schedule, test::ScheduleRows());
    EXPECT_EQ(info, test::UpdateInfoRows());
    EXPECT_EQ(std::vector<std::string>{"output_control_schedule"}, test::TableNames(test::kScheduleDbFile));
    EXPECT_TRUE(StopsCleanly(daemon_));
}

TEST_F(HostileInputTest, SqlInAFixedSchedulePathTouchesNoRowButItsOwn) {
    StoreFourSlots();
    test::WriteSystemSetting(kPlant, "", true);
    StartServing();
    const auto schedule = test::ScheduleRows();
    const auto info = test::UpdateInfoRows();

    // No such file: nothing changes.
    const std::string missing = "/tmp/x'; DROP TABLE output_control_schedule; --";
    const std::string notFound =
        Ask(CommandWire::kUpdateFixedSchedule, CommandWire::EncodeFixedScheduleBlock(missing, 1));
    ASSERT_EQ(171u, notFound.size());
    EXPECT_EQ(9, WordAt(notFound, CommandWire::kFixedReasonOffset));
    EXPECT_EQ(Field("file not found.", CommandWire::kMessageSize), notFound.substr(CommandWire::kFixedMessageOffset));
    EXPECT_EQ(schedule, test::ScheduleRows());
    EXPECT_EQ(info, test::UpdateInfoRows());

    // A real file at such a path: its slots are added where none are
    // stored, every stored row stays.
    const std::string path = "/tmp/y'); DELETE FROM output_control_schedule; --.hex";
    test::ScheduleRecord fixed = FixedFromNow({90, 90, 90, 90, 90, 90});
    test::WriteFile(path, test::BuildSchedulePayload({fixed}, test::kFixedSchedule).hex);
    const std::string stored4 = Ask(CommandWire::kUpdateFixedSchedule, CommandWire::EncodeFixedScheduleBlock(path, 0));
    ASSERT_EQ(171u, stored4.size());
    EXPECT_EQ(0, WordAt(stored4, CommandWire::kFixedReasonOffset)) << stored4.substr(CommandWire::kFixedMessageOffset);
    const auto rows = test::ScheduleRows();
    ASSERT_EQ(7u, rows.size());
    for (std::size_t i = 0; i < 4; ++i) EXPECT_EQ(schedule[i], rows[i]);
    for (std::size_t i = 4; i < 7; ++i) {
        EXPECT_EQ((std::vector<std::string>{std::to_string(slot0_ + static_cast<std::int64_t>(i - 1) * kSlotSeconds),
                                            "90", "0"}),
                  rows[i]);
    }
    const auto infoAfter = test::UpdateInfoRows();
    ASSERT_EQ(1u, infoAfter.size());
    EXPECT_EQ(kPlant, infoAfter[0][0]);
    EXPECT_TRUE(StopsCleanly(daemon_));
}

// --- Socket paths longer than a socket address holds -----------------------

TEST_F(HostileInputTest, CommandSocketPathOneTooLongIsNotBoundAndTheDaemonRunsOn) {
    const std::size_t room = sizeof(sockaddr_un().sun_path) - 1;
    const std::string path = PathOfLength(room + 1, "s.sock");
    ASSERT_EQ(room + 1, path.size());
    UseLoggerSettings("<OutputControlSocketPath>" + path +
                      "</OutputControlSocketPath>"
                      "<WatchdogFileUpdateInterval>1</WatchdogFileUpdateInterval>");
    test::WriteSystemSetting("", "", false);
    StartDaemon();
    ASSERT_TRUE(test::WaitFor(
        [] { return test::HasLogLineStarting(LogLines(), "F", "OutputcontrolServer", "listen failed. [-1]["); },
        Scaled(5000)))
        << test::ReadFile(test::LogFilePath());
    EXPECT_TRUE(test::HasLogLine(LogLines(), "F", "OutputcontrolServer", "bind failed. [-1]"));
    // Neither the path nor its first 107 characters were bound.
    EXPECT_FALSE(test::FileExists(path));
    EXPECT_FALSE(test::FileExists(path.substr(0, room)));
    // The rest of the daemon lives on: the watchdog file is touched again.
    ASSERT_TRUE(test::WaitFor([] { return test::FileExists(kWatchdogFile); }, Scaled(5000)));
    test::RemoveAll(kWatchdogFile);
    EXPECT_TRUE(test::WaitFor([] { return test::FileExists(kWatchdogFile); }, Scaled(5000)));
    EXPECT_TRUE(daemon_.Running());
    EXPECT_TRUE(StopsCleanly(daemon_));
}

TEST_F(HostileInputTest, CommandSocketPathOfTheLargestLengthServes) {
    const std::size_t room = sizeof(sockaddr_un().sun_path) - 1;
    const std::string path = PathOfLength(room, "s.sock");
    UseLoggerSettings("<OutputControlSocketPath>" + path + "</OutputControlSocketPath>");
    test::WriteSystemSetting("", "", false);
    StartDaemon();
    ASSERT_TRUE(test::WaitForSocket(path, Scaled(5000)));
    EXPECT_EQ(test::FlushAnswer(), test::Ask(path, CommandWire::kFlushLog));
    EXPECT_TRUE(StopsCleanly(daemon_));
}

TEST_F(HostileInputTest, LoggerSocketPathOneTooLongReachesNoOtherSocket) {
    const std::size_t room = sizeof(sockaddr_un().sun_path) - 1;
    const std::string path = PathOfLength(room + 1, "l.sock");
    // A logger daemon listens at the name a cut copy of the path would give.
    test::WriteFile(path.substr(0, path.rfind('/')) + "/.keep", "");
    test::UnixPeer peer(path.substr(0, room), test::UnixPeer::kReply, std::string(12, '\0'), 8);
    UseLoggerSettings("<LoggerSocketPath>" + path + "</LoggerSocketPath>");
    test::WriteSystemSetting("", "", false);
    StartServing();
    // A fixed schedule stored before the start's settings check found no
    // plant would be wiped by it.
    ASSERT_TRUE(test::WaitFor([] { return LogHas("ScheduleUpdateManager Plant ID is not set. []"); }, Scaled(10000)));
    test::WriteFile("/tmp/fixed.hex", test::BuildSchedulePayload({FixedFromNow({50, 60})}, test::kFixedSchedule).hex);
    const std::string answer =
        Ask(CommandWire::kUpdateFixedSchedule, CommandWire::EncodeFixedScheduleBlock("/tmp/fixed.hex", 0));
    ASSERT_EQ(171u, answer.size());
    EXPECT_EQ(0, WordAt(answer, CommandWire::kFixedReasonOffset)) << answer.substr(CommandWire::kFixedMessageOffset);
    // The forwarding after the answer fails to connect, so the rows stay
    // unsent.
    ASSERT_TRUE(test::WaitFor([] { return LogHas("ScheduleDatabase Cloud Send error."); }, Scaled(5000)));
    const std::vector<std::string> lines = LogLines();
    EXPECT_TRUE(test::HasLogLine(lines, "E", "BrvfdSendCommandRequest", "sending error. error_code [2]"));
    EXPECT_TRUE(test::HasLogLine(lines, "W", "ScheduleDatabase", "Cloud Send error."));
    EXPECT_EQ(0, peer.Connections());
    EXPECT_EQ("2",
              test::QueryValue(test::kScheduleDbFile, "SELECT COUNT(*) FROM output_control_schedule WHERE sent = 0"));
    EXPECT_EQ(144u, Ask(CommandWire::kFlushLog).size());
    EXPECT_TRUE(StopsCleanly(daemon_));
}

// --- A missing touch command for the watchdog -------------------------------

// The daemon runs in a mount namespace of its own in which /usr/bin holds
// links to every program of the real one but touch. The test's own
// namespace is left as it is.
std::vector<std::string> WithoutTouch(const std::vector<std::string>& daemon) {
    const std::string script = "real=/tmp/usr-bin-real && mkdir -p \"$real\" && mount --bind /usr/bin \"$real\" && "
                               "mount -t tmpfs -o mode=0755 no-touch /usr/bin || exit 97\n"
                               "\"$real/cp\" -s \"$real\"/* /usr/bin/ 2>/dev/null\n"
                               "\"$real/rm\" -f /usr/bin/touch || exit 98\n"
                               "exec \"$@\"\n";
    std::vector<std::string> command = {"/usr/bin/unshare", "--mount", "--propagation", "private",
                                        "/bin/sh",          "-c",      script,          "pvocd-without-touch"};
    command.insert(command.end(), daemon.begin(), daemon.end());
    return command;
}

TEST_F(HostileInputTest, MissingTouchCommandLeavesTheDaemonServingWithoutZombies) {
    UseLoggerSettings("<WatchdogFileUpdateInterval>1</WatchdogFileUpdateInterval>");
    StoreFourSlots();
    test::WriteSystemSetting(kPlant, "", true);
    StartDaemon(WithoutTouch(test::ChildProcess::DaemonCommand()));
    ASSERT_TRUE(test::WaitForSocket(test::kCommandSocket, Scaled(10000))) << test::ReadFile(test::kDaemonOutput);
    const std::string failed = "status [32512] [/usr/bin/touch \"" + kWatchdogFile + "\"]";
    // Several watchdog periods, looking for zombies of the daemon's
    // children in between. A tick's shell may be caught between its end
    // and its reaping, but never more than one at a time, and none stays.
    std::set<std::string> seen;
    std::size_t most = 0;
    int failures = 0;
    ASSERT_TRUE(test::WaitFor(
        [&] {
            const std::vector<std::string> now = test::ZombieChildren(daemon_.Pid());
            most = std::max(most, now.size());
            seen.insert(now.begin(), now.end());
            failures = 0;
            for (const std::string& line : LogLines()) {
                if (line.size() >= failed.size() &&
                    line.compare(line.size() - failed.size(), failed.size(), failed) == 0) {
                    ++failures;
                }
            }
            return failures >= 4;
        },
        Scaled(15000)))
        << failures << "\n"
        << test::ReadFile(test::LogFilePath());
    EXPECT_TRUE(test::HasLogLine(LogLines(), "D", "Watchdog", failed));
    EXPECT_LE(most, 1u);
    EXPECT_TRUE(test::WaitFor(
        [&] {
            for (const std::string& zombie : test::ZombieChildren(daemon_.Pid())) {
                if (seen.count(zombie) != 0) return false;
            }
            return true;
        },
        Scaled(2000)));
    EXPECT_FALSE(test::FileExists(kWatchdogFile));
    // The test's own namespace still has the command.
    EXPECT_TRUE(test::FileExists("/usr/bin/touch"));
    // Still serving, with exact answers.
    EXPECT_EQ(TargetAnswer(6, 20, 8.0, slot0_), Ask(CommandWire::kCurrentTargetPower, test::Capacity(8.0)));
    EXPECT_EQ(TargetAnswer(7, 30, 8.0, slot0_ + kSlotSeconds), Ask(CommandWire::kNextTargetPower, test::Capacity(8.0)));
    EXPECT_TRUE(daemon_.Running());
    EXPECT_TRUE(StopsCleanly(daemon_));
}

// --- Output rates above 100 % ----------------------------------------------

// A rate is one byte of the payload: 255 is the largest one it can carry.
// Rates are stored as they come and used as percentages with no upper
// clamp.
TEST_F(HostileInputTest, RatesAboveHundredFromTheServerAreStoredAndUsedAsTheyAre) {
    test::ScheduleRecord update;
    update.plantId = "444";
    update.start = ServerTime(slot0_, "%Y%m%d%H%M");
    update.rates = {255, 101, 200, 0, 100, 150};
    update.fixedFlag = 3;
    update.nextUpdate = ServerTime(slot0_ + 86400, "%Y%m%d%H%M%S");
    test::ScheduleRecord fixed = update;
    fixed.start = ServerTime(slot0_ + 86400, "%Y%m%d%H%M");
    fixed.rates = {255, 254, 101};
    HttpTestServer server({test::ScheduleServerAnswer(update, test::kUpdateSchedule),
                           test::ScheduleServerAnswer(fixed, test::kFixedSchedule)});
    test::WriteSystemSetting(kPlant, server.Url("/schedule"), false);
    StartServing();
    ASSERT_TRUE(test::WaitFor([] { return test::ScheduleRows().size() == 9; }, Scaled(10000)))
        << test::ReadFile(test::LogFilePath());
    const auto rows = test::ScheduleRows();
    for (std::size_t i = 0; i < 6; ++i) EXPECT_EQ(std::to_string(update.rates[i]), rows[i][1]) << i;
    for (std::size_t i = 0; i < 3; ++i) EXPECT_EQ(std::to_string(fixed.rates[i]), rows[6 + i][1]) << i;
    EXPECT_EQ(TargetAnswer(6, 255, 4.0, slot0_), Ask(CommandWire::kCurrentTargetPower, test::Capacity(4.0)));
    EXPECT_EQ(TargetAnswer(7, 101, 4.0, slot0_ + kSlotSeconds),
              Ask(CommandWire::kNextTargetPower, test::Capacity(4.0)));
    // A large plant: 255 % of 1e300 is 2.55e300, no overflow.
    const std::string large = Ask(CommandWire::kCurrentTargetPower, test::Capacity(1e300));
    EXPECT_EQ(TargetAnswer(6, 255, 1e300, slot0_), large);
    EXPECT_DOUBLE_EQ(2.55e300, test::PowerOf(large));
    EXPECT_TRUE(StopsCleanly(daemon_));
}

TEST_F(HostileInputTest, RatesAboveHundredAsAFixedScheduleAreStoredAndUsedAsTheyAre) {
    // The target power needs the plant ID in the file; stand-alone, the
    // daemon fetches nothing.
    test::WriteSystemSetting(kPlant, "", true);
    StartServing();
    const std::vector<int> rates = {255, 101, 254};
    test::WriteFile("/tmp/fixed.hex", test::BuildSchedulePayload({FixedFromNow(rates)}, test::kFixedSchedule).hex);
    const std::string answer =
        Ask(CommandWire::kUpdateFixedSchedule, CommandWire::EncodeFixedScheduleBlock("/tmp/fixed.hex", 0));
    ASSERT_EQ(171u, answer.size());
    EXPECT_EQ(0, WordAt(answer, CommandWire::kFixedReasonOffset)) << answer.substr(CommandWire::kFixedMessageOffset);
    const auto rows = test::ScheduleRows();
    ASSERT_EQ(3u, rows.size());
    for (std::size_t i = 0; i < 3; ++i) {
        EXPECT_EQ((std::vector<std::string>{std::to_string(slot0_ + static_cast<std::int64_t>(i) * kSlotSeconds),
                                            std::to_string(rates[i]), "0"}),
                  rows[i]);
    }
    EXPECT_EQ(TargetAnswer(6, 255, 10.0, slot0_), Ask(CommandWire::kCurrentTargetPower, test::Capacity(10.0)));
    EXPECT_EQ(TargetAnswer(7, 101, 10.0, slot0_ + kSlotSeconds),
              Ask(CommandWire::kNextTargetPower, test::Capacity(10.0)));
    EXPECT_TRUE(StopsCleanly(daemon_));
}

} // namespace
} // namespace brvo
