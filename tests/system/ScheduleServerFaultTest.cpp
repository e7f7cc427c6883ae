// The real pvocd against a schedule server that fails in every way a
// network peer can: down, stalling, answering garbage, answering 5xx, or
// hanging up in the middle of its body. Each time the client of the
// command socket gets the failure the flow defines, the stored schedule
// stays exactly as it was, the failure is logged, and the next request is
// served as if nothing had happened.
#include "server/CommandWire.h"
#include "support/DaemonClient.h"
#include "support/HttpTestServer.h"
#include "support/SchedulePayload.h"
#include "support/SqliteFile.h"
#include "support/TestFiles.h"
#include "system/ScheduleServerFixture.h"

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <future>
#include <memory>

namespace brvo {
namespace {

using test::Ask;
using test::CoveringRecord;
using test::CutBody;
using test::Field;
using test::HttpTestServer;
using test::kAccessFailed;
using test::kAccessLogged;
using test::kStoredSlots;
using test::LaterFixedRecord;
using test::PayloadText;
using test::ScheduleServerAnswer;
using test::Word;
using test::WordAt;

const std::string kPlant = test::kServerTestPlant;
const std::size_t kSlots = kStoredSlots;

// A schedule answer with the same times as the stored one but another
// rate: storing it would be seen.
std::string OtherRateAnswer() {
    test::ScheduleRecord record = CoveringRecord();
    record.rates = std::vector<int>(kSlots, 25);
    return ScheduleServerAnswer(record, test::kUpdateSchedule);
}

// One way the server fails, and what the client and the log must show.
struct ServerFault {
    const char* name;
    // The answer, or empty for a server that is not there at all.
    std::function<std::string()> answer;
    std::int32_t reason;
    std::int32_t status;
    // The answer's message: exactly this, or beginning with it.
    std::string message;
    bool messageIsPrefix;
    // The warning of the failed flow begins with this.
    std::string logged;
};

std::ostream& operator<<(std::ostream& out, const ServerFault& fault) {
    return out << fault.name;
}

class ScheduleServerFaultTest : public test::ScheduleServerFixture {};

class ServerFaultTest : public ScheduleServerFaultTest, public ::testing::WithParamInterface<ServerFault> {};

TEST_P(ServerFaultTest, ClientGetsTheFailureAndNothingIsStored) {
    const ServerFault& fault = GetParam();
    StartWithStoredSchedule();
    if (HasFatalFailure()) return;

    std::unique_ptr<HttpTestServer> server;
    std::string url = "http://127.0.0.1:" + std::to_string(test::ClosedPort()) + "/schedule";
    const std::string answer = fault.answer();
    if (!answer.empty()) {
        server.reset(new HttpTestServer(answer));
        url = server->Url("/schedule");
    }
    test::WriteSystemSetting(kPlant, url, false);

    const std::string reply = Ask(test::kUpdateScheduleRequest);
    ASSERT_EQ(test::kUpdateAnswerSize, reply.size());
    EXPECT_EQ(2, WordAt(reply, CommandWire::kAnswerTypeOffset));
    EXPECT_EQ(fault.reason, WordAt(reply, CommandWire::kUpdateReasonOffset));
    EXPECT_EQ(fault.status, WordAt(reply, CommandWire::kUpdateStatusOffset));
    if (fault.messageIsPrefix) {
        EXPECT_EQ(0u, reply.substr(CommandWire::kUpdateMessageOffset).find(fault.message))
            << reply.substr(CommandWire::kUpdateMessageOffset);
    } else {
        EXPECT_EQ(Field(fault.message, CommandWire::kMessageSize), reply.substr(CommandWire::kUpdateMessageOffset));
    }
    if (server) {
        EXPECT_EQ(1u, server->Requests().size());
    }
    EXPECT_TRUE(LogHasWarning(fault.logged)) << test::ReadFile(test::LogFilePath());

    ExpectNothingStored();
    ExpectCurrentTargetPower();
    ExpectUpdateWorksAgain();
    EXPECT_TRUE(daemon_.Running());
}

INSTANTIATE_TEST_SUITE_P(
    ScheduleServerFault, ServerFaultTest,
    ::testing::Values(
        ServerFault{"Down", [] { return std::string(); }, 1, 0, kAccessFailed, true, kAccessLogged},
        ServerFault{"ServerError", [] { return HttpTestServer::Answer(503, "text/plain", "busy"); }, 1, 503,
                    "Data is not found.", false, kAccessLogged},
        // The schedule itself, but under a type that names no boundary:
        // no line is a delimiter, and the lines run past the text, which
        // ends at the payload's first zero byte.
        ServerFault{"WrongContentType",
                    [] {
                        return HttpTestServer::Answer(200, "application/octet-stream",
                                                      test::BinaryPartBody("b", PayloadText(CoveringRecord())));
                    },
                    2, 200, "Parser error. exception", false, "Schedule update failed. [Parser error. exception]"},
        ServerFault{"HtmlPage",
                    [] { return HttpTestServer::Answer(200, "text/html", "<html><body>maintenance</body></html>"); }, 2,
                    200, "", false, "Schedule update failed. []"},
        ServerFault{
            "PartWithoutLength",
            [] {
                return HttpTestServer::Answer(200, test::MultipartContentType("b"),
                                              test::MultipartBody("b", {"Content-Type: application/octet-stream"},
                                                                  PayloadText(CoveringRecord())));
            },
            2, 200, "No Content-Length parameter.", false, "Schedule update failed. [No Content-Length parameter.]"},
        ServerFault{
            "TextInsteadOfSchedule",
            [] { return HttpTestServer::Answer(200, test::MultipartContentType("b"), test::TextPartBody("b", "702")); },
            2, 200, "702", false, "Schedule update failed. [702]"},
        ServerFault{"PayloadTooShort",
                    [] {
                        return HttpTestServer::Answer(200, test::MultipartContentType("b"),
                                                      test::BinaryPartBody("b", std::string("\x01\x02", 2)));
                    },
                    3, 200, "data is missing.", false, "Schedule parse failed. [data is missing.]"},
        ServerFault{"ChecksumWrong",
                    [] {
                        test::ScheduleRecord record = CoveringRecord();
                        record.rates = std::vector<int>(kSlots, 0);
                        record.corruptChecksum = true;
                        return ScheduleServerAnswer(record, test::kUpdateSchedule);
                    },
                    3, 200, "Output rate data Checksum error.", false,
                    "Schedule parse failed. [Output rate data Checksum error.]"},
        // The full length announced, then a hang-up inside the part's
        // headers: the answer is incomplete, so the exchange failed.
        ServerFault{"HangUpInPartHeaders",
                    [] {
                        const std::string full = OtherRateAnswer();
                        const std::string body = full.substr(full.find("\r\n\r\n") + 4);
                        return CutBody(full, body.find("Content-Length:") + 10);
                    },
                    1, 0, kAccessFailed + "I/O error: answer ended after ", true, kAccessLogged}),
    [](const ::testing::TestParamInfo<ServerFault>& faultInfo) { return std::string(faultInfo.param.name); });

// A server that takes the request and then says nothing: the requesting
// client waits for the exchange, every other client is served meanwhile,
// and when the server gives up without an answer the client gets the
// access failure.
TEST_F(ScheduleServerFaultTest, StalledServerBlocksOnlyItsOwnClient) {
    StartWithStoredSchedule();
    if (HasFatalFailure()) return;
    const int stallMs = static_cast<int>(3000 * test::TimeScale());
    HttpTestServer server(std::string(), stallMs);
    test::WriteSystemSetting(kPlant, server.Url("/schedule"), false);

    std::future<std::string> update = std::async(std::launch::async, [] { return Ask(test::kUpdateScheduleRequest); });
    ASSERT_TRUE(test::WaitFor([&] { return server.Requests().size() == 1; }, stallMs));
    ExpectCurrentTargetPower();
    EXPECT_EQ(test::kUpdateAnswerSize, Ask(test::kFlushLogRequest).size());
    EXPECT_EQ(std::future_status::timeout, update.wait_for(std::chrono::milliseconds(0)))
        << "the update did not wait for the stalled server";

    const std::string reply = update.get();
    ASSERT_EQ(test::kUpdateAnswerSize, reply.size());
    EXPECT_EQ(1, WordAt(reply, CommandWire::kUpdateReasonOffset));
    EXPECT_EQ(0, WordAt(reply, CommandWire::kUpdateStatusOffset));
    EXPECT_EQ(0u, reply.substr(CommandWire::kUpdateMessageOffset).find(kAccessFailed))
        << reply.substr(CommandWire::kUpdateMessageOffset);
    EXPECT_TRUE(LogHasWarning(kAccessLogged));
    ExpectNothingStored();
    ExpectCurrentTargetPower();
    ExpectUpdateWorksAgain();
}

// A slow server that does answer in the end: its schedule is stored, and
// nobody else waited for it.
TEST_F(ScheduleServerFaultTest, SlowServerIsWaitedForWithoutBlockingOthers) {
    StartWithStoredSchedule();
    if (HasFatalFailure()) return;
    const int slowMs = static_cast<int>(2000 * test::TimeScale());
    test::ScheduleRecord record = CoveringRecord();
    record.rates = std::vector<int>(kSlots, 25);
    HttpTestServer fixed(ScheduleServerAnswer(LaterFixedRecord(), test::kFixedSchedule));
    HttpTestServer slow(ScheduleServerAnswer(record, test::kUpdateSchedule), slowMs);
    test::WriteSystemSetting(kPlant, slow.Url("/schedule"), false);

    std::future<std::string> update = std::async(std::launch::async, [] { return Ask(test::kUpdateScheduleRequest); });
    ASSERT_TRUE(test::WaitFor([&] { return slow.Requests().size() == 1; }, slowMs));
    // The fixed schedule that follows comes from the prompt server.
    test::WriteSystemSetting(kPlant, fixed.Url("/schedule"), false);
    ExpectCurrentTargetPower();
    EXPECT_EQ(std::future_status::timeout, update.wait_for(std::chrono::milliseconds(0)));

    EXPECT_EQ(test::UpdateAnswer(CommandWire::kUpdateSchedule), update.get());
    EXPECT_EQ(std::to_string(kSlots),
              test::QueryValue(test::kScheduleDbFile, "SELECT COUNT(*) FROM output_control_schedule "
                                                      "WHERE controlRate = 25"));
}

} // namespace
} // namespace brvo
