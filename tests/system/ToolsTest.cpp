// The operators' tools against the real daemon: pvoctl's answers and exit
// codes, and the two simulators standing in for the schedule server and
// the logger daemon.
#include "server/CommandWire.h"
#include "support/ChildProcess.h"
#include "support/CommandClient.h"
#include "support/HttpTestServer.h"
#include "support/SchedulePayload.h"
#include "support/StoredSchedule.h"
#include "support/TestFiles.h"
#include "support/UnixPeer.h"
#include "util/TimeStamp.h"

#include <gtest/gtest.h>

#include <csignal>
#include <sys/stat.h>

namespace brvo {
namespace {

const std::string kSocket = "/mnt/system/pvoctrl/brevanta.octrl";

// Runs a tool to its end; returns its exit code (-1 when it did not end)
// and leaves its output in `output`.
int RunTool(const std::vector<std::string>& argv, std::string& output, const std::string& directory = "") {
    return test::ChildProcess::RunToEnd(argv[0], std::vector<std::string>(argv.begin() + 1, argv.end()), output,
                                        directory);
}

class ToolsTest : public ::testing::Test {
protected:
    void SetUp() override {
        test::WriteLoggerSetting("<OutputScheduleEnableLogBufferedIO>0</OutputScheduleEnableLogBufferedIO>");
        test::WriteFile("/sys/class/net/eth0/address", "00:1a:2b:3c:4d:5e\n");
    }

    void TearDown() override {
        for (test::ChildProcess* process : {&daemon_, &server_, &logger_}) {
            if (process->Running()) {
                process->Signal(SIGTERM);
                process->WaitExit(5000);
            }
        }
    }

    void StartAll(const std::vector<std::string>& serverArgs) {
        // Tests run side by side on one loopback: each takes a free port.
        // Two days of rates from today's server-time midnight: in the last
        // slot of the server's day, the next slot is still there.
        port_ = std::to_string(test::ClosedPort());
        std::vector<std::string> server = test::ChildProcess::Command(SCHEDULE_SERVER_SIM_BINARY);
        if (!tlsCertificate_.empty()) {
            server.insert(server.end(), {"--listen", "127.0.0.1:" + port_, "--tls", tlsCertificate_, "/tmp/sim.key"});
        }
        for (const std::string& arg :
             {std::string("--port"), port_, std::string("--plant-id"), std::string("777"), std::string("--rates"),
              std::string("96x40"), std::string("--fixed-rates"), std::string("48x20")}) {
            server.push_back(arg);
        }
        server.insert(server.end(), serverArgs.begin(), serverArgs.end());
        ASSERT_TRUE(server_.Start(server, "/tmp/server.out"));
        std::vector<std::string> logger = test::ChildProcess::Command(LOGGER_DAEMON_SIM_BINARY);
        logger.push_back("--result");
        logger.push_back("0");
        ASSERT_TRUE(logger_.Start(logger, "/tmp/logger.out"));
        ASSERT_TRUE(test::WaitFor(
            [] { return test::ReadFile("/tmp/server.out").find("listening") != std::string::npos; }, 5000));
        ASSERT_TRUE(test::WaitFor([] { return test::FileExists("/mnt/system/brvlogger/brevanta.logger"); }, 5000));
        test::WriteFile(test::SystemSettingPath(),
                        "<logger><general><outputControlPlantId>00000000000000000000000777</outputControlPlantId>"
                        "<outputScheduleInformationServerUrl>" +
                            scheme_ + "://127.0.0.1:" + port_ +
                            "/s"
                            "</outputScheduleInformationServerUrl></general></logger>");
        ASSERT_TRUE(daemon_.Start(test::ChildProcess::DaemonCommand(), "/tmp/pvocd.out"));
        ASSERT_TRUE(test::WaitFor([] { return test::FileExists(kSocket); }, 10000));
    }

