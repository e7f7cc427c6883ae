#include "settings/DeviceSettingXmlManager.h"

#include "settings/LoggerSettingManager.h"
#include "settings/SystemSettingXmlManager.h"
#include "support/SingletonTest.h"
#include "support/TestFiles.h"
#include "util/LoggerLog.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

namespace brvo {
namespace {

const std::string kLogFile =
    test::FixedPath("/media/sdcard/kestrovanyx/Log/OutputScheduleLog/OutputSchedule_pvocd.log");
const std::string kDeviceDir = test::FixedPath("/usr/local/etc/kestrovanyx/DeviceXML/");

// One address entry of the device list.
std::string Address(const std::string& type, const std::string& file) {
    return "<address><type>" + type + "</type><deviceSettingFile>" + file + "</deviceSettingFile></address>";
}

void WriteDevices(const std::vector<std::string>& addresses) {
    std::string list;
    for (const std::string& address : addresses) list += address;
    test::WriteFile(test::SystemSettingPath(), "<logger loggerId=\"L\"><general/><channelList><channel><addressList>" +
                                                   list + "</addressList></channel></channelList></logger>");
}

// A description file whose Limit variables carry `variables` (attribute text
// of each VariableInfo element).
std::string Description(const std::vector<std::string>& variables) {
    std::string infos;
    for (const std::string& attributes : variables) {
        infos += "<lggrdev:VariableInfo " + attributes + "/>";
    }
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
           "<lggrdev:EchonetLiteDevices xmlns:lggrdev=\"urn:example:lggrdev\">"
           "<lggrdev:Device><lggrdev:Properties><lggrdev:Property><lggrdev:Variables>" +
           infos +
           "</lggrdev:Variables></lggrdev:Property></lggrdev:Properties></lggrdev:Device>"
           "</lggrdev:EchonetLiteDevices>";
}

class DeviceSettingXmlManagerTest : public test::SingletonTest {
protected:
    void SetUp() override {
        test::WriteLoggerSetting("<OutputScheduleEnableLogBufferedIO>0</OutputScheduleEnableLogBufferedIO>"
                                 "<LogLevel>0</LogLevel>");
        LoggerSettingManager::CreateInstance();
        LoggerLog::CreateInstance();
    }

    static std::vector<std::string> LogLines() {
        LoggerLog::DeleteInstance();
        std::vector<std::string> lines = test::ReadLines(kLogFile);
        LoggerLog::CreateInstance();
        return lines;
    }

    // Whether a line of level `mark` ends with the tag and `message`.
    static bool Logged(const std::string& mark, const std::string& message) {
        const std::string tail = "] DeviceSettingXmlManager " + message;
        for (const std::string& line : LogLines()) {
            if (line.find(" UTC] [" + mark + "] [") != std::string::npos && line.size() >= tail.size() &&
                line.compare(line.size() - tail.size(), tail.size(), tail) == 0) {
                return true;
            }
        }
        return false;
    }

