// The real pvocd against schedule servers that try to make one exchange
// more than it may be: an answer cut short with its full length announced,
// an answer trickled a byte a second, an answer far larger than any
// schedule, and server addresses that would put lines of their own on the
// wire or speak another protocol. Each exchange fails as an access failure,
// nothing is stored or forwarded, and the daemon goes on answering from what
// it stored.
#include "server/CommandWire.h"
#include "support/DaemonClient.h"
#include "support/HttpTestServer.h"
#include "support/ProcessStatus.h"
#include "support/SchedulePayload.h"
#include "support/TestFiles.h"
#include "system/ScheduleServerFixture.h"

#include <gtest/gtest.h>

#include <Poco/Thread.h>
#include <Poco/Timestamp.h>

#include <chrono>
#include <future>
#include <string>

namespace brvo {
namespace {

using test::Ask;
using test::Field;
using test::HttpTestServer;
using test::kAccessFailed;
using test::kAccessLogged;
using test::ScheduleServerAnswer;
using test::WordAt;

const std::string kPlant = test::kServerTestPlant;
const std::string kCheckFailed = "Check plant id failed. [ServerAccessResult [false]";
// A clock ten times as fast as the real one: the exchange's 60 s pass in
// some 6 s.
const char kFastClock[] = "+0 x10";

// The answer to an update schedule request for yesterday's 48 slots at
// 25 %, cut after `rates` of its rates; the announced length is kept.
std::string CutScheduleAnswer(std::size_t rates) {
    const test::ScheduleRecord record = test::CurrentUpdateRecord(25, 48);
    const std::string full = ScheduleServerAnswer(record, test::kUpdateSchedule);
    const std::size_t bodyAt = full.find("\r\n\r\n") + 4;
    const std::size_t payloadAt = full.find(test::PayloadText(record));
    return test::CutBody(full, payloadAt - bodyAt + test::kBytesBeforeRates + rates);
}

// A plant check answer that says "registered" (a part of zero bytes), cut
// right after its part headers; the announced length is kept, so the
// missing part would read as zeros.
std::string CutRegisteredAnswer() {
    const std::string full =
        HttpTestServer::Answer(200, test::MultipartContentType("b"), test::BinaryPartBody("b", std::string(40, '\0')));
    const std::string body = full.substr(full.find("\r\n\r\n") + 4);
    return test::CutBody(full, body.find("\r\n\r\n") + 4);
}

// The parameters of a plant check of `url`.
std::string CheckParams(const std::string& url) {
    return CommandWire::EncodeCheckPlantIdBlock("777", url);
}

class BoundedExchangeTest : public test::ScheduleServerFixture {
protected:
    // Asks for an update against `server` and expects the access failure
    // whose library text begins with `text`.
    void ExpectUpdateFails(const HttpTestServer& server, const std::string& text) {
        test::WriteSystemSetting(kPlant, server.Url("/schedule"), false);
        ExpectAccessFailure(Ask(test::kUpdateScheduleRequest), text);
        EXPECT_TRUE(LogHasWarning(kAccessLogged)) << test::ReadFile(test::LogFilePath());
    }

    // `reply` is the answer of a flow whose exchange failed with the
    // library text beginning with `text`.
    static void ExpectAccessFailure(const std::string& reply, const std::string& text) {
        ASSERT_EQ(test::kUpdateAnswerSize, reply.size());
        EXPECT_EQ(1, WordAt(reply, CommandWire::kUpdateReasonOffset));
        EXPECT_EQ(0, WordAt(reply, CommandWire::kUpdateStatusOffset));
        EXPECT_EQ(0u, reply.substr(CommandWire::kUpdateMessageOffset).find(kAccessFailed + text))
            << reply.substr(CommandWire::kUpdateMessageOffset);
    }

