#include "schedule/ScheduleModel.h"

#include "settings/LoggerSettingManager.h"
#include "support/SchedulePayload.h"
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
using test::ScheduleRecord;
using test::SchedulePayload;

const std::string kLogFile = "/media/sdcard/kestrovanyx/Log/OutputScheduleLog/OutputSchedule_pvocd.log";
const std::string kPlantId = "01234567890123456789012345";
const std::string kChecksumError = "Output rate data Checksum error.";
const std::string kDataError = "Schedule data error. exception";
const std::int64_t kJan19Utc = 1642550400;  // 2022-01-19 00:00:00 UTC

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
    for (std::size_t i = 0; i < count; ++i) rates.push_back(static_cast<int>((i * 37 + seed) % 101));
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

class ScheduleModelLogTest : public ::testing::Test {
protected:
    void SetUp() override {
        test::WriteLoggerSetting("<OutputScheduleEnableLogBufferedIO>0</OutputScheduleEnableLogBufferedIO>");
        LoggerSettingManager::CreateInstance();
        LoggerLog::CreateInstance();
    }
    void TearDown() override {
        LoggerLog::DeleteInstance();
        LoggerSettingManager::DeleteInstance();
    }
    // Ends the log so that everything is on disk, then reads its lines.
    std::vector<std::string> LogLines() {
        LoggerLog::DeleteInstance();
        return test::ReadLines(kLogFile);
    }
    // Whether a line of the given mark ends with `message` under the model's tag.
    static bool HasLine(const std::vector<std::string>& lines, const std::string& mark,
                        const std::string& message) {
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

TEST(ScheduleModelTest, CountOnlyRunsPastTheEnd) {
    ScheduleModel model("000000000001", 1);
    EXPECT_TRUE(model.IsResult());
    EXPECT_EQ(kDataError, model.GetMessage());
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
    record.fixedFlag = 5;  // not written for a fixed schedule
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
    ScheduleRecord record;  // 48 x 100 = 4800, 4800 mod 20 = 0
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

TEST(ScheduleModelTest, ZeroMonthAndDayCannotBeChecked) {
    // The lenient parse reads 2022-00-00 as a date; month + day is zero, so
    // no checksum can match.
    std::vector<unsigned char> bytes = test::DigitBytes("1", test::kRecordCountBytes);
    const std::vector<unsigned char> reserved(test::kReservedBytes, 0);
    bytes.insert(bytes.end(), reserved.begin(), reserved.end());
    for (const auto& field : {test::DigitBytes(kPlantId, 26), test::DigitBytes("202200000000", 12),
                              test::DigitBytes("1", 5), std::vector<unsigned char>{50},
                              test::DigitBytes("0", 2)}) {
        bytes.insert(bytes.end(), field.begin(), field.end());
    }
    ScheduleModel model(test::HexOf(bytes), 0);
    EXPECT_FALSE(model.IsResult());
    EXPECT_EQ(kChecksumError, model.GetMessage());
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
    std::vector<std::vector<unsigned char>> fields = {
        std::vector<unsigned char>(test::kReservedBytes, 0), test::DigitBytes(kPlantId, 26),
        test::DigitBytes("202201191215", 12), std::vector<unsigned char>(24, 0),
        test::DigitBytes(second.start, 12), test::DigitBytes("48", 5)};
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

TEST(ScheduleModelTest, UnreadableNextUpdateTimeIsLibraryError) {
    ScheduleRecord record;
    record.nextUpdate = "99999999999999";
    ScheduleModel model(BuildSchedulePayload({record}, test::kUpdateSchedule).hex, 1);
    EXPECT_TRUE(model.IsResult());
    EXPECT_EQ("Schedule data error. EXCEPTION[Null pointer]", model.GetMessage());
    EXPECT_EQ(48u, model.GetSlots().size());
    EXPECT_EQ(kPlantId, model.GetPlantId());
    EXPECT_EQ("", model.GetUpdateInfo().nextUpdateTime);
}

TEST(ScheduleModelTest, NextUpdateTimeIsConvertedToUtc) {
    ScheduleRecord record;
    record.nextUpdate = "20220101083000";
    ScheduleModel model(BuildSchedulePayload({record}, test::kUpdateSchedule).hex, 1);
    EXPECT_EQ("2021-12-31 23:30:00", model.GetUpdateInfo().nextUpdateTime);
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
    EXPECT_EQ(kChecksumError, ScheduleModel(BuildSchedulePayload({record}, test::kUpdateSchedule).hex, 1)
                                  .GetMessage());
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

TEST(ScheduleModelTest, FieldStartingAtTheEndReadsZero) {
    // The text ends after ten of 48 rates: the eleventh starts exactly at the
    // end and reads 0, the twelfth starts beyond it and throws.
    ScheduleRecord record;
    const std::string hex = BuildSchedulePayload({record}, test::kUpdateSchedule).hex.substr(0, FirstRateOffset() + 20);
    ScheduleModel model(hex, 1);
    EXPECT_TRUE(model.IsResult());
    EXPECT_EQ(kDataError, model.GetMessage());
    const std::vector<ScheduleRow> slots = model.GetSlots();
    ASSERT_EQ(11u, slots.size());
    EXPECT_EQ(100, slots[9].controlRate);
    EXPECT_EQ(0, slots[10].controlRate);
    EXPECT_EQ(kJan19Utc + 10 * 1800, slots[10].time);
}

TEST(ScheduleModelTest, FieldCutShortReadsWhatIsThere) {
    // Rate 100 is "64"; cut after its "6" it reads as the hex digit 6.
    ScheduleRecord record;
    const std::string hex = BuildSchedulePayload({record}, test::kUpdateSchedule).hex.substr(0, FirstRateOffset() + 21);
    ScheduleModel model(hex, 1);
    EXPECT_TRUE(model.IsResult());
    EXPECT_EQ(kDataError, model.GetMessage());
    ASSERT_EQ(11u, model.GetSlots().size());
    EXPECT_EQ(6, model.GetSlots()[10].controlRate);
}

TEST(ScheduleModelTest, ChecksumStartingAtTheEndIsEmpty) {
    ScheduleRecord record;
    const std::string hex = BuildSchedulePayload({record}, test::kFixedSchedule).hex;
    ScheduleModel model(hex.substr(0, hex.size() - 4), 0);
    EXPECT_FALSE(model.IsResult());
    EXPECT_EQ(kChecksumError, model.GetMessage());
    EXPECT_EQ(48u, model.GetSlots().size());
}

TEST(ScheduleModelTest, OddLengthTextReadsLastDigitAlone) {
    // Checksum "14" is "0104"; without its last digit it reads "1" + "0".
    ScheduleRecord record;
    record.rates = std::vector<int>(12, 100);
    record.rates.push_back(34);
    const std::string hex = BuildSchedulePayload({record}, test::kFixedSchedule).hex;
    ScheduleModel model(hex.substr(0, hex.size() - 1), 0);
    EXPECT_FALSE(model.IsResult());
    EXPECT_EQ(kChecksumError, model.GetMessage());
}

TEST(ScheduleModelTest, HugeRecordCountEndsAtTheText) {
    ScheduleRecord record;
    for (const std::string& count : {std::string("090909090909"), std::string("ffffffffffff")}) {
        const std::string hex = count + BuildSchedulePayload({record}, test::kUpdateSchedule).hex.substr(12);
        const auto begin = std::chrono::steady_clock::now();
        ScheduleModel model(hex, 1);
        EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(5));
        EXPECT_TRUE(model.IsResult()) << count;
        EXPECT_EQ(kDataError, model.GetMessage()) << count;
        EXPECT_EQ(48u, model.GetSlots().size()) << count;
    }
}

TEST(ScheduleModelTest, HugeSlotCountEndsAtTheText) {
    ScheduleRecord record;
    for (std::int64_t count : {99999LL, 17521LL}) {
        record.slotCountOverride = count;
        const std::string hex = BuildSchedulePayload({record}, test::kUpdateSchedule).hex;
        ScheduleModel model(hex, 1);
        EXPECT_TRUE(model.IsResult());
        EXPECT_EQ(kDataError, model.GetMessage());
        // Every byte after the slot count became a slot, plus one empty read at the end.
        EXPECT_EQ((hex.size() - FirstRateOffset()) / 2 + 1, model.GetSlots().size());
    }
    // Five bytes of 255 read as a number beyond 32 bits: it stops at the limit.
    SchedulePayload payload = BuildSchedulePayload({ScheduleRecord()}, test::kUpdateSchedule);
    for (std::size_t i = 0; i < test::kSlotCountBytes; ++i) payload.bytes[FirstRateOffset() / 2 - 1 - i] = 255;
    ScheduleModel saturated(test::HexOf(payload.bytes), 1);
    EXPECT_EQ(kDataError, saturated.GetMessage());
    EXPECT_LE(saturated.GetSlots().size(), payload.bytes.size());
}

TEST(ScheduleModelTest, NonHexTextReadsAsZeros) {
    ScheduleModel zeros("zzzzzzzzzzzz", 1);
    EXPECT_TRUE(zeros.IsResult());
    EXPECT_EQ("", zeros.GetMessage());
    EXPECT_TRUE(zeros.GetSlots().empty());

    // One record of nothing but zeros: the lenient parse takes the start
    // "000000000000" as a date, but month and day give no checksum.
    ScheduleModel one("zzzzzzzzzz01" + std::string(300, 'g'), 1);
    EXPECT_FALSE(one.IsResult());
    EXPECT_EQ(kChecksumError, one.GetMessage());
    EXPECT_EQ(std::string(26, '0'), one.GetPlantId());
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
        const bool known = message.empty() || message == "data is missing." || message == kDataError ||
                           message == kChecksumError ||
                           message == "Schedule data error. EXCEPTION[Null pointer]" ||
                           message.compare(0, 28, "Schedule start date error. [") == 0;
        EXPECT_TRUE(known) << round << " " << message;
        EXPECT_LE(model.GetSlots().size(), hex.size() / 2 + 1) << round;
        EXPECT_FALSE(message == "data is missing." && model.IsResult()) << round;
        ++seen[message.substr(0, 20)];
    }
    // The rounds reach the interesting outcomes.
    EXPECT_GT(seen[""], 0);
    EXPECT_GT(seen["data is missing."], 0);
    EXPECT_GT(seen[kDataError.substr(0, 20)], 0);
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

    const std::vector<std::string> lines = LogLines();
    EXPECT_TRUE(HasLine(lines, "E", "Schedule start date error. [202213010000]"));
    EXPECT_TRUE(HasLine(lines, "E", kChecksumError));
    EXPECT_TRUE(HasLine(lines, "E", kDataError));
    EXPECT_TRUE(HasLine(lines, "E", "Schedule data error. EXCEPTION[Null pointer]"));
    EXPECT_EQ(4u, lines.size());
}

TEST_F(ScheduleModelLogTest, AcceptedPayloadLogsNothing) {
    ScheduleModel model(BuildSchedulePayload({ScheduleRecord()}, test::kUpdateSchedule).hex, 1);
    EXPECT_TRUE(model.IsResult());
    EXPECT_TRUE(LogLines().empty());
}

} // namespace
} // namespace brvo
