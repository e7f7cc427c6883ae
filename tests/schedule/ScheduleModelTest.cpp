#include "schedule/ScheduleModel.h"

#include "settings/LoggerSettingManager.h"
#include "support/SchedulePayload.h"
#include "support/SingletonTest.h"
#include "support/TestFiles.h"
#include "util/LoggerLog.h"
#include "util/TimeStamp.h"

#include <Poco/DateTime.h>
#include <Poco/DateTimeFormatter.h>
#include <Poco/Timespan.h>

#include <gtest/gtest.h>

#include <chrono>
#include <map>
#include <random>
#include <vector>

namespace brvo {
namespace {

using test::BuildSchedulePayload;
using test::SchedulePayload;
using test::ScheduleRecord;

const std::string kLogFile =
    test::FixedPath("/media/sdcard/kestrovanyx/Log/OutputScheduleLog/OutputSchedule_pvocd.log");
const std::string kPlantId = "01234567890123456789012345";
const std::string kChecksumError = "Output rate data Checksum error.";
const std::string kDataError = "Schedule data error. exception";
const std::string kTruncated = "Schedule data error. data is truncated.";
const std::string kNotHex = "Schedule data error. data is not hex text.";
const std::int64_t kJan19Utc = 1642550400; // 2022-01-19 00:00:00 UTC

std::string DisplayOf(std::int64_t seconds) {
    return TimeStamp::FromEpochSeconds(seconds)->FormatDisplay();
}

// Hex offset of the first rate of the first record.
std::size_t FirstRateOffset() {
    return 2 * (test::kRecordCountBytes + test::kReservedBytes + test::kPlantIdBytes + test::kStartBytes +
                test::kSlotCountBytes);
}

std::vector<int> Rates(std::size_t count, int seed) {
    std::vector<int> rates;
    for (std::size_t i = 0; i < count; ++i) {
        rates.push_back(static_cast<int>((i * 37 + static_cast<std::size_t>(seed)) % 101));
    }
    return rates;
}

// Expects the slots of a record starting at `first` (UTC) with `rates`, at
// `offset` in `slots`.
void ExpectSlots(const std::vector<ScheduleRow>& slots, std::size_t offset, std::int64_t first,
                 const std::vector<int>& rates) {
    ASSERT_GE(slots.size(), offset + rates.size());
    for (std::size_t i = 0; i < rates.size(); ++i) {
        const ScheduleRow& slot = slots[offset + i];
        ASSERT_EQ(first + static_cast<std::int64_t>(i) * 1800, slot.time) << i;
        ASSERT_EQ(rates[i], slot.controlRate) << i;
        ASSERT_FALSE(slot.sent) << i;
    }
}

class ScheduleModelLogTest : public test::SingletonTest {
protected:
    void SetUp() override {
        test::WriteLoggerSetting("<OutputScheduleEnableLogBufferedIO>0</OutputScheduleEnableLogBufferedIO>");
        LoggerSettingManager::CreateInstance();
        LoggerLog::CreateInstance();
    }
    // Ends the log so that everything is on disk, then reads its lines.
    std::vector<std::string> LogLines() {
        LoggerLog::DeleteInstance();
        return test::ReadLines(kLogFile);
    }
    // Whether a line of the given mark ends with `message` under the model's tag.
    static bool HasLine(const std::vector<std::string>& lines, const std::string& mark, const std::string& message) {
        const std::string tail = "] ScheduleUpdateManager " + message;
        for (const std::string& line : lines) {
            if (line.find("[" + mark + "]") != std::string::npos && line.size() >= tail.size() &&
                line.compare(line.size() - tail.size(), tail.size(), tail) == 0) {
                return true;
            }
        }
        return false;
    }
};

TEST(ScheduleModelTest, ShortTextIsMissingData) {
    for (const std::string& hex : {std::string(), std::string("00000000000"), std::string("0")}) {
        ScheduleModel model(hex, 1);
        EXPECT_FALSE(model.IsResult()) << hex;
        EXPECT_EQ("data is missing.", model.GetMessage()) << hex;
        EXPECT_TRUE(model.GetSlots().empty());
        EXPECT_EQ("", model.GetPlantId());
    }
}

TEST(ScheduleModelTest, RecordCountZeroIsValidWithoutSlots) {
    const SchedulePayload payload = BuildSchedulePayload({}, test::kUpdateSchedule);
    ASSERT_EQ("000000000000", payload.hex);
    ScheduleModel model(payload.hex, 1);
    EXPECT_TRUE(model.IsResult());
    EXPECT_EQ("", model.GetMessage());
    EXPECT_TRUE(model.GetSlots().empty());
    EXPECT_EQ("", model.GetPlantId());
    EXPECT_EQ("", model.GetUpdateInfo().nextUpdateTime);
}

// A record count with no record after it is a payload cut short after its
// count: refused as truncated. (It once read past the end and was kept as a
// valid model without slots.)
TEST(ScheduleModelTest, CountOnlyIsTruncated) {
    ScheduleModel model("000000000001", 1);
    EXPECT_FALSE(model.IsResult());
    EXPECT_EQ(kTruncated, model.GetMessage());
    EXPECT_TRUE(model.GetSlots().empty());
}

TEST(ScheduleModelTest, OneDayUpdateSchedule) {
    ScheduleRecord record;
    record.rates = Rates(48, 3);
    record.fixedFlag = 7;
    const SchedulePayload payload = BuildSchedulePayload({record}, test::kUpdateSchedule);
    ScheduleModel model(payload.hex, 1);
    EXPECT_TRUE(model.IsResult());
    EXPECT_EQ("", model.GetMessage());
    EXPECT_EQ(kPlantId, model.GetPlantId());
    const std::vector<ScheduleRow> slots = model.GetSlots();
    ASSERT_EQ(48u, slots.size());
    ExpectSlots(slots, 0, kJan19Utc, record.rates);
    const ScheduleUpdateInfo info = model.GetUpdateInfo();
    EXPECT_EQ(kPlantId, info.plantId);
    EXPECT_EQ("", info.lastUpdateTime);
    EXPECT_EQ("2022-01-20 00:00:00", info.nextUpdateTime);
    EXPECT_EQ(7, info.fixedScheduleUpdateFlag);
    EXPECT_FALSE(info.isNeedUpdateFixedSchedule);
}

TEST(ScheduleModelTest, ServerMidnightIsPreviousDayInUtc) {
    ScheduleRecord record;
    record.start = "202201190000";
    const SchedulePayload payload = BuildSchedulePayload({record}, test::kUpdateSchedule);
    ScheduleModel model(payload.hex, 1);
    ASSERT_TRUE(model.IsResult());
    const std::vector<ScheduleRow> slots = model.GetSlots();
    ASSERT_EQ(48u, slots.size());
    EXPECT_EQ("2022-01-18 15:00:00", DisplayOf(slots[0].time));
    EXPECT_EQ(kJan19Utc - 9 * 3600, slots[0].time);
    EXPECT_EQ("2022-01-18 15:30:00", DisplayOf(slots[1].time));
    EXPECT_EQ("2022-01-19 14:30:00", DisplayOf(slots[47].time));
}

TEST(ScheduleModelTest, HalfHourStartIsAccepted) {
    ScheduleRecord record;
    record.start = "202201191230";
    ScheduleModel model(BuildSchedulePayload({record}, test::kUpdateSchedule).hex, 1);
    ASSERT_TRUE(model.IsResult());
    EXPECT_EQ("2022-01-19 03:30:00", DisplayOf(model.GetSlots().at(0).time));
}

TEST(ScheduleModelTest, TimesBeyond2038StayRight) {
    ScheduleRecord record;
    record.start = "210001010900";
    ScheduleModel model(BuildSchedulePayload({record}, test::kFixedSchedule).hex, 0);
    ASSERT_TRUE(model.IsResult()) << model.GetMessage();
    EXPECT_EQ(4102444800LL, model.GetSlots().at(0).time);
    EXPECT_EQ(4102444800LL + 47 * 1800, model.GetSlots().at(47).time);
}

TEST(ScheduleModelTest, FixedScheduleHasNoTrailingFields) {
    ScheduleRecord record;
    record.rates = Rates(48, 11);
    record.fixedFlag = 5; // not written for a fixed schedule
    const SchedulePayload payload = BuildSchedulePayload({record}, test::kFixedSchedule);
    for (int kind : {0, 2, -1}) {
        ScheduleModel model(payload.hex, kind);
        EXPECT_TRUE(model.IsResult()) << kind;
        EXPECT_EQ("", model.GetMessage()) << kind;
        ExpectSlots(model.GetSlots(), 0, kJan19Utc, record.rates);
        EXPECT_EQ(kPlantId, model.GetPlantId());
        EXPECT_EQ("", model.GetUpdateInfo().nextUpdateTime);
        EXPECT_EQ(0, model.GetUpdateInfo().fixedScheduleUpdateFlag);
    }
    // The same bytes read as an update schedule fail: its fields are not there.
    ScheduleModel wrongKind(payload.hex, 1);
    EXPECT_NE("", wrongKind.GetMessage());
}

TEST(ScheduleModelTest, ChecksumOfTheExample) {
    // 2022-01-19: 1234 mod (1 + 19) = 14, received as the bytes 1 and 4.
    ScheduleRecord record;
    record.rates = std::vector<int>(12, 100);
    record.rates.push_back(34);
    EXPECT_EQ(14, test::ScheduleChecksum(record));
    const SchedulePayload payload = BuildSchedulePayload({record}, test::kFixedSchedule);
    EXPECT_EQ("0104", payload.hex.substr(payload.hex.size() - 4));
    ScheduleModel model(payload.hex, 0);
    EXPECT_TRUE(model.IsResult());
    EXPECT_EQ("", model.GetMessage());
    EXPECT_EQ(13u, model.GetSlots().size());
}

TEST(ScheduleModelTest, RemainderZeroIsTwoZeroBytes) {
    ScheduleRecord record; // 48 x 100 = 4800, 4800 mod 20 = 0
    EXPECT_EQ(0, test::ScheduleChecksum(record));
    const SchedulePayload good = BuildSchedulePayload({record}, test::kFixedSchedule);
    EXPECT_EQ("0000", good.hex.substr(good.hex.size() - 4));
    EXPECT_TRUE(ScheduleModel(good.hex, 0).IsResult());

    // One zero byte and a ten do not read as "00".
    record.checksumOverride = 10;
    ScheduleModel ten(BuildSchedulePayload({record}, test::kFixedSchedule).hex, 0);
    EXPECT_FALSE(ten.IsResult());
    EXPECT_EQ(kChecksumError, ten.GetMessage());
}

TEST(ScheduleModelTest, RemainderBelowTenHasLeadingZero) {
    ScheduleRecord record;
    record.rates = {5};
    const SchedulePayload payload = BuildSchedulePayload({record}, test::kFixedSchedule);
    EXPECT_EQ("0005", payload.hex.substr(payload.hex.size() - 4));
    EXPECT_TRUE(ScheduleModel(payload.hex, 0).IsResult());

    // The bytes 5 and 0 read "50", not "05".
    std::string swapped = payload.hex;
    swapped.replace(swapped.size() - 4, 4, "0500");
    EXPECT_EQ(kChecksumError, ScheduleModel(swapped, 0).GetMessage());
}

TEST(ScheduleModelTest, ChecksumMismatchKeepsSlotsAndFails) {
    ScheduleRecord good;
    ScheduleRecord bad;
    bad.start = "202201200900";
    bad.corruptChecksum = true;
    ScheduleRecord after;
    after.start = "202201210900";
    ScheduleModel model(BuildSchedulePayload({good, bad, after}, test::kUpdateSchedule).hex, 1);
    EXPECT_FALSE(model.IsResult());
    EXPECT_EQ(kChecksumError, model.GetMessage());
    EXPECT_EQ(96u, model.GetSlots().size());
}

TEST(ScheduleModelTest, ZeroMonthAndDayAreNoStartDate) {
    // 2022-00-00 names no date, whichever POCO version parses it (1.11 read
    // the zeros as 01, 1.13 refuses them): the parse stops at this record.
    std::vector<unsigned char> bytes = test::DigitBytes("1", test::kRecordCountBytes);
    const std::vector<unsigned char> reserved(test::kReservedBytes, 0);
    bytes.insert(bytes.end(), reserved.begin(), reserved.end());
    for (const auto& field : {test::DigitBytes(kPlantId, 26), test::DigitBytes("202200000000", 12),
                              test::DigitBytes("1", 5), std::vector<unsigned char>{50}, test::DigitBytes("0", 2)}) {
        bytes.insert(bytes.end(), field.begin(), field.end());
    }
    ScheduleModel model(test::HexOf(bytes), 0);
    EXPECT_FALSE(model.IsResult());
    EXPECT_EQ("Schedule start date error. [202200000000]", model.GetMessage());
}

TEST(ScheduleModelTest, ZeroMonthOrZeroDayAloneIsNoStartDate) {
    for (const std::string start : {"202200190000", "202201000000"}) {
        ScheduleRecord record;
        record.start = start;
        ScheduleModel model(BuildSchedulePayload({record}, test::kUpdateSchedule).hex, 1);
        EXPECT_FALSE(model.IsResult()) << start;
        EXPECT_EQ("Schedule start date error. [" + start + "]", model.GetMessage());
    }
}

TEST(ScheduleModelTest, UnparsableStartStopsTheParse) {
    ScheduleRecord good;
    ScheduleRecord bad;
    bad.start = "202213010000";
    ScheduleModel model(BuildSchedulePayload({good, bad, good}, test::kUpdateSchedule).hex, 1);
    EXPECT_FALSE(model.IsResult());
    EXPECT_EQ("Schedule start date error. [202213010000]", model.GetMessage());
    EXPECT_EQ(48u, model.GetSlots().size());
}

TEST(ScheduleModelTest, QuarterPastStartIsSkipped) {
    ScheduleRecord record;
    record.start = "202201191215";
    ScheduleModel model(BuildSchedulePayload({record}, test::kUpdateSchedule).hex, 1);
    EXPECT_TRUE(model.IsResult());
    EXPECT_EQ("Schedule start date error. [202201191215]", model.GetMessage());
    EXPECT_TRUE(model.GetSlots().empty());
    EXPECT_EQ("", model.GetPlantId());
}

TEST(ScheduleModelTest, SkippedRecordDoesNotAdvancePastItsStart) {
    // Record 1 ends after its start; record 2 is read from that start on: its
    // reserved field is the first ten start bytes and its plant ID begins
    // with the last two ("15").
    std::vector<unsigned char> bytes = test::DigitBytes("2", test::kRecordCountBytes);
    const std::vector<int> rates = Rates(48, 5);
    ScheduleRecord second;
    second.rates = rates;
    std::vector<std::vector<unsigned char>> fields = {std::vector<unsigned char>(test::kReservedBytes, 0),
                                                      test::DigitBytes(kPlantId, 26),
                                                      test::DigitBytes("202201191215", 12),
                                                      std::vector<unsigned char>(24, 0),
                                                      test::DigitBytes(second.start, 12),
                                                      test::DigitBytes("48", 5)};
    std::vector<unsigned char> rateBytes(rates.begin(), rates.end());
    fields.push_back(rateBytes);
    fields.push_back(test::DigitBytes(std::to_string(test::ScheduleChecksum(second)), 2));
    for (const auto& field : fields) bytes.insert(bytes.end(), field.begin(), field.end());

    ScheduleModel model(test::HexOf(bytes), 0);
    EXPECT_TRUE(model.IsResult());
    EXPECT_EQ("Schedule start date error. [202201191215]", model.GetMessage());
    EXPECT_EQ("15" + std::string(24, '0'), model.GetPlantId());
    ExpectSlots(model.GetSlots(), 0, kJan19Utc, rates);
    EXPECT_EQ(48u, model.GetSlots().size());
}

TEST(ScheduleModelTest, UnreadableNextUpdateTimeIsRefused) {
    ScheduleRecord record;
    record.nextUpdate = "99999999999999";
    ScheduleModel model(BuildSchedulePayload({record}, test::kUpdateSchedule).hex, 1);
    EXPECT_FALSE(model.IsResult());
    EXPECT_EQ("Schedule next update time error. [99999999999999]", model.GetMessage());
    EXPECT_EQ("", model.GetUpdateInfo().nextUpdateTime);
}

TEST(ScheduleModelTest, NextUpdateWithAZeroMonthOrDayIsRefused) {
    // No date, whichever POCO version parses it (1.11 read 00 as 01).
    for (const std::string next : {"20220019120000", "20220100120000"}) {
        ScheduleRecord record;
        record.nextUpdate = next;
        ScheduleModel model(BuildSchedulePayload({record}, test::kUpdateSchedule).hex, 1);
        EXPECT_FALSE(model.IsResult()) << next;
        EXPECT_EQ("Schedule next update time error. [" + next + "]", model.GetMessage());
    }
}

TEST(ScheduleModelTest, NextUpdateTimeIsConvertedToUtc) {
    ScheduleRecord record;
    record.nextUpdate = "20220120083000";
    ScheduleModel model(BuildSchedulePayload({record}, test::kUpdateSchedule).hex, 1);
    ASSERT_TRUE(model.IsResult()) << model.GetMessage();
    EXPECT_EQ("2022-01-19 23:30:00", model.GetUpdateInfo().nextUpdateTime);
}

TEST(ScheduleModelTest, NextUpdateTimeBeforeTheScheduleIsRefused) {
    // The first slot starts 2022-01-19 09:00 server time.
    ScheduleRecord record;
    record.nextUpdate = "20220119085959";
    ScheduleModel before(BuildSchedulePayload({record}, test::kUpdateSchedule).hex, 1);
    EXPECT_FALSE(before.IsResult());
    EXPECT_EQ("Schedule next update time error. [20220119085959]", before.GetMessage());

    record.nextUpdate = "20220119090000";
    ScheduleModel same(BuildSchedulePayload({record}, test::kUpdateSchedule).hex, 1);
    EXPECT_TRUE(same.IsResult()) << same.GetMessage();
    EXPECT_EQ("2022-01-19 00:00:00", same.GetUpdateInfo().nextUpdateTime);

    // A record of a later day may carry a next update before its own start:
    // the schedule's first slot is what counts.
    ScheduleRecord later = record;
    later.start = "202201210900";
    later.nextUpdate = "20220120090000";
    record.nextUpdate = "20220120090000";
    ScheduleModel days(BuildSchedulePayload({record, later}, test::kUpdateSchedule).hex, 1);
    EXPECT_TRUE(days.IsResult()) << days.GetMessage();
    EXPECT_EQ("2022-01-20 00:00:00", days.GetUpdateInfo().nextUpdateTime);
}

TEST(ScheduleModelTest, StartYearsOutsideServiceAreRefused) {
    for (const std::string& start : {std::string("199912312330"), std::string("210101010000")}) {
        ScheduleRecord record;
        record.start = start;
        record.nextUpdate = "21011231000000";
        ScheduleModel model(BuildSchedulePayload({record}, test::kUpdateSchedule).hex, 1);
        EXPECT_FALSE(model.IsResult()) << start;
        EXPECT_EQ("Schedule start date error. [" + start + "]", model.GetMessage());
        EXPECT_TRUE(model.GetSlots().empty());
    }
    for (const std::string& start : {std::string("200001010000"), std::string("210012310000")}) {
        ScheduleRecord record;
        record.start = start;
        record.nextUpdate = start + "00";
        ScheduleModel model(BuildSchedulePayload({record}, test::kUpdateSchedule).hex, 1);
        EXPECT_TRUE(model.IsResult()) << start << " " << model.GetMessage();
        EXPECT_EQ(48u, model.GetSlots().size());
    }
}

TEST(ScheduleModelTest, NextUpdateYearsOutsideServiceAreRefused) {
    ScheduleRecord record;
    record.start = "210012310000";
    for (const std::string& next : {std::string("21010101000000"), std::string("00000000000000")}) {
        record.nextUpdate = next;
        ScheduleModel model(BuildSchedulePayload({record}, test::kUpdateSchedule).hex, 1);
        EXPECT_FALSE(model.IsResult()) << next;
        EXPECT_EQ("Schedule next update time error. [" + next + "]", model.GetMessage());
    }
    record.nextUpdate = "21001231235959";
    EXPECT_TRUE(ScheduleModel(BuildSchedulePayload({record}, test::kUpdateSchedule).hex, 1).IsResult());
}

TEST(ScheduleModelTest, RatesAboveHundredAreKept) {
    ScheduleRecord record;
    record.rates = {0, 100, 101, 200, 255};
    ScheduleModel model(BuildSchedulePayload({record}, test::kUpdateSchedule).hex, 1);
    ASSERT_TRUE(model.IsResult());
    ExpectSlots(model.GetSlots(), 0, kJan19Utc, record.rates);
}

TEST(ScheduleModelTest, FieldBytesReadAsDecimalValues) {
    // A byte 12 reads "12"; the bytes 2 and 0 read "20".
    ScheduleRecord record;
    SchedulePayload payload = BuildSchedulePayload({record}, test::kUpdateSchedule);
    const std::size_t plantId = test::kRecordCountBytes + test::kReservedBytes;
    payload.bytes[plantId] = 12;
    payload.bytes[plantId + 1] = 2;
    payload.bytes[plantId + 2] = 0;
    ScheduleModel model(test::HexOf(payload.bytes), 1);
    ASSERT_TRUE(model.IsResult()) << model.GetMessage();
    EXPECT_EQ("1220" + kPlantId.substr(3), model.GetPlantId());
}

TEST(ScheduleModelTest, SeveralRecordsInPayloadOrder) {
    std::vector<ScheduleRecord> records(3);
    records[0].plantId = "11";
    records[0].rates = Rates(10, 1);
    records[1].plantId = "22";
    records[1].start = "202201210000";
    records[1].rates = Rates(20, 2);
    records[2].plantId = "33";
    records[2].start = "202201200900";
    records[2].rates = Rates(5, 3);
    records[2].nextUpdate = "20220125120000";
    records[2].fixedFlag = 2;
    ScheduleModel model(BuildSchedulePayload(records, test::kUpdateSchedule).hex, 1);
    ASSERT_TRUE(model.IsResult()) << model.GetMessage();
    const std::vector<ScheduleRow> slots = model.GetSlots();
    ASSERT_EQ(35u, slots.size());
    ExpectSlots(slots, 0, kJan19Utc, records[0].rates);
    ExpectSlots(slots, 10, kJan19Utc + 2 * 86400 - 9 * 3600, records[1].rates);
    ExpectSlots(slots, 30, kJan19Utc + 86400, records[2].rates);
    EXPECT_EQ(std::string(24, '0') + "33", model.GetPlantId());
    EXPECT_EQ("2022-01-25 03:00:00", model.GetUpdateInfo().nextUpdateTime);
    EXPECT_EQ(2, model.GetUpdateInfo().fixedScheduleUpdateFlag);
}

TEST(ScheduleModelTest, SevenDaysInOneRecord) {
    ScheduleRecord record;
    record.rates = Rates(336, 9);
    ScheduleModel model(BuildSchedulePayload({record}, test::kUpdateSchedule).hex, 1);
    ASSERT_TRUE(model.IsResult()) << model.GetMessage();
    ExpectSlots(model.GetSlots(), 0, kJan19Utc, record.rates);
    EXPECT_EQ(336u, model.GetSlots().size());
    EXPECT_EQ("2022-01-26 00:00:00", DisplayOf(model.GetSlots().back().time + 1800));
}

TEST(ScheduleModelTest, WholeYearInOneRecord) {
    ScheduleRecord record;
    record.start = "202201010000";
    record.rates = Rates(17520, 17);
    ScheduleModel model(BuildSchedulePayload({record}, test::kUpdateSchedule).hex, 1);
    ASSERT_TRUE(model.IsResult()) << model.GetMessage();
    const std::vector<ScheduleRow> slots = model.GetSlots();
    ASSERT_EQ(17520u, slots.size());
    ExpectSlots(slots, 0, 1640962800, record.rates);
    EXPECT_EQ("2022-12-31 14:30:00", DisplayOf(slots.back().time));

    record.corruptChecksum = true;
    EXPECT_EQ(kChecksumError, ScheduleModel(BuildSchedulePayload({record}, test::kUpdateSchedule).hex, 1).GetMessage());
}

TEST(ScheduleModelTest, WholeYearInDailyRecords) {
    std::vector<ScheduleRecord> records;
    Poco::DateTime day(2022, 1, 1);
    for (int i = 0; i < 365; ++i) {
        ScheduleRecord record;
        record.start = Poco::DateTimeFormatter::format(day, "%Y%m%d%H%M");
        record.rates = Rates(48, i);
        records.push_back(record);
        day += Poco::Timespan(1, 0, 0, 0, 0);
    }
    ScheduleModel model(BuildSchedulePayload(records, test::kUpdateSchedule).hex, 1);
    ASSERT_TRUE(model.IsResult()) << model.GetMessage();
    const std::vector<ScheduleRow> slots = model.GetSlots();
    ASSERT_EQ(17520u, slots.size());
    for (std::size_t i = 0; i < slots.size(); ++i) {
        ASSERT_EQ(1640962800 + static_cast<std::int64_t>(i) * 1800, slots[i].time) << i;
        ASSERT_EQ(records[i / 48].rates[i % 48], slots[i].controlRate) << i;
    }
}

// Every prefix of a valid payload is refused as truncated (below twelve
// characters: as missing data); only the whole payload is accepted.
TEST(ScheduleModelTest, EveryPrefixOfAValidPayloadIsRefused) {
    ScheduleRecord first;
    first.rates = Rates(5, 2);
    ScheduleRecord second;
    second.start = "202201200900";
    second.rates = Rates(3, 4);
    for (int kind : {test::kUpdateSchedule, test::kFixedSchedule}) {
        const std::string hex = BuildSchedulePayload({first, second}, kind).hex;
        for (std::size_t length = 0; length < hex.size(); ++length) {
            ScheduleModel model(hex.substr(0, length), kind);
            ASSERT_FALSE(model.IsResult()) << kind << " " << length;
            ASSERT_EQ(length < 12 ? std::string("data is missing.") : kTruncated, model.GetMessage())
                << kind << " " << length;
        }
        ScheduleModel whole(hex, kind);
        EXPECT_TRUE(whole.IsResult()) << whole.GetMessage();
        EXPECT_EQ(8u, whole.GetSlots().size());
    }
}

TEST(ScheduleModelTest, TextAfterTheLastRecordIsNotExamined) {
    const std::string hex = BuildSchedulePayload({ScheduleRecord()}, test::kFixedSchedule).hex;
    for (const std::string& tail : {std::string("\n"), std::string("0"), std::string("zz")}) {
        ScheduleModel model(hex + tail, 0);
        EXPECT_TRUE(model.IsResult()) << model.GetMessage();
        EXPECT_EQ(48u, model.GetSlots().size());
    }
}

TEST(ScheduleModelTest, OddLengthTextIsTruncated) {
    // Checksum "14" is "0104"; without its last digit the field is cut short.
    ScheduleRecord record;
    record.rates = std::vector<int>(12, 100);
    record.rates.push_back(34);
    const std::string hex = BuildSchedulePayload({record}, test::kFixedSchedule).hex;
    ScheduleModel model(hex.substr(0, hex.size() - 1), 0);
    EXPECT_FALSE(model.IsResult());
    EXPECT_EQ(kTruncated, model.GetMessage());
}

TEST(ScheduleModelTest, HugeRecordCountIsRefusedAtOnce) {
    ScheduleRecord record;
    const std::string rest = BuildSchedulePayload({record}, test::kUpdateSchedule).hex.substr(12);
    // 999999 records cannot fit the text; 0xff bytes read "255255..." which
    // is no 32-bit number.
    const auto begin = std::chrono::steady_clock::now();
    ScheduleModel many("090909090909" + rest, 1);
    EXPECT_FALSE(many.IsResult());
    EXPECT_EQ(kTruncated, many.GetMessage());
    EXPECT_TRUE(many.GetSlots().empty());
    ScheduleModel overflow("ffffffffffff" + rest, 1);
    EXPECT_FALSE(overflow.IsResult());
    EXPECT_EQ("Schedule data error. number out of range. [255255255255255255]", overflow.GetMessage());
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(5));
}

TEST(ScheduleModelTest, HugeSlotCountIsRefusedBeforeTheSlots) {
    ScheduleRecord record;
    // Beyond the cap, and within it but beyond the text.
    record.slotCountOverride = 99999;
    ScheduleModel beyondCap(BuildSchedulePayload({record}, test::kUpdateSchedule).hex, 1);
    EXPECT_FALSE(beyondCap.IsResult());
    EXPECT_EQ("Schedule data error. too many slots. [99999]", beyondCap.GetMessage());
    EXPECT_TRUE(beyondCap.GetSlots().empty());
    record.slotCountOverride = 17521;
    ScheduleModel beyondText(BuildSchedulePayload({record}, test::kUpdateSchedule).hex, 1);
    EXPECT_FALSE(beyondText.IsResult());
    EXPECT_EQ(kTruncated, beyondText.GetMessage());
    EXPECT_TRUE(beyondText.GetSlots().empty());

    // Five bytes of 255 read "255255255255255": no 32-bit number.
    SchedulePayload payload = BuildSchedulePayload({ScheduleRecord()}, test::kUpdateSchedule);
    for (std::size_t i = 0; i < test::kSlotCountBytes; ++i) payload.bytes[FirstRateOffset() / 2 - 1 - i] = 255;
    ScheduleModel overflow(test::HexOf(payload.bytes), 1);
    EXPECT_FALSE(overflow.IsResult());
    EXPECT_EQ("Schedule data error. number out of range. [255255255255255]", overflow.GetMessage());
    EXPECT_TRUE(overflow.GetSlots().empty());
}

TEST(ScheduleModelTest, SlotCapHoldsOverThePayload) {
    ScheduleRecord record;
    record.start = "202201010000";
    record.rates = Rates(ScheduleModel::kMaxSlots, 7);
    record.nextUpdate = "20240101000000";
    ScheduleModel atCap(BuildSchedulePayload({record}, test::kUpdateSchedule).hex, 1);
    EXPECT_TRUE(atCap.IsResult()) << atCap.GetMessage();
    EXPECT_EQ(35136u, atCap.GetSlots().size());

    record.rates.push_back(1);
    ScheduleModel beyond(BuildSchedulePayload({record}, test::kUpdateSchedule).hex, 1);
    EXPECT_FALSE(beyond.IsResult());
    EXPECT_EQ("Schedule data error. too many slots. [35137]", beyond.GetMessage());
    EXPECT_TRUE(beyond.GetSlots().empty());

    // Two records of which each is within the cap, together beyond it.
    ScheduleRecord half = record;
    half.rates = Rates(ScheduleModel::kMaxSlots / 2, 3);
    ScheduleRecord more = half;
    more.rates.push_back(1);
    ScheduleModel together(BuildSchedulePayload({half, more}, test::kUpdateSchedule).hex, 1);
    EXPECT_FALSE(together.IsResult());
    EXPECT_EQ("Schedule data error. too many slots. [35137]", together.GetMessage());
    EXPECT_EQ(half.rates.size(), together.GetSlots().size());
}

TEST(ScheduleModelTest, NonHexTextIsRefused) {
    ScheduleModel zeros("zzzzzzzzzzzz", 1);
    EXPECT_FALSE(zeros.IsResult());
    EXPECT_EQ(kNotHex, zeros.GetMessage());

    std::string hex = BuildSchedulePayload({ScheduleRecord()}, test::kUpdateSchedule).hex;
    hex[FirstRateOffset() + 1] = 'g';
    ScheduleModel rate(hex, 1);
    EXPECT_FALSE(rate.IsResult());
    EXPECT_EQ(kNotHex, rate.GetMessage());
}

// Random texts and randomly damaged payloads: never a crash or a hang, and
// the message is always one of the model's own texts.
TEST(ScheduleModelTest, RandomPayloadsGiveKnownMessages) {
    std::mt19937 random(20220119);
    ScheduleRecord record;
    record.rates = Rates(60, 1);
    const std::string valid = BuildSchedulePayload({record, record}, test::kUpdateSchedule).hex;
    const std::string alphabet = "0123456789abcdef0000000000ABCxz- ";
    std::map<std::string, int> seen;
    for (int round = 0; round < 3000; ++round) {
        std::string hex;
        switch (round % 3) {
        case 0:
            for (std::size_t n = random() % 600; n > 0; --n) hex.push_back(alphabet[random() % alphabet.size()]);
            break;
        case 1:
            hex = valid.substr(0, random() % (valid.size() + 1));
            break;
        default:
            hex = valid;
            for (int n = 1 + static_cast<int>(random() % 4); n > 0; --n) {
                hex[random() % hex.size()] = alphabet[random() % 16];
            }
            break;
        }
        const int kind = static_cast<int>(random() % 2);
        ScheduleModel model(hex, kind);
        const std::string message = model.GetMessage();
        const bool known = message.empty() || message == "data is missing." || message == kTruncated ||
                           message == kNotHex || message == kChecksumError ||
                           message.compare(0, 20, "Schedule data error.") == 0 ||
                           message.compare(0, 34, "Schedule next update time error. [") == 0 ||
                           message.compare(0, 28, "Schedule start date error. [") == 0;
        EXPECT_TRUE(known) << round << " " << message;
        EXPECT_LE(model.GetSlots().size(), hex.size() / 2) << round;
        EXPECT_FALSE(message == "data is missing." && model.IsResult()) << round;
        // A valid payload cut short is never accepted.
        EXPECT_FALSE(round % 3 == 1 && hex.size() < valid.size() && model.IsResult()) << round;
        ++seen[message.substr(0, 20)];
    }
    // The rounds reach the interesting outcomes.
    EXPECT_GT(seen[""], 0);
    EXPECT_GT(seen["data is missing."], 0);
    EXPECT_GT(seen[kTruncated.substr(0, 20)], 0);
    EXPECT_GT(seen[kChecksumError.substr(0, 20)], 0);
    EXPECT_GT(seen["Schedule start date "], 0);
}

TEST_F(ScheduleModelLogTest, MissingDataIsNotLogged) {
    ScheduleModel model("0000", 1);
    EXPECT_EQ("data is missing.", model.GetMessage());
    for (const std::string& line : LogLines()) {
        EXPECT_EQ(std::string::npos, line.find("ScheduleUpdateManager")) << line;
    }
}

TEST_F(ScheduleModelLogTest, QuarterPastIsLoggedAsWarning) {
    ScheduleRecord record;
    record.start = "202201191215";
    ScheduleModel model(BuildSchedulePayload({record}, test::kUpdateSchedule).hex, 1);
    const std::vector<std::string> lines = LogLines();
    EXPECT_TRUE(HasLine(lines, "W", "Schedule start date error. [202201191215]"));
    EXPECT_FALSE(HasLine(lines, "E", "Schedule start date error. [202201191215]"));
}

TEST_F(ScheduleModelLogTest, FailuresAreLoggedAsErrors) {
    ScheduleRecord badStart;
    badStart.start = "202213010000";
    ScheduleModel start(BuildSchedulePayload({badStart}, test::kUpdateSchedule).hex, 1);
    ScheduleRecord badSum;
    badSum.corruptChecksum = true;
    ScheduleModel sum(BuildSchedulePayload({badSum}, test::kUpdateSchedule).hex, 1);
    ScheduleModel beyond("000000000001", 1);
    ScheduleRecord badNext;
    badNext.nextUpdate = "99999999999999";
    ScheduleModel next(BuildSchedulePayload({badNext}, test::kUpdateSchedule).hex, 1);
    ScheduleRecord oldStart;
    oldStart.start = "199901010000";
    ScheduleModel year(BuildSchedulePayload({oldStart}, test::kUpdateSchedule).hex, 1);
    ScheduleRecord many;
    many.slotCountOverride = 99999;
    ScheduleModel cap(BuildSchedulePayload({many}, test::kUpdateSchedule).hex, 1);
    ScheduleModel hex("zz0000000000", 1);

    const std::vector<std::string> lines = LogLines();
    EXPECT_TRUE(HasLine(lines, "E", "Schedule start date error. [202213010000]"));
    EXPECT_TRUE(HasLine(lines, "E", kChecksumError));
    EXPECT_TRUE(HasLine(lines, "E", kTruncated));
    EXPECT_TRUE(HasLine(lines, "E", "Schedule next update time error. [99999999999999]"));
    EXPECT_TRUE(HasLine(lines, "E", "Schedule start date error. [199901010000]"));
    EXPECT_TRUE(HasLine(lines, "E", "Schedule data error. too many slots. [99999]"));
    EXPECT_TRUE(HasLine(lines, "E", kNotHex));
    EXPECT_EQ(7u, lines.size());
}

// A payload announcing `records` records whose text repeats `periods`
// times the misaligned start S and zeros up to the length of a skipped
// record (reserved and plant ID fields): every record after the first
// begins where the start of the one before stood, the same skip again.
// `tail` follows the repetitions.
std::vector<unsigned char> RepeatedSkips(std::size_t records, std::size_t periods, const std::string& start,
                                         const std::vector<unsigned char>& tail) {
    std::vector<unsigned char> period = test::DigitBytes(start, test::kStartBytes);
    period.resize(test::kReservedBytes + test::kPlantIdBytes, 0);
    std::vector<unsigned char> bytes = test::DigitBytes(std::to_string(records), test::kRecordCountBytes);
    bytes.reserve(bytes.size() + periods * period.size() + tail.size());
    for (std::size_t i = 0; i < periods; ++i) bytes.insert(bytes.end(), period.begin(), period.end());
    bytes.insert(bytes.end(), tail.begin(), tail.end());
    return bytes;
}

TEST_F(ScheduleModelLogTest, RepeatedSkippedRecordsAreLoggedOnce) {
    const std::vector<unsigned char> start = test::DigitBytes("202201191215", test::kStartBytes);
    const std::string hex = test::HexOf(RepeatedSkips(100000, 100000, "202201191215", start));
    const auto begin = std::chrono::steady_clock::now();
    ScheduleModel model(hex, 1);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(5));
    EXPECT_TRUE(model.IsResult());
    EXPECT_EQ("Schedule start date error. [202201191215]", model.GetMessage());
    EXPECT_TRUE(model.GetSlots().empty());
    EXPECT_EQ("", model.GetPlantId());

