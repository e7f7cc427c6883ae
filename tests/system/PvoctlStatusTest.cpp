// pvoctl status on stored databases: the three output formats, the health
// verdict and its reasons, the /tmp fall-back, the damaged tables and the
// storage error note, the log's I/O error note, and that reading never
// writes.
#include "database/StorageNote.h"
#include "server/CommandWire.h"
#include "support/ChildProcess.h"
#include "support/CommandClient.h"
#include "support/SimulatedTime.h"
#include "support/SqliteFile.h"
#include "support/StoredSchedule.h"
#include "support/TestFiles.h"
#include "support/UnixPeer.h"
#include "util/TimeStamp.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstring>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

namespace brvo {
namespace {

const std::string kSocket = "/mnt/system/pvoctrl/brevanta.octrl";
const std::string kPlant = "00000000000000000000000777";
const std::string kCardTables = "/media/sdcard/kestrovanyx/Database/OutputControl/";
const std::string kTmpTables = "/tmp/kestrovanyx/Database/OutputControl/";
const std::string kDamaged = "output_control_schedule.db.damaged-20261126T013800Z";
// 2026-11-26 01:38:00 UTC.
const std::int64_t kErrorTime = 1795657080;

int RunPvoctl(const std::vector<std::string>& args, std::string& output, const std::string& directory = "") {
    return test::ChildProcess::RunToEnd(PVOCTL_BINARY, args, output, directory);
}

// A target-power answer as pvocd writes it, code 0.
std::string TargetPowerAnswer(double power) {
    return test::TargetPowerAnswer(CommandWire::kCurrentTargetPower, power, "20260101000000");
}

// A UNIX socket listening at `path` with the shortest queue, never accepting.
int ListenWithoutAccepting(const std::string& path) {
    ::unlink(path.c_str());
    const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    const sockaddr_un address = test::UnixAddress(path);
    if (fd < 0 || bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 || listen(fd, 0) != 0) {
        if (fd >= 0) close(fd);
        return -1;
    }
    return fd;
}

std::string Display(std::int64_t epoch) {
    return TimeStamp::FromEpochSeconds(epoch)->FormatDisplay();
}

class PvoctlStatusTest : public ::testing::Test {
protected:
    void SetUp() override {
        test::WriteSystemSetting(kPlant, "http://127.0.0.1:9/s", false);
        // The socket's directory, as the daemon makes it.
        test::WriteFile("/mnt/system/pvoctrl/.keep", "");
        now_ = TimeStamp().EpochSeconds();
    }

    // Stores slots around now and an update record of `lastAgo` seconds
    // ago, with the next update one day after it.
    void Store(std::int64_t lastAgo) {
        const std::int64_t slot = now_ - now_ % 1800;
        test::StoreSchedule(kPlant, {{slot, 40}, {slot + 1800, 50}});
        test::CreateDatabase(test::kUpdateInfoDbFile,
                             "UPDATE output_control_schedule_update_info SET lastUpdateTime='" +
                                 Display(now_ - lastAgo) + "', nextUpdateTime='" + Display(now_ - lastAgo + 86400) +
                                 "', isNeedUpdateFixedSchedule=1");
        validUntil_ = slot + 3600;
    }

