// The real pvocd in the sandbox fed with the largest inputs it still
// accepts: two years of day records from the schedule server, and a
// fixed-schedule file as large as a client may hand in. Each is taken
// whole, within the daemon's memory bound, while target power answers.
#include "server/CommandWire.h"
#include "support/ChildProcess.h"
#include "support/CommandClient.h"
#include "support/DaemonClient.h"
#include "support/HttpTestServer.h"
#include "support/ProcessStatus.h"
#include "support/SchedulePayload.h"
#include "support/StoredSchedule.h"
#include "support/TestFiles.h"
#include "util/TimeStamp.h"

#include <gtest/gtest.h>

#include <csignal>

namespace brvo {
namespace {

using test::Field;
using test::WordAt;

const std::string kPlant = "00000000000000000000000555";
const std::int64_t kDay = 86400;
// Two years of day records, the most slots a schedule may carry.
const int kDays = 731;
// The largest fixed-schedule file a client may hand in.
const std::size_t kFixedFileCap = 4 * 1024 * 1024;

std::string ServerTime(std::int64_t utcSeconds, const std::string& pattern) {
    return TimeStamp::FromEpochSeconds(utcSeconds + 9 * 3600)->Format(pattern);
}

// Day records of plant 555 from `firstDay` (UTC seconds of a server-time
// midnight) on, each of 48 slots of a rate that follows the day.
std::vector<test::ScheduleRecord> DayRecords(std::int64_t firstDay, int days) {
    std::vector<test::ScheduleRecord> records;
    for (int d = 0; d < days; ++d) {
        test::ScheduleRecord record;
        record.plantId = "555";
        record.start = ServerTime(firstDay + d * kDay, "%Y%m%d%H%M");
        record.rates = std::vector<int>(48, d % 101);
        record.fixedFlag = 0;
        record.nextUpdate = ServerTime(firstDay + days * kDay, "%Y%m%d%H%M%S");
        records.push_back(record);
    }
    return records;
}

class LargestInputTest : public ::testing::Test {
protected:
    void SetUp() override {
        test::WriteLoggerSetting("<OutputScheduleEnableLogBufferedIO>0</OutputScheduleEnableLogBufferedIO>");
        test::WriteFile("/sys/class/net/eth0/address", "00:1a:2b:3c:4d:5e\n");
        // Server-time midnight of yesterday, so that a slot is current.
        const std::int64_t now = TimeStamp().EpochSeconds();
        firstDay_ = (now + 9 * 3600) / kDay * kDay - 9 * 3600 - kDay;
    }

    void TearDown() override {
        if (daemon_.Running()) {
            daemon_.Signal(SIGTERM);
            daemon_.WaitExit(Scaled(5000));
        }
    }

    static int Scaled(int ms) { return ms * static_cast<int>(test::TimeScale()); }

    void StartServing() {
        ASSERT_TRUE(test::StartDaemon(daemon_, test::kDaemonOutput));
        startedKiB_ = test::ResidentKiB(daemon_.Pid());
        ASSERT_GT(startedKiB_, 0);
    }

    void ExpectWithinMemoryBound() {
        const std::int64_t peak = test::PeakResidentKiB(daemon_.Pid());
        ASSERT_GT(peak, 0);
        if (!test::MemoryIsMeasurable()) return;
        EXPECT_LE(peak, test::MemoryBoundKiB(startedKiB_)) << "started at " << startedKiB_ << " KiB";
    }

    // The current target power for 10 kW is the rate of yesterday's records
    // or today's.
    void ExpectTargetPowerOfStoredDay() {
        const std::string answer = test::Ask(test::kCurrentTargetPowerRequest, test::Capacity(10.0));
        ASSERT_EQ(test::kTargetPowerAnswerSize, answer.size());
        const std::int64_t now = TimeStamp().EpochSeconds();
        const int day = static_cast<int>((now - firstDay_) / kDay);
        EXPECT_DOUBLE_EQ(static_cast<double>(day % 101) * 10.0 / 100.0, test::PowerOf(answer));
    }

    test::ChildProcess daemon_;
    std::int64_t firstDay_ = 0;
    std::int64_t startedKiB_ = 0;
};

TEST_F(LargestInputTest, TwoYearsOfDayRecordsFromTheServerAreStoredWholeWithinTheMemoryBound) {
    const std::vector<test::ScheduleRecord> records = DayRecords(firstDay_, kDays);
    // The update asks for the fixed schedule next: one more day after them.
    const test::ScheduleRecord fixed = DayRecords(firstDay_ + kDays * kDay, 1).front();
    test::HttpTestServer server({test::ScheduleServerAnswer(records, test::kUpdateSchedule),
                                 test::ScheduleServerAnswer(fixed, test::kFixedSchedule)});
    // Fetched by the start-up check, which nothing else races.
    test::WriteSystemSetting(kPlant, server.Url("/schedule"), false);
    StartServing();
    const std::size_t expected = static_cast<std::size_t>(kDays + 1) * 48;
    ASSERT_TRUE(test::WaitFor([&] { return test::ScheduleRows().size() == expected; }, Scaled(30000)))
        << test::ScheduleRows().size();
    const auto rows = test::ScheduleRows();
    EXPECT_EQ(std::to_string(firstDay_), rows.front()[0]);
    EXPECT_EQ(std::to_string(firstDay_ + (kDays + 1) * kDay - 1800), rows.back()[0]);
    ExpectTargetPowerOfStoredDay();
    ExpectWithinMemoryBound();
}

TEST_F(LargestInputTest, FixedScheduleFileAtTheSizeCapIsStoredWithinTheMemoryBound) {
    test::WriteSystemSetting(kPlant, "", true);
    StartServing();
    // The start-up check has taken in the new plant: nothing resets the
    // tables under the request.
    ASSERT_TRUE(test::WaitFor(
        [] {
            return test::ReadFile(test::LogFilePath()).find("Plant ID changed but, Standalone setting...") !=
                   std::string::npos;
        },
        Scaled(10000)))
        << test::ReadFile(test::LogFilePath());
    // Two years of day records, then padding up to the cap: what follows
    // the records is not part of the schedule.
    std::string hex = test::BuildSchedulePayload(DayRecords(firstDay_, kDays), test::kFixedSchedule).hex;
    ASSERT_LT(hex.size(), kFixedFileCap);
    hex.resize(kFixedFileCap, '0');
    test::WriteFile("/tmp/fixed.hex", hex);
    const std::string answer = test::Ask(test::kUpdateFixedScheduleRequest,
                                         CommandWire::EncodeFixedScheduleBlock("/tmp/fixed.hex", 1), Scaled(60000));
    ASSERT_EQ(171u, answer.size());
    EXPECT_EQ(0, WordAt(answer, CommandWire::kFixedReasonOffset)) << answer.substr(CommandWire::kFixedMessageOffset);
    // Slots up to half an hour ago are not taken from a fixed schedule.
    const auto rows = test::ScheduleRows();
    EXPECT_GT(rows.size(), static_cast<std::size_t>(kDays - 2) * 48);
    EXPECT_EQ(std::to_string(firstDay_ + kDays * kDay - 1800), rows.back()[0]);
    ExpectTargetPowerOfStoredDay();
    ExpectWithinMemoryBound();
}

} // namespace
} // namespace brvo
