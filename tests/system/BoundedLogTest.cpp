// The real pvocd's log under hostile input: a plant ID holding a line break
// and a forged log line stays inside its own line, and thousands of
// connections that bring no request cost a handful of lines, so the log's
// history (its start-up lines) is not rolled away. The daemon answers
// target power throughout.
#include "server/CommandWire.h"
#include "support/ChildProcess.h"
#include "support/CommandClient.h"
#include "support/StoredSchedule.h"
#include "support/TestFiles.h"
#include "util/TimeStamp.h"

#include <gtest/gtest.h>

#include <Poco/Thread.h>

#include <atomic>
#include <csignal>
#include <poll.h>
#include <regex>
#include <thread>
#include <unistd.h>

namespace brvo {
namespace {

using test::Field;

const std::string kPlant = "00000000000000000000000777";
const std::int64_t kSlotSeconds = 1800;
const std::int32_t kCurrentTargetPower = 6;
const int kRate = 40;
const double kCapacity = 250.0;

// A line the input tries to forge, and its start as it would stand at the
// beginning of a line of its own.
const std::string kForgedStart = "[2026-01-01 00:00:00 UTC] [E] forged";
const std::string kForged = "\n" + kForgedStart;
const std::string kForgedEscaped = "\\x0a" + kForgedStart;

const int kBatch = 500;
const int kLateConnections = 4 * kBatch;
const int kClosedConnections = 1000;

int Scaled(int ms) {
    return ms * static_cast<int>(test::TimeScale());
}

class BoundedLogTest : public ::testing::Test {
protected:
    void SetUp() override {
        // Two files of 64 KiB: the history a flood of lines would roll away.
        test::WriteLoggerSetting("<OutputScheduleEnableLogBufferedIO>0</OutputScheduleEnableLogBufferedIO>"
                                 "<OutputScheduleLogMaxFileSize>64KB</OutputScheduleLogMaxFileSize>"
                                 "<OutputScheduleLogMaxRollIndex>1</OutputScheduleLogMaxRollIndex>"
                                 "<OutputControlSocketTimeout>1</OutputControlSocketTimeout>");
        slot0_ = TimeStamp().EpochSeconds() / kSlotSeconds * kSlotSeconds;
        std::vector<std::pair<std::int64_t, int>> slots;
        for (int k = -4; k <= 4; ++k) slots.emplace_back(slot0_ + k * kSlotSeconds, kRate);
        test::StoreSchedule(kPlant, slots);
    }

    void TearDown() override {
        if (daemon_.Running()) {
            daemon_.Signal(SIGTERM);
            daemon_.WaitExit(Scaled(5000));
        }
    }

    void StartServing() {
        ASSERT_TRUE(daemon_.Start(test::ChildProcess::DaemonCommand(), test::kDaemonOutput));
        ASSERT_TRUE(test::WaitForSocket(test::kCommandSocket, Scaled(10000))) << test::ReadFile(test::kDaemonOutput);
        ASSERT_TRUE(test::WaitFor([] { return LogHas("BrevantaOutputControlManager Start Server"); }, 10000));
    }

    void Stop() {
        ASSERT_TRUE(daemon_.Signal(SIGTERM));
        ASSERT_TRUE(daemon_.WaitExit(Scaled(10000)));
        EXPECT_TRUE(LogHas("BrevantaOutputControlManager Kill complete."));
    }

    // The lines of the log file and of its predecessor, oldest first.
    static std::vector<std::string> AllLogLines() {
        std::vector<std::string> lines = test::ReadLines(test::LogFilePath() + ".1");
        const std::vector<std::string> current = test::ReadLines(test::LogFilePath());
        lines.insert(lines.end(), current.begin(), current.end());
        return lines;
    }

    static bool LogHas(const std::string& text) {
        for (const std::string& line : AllLogLines()) {
            if (line.find(text) != std::string::npos) return true;
        }
        return false;
    }

    static int LinesWith(const std::vector<std::string>& lines, const std::string& text) {
        int count = 0;
        for (const std::string& line : lines) {
            if (line.find(text) != std::string::npos) ++count;
        }
        return count;
    }

    // The lines (of the log and of the daemon's standard output, which
    // echoes each line after the file name) that begin with the forged text.
    static int ForgedLines() {
        int count = 0;
        std::vector<std::string> lines = AllLogLines();
        const std::vector<std::string> echoed = test::ReadLines(test::kDaemonOutput);
        lines.insert(lines.end(), echoed.begin(), echoed.end());
        for (const std::string& line : lines) {
            if (line.compare(0, kForgedStart.size(), kForgedStart) == 0) ++count;
        }
        return count;
    }

    bool TargetPowerIsRight() const {
        std::string answer;
        if (!test::Exchange(test::kCommandSocket, test::Request(kCurrentTargetPower, test::Capacity(kCapacity)), answer,
                            Scaled(10000))) {
            return false;
        }
        const std::int64_t slot = TimeStamp().EpochSeconds() / kSlotSeconds * kSlotSeconds;
        for (std::int64_t start : {slot - kSlotSeconds, slot}) {
            if (answer == test::TargetPowerAnswer(kCurrentTargetPower, kRate * kCapacity / 100.0,
                                                  TimeStamp::FromEpochSeconds(start)->FormatCompact())) {
                return true;
            }
        }
        return false;
    }

