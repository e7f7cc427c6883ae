// The real pvocd answering target power from memory on its accepting
// thread: a settings change reaches the very next answer, a slot boundary
// passed under a faked clock gives the new slot's answer, and a table that
// another process holds locked, also across a slot boundary and past the
// slots held in memory, or that cannot be opened at all, holds up no
// answer.
#include "server/CommandWire.h"
#include "support/ChildProcess.h"
#include "support/DaemonClient.h"
#include "support/SqliteFile.h"
#include "support/StoredSchedule.h"
#include "support/TableLock.h"
#include "support/TestFiles.h"
#include "util/TimeStamp.h"

#include <gtest/gtest.h>

#include <csignal>
#include <string>
#include <utility>
#include <vector>

namespace brvo {
namespace {

using test::Ask;
using test::Capacity;
using test::Field;
using test::PowerOf;
using test::WordAt;

const std::string kPlant = "00000000000000000000000555";
const std::int64_t kSlotSeconds = 1800;
// Long enough for any answer on a slow machine, far shorter than the
// 60 s a read waits for a table's lock.
const int kAnswerWithinMs = 20000;
// The file the daemon's faked clock is read from.
const char kClockFile[] = "/tmp/fast-answer-clock";

class FastAnswerTest : public ::testing::Test {
protected:
    void SetUp() override {
        test::WriteLoggerSetting("<OutputScheduleEnableLogBufferedIO>0</OutputScheduleEnableLogBufferedIO>"
                                 "<OutputControlSocketTimeout>10</OutputControlSocketTimeout>");
        WriteSystemSetting(kPlant);
        WriteDevice(0);
    }

    void TearDown() override {
        if (daemon_.Running()) {
            daemon_.Signal(SIGTERM);
            daemon_.WaitExit(5000 * static_cast<int>(test::TimeScale()));
        }
    }

    // Stand-alone (nothing is fetched), with the household solar unit's
    // description in pv.xml.
    static void WriteSystemSetting(const std::string& plantId) { test::WriteSystemSettingWithDevice(plantId, true); }

    static void WriteDevice(int valueMin) {
        test::WriteDeviceLimit("Value0=\"0\" Value100=\"100\" ValueMin=\"" + std::to_string(valueMin) + "\"");
    }

    // Slots from two before `slot0` to two after it, rate 10 + 10 per slot.
    static void StoreAround(std::int64_t slot0) {
        std::vector<std::pair<std::int64_t, int>> slots;
        for (int k = -2; k <= 2; ++k) slots.emplace_back(slot0 + k * kSlotSeconds, 30 + 10 * k);
        test::StoreSchedule(kPlant, slots);
    }

    static std::string AskCurrent(double capacity = 100.0) {
        return Ask(test::kCurrentTargetPowerRequest, Capacity(capacity), kAnswerWithinMs);
    }

    void Start(const std::map<std::string, std::string>& env = {}) {
        ASSERT_TRUE(test::StartDaemon(daemon_, test::kDaemonOutput, env));
    }

    // Sets the daemon's faked clock to `seconds` since the epoch.
    static void SetClock(std::int64_t seconds) {
        test::ChildProcess::SetFakeTime(kClockFile,
                                        "@" + TimeStamp::FromEpochSeconds(seconds)->Format("%Y-%m-%d %H:%M:%S"));
    }

    // Stores the slots around `slot0` and starts the daemon with its clock
    // standing ten seconds before the next slot's start.
    void StartBeforeBoundary(std::int64_t slot0) {
        StoreAround(slot0);
        SetClock(slot0 + kSlotSeconds - 10);
        std::map<std::string, std::string> env = test::ChildProcess::FakeTimeFileEnv(kClockFile);
        env["TZ"] = "UTC";
        Start(env);
    }

    // Starts the daemon ten seconds before the end of a slot a day ago,
    // checks that it answers that slot's rate, and returns its start.
    std::int64_t StartAnsweringBeforeBoundary() {
        const std::int64_t slot0 = (TimeStamp().EpochSeconds() / kSlotSeconds - 48) * kSlotSeconds;
        StartBeforeBoundary(slot0);
        if (!HasFatalFailure()) {
            EXPECT_DOUBLE_EQ(30.0, PowerOf(AskCurrent()));
        }
        return slot0;
    }