    std::int64_t now_ = 0;
    std::int64_t validUntil_ = 0;
};

TEST_F(PvoctlStatusTest, HealthyInAllThreeFormatsWithoutWritingAnything) {
    Store(3600);
    test::UnixPeer daemon(kSocket, test::UnixPeer::kReply, TargetPowerAnswer(40), 16);
    test::WriteFile("/mnt/system/check/brvo", "");
    struct stat before;
    ASSERT_EQ(0, stat(test::kUpdateInfoDbFile, &before));
    std::string output;
    ASSERT_EQ(0, RunPvoctl({"status"}, output)) << output;
    EXPECT_EQ(0u, output.find("pvocd status: healthy\n")) << output;
    EXPECT_NE(std::string::npos, output.find("plant ID:          " + kPlant + " (SystemSetting.xml)")) << output;
    EXPECT_NE(std::string::npos, output.find("last update:       " + Display(now_ - 3600))) << output;
    EXPECT_NE(std::string::npos, output.find("storage:           /media/sdcard/kestrovanyx (SD card)")) << output;
    EXPECT_NE(std::string::npos, output.find("fetch pending at ")) << output;
    EXPECT_NE(std::string::npos, output.find(kSocket + " answers")) << output;
    EXPECT_EQ(std::string::npos, output.find("unhealthy")) << output;

    ASSERT_EQ(0, RunPvoctl({"status", "--json"}, output)) << output;
    EXPECT_EQ(0u, output.find("{\"healthy\":true,\"reasons\":[],\"state\":\"healthy\",\"degradedReasons\":[],"
                              "\"plantId\":\"" +
                              kPlant + "\""))
        << output;
    EXPECT_NE(std::string::npos, output.find("\"lastUpdate\":" + std::to_string(now_ - 3600))) << output;
    EXPECT_NE(std::string::npos, output.find("\"nextUpdate\":" + std::to_string(now_ - 3600 + 86400))) << output;
    EXPECT_NE(std::string::npos, output.find("\"validUntil\":" + std::to_string(validUntil_))) << output;
    EXPECT_NE(std::string::npos, output.find("\"fallback\":false")) << output;
    EXPECT_NE(std::string::npos, output.find("\"logIoError\":false")) << output;
    EXPECT_NE(std::string::npos, output.find("\"answers\":true")) << output;

    ASSERT_EQ(0, RunPvoctl({"--prometheus", "status"}, output)) << output;
    const std::string labels = "{plant_id=\"" + kPlant + "\"}";
    EXPECT_NE(std::string::npos, output.find("# HELP pvocd_up ")) << output;
    EXPECT_NE(std::string::npos, output.find("# TYPE pvocd_up gauge\npvocd_up" + labels + " 1\n")) << output;
    EXPECT_NE(std::string::npos, output.find("pvocd_healthy" + labels + " 1\n")) << output;
    EXPECT_NE(std::string::npos, output.find("pvocd_health{plant_id=\"" + kPlant + "\",state=\"healthy\"} 1\n"))
        << output;
    EXPECT_NE(std::string::npos, output.find("pvocd_health{plant_id=\"" + kPlant + "\",state=\"degraded\"} 0\n"))
        << output;
    EXPECT_NE(std::string::npos,
              output.find("pvocd_last_update_timestamp_seconds" + labels + " " + std::to_string(now_ - 3600)))
        << output;
    EXPECT_NE(std::string::npos, output.find("pvocd_next_update_timestamp_seconds" + labels)) << output;
    EXPECT_NE(std::string::npos, output.find("pvocd_watchdog_age_seconds" + labels)) << output;
    EXPECT_NE(std::string::npos, output.find("pvocd_storage_fallback" + labels + " 0\n")) << output;
    EXPECT_NE(std::string::npos, output.find("pvocd_log_io_error" + labels + " 0\n")) << output;

    struct stat after;
    ASSERT_EQ(0, stat(test::kUpdateInfoDbFile, &after));
    EXPECT_EQ(before.st_mtime, after.st_mtime);
    EXPECT_EQ(before.st_size, after.st_size);
    EXPECT_EQ(3, daemon.Connections());
}

TEST_F(PvoctlStatusTest, AnOldLastUpdateIsUnhealthyWithTheReason) {
    Store(3 * 86400);
    test::UnixPeer daemon(kSocket, test::UnixPeer::kReply, TargetPowerAnswer(40), 16);
    std::string output;
    EXPECT_EQ(1, RunPvoctl({"status"}, output)) << output;
    EXPECT_EQ(0u, output.find("pvocd status: unhealthy\n")) << output;
    // The clock may tick between the test and the tool: 259200 s or a little more.
    EXPECT_NE(std::string::npos, output.find("unhealthy: last successful update 25920")) << output;
    EXPECT_NE(std::string::npos, output.find(" s ago, more than twice the expected interval of 86400 s\n")) << output;
    // The update time passed: the daemon retries at the next half-hour step.
    EXPECT_NE(std::string::npos, output.find("next update:       ")) << output;
    EXPECT_EQ(1, RunPvoctl({"status", "--prometheus"}, output)) << output;
    EXPECT_NE(std::string::npos, output.find("pvocd_healthy{plant_id=\"" + kPlant + "\"} 0\n")) << output;
}

// An update overdue by more than one expected interval (but not two) leaves
// the daemon serving: degraded, exit 3, in all three formats.
TEST_F(PvoctlStatusTest, AnUpdateOverdueIsDegradedWithTheReason) {
    Store(86400 + 3600);
    test::UnixPeer daemon(kSocket, test::UnixPeer::kReply, TargetPowerAnswer(40), 16);
    std::string output;
    EXPECT_EQ(3, RunPvoctl({"status"}, output)) << output;
    EXPECT_EQ(0u, output.find("pvocd status: degraded\n")) << output;
    EXPECT_NE(std::string::npos, output.find("\ndegraded: last successful update 9000")) << output;
    EXPECT_NE(std::string::npos, output.find(" s ago, more than the expected interval of 86400 s\n")) << output;
    EXPECT_EQ(std::string::npos, output.find("unhealthy")) << output;
    EXPECT_EQ(3, RunPvoctl({"status", "--json"}, output)) << output;
    EXPECT_EQ(0u, output.find("{\"healthy\":false,\"reasons\":[],\"state\":\"degraded\",\"degradedReasons\":[\"last "
                              "successful update "))
        << output;
    EXPECT_EQ(3, RunPvoctl({"status", "--prometheus"}, output)) << output;
    EXPECT_NE(std::string::npos, output.find("pvocd_health{plant_id=\"" + kPlant + "\",state=\"degraded\"} 1\n"))
        << output;
    EXPECT_NE(std::string::npos, output.find("pvocd_health{plant_id=\"" + kPlant + "\",state=\"healthy\"} 0\n"))
        << output;
}

// The log I/O error note counts only until the log file is written again.
TEST_F(PvoctlStatusTest, ALogIoErrorNoteCountsUntilTheLogIsWrittenAgain) {
    Store(3600);
    test::UnixPeer daemon(kSocket, test::UnixPeer::kReply, TargetPowerAnswer(40), 16);
    const std::string note = "/tmp/logger_io_file_error";
    test::WriteFile(note, "[2026-01-01 00:00:00 UTC] /x/OutputSchedule_pvocd.log\n");
    std::string output;
    EXPECT_EQ(3, RunPvoctl({"status"}, output)) << output;
    EXPECT_NE(std::string::npos, output.find("\ndegraded: log writes failing since ")) << output;
    const std::string log = "/media/sdcard/kestrovanyx/Log/OutputScheduleLog/OutputSchedule_pvocd.log";
    test::WriteFile(log, "a line\n");
    struct stat noted;
    ASSERT_EQ(0, stat(note.c_str(), &noted));
    const struct timeval later[2] = {{noted.st_mtime + 10, 0}, {noted.st_mtime + 10, 0}};
    ASSERT_EQ(0, utimes(log.c_str(), later));
    EXPECT_EQ(0, RunPvoctl({"status"}, output)) << output;
    EXPECT_EQ(0u, output.find("pvocd status: healthy\n")) << output;
    EXPECT_NE(std::string::npos, output.find("log I/O errors:    /tmp/logger_io_file_error present")) << output;
}

TEST_F(PvoctlStatusTest, ASocketThatDoesNotAnswerIsUnhealthy) {
    Store(3600);
    test::UnixPeer daemon(kSocket, test::UnixPeer::kSilent, "", 16);
    std::string output;
    EXPECT_EQ(1, RunPvoctl({"status", "--json", "--timeout", "1"}, output)) << output;
    EXPECT_EQ(0u, output.find("{\"healthy\":false,\"reasons\":[\"command socket does not answer: pvocd did not "
                              "answer within 1 s\"]"))
        << output;
    EXPECT_NE(std::string::npos, output.find("\"answers\":false")) << output;
}

TEST_F(PvoctlStatusTest, TheTmpFallBackAndTheLogIoErrorNoteAreShown) {
    // A file where the card's directory should be: the daemon cannot
    // create its data root there and falls back to /tmp.
    test::WriteFile("/tmp/card", "not a directory");
    test::WriteLoggerSetting("<SdcardPath>/tmp/card/sd</SdcardPath>");
    test::WriteFile("/tmp/logger_io_file_error", "[2026-01-01 00:00:00 UTC] /x/OutputSchedule_pvocd.log\n");
    std::string output;
    EXPECT_EQ(1, RunPvoctl({"status"}, output)) << output;
    EXPECT_NE(std::string::npos,
              output.find("storage:           /tmp/kestrovanyx (/tmp fall-back: /tmp/card/sd cannot be written)"))
        << output;
    EXPECT_NE(std::string::npos, output.find("log I/O errors:    /tmp/logger_io_file_error present")) << output;
    EXPECT_NE(std::string::npos, output.find("unhealthy: no update information stored in /tmp/kestrovanyx/")) << output;
    EXPECT_NE(std::string::npos, output.find("\ndegraded: the data is kept in the /tmp fall-back /tmp/kestrovanyx, "
                                             "which a reboot loses: /tmp/card/sd cannot be written\n"))
        << output;
    EXPECT_NE(std::string::npos, output.find("\ndegraded: log writes failing since ")) << output;
    EXPECT_EQ(1, RunPvoctl({"status", "--json"}, output)) << output;
    EXPECT_NE(std::string::npos, output.find("\"fallback\":true")) << output;
    EXPECT_NE(std::string::npos, output.find("\"logIoError\":true")) << output;
    EXPECT_EQ(1, RunPvoctl({"status", "--prometheus"}, output)) << output;
    EXPECT_NE(std::string::npos, output.find("pvocd_storage_fallback{plant_id=\"" + kPlant + "\"} 1\n")) << output;
    EXPECT_NE(std::string::npos, output.find("pvocd_log_io_error{plant_id=\"" + kPlant + "\"} 1\n")) << output;
    // Reading never creates: no database file and no directory appeared.
    EXPECT_FALSE(test::FileExists("/tmp/kestrovanyx"));
}

// The daemon's own writer makes the note, so the tool is shown to read
// what the daemon writes. Neither the note nor the damaged tables change
// the verdict: the daemon made new tables and goes on.
TEST_F(PvoctlStatusTest, TheDamagedTablesAndTheLastStorageErrorAreShownInAllThreeFormats) {
    Store(3600);
    test::UnixPeer daemon(kSocket, test::UnixPeer::kReply, TargetPowerAnswer(40), 16);
    test::SimulatedTime errorTime(kErrorTime * 1000000);
    StorageNote::SetClock(&errorTime);
    StorageNote::Record(test::kScheduleDbFile, "disk I/O error (\"10\")");
    StorageNote::SetClock(nullptr);
    ASSERT_TRUE(test::FileExists("/tmp/pvocd_storage_error"));
    test::WriteFile(kCardTables + kDamaged, "damaged");
    test::WriteFile(kCardTables + kDamaged + "-journal", "");
    std::string output;
    ASSERT_EQ(0, RunPvoctl({"status"}, output)) << output;
    EXPECT_EQ(0u, output.find("pvocd status: healthy\n")) << output;
    EXPECT_NE(std::string::npos,
              output.find("\n  damaged tables:    " + kDamaged + ", " + kDamaged + "-journal (2 files)\n"))
        << output;
    EXPECT_NE(std::string::npos, output.find("\n  storage error:     2026-11-26 01:38:00 UTC " +
                                             std::string(test::kScheduleDbFile) + ": disk I/O error (\"10\")\n"))
        << output;

    ASSERT_EQ(0, RunPvoctl({"status", "--json"}, output)) << output;
    EXPECT_EQ(0u, output.find("{\"healthy\":true,")) << output;
    EXPECT_NE(std::string::npos,
              output.find("\"damagedFiles\":[\"" + kDamaged + "\",\"" + kDamaged +
                          "-journal\"],\"lastError\":{\"time\":" + std::to_string(kErrorTime) + ",\"file\":\"" +
                          test::kScheduleDbFile + "\",\"error\":\"disk I/O error (\\\"10\\\")\"}}"))
        << output;

    ASSERT_EQ(0, RunPvoctl({"status", "--prometheus"}, output)) << output;
    const std::string labels = "{plant_id=\"" + kPlant + "\"}";
    EXPECT_NE(std::string::npos, output.find("# HELP pvocd_storage_damaged_files ")) << output;
    EXPECT_NE(std::string::npos,
              output.find("# TYPE pvocd_storage_damaged_files gauge\npvocd_storage_damaged_files" + labels + " 2\n"))
        << output;
    EXPECT_NE(std::string::npos, output.find("# HELP pvocd_storage_last_error_timestamp_seconds ")) << output;
    EXPECT_NE(std::string::npos, output.find("# TYPE pvocd_storage_last_error_timestamp_seconds gauge\n"
                                             "pvocd_storage_last_error_timestamp_seconds" +
                                             labels + " " + std::to_string(kErrorTime) + "\n"))
        << output;
    EXPECT_NE(std::string::npos, output.find("pvocd_healthy" + labels + " 1\n")) << output;
}

TEST_F(PvoctlStatusTest, NoDamagedTablesAndNoStorageErrorAreShownAsNone) {
    Store(3600);
    test::UnixPeer daemon(kSocket, test::UnixPeer::kReply, TargetPowerAnswer(40), 16);
    std::string output;
    ASSERT_EQ(0, RunPvoctl({"status"}, output)) << output;
    EXPECT_NE(std::string::npos, output.find("\n  damaged tables:    none\n")) << output;
    EXPECT_NE(std::string::npos, output.find("\n  storage error:     none noted\n")) << output;
    ASSERT_EQ(0, RunPvoctl({"status", "--json"}, output)) << output;
    EXPECT_NE(std::string::npos, output.find("\"damagedFiles\":[],\"lastError\":null}")) << output;
    ASSERT_EQ(0, RunPvoctl({"status", "--prometheus"}, output)) << output;
    const std::string labels = "{plant_id=\"" + kPlant + "\"}";
    EXPECT_NE(std::string::npos, output.find("\npvocd_storage_damaged_files" + labels + " 0\n")) << output;
    EXPECT_NE(std::string::npos, output.find("\npvocd_storage_last_error_timestamp_seconds" + labels + " 0\n"))
        << output;
    // A note the tool cannot read is no note.
    test::WriteFile("/tmp/pvocd_storage_error", "not a note\n");
    ASSERT_EQ(0, RunPvoctl({"status"}, output)) << output;
    EXPECT_NE(std::string::npos, output.find("\n  storage error:     none noted\n")) << output;
}

// In the /tmp fall-back, the damaged tables are those beside its tables,
// not those left on the card.
TEST_F(PvoctlStatusTest, TheDamagedTablesOfTheTmpFallBackAreTheOnesListed) {
    Store(3600);
    test::WriteFile(kTmpTables + "output_control_schedule_update_info.db", test::ReadFile(test::kUpdateInfoDbFile));
    test::CreateDatabase(kTmpTables + "output_control_schedule_update_info.db",
                         "UPDATE output_control_schedule_update_info SET lastUpdateTime='" + Display(now_ - 600) + "'");
    test::WriteFile(kCardTables + kDamaged, "");
    test::WriteFile(kTmpTables + "output_control_schedule.db.damaged-20261127T000000Z-wal", "");
    std::string output;
    RunPvoctl({"status"}, output);
    ASSERT_NE(std::string::npos, output.find("storage:           /tmp/kestrovanyx (/tmp fall-back")) << output;
    EXPECT_NE(std::string::npos,
              output.find("\n  damaged tables:    output_control_schedule.db.damaged-20261127T000000Z-wal (1 file)\n"))
        << output;
    RunPvoctl({"status", "--prometheus"}, output);
    EXPECT_NE(std::string::npos, output.find("\npvocd_storage_damaged_files{plant_id=\"" + kPlant + "\"} 1\n"))
        << output;
}

// The daemon keeps the root it chose at start for the whole run: a card
// that is writable now does not mean its tables are the ones in use.
TEST_F(PvoctlStatusTest, TheTablesWrittenLastAreTheOnesRead) {
    Store(3600);
    const std::string tmpInfo = "/tmp/kestrovanyx/Database/OutputControl/output_control_schedule_update_info.db";
    test::WriteFile(tmpInfo, test::ReadFile(test::kUpdateInfoDbFile));
    test::CreateDatabase(tmpInfo,
                         "UPDATE output_control_schedule_update_info SET lastUpdateTime='" + Display(now_ - 600) + "'");
    std::string output;
    RunPvoctl({"status"}, output);
    EXPECT_NE(std::string::npos, output.find("storage:           /tmp/kestrovanyx (/tmp fall-back")) << output;
    EXPECT_NE(std::string::npos, output.find("last update:       " + Display(now_ - 600))) << output;
    // Written on the card again, the card's tables are read.
    test::CreateDatabase(test::kUpdateInfoDbFile,
                         "UPDATE output_control_schedule_update_info SET lastUpdateTime='" + Display(now_ - 300) + "'");
    RunPvoctl({"status"}, output);
    EXPECT_NE(std::string::npos, output.find("storage:           /media/sdcard/kestrovanyx (SD card)")) << output;
    EXPECT_NE(std::string::npos, output.find("last update:       " + Display(now_ - 300))) << output;
}

// A daemon whose accepting thread is stuck leaves its listen queue full; the
// status check then reports that instead of waiting for ever.
TEST_F(PvoctlStatusTest, AFullListenQueueIsReportedNotWaitedFor) {
    Store(3600);
    const int listener = ListenWithoutAccepting(kSocket);
    ASSERT_GE(listener, 0);
    // Fill the queue: a connection that is never accepted.
    std::vector<int> queued;
    for (int i = 0; i < 4; ++i) {
        const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0);
        const sockaddr_un address = test::UnixAddress(kSocket);
        connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address);
        queued.push_back(fd);
    }
    std::string output;
    EXPECT_EQ(1, RunPvoctl({"status", "--timeout", "1"}, output)) << output;
    EXPECT_NE(std::string::npos, output.find("command socket does not answer: cannot connect")) << output;
    for (const int fd : queued) close(fd);
    close(listener);
}

