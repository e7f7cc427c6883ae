// The real pvocd against schedule answers that are well-formed HTTP but
// carry a payload that is cut short, overflows its counts, announces far
// more slots than a schedule can hold, repeats one skipped record many
// thousand times, or dates its schedule outside the service years. Each
// is refused: nothing is stored, the logger daemon is not told, the target
// power stays what the stored schedule says, memory and log stay bounded.
#include "support/ChildProcess.h"
#include "support/DaemonClient.h"
#include "support/HttpTestServer.h"
#include "support/ProcessStatus.h"
#include "support/SchedulePayload.h"
#include "support/SqliteFile.h"
#include "support/TestFiles.h"
#include "support/UnixPeer.h"

#include <gtest/gtest.h>

#include <csignal>
#include <memory>

namespace brvo {
namespace {

using test::Ask;
using test::HttpTestServer;
using test::WordAt;

const std::string kPlant = "00000000000000000000000777";
const std::string kTag = "ScheduleUpdateManager";
const int kRate = 60;
const std::size_t kSlots = 3 * 48;
// Bytes of a payload before the first slot count byte: record count,
// reserved, plant ID and start.
const std::size_t kBytesBeforeSlotCount = 6 + 10 + 26 + 12;

// The payload bytes of `record` as an update schedule.
std::string PayloadBytes(const test::ScheduleRecord& record) {
    return test::BytesText(test::BuildSchedulePayload({record}, test::kUpdateSchedule).bytes);
}

// A schedule answer carrying `payload` as its binary part, with the part's
// Content-Length saying `declared` bytes.
std::string AnswerDeclaring(const std::string& payload, std::size_t declared) {
    return HttpTestServer::Answer(
        200, test::MultipartContentType("b"),
        test::MultipartBody("b", {"Content-Type: application/octet-stream",
                                  "Content-Length: " + std::to_string(declared)},
                            payload));
}

std::string AnswerOf(const std::string& payload) {
    return AnswerDeclaring(payload, payload.size());
}

class BoundedPayloadTest : public ::testing::Test {
protected:
    void SetUp() override {
        test::WriteLoggerSetting("<OutputScheduleEnableLogBufferedIO>0</OutputScheduleEnableLogBufferedIO>"
                                 "<OutputControlSocketTimeout>5</OutputControlSocketTimeout>");
        test::WriteFile("/sys/class/net/eth0/address", "00:1a:2b:3c:4d:5e\n");
        test::WriteFile(test::kLoggerSocket + ".keep", "");
        logger_.reset(new test::UnixPeer(test::kLoggerSocket, test::UnixPeer::kReply, std::string(12, '\0'), 8));
        good_.reset(new HttpTestServer({test::ScheduleServerAnswer(test::CurrentUpdateRecord(kRate, kSlots),
                                                                   test::kUpdateSchedule),
                                        test::ScheduleServerAnswer(test::FixedRecordAhead(30, 3),
                                                                   test::kFixedSchedule)}));
        test::WriteSystemSetting(kPlant, good_->Url("/schedule"), false);
        ASSERT_TRUE(test::StartDaemon(daemon_, test::kDaemonOutput));
        const std::string all = std::to_string(kSlots + 48);
        ASSERT_TRUE(test::WaitFor([&] {
            return test::QueryValue(test::kScheduleDbFile,
                                    "SELECT COUNT(*) FROM output_control_schedule WHERE sent = 1") == all;
        }, 15000)) << test::ReadFile(test::kDaemonOutput);
        schedule_ = test::ScheduleRows();
        info_ = test::UpdateInfoRows();
        startedKiB_ = test::ResidentKiB(daemon_.Pid());
    }

    void TearDown() override {
        if (daemon_.Running()) {
            daemon_.Signal(SIGTERM);
            daemon_.WaitExit(5000);
        }
    }

    // Asks for a schedule update against a server answering `answer`;
    // returns the reply after checking it is a failure, that nothing was
    // stored and that the logger daemon heard nothing of it.
    std::string RefusedUpdate(const std::string& answer) {
        HttpTestServer server(answer);
        test::WriteSystemSetting(kPlant, server.Url("/schedule"), false);
        const int told = logger_->Connections();
        const std::string reply = Ask(test::kUpdateScheduleRequest);
        EXPECT_EQ(test::kUpdateAnswerSize, reply.size());
        if (reply.size() != test::kUpdateAnswerSize) return reply;
        EXPECT_EQ(2, WordAt(reply, 4));
        EXPECT_NE(0, WordAt(reply, 8)) << "accepted";
        // A later request is served after the refused one ended.
        EXPECT_EQ(test::kUpdateAnswerSize, Ask(test::kFlushLogRequest).size());
        EXPECT_EQ(told, logger_->Connections());
        EXPECT_EQ(schedule_, test::ScheduleRows());
        EXPECT_EQ(info_, test::UpdateInfoRows());
        ExpectCurrentTargetPower();
        return reply;
    }

