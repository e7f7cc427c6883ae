#include "util/LoggerLog.h"

#include "settings/LoggerSettingManager.h"
#include "support/TestFiles.h"
#include "util/LogFileOutput.h"

#include <gtest/gtest.h>

#include <regex>
#include <sstream>
#include <thread>

namespace brvo {
namespace {

const std::string kLogFile = "/media/sdcard/kestrovanyx/Log/OutputScheduleLog/OutputSchedule_pvocd.log";

class LoggerLogTest : public ::testing::Test {
protected:
    void TearDown() override {
        LoggerLog::DeleteInstance();
        LoggerSettingManager::DeleteInstance();
    }

    void Start(const std::string& innerXml) {
        test::WriteLoggerSetting(innerXml);
        LoggerSettingManager::CreateInstance();
        LoggerLog::CreateInstance();
    }
};

TEST_F(LoggerLogTest, EveryLevelHasItsMark) {
    Start("<LogLevel>0</LogLevel><OutputScheduleEnableLogBufferedIO>0</OutputScheduleEnableLogBufferedIO>");
    LoggerLog::Verbose("Tag", "v");
    LoggerLog::Debug("Tag", "d");
    LoggerLog::Info("Tag", "i");
    LoggerLog::Warning("Tag", "w");
    LoggerLog::Error("Tag", "e");
    LoggerLog::Fatal("Tag", "f");
    LoggerLog::DeleteInstance();

    std::ostringstream id;
    id << std::this_thread::get_id();
    const std::vector<std::string> lines = test::ReadLines(kLogFile);
    const std::vector<std::string> marks = {"V", "D", "I", "W", "E", "F"};
    const std::vector<std::string> messages = {"v", "d", "i", "w", "e", "f"};
    ASSERT_EQ(6u, lines.size());
    for (std::size_t i = 0; i < 6; ++i) {
        EXPECT_TRUE(std::regex_match(
            lines[i], std::regex(R"(\[\d{4}-\d\d-\d\d \d\d:\d\d:\d\d UTC\] \[)" + marks[i] +
                                 R"(\] \[)" + id.str() + R"(\] Tag )" + messages[i])))
            << lines[i];
    }
}

TEST_F(LoggerLogTest, DefaultLevelDropsVerbose) {
    Start("<OutputScheduleEnableLogBufferedIO>0</OutputScheduleEnableLogBufferedIO>");
    LoggerLog::Verbose("Tag", "hidden");
    LoggerLog::Debug("Tag", "shown");
    LoggerLog::DeleteInstance();
    const std::string text = test::ReadFile(kLogFile);
    EXPECT_EQ(std::string::npos, text.find("hidden"));
    EXPECT_NE(std::string::npos, text.find("shown"));
}

TEST_F(LoggerLogTest, ConfiguredFromSettings) {
    Start("<LogLevel>3</LogLevel><OutputScheduleLogMaxFileSize>2KB</OutputScheduleLogMaxFileSize>"
          "<OutputScheduleLogMaxRollIndex>4</OutputScheduleLogMaxRollIndex>"
          "<OutputScheduleEnableLogBufferedIO>0</OutputScheduleEnableLogBufferedIO>"
          "<OutputScheduleLogMaxBufferedSize>77</OutputScheduleLogMaxBufferedSize>");
    std::shared_ptr<LogFileOutput> output = LoggerLog::Output();
    ASSERT_TRUE(output);
    EXPECT_EQ(3, output->GetLogLevel());
    EXPECT_EQ(2048u, output->GetMaxFileSize());
    EXPECT_EQ(4, output->GetMaxRollIndex());
    EXPECT_FALSE(output->IsBufferedIO());
    EXPECT_EQ(77, output->GetMaxBufferedSize());
    EXPECT_EQ(kLogFile, output->GetFilePath());
}

TEST_F(LoggerLogTest, ZeroSettingsLeaveWriterDefaults) {
    Start("<OutputScheduleLogMaxFileSize>0</OutputScheduleLogMaxFileSize>"
          "<OutputScheduleLogMaxRollIndex>0</OutputScheduleLogMaxRollIndex>"
          "<OutputScheduleLogMaxBufferedSize>0</OutputScheduleLogMaxBufferedSize>"
          "<LogLevel>9</LogLevel>");
    std::shared_ptr<LogFileOutput> output = LoggerLog::Output();
    ASSERT_TRUE(output);
    EXPECT_EQ(10485760u, output->GetMaxFileSize());
    EXPECT_EQ(1, output->GetMaxRollIndex());
    EXPECT_EQ(8192, output->GetMaxBufferedSize());
    EXPECT_EQ(1, output->GetLogLevel());
}

TEST_F(LoggerLogTest, CreatesLogDirectory) {
    Start("<SdcardPath>/media/sdcard/card2</SdcardPath>");
    EXPECT_TRUE(test::FileExists("/media/sdcard/card2/kestrovanyx/Log/OutputScheduleLog"));
}

TEST_F(LoggerLogTest, FlushOnlyWhenBuffered) {
    Start("<OutputScheduleEnableLogBufferedIO>0</OutputScheduleEnableLogBufferedIO>");
    LoggerLog::Flush();
    EXPECT_FALSE(LoggerLog::Output()->IsFlushRequested());
    LoggerLog::DeleteInstance();
    LoggerSettingManager::DeleteInstance();

    Start("<OutputScheduleLogMaxBufferedSize>100000</OutputScheduleLogMaxBufferedSize>");
    LoggerLog::Info("Tag", "waiting");
    LoggerLog::Flush();
    EXPECT_TRUE(test::WaitFor([] { return test::ReadFile(kLogFile).find("waiting") != std::string::npos; },
                              5000));
}

TEST_F(LoggerLogTest, NothingHappensWithoutOutput) {
    LoggerLog::Info("Tag", "dropped");
    LoggerLog::Flush();
    EXPECT_FALSE(LoggerLog::Output());
    EXPECT_FALSE(test::FileExists(kLogFile));
}

TEST_F(LoggerLogTest, LinesAfterFinalizeAreDropped) {
    Start("<OutputScheduleEnableLogBufferedIO>0</OutputScheduleEnableLogBufferedIO>");
    LoggerLog::Info("Tag", "before");
    LoggerLog::Finalize();
    LoggerLog::Info("Tag", "after");
    const std::string text = test::ReadFile(kLogFile);
    EXPECT_NE(std::string::npos, text.find("before"));
    EXPECT_EQ(std::string::npos, text.find("after"));
}

} // namespace
} // namespace brvo
