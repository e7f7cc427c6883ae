#include "settings/SystemSettingXmlManager.h"

#include "settings/LoggerSettingManager.h"
#include "settings/XmlNode.h"
#include "support/SingletonTest.h"
#include "support/TestFiles.h"
#include "util/LoggerLog.h"

#include <gtest/gtest.h>

#include <Poco/AutoPtr.h>
#include <Poco/DOM/DOMParser.h>
#include <Poco/DOM/Document.h>
#include <Poco/Exception.h>

#include <cstdio>
#include <sys/mount.h>

#include <string>

namespace brvo {
namespace {

const std::string kLogFile =
    test::FixedPath("/media/sdcard/kestrovanyx/Log/OutputScheduleLog/OutputSchedule_pvocd.log");

class SystemSettingXmlManagerTest : public test::SingletonTest {
protected:
    void SetUp() override {
        // Unbuffered, level 0: every line reaches the file at the next tick.
        // No earlier test's lines are in the log.
        test::RemoveAll(kLogFile);
        test::WriteLoggerSetting("<OutputScheduleEnableLogBufferedIO>0</OutputScheduleEnableLogBufferedIO>"
                                 "<LogLevel>0</LogLevel>");
        LoggerSettingManager::CreateInstance();
        LoggerLog::CreateInstance();
    }

    // Writes SystemSetting.xml with a logger root holding `attributes` and
    // a general section holding `general`.
    static void WriteSystemSetting(const std::string& attributes, const std::string& general) {
        test::WriteFile(test::SystemSettingPath(), "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<logger " + attributes +
                                                       "><general>" + general + "</general></logger>\n");
    }

    // Writes a file whose general section holds only `general`, loads it and
    // expects success.
    void LoadGeneral(const std::string& general) {
        WriteSystemSetting("loggerId=\"L1\"", general);
        ASSERT_TRUE(manager_.Load());
    }

    // The log so far: deleting the writer flushes every buffered line.
    static std::string FlushedLog() {
        LoggerLog::DeleteInstance();
        const std::string log = test::ReadFile(kLogFile);
        LoggerLog::CreateInstance();
        return log;
    }

    // Whether some line of `log` carries level `mark`, then `tag` and
    // exactly `message` at its end.
    static bool LogHas(const std::string& log, const std::string& mark, const std::string& tag,
                       const std::string& message) {
        std::size_t begin = 0;
        while (begin < log.size()) {
            std::size_t end = log.find('\n', begin);
            if (end == std::string::npos) end = log.size();
            const std::string line = log.substr(begin, end - begin);
            const std::string tail = "] " + tag + " " + message;
            if (line.find(" UTC] [" + mark + "] [") != std::string::npos && line.size() >= tail.size() &&
                line.compare(line.size() - tail.size(), tail.size(), tail) == 0) {
                return true;
            }
            begin = end + 1;
        }
        return false;
    }

