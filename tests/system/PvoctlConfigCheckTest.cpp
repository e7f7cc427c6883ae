// pvoctl check-config: a clean set of settings passes, and each kind of
// finding is reported at its file, line and column.
#include "support/ChildProcess.h"
#include "support/HttpTestServer.h"
#include "support/TestFiles.h"

#include <gtest/gtest.h>

namespace brvo {
namespace {

const std::string kDir = "/tmp/settings/SettingsXML";

int RunPvoctl(const std::vector<std::string>& args, std::string& output, const std::string& directory = "") {
    return test::ChildProcess::RunToEnd(PVOCTL_BINARY, args, output, directory);
}

std::string LoggerSetting(const std::string& inner) {
    return "<?xml version=\"1.0\"?>\n<LoggerSetting>\n" + inner + "</LoggerSetting>\n";
}

std::string SystemSetting(const std::string& general, const std::string& system = "<communicationErrorRetry>3"
                                                                                  "</communicationErrorRetry>") {
    return "<?xml version=\"1.0\"?>\n<logger loggerId=\"L1\">\n<general>\n"
           "<outputControlPlantId>00000000000000000000000777</outputControlPlantId>\n" +
           general + "<system>" + system +
           "</system>\n</general>\n<channelList><channel><addressList><address>"
           "<type>HouseHoldSolarPowerGeneration</type><deviceSettingFile>pv</deviceSettingFile>"
           "</address></addressList></channel></channelList>\n</logger>\n";
}

const char kDevice[] =
    "<?xml version=\"1.0\"?>\n<lggrdev:EchonetLiteDevices xmlns:lggrdev=\"urn:x\"><lggrdev:Device>"
    "<lggrdev:Properties><lggrdev:Property><lggrdev:Variables>\n"
    "<lggrdev:VariableInfo Name=\"Limit\" Value0=\"0\" Value100=\"100\" ValueMin=\"10\"/>"
    "</lggrdev:Variables></lggrdev:Property></lggrdev:Properties></lggrdev:Device></lggrdev:EchonetLiteDevices>\n";

const char kUrl[] = "<outputScheduleInformationServerUrl>https://127.0.0.1/s</outputScheduleInformationServerUrl>\n";

class PvoctlConfigCheckTest : public ::testing::Test {
protected:
    void SetUp() override {
        test::WriteFile(kDir + "/LoggerSetting.xml", LoggerSetting("<SdcardPath>/media/sdcard</SdcardPath>\n"
                                                                   "<LogLevel> 2</LogLevel>\n"));
        test::WriteFile(kDir + "/SystemSetting.xml", SystemSetting(kUrl));
        test::WriteFile("/tmp/settings/DeviceXML/pv.xml", kDevice);
    }

