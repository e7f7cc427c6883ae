// The real pvocd in the sandbox with settings and fixed-schedule files that
// are no such files: nested far too deep, larger than any real one, FIFOs
// without a writer, devices. The daemon must refuse each at once, keep
// answering with what it had, and stay within its memory bound.
#include "server/CommandWire.h"
#include "support/ChildProcess.h"
#include "support/CommandClient.h"
#include "support/DaemonClient.h"
#include "support/ProcessStatus.h"
#include "support/StoredSchedule.h"
#include "support/TestFiles.h"
#include "util/TimeStamp.h"

#include <gtest/gtest.h>

#include <Poco/Clock.h>
#include <Poco/Thread.h>

#include <algorithm>
#include <csignal>
#include <unistd.h>

namespace brvo {
namespace {

using test::Field;
using test::Word;
using test::WordAt;

const std::string kPlant = "00000000000000000000000444";
const std::int64_t kSlotSeconds = 1800;
// Requests at once: one more than the worker pool starts with.
const int kConcurrent = 4;

class BoundedSettingsTest : public ::testing::Test {
protected:
    void SetUp() override {
        test::WriteLoggerSetting(kLoggerSettings);
        // The slot that is current now must stay current while a test runs.
        const std::int64_t margin = std::min<std::int64_t>(20 * test::TimeScale(), 60);
        const std::int64_t now = TimeStamp().EpochSeconds();
        if (kSlotSeconds - now % kSlotSeconds < margin) {
            Poco::Thread::sleep(static_cast<long>((kSlotSeconds - now % kSlotSeconds + 1) * 1000));
        }
        slot0_ = TimeStamp().EpochSeconds() / kSlotSeconds * kSlotSeconds;
        test::StoreSchedule(kPlant, {{slot0_ - kSlotSeconds, 10}, {slot0_, 20}, {slot0_ + kSlotSeconds, 30}});
        test::WriteSystemSetting(kPlant, "", true);
    }

    // Every test ends with the daemon it started still alive: it must stop
    // on request as it always does.
    void TearDown() override {
        if (!daemon_.Running()) return;
        EXPECT_TRUE(daemon_.Signal(SIGTERM));
        EXPECT_TRUE(daemon_.WaitExit(Scaled(5000)));
        EXPECT_TRUE(daemon_.ExitedNormally());
        EXPECT_EQ(0, daemon_.ExitCode());
    }

    static int Scaled(int ms) { return ms * static_cast<int>(test::TimeScale()); }

    // Starts the daemon, waits until it serves and notes its resident
    // memory then, the base of its memory bound.
    void StartServing() {
        ASSERT_TRUE(test::StartDaemon(daemon_, test::kDaemonOutput));
        startedKiB_ = test::ResidentKiB(daemon_.Pid());
        stored_ = test::ScheduleRows();
        ASSERT_EQ(3u, stored_.size());
        // The daemon has taken in the good settings once: these are the
        // last good values a bad file must leave in force.
        ASSERT_EQ(CurrentAnswer(), test::Ask(test::kCurrentTargetPowerRequest, test::Capacity(10.0), Scaled(5000)));
    }

    // The answer to CurrentTargetPower while the stored slots are in force.
    std::string CurrentAnswer() const {
        return test::TargetPowerAnswer(test::kCurrentTargetPowerRequest, 20.0 * 10.0 / 100.0,
                                       TimeStamp::FromEpochSeconds(slot0_)->FormatCompact());
    }

    // The daemon still runs, answers as before from the rows it stored,
    // which are all still there, and stayed within its memory bound.
    void ExpectServingAsBefore() {
        EXPECT_EQ(CurrentAnswer(), test::Ask(test::kCurrentTargetPowerRequest, test::Capacity(10.0), Scaled(5000)));
        EXPECT_EQ(stored_, test::ScheduleRows());
        if (test::MemoryIsMeasurable()) {
            EXPECT_LE(test::PeakResidentKiB(daemon_.Pid()), test::MemoryBoundKiB(startedKiB_));
        }
    }

    // Sends `count` requests of `type` with `params` before reading any
    // answer, and returns the answers.
    static std::vector<std::string> AskAtOnce(std::int32_t type, const std::string& params, int count) {
        std::vector<int> connections;
        for (int i = 0; i < count; ++i) connections.push_back(test::SendRequest(type, params));
        std::vector<std::string> answers;
        for (int connection : connections) answers.push_back(test::ReadAnswer(connection, Scaled(5000)));
        return answers;
    }

    // Whether a log line of level `mark` from `tag` beginning with `prefix`
    // appears within a few seconds (the log is written unbuffered).
    static bool Logged(const std::string& mark, const std::string& tag, const std::string& prefix) {
        return test::WaitFor(
            [&] { return test::HasLogLineStarting(test::ReadLines(test::LogFilePath()), mark, tag, prefix); }, 3000);
    }

    // A SystemSetting.xml that would move the daemon to another plant.
    static std::string OtherPlantSettings(const std::string& tail) {
        return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<logger><general>"
               "<outputControlPlantId>999</outputControlPlantId>"
               "<outputControlStandAlone>1</outputControlStandAlone></general>" +
               tail + "</logger>\n";
    }

    // The fixed-schedule answer refusing a file for `reason`.
    static std::string Refusal(const std::string& reason) {
        const std::vector<unsigned char> answer =
            CommandWire::EncodeFixedScheduleAnswer("", 9, 0, "file not usable. [" + reason + "]");
        return std::string(answer.begin(), answer.end());
    }

    static std::string FixedRequest(const std::string& path) { return CommandWire::EncodeFixedScheduleBlock(path, 1); }

    static const char kLoggerSettings[];

