// The real pvocd against schedule answers that are well-formed HTTP but
// carry a payload that is cut short, overflows its counts, announces far
// more slots than a schedule can hold, repeats one skipped record many
// thousand times, or dates its schedule outside the service years. Each
// is refused: nothing is stored, the logger daemon is not told, the target
// power stays what the stored schedule says, memory and log stay bounded.
#include "server/CommandWire.h"
#include "support/ChildProcess.h"
#include "support/DaemonClient.h"
#include "support/HttpTestServer.h"
#include "support/ProcessStatus.h"
#include "support/SchedulePayload.h"
#include "support/SqliteFile.h"
#include "support/TestFiles.h"
#include "support/UnixPeer.h"
#include "system/ScheduleServerFixture.h"

#include <gtest/gtest.h>

#include <csignal>
#include <memory>

namespace brvo {
namespace {

using test::Ask;
using test::HttpTestServer;
using test::WordAt;

const std::string kTag = "ScheduleUpdateManager";
// Bytes of a payload before the first slot count byte: record count,
// reserved, plant ID and start.
const std::size_t kBytesBeforeSlotCount = 6 + 10 + 26 + 12;

// A schedule answer carrying `payload` as its binary part, with the part's
// Content-Length saying `declared` bytes.
std::string AnswerDeclaring(const std::string& payload, std::size_t declared) {
    return HttpTestServer::Answer(
        200, test::MultipartContentType("b"),
        test::MultipartBody(
            "b", {"Content-Type: application/octet-stream", "Content-Length: " + std::to_string(declared)}, payload));
}

std::string AnswerOf(const std::string& payload) {
    return AnswerDeclaring(payload, payload.size());
}

class BoundedPayloadTest : public test::ScheduleServerFixture {
protected:
    void SetUp() override {
        ScheduleServerFixture::SetUp();
        StartWithStoredSchedule();
        startedKiB_ = test::ResidentKiB(daemon_.Pid());
    }

    // Asks for a schedule update against a server answering `answer`;
    // returns the reply after checking it is a failure, that nothing was
    // stored and that the logger daemon heard nothing of it.
    std::string RefusedUpdate(const std::string& answer) {
        HttpTestServer server(answer);
        test::WriteSystemSetting(test::kServerTestPlant, server.Url("/schedule"), false);
        const int told = logger_->Connections();
        const std::string reply = Ask(test::kUpdateScheduleRequest);
        EXPECT_EQ(test::kUpdateAnswerSize, reply.size());
        if (reply.size() != test::kUpdateAnswerSize) return reply;
        EXPECT_EQ(2, WordAt(reply, CommandWire::kAnswerTypeOffset));
        EXPECT_NE(0, WordAt(reply, CommandWire::kUpdateReasonOffset)) << "accepted";
        // A later request is served after the refused one ended.
        EXPECT_EQ(test::kUpdateAnswerSize, Ask(test::kFlushLogRequest).size());
        EXPECT_EQ(told, logger_->Connections());
        ExpectNothingStored();
        ExpectCurrentTargetPower();
        return reply;
    }

    static void ExpectFailure(const std::string& reply, std::int32_t reason, const std::string& message) {
        ASSERT_EQ(test::kUpdateAnswerSize, reply.size());
        EXPECT_EQ(reason, WordAt(reply, CommandWire::kUpdateReasonOffset));
        EXPECT_EQ(test::Field(message, CommandWire::kMessageSize), reply.substr(CommandWire::kUpdateMessageOffset));
    }