    static void ExpectCurrentTargetPower() {
        const std::string answer = Ask(test::kCurrentTargetPowerRequest, test::Capacity(10.0));
        ASSERT_EQ(test::kTargetPowerAnswerSize, answer.size());
        EXPECT_EQ(0, WordAt(answer, 31));
        EXPECT_DOUBLE_EQ(10.0 * kRate / 100.0, test::PowerOf(answer));
    }

    static void ExpectFailure(const std::string& reply, std::int32_t reason, const std::string& message) {
        ASSERT_EQ(test::kUpdateAnswerSize, reply.size());
        EXPECT_EQ(reason, WordAt(reply, 8));
        EXPECT_EQ(test::Field(message, 128), reply.substr(16));
    }

    test::ChildProcess daemon_;
    std::unique_ptr<test::UnixPeer> logger_;
    std::unique_ptr<HttpTestServer> good_;
    std::vector<std::vector<std::string>> schedule_;
    std::vector<std::vector<std::string>> info_;
    std::int64_t startedKiB_ = 0;
};

// Another rate over the stored times: storing it would show.
test::ScheduleRecord OtherRateRecord() {
    test::ScheduleRecord record = test::CurrentUpdateRecord(kRate, kSlots);
    record.rates = std::vector<int>(kSlots, 25);
    return record;
}

TEST_F(BoundedPayloadTest, PartDeclaringMoreThanItHoldsIsRefused) {
    const std::string payload = PayloadBytes(OtherRateRecord());
    const std::string kept = payload.substr(0, payload.size() / 2);
    // The part says the whole payload's length, the HTTP answer says
    // exactly what is sent: the part content is short by its second half.
    // Received after the part's headers: the half, its line end and the
    // closing delimiter line (9 bytes).
    const std::string reply = RefusedUpdate(AnswerDeclaring(kept, payload.size()));
    ExpectFailure(reply, 2,
                  "Parser error. part is truncated. Content-Length[" + std::to_string(payload.size()) +
                      "] received[" + std::to_string(kept.size() + 9) + "]");
}

TEST_F(BoundedPayloadTest, PayloadCutShortIsRefused) {
    const std::string payload = PayloadBytes(OtherRateRecord());
    ExpectFailure(RefusedUpdate(AnswerOf(payload.substr(0, payload.size() - 1))), 3,
                  "Schedule data error. data is truncated.");
}

TEST_F(BoundedPayloadTest, OverflowedCountsAreRefused) {
    std::string records = PayloadBytes(OtherRateRecord());
    records.replace(0, test::kRecordCountBytes, std::string(test::kRecordCountBytes, '\xff'));
    ExpectFailure(RefusedUpdate(AnswerOf(records)), 3,
                  "Schedule data error. number out of range. [255255255255255255]");

    std::string slots = PayloadBytes(OtherRateRecord());
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
    std::string payload = PayloadBytes(record);
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
    ASSERT_TRUE(test::WaitFor([&] {
        before = test::ReadLines(test::LogFilePath());
        return !before.empty();
    }, 3000));
    const std::size_t records = 7000;
    std::vector<unsigned char> period = test::DigitBytes("202201191215", test::kStartBytes);
    period.resize(test::kReservedBytes + test::kPlantIdBytes, 0);
    std::vector<unsigned char> bytes = test::DigitBytes(std::to_string(records), test::kRecordCountBytes);
    for (std::size_t i = 0; i < records; ++i) bytes.insert(bytes.end(), period.begin(), period.end());
    bytes.insert(bytes.end(), period.begin(), period.begin() + test::kStartBytes);

    ExpectFailure(RefusedUpdate(AnswerOf(test::BytesText(bytes))), 4, "Schedule data is nothing.");
    const std::string repeated = "Schedule start date error. [202201191215] repeated for 6999 more record(s).";
    std::vector<std::string> after;
    EXPECT_TRUE(test::WaitFor([&] {
        after = test::ReadLines(test::LogFilePath());
        return test::HasLogLine(after, "W", kTag, repeated);
    }, 3000));
    EXPECT_EQ(before.front(), after.front());
    std::size_t about = 0;
    for (const std::string& line : after) {
        about += line.find("Schedule start date error. [202201191215]") != std::string::npos ? 1 : 0;
    }
    EXPECT_EQ(2u, about);
}

} // namespace
} // namespace brvo
