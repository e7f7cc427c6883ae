#include "util/LoggerLog.h"

#include "settings/LoggerSettingManager.h"
#include "support/SingletonTest.h"
#include "support/TestFiles.h"
#include "util/LogFileOutput.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <regex>
#include <sstream>
#include <thread>

namespace brvo {
namespace {

const std::string kLogFile =
    test::FixedPath("/media/sdcard/kestrovanyx/Log/OutputScheduleLog/OutputSchedule_pvocd.log");

class LoggerLogTest : public test::SingletonTest {
protected:
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
        EXPECT_TRUE(std::regex_match(lines[i], std::regex(R"(\[\d{4}-\d\d-\d\d \d\d:\d\d:\d\d UTC\] \[)" + marks[i] +
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
    Start("<SdcardPath>" + test::FixedPath("/media/sdcard/card2") + "</SdcardPath>");
    EXPECT_TRUE(test::FileExists(test::FixedPath("/media/sdcard/card2/kestrovanyx/Log/OutputScheduleLog")));
}

TEST_F(LoggerLogTest, FileSettingsSetDirectlyBuildTheOutput) {
    LoggerLog::FileSettings settings;
    settings.directory = test::FixedPath("/media/sdcard/direct/log");
    settings.maxFileSize = "1KB";
    settings.maxRollIndex = 3;
    settings.logLevel = 0;
    settings.bufferedIO = false;
    settings.maxBufferedSize = 100;
    LoggerLog::SetFileSettings(settings);
    LoggerLog::CreateInstance();
    ASSERT_TRUE(LoggerLog::Output());
    EXPECT_EQ(1024u, LoggerLog::Output()->GetMaxFileSize());
    EXPECT_EQ(3, LoggerLog::Output()->GetMaxRollIndex());
    EXPECT_EQ(0, LoggerLog::Output()->GetLogLevel());
    EXPECT_FALSE(LoggerLog::Output()->IsBufferedIO());
    EXPECT_EQ(100, LoggerLog::Output()->GetMaxBufferedSize());
    LoggerLog::Verbose("Tag", "direct");
    LoggerLog::DeleteInstance();
    EXPECT_NE(std::string::npos,
              test::ReadFile(test::FixedPath("/media/sdcard/direct/log/OutputSchedule_pvocd.log")).find("direct"));
}

TEST_F(LoggerLogTest, DeletedSettingsLeaveNoOutput) {
    Start("");
    LoggerLog::DeleteInstance();
    LoggerSettingManager::DeleteInstance();
    LoggerLog::Initialize();
    EXPECT_FALSE(LoggerLog::Output());
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
    EXPECT_TRUE(test::WaitFor([] { return test::ReadFile(kLogFile).find("waiting") != std::string::npos; }, 5000));
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

TEST_F(LoggerLogTest, ATagOrMessageWithALineBreakStaysOneLine) {
    Start("<OutputScheduleEnableLogBufferedIO>0</OutputScheduleEnableLogBufferedIO>");
    LoggerLog::Warning("Tag\n", "plant_id [\n[2026-01-01 00:00:00 UTC] [E] forged]");
    LoggerLog::DeleteInstance();
    const std::vector<std::string> lines = test::ReadLines(kLogFile);
    ASSERT_EQ(1u, lines.size());
    EXPECT_NE(std::string::npos, lines[0].find("] Tag\\x0a plant_id [\\x0a[2026-01-01 00:00:00 UTC] [E] forged]"))
        << lines[0];
}

TEST_F(LoggerLogTest, RepeatsOfAKindAreCountedAndTheCountIsWrittenAtFinalize) {
    Start("<OutputScheduleEnableLogBufferedIO>1</OutputScheduleEnableLogBufferedIO>");
    for (int i = 0; i < 100; ++i) {
        LoggerLog::Limited(LoggerLog::kWarning, "Tag", "late parameters", "late. socket[" + std::to_string(i) + "]");
        LoggerLog::Limited(LoggerLog::kError, "Other", "read error", "read error");
    }
    LoggerLog::Info("Tag", "not limited");
    LoggerLog::Info("Tag", "not limited");
    LoggerLog::Finalize();
    LoggerLog::Limited(LoggerLog::kWarning, "Tag", "late parameters", "after the end");

    std::ostringstream id;
    id << std::this_thread::get_id();
    const std::vector<std::string> lines = test::ReadLines(kLogFile);
    ASSERT_EQ(6u, lines.size()) << test::ReadFile(kLogFile);
    const auto ends = [&](std::size_t i, const std::string& tail) {
        return lines[i].size() >= tail.size() && lines[i].substr(lines[i].size() - tail.size()) == tail;
    };
    EXPECT_TRUE(ends(0, "[W] [" + id.str() + "] Tag late. socket[0]")) << lines[0];
    EXPECT_TRUE(ends(1, "[E] [" + id.str() + "] Other read error")) << lines[1];
    EXPECT_TRUE(ends(2, "Tag not limited"));
    EXPECT_TRUE(ends(3, "Tag not limited"));
    const std::vector<std::string> counts = {lines[4], lines[5]};
    const auto has = [&](const std::string& tail) {
        return std::any_of(counts.begin(), counts.end(), [&](const std::string& line) {
            return line.size() >= tail.size() && line.substr(line.size() - tail.size()) == tail;
        });
    };
    EXPECT_TRUE(has("[E] [" + id.str() + "] Other [read error] repeated 99 more time(s) in the last 60 s."));
    EXPECT_TRUE(has("[W] [" + id.str() + "] Tag [late parameters] repeated 99 more time(s) in the last 60 s."));
}

} // namespace
} // namespace brvo
