// The real pvocd against a schedule server that fails in every way a
// network peer can: down, stalling, answering garbage, answering 5xx, or
// hanging up in the middle of its body. Each time the client of the
// command socket gets the failure the flow defines, the stored schedule
// stays exactly as it was, the failure is logged, and the next request is
// served as if nothing had happened.
#include "support/ChildProcess.h"
#include "support/DaemonClient.h"
#include "support/HttpTestServer.h"
#include "support/SchedulePayload.h"
#include "support/SqliteFile.h"
#include "support/TestFiles.h"
#include "support/UnixPeer.h"

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <functional>
#include <future>
#include <memory>

namespace brvo {
namespace {

using test::Ask;
using test::Capacity;
using test::Field;
using test::HttpTestServer;
using test::PowerOf;
using test::ScheduleServerAnswer;
using test::Word;
using test::WordAt;

const std::string kPlant = "00000000000000000000000777";
const std::string kTag = "ScheduleUpdateManager";
const int kRate = 60;
const std::size_t kSlots = 3 * 48;
// Bytes of a payload before the first rate: record count, reserved, plant
// ID, start and slot count.
const std::size_t kBytesBeforeRates = 6 + 10 + 26 + 12 + 5;

// A schedule from yesterday to the end of tomorrow (UTC), so that a slot is
// current whenever the test runs.
test::ScheduleRecord CoveringRecord() {
    return test::CurrentUpdateRecord(kRate, kSlots);
}

// A fixed schedule after the update schedule's end.
test::ScheduleRecord LaterFixedRecord() {
    return test::FixedRecordAhead(30, 3);
}

// The payload bytes of `record` as an update schedule.
std::string PayloadText(const test::ScheduleRecord& record) {
    return test::BytesText(test::BuildSchedulePayload({record}, test::kUpdateSchedule).bytes);
}

// A schedule answer with the same times as the stored one but another
// rate: storing it would be seen.
std::string OtherRateAnswer() {
    test::ScheduleRecord record = CoveringRecord();
    record.rates = std::vector<int>(kSlots, 25);
    return ScheduleServerAnswer(record, test::kUpdateSchedule);
}

// `answer` cut after `keep` bytes of its body, whatever its header
// announces.
std::string CutBody(const std::string& answer, std::size_t keep) {
    return answer.substr(0, answer.find("\r\n\r\n") + 4 + keep);
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

class ScheduleServerFaultTest : public ::testing::Test {
protected:
    void SetUp() override {
        test::WriteLoggerSetting("<OutputScheduleEnableLogBufferedIO>0</OutputScheduleEnableLogBufferedIO>"
                                 "<OutputControlSocketTimeout>5</OutputControlSocketTimeout>");
        test::WriteFile("/sys/class/net/eth0/address", "00:1a:2b:3c:4d:5e\n");
        test::WriteFile(test::kLoggerSocket + ".keep", "");
        logger_.reset(new test::UnixPeer(test::kLoggerSocket, test::UnixPeer::kReply, std::string(12, '\0'), 8));
    }

    void TearDown() override {
        if (daemon_.Running()) {
            daemon_.Signal(SIGTERM);
            daemon_.WaitExit(5000);
        }
    }

    // Starts the daemon against a good server and waits until it stored
    // both schedules and forwarded them.
    void StartWithStoredSchedule() {
        good_.reset(new HttpTestServer({ScheduleServerAnswer(CoveringRecord(), test::kUpdateSchedule),
                                        ScheduleServerAnswer(LaterFixedRecord(), test::kFixedSchedule)}));
        test::WriteSystemSetting(kPlant, good_->Url("/schedule"), false);
        ASSERT_TRUE(test::StartDaemon(daemon_, test::kDaemonOutput));
        const std::string all = std::to_string(kSlots + 48);
        ASSERT_TRUE(test::WaitFor([&] {
            return test::QueryValue(test::kScheduleDbFile,
                                    "SELECT COUNT(*) FROM output_control_schedule WHERE sent = 1") == all;
        }, 15000)) << test::ReadFile(test::kDaemonOutput);
        schedule_ = test::ScheduleRows();
        info_ = test::UpdateInfoRows();
        ASSERT_EQ(1u, info_.size());
    }

    // The stored schedule and update information are those stored at
    // start.
    void ExpectNothingStored() {
        EXPECT_EQ(schedule_, test::ScheduleRows());
        EXPECT_EQ(info_, test::UpdateInfoRows());
    }

    // The current target power is the stored slot's, at once.
    static void ExpectCurrentTargetPower() {
        const std::string answer = Ask(test::kCurrentTargetPowerRequest, Capacity(10.0));
        ASSERT_EQ(test::kTargetPowerAnswerSize, answer.size());
        EXPECT_EQ(0, WordAt(answer, 31)) << answer.substr(39);
        EXPECT_DOUBLE_EQ(10.0 * kRate / 100.0, PowerOf(answer));
    }

    // An update request against the good server succeeds again.
    void ExpectUpdateWorksAgain() {
        HttpTestServer server({ScheduleServerAnswer(CoveringRecord(), test::kUpdateSchedule),
                               ScheduleServerAnswer(LaterFixedRecord(), test::kFixedSchedule)});
        test::WriteSystemSetting(kPlant, server.Url("/schedule"), false);
        EXPECT_EQ(Word(144) + Word(2) + Word(0) + Word(0) + std::string(128, '\0'),
                  Ask(test::kUpdateScheduleRequest));
        EXPECT_EQ(2u, server.Requests().size());
    }

    static bool LogHasWarning(const std::string& prefix) {
        return test::WaitFor([&] {
            return test::HasLogLineStarting(test::ReadLines(test::LogFilePath()), "W", kTag, prefix);
        }, 3000);
    }

    test::ChildProcess daemon_;
    std::unique_ptr<test::UnixPeer> logger_;
    std::unique_ptr<HttpTestServer> good_;
    std::vector<std::vector<std::string>> schedule_;
    std::vector<std::vector<std::string>> info_;
};

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
    EXPECT_EQ(2, WordAt(reply, 4));
    EXPECT_EQ(fault.reason, WordAt(reply, 8));
    EXPECT_EQ(fault.status, WordAt(reply, 12));
    if (fault.messageIsPrefix) {
        EXPECT_EQ(0u, reply.substr(16).find(fault.message)) << reply.substr(16);
    } else {
        EXPECT_EQ(Field(fault.message, 128), reply.substr(16));
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

const std::string kAccessFailed = "schedule server access failed. EXCEPTION[";
const std::string kAccessLogged = "Schedule update failed. [ServerAccessResult [false]";

INSTANTIATE_TEST_SUITE_P(
    ScheduleServerFault, ServerFaultTest,
    ::testing::Values(
        ServerFault{"Down", [] { return std::string(); }, 1, 0, kAccessFailed, true, kAccessLogged},
        ServerFault{"ServerError",
                    [] { return HttpTestServer::Answer(503, "text/plain", "busy"); },
                    1, 503, "Data is not found.", false, kAccessLogged},
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
                    [] { return HttpTestServer::Answer(200, "text/html", "<html><body>maintenance</body></html>"); },
                    2, 200, "", false, "Schedule update failed. []"},
        ServerFault{"PartWithoutLength",
                    [] {
                        return HttpTestServer::Answer(
                            200, test::MultipartContentType("b"),
                            test::MultipartBody("b", {"Content-Type: application/octet-stream"},
                                                PayloadText(CoveringRecord())));
                    },
                    2, 200, "No Content-Length parameter.", false,
                    "Schedule update failed. [No Content-Length parameter.]"},
        ServerFault{"TextInsteadOfSchedule",
                    [] {
                        return HttpTestServer::Answer(200, test::MultipartContentType("b"),
                                                      test::TextPartBody("b", "702"));
                    },
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
        // headers: what is missing reads as zeros and holds no content.
        ServerFault{"HangUpInPartHeaders",
                    [] {
                        const std::string full = OtherRateAnswer();
                        const std::string body = full.substr(full.find("\r\n\r\n") + 4);
                        return CutBody(full, body.find("Content-Length:") + 10);
                    },
                    2, 200, "", false, "Schedule update failed. []"}),
    [](const ::testing::TestParamInfo<ServerFault>& info) { return std::string(info.param.name); });

// A hang-up in the middle of the rates: the missing bytes read as zeros, so
// the stored checksum no longer matches and nothing is stored.
TEST_F(ScheduleServerFaultTest, HangUpInsideTheRatesStoresNothing) {
    StartWithStoredSchedule();
    if (HasFatalFailure()) return;
    test::ScheduleRecord record = CoveringRecord();
    record.rates = std::vector<int>(kSlots, 25);
    const std::string full = ScheduleServerAnswer(record, test::kUpdateSchedule);
    const std::string payload = PayloadText(record);
    const std::size_t payloadAt = full.find(payload);
    ASSERT_NE(std::string::npos, payloadAt);
    // Keep `rates` rates whose sum, like all the zeros after them, does
    // not happen to give the zero checksum the missing bytes read as.
    const int divisor = std::stoi(record.start.substr(4, 2)) + std::stoi(record.start.substr(6, 2));
    std::size_t rates = 1;
    while (rates < kSlots && (25 * rates) % static_cast<std::size_t>(divisor) == 0) ++rates;
    ASSERT_LT(rates, kSlots);
    const std::size_t bodyAt = full.find("\r\n\r\n") + 4;
    HttpTestServer server(CutBody(full, payloadAt - bodyAt + kBytesBeforeRates + rates));
    test::WriteSystemSetting(kPlant, server.Url("/schedule"), false);

    const std::string reply = Ask(test::kUpdateScheduleRequest);
    ASSERT_EQ(test::kUpdateAnswerSize, reply.size());
    EXPECT_EQ(3, WordAt(reply, 8));
    EXPECT_EQ(200, WordAt(reply, 12));
    EXPECT_EQ(Field("Output rate data Checksum error.", 128), reply.substr(16));
    ExpectNothingStored();
    ExpectCurrentTargetPower();
    ExpectUpdateWorksAgain();
}

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

    std::future<std::string> update =
        std::async(std::launch::async, [] { return Ask(test::kUpdateScheduleRequest); });
    ASSERT_TRUE(test::WaitFor([&] { return server.Requests().size() == 1; }, stallMs));
    ExpectCurrentTargetPower();
    EXPECT_EQ(test::kUpdateAnswerSize, Ask(test::kFlushLogRequest).size());
    EXPECT_EQ(std::future_status::timeout, update.wait_for(std::chrono::milliseconds(0)))
        << "the update did not wait for the stalled server";

    const std::string reply = update.get();
    ASSERT_EQ(test::kUpdateAnswerSize, reply.size());
    EXPECT_EQ(1, WordAt(reply, 8));
    EXPECT_EQ(0, WordAt(reply, 12));
    EXPECT_EQ(0u, reply.substr(16).find(kAccessFailed)) << reply.substr(16);
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

    std::future<std::string> update =
        std::async(std::launch::async, [] { return Ask(test::kUpdateScheduleRequest); });
    ASSERT_TRUE(test::WaitFor([&] { return slow.Requests().size() == 1; }, slowMs));
    // The fixed schedule that follows comes from the prompt server.
    test::WriteSystemSetting(kPlant, fixed.Url("/schedule"), false);
    ExpectCurrentTargetPower();
    EXPECT_EQ(std::future_status::timeout, update.wait_for(std::chrono::milliseconds(0)));

    EXPECT_EQ(Word(144) + Word(2) + Word(0) + Word(0) + std::string(128, '\0'), update.get());
    EXPECT_EQ(std::to_string(kSlots), test::QueryValue(test::kScheduleDbFile,
                                                       "SELECT COUNT(*) FROM output_control_schedule "
                                                       "WHERE controlRate = 25"));
}

} // namespace
} // namespace brvo
