// pvocd as the service manager runs it: its command-line options, one
// instance per command socket, and the readiness, status, watchdog and stop
// messages it sends to NOTIFY_SOCKET.
#include "support/ChildProcess.h"
#include "support/CommandClient.h"
#include "support/DaemonClient.h"
#include "support/NotifyListener.h"
#include "support/TestFiles.h"

#include <gtest/gtest.h>

#include <Poco/File.h>

#include <csignal>
#include <map>
#include <regex>
#include <sys/stat.h>
#include <unistd.h>

namespace brvo {
namespace {

const std::string kLogFile = "/media/sdcard/kestrovanyx/Log/OutputScheduleLog/OutputSchedule_pvocd.log";
const std::string kLockFile = std::string(test::kCommandSocket) + ".lock";
const std::string kSecondOutput = "/tmp/pvocd-second.out";
const std::string kStderrFile = "/tmp/pvocd-stderr.out";
const std::string kNotifySocket = "/tmp/pvocd-notify.sock";
const std::string kAlreadyRunning = "Another pvocd holds [" + kLockFile + "]; exiting.";

// The inode of `path`, or 0 when there is none.
ino_t InodeOf(const std::string& path) {
    struct stat info;
    return stat(path.c_str(), &info) == 0 ? info.st_ino : 0;
}

std::size_t Occurrences(const std::string& text, const std::string& part) {
    std::size_t count = 0;
    for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++count;
    return count;
}

// The daemon's command line with `arguments` added, its standard error
// alone going to kStderrFile (standard output to the child's output file).
std::vector<std::string> WithStderrApart(const std::vector<std::string>& arguments) {
    std::vector<std::string> command = {"/bin/sh", "-c", "exec \"$@\" 2>" + kStderrFile, "sh"};
    for (const std::string& part : test::ChildProcess::DaemonCommand()) command.push_back(part);
    command.insert(command.end(), arguments.begin(), arguments.end());
    return command;
}

// Whether the daemon answers a request for the current target power.
bool AnswersTargetPower() {
    return test::Ask(test::kCurrentTargetPowerRequest, test::Capacity(1000.0)).size() == test::kTargetPowerAnswerSize;
}

class DaemonArgumentsTest : public ::testing::Test {
protected:
    // Runs the daemon with `argument`; returns its exit status (-1 when it
    // did not end normally within 10 s).
    int Run(const std::string& argument) {
        test::ChildProcess child;
        if (!child.Start(WithStderrApart({argument}), test::kDaemonOutput)) return -1;
        if (!child.WaitExit(10000 * static_cast<int>(test::TimeScale())) || !child.ExitedNormally()) return -1;
        return child.ExitCode();
    }

