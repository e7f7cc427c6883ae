#include "schedule/RateControl.h"

#include "database/ScheduleDatabase.h"
#include "settings/LoggerSettingManager.h"
#include "support/SingletonTest.h"
#include "support/TestFiles.h"
#include "util/LoggerLog.h"
#include "util/TimeStamp.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

namespace brvo {
namespace {

const std::string kTag = "RateControl";
// 2022-01-19 03:10:00 UTC, inside the slot starting at 03:00.
const std::int64_t kNow = 1642561800;
const std::int64_t kSlot = 1642561200; // 2022-01-19 03:00:00 UTC

ScheduleRow Row(std::int64_t time, int rate) {
    ScheduleRow row;
    row.time = time;
    row.controlRate = rate;
    return row;
}

Poco::Timestamp At(std::int64_t seconds) {
    return Poco::Timestamp(static_cast<Poco::Timestamp::TimeVal>(seconds) * 1000000);
}

class RateControlTest : public test::SingletonTest {
protected:
    void SetUp() override {
        UseLoggerSettings("");
        WriteSystemSetting("PLANT1");
        WriteDevice("Value0=\"0\" Value100=\"100\" ValueMin=\"0\"");
    }

    void UseLoggerSettings(const std::string& innerXml) {
        ScheduleDatabase::DeleteInstance();
        SingletonTest::UseLoggerSettings(innerXml);
        ScheduleDatabase::CreateInstance();
    }

    static void WriteSystemSetting(const std::string& plantId) { test::WriteSystemSettingWithDevice(plantId); }

    static void WriteDevice(const std::string& limitAttributes) { test::WriteDeviceLimit(limitAttributes); }

    static void Store(const std::vector<ScheduleRow>& rows) {
        ASSERT_TRUE(ScheduleDatabase::GetInstance()->InsertUpdateSchedule(rows));
    }

    static std::shared_ptr<TargetPowerResult> Target(double capacity, int type, std::int64_t now = kNow) {
        RateControl control([now] { return At(now); });
        return control.GetTargetPower(capacity, type);
    }

