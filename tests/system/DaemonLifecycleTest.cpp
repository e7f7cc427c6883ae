// The real pvocd binary as a child process in the sandbox: start-up with and
// without settings, the log it writes, its stop on SIGTERM, SIGUSR1, SIGHUP,
// SIGINT and SIGQUIT, and the stray signals it survives.
#include "support/ChildProcess.h"
#include "support/DaemonClient.h"
#include "support/TestFiles.h"

#include <gtest/gtest.h>

#include <algorithm>

#include <Poco/Timestamp.h>

#include <csignal>
#include <cstdlib>
#include <regex>
#include <sys/stat.h>

namespace brvo {
namespace {

const std::string kLogDir = "/media/sdcard/kestrovanyx/Log/OutputScheduleLog";
const std::string kLogFile = kLogDir + "/OutputSchedule_pvocd.log";

class DaemonLifecycleTest : public ::testing::Test {
protected:
    bool StartDaemon(const std::map<std::string, std::string>& env = {}) {
        return daemon_.Start(test::ChildProcess::DaemonCommand(), test::kDaemonOutput, env);
    }

    static bool LogHas(const std::string& path, const std::string& text) {
        return test::ReadFile(path).find(text) != std::string::npos;
    }

    bool WaitForStart(const std::string& log = kLogFile) {
        return test::WaitFor([&] { return LogHas(log, "Start AppVer:20220119_qtx"); }, 10000);
    }

    // Sends `signal` and expects "Kill complete." in the log and exit code 0
    // within one second.
    void StopWith(int signal, const std::string& log = kLogFile) {
        Poco::Timestamp sent;
        ASSERT_TRUE(daemon_.Signal(signal));
        ASSERT_TRUE(daemon_.WaitExit(5000)) << "pvocd did not stop";
        EXPECT_LT(sent.elapsed(), 1000000 * test::TimeScale()) << "pvocd took longer than 1 s to stop";
        ASSERT_TRUE(daemon_.ExitedNormally());
        EXPECT_EQ(0, daemon_.ExitCode());
        EXPECT_TRUE(LogHas(log, "] BrevantaOutputControlManager Kill complete.\n")) << test::ReadFile(log);
    }