    // Nothing of the daemon came up: no log, no socket, no lock file.
    static void ExpectNothingStarted() {
        EXPECT_FALSE(test::FileExists(kLogFile));
        EXPECT_FALSE(test::FileExists(test::kCommandSocket));
        EXPECT_FALSE(test::FileExists(kLockFile));
    }
};

TEST_F(DaemonArgumentsTest, HelpPrintsTheUsageAndStartsNothing) {
    EXPECT_EQ(0, Run("--help"));
    const std::string out = test::ReadFile(test::kDaemonOutput);
    EXPECT_EQ(0u, out.find("Usage: pvocd [--help | --version]\n")) << out;
    for (const char* text : {"LoggerSetting.xml", "SIGTERM", "--version"}) {
        EXPECT_NE(std::string::npos, out.find(text)) << text;
    }
    EXPECT_EQ("", test::ReadFile(kStderrFile));
    ExpectNothingStarted();
}

TEST_F(DaemonArgumentsTest, VersionPrintsTheAppVersionAndStartsNothing) {
    EXPECT_EQ(0, Run("--version"));
    EXPECT_EQ("pvocd " PVOCD_VERSION " (application 20220119_qtx)\n", test::ReadFile(test::kDaemonOutput));
    EXPECT_EQ("", test::ReadFile(kStderrFile));
    ExpectNothingStarted();
}

TEST_F(DaemonArgumentsTest, AnUnknownArgumentIsAUsageErrorOnStandardError) {
    EXPECT_EQ(2, Run("--foreground"));
    EXPECT_EQ("", test::ReadFile(test::kDaemonOutput));
    const std::string err = test::ReadFile(kStderrFile);
    EXPECT_EQ(0u, err.find("pvocd: unexpected argument '--foreground'\n")) << err;
    EXPECT_NE(std::string::npos, err.find("Usage: pvocd [--help | --version]\n")) << err;
    ExpectNothingStarted();
}

// Without a card to write the log on, the log lines go to standard error
// (the journal under systemd), each once, with a syslog priority; with one,
// standard error stays quiet.
TEST(LogWithoutACardTest, LinesGoToStandardErrorOnlyWhileTheLogCannotBeWritten) {
    test::WriteFile("/media/sdcard/full", "not a directory");
    test::WriteLoggerSetting("<SdcardPath>/media/sdcard/full</SdcardPath>");
    const int waitMs = 10000 * static_cast<int>(test::TimeScale());
    for (const bool card : {false, true}) {
        if (card) test::WriteLoggerSetting("<SdcardPath>/media/sdcard</SdcardPath>");
        test::ChildProcess daemon;
        ASSERT_TRUE(daemon.Start(WithStderrApart({}), test::kDaemonOutput));
        ASSERT_TRUE(test::WaitFor(
            [] {
                const int fd = test::Connect(test::kCommandSocket);
                if (fd >= 0) close(fd);
                return fd >= 0;
            },
            waitMs))
            << test::ReadFile(test::kDaemonOutput);
        ASSERT_TRUE(AnswersTargetPower());
        ASSERT_TRUE(daemon.Signal(SIGTERM));
        ASSERT_TRUE(daemon.WaitExit(waitMs));
        const std::string err = test::ReadFile(kStderrFile);
        if (card) {
            EXPECT_EQ("", err);
            continue;
        }
        const std::regex line(R"(<([2-7])>\[\d{4}-\d\d-\d\d \d\d:\d\d:\d\d UTC\] \[([VDIWEF])\] .*)");
        const std::map<std::string, std::string> priorities = {{"V", "7"}, {"D", "7"}, {"I", "6"},
                                                               {"W", "4"}, {"E", "3"}, {"F", "2"}};
        const std::vector<std::string> lines = test::ReadLines(kStderrFile);
        ASSERT_FALSE(lines.empty());
        for (const std::string& text : lines) {
            std::smatch parts;
            ASSERT_TRUE(std::regex_match(text, parts, line)) << text;
            EXPECT_EQ(priorities.at(parts[2]), parts[1]) << text;
        }
        EXPECT_EQ(1u, Occurrences(err, "BrevantaOutputControlManager Start AppVer:")) << err;
        EXPECT_EQ(1u, Occurrences(err, "BrevantaOutputControlManager Kill complete.")) << err;
    }
}

class OneInstanceTest : public ::testing::Test {
protected:
    void TearDown() override {
        if (first_.Running()) {
            first_.Signal(SIGTERM);
            first_.WaitExit(5000);
        }
    }