    std::int64_t startedKiB_ = 0;
};

// Another rate over the stored times: storing it would show.
test::ScheduleRecord OtherRateRecord() {
    test::ScheduleRecord record = test::CoveringRecord();
    record.rates = std::vector<int>(test::kStoredSlots, 25);
    return record;
}

TEST_F(BoundedPayloadTest, PartDeclaringMoreThanItHoldsIsRefused) {
    const std::string payload = test::PayloadText(OtherRateRecord());
    const std::string kept = payload.substr(0, payload.size() / 2);
    // The part says the whole payload's length, the HTTP answer says
    // exactly what is sent: the part content is short by its second half.
    // Received after the part's headers: the half, its line end and the
    // closing delimiter line (9 bytes).
    const std::string reply = RefusedUpdate(AnswerDeclaring(kept, payload.size()));
    ExpectFailure(reply, 2,
                  "Parser error. part is truncated. Content-Length[" + std::to_string(payload.size()) + "] received[" +
                      std::to_string(kept.size() + 9) + "]");
}

TEST_F(BoundedPayloadTest, PayloadCutShortIsRefused) {
    const std::string payload = test::PayloadText(OtherRateRecord());
    ExpectFailure(RefusedUpdate(AnswerOf(payload.substr(0, payload.size() - 1))), 3,
                  "Schedule data error. data is truncated.");
}

TEST_F(BoundedPayloadTest, OverflowedCountsAreRefused) {
    std::string records = test::PayloadText(OtherRateRecord());
    records.replace(0, test::kRecordCountBytes, std::string(test::kRecordCountBytes, '\xff'));
    ExpectFailure(RefusedUpdate(AnswerOf(records)), 3,
                  "Schedule data error. number out of range. [255255255255255255]");

    std::string slots = test::PayloadText(OtherRateRecord());
    slots.replace(kBytesBeforeSlotCount, test::kSlotCountBytes, std::string(test::kSlotCountBytes, '\xff'));
    ExpectFailure(RefusedUpdate(AnswerOf(slots)), 3, "Schedule data error. number out of range. [255255255255255]");
}

TEST_F(BoundedPayloadTest, StartOutsideTheServiceYearsIsRefused) {
    test::ScheduleRecord record = OtherRateRecord();
    record.start = "210101010000";
    record.nextUpdate = "21010102000000";
    ExpectFailure(RefusedUpdate(test::ScheduleServerAnswer(record, test::kUpdateSchedule)), 3,
                  "Schedule start date error. [210101010000]");
}

// A million slots in one record (the slot count bytes 100, 0, 0, 0, 0 read
// "1000000"), about a megabyte: refused without the memory a million slots
// would take, by whichever layer sees it first.
TEST_F(BoundedPayloadTest, MillionSlotsAreRefusedWithinTheMemoryBound) {
    test::ScheduleRecord record = OtherRateRecord();
    record.rates = std::vector<int>(1000000, 25);
    record.slotCountOverride = 0;
    std::string payload = test::PayloadText(record);
    payload.replace(kBytesBeforeSlotCount, test::kSlotCountBytes, std::string("\x64\0\0\0\0", 5));
    RefusedUpdate(AnswerOf(payload));
    if (test::MemoryIsMeasurable()) {
        EXPECT_LE(test::PeakResidentKiB(daemon_.Pid()), test::MemoryBoundKiB(startedKiB_));
    }
    EXPECT_TRUE(daemon_.Running());
}

// Thousands of records that are each the same skip (a start at a quarter
// past): two log lines for all of them, and the log's earlier lines stay.
TEST_F(BoundedPayloadTest, RepeatedSkippedRecordsLeaveTheLogAlone) {
    std::vector<std::string> before;
    ASSERT_TRUE(test::WaitFor(
        [&] {
            before = test::ReadLines(test::LogFilePath());
            return !before.empty();
        },
        3000));
    const std::size_t records = 7000;
    std::vector<unsigned char> period = test::DigitBytes("202201191215", test::kStartBytes);
    period.resize(test::kReservedBytes + test::kPlantIdBytes, 0);
    std::vector<unsigned char> bytes = test::DigitBytes(std::to_string(records), test::kRecordCountBytes);
    for (std::size_t i = 0; i < records; ++i) bytes.insert(bytes.end(), period.begin(), period.end());
    bytes.insert(bytes.end(), period.begin(), period.begin() + test::kStartBytes);

    ExpectFailure(RefusedUpdate(AnswerOf(test::BytesText(bytes))), 4, "Schedule data is nothing.");
    const std::string repeated = "Schedule start date error. [202201191215] repeated for 6999 more record(s).";
    std::vector<std::string> after;
    EXPECT_TRUE(test::WaitFor(
        [&] {
            after = test::ReadLines(test::LogFilePath());
            return test::HasLogLine(after, "W", kTag, repeated);
        },
        3000));
    EXPECT_EQ(before.front(), after.front());
    std::size_t about = 0;
    for (const std::string& line : after) {
        if (line.find("Schedule start date error. [202201191215]") != std::string::npos) ++about;
    }
    EXPECT_EQ(2u, about);
}

} // namespace
} // namespace brvo