    // Runs check-config on kDir and expects exit 1 with `finding` as one
    // whole line of the output.
    void ExpectFinding(const std::string& finding) {
        std::string output;
        EXPECT_EQ(1, RunPvoctl({"check-config", kDir}, output)) << output;
        EXPECT_NE(std::string::npos, ("\n" + output).find("\n" + finding + "\n")) << output;
    }
};

TEST_F(PvoctlConfigCheckTest, CleanSettingsPass) {
    std::string output;
    EXPECT_EQ(0, RunPvoctl({"check-config", kDir}, output)) << output;
    EXPECT_EQ("", output);
    // A relative directory is taken from the current directory.
    EXPECT_EQ(0, RunPvoctl({"check-config", "SettingsXML/"}, output, "/tmp/settings")) << output;
}

TEST_F(PvoctlConfigCheckTest, AMisspelledElementGetsTheNearestName) {
    test::WriteFile(kDir + "/LoggerSetting.xml", LoggerSetting("  <SdCardPath>/media/sdcard</SdCardPath>\n"
                                                               "<Timeout>5</Timeout>\n"));
    ExpectFinding(kDir + "/LoggerSetting.xml:3:3: unknown element <SdCardPath>; did you mean <SdcardPath>?");
    ExpectFinding(kDir + "/LoggerSetting.xml:4:1: unknown element <Timeout>; it is ignored");
    test::WriteFile(kDir + "/SystemSetting.xml",
                    SystemSetting(std::string(kUrl) + "<outputControlStandalone>1"
                                                      "</outputControlStandalone>\n<vendorThing/>\n"));
    ExpectFinding(kDir + "/SystemSetting.xml:6:1: unknown element <outputControlStandalone>; did you mean "
                         "<outputControlStandAlone>?");
}

TEST_F(PvoctlConfigCheckTest, BrokenXmlIsReportedAtItsLineAndColumn) {
    test::WriteFile(kDir + "/LoggerSetting.xml", LoggerSetting("<LogLevel>1</Loglevel>\n"));
    std::string output;
    EXPECT_EQ(1, RunPvoctl({"check-config", kDir}, output)) << output;
    EXPECT_EQ(0u, output.find(kDir + "/LoggerSetting.xml:3:14: XML error: ")) << output;
}

TEST_F(PvoctlConfigCheckTest, NestingTooDeepIsReportedWhereItStarts) {
    test::WriteFile(kDir + "/LoggerSetting.xml", LoggerSetting(test::NestedXml("a", 100) + "\n"));
    // The document element is level 1, so the 64th <a> is level 65.
    ExpectFinding(kDir + "/LoggerSetting.xml:3:190: elements nested deeper than 64; pvocd does not read the file");
}

TEST_F(PvoctlConfigCheckTest, ValuesThatAreNotNumbers) {
    test::WriteFile(kDir + "/LoggerSetting.xml", LoggerSetting("<WatchdogFileUpdateInterval>abc"
                                                               "</WatchdogFileUpdateInterval>\n"
                                                               "<OutputControlSocketTimeout>45s"
                                                               "</OutputControlSocketTimeout>\n"));
    ExpectFinding(kDir + "/LoggerSetting.xml:3:1: value \"abc\" of <WatchdogFileUpdateInterval> is not a number; "
                         "the default is used");
    ExpectFinding(kDir + "/LoggerSetting.xml:4:1: value \"45s\" of <OutputControlSocketTimeout> is not a number; "
                         "it is read as 45");
    test::WriteFile(kDir + "/SystemSetting.xml", SystemSetting(kUrl, "<communicationErrorRetry>100"
                                                                     "</communicationErrorRetry>"));
    ExpectFinding(kDir + "/SystemSetting.xml:6:9: value \"100\" of <communicationErrorRetry> is out of range "
                         "(0 to 99)");
}

// Numbers that read but that the daemon does not use as given, each with
// what it does instead.
TEST_F(PvoctlConfigCheckTest, ValuesOutsideTheirRanges) {
    test::WriteFile(kDir + "/LoggerSetting.xml",
                    LoggerSetting("<SdcardPath>/media/sdcard</SdcardPath>\n"
                                  "<OutputControlScheduleRetensionCycle>0</OutputControlScheduleRetensionCycle>\n"
                                  "<LogLevel>6</LogLevel>\n"
                                  "<OutputScheduleMonitoringInterval>-5</OutputScheduleMonitoringInterval>\n"
                                  "<WatchdogFileUpdateInterval>2147484</WatchdogFileUpdateInterval>\n"
                                  "<OutputControlTestMode>2</OutputControlTestMode>\n"
                                  "<OutputControlSocketTimeout>1</OutputControlSocketTimeout>\n"));
    ExpectFinding(kDir + "/LoggerSetting.xml:4:1: value \"0\" of <OutputControlScheduleRetensionCycle> is out of "
                         "range (1 to 2147483647): below 1 every start deletes the slot in force and all before it");
    ExpectFinding(kDir + "/LoggerSetting.xml:5:1: value \"6\" of <LogLevel> is out of range (0 to 5): pvocd keeps "
                         "level 1");
    ExpectFinding(kDir + "/LoggerSetting.xml:6:1: value \"-5\" of <OutputScheduleMonitoringInterval> is out of range "
                         "(1 to 2147483647): below 1 pvocd uses 180");
    ExpectFinding(kDir + "/LoggerSetting.xml:7:1: value \"2147484\" of <WatchdogFileUpdateInterval> is out of range "
                         "(1 to 2147483): below 1 the watchdog file is touched once only, above it every 24.8 days");
    ExpectFinding(kDir + "/LoggerSetting.xml:8:1: value \"2\" of <OutputControlTestMode> is out of range (0 to 1): "
                         "any value but 0 means test mode");
    std::string output;
    RunPvoctl({"check-config", kDir}, output);
    EXPECT_EQ(std::string::npos, output.find("OutputControlSocketTimeout")) << output;
}

// The plant's capacity is text to the daemon; another reader in the C
// locale takes "49,5" as 49.
TEST_F(PvoctlConfigCheckTest, ACapacityThatReadsOtherwiseThanItLooks) {
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"49,5", "has a decimal comma; it is read as 49: write a decimal point"},
        {"49.5kW", "is not a number; it is read as 49.5"},
        {"-3", "is not a capacity above 0"},
        {"many", "is not a number"}};
    for (const auto& item : cases) {
        test::WriteFile(kDir + "/SystemSetting.xml", SystemSetting(std::string(kUrl) + "<facilityCertifiedCapacity>" +
                                                                   item.first + "</facilityCertifiedCapacity>\n"));
        ExpectFinding(kDir + "/SystemSetting.xml:6:1: value \"" + item.first + "\" of <facilityCertifiedCapacity> " +
                      item.second);
    }
    test::WriteFile(kDir + "/SystemSetting.xml",
                    SystemSetting(std::string(kUrl) + "<facilityCertifiedCapacity>49.5</facilityCertifiedCapacity>\n"));
    std::string output;
    EXPECT_EQ(0, RunPvoctl({"check-config", kDir}, output)) << output;
}

