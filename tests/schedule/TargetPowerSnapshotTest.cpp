#include "schedule/TargetPowerSnapshot.h"

#include "database/ScheduleDatabase.h"
#include "schedule/RateControl.h"
#include "settings/DeviceSettingXmlManager.h"
#include "settings/LoggerSettingManager.h"
#include "settings/SystemSettingXmlManager.h"
#include "support/SingletonTest.h"
#include "support/TestFiles.h"
#include "util/FileChangeWatch.h"
#include "util/LoggerLog.h"
#include "util/SystemClock.h"
#include "util/TimeStamp.h"

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

namespace brvo {
namespace {

using Miss = TargetPowerSnapshot::Miss;

const std::int64_t kSlotSeconds = 1800;
// Reads racing the stores, at least, and the stores they race.
const int kReads = 10000;
const int kStores = 40;

std::int64_t SlotNow() {
    return TimeStamp().EpochSeconds() / kSlotSeconds * kSlotSeconds;
}

// Every slot from two before the current one to four after it at `rate`.
std::vector<ScheduleRow> Schedule(std::int64_t slot0, int rate) {
    std::vector<ScheduleRow> rows;
    for (int k = -2; k <= 4; ++k) {
        ScheduleRow row;
        row.time = slot0 + k * kSlotSeconds;
        row.controlRate = rate;
        rows.push_back(row);
    }
    return rows;
}

class TargetPowerSnapshotTest : public test::SingletonTest {
protected:
    void SetUp() override {
        // Warnings and up only: the race below computes twenty thousand
        // answers, each with its Info line otherwise.
        test::WriteLoggerSetting("<OutputScheduleEnableLogBufferedIO>0</OutputScheduleEnableLogBufferedIO>"
                                 "<LogLevel>3</LogLevel>");
        LoggerSettingManager::CreateInstance();
        LoggerLog::CreateInstance();
        WriteSystemSetting("PLANT1");
        WriteDevice("Value0=\"0\" Value100=\"100\" ValueMin=\"0\"");
        ScheduleDatabase::CreateInstance();
    }

    void TearDown() override {
        snapshot_.LetGo(0);
        snapshot_.Reclaim();
        SingletonTest::TearDown();
    }

    static void WriteSystemSetting(const std::string& plantId) { test::WriteSystemSettingWithDevice(plantId); }

    static void WriteDevice(const std::string& limitAttributes) { test::WriteDeviceLimit(limitAttributes); }

    // The view now, held for reader 0, when it answers at the current time.
    const TargetPowerSnapshot::View* Covering() {
        const TargetPowerSnapshot::View* view = snapshot_.Hold(0);
        return TargetPowerSnapshot::Covers(view, SystemClock::NowMicroseconds()) == Miss::kNone ? view : nullptr;
    }