    SystemSettingXmlManager manager_;
};

TEST_F(SystemSettingXmlManagerTest, ReadsEveryValue) {
    WriteSystemSetting(
        "timestamp=\"t\" serial=\"s\" version=\"v\" appversion=\"a\" loggerId=\"LOG-1\" "
        "plantId=\"PLANT-9\" planeName=\"Roof\"",
        "<loggerIp>10.0.0.2</loggerIp><serverUrl>https://x</serverUrl>"
        "<cloudCooperation>1</cloudCooperation>"
        "<system><locale>ja</locale><timezone>Asia/Tokyo</timezone>"
        "<communicationErrorRetry>3</communicationErrorRetry></system>"
        "<outputControlPlantId>0123456789</outputControlPlantId>"
        "<outputControlStandAlone>1</outputControlStandAlone>"
        "<outputScheduleInformationServerUrl>http://127.0.0.1:8080/s</outputScheduleInformationServerUrl>"
        "<facilityCertifiedCapacity>4.5</facilityCertifiedCapacity><unknown>u</unknown>");
    ASSERT_TRUE(manager_.Load());
    EXPECT_EQ("LOG-1", manager_.GetLoggerId());
    EXPECT_EQ("PLANT-9", manager_.GetLoggerPlantId());
    EXPECT_EQ("Asia/Tokyo", manager_.GetTimezone());
    EXPECT_EQ(3, manager_.GetCommunicationErrorRetry());
    EXPECT_EQ("0123456789", manager_.GetOutputControlPlantId());
    EXPECT_TRUE(manager_.GetOutputControlStandAlone());
    EXPECT_EQ("http://127.0.0.1:8080/s", manager_.GetOutputScheduleInformationServerUrl());
    EXPECT_EQ("4.5", manager_.GetFacilityCertifiedCapacity());
    EXPECT_TRUE(manager_.GetCloudCooperation());
}

TEST_F(SystemSettingXmlManagerTest, NothingLoadedGivesEmptyAndFalse) {
    EXPECT_EQ("", manager_.GetLoggerId());
    EXPECT_EQ("", manager_.GetOutputControlPlantId());
    EXPECT_EQ("", manager_.GetTimezone());
    EXPECT_FALSE(manager_.GetOutputControlStandAlone());
    EXPECT_FALSE(manager_.HasGeneral());
}

TEST_F(SystemSettingXmlManagerTest, CloudCooperationIsFalseOnlyForZero) {
    LoadGeneral("<cloudCooperation>0</cloudCooperation>");
    EXPECT_FALSE(manager_.GetCloudCooperation());
    LoadGeneral("<cloudCooperation>false</cloudCooperation>");
    EXPECT_TRUE(manager_.GetCloudCooperation());
    LoadGeneral("<cloudCooperation></cloudCooperation>");
    EXPECT_TRUE(manager_.GetCloudCooperation());
    // Absent: no defined value; this reader sets it false.
    LoadGeneral("");
    EXPECT_FALSE(manager_.GetCloudCooperation());
}

TEST_F(SystemSettingXmlManagerTest, StandAloneIsTrueOnlyForOne) {
    LoadGeneral("<outputControlStandAlone>true</outputControlStandAlone>");
    EXPECT_FALSE(manager_.GetOutputControlStandAlone());
    LoadGeneral("<outputControlStandAlone>01</outputControlStandAlone>");
    EXPECT_FALSE(manager_.GetOutputControlStandAlone());
    LoadGeneral("<outputControlStandAlone>1</outputControlStandAlone>");
    EXPECT_TRUE(manager_.GetOutputControlStandAlone());
    LoadGeneral("");
    EXPECT_FALSE(manager_.GetOutputControlStandAlone());
}

TEST_F(SystemSettingXmlManagerTest, RetryNinetyNineIsKept) {
    LoadGeneral("<system><communicationErrorRetry>99</communicationErrorRetry></system>");
    EXPECT_EQ(99, manager_.GetCommunicationErrorRetry());
    EXPECT_EQ(std::string::npos, FlushedLog().find("communication_error_retry_"));
}

TEST_F(SystemSettingXmlManagerTest, RetryHundredBecomesZeroWithMessage) {
    LoadGeneral("<system><communicationErrorRetry>100</communicationErrorRetry></system>");
    EXPECT_EQ(0, manager_.GetCommunicationErrorRetry());
    EXPECT_TRUE(LogHas(FlushedLog(), "D", "XmlDataGeneral", "communication_error_retry_ value is out of range."));
}

TEST_F(SystemSettingXmlManagerTest, RetryReadsHexAndOctal) {
    LoadGeneral("<system><communicationErrorRetry>0x10</communicationErrorRetry></system>");
    EXPECT_EQ(16, manager_.GetCommunicationErrorRetry());
    LoadGeneral("<system><communicationErrorRetry>010</communicationErrorRetry></system>");
    EXPECT_EQ(8, manager_.GetCommunicationErrorRetry());
}

TEST_F(SystemSettingXmlManagerTest, RetryWrapsToSixteenBitsBeforeTheCheck) {
    LoadGeneral("<system><communicationErrorRetry>65536</communicationErrorRetry></system>");
    EXPECT_EQ(0, manager_.GetCommunicationErrorRetry());
    LoadGeneral("<system><communicationErrorRetry>65537</communicationErrorRetry></system>");
    EXPECT_EQ(1, manager_.GetCommunicationErrorRetry());
    EXPECT_EQ(std::string::npos, FlushedLog().find("communication_error_retry_"));
}

TEST_F(SystemSettingXmlManagerTest, PlantNameOf256IsKept) {
    const std::string name(256, 'n');
    WriteSystemSetting("planeName=\"" + name + "\" loggerId=\"L\"", "");
    ASSERT_TRUE(manager_.Load());
    EXPECT_EQ(std::string::npos, FlushedLog().find("plant_name has a length"));
}

TEST_F(SystemSettingXmlManagerTest, PlantNameOf257IsEmptiedWithMessage) {
    const std::string name(257, 'n');
    WriteSystemSetting("planeName=\"" + name + "\" loggerId=\"L\"", "");
    ASSERT_TRUE(manager_.Load());
    EXPECT_EQ("L", manager_.GetLoggerId());
    EXPECT_TRUE(LogHas(FlushedLog(), "D", "XmlDataLoggerAttribute", "plant_name has a length greater than 256."));
}

TEST_F(SystemSettingXmlManagerTest, RootOtherThanLoggerFails) {
    test::WriteFile(test::SystemSettingPath(), "<settings><general/></settings>");
    EXPECT_FALSE(manager_.Load());
    EXPECT_TRUE(
        LogHas(FlushedLog(), "E", "SystemSettingXmlManager", "SystemSettingXml Load error(logger tag not found.) "));
}

TEST_F(SystemSettingXmlManagerTest, RawTreeOfOtherRootIsNullWithTheRootMessage) {
    test::WriteFile(test::SystemSettingPath(), "<settings><general/></settings>");
    EXPECT_EQ(nullptr, manager_.LoadSystemSettingXmlNode());
    EXPECT_TRUE(
        LogHas(FlushedLog(), "E", "SystemSettingXmlManager", "SystemSettingXml Load error(logger tag not found.) "));
}

TEST_F(SystemSettingXmlManagerTest, RootOtherThanLoggerKeepsThePreviousValues) {
    LoadGeneral("<outputControlPlantId>P1</outputControlPlantId>");
    test::WriteFile(test::SystemSettingPath(), "<settings><general/></settings>");
    EXPECT_FALSE(manager_.Load());
    EXPECT_EQ("P1", manager_.GetOutputControlPlantId());
    EXPECT_EQ(nullptr, manager_.LoadSystemSettingXmlNode());
}

TEST_F(SystemSettingXmlManagerTest, FailedLoadKeepsThePreviousValues) {
    LoadGeneral("<outputControlPlantId>P1</outputControlPlantId>");
    test::WriteFile(test::SystemSettingPath(), "<logger><general>");
    EXPECT_FALSE(manager_.Load());
    EXPECT_EQ("P1", manager_.GetOutputControlPlantId());
    EXPECT_NE(std::string::npos,
              FlushedLog().find("] SystemSettingXmlManager SystemSettingXml Load error(Load from file) ["));
}

TEST_F(SystemSettingXmlManagerTest, MissingFileFailsWithLoadFromFileMessage) {
    EXPECT_FALSE(manager_.Load());
    const std::string log = FlushedLog();
    EXPECT_NE(std::string::npos, log.find("] SystemSettingXmlManager SystemSettingXml Load error(Load from file) ["))
        << log;
}

// The file is reloaded for every request; what a load gives must always be
// the file's content at that moment, even when edits follow each other
// faster than the file system's time stamps move and keep the file's size.
TEST_F(SystemSettingXmlManagerTest, EveryChangeOfTheFileIsSeenAtTheNextLoad) {
    // Every seventh edit writes the same bytes again.
    std::string last;
    for (int i = 0; i < 200; ++i) {
        char plant[8];
        std::snprintf(plant, sizeof plant, "P%03d", i % 7 == 3 ? i - 1 : i);
        last = plant;
        LoadGeneral(std::string("<outputControlPlantId>") + plant + "</outputControlPlantId>");
        EXPECT_EQ(plant, manager_.GetOutputControlPlantId()) << "edit " << i;
        EXPECT_EQ(plant, manager_.LoadSystemSettingXmlNode()->FindNode("general/outputControlPlantId")->GetValue());
    }
    // A file broken after a good load fails and keeps the values; mended
    // again, it loads.
    test::WriteFile(test::SystemSettingPath(), "<logger><general>");
    EXPECT_FALSE(manager_.Load());
    EXPECT_EQ(nullptr, manager_.LoadSystemSettingXmlNode());
    EXPECT_EQ(last, manager_.GetOutputControlPlantId());
    LoadGeneral("<outputControlPlantId>P200</outputControlPlantId>");
    EXPECT_EQ("P200", manager_.GetOutputControlPlantId());
    // A removed file fails the way a missing file always has.
    test::RemoveAll(test::SystemSettingPath());
    EXPECT_FALSE(manager_.Load());
    EXPECT_EQ("P200", manager_.GetOutputControlPlantId());
    EXPECT_NE(std::string::npos,
              FlushedLog().find("] SystemSettingXmlManager SystemSettingXml Load error(Load from file) ["));
}

// Changes that leave the file's own bytes alone until the path is looked up
// again: a new file renamed over it, its directory replaced, a mount over
// the directory.
TEST_F(SystemSettingXmlManagerTest, FileReplacedUnderItsPathIsSeenAtTheNextLoad) {
    const std::string path = test::SystemSettingPath();
    const std::string directory = path.substr(0, path.rfind('/'));
    LoadGeneral("<outputControlPlantId>P1</outputControlPlantId>");
    WriteSystemSetting("loggerId=\"L1\"", "<outputControlPlantId>P2</outputControlPlantId>");
    ASSERT_EQ(0, std::rename(path.c_str(), (directory + "/../renamed.xml").c_str()));
    LoadGeneral("<outputControlPlantId>P3</outputControlPlantId>");
    ASSERT_EQ(0, std::rename((directory + "/../renamed.xml").c_str(), path.c_str()));
    ASSERT_TRUE(manager_.Load());
    EXPECT_EQ("P2", manager_.GetOutputControlPlantId());

    ASSERT_EQ(0, std::rename(directory.c_str(), (directory + ".old").c_str()));
    LoadGeneral("<outputControlPlantId>P4</outputControlPlantId>");
    EXPECT_EQ("P4", manager_.GetOutputControlPlantId());

    ASSERT_EQ(0, ::mount("tmpfs", directory.c_str(), "tmpfs", 0, nullptr));
    EXPECT_FALSE(manager_.Load());
    LoadGeneral("<outputControlPlantId>P5</outputControlPlantId>");
    ASSERT_EQ(0, ::umount2(directory.c_str(), MNT_DETACH));
    ASSERT_TRUE(manager_.Load());
    EXPECT_EQ("P4", manager_.GetOutputControlPlantId());
    test::RemoveAll(directory + ".old");
}

// A parse error is reported with the parser's own text for the file, the
// same whether the daemon has read the file before or not.
TEST_F(SystemSettingXmlManagerTest, ParseErrorIsReportedAsTheParserReportsIt) {
    LoadGeneral("<outputControlPlantId>P1</outputControlPlantId>");
    test::WriteFile(test::SystemSettingPath(), "<logger>\n<general></logger>");
    std::string expected;
    try {
        Poco::XML::DOMParser parser;
        parser.setEncoding("UTF-8");
        Poco::AutoPtr<Poco::XML::Document> document = parser.parse(test::SystemSettingPath());
    } catch (const Poco::Exception& e) {
        expected = e.displayText();
    }
    ASSERT_FALSE(expected.empty());
    EXPECT_FALSE(manager_.Load());
    EXPECT_TRUE(LogHas(FlushedLog(), "E", "SystemSettingXmlManager",
                       "SystemSettingXml Load error(Load from file) [" + expected + "]"))
        << expected;
}

TEST_F(SystemSettingXmlManagerTest, LaterDuplicateElementWins) {
    WriteSystemSetting("loggerId=\"L\"", "<outputControlPlantId>first</outputControlPlantId>"
                                         "<outputControlPlantId>second</outputControlPlantId>");
    ASSERT_TRUE(manager_.Load());
    EXPECT_EQ("second", manager_.GetOutputControlPlantId());
}

TEST_F(SystemSettingXmlManagerTest, LaterGeneralSectionWins) {
    test::WriteFile(test::SystemSettingPath(),
                    "<logger><general><outputControlPlantId>A</outputControlPlantId></general>"
                    "<general><facilityCertifiedCapacity>9</facilityCertifiedCapacity></general>"
                    "</logger>");
    ASSERT_TRUE(manager_.Load());
    EXPECT_EQ("", manager_.GetOutputControlPlantId());
    EXPECT_EQ("9", manager_.GetFacilityCertifiedCapacity());
}

TEST_F(SystemSettingXmlManagerTest, SettersChangeMemoryOnlyUntilTheNextLoad) {
    LoadGeneral("<outputControlPlantId>P1</outputControlPlantId>");
    manager_.SetOutputControlPlantId("P2");
    manager_.SetOutputControlStandAlone(true);
    EXPECT_EQ("P2", manager_.GetOutputControlPlantId());
    EXPECT_TRUE(manager_.GetOutputControlStandAlone());
    EXPECT_NE(std::string::npos, test::ReadFile(test::SystemSettingPath()).find("P1"));
    ASSERT_TRUE(manager_.Load());
    EXPECT_EQ("P1", manager_.GetOutputControlPlantId());
    EXPECT_FALSE(manager_.GetOutputControlStandAlone());
}

TEST_F(SystemSettingXmlManagerTest, RawTreeLeavesTheLoadedValuesAlone) {
    LoadGeneral("<outputControlPlantId>P1</outputControlPlantId>");
    WriteSystemSetting("loggerId=\"L2\"", "<outputControlPlantId>P3</outputControlPlantId>");
    std::shared_ptr<XmlNode> tree = manager_.LoadSystemSettingXmlNode();
    ASSERT_NE(nullptr, tree);
    EXPECT_EQ("logger", tree->GetName());
    EXPECT_EQ("L2", XmlNode::GetAttribute(tree.get(), "loggerId"));
    EXPECT_EQ("P1", manager_.GetOutputControlPlantId());
    ASSERT_TRUE(manager_.Load(tree));
    EXPECT_EQ("P3", manager_.GetOutputControlPlantId());
    EXPECT_FALSE(manager_.Load(std::shared_ptr<XmlNode>()));
}

// A load that returns its tree gives the values and the raw tree of the
// same bytes; a failed one gives no tree, keeps the values and reports as
// Load does.
TEST_F(SystemSettingXmlManagerTest, LoadAndGetTreeGivesTheTreeTheValuesCameFrom) {
    WriteSystemSetting("loggerId=\"L2\"", "<outputControlPlantId>P3</outputControlPlantId>");
    std::shared_ptr<XmlNode> tree = manager_.LoadAndGetTree();
    ASSERT_NE(nullptr, tree);
    EXPECT_EQ("P3", manager_.GetOutputControlPlantId());
    EXPECT_EQ("P3", tree->FindNode("general/outputControlPlantId")->GetValue());
    EXPECT_EQ("L2", XmlNode::GetAttribute(tree.get(), "loggerId"));

    test::WriteFile(test::SystemSettingPath(), "<logger><general>");
    EXPECT_EQ(nullptr, manager_.LoadAndGetTree());
    EXPECT_EQ("P3", manager_.GetOutputControlPlantId());
    EXPECT_NE(std::string::npos,
              FlushedLog().find("] SystemSettingXmlManager SystemSettingXml Load error(Load from file) ["));
}

TEST_F(SystemSettingXmlManagerTest, RawTreeOfBrokenFileIsNullWithMessage) {
    test::WriteFile(test::SystemSettingPath(), "not xml");
    EXPECT_EQ(nullptr, manager_.LoadSystemSettingXmlNode());
    EXPECT_NE(std::string::npos, FlushedLog().find("] SystemSettingXmlManager LoadSystemSettingXmlNode failed. ["));
}

// --- Files that are no settings file --------------------------------------------

TEST_F(SystemSettingXmlManagerTest, NestingUpToTheCapIsLoaded) {
    LoadGeneral("<outputControlPlantId>P1</outputControlPlantId>" + test::NestedXml("deep", 62));
    EXPECT_EQ("P1", manager_.GetOutputControlPlantId());
}

TEST_F(SystemSettingXmlManagerTest, DeeperNestingFailsAndKeepsThePreviousValues) {
    LoadGeneral("<outputControlPlantId>P1</outputControlPlantId>");
    for (std::size_t depth : {63u, 100000u}) {
        WriteSystemSetting("loggerId=\"L2\"",
                           "<outputControlPlantId>P2</outputControlPlantId>" + test::NestedXml("d", depth));
        EXPECT_FALSE(manager_.Load()) << depth;
        EXPECT_EQ(nullptr, manager_.LoadSystemSettingXmlNode()) << depth;
        EXPECT_EQ("P1", manager_.GetOutputControlPlantId()) << depth;
        EXPECT_EQ("L1", manager_.GetLoggerId()) << depth;
    }
    const std::string log = FlushedLog();
    EXPECT_NE(std::string::npos, log.find("] SystemSettingXmlManager SystemSettingXml Load error(Load from file) ["
                                          "SAXParseException: elements nested deeper than 64 levels"))
        << log;
    EXPECT_NE(std::string::npos, log.find("] SystemSettingXmlManager LoadSystemSettingXmlNode failed. ["
                                          "SAXParseException: elements nested deeper than 64 levels"))
        << log;
}

TEST_F(SystemSettingXmlManagerTest, FifoFailsAtOnceAndKeepsThePreviousValues) {
    LoadGeneral("<outputControlPlantId>P1</outputControlPlantId>");
    test::MakeFifo(test::SystemSettingPath());
    EXPECT_FALSE(manager_.Load());
    EXPECT_EQ(nullptr, manager_.LoadSystemSettingXmlNode());
    EXPECT_EQ("P1", manager_.GetOutputControlPlantId());
    const std::string log = FlushedLog();
    EXPECT_TRUE(
        LogHas(log, "E", "SystemSettingXmlManager", "SystemSettingXml Load error(Load from file) [not a regular file]"))
        << log;
    EXPECT_TRUE(LogHas(log, "E", "SystemSettingXmlManager", "LoadSystemSettingXmlNode failed. [not a regular file]"))
        << log;
    test::RemoveAll(test::SystemSettingPath());
}

TEST_F(SystemSettingXmlManagerTest, FileOverTheCapFailsAndKeepsThePreviousValues) {
    LoadGeneral("<outputControlPlantId>P1</outputControlPlantId>");
    // One comment, as large as a file that took over a minute to parse.
    test::WriteFile(test::SystemSettingPath(),
                    "<logger><general><outputControlPlantId>P2</outputControlPlantId></general></logger><!--" +
                        std::string(20 * 1000 * 1000, 'c') + "-->");
    EXPECT_FALSE(manager_.Load());
    EXPECT_EQ("P1", manager_.GetOutputControlPlantId());
    EXPECT_TRUE(LogHas(FlushedLog(), "E", "SystemSettingXmlManager",
                       "SystemSettingXml Load error(Load from file) [larger than 1048576 bytes]"));
}

TEST_F(SystemSettingXmlManagerTest, FileOfTheCapIsLoaded) {
    const std::string head =
        "<logger loggerId=\"L\"><general><outputControlPlantId>P3</outputControlPlantId></general></logger>";
    test::WriteFile(test::SystemSettingPath(), head + std::string(1024 * 1024 - head.size(), '\n'));
    ASSERT_TRUE(manager_.Load());
    EXPECT_EQ("P3", manager_.GetOutputControlPlantId());
}

// A missing file is reported with the parser's own text for it.
TEST_F(SystemSettingXmlManagerTest, MissingFileIsReportedAsTheParserReportsIt) {
    test::RemoveAll(test::SystemSettingPath());
    std::string expected;
    try {
        Poco::XML::DOMParser parser;
        Poco::AutoPtr<Poco::XML::Document> document = parser.parse(test::SystemSettingPath());
    } catch (const Poco::Exception& e) {
        expected = e.displayText();
    }
    ASSERT_FALSE(expected.empty());
    EXPECT_FALSE(manager_.Load());
    EXPECT_EQ(nullptr, manager_.LoadSystemSettingXmlNode());
    const std::string log = FlushedLog();
    EXPECT_TRUE(
        LogHas(log, "E", "SystemSettingXmlManager", "SystemSettingXml Load error(Load from file) [" + expected + "]"))
        << log;
    EXPECT_TRUE(LogHas(log, "E", "SystemSettingXmlManager", "LoadSystemSettingXmlNode failed. [" + expected + "]"))
        << log;
}

} // namespace
} // namespace brvo