    const std::vector<std::string> lines = LogLines();
    EXPECT_EQ(2u, lines.size());
    EXPECT_TRUE(HasLine(lines, "W", "Schedule start date error. [202201191215]"));
    EXPECT_TRUE(HasLine(lines, "W", "Schedule start date error. [202201191215] repeated for 99999 more record(s)."));
}

TEST_F(ScheduleModelLogTest, RecordAfterRepeatedSkipsIsRead) {
    // Three skips, then a record read from the start of the last skipped
    // one: its reserved field and plant ID are that start and the zeros.
    ScheduleRecord valid;
    valid.rates = Rates(48, 8);
    std::vector<unsigned char> tail = test::DigitBytes("202201191215", test::kStartBytes);
    tail.resize(test::kReservedBytes + test::kPlantIdBytes, 0);
    const SchedulePayload record = BuildSchedulePayload({valid}, test::kFixedSchedule);
    tail.insert(tail.end(), record.bytes.begin() + test::kRecordCountBytes + test::kReservedBytes + test::kPlantIdBytes,
                record.bytes.end());
    ScheduleModel model(test::HexOf(RepeatedSkips(4, 3, "202201191215", tail)), 0);
    EXPECT_TRUE(model.IsResult()) << model.GetMessage();
    EXPECT_EQ("Schedule start date error. [202201191215]", model.GetMessage());
    EXPECT_EQ("15" + std::string(24, '0'), model.GetPlantId());
    ExpectSlots(model.GetSlots(), 0, kJan19Utc, valid.rates);

    const std::vector<std::string> lines = LogLines();
    EXPECT_EQ(2u, lines.size());
    EXPECT_TRUE(HasLine(lines, "W", "Schedule start date error. [202201191215] repeated for 2 more record(s)."));
}

TEST_F(ScheduleModelLogTest, AcceptedPayloadLogsNothing) {
    ScheduleModel model(BuildSchedulePayload({ScheduleRecord()}, test::kUpdateSchedule).hex, 1);
    EXPECT_TRUE(model.IsResult());
    EXPECT_TRUE(LogLines().empty());
}

} // namespace
} // namespace brvo