TEST_F(PvoctlStatusTest, MissingDatabasesAreNotCreated) {
    test::WriteFile("/media/sdcard/kestrovanyx/Database/OutputControl/.keep", "");
    std::string output;
    EXPECT_EQ(1, RunPvoctl({"status"}, output)) << output;
    EXPECT_NE(std::string::npos, output.find("stored slots:      0\n")) << output;
    EXPECT_FALSE(test::FileExists(test::kScheduleDbFile));
    EXPECT_FALSE(test::FileExists(test::kUpdateInfoDbFile));
}

TEST_F(PvoctlStatusTest, StatusOnWhatTheRealDaemonStored) {
    test::StoreSchedule(kPlant, {{TimeStamp().EpochSeconds() / 1800 * 1800, 60}});
    test::CreateDatabase(test::kUpdateInfoDbFile, "UPDATE output_control_schedule_update_info SET lastUpdateTime='" +
                                                      Display(now_) + "', nextUpdateTime='" + Display(now_ + 86400) +
                                                      "'");
    test::ChildProcess daemon;
    ASSERT_TRUE(daemon.Start(test::ChildProcess::DaemonCommand(), test::kDaemonOutput));
    ASSERT_TRUE(test::WaitForSocket(kSocket, 10000));
    ASSERT_TRUE(test::WaitFor([] { return test::FileExists("/mnt/system/check/brvo"); }, 5000));
    std::string output;
    EXPECT_EQ(0, RunPvoctl({"status"}, output)) << output << test::ReadFile(test::kDaemonOutput);
    EXPECT_NE(std::string::npos, output.find(kSocket + " answers")) << output;
    EXPECT_NE(std::string::npos, output.find("watchdog file:     /mnt/system/check/brvo, ")) << output;
    daemon.Signal(SIGTERM);
    daemon.WaitExit(10000);
}

TEST_F(PvoctlStatusTest, UsageErrorsExitTwo) {
    std::string output;
    EXPECT_EQ(2, RunPvoctl({"status", "extra"}, output)) << output;
    EXPECT_EQ(2, RunPvoctl({"status", "--json", "--prometheus"}, output)) << output;
    EXPECT_NE(std::string::npos, output.find("--json and --prometheus exclude each other")) << output;
    EXPECT_EQ(2, RunPvoctl({"current", "--prometheus"}, output)) << output;
}

} // namespace
} // namespace brvo