    // `count` connections at once that send a target power header without
    // its capacity and hold on; waits until the daemon has closed each one
    // (its time-out is 1 s), then closes them too.
    static int HoldLateConnections(int count) {
        std::vector<int> open;
        const std::string header = test::Request(kCurrentTargetPower);
        for (int i = 0; i < count; ++i) {
            const int fd = test::Connect(test::kCommandSocket);
            if (fd < 0) break;
            open.push_back(fd);
            if (write(fd, header.data(), header.size()) != static_cast<ssize_t>(header.size())) break;
        }
        int closedByDaemon = 0;
        for (int fd : open) {
            pollfd in = {fd, POLLIN, 0};
            char byte = 0;
            if (poll(&in, 1, Scaled(10000)) == 1 && read(fd, &byte, 1) == 0) ++closedByDaemon;
            close(fd);
        }
        return closedByDaemon;
    }

    // `count` connections closed at once: half without a byte, half after
    // a header of a type that does not exist.
    static void CloseAtOnce(int count) {
        const std::string unknown = test::Request(42);
        for (int i = 0; i < count; ++i) {
            const int fd = test::Connect(test::kCommandSocket);
            if (fd < 0) continue;
            if (i % 2 == 1) {
                const ssize_t sent = write(fd, unknown.data(), unknown.size());
                (void)sent;
            }
            close(fd);
        }
    }

    test::ChildProcess daemon_;
    std::int64_t slot0_ = 0;
};

TEST_F(BoundedLogTest, ALineBreakInACheckedPlantIdForgesNoLine) {
    test::WriteSystemSetting(kPlant, "", true);
    StartServing();
    // The 27 bytes of the plant ID without a NUL run on into the URL field.
    const std::string idField = kForged.substr(0, 27);
    ASSERT_EQ(27u, idField.size());
    test::Ask(test::kCommandSocket, CommandWire::kCheckPlantId,
              Field(idField, CommandWire::kPlantIdSize) + Field(kForged.substr(27), CommandWire::kPlantUrlSize));
    ASSERT_TRUE(test::WaitFor([] { return LogHas("CheckPlantId Param plant_id ["); }, 10000));
    EXPECT_TRUE(LogHas("CheckPlantId Param plant_id [" + kForgedEscaped + "]  plant_url [" + kForged.substr(27) + "]"));
    EXPECT_TRUE(TargetPowerIsRight());
    Stop();
    EXPECT_EQ(0, ForgedLines()) << test::ReadFile(test::LogFilePath());
}

TEST_F(BoundedLogTest, ALineBreakInTheSettingsPlantIdForgesNoLine) {
    test::WriteSystemSetting("777" + kForged, "", true);
    StartServing();
    ASSERT_TRUE(test::WaitFor([] { return LogHas("777" + kForgedEscaped); }, 10000))
        << test::ReadFile(test::LogFilePath());
    Stop();
    EXPECT_EQ(0, ForgedLines()) << test::ReadFile(test::LogFilePath());
}

TEST_F(BoundedLogTest, ThousandsOfConnectionsWithoutARequestKeepTheLogHistory) {
    test::WriteSystemSetting(kPlant, "", true);
    StartServing();
    ASSERT_TRUE(TargetPowerIsRight());

    // A client asks for the target power all the while.
    std::atomic<bool> flooding(true);
    std::atomic<int> answered(0);
    std::atomic<int> wrong(0);
    std::thread asker([&] {
        while (flooding) {
            if (TargetPowerIsRight()) {
                ++answered;
            } else {
                ++wrong;
            }
            Poco::Thread::sleep(250);
        }
    });
    int closedByDaemon = 0;
    for (int sent = 0; sent < kLateConnections; sent += kBatch) {
        closedByDaemon += HoldLateConnections(kBatch);
        CloseAtOnce(kClosedConnections * kBatch / kLateConnections);
    }
    flooding = false;
    asker.join();
    EXPECT_EQ(kLateConnections, closedByDaemon);
    EXPECT_GT(answered.load(), 0);
    EXPECT_EQ(0, wrong.load());
    EXPECT_TRUE(TargetPowerIsRight());

    std::vector<std::string> lines = AllLogLines();
    EXPECT_GE(LinesWith(lines, "BrevantaOutputControlManager Start AppVer:"), 1) << "start-up lines rolled away";
    EXPECT_GE(LinesWith(lines, "LoggerSettingManager"), 1) << "settings dump rolled away";
    EXPECT_LE(LinesWith(lines, "parameters not received in time"), 4);
    EXPECT_LE(LinesWith(lines, "unknown data..."), 4);
    EXPECT_LE(LinesWith(lines, "Execute read error..."), 4);

    // The counts still pending are written when the daemon stops: together
    // with the full lines they account for every late connection.
    Stop();
    lines = AllLogLines();
    int counted = LinesWith(lines, ", parameters not received in time. socket[");
    const std::regex count(
        R"(\[Request parameters not received in time\] repeated (\d+) more time\(s\) in the last 60 s\.$)");
    for (const std::string& line : lines) {
        std::smatch match;
        if (std::regex_search(line, match, count)) counted += std::stoi(match[1]);
    }
    EXPECT_EQ(kLateConnections, counted);
    EXPECT_GE(LinesWith(lines, "BrevantaOutputControlManager Start AppVer:"), 1);
}

} // namespace
} // namespace brvo