    test::ChildProcess daemon_;
};

TEST_F(DaemonLifecycleTest, StartsWithoutSettingsAndStopsOnSigterm) {
    ASSERT_FALSE(test::FileExists(test::LoggerSettingPath()));
    ASSERT_TRUE(StartDaemon());
    ASSERT_TRUE(WaitForStart()) << test::ReadFile(test::kDaemonOutput);
    StopWith(SIGTERM);

    const std::vector<std::string> lines = test::ReadLines(kLogFile);
    const std::regex format(R"(\[\d{4}-\d\d-\d\d \d\d:\d\d:\d\d UTC\] \[[VDIWEF]\] \[\d+\] \w+ .*)");
    for (const std::string& line : lines) EXPECT_TRUE(std::regex_match(line, format)) << line;
    const std::string text = test::ReadFile(kLogFile);
    EXPECT_TRUE(LogHas(kLogFile, "] [D] ["));
    EXPECT_NE(std::string::npos, text.find("LoggerSettingManager [SdcardPath] = [/media/sdcard]\n"));
    EXPECT_NE(std::string::npos, text.find("LoggerSettingManager [GetLogDirectory] = [" + kLogDir + "]\n"));
    EXPECT_NE(std::string::npos, text.find("] [I] ["));
    // Every line is echoed to standard output behind the file name.
    EXPECT_TRUE(LogHas(test::kDaemonOutput, "OutputSchedule_pvocd.log [")) << test::ReadFile(test::kDaemonOutput);
}

TEST_F(DaemonLifecycleTest, StopsOnSigusr1) {
    ASSERT_TRUE(StartDaemon());
    ASSERT_TRUE(WaitForStart());
    StopWith(SIGUSR1);
}

// A hang-up, an interrupt or a quit from whoever runs the daemon by hand
// stops it as SIGTERM does: "Kill complete." and the buffered lines are in
// the log, the exit code is 0.
class StopSignalTest : public DaemonLifecycleTest, public ::testing::WithParamInterface<int> {};

TEST_P(StopSignalTest, StopsCleanlyWithTheBufferedLogWritten) {
    // A buffer far above what start-up writes: only the stop writes it.
    test::WriteLoggerSetting("<OutputScheduleLogMaxBufferedSize>1000000</OutputScheduleLogMaxBufferedSize>");
    ASSERT_TRUE(test::StartDaemon(daemon_, test::kDaemonOutput));
    ASSERT_TRUE(WaitForStart());
    // Logged after the start-up flush, so still in the buffer.
    ASSERT_EQ(test::kUpdateAnswerSize, test::Ask(test::kChangeSettingRequest).size());
    EXPECT_FALSE(LogHas(kLogFile, "RequestDataType ChangeSettingNotify"));
    StopWith(GetParam());
    EXPECT_TRUE(LogHas(kLogFile, "RequestDataType ChangeSettingNotify")) << test::ReadFile(kLogFile);
}

INSTANTIATE_TEST_SUITE_P(HangUpInterruptQuit, StopSignalTest, ::testing::Values(SIGHUP, SIGINT, SIGQUIT));

// Signals that mean nothing to the daemon would end it by default; it logs
// each one and goes on serving.
class IgnoredSignalTest : public DaemonLifecycleTest, public ::testing::WithParamInterface<int> {};

TEST_P(IgnoredSignalTest, IsLoggedAndTheDaemonServesOn) {
    test::WriteLoggerSetting("<OutputScheduleEnableLogBufferedIO>0</OutputScheduleEnableLogBufferedIO>");
    ASSERT_TRUE(test::StartDaemon(daemon_, test::kDaemonOutput));
    ASSERT_TRUE(WaitForStart());
    for (int i = 0; i < 3; ++i) ASSERT_TRUE(daemon_.Signal(GetParam()));
    const std::string line = "] BrevantaOutputControlManager Signal ignored. [" + std::to_string(GetParam()) + "]";
    EXPECT_TRUE(test::WaitFor([&] { return LogHas(kLogFile, line); }, 5000)) << test::ReadFile(kLogFile);
    EXPECT_FALSE(daemon_.WaitExit(200));
    EXPECT_EQ(test::kTargetPowerAnswerSize, test::Ask(test::kCurrentTargetPowerRequest, std::string(8, '\0')).size());
    EXPECT_EQ(test::kUpdateAnswerSize, test::Ask(test::kUpdateScheduleRequest).size());
    StopWith(SIGTERM);
}

INSTANTIATE_TEST_SUITE_P(StraySignals, IgnoredSignalTest,
                         ::testing::Values(SIGALRM, SIGUSR2, SIGVTALRM, SIGPROF, SIGPOLL, SIGPWR, SIGXFSZ));

TEST_F(DaemonLifecycleTest, StopsAtOnceWhenSignalledRightAfterStart) {
    ASSERT_TRUE(StartDaemon());
    ASSERT_TRUE(WaitForStart());
    StopWith(SIGTERM);
    // Start-up order in the log: settings dump, then the manager.
    const std::string text = test::ReadFile(kLogFile);
    EXPECT_LT(text.find("[SettingTagOutputControlSocketTimeout]"), text.find("Start AppVer:"));
    EXPECT_LT(text.find("Start AppVer:"), text.find("Kill complete."));
}

TEST_F(DaemonLifecycleTest, CustomLoggerSettingsAreUsedAndDumped) {
    test::WriteLoggerSetting("<SdcardPath>/media/sdcard/card</SdcardPath>"
                             "<LoggerSocketPath>/mnt/system/l.sock</LoggerSocketPath>"
                             "<WatchdogFileUpdateInterval>7</WatchdogFileUpdateInterval>"
                             "<OutputScheduleEnableLogBufferedIO>0</OutputScheduleEnableLogBufferedIO>"
                             "<OutputControlScheduleRetensionCycle>-5</OutputControlScheduleRetensionCycle>"
                             "<OutputControlSocketTimeout>abc</OutputControlSocketTimeout>");
    const std::string log = "/media/sdcard/card/kestrovanyx/Log/OutputScheduleLog/OutputSchedule_pvocd.log";
    ASSERT_TRUE(StartDaemon());
    ASSERT_TRUE(WaitForStart(log)) << test::ReadFile(test::kDaemonOutput);
    StopWith(SIGTERM, log);
    const std::string text = test::ReadFile(log);
    for (const std::string& expected : {
             std::string("[LoggerSocketPath] = [/mnt/system/l.sock]"),
             std::string("[WatchdogFileUpdateInterval] = [7]"),
             std::string("[SdcardPath] = [/media/sdcard/card]"),
             std::string("[OutputScheduleEnableLogBufferedIO] = [0]"),
             std::string("[OCScheduleRetensionCycle] = [-5]"),
             std::string("[SettingTagOutputControlSocketTimeout] = [60]"),
         }) {
        EXPECT_NE(std::string::npos, text.find("LoggerSettingManager " + expected + "\n")) << expected;
    }
    EXPECT_FALSE(test::FileExists(kLogFile));
}

TEST_F(DaemonLifecycleTest, LogLevelHidesLowerLines) {
    test::WriteLoggerSetting("<LogLevel>2</LogLevel>");
    ASSERT_TRUE(StartDaemon());
    ASSERT_TRUE(WaitForStart());
    StopWith(SIGTERM);
    EXPECT_FALSE(LogHas(kLogFile, "] [D] ["));
    EXPECT_FALSE(LogHas(test::kDaemonOutput, "] [D] ["));
}

TEST_F(DaemonLifecycleTest, UnbufferedLogReachesFileWithinATick) {
    test::WriteLoggerSetting("<OutputScheduleEnableLogBufferedIO>0</OutputScheduleEnableLogBufferedIO>");
    ASSERT_TRUE(StartDaemon());
    ASSERT_TRUE(WaitForStart());
    EXPECT_TRUE(LogHas(kLogFile, "[SdcardPath] = [/media/sdcard]"));
    StopWith(SIGTERM);
}

TEST_F(DaemonLifecycleTest, BufferedLogIsWrittenAtStartFlushAndAtStop) {
    test::WriteLoggerSetting("<OutputScheduleLogMaxBufferedSize>1000000</OutputScheduleLogMaxBufferedSize>");
    ASSERT_TRUE(StartDaemon());
    // Far below the threshold: only the flush at the end of start-up writes.
    ASSERT_TRUE(WaitForStart());
    EXPECT_TRUE(LogHas(kLogFile, "[SdcardPath] = [/media/sdcard]"));
    EXPECT_FALSE(LogHas(kLogFile, "Kill complete."));
    StopWith(SIGTERM);
}

// The lines of a log file without their time, level and thread parts.
TEST_F(DaemonLifecycleTest, LogRollsIntoNumberedFilesWithoutLosingLines) {
    // Every log line is also echoed to standard output, prefixed with the
    // file name; the rolled files together must hold exactly those lines.
    test::WriteLoggerSetting("<OutputScheduleEnableLogBufferedIO>0</OutputScheduleEnableLogBufferedIO>"
                             "<OutputScheduleLogMaxFileSize>400b</OutputScheduleLogMaxFileSize>"
                             "<OutputScheduleLogMaxRollIndex>30</OutputScheduleLogMaxRollIndex>");
    test::ChildProcess daemon;
    ASSERT_TRUE(daemon.Start(test::ChildProcess::DaemonCommand(), test::kDaemonOutput));
    ASSERT_TRUE(test::WaitFor([] { return test::FileExists(kLogFile + ".2"); }, 10000));
    ASSERT_TRUE(daemon.Signal(SIGTERM));
    ASSERT_TRUE(daemon.WaitExit(5000));
    EXPECT_EQ(0, daemon.ExitCode());

    std::vector<std::string> written;
    for (int i = 30; i >= 1; --i) {
        const std::string rolled = kLogFile + "." + std::to_string(i);
        if (!test::FileExists(rolled)) continue;
        EXPECT_LE(test::ReadFile(rolled).size(), 400u) << rolled;
        for (const std::string& line : test::ReadLines(rolled)) written.push_back(line);
    }
    for (const std::string& line : test::ReadLines(kLogFile)) written.push_back(line);
    const std::string prefix = "OutputSchedule_pvocd.log ";
    std::vector<std::string> echoed;
    for (const std::string& line : test::ReadLines(test::kDaemonOutput)) {
        if (line.compare(0, prefix.size(), prefix) == 0) echoed.push_back(line.substr(prefix.size()));
    }
    ASSERT_GT(echoed.size(), 10u);
    // Lines of different threads may reach the two outputs in a different
    // order; none may be missing or doubled.
    std::sort(written.begin(), written.end());
    std::sort(echoed.begin(), echoed.end());
    EXPECT_EQ(echoed, written);
}

TEST_F(DaemonLifecycleTest, UnwritableLogDirectoryIsNotedOnce) {
    // A regular file where the card's directory tree should start: no write
    // below it can succeed, not even as root.
    test::WriteFile("/media/sdcard/full", "not a directory");
    test::WriteLoggerSetting("<SdcardPath>/media/sdcard/full</SdcardPath>"
                             "<OutputScheduleEnableLogBufferedIO>0</OutputScheduleEnableLogBufferedIO>");
    ASSERT_TRUE(StartDaemon());
    ASSERT_TRUE(test::WaitFor([] { return LogHas(test::kDaemonOutput, "Start AppVer:"); }, 10000));
    ASSERT_TRUE(daemon_.Signal(SIGTERM));
    ASSERT_TRUE(daemon_.WaitExit(5000));
    EXPECT_EQ(0, daemon_.ExitCode()) << test::ReadFile(test::kDaemonOutput);
    const std::vector<std::string> entries = test::ReadLines("/tmp/logger_io_file_error");
    ASSERT_EQ(1u, entries.size());
    EXPECT_TRUE(std::regex_match(
        entries[0],
        std::regex(
            R"(\[\d{4}-\d\d-\d\d \d\d:\d\d:\d\d UTC\] /media/sdcard/full/kestrovanyx/Log/OutputScheduleLog/OutputSchedule_pvocd\.log)")))
        << entries[0];
    // The lines still reach standard output.
    EXPECT_TRUE(LogHas(test::kDaemonOutput, "Kill complete."));
}

// What the daemon creates gets the same modes whatever mask it was started
// with: directories 0755, files 0644, the command socket 0660.
TEST_F(DaemonLifecycleTest, CreatedFilesGetDeliberateModes) {
    const mode_t previous = ::umask(0);
    const bool started = StartDaemon();
    ::umask(previous);
    ASSERT_TRUE(started);
    const std::string socket = "/mnt/system/pvoctrl/brevanta.octrl";
    const std::string database = "/media/sdcard/kestrovanyx/Database/OutputControl";
    ASSERT_TRUE(test::WaitFor(
        [&] {
            return test::FileExists(socket) && test::FileExists(database + "/output_control_schedule.db") &&
                   test::FileExists("/mnt/system/check/brvo");
        },
        10000))
        << test::ReadFile(test::kDaemonOutput);
    ASSERT_TRUE(WaitForStart());
    const auto mode = [](const std::string& path) {
        struct stat info;
        if (::stat(path.c_str(), &info) != 0) return -1;
        return static_cast<int>(info.st_mode & 07777);
    };
    // (A clean stop removes the socket file.)
    EXPECT_EQ(0660, mode(socket));
    StopWith(SIGTERM);
    EXPECT_EQ(0644, mode(socket + ".lock"));
    EXPECT_EQ(0755, mode("/mnt/system/pvoctrl"));
    EXPECT_EQ(0755, mode(kLogDir));
    EXPECT_EQ(0644, mode(kLogFile));
    EXPECT_EQ(0755, mode(database));
    EXPECT_EQ(0644, mode(database + "/output_control_schedule.db"));
    EXPECT_EQ(0755, mode("/mnt/system/check"));
    EXPECT_EQ(0644, mode("/mnt/system/check/brvo"));
}

TEST_F(DaemonLifecycleTest, LogTimesAreUtcOfTheClockAfter2038) {
    // The fake clock starts at 2040-03-01 08:59:50 Tokyo time, which is
    // 2040-02-29 23:59:50 UTC: the log shows UTC whatever the local zone.
    std::map<std::string, std::string> env = test::ChildProcess::FakeTimeEnv("@2040-03-01 08:59:50");
    env["TZ"] = "Asia/Tokyo";
    ASSERT_TRUE(StartDaemon(env));
    ASSERT_TRUE(WaitForStart()) << test::ReadFile(test::kDaemonOutput);
    StopWith(SIGTERM);
    EXPECT_TRUE(LogHas(kLogFile, "[2040-02-29 23:59:5")) << test::ReadFile(kLogFile);
}

// The device target's run of the whole suite shifts every process's clock
// past 2038 (PVOC_SUITE_YEAR names the year it starts in). This proves the
// shift took: the test's own clock and the daemon's log, without a clock of
// its own, are in that year. Elsewhere there is no shift to check.
TEST_F(DaemonLifecycleTest, WholeRunClockShiftReachesTheDaemon) {
    const char* year = std::getenv("PVOC_SUITE_YEAR");
    if (year == nullptr) GTEST_SKIP() << "the suite runs on the real clock";
    const Poco::Timestamp::TimeVal y2038 = 2147483648LL * Poco::Timestamp::resolution();
    ASSERT_GT(Poco::Timestamp().epochMicroseconds(), y2038) << "the test's clock is not past 2038";
    ASSERT_TRUE(StartDaemon());
    ASSERT_TRUE(WaitForStart()) << test::ReadFile(test::kDaemonOutput);
    StopWith(SIGTERM);
    const std::vector<std::string> lines = test::ReadLines(kLogFile);
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ("[" + std::string(year) + "-", lines.front().substr(0, 6)) << lines.front();
}

} // namespace
} // namespace brvo
