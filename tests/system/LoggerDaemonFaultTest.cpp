// The real pvocd with a logger daemon that is missing, refuses, or takes
// the command and never answers. The daemon gives up within the socket
// time-out, leaves every row unsent, keeps answering its own clients, and
// forwards the rows once the logger daemon is back.
#include "server/CommandWire.h"
#include "support/ChildProcess.h"
#include "support/CommandClient.h"
#include "support/DaemonClient.h"
#include "support/HttpTestServer.h"
#include "support/SchedulePayload.h"
#include "support/SqliteFile.h"
#include "support/TestFiles.h"
#include "support/UnixPeer.h"

#include <gtest/gtest.h>

#include <Poco/Timestamp.h>

#include <csignal>
#include <cstring>
#include <memory>
#include <sstream>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace brvo {
namespace {

using test::Ask;
using test::Capacity;
using test::HttpTestServer;
using test::PowerOf;
using test::ScheduleServerAnswer;
using test::Word;
using test::WordAt;

const std::string kPlant = "00000000000000000000000777";
const int kTimeoutSeconds = 2;
const int kRate = 60;

// How the logger daemon fails.
enum class LoggerFault { kAbsent, kRefusing, kSilent };

std::ostream& operator<<(std::ostream& out, LoggerFault fault) {
    switch (fault) {
    case LoggerFault::kAbsent:
        return out << "Absent";
    case LoggerFault::kRefusing:
        return out << "Refusing";
    case LoggerFault::kSilent:
        return out << "Silent";
    }
    return out;
}

// Leaves a socket file at `path` on which nobody listens: connecting to it
// is refused.
void LeaveDeadSocket(const std::string& path) {
    const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    const sockaddr_un address = test::UnixAddress(path);
    unlink(path.c_str());
    ASSERT_EQ(0, bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address));
    close(fd);
}

class LoggerDaemonFaultTest : public ::testing::TestWithParam<LoggerFault> {
protected:
    void SetUp() override {
        test::WriteLoggerSetting("<OutputScheduleEnableLogBufferedIO>0</OutputScheduleEnableLogBufferedIO>"
                                 "<OutputControlSocketTimeout>" +
                                 std::to_string(kTimeoutSeconds) + "</OutputControlSocketTimeout>");
        test::WriteFile("/sys/class/net/eth0/address", "00:1a:2b:3c:4d:5e\n");
        test::WriteFile(test::kLoggerSocket + ".keep", "");
        update_ = test::CurrentUpdateRecord(kRate);
        fixed_ = test::FixedRecordAhead(30, 3);
    }

    void TearDown() override {
        if (daemon_.Running()) {
            daemon_.Signal(SIGTERM);
            daemon_.WaitExit(5000);
        }
    }

    std::unique_ptr<HttpTestServer> Server() const {
        return std::unique_ptr<HttpTestServer>(
            new HttpTestServer({ScheduleServerAnswer(update_, test::kUpdateSchedule),
                                ScheduleServerAnswer(fixed_, test::kFixedSchedule)}));
    }

    static std::string Unsent() {
        return test::QueryValue(test::kScheduleDbFile, "SELECT COUNT(*) FROM output_control_schedule WHERE sent = 0");
    }

    static std::vector<std::string> LogLines() { return test::ReadLines(test::LogFilePath()); }

    static bool CloudSendFailed() { return test::HasLogLine(LogLines(), "W", "ScheduleDatabase", "Cloud Send error."); }

    test::ChildProcess daemon_;
    test::ScheduleRecord update_;
    test::ScheduleRecord fixed_;
};