TEST_F(PvoctlConfigCheckTest, ASocketPathTooLongForASocketAddress) {
    const std::string path = "/mnt/" + std::string(110, 's');
    test::WriteFile(kDir + "/LoggerSetting.xml",
                    LoggerSetting("<OutputControlSocketPath>" + path + "</OutputControlSocketPath>\n"));
    ExpectFinding(kDir + "/LoggerSetting.xml:3:1: socket path of 115 bytes is too long for a UNIX socket address "
                         "(at most 107)");
}

TEST_F(PvoctlConfigCheckTest, AServerUrlThatIsNotHttp) {
    test::WriteFile(kDir + "/SystemSetting.xml", SystemSetting("<outputScheduleInformationServerUrl>ftp://host/s"
                                                               "</outputScheduleInformationServerUrl>\n"));
    ExpectFinding(kDir + "/SystemSetting.xml:5:1: server URL \"ftp://host/s\" has the scheme \"ftp\"; pvocd speaks "
                         "http and https only");
}

TEST_F(PvoctlConfigCheckTest, ACaFileThatIsNoCertificate) {
    test::WriteFile("/media/sdcard/kestrovanyx/Certificates/garbage.pem", "-----BEGIN CERTIFICATE-----\nxx\n");
    ASSERT_TRUE(test::MakeCertificate("/media/sdcard/kestrovanyx/Certificates/good.pem", "/tmp/good.key"));
    std::string output;
    EXPECT_EQ(1, RunPvoctl({"check-config", kDir}, output)) << output;
    EXPECT_EQ(0u, output.find("/media/sdcard/kestrovanyx/Certificates/garbage.pem:1:1: not a PEM certificate; "
                              "pvocd skips it: "))
        << output;
    EXPECT_EQ(std::string::npos, output.find("good.pem")) << output;
}

TEST_F(PvoctlConfigCheckTest, ASdcardPathThatIsNotAMountPoint) {
    test::WriteFile("/tmp/plain/keep", "");
    test::WriteFile(kDir + "/LoggerSetting.xml", LoggerSetting("<SdcardPath>/tmp/plain</SdcardPath>\n"));
    ExpectFinding(kDir + "/LoggerSetting.xml:3:1: SdcardPath /tmp/plain is not a mount point");
}

TEST_F(PvoctlConfigCheckTest, ADeviceDescriptionWithABadLimit) {
    std::string device = kDevice;
    device.replace(device.find("ValueMin=\"10\""), 13, "ValueMin=\"ten\"");
    test::WriteFile("/tmp/settings/DeviceXML/pv.xml", device);
    ExpectFinding("/tmp/settings/DeviceXML/pv.xml:3:1: value \"ten\" of <ValueMin> is not a number; the default is "
                  "used");
}

TEST_F(PvoctlConfigCheckTest, AMissingDirectoryIsAUsageError) {
    std::string output;
    EXPECT_EQ(2, RunPvoctl({"check-config", "/tmp/none"}, output)) << output;
    EXPECT_NE(std::string::npos, output.find("no settings directory at /tmp/none")) << output;
    EXPECT_EQ(2, RunPvoctl({"check-config", kDir, "extra"}, output)) << output;
    EXPECT_EQ(2, RunPvoctl({"check-config", "--json", kDir}, output)) << output;
    EXPECT_NE(std::string::npos, output.find("--json does not apply to check-config")) << output;
}

} // namespace
} // namespace brvo