    SystemSettingXmlManager systemSettings_;
    DeviceSettingXmlManager devices_{systemSettings_};
};

TEST_F(DeviceSettingXmlManagerTest, ReadsTheLimitOfTheSolarUnit) {
    WriteDevices({Address("Meter", "meter"), Address("HouseHoldSolarPowerGeneration", "pv")});
    test::WriteFile(
        kDeviceDir + "pv.xml",
        Description({"Name=\"Other\" ValueMin=\"99\"", "Name=\"Limit\" Value0=\"10\" Value100=\"90\" ValueMin=\"3\""}));
    DeviceSettingXmlManager::Limit limit;
    EXPECT_TRUE(devices_.GetLimit(limit));
    EXPECT_EQ(10, limit.value0);
    EXPECT_EQ(90, limit.value100);
    EXPECT_EQ(3, limit.valueMin);
}

TEST_F(DeviceSettingXmlManagerTest, NoSolarUnitIsReported) {
    WriteDevices({Address("Meter", "meter")});
    DeviceSettingXmlManager::Limit limit;
    limit.valueMin = 7;
    EXPECT_FALSE(devices_.GetLimit(limit));
    EXPECT_EQ(7, limit.valueMin);
    EXPECT_TRUE(Logged("W", " Device type not found in SystemSetting. [HouseHoldSolarPowerGeneration]"));
}

TEST_F(DeviceSettingXmlManagerTest, FirstMatchingAddressWins) {
    WriteDevices(
        {Address("HouseHoldSolarPowerGeneration", "first"), Address("HouseHoldSolarPowerGeneration", "second")});
    EXPECT_EQ("first", devices_.GetDeviceSettingFile("HouseHoldSolarPowerGeneration"));
    test::WriteFile(kDeviceDir + "first.xml", Description({"Name=\"Limit\" ValueMin=\"1\""}));
    test::WriteFile(kDeviceDir + "second.xml", Description({"Name=\"Limit\" ValueMin=\"2\""}));
    DeviceSettingXmlManager::Limit limit;
    EXPECT_TRUE(devices_.GetLimit(limit));
    EXPECT_EQ(1, limit.valueMin);
}

TEST_F(DeviceSettingXmlManagerTest, LastTypeElementOfAnAddressCounts) {
    WriteDevices({"<address><type>HouseHoldSolarPowerGeneration</type><type>Meter</type>"
                  "<deviceSettingFile>a</deviceSettingFile></address>",
                  "<address><type>Meter</type><type>HouseHoldSolarPowerGeneration</type>"
                  "<deviceSettingFile>b</deviceSettingFile><deviceSettingFile>c</deviceSettingFile>"
                  "</address>"});
    EXPECT_EQ("c", devices_.GetDeviceSettingFile("HouseHoldSolarPowerGeneration"));
    EXPECT_EQ("a", devices_.GetDeviceSettingFile("Meter"));
    EXPECT_EQ("", devices_.GetDeviceSettingFile("Battery"));
}

TEST_F(DeviceSettingXmlManagerTest, FirstOfTwoLimitVariablesGivesTheValue) {
    WriteDevices({Address("HouseHoldSolarPowerGeneration", "pv")});
    test::WriteFile(kDeviceDir + "pv.xml",
                    Description({"Name=\"Limit\" ValueMin=\"4\"", "Name=\"Limit\" ValueMin=\"5\""}));
    DeviceSettingXmlManager::Limit limit;
    EXPECT_TRUE(devices_.GetLimit(limit));
    EXPECT_EQ(4, limit.valueMin);
}

TEST_F(DeviceSettingXmlManagerTest, HexValueMinIsRead) {
    WriteDevices({Address("HouseHoldSolarPowerGeneration", "pv")});
    test::WriteFile(kDeviceDir + "pv.xml", Description({"Name=\"Limit\" ValueMin=\"0x10\""}));
    DeviceSettingXmlManager::Limit limit;
    EXPECT_TRUE(devices_.GetLimit(limit));
    EXPECT_EQ(16, limit.valueMin);
}

TEST_F(DeviceSettingXmlManagerTest, UnreadableValueMinLeavesTheValue) {
    WriteDevices({Address("HouseHoldSolarPowerGeneration", "pv")});
    for (const char* text : {"abc", "", "12 ", "99999999999"}) {
        test::WriteFile(kDeviceDir + "pv.xml", Description({"Name=\"Limit\" ValueMin=\"" + std::string(text) + "\""}));
        DeviceSettingXmlManager::Limit limit;
        limit.valueMin = 6;
        EXPECT_TRUE(devices_.GetLimit(limit)) << text;
        EXPECT_EQ(6, limit.valueMin) << text;
        EXPECT_EQ(0, limit.value0);
        EXPECT_EQ(100, limit.value100);
    }
}

// Both files are read for every request: each change of either, however
// quick and whatever its size, shows at the next read.
TEST_F(DeviceSettingXmlManagerTest, EveryChangeOfEitherFileIsSeen) {
    WriteDevices({Address("HouseHoldSolarPowerGeneration", "pv")});
    for (int i = 10; i < 60; ++i) {
        const std::string value = std::to_string(i % 5 == 0 ? i - 1 : i);
        test::WriteFile(kDeviceDir + "pv.xml",
                        Description({"Name=\"Limit\" Value0=\"1\" Value100=\"99\" ValueMin=\"" + value + "\""}));
        DeviceSettingXmlManager::Limit limit;
        ASSERT_TRUE(devices_.GetLimit(limit));
        EXPECT_EQ(std::stoi(value), limit.valueMin) << "edit " << i;
    }
    // Another description file named in the settings, same length of name.
    test::WriteFile(kDeviceDir + "pw.xml", Description({"Name=\"Limit\" ValueMin=\"77\""}));
    WriteDevices({Address("HouseHoldSolarPowerGeneration", "pw")});
    DeviceSettingXmlManager::Limit limit;
    ASSERT_TRUE(devices_.GetLimit(limit));
    EXPECT_EQ(77, limit.valueMin);
    EXPECT_EQ("pw", devices_.GetDeviceSettingFile("HouseHoldSolarPowerGeneration"));
    // The unit's type changes: no unit any more.
    WriteDevices({Address("HouseHoldSolarPowerGeneratioX", "pw")});
    EXPECT_EQ("", devices_.GetDeviceSettingFile("HouseHoldSolarPowerGeneration"));
    // Back, then the description goes: reported as missing.
    WriteDevices({Address("HouseHoldSolarPowerGeneration", "pw")});
    EXPECT_TRUE(devices_.GetLimit(limit));
    test::RemoveAll(kDeviceDir + "pw.xml");
    EXPECT_FALSE(devices_.GetLimit(limit));
    EXPECT_TRUE(Logged("W", " missing device xml file. [" +
                                test::FixedPath("/usr/local/etc/kestrovanyx/DeviceXML/pw.xml") + "]"));
    // A description without its root after a good one.
    test::WriteFile(kDeviceDir + "pw.xml", "<Devices/>");
    EXPECT_FALSE(devices_.GetLimit(limit));
}

// A description read before is not taken as still there: its directory
// moved away, or the file renamed over, shows at the next read.
TEST_F(DeviceSettingXmlManagerTest, DescriptionGoneAfterAReadIsReported) {
    WriteDevices({Address("HouseHoldSolarPowerGeneration", "pv")});
    test::WriteFile(kDeviceDir + "pv.xml", Description({"Name=\"Limit\" ValueMin=\"4\""}));
    DeviceSettingXmlManager::Limit limit;
    ASSERT_TRUE(devices_.GetLimit(limit));
    ASSERT_TRUE(devices_.GetLimit(limit));
    const std::string moved = test::FixedPath("/usr/local/etc/kestrovanyx/DeviceXML.moved");
    ASSERT_EQ(0, std::rename(kDeviceDir.c_str(), moved.c_str()));
    DeviceSettingXmlManager::Limit after;
    EXPECT_FALSE(devices_.GetLimit(after));
    EXPECT_TRUE(Logged("W", " missing device xml file. [" +
                                test::FixedPath("/usr/local/etc/kestrovanyx/DeviceXML/pv.xml") + "]"));
    ASSERT_EQ(0, std::rename(moved.c_str(), kDeviceDir.c_str()));
    ASSERT_TRUE(devices_.GetLimit(after));
    EXPECT_EQ(4, after.valueMin);
    test::WriteFile(kDeviceDir + "next.xml", Description({"Name=\"Limit\" ValueMin=\"6\""}));
    ASSERT_EQ(0, std::rename((kDeviceDir + "next.xml").c_str(), (kDeviceDir + "pv.xml").c_str()));
    ASSERT_TRUE(devices_.GetLimit(after));
    EXPECT_EQ(6, after.valueMin);
}

TEST_F(DeviceSettingXmlManagerTest, MissingDescriptionFileIsReported) {
    WriteDevices({Address("HouseHoldSolarPowerGeneration", "absent")});
    DeviceSettingXmlManager::Limit limit;
    EXPECT_FALSE(devices_.GetLimit(limit));
    EXPECT_TRUE(Logged("W", " missing device xml file. [" +
                                test::FixedPath("/usr/local/etc/kestrovanyx/DeviceXML/absent.xml") + "]"));
}

TEST_F(DeviceSettingXmlManagerTest, OtherRootIsReported) {
    WriteDevices({Address("HouseHoldSolarPowerGeneration", "pv")});
    test::WriteFile(kDeviceDir + "pv.xml", "<Devices/>");
    DeviceSettingXmlManager::Limit limit;
    EXPECT_FALSE(devices_.GetLimit(limit));
    EXPECT_TRUE(Logged("D", " EchonetLiteDevices root not found. "));
}

TEST_F(DeviceSettingXmlManagerTest, NoLimitVariableKeepsTheValuesAndSucceeds) {
    WriteDevices({Address("HouseHoldSolarPowerGeneration", "pv")});
    test::WriteFile(kDeviceDir + "pv.xml", Description({"Name=\"Other\" ValueMin=\"9\""}));
    DeviceSettingXmlManager::Limit limit;
    EXPECT_TRUE(devices_.GetLimit(limit));
    EXPECT_EQ(0, limit.valueMin);
    EXPECT_TRUE(Logged("D", " Set initial value to Limit. "));
}

TEST_F(DeviceSettingXmlManagerTest, MalformedDescriptionIsAnError) {
    WriteDevices({Address("HouseHoldSolarPowerGeneration", "pv")});
    test::WriteFile(kDeviceDir + "pv.xml", "<lggrdev:EchonetLiteDevices><unclosed>");
    DeviceSettingXmlManager::Limit limit;
    limit.valueMin = 2;
    EXPECT_FALSE(devices_.GetLimit(limit));
    EXPECT_EQ(2, limit.valueMin);
    bool found = false;
    for (const std::string& line : LogLines()) {
        if (line.find(" UTC] [E] [") != std::string::npos &&
            line.find("] DeviceSettingXmlManager Device setting xml error. EXCEPTION[") != std::string::npos) {
            found = true;
        }
    }
    EXPECT_TRUE(found);
}

TEST_F(DeviceSettingXmlManagerTest, MissingSystemSettingsFindNoDevice) {
    DeviceSettingXmlManager::Limit limit;
    EXPECT_FALSE(devices_.GetLimit(limit));
    EXPECT_TRUE(Logged("W", " Device type not found in SystemSetting. [HouseHoldSolarPowerGeneration]"));
}

// --- Description files that are none ---------------------------------------------

TEST_F(DeviceSettingXmlManagerTest, DescriptionNestedUpToTheCapIsRead) {
    WriteDevices({Address("HouseHoldSolarPowerGeneration", "pv")});
    // The Limit variable lies six levels deep; 58 more below it make 64.
    test::WriteFile(kDeviceDir + "pv.xml",
                    Description({"Name=\"Limit\" ValueMin=\"5\"><x>" + test::NestedXml("y", 57) +
                                 "</x></lggrdev:VariableInfo><lggrdev:VariableInfo Name=\"z\""}));
    DeviceSettingXmlManager::Limit limit;
    EXPECT_TRUE(devices_.GetLimit(limit));
    EXPECT_EQ(5, limit.valueMin);
}

TEST_F(DeviceSettingXmlManagerTest, DescriptionNestedDeeperIsAnError) {
    WriteDevices({Address("HouseHoldSolarPowerGeneration", "pv")});
    for (std::size_t depth : {58u, 100000u}) {
        test::WriteFile(kDeviceDir + "pv.xml",
                        Description({"Name=\"Limit\" ValueMin=\"5\"><x>" + test::NestedXml("y", depth) +
                                     "</x></lggrdev:VariableInfo><lggrdev:VariableInfo Name=\"z\""}));
        DeviceSettingXmlManager::Limit limit;
        limit.valueMin = 2;
        EXPECT_FALSE(devices_.GetLimit(limit)) << depth;
        EXPECT_EQ(2, limit.valueMin) << depth;
    }
    bool found = false;
    for (const std::string& line : LogLines()) {
        if (line.find(" UTC] [E] [") != std::string::npos &&
            line.find("] DeviceSettingXmlManager Device setting xml error. EXCEPTION[SAXParseException: "
                      "elements nested deeper than 64 levels") != std::string::npos) {
            found = true;
        }
    }
    EXPECT_TRUE(found);
}

TEST_F(DeviceSettingXmlManagerTest, FifoAsDescriptionIsAnErrorAtOnce) {
    WriteDevices({Address("HouseHoldSolarPowerGeneration", "pv")});
    test::MakeFifo(kDeviceDir + "pv.xml");
    DeviceSettingXmlManager::Limit limit;
    limit.valueMin = 2;
    EXPECT_FALSE(devices_.GetLimit(limit));
    EXPECT_EQ(2, limit.valueMin);
    EXPECT_TRUE(Logged("E", "Device setting xml error. EXCEPTION[not a regular file]"));
    test::RemoveAll(kDeviceDir + "pv.xml");
}

TEST_F(DeviceSettingXmlManagerTest, DescriptionOverTheCapIsAnError) {
    WriteDevices({Address("HouseHoldSolarPowerGeneration", "pv")});
    const std::string description = Description({"Name=\"Limit\" ValueMin=\"5\""});
    test::WriteFile(kDeviceDir + "pv.xml", description + std::string(1024 * 1024 - description.size(), ' '));
    DeviceSettingXmlManager::Limit limit;
    EXPECT_TRUE(devices_.GetLimit(limit));
    EXPECT_EQ(5, limit.valueMin);
    test::WriteFile(kDeviceDir + "pv.xml", description + std::string(1024 * 1024 + 1 - description.size(), ' '));
    limit.valueMin = 2;
    EXPECT_FALSE(devices_.GetLimit(limit));
    EXPECT_EQ(2, limit.valueMin);
    EXPECT_TRUE(Logged("E", "Device setting xml error. EXCEPTION[larger than 1048576 bytes]"));
}

TEST_F(DeviceSettingXmlManagerTest, SystemSettingsNestedTooDeepFindNoDevice) {
    test::WriteFile(test::SystemSettingPath(),
                    "<logger><channelList><channel><addressList>" + Address("HouseHoldSolarPowerGeneration", "pv") +
                        test::NestedXml("d", 100000) + "</addressList></channel></channelList></logger>");
    DeviceSettingXmlManager::Limit limit;
    EXPECT_FALSE(devices_.GetLimit(limit));
    EXPECT_TRUE(Logged("W", " Device type not found in SystemSetting. [HouseHoldSolarPowerGeneration]"));
}

// The start-up check and an answer worker's snapshot rebuild may be the
// first to need the settings at the same moment: every racing caller gets
// the one instance, and none is lost (the sanitizer builds see a leak).
TEST_F(DeviceSettingXmlManagerTest, RacingFirstUsesMakeOneInstance) {
    DeviceSettingXmlManager::DeleteInstance();
    SystemSettingXmlManager::DeleteInstance();
    const std::size_t kThreads = 8;
    std::atomic<std::size_t> waiting(kThreads);
    std::vector<DeviceSettingXmlManager*> devices(kThreads, nullptr);
    std::vector<SystemSettingXmlManager*> systems(kThreads, nullptr);
    std::vector<std::thread> threads;
    for (std::size_t i = 0; i < kThreads; ++i) {
        threads.emplace_back([&, i] {
            waiting.fetch_sub(1);
            while (waiting.load() > 0) {
            }
            devices[i] = &DeviceSettingXmlManager::Shared();
            systems[i] = &SystemSettingXmlManager::Shared();
        });
    }
    for (std::thread& thread : threads) thread.join();
    for (std::size_t i = 0; i < kThreads; ++i) {
        EXPECT_EQ(DeviceSettingXmlManager::GetInstance(), devices[i]);
        EXPECT_EQ(SystemSettingXmlManager::GetInstance(), systems[i]);
    }
    ASSERT_NE(nullptr, DeviceSettingXmlManager::GetInstance());
}

} // namespace
} // namespace brvo