    test::ChildProcess first_;
};

TEST_F(OneInstanceTest, ASecondDaemonExitsAndLeavesTheFirstServing) {
    test::WriteLoggerSetting("<OutputScheduleEnableLogBufferedIO>0</OutputScheduleEnableLogBufferedIO>");
    ASSERT_TRUE(test::StartDaemon(first_, test::kDaemonOutput));
    const ino_t socket = InodeOf(test::kCommandSocket);
    ASSERT_TRUE(AnswersTargetPower());

    test::ChildProcess second;
    ASSERT_TRUE(second.Start(WithStderrApart({}), kSecondOutput));
    ASSERT_TRUE(second.WaitExit(10000 * static_cast<int>(test::TimeScale()))) << "the second pvocd kept running";
    ASSERT_TRUE(second.ExitedNormally());
    EXPECT_EQ(1, second.ExitCode());
    EXPECT_EQ("pvocd: " + kAlreadyRunning + "\n", test::ReadFile(kStderrFile));
    // Once on standard error, once in the log file: not on standard output.
    EXPECT_EQ(0u, Occurrences(test::ReadFile(kSecondOutput), kAlreadyRunning)) << test::ReadFile(kSecondOutput);

    EXPECT_TRUE(first_.Running());
    EXPECT_EQ(socket, InodeOf(test::kCommandSocket));
    EXPECT_TRUE(AnswersTargetPower());
    ASSERT_TRUE(first_.Signal(SIGTERM));
    ASSERT_TRUE(first_.WaitExit(5000 * static_cast<int>(test::TimeScale())));
    // The second daemon wrote its one line and nothing else.
    const std::vector<std::string> lines = test::ReadLines(kLogFile);
    EXPECT_TRUE(test::HasLogLine(lines, "F", "BrevantaOutputControlManager", kAlreadyRunning))
        << test::ReadFile(kLogFile);
    const std::string log = test::ReadFile(kLogFile);
    EXPECT_EQ(1u, Occurrences(log, "Start AppVer:"));
    EXPECT_EQ(1u, Occurrences(log, "LoggerSettingManager [SdcardPath] = "));
    EXPECT_EQ(1u, Occurrences(log, "Start communication server"));
}

// A clean stop takes its socket file away; one that another daemon bound
// since stays.
TEST_F(OneInstanceTest, ACleanStopRemovesItsOwnSocketFileOnly) {
    test::WriteLoggerSetting("<OutputScheduleEnableLogBufferedIO>0</OutputScheduleEnableLogBufferedIO>");
    ASSERT_TRUE(test::StartDaemon(first_, test::kDaemonOutput));
    ASSERT_TRUE(first_.Signal(SIGTERM));
    ASSERT_TRUE(first_.WaitExit(5000 * static_cast<int>(test::TimeScale())));
    EXPECT_EQ(0, first_.ExitCode());
    EXPECT_FALSE(test::FileExists(test::kCommandSocket));

    ASSERT_TRUE(test::StartDaemon(first_, test::kDaemonOutput));
    // Another file takes the path (as a daemon that bound there since).
    ASSERT_EQ(0, ::unlink(test::kCommandSocket));
    test::WriteFile(test::kCommandSocket, "another");
    ASSERT_TRUE(first_.Signal(SIGTERM));
    ASSERT_TRUE(first_.WaitExit(5000 * static_cast<int>(test::TimeScale())));
    EXPECT_EQ("another", test::ReadFile(test::kCommandSocket));
}

TEST_F(OneInstanceTest, TheLockOfAKilledDaemonDoesNotStopTheNextAndItsSocketIsReplaced) {
    ASSERT_TRUE(test::StartDaemon(first_, test::kDaemonOutput));
    ASSERT_TRUE(first_.Signal(SIGKILL));
    ASSERT_TRUE(first_.WaitExit(5000 * static_cast<int>(test::TimeScale())));
    const ino_t stale = InodeOf(test::kCommandSocket);
    ASSERT_NE(0u, stale);
    ASSERT_TRUE(test::FileExists(kLockFile));

    test::ChildProcess next;
    ASSERT_TRUE(next.Start(test::ChildProcess::DaemonCommand(), kSecondOutput));
    EXPECT_TRUE(test::WaitFor(
        [&] {
            if (InodeOf(test::kCommandSocket) == stale) return false;
            const int fd = test::Connect(test::kCommandSocket);
            if (fd >= 0) close(fd);
            return fd >= 0;
        },
        10000))
        << test::ReadFile(kSecondOutput);
    EXPECT_TRUE(AnswersTargetPower());
    ASSERT_TRUE(next.Signal(SIGTERM));
    ASSERT_TRUE(next.WaitExit(5000 * static_cast<int>(test::TimeScale())));
    EXPECT_EQ(0, next.ExitCode());
}

TEST_F(OneInstanceTest, ALockFileThatCannotBeOpenedIsLoggedAndTheDaemonServes) {
    test::WriteLoggerSetting("<OutputScheduleEnableLogBufferedIO>0</OutputScheduleEnableLogBufferedIO>");
    // A directory where the lock file belongs: it cannot be opened (EISDIR).
    Poco::File(kLockFile).createDirectories();
    ASSERT_TRUE(test::StartDaemon(first_, test::kDaemonOutput));
    EXPECT_TRUE(AnswersTargetPower());
    EXPECT_TRUE(test::WaitFor(
        [] {
            return test::HasLogLine(test::ReadLines(kLogFile), "E", "BrevantaOutputControlManager",
                                    "Instance lock not taken. [" + kLockFile + "][21]");
        },
        5000))
        << test::ReadFile(kLogFile);
}

class ServiceNotifyTest : public ::testing::Test {
protected:
    void TearDown() override {
        if (daemon_.Running()) {
            daemon_.Signal(SIGTERM);
            daemon_.WaitExit(5000);
        }
    }

    bool Start() {
        return daemon_.Start(test::ChildProcess::DaemonCommand(), test::kDaemonOutput,
                             {{"NOTIFY_SOCKET", kNotifySocket}, {"WATCHDOG_USEC", "3000000"}});
    }