    TargetPowerSnapshot& snapshot_ = TargetPowerSnapshot::Instance();
};

TEST_F(TargetPowerSnapshotTest, RebuildAnswersAsRateControlDoes) {
    const std::int64_t slot0 = SlotNow();
    std::vector<ScheduleRow> rows = Schedule(slot0, 50);
    rows[3].controlRate = 80;
    ASSERT_TRUE(ScheduleDatabase::GetInstance()->InsertUpdateSchedule(rows));
    snapshot_.Rebuild();
    const TargetPowerSnapshot::View* view = Covering();
    ASSERT_NE(nullptr, view);
    const std::int64_t now = SystemClock::NowMicroseconds();
    for (int type : {RateControl::kCurrentTargetPower, RateControl::kNextTargetPower}) {
        const TargetPowerSnapshot::Answer answer = TargetPowerSnapshot::Compute(*view, now, type, 5.5);
        std::shared_ptr<TargetPowerResult> expected = RateControl().GetTargetPower(5.5, type);
        EXPECT_EQ(expected->GetCode(), answer.code);
        EXPECT_EQ(expected->GetTargetPower(), answer.power);
        EXPECT_EQ(expected->GetTimeText(), answer.timeText);
    }
}

// Two schedules replace each other while the view is read: every view read
// holds the current and the next slot of one of them, never one of each.
TEST_F(TargetPowerSnapshotTest, StoreRacingReadsNeverMixesTwoSchedules) {
    const std::int64_t slot0 = SlotNow();
    ScheduleDatabase& database = *ScheduleDatabase::GetInstance();
    ASSERT_TRUE(database.InsertUpdateSchedule(Schedule(slot0, 10)));
    snapshot_.Rebuild();
    std::atomic<int> stores(0);
    std::thread writer([&] {
        for (int i = 0; i < kStores; ++i) {
            database.InsertUpdateSchedule(Schedule(slot0, i % 2 == 0 ? 20 : 10));
            ++stores;
        }
    });
    // Every reader reads and frees retired views as the server's loops do,
    // at least kReads times and on until the writer is done (it makes a
    // bounded number of stores). A view freed while another reader still
    // holds it shows under the sanitizers.
    struct Reads {
        int reads = 0;
        int answered = 0;
        int mixed = 0;
    };
    Reads counts[TargetPowerSnapshot::kReaders];
    std::vector<std::thread> readers;
    for (int reader = 0; reader < TargetPowerSnapshot::kReaders; ++reader) {
        readers.emplace_back([&, reader] {
            Reads& mine = counts[reader];
            while (mine.reads < kReads || stores < kStores) {
                ++mine.reads;
                const std::int64_t now = SystemClock::NowMicroseconds();
                const TargetPowerSnapshot::View* view = snapshot_.Hold(reader);
                if (TargetPowerSnapshot::Covers(view, now) == Miss::kNone) {
                    const TargetPowerSnapshot::Answer current =
                        TargetPowerSnapshot::Compute(*view, now, RateControl::kCurrentTargetPower, 100.0);
                    const TargetPowerSnapshot::Answer next =
                        TargetPowerSnapshot::Compute(*view, now, RateControl::kNextTargetPower, 100.0);
                    ++mine.answered;
                    if (current.power != next.power || (current.power != 10.0 && current.power != 20.0)) {
                        ++mine.mixed;
                    }
                }
                snapshot_.LetGo(reader);
                snapshot_.Reclaim();
            }
        });
    }
    writer.join();
    for (std::thread& reader : readers) reader.join();
    for (const Reads& mine : counts) {
        EXPECT_EQ(0, mine.mixed) << "of " << mine.answered << " answered in " << mine.reads << " reads";
        EXPECT_GT(mine.answered, 0);
    }
}

// A view held by a reader outlives its replacement and any number of
// Reclaims, and still reads as it was published; once let go, the next
// Reclaim frees it (under the sanitizers a read of a freed view fails).
TEST_F(TargetPowerSnapshotTest, HeldViewOutlivesItsReplacement) {
    const std::int64_t slot0 = SlotNow();
    ScheduleDatabase& database = *ScheduleDatabase::GetInstance();
    ASSERT_TRUE(database.InsertUpdateSchedule(Schedule(slot0, 10)));
    snapshot_.Rebuild();
    const TargetPowerSnapshot::View* held = snapshot_.Hold(1);
    ASSERT_NE(nullptr, held);
    for (int rate = 20; rate <= 50; rate += 10) {
        ASSERT_TRUE(database.InsertUpdateSchedule(Schedule(slot0, rate)));
        snapshot_.Reclaim();
    }
    EXPECT_NE(held, snapshot_.Hold(0));
    EXPECT_EQ(10, held->current.rate);
    EXPECT_EQ(50, Covering()->current.rate);
    snapshot_.LetGo(1);
    snapshot_.Reclaim();
}

TEST_F(TargetPowerSnapshotTest, StoreIsPublishedAtOnce) {
    const std::int64_t slot0 = SlotNow();
    ScheduleDatabase& database = *ScheduleDatabase::GetInstance();
    ASSERT_TRUE(database.InsertUpdateSchedule(Schedule(slot0, 10)));
    snapshot_.Rebuild();
    ASSERT_TRUE(database.InsertUpdateSchedule(Schedule(slot0, 40)));
    const TargetPowerSnapshot::View* view = Covering();
    ASSERT_NE(nullptr, view);
    EXPECT_EQ(40, view->current.rate);
    EXPECT_TRUE(database.DeleteAll());
    view = Covering();
    ASSERT_NE(nullptr, view);
    EXPECT_EQ(TargetPowerResult::Code::kNoSchedule,
              TargetPowerSnapshot::Compute(*view, SystemClock::NowMicroseconds(), RateControl::kCurrentTargetPower, 1.0)
                  .code);
}

// The views hold while nothing changes; a settings change is seen once
// the settings readers take the watch's report, and the next rebuild
// answers with it.
TEST_F(TargetPowerSnapshotTest, SettingsChangeStopsTheViewUntilRebuilt) {
    ASSERT_TRUE(ScheduleDatabase::GetInstance()->InsertUpdateSchedule(Schedule(SlotNow(), 50)));
    snapshot_.Rebuild();
    ASSERT_NE(nullptr, Covering());
    WriteDevice("Value0=\"0\" Value100=\"100\" ValueMin=\"70\"");
    // What the event loop does on the watch's report.
    FileChangeWatch::Instance().NoteReported();
    EXPECT_EQ(Miss::kRebuild, TargetPowerSnapshot::Covers(snapshot_.Hold(0), SystemClock::NowMicroseconds()));
    snapshot_.Rebuild();
    const TargetPowerSnapshot::View* view = Covering();
    ASSERT_NE(nullptr, view);
    EXPECT_EQ(70.0, TargetPowerSnapshot::Compute(*view, SystemClock::NowMicroseconds(),
                                                 RateControl::kCurrentTargetPower, 100.0)
                        .power);

    WriteSystemSetting("");
    FileChangeWatch::Instance().NoteReported();
    snapshot_.Rebuild();
    view = Covering();
    ASSERT_NE(nullptr, view);
    const TargetPowerSnapshot::Answer answer =
        TargetPowerSnapshot::Compute(*view, SystemClock::NowMicroseconds(), RateControl::kCurrentTargetPower, 9.0);
    EXPECT_EQ(TargetPowerResult::Code::kPlantIdNotFound, answer.code);
    EXPECT_EQ(9.0, answer.power);
}

// A view read in one slot still answers in the next one: that slot is then
// in force and the one after it is next. It is no longer fresh there, so
// the server asks for a rebuild; at the start of the slot after next, or
// before its reading, it no longer answers.
TEST_F(TargetPowerSnapshotTest, ViewHoldsUntilTheSlotAfterNext) {
    const std::int64_t slot0 = SlotNow();
    std::vector<ScheduleRow> rows = Schedule(slot0, 50);
    for (ScheduleRow& row : rows) row.controlRate = static_cast<int>(50 + (row.time - slot0) / kSlotSeconds);
    ASSERT_TRUE(ScheduleDatabase::GetInstance()->InsertUpdateSchedule(rows));
    snapshot_.Rebuild();
    const TargetPowerSnapshot::View* view = Covering();
    ASSERT_NE(nullptr, view);
    EXPECT_EQ(slot0, view->current.time);
    EXPECT_EQ(slot0 + kSlotSeconds, view->next.time);
    EXPECT_EQ(slot0 + 2 * kSlotSeconds, view->after.time);
    const std::int64_t boundary = (slot0 + kSlotSeconds) * 1000000;
    const std::int64_t end = (slot0 + 2 * kSlotSeconds) * 1000000;
    const auto power = [view](std::int64_t now, int type) {
        return TargetPowerSnapshot::Compute(*view, now, type, 100.0).power;
    };
    EXPECT_EQ(Miss::kNone, TargetPowerSnapshot::Covers(view, boundary - 1));
    EXPECT_FALSE(TargetPowerSnapshot::Aging(*view, boundary - 1));
    EXPECT_EQ(50.0, power(boundary - 1, RateControl::kCurrentTargetPower));
    EXPECT_EQ(51.0, power(boundary - 1, RateControl::kNextTargetPower));
    EXPECT_EQ(Miss::kNone, TargetPowerSnapshot::Covers(view, boundary));
    EXPECT_TRUE(TargetPowerSnapshot::Aging(*view, boundary));
    EXPECT_EQ(51.0, power(boundary, RateControl::kCurrentTargetPower));
    EXPECT_EQ(52.0, power(boundary, RateControl::kNextTargetPower));
    EXPECT_STREQ(view->next.compact,
                 TargetPowerSnapshot::Compute(*view, end - 1, RateControl::kCurrentTargetPower, 1.0).timeText);
    EXPECT_EQ(Miss::kBoundary, TargetPowerSnapshot::Covers(view, end));
    EXPECT_EQ(Miss::kBoundary, TargetPowerSnapshot::Covers(view, view->from * 1000000 - 1));
}

// The last stored slot has no slot after it: a view read before it holds
// on, answering that no next schedule exists once it is in force.
TEST_F(TargetPowerSnapshotTest, ViewBeforeTheLastSlotHoldsOn) {
    const std::int64_t slot0 = SlotNow();
    std::vector<ScheduleRow> rows(2);
    rows[0].time = slot0;
    rows[0].controlRate = 30;
    rows[1].time = slot0 + kSlotSeconds;
    rows[1].controlRate = 60;
    ASSERT_TRUE(ScheduleDatabase::GetInstance()->InsertUpdateSchedule(rows));
    snapshot_.Rebuild();
    const TargetPowerSnapshot::View* view = Covering();
    ASSERT_NE(nullptr, view);
    EXPECT_EQ(-1, view->after.time);
    const std::int64_t later = (slot0 + 10 * kSlotSeconds) * 1000000;
    EXPECT_EQ(Miss::kNone, TargetPowerSnapshot::Covers(view, later));
    EXPECT_EQ(60.0, TargetPowerSnapshot::Compute(*view, later, RateControl::kCurrentTargetPower, 100.0).power);
    EXPECT_EQ(TargetPowerResult::Code::kNoSchedule,
              TargetPowerSnapshot::Compute(*view, later, RateControl::kNextTargetPower, 100.0).code);
}

} // namespace
} // namespace brvo