    // Waits until the daemon forwarded the start-up fetch to the logger.
    bool WaitForStartUpFetch() {
        return test::WaitFor(
            [] {
                return test::ReadFile("/tmp/logger.out").find("command received: 8 bytes, length 8, command 1") !=
                       std::string::npos;
            },
            15000);
    }

    std::string port_;
    std::string scheme_ = "http";
    std::string tlsCertificate_;
    test::ChildProcess daemon_;
    test::ChildProcess server_;
    test::ChildProcess logger_;
};

TEST_F(ToolsTest, StartUpFetchFromTheSimulatorAndTargetPowerThroughPvoctl) {
    StartAll({});
    ASSERT_TRUE(test::WaitFor(
        [] {
            return test::ReadFile("/tmp/logger.out").find("command received: 8 bytes, length 8, command 1") !=
                   std::string::npos;
        },
        15000))
        << test::ReadFile("/tmp/server.out");
    const std::string requests = test::ReadFile("/tmp/server.out");
    EXPECT_NE(std::string::npos, requests.find("schedule_kbn=0000"));
    EXPECT_NE(std::string::npos, requests.find("schedule_kbn=9993"));
    std::string output;
    EXPECT_EQ(0, RunTool({PVOCTL_BINARY, "current", "10"}, output)) << output;
    EXPECT_NE(std::string::npos, output.find("target power 4 of capacity 10 for the slot starting ")) << output;
    EXPECT_EQ(0, RunTool({PVOCTL_BINARY, "current", "10kW"}, output)) << output;
    EXPECT_NE(std::string::npos, output.find("target power 4 kW for the slot starting ")) << output;
    EXPECT_EQ(0, RunTool({PVOCTL_BINARY, "current"}, output)) << output;
    EXPECT_NE(std::string::npos, output.find("target power 40 % of capacity for the slot starting ")) << output;
    EXPECT_EQ(0, RunTool({PVOCTL_BINARY, "--json", "next", "10"}, output)) << output;
    EXPECT_EQ(0u, output.find("{\"ok\":true,\"code\":0,\"power\":4,\"slot\":\"")) << output;
    EXPECT_EQ(0, RunTool({PVOCTL_BINARY, "flush-log"}, output)) << output;
    EXPECT_EQ(0, RunTool({PVOCTL_BINARY, "show-schedule"}, output)) << output;
    EXPECT_NE(std::string::npos, output.find("  40%  yes  ########")) << output;
    EXPECT_EQ(0, RunTool({PVOCTL_BINARY, "update"}, output)) << output;
    EXPECT_EQ("ok\n", output);
}

TEST_F(ToolsTest, FailuresGiveExitCodeOneWithTheReason) {
    StartAll({"--status", "500"});
    std::string output;
    EXPECT_EQ(1, RunTool({PVOCTL_BINARY, "update"}, output));
    EXPECT_EQ("failed: Data is not found. (reason 1, HTTP status 500)\n", output);
    EXPECT_EQ(1, RunTool({PVOCTL_BINARY, "--json", "check-plant-id", "P", "http://127.0.0.1:" + port_ + "/c"}, output));
    EXPECT_EQ("{\"ok\":false,\"reason\":1,\"status\":500,\"message\":\"Data is not found.\"}\n", output);
    EXPECT_EQ(1, RunTool({PVOCTL_BINARY, "fixed-schedule", "/tmp/none.hex"}, output));
    EXPECT_EQ("failed: file not found. (reason 9, HTTP status 0)\n", output);
}

TEST_F(ToolsTest, SimulatorFailureSwitches) {
    StartAll({"--bad-checksum"});
    std::string output;
    EXPECT_EQ(1, RunTool({PVOCTL_BINARY, "update"}, output));
    EXPECT_EQ("failed: Output rate data Checksum error. (reason 3, HTTP status 200)\n", output);
}

TEST_F(ToolsTest, SimulatorTextAnswer) {
    StartAll({"--text", "702"});
    std::string output;
    EXPECT_EQ(1, RunTool({PVOCTL_BINARY, "--json", "update"}, output));
    EXPECT_EQ("{\"ok\":false,\"reason\":2,\"status\":200,\"message\":\"702\"}\n", output);
}

TEST_F(ToolsTest, SimulatorClosingEarly) {
    StartAll({"--close-early"});
    std::string output;
    EXPECT_EQ(1, RunTool({PVOCTL_BINARY, "update"}, output));
    EXPECT_EQ(0u, output.find("failed: ")) << output;
    EXPECT_EQ(0, RunTool({PVOCTL_BINARY, "flush-log"}, output));
}

TEST_F(ToolsTest, NoDaemonIsAClearMessageNotAHang) {
    std::string output;
    EXPECT_EQ(2, RunTool({PVOCTL_BINARY, "current"}, output));
    EXPECT_NE(std::string::npos, output.find("pvoctl: cannot connect to pvocd at " + kSocket)) << output;
    EXPECT_NE(std::string::npos, output.find("(is the daemon running?)")) << output;
}

TEST_F(ToolsTest, CapacityMustBeANumber) {
    std::string output;
    EXPECT_EQ(2, RunTool({PVOCTL_BINARY, "current", "abc"}, output));
    EXPECT_NE(std::string::npos, output.find("CAPACITY must be a positive number, not \"abc\"")) << output;
    EXPECT_EQ(2, RunTool({PVOCTL_BINARY, "next", "5kW"}, output));
    EXPECT_EQ(2, RunTool({PVOCTL_BINARY, "check-plant-id", "only-one"}, output));
    EXPECT_NE(std::string::npos, output.find("usage: pvoctl")) << output;
}

TEST_F(ToolsTest, DaemonClosingWithoutAnswerIsReported) {
    test::UnixPeer peer("/tmp/closing.sock", test::UnixPeer::kCloseAtOnce, "", 0);
    std::string output;
    EXPECT_EQ(2, RunTool({PVOCTL_BINARY, "--socket", "/tmp/closing.sock", "flush-log"}, output));
    EXPECT_NE(std::string::npos, output.find("pvocd closed the connection without an answer")) << output;
}

TEST_F(ToolsTest, DaemonNotAnsweringInTimeIsReported) {
    test::UnixPeer peer("/tmp/silent.sock", test::UnixPeer::kSilent, "", 16);
    std::string output;
    EXPECT_EQ(2, RunTool({PVOCTL_BINARY, "--socket", "/tmp/silent.sock", "--timeout", "1", "current"}, output));
    EXPECT_NE(std::string::npos, output.find("pvocd did not answer within 1 s")) << output;
}

TEST_F(ToolsTest, SimulatorRefusesAMalformedDescription) {
    std::string output;
    EXPECT_EQ(2, RunTool({SCHEDULE_SERVER_SIM_BINARY, "--plant-id", "A77"}, output));
    EXPECT_NE(std::string::npos, output.find("--plant-id must be 1 to 26 digits, not \"A77\"")) << output;
    EXPECT_EQ(2, RunTool({SCHEDULE_SERVER_SIM_BINARY, "--rates", "60,x,30"}, output));
    EXPECT_NE(std::string::npos, output.find("rate must be a number from 0 to 255, not \"x\"")) << output;
    EXPECT_EQ(2, RunTool({SCHEDULE_SERVER_SIM_BINARY, "--start", "2022-01-19"}, output));
    EXPECT_NE(std::string::npos, output.find("--start (YYYYMMDDhhmm) must be 12 digits")) << output;
    EXPECT_EQ(2, RunTool({LOGGER_DAEMON_SIM_BINARY, "--bogus"}, output));
    EXPECT_NE(std::string::npos, output.find("usage: logger-daemon-sim")) << output;
    EXPECT_EQ(0, RunTool({LOGGER_DAEMON_SIM_BINARY, "--help"}, output));
    EXPECT_NE(std::string::npos, output.find("usage: logger-daemon-sim [--socket PATH] [--result N]")) << output;
    EXPECT_EQ(2, RunTool({SCHEDULE_SERVER_SIM_BINARY, "--retry-after", "-1"}, output));
    EXPECT_NE(std::string::npos, output.find("--retry-after must be a number from 0 to 1000000000, not \"-1\""))
        << output;
    EXPECT_EQ(0, RunTool({SCHEDULE_SERVER_SIM_BINARY, "--help"}, output));
    EXPECT_NE(std::string::npos, output.find("--bad-checksum")) << output;
    EXPECT_NE(std::string::npos, output.find("--retry-after SECONDS")) << output;
}

TEST_F(ToolsTest, HelpExplainsTheCommands) {
    std::string output;
    EXPECT_EQ(0, RunTool({PVOCTL_BINARY, "--help"}, output));
    for (const char* text : {"current [CAPACITY]", "check-plant-id ID URL", "fixed-schedule FILE [--force]",
                             "show-schedule", "--json", "Exit code"}) {
        EXPECT_NE(std::string::npos, output.find(text)) << text;
    }
    EXPECT_EQ(2, RunTool({PVOCTL_BINARY, "bogus"}, output));
}

// pvoctl and pvocd show the one version the package has, on standard
// output.
TEST_F(ToolsTest, VersionIsThePackagesVersion) {
    std::string output;
    EXPECT_EQ(0, RunTool({PVOCTL_BINARY, "--version"}, output));
    EXPECT_EQ("pvoctl " PVOCD_VERSION "\n", output);
    EXPECT_EQ(0, RunTool({PVOCTL_BINARY, "--version", "current"}, output));
    EXPECT_EQ("pvoctl " PVOCD_VERSION "\n", output);
    EXPECT_EQ(0, RunTool({PVOCD_BINARY, "--version"}, output));
    EXPECT_EQ("pvocd " PVOCD_VERSION " (application 20220119_qtx)\n", output);
}

TEST_F(ToolsTest, BadOptionsAndValuesAreUsageErrors) {
    const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
        {{"--timeout", "abc", "current"}, "--timeout must be a whole number of seconds from 1 to 86400, not \"abc\""},
        {{"--timeout", "0", "current"}, "not \"0\""},
        {{"--timeout", "-1", "current"}, "not \"-1\""},
        {{"--timeout", "86401", "current"}, "not \"86401\""},
        {{"--timeout", "99999999999999999999", "current"}, "not \"99999999999999999999\""},
        {{"--timeout", "5s", "current"}, "not \"5s\""},
        {{"current", "--timeout"}, "option --timeout needs a value"},
        {{"--bogus", "current"}, "unknown option --bogus"},
        {{"current", "0"}, "CAPACITY must be a positive number, not \"0\""},
        {{"current", "inf"}, "CAPACITY must be a positive number, not \"inf\""},
        {{"next", "nan"}, "CAPACITY must be a positive number, not \"nan\""},
        {{"current", "1e999"}, "CAPACITY must be a positive number, not \"1e999\""},
        {{"current", " 5"}, "CAPACITY must be a positive number, not \" 5\""},
        {{"current", "kW"}, "CAPACITY must be a positive number, not \"kW\""},
        {{"current", "10kilowatts"}, "CAPACITY must be a positive number, not \"10kilowatts\""},
        {{"current", "--force"}, "--force applies to fixed-schedule only"},
        {{"update", "--db", "x.db"}, "--db and --server-time apply to show-schedule only"},
        {{"show-schedule", "2026-13-01", "--db", "/tmp/x.db"}, "not a date (YYYY-MM-DD): 2026-13-01"},
        {{}, "no command given"},
    };
    for (const auto& c : cases) {
        std::vector<std::string> argv = {PVOCTL_BINARY};
        argv.insert(argv.end(), c.first.begin(), c.first.end());
        std::string output;
        EXPECT_EQ(2, RunTool(argv, output)) << c.second;
        EXPECT_NE(std::string::npos, output.find("pvoctl: ")) << output;
        EXPECT_NE(std::string::npos, output.find(c.second)) << output;
    }
}

TEST_F(ToolsTest, ARelativeFixedScheduleFileIsTakenFromTheCurrentDirectory) {
    StartAll({});
    ASSERT_TRUE(WaitForStartUpFetch());
    test::ScheduleRecord record;
    record.plantId = "00000000000000000000000777";
    brvo::TimeStamp serverNow;
    serverNow.AddServerOffset();
    record.start = serverNow.Format("%Y%m%d") + "0000";
    record.rates = std::vector<int>(48, 20);
    test::WriteFile("/tmp/work/fixed.hex", test::BuildSchedulePayload({record}, test::kFixedSchedule).hex);
    std::string output;
    EXPECT_EQ(0, RunTool({PVOCTL_BINARY, "fixed-schedule", "fixed.hex"}, output, "/tmp/work")) << output;
    EXPECT_EQ(0u, output.find("ok")) << output;
}

// A failed answer names its fall-back power in the unit of the answer too.
TEST_F(ToolsTest, FallBackPowerNamesItsUnit) {
    const std::vector<unsigned char> bytes =
        CommandWire::EncodeTargetPowerAnswer(CommandWire::kCurrentTargetPower, 7.5, "", 5, "can not get.");
    test::UnixPeer peer("/tmp/failed.sock", test::UnixPeer::kReply, std::string(bytes.begin(), bytes.end()), 16);
    std::string output;
    EXPECT_EQ(1, RunTool({PVOCTL_BINARY, "--socket", "/tmp/failed.sock", "current", "75MW"}, output)) << output;
    EXPECT_EQ("no target power: can not get. (code 5); fall-back power 7.5 MW\n", output);
    EXPECT_EQ(1, RunTool({PVOCTL_BINARY, "--socket", "/tmp/failed.sock", "current"}, output)) << output;
    EXPECT_EQ("no target power: can not get. (code 5); fall-back power 7.5 % of capacity\n", output);
}

TEST_F(ToolsTest, NumbersArePrintedInFullPrecision) {
    const std::string answer = test::TargetPowerAnswer(CommandWire::kCurrentTargetPower, 74074.0734, "20260101000000");
    test::UnixPeer peer("/tmp/precise.sock", test::UnixPeer::kReply, answer, 16);
    std::string output;
    EXPECT_EQ(0,
              RunTool({PVOCTL_BINARY, "--socket", "precise.sock", "--json", "current", "185185.1835"}, output, "/tmp"))
        << output;
    EXPECT_EQ("{\"ok\":true,\"code\":0,\"power\":74074.0734,\"slot\":\"20260101000000\",\"message\":\"\"}\n", output);
    EXPECT_EQ(0, RunTool({PVOCTL_BINARY, "--socket", "/tmp/precise.sock", "next"}, output)) << output;
    EXPECT_EQ("target power 74074.0734 % of capacity for the slot starting 2026-01-01 00:00:00 UTC\n", output);
    ASSERT_EQ(2u, peer.Received().size());
    const std::string request = peer.Received()[0];
    ASSERT_EQ(16u, request.size());
    EXPECT_EQ(185185.1835, CommandWire::DecodeCapacity(reinterpret_cast<const unsigned char*>(request.data()) +
                                                       CommandWire::kHeaderSize));
}

TEST_F(ToolsTest, ShowScheduleInTheServersDay) {
    // 2026-01-01 15:00 UTC is 2026-01-02 00:00 in the server's time.
    const std::int64_t serverMidnight = 1767279600;
    test::StoreSchedule("777",
                        {{serverMidnight - 1800, 10}, {serverMidnight, 60}, {serverMidnight + 86400 - 1800, 70}});
    std::string output;
    EXPECT_EQ(0, RunTool({PVOCTL_BINARY, "show-schedule", "2026-01-02", "--server-time", "--db",
                          "OutputControl/output_control_schedule.db"},
                         output, "/media/sdcard/kestrovanyx/Database"))
        << output;
    EXPECT_NE(std::string::npos, output.find("slots of 2026-01-02 (server time, UTC+9) in "
                                             "/media/sdcard/kestrovanyx/Database/OutputControl/"))
        << output;
    EXPECT_NE(std::string::npos, output.find(" 00:00   60%   no")) << output;
    EXPECT_NE(std::string::npos, output.find(" 23:30   70%   no")) << output;
    EXPECT_EQ(std::string::npos, output.find(" 10%")) << output;
    EXPECT_EQ(0, RunTool({PVOCTL_BINARY, "show-schedule", "2026-01-02", "--json"}, output)) << output;
    EXPECT_EQ("{\"day\":\"2026-01-02\",\"slots\":[{\"start\":1767364200,\"rate\":70,\"sent\":false}]}\n", output);
}

TEST_F(ToolsTest, SimulatorServesHttpsOnTheGivenAddress) {
    test::WriteFile("/media/sdcard/kestrovanyx/Certificates/README", "");
    ASSERT_TRUE(test::MakeCertificate("/media/sdcard/kestrovanyx/Certificates/sim.pem", "/tmp/sim.key"));
    tlsCertificate_ = "/media/sdcard/kestrovanyx/Certificates/sim.pem";
    scheme_ = "https";
    StartAll({});
    EXPECT_NE(std::string::npos, test::ReadFile("/tmp/server.out").find("listening on https://127.0.0.1:" + port_))
        << test::ReadFile("/tmp/server.out");
    ASSERT_TRUE(WaitForStartUpFetch()) << test::ReadFile("/tmp/server.out");
    std::string output;
    EXPECT_EQ(0, RunTool({PVOCTL_BINARY, "update"}, output)) << output;
    EXPECT_EQ("ok\n", output);
}

TEST_F(ToolsTest, SimulatorRefusesABadAddressOrCertificate) {
    std::string output;
    EXPECT_EQ(2, RunTool({SCHEDULE_SERVER_SIM_BINARY, "--listen", "localhost"}, output));
    EXPECT_NE(std::string::npos, output.find("--listen must be HOST:PORT or :PORT, not \"localhost\"")) << output;
    EXPECT_EQ(2, RunTool({SCHEDULE_SERVER_SIM_BINARY, "--listen", ":65536"}, output));
    EXPECT_NE(std::string::npos, output.find("--listen port must be a number from 0 to 65535")) << output;
    EXPECT_EQ(2, RunTool({SCHEDULE_SERVER_SIM_BINARY, "--listen", "no.such.host.invalid:80"}, output));
    EXPECT_NE(std::string::npos, output.find("cannot be used")) << output;
    EXPECT_EQ(2, RunTool({SCHEDULE_SERVER_SIM_BINARY, "--tls", "/tmp/none.pem", "/tmp/none.key"}, output));
    EXPECT_NE(std::string::npos, output.find("--tls certificate \"/tmp/none.pem\" cannot be read")) << output;
    test::WriteFile("/tmp/garbage.pem", "not a certificate\n");
    EXPECT_EQ(2, RunTool({SCHEDULE_SERVER_SIM_BINARY, "--tls", "/tmp/garbage.pem", "/tmp/garbage.pem"}, output));
    EXPECT_NE(std::string::npos, output.find("--tls certificate or key cannot be used: ")) << output;
    EXPECT_EQ(2, RunTool({SCHEDULE_SERVER_SIM_BINARY, "--tls", "/tmp/only.pem"}, output));
    EXPECT_NE(std::string::npos, output.find("--tls needs CERT and KEY")) << output;
}

} // namespace
} // namespace brvo