    test::ChildProcess daemon_;
};

TEST_F(FastAnswerTest, SettingsChangeReachesTheNextAnswer) {
    StoreAround(TimeStamp().EpochSeconds() / kSlotSeconds * kSlotSeconds);
    Start();
    if (HasFatalFailure()) return;
    std::string answer = AskCurrent();
    ASSERT_EQ(test::kTargetPowerAnswerSize, answer.size());
    EXPECT_EQ(0, WordAt(answer, CommandWire::kTargetCodeOffset));
    EXPECT_DOUBLE_EQ(30.0, PowerOf(answer));

    // A floor above the rate: the very next answer has it.
    WriteDevice(45);
    answer = AskCurrent();
    ASSERT_EQ(test::kTargetPowerAnswerSize, answer.size());
    EXPECT_DOUBLE_EQ(45.0, PowerOf(answer));
    answer = AskCurrent();
    EXPECT_DOUBLE_EQ(45.0, PowerOf(answer));

    WriteSystemSetting("");
    answer = AskCurrent(7.0);
    ASSERT_EQ(test::kTargetPowerAnswerSize, answer.size());
    EXPECT_EQ(11, WordAt(answer, CommandWire::kTargetCodeOffset));
    EXPECT_DOUBLE_EQ(7.0, PowerOf(answer));
    EXPECT_EQ(Field("Plantid not found.", CommandWire::kMessageSize), answer.substr(CommandWire::kTargetMessageOffset));

    WriteSystemSetting(kPlant);
    answer = AskCurrent();
    EXPECT_EQ(0, WordAt(answer, CommandWire::kTargetCodeOffset));
    EXPECT_DOUBLE_EQ(45.0, PowerOf(answer));
}

// The daemon's clock stands ten seconds before a slot boundary, then is
// set past it: the view of the old slot no longer answers, and the answer
// is the new slot's.
TEST_F(FastAnswerTest, SlotBoundaryPassedGivesTheNewSlot) {
    const std::int64_t slot0 = (TimeStamp().EpochSeconds() / kSlotSeconds - 48) * kSlotSeconds;
    StartBeforeBoundary(slot0);
    if (HasFatalFailure()) return;
    std::string answer = AskCurrent();
    ASSERT_EQ(test::kTargetPowerAnswerSize, answer.size());
    EXPECT_EQ(Field(TimeStamp::FromEpochSeconds(slot0)->FormatCompact(), CommandWire::kTargetTimeSize),
              answer.substr(CommandWire::kTargetTimeOffset, CommandWire::kTargetTimeSize));
    EXPECT_DOUBLE_EQ(30.0, PowerOf(answer));

    SetClock(slot0 + kSlotSeconds + 5);
    answer = AskCurrent();
    ASSERT_EQ(test::kTargetPowerAnswerSize, answer.size());
    EXPECT_EQ(Field(TimeStamp::FromEpochSeconds(slot0 + kSlotSeconds)->FormatCompact(), CommandWire::kTargetTimeSize),
              answer.substr(CommandWire::kTargetTimeOffset, CommandWire::kTargetTimeSize));
    EXPECT_DOUBLE_EQ(40.0, PowerOf(answer));
    answer = Ask(test::kNextTargetPowerRequest, Capacity(100.0), kAnswerWithinMs);
    EXPECT_DOUBLE_EQ(50.0, PowerOf(answer));
}

// Another process holds the table's exclusive lock (a read would wait 60 s
// for it): the answers come from memory all the same.
TEST_F(FastAnswerTest, LockedTableHoldsUpNoAnswer) {
    StoreAround(TimeStamp().EpochSeconds() / kSlotSeconds * kSlotSeconds);
    Start();
    if (HasFatalFailure()) return;
    ASSERT_EQ(0, WordAt(AskCurrent(), CommandWire::kTargetCodeOffset));
    test::TableLock lock(test::kScheduleDbFile);
    if (HasFailure()) return;
    for (int i = 0; i < 20; ++i) {
        const std::string answer = AskCurrent();
        ASSERT_EQ(test::kTargetPowerAnswerSize, answer.size()) << "request " << i << " waited for the lock";
        EXPECT_EQ(0, WordAt(answer, CommandWire::kTargetCodeOffset));
        EXPECT_DOUBLE_EQ(30.0, PowerOf(answer));
    }
    // A settings change needs no read of the table either.
    WriteDevice(45);
    EXPECT_DOUBLE_EQ(45.0, PowerOf(AskCurrent()));
}

// The table is locked by another process, and then the clock passes a slot
// boundary: the slots held in memory still answer, the new slot's rate now
// and the one after it as next, while the rebuild waits for the lock.
TEST_F(FastAnswerTest, LockedTableAcrossASlotBoundaryHoldsUpNoAnswer) {
    const std::int64_t slot0 = StartAnsweringBeforeBoundary();
    if (HasFailure()) return;
    test::TableLock lock(test::kScheduleDbFile);
    if (HasFailure()) return;
    SetClock(slot0 + kSlotSeconds + 5);
    for (int i = 0; i < 5; ++i) {
        std::string answer = AskCurrent();
        ASSERT_EQ(test::kTargetPowerAnswerSize, answer.size()) << "request " << i << " waited for the lock";
        EXPECT_EQ(0, WordAt(answer, CommandWire::kTargetCodeOffset));
        EXPECT_EQ(
            Field(TimeStamp::FromEpochSeconds(slot0 + kSlotSeconds)->FormatCompact(), CommandWire::kTargetTimeSize),
            answer.substr(CommandWire::kTargetTimeOffset, CommandWire::kTargetTimeSize));
        EXPECT_DOUBLE_EQ(40.0, PowerOf(answer));
        answer = Ask(test::kNextTargetPowerRequest, Capacity(100.0), kAnswerWithinMs);
        ASSERT_EQ(test::kTargetPowerAnswerSize, answer.size()) << "request " << i << " waited for the lock";
        EXPECT_DOUBLE_EQ(50.0, PowerOf(answer));
    }
}

// The table is locked by another process and the clock passes every slot
// held in memory: the answer workers read the table, and their read gives
// up on the lock at once (code 5) instead of waiting the minute of every
// other statement; once the lock is gone, the table answers again.
TEST_F(FastAnswerTest, LockedTablePastTheHeldSlotsAnswersNoSlotAtOnce) {
    const std::int64_t slot0 = StartAnsweringBeforeBoundary();
    if (HasFailure()) return;
    test::TableLock lock(test::kScheduleDbFile);
    if (HasFailure()) return;
    SetClock(slot0 + 3 * kSlotSeconds + 5);
    for (int i = 0; i < 3; ++i) {
        const std::string answer = AskCurrent();
        ASSERT_EQ(test::kTargetPowerAnswerSize, answer.size()) << "request " << i << " waited for the lock";
        EXPECT_EQ(5, WordAt(answer, CommandWire::kTargetCodeOffset));
        EXPECT_EQ(Field("can not get.", CommandWire::kMessageSize), answer.substr(CommandWire::kTargetMessageOffset));
    }
    lock.Release();
    const std::string answer = AskCurrent();
    ASSERT_EQ(test::kTargetPowerAnswerSize, answer.size());
    EXPECT_EQ(0, WordAt(answer, CommandWire::kTargetCodeOffset));
    EXPECT_EQ(
        Field(TimeStamp::FromEpochSeconds(slot0 + 2 * kSlotSeconds)->FormatCompact(), CommandWire::kTargetTimeSize),
        answer.substr(CommandWire::kTargetTimeOffset, CommandWire::kTargetTimeSize));
    EXPECT_DOUBLE_EQ(50.0, PowerOf(answer));
}

// A table that cannot be opened (a directory stands at its path): code 5
// at once, every time.
TEST_F(FastAnswerTest, UnopenableTableAnswersNoSlotAtOnce) {
    test::WriteFile(std::string(test::kScheduleDbFile) + "/.keep", "");
    Start();
    if (HasFatalFailure()) return;
    for (int i = 0; i < 5; ++i) {
        const std::string answer = AskCurrent();
        ASSERT_EQ(test::kTargetPowerAnswerSize, answer.size());
        EXPECT_EQ(5, WordAt(answer, CommandWire::kTargetCodeOffset));
        EXPECT_EQ(Field("can not get.", CommandWire::kMessageSize), answer.substr(CommandWire::kTargetMessageOffset));
    }
}

} // namespace
} // namespace brvo