TEST_P(LoggerDaemonFaultTest, RowsStayUnsentAndClientsAreServed) {
    const LoggerFault fault = GetParam();
    std::unique_ptr<test::UnixPeer> silent;
    if (fault == LoggerFault::kRefusing) LeaveDeadSocket(test::kLoggerSocket);
    if (fault == LoggerFault::kSilent) {
        silent.reset(new test::UnixPeer(test::kLoggerSocket, test::UnixPeer::kSilent, "", 8));
    }
    std::unique_ptr<HttpTestServer> server = Server();
    test::WriteSystemSetting(kPlant, server->Url("/schedule"), false);
    ASSERT_TRUE(test::StartDaemon(daemon_, test::kDaemonOutput));

    // The schedules are stored at start; forwarding them is what fails.
    const int boundMs = static_cast<int>((kTimeoutSeconds + 5) * 1000 * test::TimeScale());
    if (fault == LoggerFault::kSilent) {
        ASSERT_TRUE(test::WaitFor([&] { return silent->Received().size() == 1; }, boundMs));
        const Poco::Timestamp connected;
        EXPECT_EQ(std::string("\x08\x00\x00\x00\x01\x00\x00\x00", 8), silent->Received()[0]);
        // While the forwarding waits for the reply, the command socket
        // answers at once.
        EXPECT_EQ(test::FlushAnswer(), Ask(test::kFlushLogRequest));
        EXPECT_FALSE(CloudSendFailed());
        ASSERT_TRUE(test::WaitFor(CloudSendFailed, boundMs)) << test::ReadFile(test::LogFilePath());
        // It gave up because the receive time-out ran out, not sooner.
        EXPECT_GE(connected.elapsed(), (kTimeoutSeconds * 1000 - 500) * 1000LL);
    } else {
        ASSERT_TRUE(test::WaitFor(CloudSendFailed, boundMs)) << test::ReadFile(test::LogFilePath());
    }
    const std::string code = fault == LoggerFault::kSilent ? "5" : "2";
    EXPECT_TRUE(
        test::HasLogLine(LogLines(), "E", "BrvfdSendCommandRequest", "sending error. error_code [" + code + "]"));
    EXPECT_EQ("192", test::QueryValue(test::kScheduleDbFile, "SELECT COUNT(*) FROM output_control_schedule"));
    EXPECT_EQ("192", Unsent());

    // The target power comes from the stored, unsent rows.
    const std::string power = Ask(test::kCurrentTargetPowerRequest, Capacity(10.0), boundMs);
    ASSERT_EQ(test::kTargetPowerAnswerSize, power.size());
    EXPECT_EQ(0, WordAt(power, CommandWire::kTargetCodeOffset));
    EXPECT_DOUBLE_EQ(10.0 * kRate / 100.0, PowerOf(power));

    // An update request is answered before its rows are forwarded, so a
    // faulty logger daemon does not delay the answer; the rows stay unsent.
    std::unique_ptr<HttpTestServer> again = Server();
    test::WriteSystemSetting(kPlant, again->Url("/schedule"), false);
    const Poco::Timestamp asked;
    EXPECT_EQ(test::UpdateAnswer(CommandWire::kUpdateSchedule), Ask(test::kUpdateScheduleRequest));
    if (fault == LoggerFault::kSilent) {
        EXPECT_LT(asked.elapsed(), kTimeoutSeconds * 1000000LL * test::TimeScale());
        EXPECT_TRUE(test::WaitFor([&] { return silent->Received().size() == 2; }, boundMs));
    }
    ASSERT_TRUE(test::WaitFor(
        [] {
            int failures = 0;
            for (const std::string& line : LogLines()) {
                if (line.find("] ScheduleDatabase Cloud Send error.") != std::string::npos) ++failures;
            }
            return failures == 2;
        },
        boundMs));
    EXPECT_EQ("192", Unsent());

    // The logger daemon comes back: the next update forwards everything.
    silent.reset();
    test::UnixPeer logger(test::kLoggerSocket, test::UnixPeer::kReply, std::string(12, '\0'), 8);
    std::unique_ptr<HttpTestServer> last = Server();
    test::WriteSystemSetting(kPlant, last->Url("/schedule"), false);
    EXPECT_EQ(test::UpdateAnswer(CommandWire::kUpdateSchedule), Ask(test::kUpdateScheduleRequest));
    EXPECT_TRUE(test::WaitFor([] { return Unsent() == "0"; }, boundMs));
    EXPECT_EQ(1, logger.Connections());
    EXPECT_TRUE(daemon_.Running());
}

INSTANTIATE_TEST_SUITE_P(LoggerDaemonFault, LoggerDaemonFaultTest,
                         ::testing::Values(LoggerFault::kAbsent, LoggerFault::kRefusing, LoggerFault::kSilent),
                         [](const ::testing::TestParamInfo<LoggerFault>& faultInfo) {
                             std::ostringstream name;
                             name << faultInfo.param;
                             return name.str();
                         });

} // namespace
} // namespace brvo