    test::ChildProcess daemon_;
    std::int64_t slot0_ = 0;
    std::int64_t startedKiB_ = 0;
    std::vector<std::vector<std::string>> stored_;
};

const char BoundedSettingsTest::kLoggerSettings[] =
    "<OutputScheduleEnableLogBufferedIO>0</OutputScheduleEnableLogBufferedIO>"
    "<OutputControlSocketTimeout>5</OutputControlSocketTimeout>";

// --- SystemSetting.xml ---------------------------------------------------------

TEST_F(BoundedSettingsTest, SystemSettingNestedVeryDeepKeepsTheLastGoodPlant) {
    StartServing();
    EXPECT_EQ(CurrentAnswer(), test::Ask(test::kCurrentTargetPowerRequest, test::Capacity(10.0)));
    test::WriteFile(test::SystemSettingPath(), OtherPlantSettings(test::NestedXml("d", 100000)));
    for (int i = 0; i < 3; ++i) ExpectServingAsBefore();
    EXPECT_EQ(test::kUpdateAnswerSize, test::Ask(test::kChangeSettingRequest).size());
    EXPECT_TRUE(Logged("E", "SystemSettingXmlManager",
                       "SystemSettingXml Load error(Load from file) [SAXParseException: "
                       "elements nested deeper than 64 levels"));
    ExpectServingAsBefore();
}

TEST_F(BoundedSettingsTest, SystemSettingFifoIsRefusedAtOnce) {
    StartServing();
    test::MakeFifo(test::SystemSettingPath());
    const Poco::Clock start;
    for (const std::string& answer : AskAtOnce(test::kCurrentTargetPowerRequest, test::Capacity(10.0), kConcurrent)) {
        EXPECT_EQ(CurrentAnswer(), answer);
    }
    EXPECT_LT(start.elapsed(), static_cast<Poco::Clock::ClockDiff>(Scaled(4000)) * 1000);
    EXPECT_EQ(test::kUpdateAnswerSize, test::Ask(test::kChangeSettingRequest).size());
    EXPECT_TRUE(
        Logged("E", "SystemSettingXmlManager", "SystemSettingXml Load error(Load from file) [not a regular file]"));
    ExpectServingAsBefore();
}

TEST_F(BoundedSettingsTest, HugeSystemSettingIsRefusedQuickly) {
    StartServing();
    // One comment of 20 MB: parsed, it took over a minute per request.
    test::WriteFile(test::SystemSettingPath(), OtherPlantSettings("<!--" + std::string(20 * 1000 * 1000, 'c') + "-->"));
    const Poco::Clock start;
    for (int i = 0; i < 3; ++i) ExpectServingAsBefore();
    EXPECT_LT(start.elapsed(), static_cast<Poco::Clock::ClockDiff>(Scaled(5000)) * 1000);
    EXPECT_TRUE(Logged("E", "SystemSettingXmlManager",
                       "SystemSettingXml Load error(Load from file) [larger than 1048576 bytes]"));
}

// --- LoggerSetting.xml -----------------------------------------------------------

TEST_F(BoundedSettingsTest, LoggerSettingNestedVeryDeepStartsWithDefaults) {
    test::WriteLoggerSetting(std::string(kLoggerSettings) + test::NestedXml("d", 100000));
    StartServing();
    ExpectServingAsBefore();
    // The time-out of the file did not apply: the default is in force.
    EXPECT_TRUE(Logged("D", "LoggerSettingManager", "[SettingTagOutputControlSocketTimeout] = [60]"));
}

TEST_F(BoundedSettingsTest, LoggerSettingFifoStartsWithDefaults) {
    test::MakeFifo(test::LoggerSettingPath());
    StartServing();
    ExpectServingAsBefore();
    EXPECT_TRUE(Logged("D", "LoggerSettingManager", "[SettingTagOutputControlSocketTimeout] = [60]"));
}

// --- Fixed-schedule files ----------------------------------------------------------

TEST_F(BoundedSettingsTest, FixedScheduleFifoIsRefusedAtOnceForEveryRequest) {
    StartServing();
    const std::string fifo = "/tmp/fixed.fifo";
    test::MakeFifo(fifo);
    const Poco::Clock start;
    for (const std::string& answer :
         AskAtOnce(test::kUpdateFixedScheduleRequest, FixedRequest(fifo), kConcurrent + 2)) {
        EXPECT_EQ(Refusal("not a regular file"), answer);
    }
    EXPECT_LT(start.elapsed(), static_cast<Poco::Clock::ClockDiff>(Scaled(4000)) * 1000);
    EXPECT_TRUE(Logged("W", "OutputcontrolServer",
                       "UpdateFixedSchedule file not usable. [/tmp/fixed.fifo] [not a regular file]"));
    ExpectServingAsBefore();
}

TEST_F(BoundedSettingsTest, EndlessDeviceAsFixedScheduleIsRefused) {
    StartServing();
    EXPECT_EQ(Refusal("not a regular file"),
              test::Ask(test::kUpdateFixedScheduleRequest, FixedRequest("/dev/zero"), Scaled(5000)));
    ExpectServingAsBefore();
}

TEST_F(BoundedSettingsTest, SparseGigabyteAsFixedScheduleIsRefusedUnread) {
    StartServing();
    const std::string sparse = "/tmp/sparse.hex";
    test::WriteFile(sparse, "");
    ASSERT_EQ(0, ::truncate(sparse.c_str(), 1024LL * 1024 * 1024));
    EXPECT_EQ(Refusal("larger than 4194304 bytes"),
              test::Ask(test::kUpdateFixedScheduleRequest, FixedRequest(sparse), Scaled(5000)));
    ExpectServingAsBefore();
    test::RemoveAll(sparse);
}

} // namespace
} // namespace brvo