    test::ChildProcess daemon_;
};

TEST_F(ServiceNotifyTest, ReadyAfterListenThenStatusWatchdogAndStopping) {
    // The status is refreshed at the watchdog file's tick: every second here,
    // so that it shows the update the start-up check plans.
    test::WriteLoggerSetting("<WatchdogFileUpdateInterval>1</WatchdogFileUpdateInterval>");
    // A server that refuses at once: the plant's updates are planned and retried.
    test::WriteSystemSetting("777", "http://127.0.0.1:9/schedule", false);
    test::NotifyListener listener(kNotifySocket);
    ::unlink(test::kCommandSocket);
    ASSERT_TRUE(Start());

    ASSERT_TRUE(listener.WaitFor("READY=1", 10000)) << test::ReadFile(test::kDaemonOutput);
    // Ready means clients can connect now.
    const int fd = test::Connect(test::kCommandSocket);
    EXPECT_GE(fd, 0);
    if (fd >= 0) close(fd);

    const std::regex plant(R"(STATUS=plant 777, next update \d{4}-\d\d-\d\d \d\d:\d\d:\d\d UTC)");
    EXPECT_TRUE(listener.WaitUntil(
        [&](const std::vector<std::string>&) {
            for (const std::string& status : listener.Starting("STATUS=")) {
                if (std::regex_match(status, plant)) return true;
            }
            return false;
        },
        10000))
        << ::testing::PrintToString(listener.Messages());
    EXPECT_TRUE(listener.WaitFor("WATCHDOG=1", 10000, 3)) << ::testing::PrintToString(listener.Messages());
    EXPECT_EQ(1, listener.Count("READY=1"));

    ASSERT_TRUE(daemon_.Signal(SIGTERM));
    ASSERT_TRUE(daemon_.WaitExit(5000 * static_cast<int>(test::TimeScale())));
    EXPECT_EQ(0, daemon_.ExitCode());
    listener.Drain();
    EXPECT_EQ(1, listener.Count("STOPPING=1")) << ::testing::PrintToString(listener.Messages());
}

// A settings change shows in the status line at once, not at the watchdog
// file's next tick (an hour away here).
TEST_F(ServiceNotifyTest, StatusFollowsASettingsChangeAtOnce) {
    test::WriteLoggerSetting("<WatchdogFileUpdateInterval>3600</WatchdogFileUpdateInterval>");
    test::WriteSystemSetting("777", "http://127.0.0.1:9/schedule", false);
    test::NotifyListener listener(kNotifySocket);
    ::unlink(test::kCommandSocket);
    ASSERT_TRUE(Start());
    ASSERT_TRUE(listener.WaitFor("READY=1", 10000)) << test::ReadFile(test::kDaemonOutput);
    const auto shows = [&](const std::string& plant) {
        const std::regex status("STATUS=plant " + plant + R"(, next update \d{4}-\d\d-\d\d \d\d:\d\d:\d\d UTC)");
        return listener.WaitUntil(
            [&](const std::vector<std::string>&) {
                for (const std::string& message : listener.Starting("STATUS=")) {
                    if (std::regex_match(message, status)) return true;
                }
                return false;
            },
            10000 * static_cast<int>(test::TimeScale()));
    };
    ASSERT_TRUE(shows("777")) << ::testing::PrintToString(listener.Messages());

    test::WriteSystemSetting("778", "http://127.0.0.1:9/schedule", false);
    EXPECT_EQ(test::kUpdateAnswerSize, test::Ask(test::kChangeSettingRequest, "").size());
    EXPECT_TRUE(shows("778")) << ::testing::PrintToString(listener.Messages());
    test::WriteSystemSetting("778", "http://127.0.0.1:9/schedule", true);
    EXPECT_EQ(test::kUpdateAnswerSize, test::Ask(test::kChangeSettingRequest, "").size());
    EXPECT_TRUE(listener.WaitUntil(
        [&](const std::vector<std::string>&) {
            const std::vector<std::string> statuses = listener.Starting("STATUS=");
            return !statuses.empty() && statuses.back().find("next update") == std::string::npos;
        },
        10000 * static_cast<int>(test::TimeScale())))
        << ::testing::PrintToString(listener.Messages());
}

TEST_F(ServiceNotifyTest, NoReadyWhenTheCommandSocketCannotBeBound) {
    const std::string tooLong = "/mnt/system/" + std::string(120, 's') + "/brevanta.octrl";
    test::WriteLoggerSetting("<OutputControlSocketPath>" + tooLong + "</OutputControlSocketPath>");
    test::NotifyListener listener(kNotifySocket);
    ASSERT_TRUE(Start());

    EXPECT_TRUE(listener.WaitUntil(
        [&](const std::vector<std::string>&) {
            for (const std::string& status : listener.Starting("STATUS=")) {
                if (status.find("STATUS=command socket [" + tooLong + "] not listening") == 0) return true;
            }
            return false;
        },
        10000))
        << ::testing::PrintToString(listener.Messages());
    // The daemon lives on (its main loop keeps the service watchdog fed at
    // half its 3 s period, while the watchdog file's tick comes every 30 s)
    // but never claims to be ready.
    EXPECT_TRUE(listener.WaitFor("WATCHDOG=1", 10000, 3)) << ::testing::PrintToString(listener.Messages());
    EXPECT_EQ(0, listener.Count("READY=1")) << ::testing::PrintToString(listener.Messages());
    ASSERT_TRUE(daemon_.Signal(SIGTERM));
    ASSERT_TRUE(daemon_.WaitExit(5000 * static_cast<int>(test::TimeScale())));
    listener.Drain();
    EXPECT_EQ(0, listener.Count("READY=1"));
    EXPECT_EQ(1, listener.Count("STOPPING=1"));
}

} // namespace
} // namespace brvo