    static std::vector<std::string> LogLines() { return test::FlushedLogLines(); }
};

TEST_F(RateControlTest, HalfOfFivePointFiveIsTwoPointSevenFive) {
    Store({Row(kSlot, 50), Row(kSlot + 1800, 80)});
    std::shared_ptr<TargetPowerResult> result = Target(5.5, RateControl::kCurrentTargetPower);
    ASSERT_TRUE(result->IsSuccess()) << result->GetMessage();
    EXPECT_EQ(0, ToWire(result->GetCode()));
    EXPECT_DOUBLE_EQ(2.75, result->GetTargetPower());
    EXPECT_EQ("20220119030000", result->GetTimeText());
    EXPECT_EQ("", result->GetMessage());
    EXPECT_TRUE(test::HasLogLine(LogLines(), "I", kTag,
                                 "2022-01-19 03:00:00(UTC) Output Rate [50]  target power[2.750000]  "
                                 "capacity[5.500000]"));
}

TEST_F(RateControlTest, NextSlotForNextTargetPower) {
    Store({Row(kSlot, 50), Row(kSlot + 1800, 80)});
    std::shared_ptr<TargetPowerResult> result = Target(10.0, RateControl::kNextTargetPower);
    ASSERT_TRUE(result->IsSuccess());
    EXPECT_DOUBLE_EQ(8.0, result->GetTargetPower());
    EXPECT_EQ("20220119033000", result->GetTimeText());
}

TEST_F(RateControlTest, SlotStartingNowIsCurrent) {
    Store({Row(kSlot, 50), Row(kSlot + 1800, 80)});
    std::shared_ptr<TargetPowerResult> result = Target(10.0, RateControl::kCurrentTargetPower, kSlot);
    EXPECT_EQ("20220119030000", result->GetTimeText());
    result = Target(10.0, RateControl::kNextTargetPower, kSlot);
    EXPECT_EQ("20220119033000", result->GetTimeText());
}

TEST_F(RateControlTest, InverterScaleMapsTheRate) {
    WriteDevice("Value0=\"10\" Value100=\"90\" ValueMin=\"0\"");
    Store({Row(kSlot, 50), Row(kSlot + 1800, 33)});
    std::shared_ptr<TargetPowerResult> current = Target(100.0, RateControl::kCurrentTargetPower);
    EXPECT_DOUBLE_EQ(50.0, current->GetTargetPower());
    std::shared_ptr<TargetPowerResult> next = Target(100.0, RateControl::kNextTargetPower);
    // roundf(0.33 * 80 + 10) = roundf(36.4) = 36
    EXPECT_DOUBLE_EQ(36.0, next->GetTargetPower());
    EXPECT_TRUE(test::HasLogLineStarting(LogLines(), "I", kTag, "2022-01-19 03:30:00(UTC) Output Rate [36]"));
}

TEST_F(RateControlTest, FloorOfTheInverterRaisesAZeroRate) {
    WriteDevice("ValueMin=\"3\"");
    Store({Row(kSlot, 0)});
    std::shared_ptr<TargetPowerResult> result = Target(10.0, RateControl::kCurrentTargetPower);
    ASSERT_TRUE(result->IsSuccess());
    EXPECT_DOUBLE_EQ(3.0, result->GetTargetPower());
}

TEST_F(RateControlTest, NoUpperClampForRatesAboveHundred) {
    Store({Row(kSlot, 150)});
    EXPECT_DOUBLE_EQ(15.0, Target(10.0, RateControl::kCurrentTargetPower)->GetTargetPower());
}

TEST_F(RateControlTest, LargestStoredRateWithALargeCapacity) {
    Store({Row(kSlot, 255)});
    std::shared_ptr<TargetPowerResult> result = Target(1e300, RateControl::kCurrentTargetPower);
    ASSERT_TRUE(result->IsSuccess());
    EXPECT_DOUBLE_EQ(2.55e300, result->GetTargetPower());
}

// Value100 - Value0 is beyond the range of an int here; the scale still
// maps 100 % to Value100 (all values are exact in single precision).
TEST_F(RateControlTest, InverterScaleWiderThanAnInt) {
    WriteDevice("Value0=\"-1000000000\" Value100=\"2000000000\" ValueMin=\"0\"");
    Store({Row(kSlot, 100), Row(kSlot + 1800, 0)});
    std::shared_ptr<TargetPowerResult> current = Target(1.0, RateControl::kCurrentTargetPower);
    ASSERT_TRUE(current->IsSuccess());
    EXPECT_DOUBLE_EQ(2e7, current->GetTargetPower());
    EXPECT_TRUE(test::HasLogLineStarting(LogLines(), "I", kTag, "2022-01-19 03:00:00(UTC) Output Rate [2000000000]"));
    // 0 % maps to Value0, below the floor of 0.
    EXPECT_DOUBLE_EQ(0.0, Target(1.0, RateControl::kNextTargetPower)->GetTargetPower());
}

// A rate above 100 scaled onto a wide inverter scale gives a rate beyond
// the range of an int: it is used as it is, with no upper clamp.
TEST_F(RateControlTest, RateAboveHundredScaledBeyondAnInt) {
    WriteDevice("Value0=\"0\" Value100=\"2000000000\" ValueMin=\"0\"");
    Store({Row(kSlot, 200)});
    std::shared_ptr<TargetPowerResult> result = Target(1.0, RateControl::kCurrentTargetPower);
    ASSERT_TRUE(result->IsSuccess());
    EXPECT_DOUBLE_EQ(4e7, result->GetTargetPower());
    EXPECT_TRUE(test::HasLogLineStarting(LogLines(), "I", kTag, "2022-01-19 03:00:00(UTC) Output Rate [4000000000]"));
}

TEST_F(RateControlTest, NoPlantIdIsCodeElevenWithTheCapacity) {
    WriteSystemSetting("");
    Store({Row(kSlot, 50)});
    std::shared_ptr<TargetPowerResult> result = Target(7.5, RateControl::kCurrentTargetPower);
    EXPECT_FALSE(result->IsSuccess());
    EXPECT_EQ(11, ToWire(result->GetCode()));
    EXPECT_EQ("Plantid not found.", result->GetMessage());
    EXPECT_DOUBLE_EQ(7.5, result->GetTargetPower());
    EXPECT_EQ("", result->GetTimeText());
    EXPECT_TRUE(test::HasLogLine(LogLines(), "W", kTag, "Get Target Power failed. Plantid not found."));
}

TEST_F(RateControlTest, DateCheckPassesFromNewYearInHomeTime) {
    WriteDevice("ValueMin=\"2\"");
    Store({Row(kSlot, 50)});
    // 2019-12-31 15:00:00 UTC is 2020-01-01 00:00 at UTC+9.
    const std::int64_t newYear = 1577804400;
    std::shared_ptr<TargetPowerResult> passed = Target(10.0, RateControl::kCurrentTargetPower, newYear);
    EXPECT_NE(10, ToWire(passed->GetCode()));
    std::shared_ptr<TargetPowerResult> early = Target(10.0, RateControl::kCurrentTargetPower, newYear - 1);
    EXPECT_EQ(10, ToWire(early->GetCode()));
    EXPECT_EQ("Current date error.", early->GetMessage());
    EXPECT_DOUBLE_EQ(2.0, early->GetTargetPower());
    EXPECT_TRUE(test::HasLogLine(LogLines(), "W", kTag, "Get Target Power failed. Current date error."));
}

TEST_F(RateControlTest, TestModeMovesTheEarliestDateTo2016) {
    UseLoggerSettings("<OutputControlTestMode>1</OutputControlTestMode>");
    const std::int64_t in2018 = 1514764800;
    Store({Row(in2018 - 1800, 40)});
    std::shared_ptr<TargetPowerResult> result = Target(10.0, RateControl::kCurrentTargetPower, in2018);
    ASSERT_TRUE(result->IsSuccess()) << result->GetMessage();
    EXPECT_DOUBLE_EQ(4.0, result->GetTargetPower());
    // 2015-12-31 14:59:59 UTC is still 2015 at UTC+9.
    EXPECT_EQ(10, ToWire(Target(10.0, RateControl::kCurrentTargetPower, 1451573999)->GetCode()));
    EXPECT_NE(10, ToWire(Target(10.0, RateControl::kCurrentTargetPower, 1451574000)->GetCode()));
}

TEST_F(RateControlTest, NoNextSlotIsCodeFive) {
    WriteDevice("ValueMin=\"1\"");
    Store({Row(kSlot, 50)});
    std::shared_ptr<TargetPowerResult> result = Target(10.0, RateControl::kNextTargetPower);
    EXPECT_EQ(5, ToWire(result->GetCode()));
    EXPECT_EQ("can not get.", result->GetMessage());
    EXPECT_DOUBLE_EQ(1.0, result->GetTargetPower());
    EXPECT_TRUE(test::HasLogLine(LogLines(), "W", kTag, "Get Target Power failed. can not get."));
}

TEST_F(RateControlTest, EmptyTableIsCodeFiveForTheCurrentSlotToo) {
    EXPECT_EQ(5, ToWire(Target(10.0, RateControl::kCurrentTargetPower)->GetCode()));
}

TEST_F(RateControlTest, MissingDeviceKeepsTheDefaults) {
    test::RemoveAll(test::FixedPath("/usr/local/etc/kestrovanyx/DeviceXML/pv.xml"));
    Store({Row(kSlot, 50)});
    std::shared_ptr<TargetPowerResult> result = Target(4.0, RateControl::kCurrentTargetPower);
    ASSERT_TRUE(result->IsSuccess());
    EXPECT_DOUBLE_EQ(2.0, result->GetTargetPower());
}

TEST_F(RateControlTest, ChangedSystemSettingsTakeEffectAtTheNextRequest) {
    Store({Row(kSlot, 50)});
    ASSERT_TRUE(Target(4.0, RateControl::kCurrentTargetPower)->IsSuccess());
    WriteSystemSetting("");
    EXPECT_EQ(11, ToWire(Target(4.0, RateControl::kCurrentTargetPower)->GetCode()));
    WriteSystemSetting("P2");
    WriteDevice("ValueMin=\"3\"");
    EXPECT_DOUBLE_EQ(3.0, Target(4.0, RateControl::kCurrentTargetPower)->GetTargetPower());
}

TEST_F(RateControlTest, SlotAfter2038IsComputed) {
    const std::int64_t later = 4102444800LL; // 2100-01-01 00:00:00 UTC
    Store({Row(later, 60)});
    std::shared_ptr<TargetPowerResult> result = Target(10.0, RateControl::kCurrentTargetPower, later + 60);
    ASSERT_TRUE(result->IsSuccess());
    EXPECT_DOUBLE_EQ(6.0, result->GetTargetPower());
    EXPECT_EQ("21000101000000", result->GetTimeText());
}

} // namespace
} // namespace brvo
