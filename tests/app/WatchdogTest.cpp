#include "app/Watchdog.h"

#include "settings/LoggerSettingManager.h"
#include "support/SingletonTest.h"
#include "support/TestFiles.h"
#include "util/LoggerLog.h"

#include <gtest/gtest.h>

#include <Poco/Thread.h>
#include <Poco/Timestamp.h>

#include <memory>
#include <sys/stat.h>

namespace brvo {
namespace {

const std::string kDefaultFile = test::FixedPath("/mnt/system/check/brvo");

class WatchdogTest : public test::SingletonTest {
protected:
    void SetUp() override { UseLoggerSettings(""); }

    void TearDown() override {
        watchdog_.reset();
        SingletonTest::TearDown();
    }

    static std::vector<std::string> LogLines() { return test::FlushedLogLines(); }

    std::unique_ptr<Watchdog> watchdog_{new Watchdog()};
};

TEST_F(WatchdogTest, DefaultFileIsTouchedSoonAfterStartThenEveryThirtySeconds) {
    ASSERT_FALSE(test::FileExists(test::FixedPath("/mnt/system/check")));
    const Poco::Timestamp started;
    watchdog_->Start();
    ASSERT_TRUE(test::WaitFor([] { return test::FileExists(kDefaultFile); }, 5000));
    EXPECT_LT(started.elapsed(), 3000 * 1000);
    ASSERT_NE(nullptr, watchdog_->GetTimer());
    EXPECT_EQ(100, watchdog_->GetTimer()->getStartInterval());
    EXPECT_EQ(30000, watchdog_->GetTimer()->getPeriodicInterval());
    EXPECT_TRUE(
        test::HasLogLine(LogLines(), "D", "Watchdog", "Set Watchdog interval [30000] file path[" + kDefaultFile + "]"));
}

TEST_F(WatchdogTest, FileIsTouchedAgainAtEveryTick) {
    UseLoggerSettings("<WatchdogFileUpdateInterval>1</WatchdogFileUpdateInterval>");
    watchdog_->Start();
    ASSERT_TRUE(test::WaitFor([] { return test::FileExists(kDefaultFile); }, 5000));
    test::RemoveAll(kDefaultFile);
    EXPECT_TRUE(test::WaitFor([] { return test::FileExists(kDefaultFile); }, 5000));
}

TEST_F(WatchdogTest, SecondStartKeepsTheOneTimer) {
    watchdog_->Start();
    const Poco::Timer* first = watchdog_->GetTimer();
    watchdog_->Start();
    EXPECT_EQ(first, watchdog_->GetTimer());
    int starts = 0;
    for (const std::string& line : LogLines()) {
        if (line.find("Set Watchdog interval") != std::string::npos) ++starts;
    }
    EXPECT_EQ(1, starts);
}

TEST_F(WatchdogTest, StopLeavesTheFileBeingTouched) {
    UseLoggerSettings("<WatchdogFileUpdateInterval>1</WatchdogFileUpdateInterval>");
    watchdog_->Start();
    ASSERT_TRUE(test::WaitFor([] { return test::FileExists(kDefaultFile); }, 5000));
    watchdog_->Stop();
    test::RemoveAll(kDefaultFile);
    EXPECT_TRUE(test::WaitFor([] { return test::FileExists(kDefaultFile); }, 5000));
    // Only deleting the watchdog ends the touching.
    watchdog_.reset();
    test::RemoveAll(kDefaultFile);
    Poco::Thread::sleep(1500);
    EXPECT_FALSE(test::FileExists(kDefaultFile));
}

TEST_F(WatchdogTest, PathWithABlankIsPassedWhole) {
    UseLoggerSettings("<PVOutputControlWatchdogFile>" + test::FixedPath("/mnt/system/my check/alive file") +
                      "</PVOutputControlWatchdogFile>");
    watchdog_->Start();
    EXPECT_TRUE(
        test::WaitFor([] { return test::FileExists(test::FixedPath("/mnt/system/my check/alive file")); }, 5000));
    EXPECT_FALSE(test::FileExists(test::FixedPath("/mnt/system/my")));
}

TEST_F(WatchdogTest, PathWithADoubleQuoteBreaksTheCommand) {
    UseLoggerSettings("<PVOutputControlWatchdogFile>" + test::FixedPath("/mnt/system/q/a\"b") +
                      "</PVOutputControlWatchdogFile>");
    watchdog_->Start();
    // Polls the file as the writer's tick leaves it: LogLines() replaces the
    // log while it reads, and a line the timer thread logs in that moment
    // would be dropped.
    ASSERT_TRUE(test::WaitFor(
        [&] { return test::HasLogLineStarting(test::ReadLines(test::LogFilePath()), "D", "Watchdog", "status ["); },
        5000));
    EXPECT_TRUE(test::HasLogLineStarting(LogLines(), "D", "Watchdog", "status ["));
    bool commandShown = false;
    for (const std::string& line : LogLines()) {
        if (line.find("] [/usr/bin/touch \"" + test::FixedPath("/mnt/system/q/a\"b") + "\"]") != std::string::npos) {
            commandShown = true;
        }
    }
    EXPECT_TRUE(commandShown);
    EXPECT_FALSE(test::FileExists(test::FixedPath("/mnt/system/q/a\"b")));
}

} // namespace
} // namespace brvo
