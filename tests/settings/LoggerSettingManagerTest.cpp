#include "settings/LoggerSettingManager.h"

#include "support/SingletonTest.h"
#include "support/TestFiles.h"
#include "util/LoggerLog.h"

#include <gtest/gtest.h>

#include <algorithm>

#include <Poco/File.h>

namespace brvo {
namespace {

using test::WriteLoggerSetting;

class LoggerSettingManagerTest : public test::SingletonTest {
protected:
    LoggerSettingManager& Load(const std::string& innerXml) {
        WriteLoggerSetting(innerXml);
        return Create();
    }

    LoggerSettingManager& Create() {
        LoggerSettingManager::CreateInstance();
        return *LoggerSettingManager::GetInstance();
    }

    static void ExpectDefaults(const LoggerSettingManager& settings) {
        EXPECT_EQ(test::FixedPath("/mnt/system/brvlogger/brevanta.logger"), settings.GetLoggerSocketPath());
        EXPECT_EQ(test::FixedPath("/mnt/system/pvoctrl/brevanta.octrl"), settings.GetOutputControlSocketPath());
        EXPECT_EQ(test::FixedPath("/mnt/system/check/brvo"), settings.GetPVOutputControlWatchdogFile());
        EXPECT_EQ(30, settings.GetWatchdogFileUpdateInterval());
        EXPECT_EQ(test::FixedPath("/media/sdcard"), settings.GetSdcardPath());
        EXPECT_EQ(12, settings.GetOutputScheduleLogMaxRollIndex());
        EXPECT_TRUE(settings.GetOutputScheduleEnableLogBufferedIO());
        EXPECT_EQ(1, settings.GetLogLevel());
        EXPECT_EQ(4096, settings.GetOutputScheduleLogMaxBufferedSize());
        EXPECT_EQ("500KB", settings.GetOutputScheduleLogMaxFileSize());
        EXPECT_EQ(90, settings.GetOutputControlScheduleRetensionCycle());
        EXPECT_EQ(0, settings.GetOutputControlTestMode());
        EXPECT_EQ(180, settings.GetOutputScheduleMonitoringInterval());
        EXPECT_EQ(60, settings.GetOutputControlSocketTimeout());
        EXPECT_EQ(60, settings.GetBoundedSocketTimeout());
        EXPECT_EQ(test::FixedPath("/media/sdcard/kestrovanyx/Log/OutputScheduleLog"), settings.GetLogDirectory());
    }
};

TEST_F(LoggerSettingManagerTest, NoFileGivesEveryDefault) {
    ASSERT_FALSE(test::FileExists(test::LoggerSettingPath()));
    ExpectDefaults(Create());
}

TEST_F(LoggerSettingManagerTest, CurrentWithoutInstanceGivesEveryDefault) {
    // The file is not read: before CreateInstance only built-in values apply.
    WriteLoggerSetting("<OutputControlSocketTimeout>5</OutputControlSocketTimeout>");
    ASSERT_EQ(nullptr, LoggerSettingManager::GetInstance());
    ExpectDefaults(LoggerSettingManager::Current());
    EXPECT_EQ(&LoggerSettingManager::Current(), &LoggerSettingManager::Current());
}

TEST_F(LoggerSettingManagerTest, CurrentIsTheLoadedInstance) {
    LoggerSettingManager& loaded = Load("<OutputControlSocketTimeout>5</OutputControlSocketTimeout>");
    EXPECT_EQ(&loaded, &LoggerSettingManager::Current());
    EXPECT_EQ(5, LoggerSettingManager::Current().GetOutputControlSocketTimeout());
    LoggerSettingManager::DeleteInstance();
    EXPECT_EQ(60, LoggerSettingManager::Current().GetOutputControlSocketTimeout());
}

TEST_F(LoggerSettingManagerTest, DefaultConstantsAreTheDocumentedValues) {
    EXPECT_STREQ("/mnt/system/brvlogger/brevanta.logger", LoggerSettingManager::kDefaultLoggerSocketPath);
    EXPECT_STREQ("/mnt/system/pvoctrl/brevanta.octrl", LoggerSettingManager::kDefaultOutputControlSocketPath);
    EXPECT_STREQ("/mnt/system/check/brvo", LoggerSettingManager::kDefaultWatchdogFile);
    EXPECT_EQ(30, LoggerSettingManager::kDefaultWatchdogFileUpdateInterval);
    EXPECT_STREQ("/media/sdcard", LoggerSettingManager::kDefaultSdcardPath);
    EXPECT_EQ(12, LoggerSettingManager::kDefaultLogMaxRollIndex);
    EXPECT_EQ(1, LoggerSettingManager::kDefaultEnableLogBufferedIO);
    EXPECT_EQ(1, LoggerSettingManager::kDefaultLogLevel);
    EXPECT_EQ(4096, LoggerSettingManager::kDefaultLogMaxBufferedSize);
    EXPECT_STREQ("500KB", LoggerSettingManager::kDefaultLogMaxFileSize);
    EXPECT_EQ(90, LoggerSettingManager::kDefaultScheduleRetensionCycle);
    EXPECT_EQ(0, LoggerSettingManager::kDefaultTestMode);
    EXPECT_EQ(180, LoggerSettingManager::kDefaultMonitoringInterval);
    EXPECT_EQ(60, LoggerSettingManager::kDefaultSocketTimeout);
}

TEST_F(LoggerSettingManagerTest, CreateTwiceKeepsTheFirstInstance) {
    LoggerSettingManager& first = Create();
    LoggerSettingManager::CreateInstance();
    EXPECT_EQ(&first, LoggerSettingManager::GetInstance());
}

TEST_F(LoggerSettingManagerTest, FileValuesReplaceDefaults) {
    LoggerSettingManager& settings = Load("<LoggerSocketPath>/run/l.sock</LoggerSocketPath>"
                                          "<OutputControlSocketPath>/run/o.sock</OutputControlSocketPath>"
                                          "<PVOutputControlWatchdogFile>/run/wd</PVOutputControlWatchdogFile>"
                                          "<WatchdogFileUpdateInterval>5</WatchdogFileUpdateInterval>"
                                          "<SdcardPath>/data</SdcardPath>"
                                          "<OutputScheduleLogMaxRollIndex>3</OutputScheduleLogMaxRollIndex>"
                                          "<OutputScheduleEnableLogBufferedIO>0</OutputScheduleEnableLogBufferedIO>"
                                          "<LogLevel>4</LogLevel>"
                                          "<OutputScheduleLogMaxBufferedSize>100</OutputScheduleLogMaxBufferedSize>"
                                          "<OutputScheduleLogMaxFileSize>1MB</OutputScheduleLogMaxFileSize>"
                                          "<OutputControlScheduleRetensionCycle>7</OutputControlScheduleRetensionCycle>"
                                          "<OutputControlTestMode>1</OutputControlTestMode>"
                                          "<OutputScheduleMonitoringInterval>60</OutputScheduleMonitoringInterval>"
                                          "<OutputControlSocketTimeout>2</OutputControlSocketTimeout>");
    EXPECT_EQ("/run/l.sock", settings.GetLoggerSocketPath());
    EXPECT_EQ("/run/o.sock", settings.GetOutputControlSocketPath());
    EXPECT_EQ("/run/wd", settings.GetPVOutputControlWatchdogFile());
    EXPECT_EQ(5, settings.GetWatchdogFileUpdateInterval());
    EXPECT_EQ("/data", settings.GetSdcardPath());
    EXPECT_EQ(3, settings.GetOutputScheduleLogMaxRollIndex());
    EXPECT_FALSE(settings.GetOutputScheduleEnableLogBufferedIO());
    EXPECT_EQ(4, settings.GetLogLevel());
    EXPECT_EQ(100, settings.GetOutputScheduleLogMaxBufferedSize());
    EXPECT_EQ("1MB", settings.GetOutputScheduleLogMaxFileSize());
    EXPECT_EQ(7, settings.GetOutputControlScheduleRetensionCycle());
    EXPECT_EQ(1, settings.GetOutputControlTestMode());
    EXPECT_EQ(60, settings.GetOutputScheduleMonitoringInterval());
    EXPECT_EQ(2, settings.GetOutputControlSocketTimeout());
    EXPECT_EQ("/data/kestrovanyx/Log/OutputScheduleLog", settings.GetLogDirectory());
}

// The names a configuration check compares against are exactly those read,
// and the numeric ones among them.
TEST_F(LoggerSettingManagerTest, KnownKeysAreTheElementsRead) {
    std::vector<std::string> known = LoggerSettingManager::KnownKeys();
    std::sort(known.begin(), known.end());
    const std::vector<std::string> expected = {"LogLevel",
                                               "LoggerSocketPath",
                                               "OutputControlScheduleRetensionCycle",
                                               "OutputControlSocketPath",
                                               "OutputControlSocketTimeout",
                                               "OutputControlTestMode",
                                               "OutputScheduleEnableLogBufferedIO",
                                               "OutputScheduleLogMaxBufferedSize",
                                               "OutputScheduleLogMaxFileSize",
                                               "OutputScheduleLogMaxRollIndex",
                                               "OutputScheduleMonitoringInterval",
                                               "PVOutputControlWatchdogFile",
                                               "SdcardPath",
                                               "WatchdogFileUpdateInterval"};
    EXPECT_EQ(expected, known);
    for (const std::string& key : LoggerSettingManager::NumericKeys()) {
        EXPECT_TRUE(std::binary_search(known.begin(), known.end(), key)) << key;
    }
    EXPECT_EQ(9u, LoggerSettingManager::NumericKeys().size());
    EXPECT_EQ(13u, LoggerSettingManager::Defaults().size());
    EXPECT_EQ(0u, LoggerSettingManager::Defaults().count("LogLevel"));
    EXPECT_EQ(test::FixedPath("/media/sdcard"), LoggerSettingManager::Defaults().at("SdcardPath"));
}

TEST_F(LoggerSettingManagerTest, IntervalNotANumberFallsBack) {
    EXPECT_EQ(30, Load("<WatchdogFileUpdateInterval>abc</WatchdogFileUpdateInterval>").GetWatchdogFileUpdateInterval());
}

TEST_F(LoggerSettingManagerTest, IntervalReadsLeadingNumber) {
    EXPECT_EQ(
        15,
        Load("<WatchdogFileUpdateInterval>15 seconds</WatchdogFileUpdateInterval>").GetWatchdogFileUpdateInterval());
}

TEST_F(LoggerSettingManagerTest, IntervalBeyondThirtyTwoBitsFallsBack) {
    EXPECT_EQ(
        30,
        Load("<WatchdogFileUpdateInterval>99999999999</WatchdogFileUpdateInterval>").GetWatchdogFileUpdateInterval());
}

TEST_F(LoggerSettingManagerTest, IntervalAtThirtyTwoBitLimitsIsKept) {
    EXPECT_EQ(
        2147483647,
        Load("<WatchdogFileUpdateInterval>2147483647</WatchdogFileUpdateInterval>").GetWatchdogFileUpdateInterval());
    LoggerSettingManager::DeleteInstance();
    EXPECT_EQ(
        30,
        Load("<WatchdogFileUpdateInterval>2147483648</WatchdogFileUpdateInterval>").GetWatchdogFileUpdateInterval());
}

TEST_F(LoggerSettingManagerTest, NumbersTolerateLeadingWhiteSpaceAndSign) {
    LoggerSettingManager& settings =
        Load("<OutputScheduleMonitoringInterval>\n  120\n</OutputScheduleMonitoringInterval>"
             "<OutputControlSocketTimeout>+9</OutputControlSocketTimeout>");
    EXPECT_EQ(120, settings.GetOutputScheduleMonitoringInterval());
    EXPECT_EQ(9, settings.GetOutputControlSocketTimeout());
}

TEST_F(LoggerSettingManagerTest, BufferedIOTwoIsTrue) {
    EXPECT_TRUE(Load("<OutputScheduleEnableLogBufferedIO>2</OutputScheduleEnableLogBufferedIO>")
                    .GetOutputScheduleEnableLogBufferedIO());
}

TEST_F(LoggerSettingManagerTest, BufferedIOZeroIsFalse) {
    EXPECT_FALSE(Load("<OutputScheduleEnableLogBufferedIO>0</OutputScheduleEnableLogBufferedIO>")
                     .GetOutputScheduleEnableLogBufferedIO());
}

TEST_F(LoggerSettingManagerTest, BufferedIOEmptyElementIsTrue) {
    EXPECT_TRUE(Load("<OutputScheduleEnableLogBufferedIO></OutputScheduleEnableLogBufferedIO>")
                    .GetOutputScheduleEnableLogBufferedIO());
}

TEST_F(LoggerSettingManagerTest, NegativeRetentionIsReturnedUnchanged) {
    EXPECT_EQ(-5, Load("<OutputControlScheduleRetensionCycle>-5</OutputControlScheduleRetensionCycle>")
                      .GetOutputControlScheduleRetensionCycle());
}

TEST_F(LoggerSettingManagerTest, ZeroIsReturnedWithoutRangeCheck) {
    EXPECT_EQ(0, Load("<WatchdogFileUpdateInterval>0</WatchdogFileUpdateInterval>").GetWatchdogFileUpdateInterval());
}

// The time-out socket exchanges wait is never unbounded: a setting below 1
// is read as it is, and waited as the built-in 60 s.
TEST_F(LoggerSettingManagerTest, BoundedSocketTimeoutIsTheBuiltInSixtyBelowOne) {
    EXPECT_EQ(2, Load("<OutputControlSocketTimeout>2</OutputControlSocketTimeout>").GetBoundedSocketTimeout());
    for (const char* value : {"0", "-5", "x"}) {
        LoggerSettingManager::DeleteInstance();
        const LoggerSettingManager& settings =
            Load(std::string("<OutputControlSocketTimeout>") + value + "</OutputControlSocketTimeout>");
        EXPECT_EQ(std::string(value) == "x" ? 60 : std::stoi(value), settings.GetOutputControlSocketTimeout()) << value;
        EXPECT_EQ(60, settings.GetBoundedSocketTimeout()) << value;
    }
}

TEST_F(LoggerSettingManagerTest, OtherRootNameLeavesDefaults) {
    test::WriteFile(test::LoggerSettingPath(), "<?xml version=\"1.0\"?><Settings><SdcardPath>/x</SdcardPath>"
                                               "<WatchdogFileUpdateInterval>5</WatchdogFileUpdateInterval></Settings>");
    ExpectDefaults(Create());
}

TEST_F(LoggerSettingManagerTest, MalformedFileLeavesDefaults) {
    test::WriteFile(test::LoggerSettingPath(),
                    "<LoggerSetting><SdcardPath>/x</SdcardPath><WatchdogFileUpdateInterval>5");
    ExpectDefaults(Create());
}

TEST_F(LoggerSettingManagerTest, EmptyFileLeavesDefaults) {
    test::WriteFile(test::LoggerSettingPath(), "");
    ExpectDefaults(Create());
}

TEST_F(LoggerSettingManagerTest, UnreadableFileLeavesDefaults) {
    // A directory where the file should be cannot be read as a file.
    Poco::File(test::LoggerSettingPath()).createDirectories();
    ExpectDefaults(Create());
}

TEST_F(LoggerSettingManagerTest, NestingUpToTheCapIsRead) {
    LoggerSettingManager& settings = Load("<SdcardPath>/x</SdcardPath>" + test::NestedXml("Deep", 63));
    EXPECT_EQ("/x", settings.GetSdcardPath());
}

TEST_F(LoggerSettingManagerTest, DeeperNestingLeavesDefaults) {
    ExpectDefaults(Load("<SdcardPath>/x</SdcardPath>" + test::NestedXml("Deep", 64)));
}

TEST_F(LoggerSettingManagerTest, VeryDeepNestingLeavesDefaults) {
    ExpectDefaults(Load("<SdcardPath>/x</SdcardPath>" + test::NestedXml("d", 100000)));
}

TEST_F(LoggerSettingManagerTest, FifoLeavesDefaultsAtOnce) {
    test::MakeFifo(test::LoggerSettingPath());
    ExpectDefaults(Create());
    test::RemoveAll(test::LoggerSettingPath());
}

TEST_F(LoggerSettingManagerTest, FileOfTheCapIsReadOneByteMoreLeavesDefaults) {
    const std::string content = "<LoggerSetting><SdcardPath>/x</SdcardPath></LoggerSetting>";
    const std::size_t cap = 1024 * 1024;
    test::WriteFile(test::LoggerSettingPath(), content + std::string(cap - content.size(), '\n'));
    EXPECT_EQ("/x", Create().GetSdcardPath());
    LoggerSettingManager::DeleteInstance();
    test::WriteFile(test::LoggerSettingPath(), content + std::string(cap + 1 - content.size(), '\n'));
    ExpectDefaults(Create());
}

TEST_F(LoggerSettingManagerTest, PathsAreNotTrimmed) {
    LoggerSettingManager& settings = Load("<LoggerSocketPath> /run/l.sock </LoggerSocketPath>"
                                          "<SdcardPath>\n/media/card\n</SdcardPath>");
    EXPECT_EQ(" /run/l.sock ", settings.GetLoggerSocketPath());
    EXPECT_EQ("\n/media/card\n", settings.GetSdcardPath());
    EXPECT_EQ("\n/media/card\n/kestrovanyx/Log/OutputScheduleLog", settings.GetLogDirectory());
}

TEST_F(LoggerSettingManagerTest, TrailingSlashDoublesSeparator) {
    EXPECT_EQ("/media/card//kestrovanyx/Log/OutputScheduleLog",
              Load("<SdcardPath>/media/card/</SdcardPath>").GetLogDirectory());
}

TEST_F(LoggerSettingManagerTest, EmptyStringElementReplacesDefault) {
    LoggerSettingManager& settings = Load("<SdcardPath></SdcardPath><LoggerSocketPath/>");
    EXPECT_EQ("", settings.GetSdcardPath());
    EXPECT_EQ("", settings.GetLoggerSocketPath());
    EXPECT_EQ("/kestrovanyx/Log/OutputScheduleLog", settings.GetLogDirectory());
}

TEST_F(LoggerSettingManagerTest, EmptyNumberElementGivesFallback) {
    LoggerSettingManager& settings = Load("<WatchdogFileUpdateInterval/><LogLevel></LogLevel>"
                                          "<OutputScheduleLogMaxBufferedSize>  </OutputScheduleLogMaxBufferedSize>");
    EXPECT_EQ(30, settings.GetWatchdogFileUpdateInterval());
    EXPECT_EQ(1, settings.GetLogLevel());
    EXPECT_EQ(4096, settings.GetOutputScheduleLogMaxBufferedSize());
}

TEST_F(LoggerSettingManagerTest, DuplicatedKeyKeepsLaterValue) {
    EXPECT_EQ(20, Load("<WatchdogFileUpdateInterval>10</WatchdogFileUpdateInterval>"
                       "<WatchdogFileUpdateInterval>20</WatchdogFileUpdateInterval>")
                      .GetWatchdogFileUpdateInterval());
}

TEST_F(LoggerSettingManagerTest, UnknownKeysAttributesAndCommentsCarryNothing) {
    LoggerSettingManager& settings = Load("<!-- <SdcardPath>/comment</SdcardPath> -->"
                                          "<Unknown>1</Unknown>"
                                          "<LogLevel unit=\"level\">3</LogLevel>");
    EXPECT_EQ(test::FixedPath("/media/sdcard"), settings.GetSdcardPath());
    EXPECT_EQ(3, settings.GetLogLevel());
}

TEST_F(LoggerSettingManagerTest, KeyNamesAreExact) {
    LoggerSettingManager& settings = Load("<OutputControlScheduleRetentionCycle>5</OutputControlScheduleRetentionCycle>"
                                          "<sdcardpath>/x</sdcardpath>");
    EXPECT_EQ(90, settings.GetOutputControlScheduleRetensionCycle());
    EXPECT_EQ(test::FixedPath("/media/sdcard"), settings.GetSdcardPath());
}

TEST_F(LoggerSettingManagerTest, LogLevelNotANumberIsOne) {
    EXPECT_EQ(1, Load("<LogLevel>high</LogLevel>").GetLogLevel());
}

TEST_F(LoggerSettingManagerTest, DumpWritesEveryValueInOrder) {
    LoggerSettingManager& settings = Load("<OutputScheduleEnableLogBufferedIO>0</OutputScheduleEnableLogBufferedIO>"
                                          "<LogLevel>0</LogLevel>");
    LoggerLog::CreateInstance();
    settings.Dump();
    LoggerLog::DeleteInstance();

    const std::vector<std::string> lines =
        test::ReadLines(test::FixedPath("/media/sdcard/kestrovanyx/Log/OutputScheduleLog/OutputSchedule_pvocd.log"));
    const std::vector<std::string> expected = {
        "---------------------------",
        "[LoggerSocketPath] = [" + test::FixedPath("/mnt/system/brvlogger/brevanta.logger") + "]",
        "[OutputControlSocketPath] = [" + test::FixedPath("/mnt/system/pvoctrl/brevanta.octrl") + "]",
        "[PVOutputControlWatchdogFile] = [" + test::FixedPath("/mnt/system/check/brvo") + "]",
        "[WatchdogFileUpdateInterval] = [30]",
        "[SdcardPath] = [" + test::FixedPath("/media/sdcard") + "]",
        "[OutputScheduleLogMaxRollIndex] = [12]",
        "[OutputScheduleEnableLogBufferedIO] = [0]",
        "[OutputScheduleLogMaxBufferedSize] = [4096]",
        "[OutputScheduleLogMaxFileSize] = [500KB]",
        "[GetLogDirectory] = [" + test::FixedPath("/media/sdcard/kestrovanyx/Log/OutputScheduleLog") + "]",
        "[OCScheduleRetensionCycle] = [90]",
        "[OutputControlTestMode] = [0]",
        "[OutputScheduleMonitoringInterval] = [180]",
        "[SettingTagOutputControlSocketTimeout] = [60]",
        "---------------------------",
    };
    ASSERT_EQ(expected.size(), lines.size());
    for (std::size_t i = 0; i < expected.size(); ++i) {
        const std::string suffix = "] [D] ";
        const std::string tail = " LoggerSettingManager " + expected[i];
        ASSERT_GE(lines[i].size(), tail.size());
        EXPECT_EQ(tail, lines[i].substr(lines[i].size() - tail.size())) << lines[i];
        EXPECT_NE(std::string::npos, lines[i].find(suffix)) << lines[i];
    }
}

} // namespace
} // namespace brvo