    // The stored schedule is kept, nothing was forwarded since `told`
    // connections to the logger daemon, and the daemon still answers and
    // takes a good schedule.
    void ExpectKeptAndServing(int told) {
        ExpectNothingStored();
        EXPECT_EQ(told, logger_->Connections());
        ExpectCurrentTargetPower();
        ExpectUpdateWorksAgain();
        EXPECT_TRUE(daemon_.Running());
    }
};

TEST_F(BoundedExchangeTest, AnswerCutInsideTheRatesIsNotStored) {
    StartWithStoredSchedule();
    if (HasFatalFailure()) return;
    const int told = logger_->Connections();
    HttpTestServer server(CutScheduleAnswer(17));
    ExpectUpdateFails(server, "I/O error: answer ended after ");
    EXPECT_EQ(1u, server.Requests().size());
    ExpectKeptAndServing(told);
}

TEST_F(BoundedExchangeTest, StartUpFetchOfACutAnswerStoresNothing) {
    HttpTestServer server(CutScheduleAnswer(17));
    test::WriteSystemSetting(kPlant, server.Url("/schedule"), false);
    ASSERT_TRUE(test::StartDaemon(daemon_, test::kDaemonOutput));
    ASSERT_TRUE(LogHasWarning(kAccessLogged)) << test::ReadFile(test::LogFilePath());
    EXPECT_TRUE(test::ScheduleRows().empty());
    EXPECT_EQ(0, logger_->Connections());
    const std::string answer = Ask(test::kCurrentTargetPowerRequest, test::Capacity(10.0));
    EXPECT_EQ(test::kTargetPowerAnswerSize, answer.size());
    EXPECT_NE(0, WordAt(answer, CommandWire::kTargetCodeOffset));
    // Nothing was kept from the cut answer; a complete one is taken.
    ExpectUpdateWorksAgain();
    ExpectCurrentTargetPower();
    EXPECT_TRUE(daemon_.Running());
}

// A check answer cut before its part would read as "registered".
TEST_F(BoundedExchangeTest, PlantCheckAnswerCutAfterItsPartHeadersIsAFailure) {
    StartWithStoredSchedule();
    if (HasFatalFailure()) return;
    const int told = logger_->Connections();
    HttpTestServer server(CutRegisteredAnswer());
    ExpectAccessFailure(Ask(test::kCheckPlantIdRequest, CheckParams(server.Url("/check"))),
                        "I/O error: answer ended after ");
    EXPECT_TRUE(test::WaitFor(
        [] {
            return test::HasLogLineStarting(test::ReadLines(test::LogFilePath()), "W", "ScheduleUpdateManager",
                                            kCheckFailed);
        },
        3000));
    ExpectKeptAndServing(told);
}

// A server that sends its answer a byte a second holds the update only
// until the exchange's deadline; the daemon answers target power meanwhile.
TEST_F(BoundedExchangeTest, TricklingServerIsCutOffAtTheDeadline) {
    StartWithStoredSchedule(test::ChildProcess::FakeTimeEnv(kFastClock));
    if (HasFatalFailure()) return;
    const int told = logger_->Connections();
    HttpTestServer server(CutScheduleAnswer(48));
    server.Drip(1000);
    test::WriteSystemSetting(kPlant, server.Url("/schedule"), false);
    const Poco::Timestamp asked;
    // The client gives up after 55 s of silence, so that a daemon that
    // waits for the whole answer fails the test within its time limit.
    std::future<std::string> update =
        std::async(std::launch::async, [] { return Ask(test::kUpdateScheduleRequest, "", 55000); });
    ASSERT_TRUE(test::WaitFor([&] { return server.Connections() == 1; }, 5000));
    ExpectCurrentTargetPower();
    EXPECT_EQ(std::future_status::timeout, update.wait_for(std::chrono::milliseconds(0)));
    // Some 6 s of real time under the fast clock; the whole answer would
    // take minutes.
    ASSERT_EQ(std::future_status::ready, update.wait_for(std::chrono::seconds(50)));
    EXPECT_LT(asked.elapsed(), 50LL * 1000 * 1000);
    ExpectAccessFailure(update.get(), "Timeout: schedule server exchange exceeded 60 s]");
    EXPECT_TRUE(LogHasWarning(kAccessLogged));
    ExpectKeptAndServing(told);
}

// A CR LF in the server address, raw or encoded, would end the request
// line and start header lines of the address's choosing: the check fails
// before anything reaches the server.
TEST_F(BoundedExchangeTest, LineBreakInThePlantCheckAddressIsRefused) {
    StartWithStoredSchedule();
    if (HasFatalFailure()) return;
    const int told = logger_->Connections();
    HttpTestServer server(CutRegisteredAnswer());
    for (const std::string& tail : {std::string("\r\nX-Injected: 1"), std::string("%0D%0AX-Injected:%201")}) {
        ExpectAccessFailure(Ask(test::kCheckPlantIdRequest, CheckParams(server.Url("/check") + tail)),
                            "Syntax error: server address holds a control character]");
    }
    // A connection would have been accepted within this time.
    Poco::Thread::sleep(300);
    EXPECT_EQ(0, server.Connections());
    ExpectKeptAndServing(told);
}

TEST_F(BoundedExchangeTest, FtpAddressIsRefusedWithoutConnecting) {
    StartWithStoredSchedule();
    if (HasFatalFailure()) return;
    const int told = logger_->Connections();
    HttpTestServer server(CutRegisteredAnswer());
    const std::string url = "ftp://127.0.0.1:" + std::to_string(server.Port()) + "/check";
    ExpectAccessFailure(Ask(test::kCheckPlantIdRequest, CheckParams(url)),
                        "Syntax error: server address is neither http nor https: ftp]");
    Poco::Thread::sleep(300);
    EXPECT_EQ(0, server.Connections());
    ExpectKeptAndServing(told);
}

// An answer of 64 MiB is refused at its announced length: the daemon never
// reserves or reads it.
TEST_F(BoundedExchangeTest, AnswerOf64MiBIsRefused) {
    StartWithStoredSchedule();
    if (HasFatalFailure()) return;
    const std::int64_t startedKiB = test::ResidentKiB(daemon_.Pid());
    const int told = logger_->Connections();
    const std::string huge(64 * 1024 * 1024, 'x');
    HttpTestServer server(HttpTestServer::Answer(200, test::MultipartContentType("b"), huge));
    ExpectUpdateFails(server, "Out of range: answer announces 67108864 bytes, more than the 262144 taken]");
    if (test::MemoryIsMeasurable()) {
        EXPECT_LE(test::PeakResidentKiB(daemon_.Pid()), test::MemoryBoundKiB(startedKiB));
    }
    ExpectKeptAndServing(told);
}

} // namespace
} // namespace brvo
