#include "database/ScheduleDatabase.h"
#include "database/StorageNote.h"

#include "schedule/ScheduleModel.h"
#include "settings/LoggerSettingManager.h"
#include "support/SchedulePayload.h"
#include "support/SingletonTest.h"
#include "support/SqliteFile.h"
#include "support/TableLock.h"
#include "support/TestFiles.h"
#include "util/FileUtil.h"
#include "util/LoggerLog.h"
#include "util/TimeStamp.h"

#include <gtest/gtest.h>

#include <Poco/Event.h>
#include <Poco/Timestamp.h>

#include <sqlite3.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <sys/stat.h>

namespace brvo {
namespace {

const std::string kTag = "ScheduleDatabase";
const std::string kDbFile =
    test::FixedPath("/media/sdcard/kestrovanyx/Database/OutputControl/output_control_schedule.db");
const std::int64_t kDay = 86400;

std::int64_t Now() {
    return TimeStamp().EpochSeconds();
}

ScheduleRow Row(std::int64_t time, int rate, bool sent = false) {
    ScheduleRow row;
    row.time = time;
    row.controlRate = rate;
    row.sent = sent;
    return row;
}

// A forwarder that blocks, as an exchange with a logger daemon that does not
// answer does, until the test releases it. Its waits are bounded, so a test
// that fails early still ends.
class BlockingForwarder {
public:
    ScheduleDatabase::Forwarder Forwarder() {
        return [this] {
            ++calls;
            entered.set();
            released.tryWait(kLongestBlockMs);
            returned = true;
            return 0;
        };
    }
    // Waits until a forwarding has begun.
    bool WaitEntered() { return entered.tryWait(static_cast<long>(10000 * test::TimeScale())); }
    void Release() { released.set(); }

    static constexpr long kLongestBlockMs = 60000;
    std::atomic<int> calls{0};
    std::atomic<bool> returned{false};
    Poco::Event entered;
    Poco::Event released{Poco::Event::EVENT_MANUALRESET};
};

std::chrono::milliseconds Scaled(long long ms) {
    return std::chrono::milliseconds(ms * test::TimeScale());
}

class ScheduleDatabaseTest : public test::SingletonTest {
protected:
    void SetUp() override { UseLoggerSettings(""); }

    void TearDown() override {
        database_.reset();
        SingletonTest::TearDown();
    }

    ScheduleDatabase& Database() {
        if (!database_) database_.reset(new ScheduleDatabase());
        return *database_;
    }

    // Reopens the table, as a restart of the daemon does.
    ScheduleDatabase& Reopen() {
        database_.reset();
        return Database();
    }

    static std::vector<std::string> LogLines() { return test::FlushedLogLines(); }

    static std::string Count() { return test::QueryValue(kDbFile, "SELECT COUNT(*) FROM output_control_schedule"); }

    static std::string RowText(std::int64_t time) {
        const auto rows = test::QueryFile(
            kDbFile, "SELECT controlRate, sent FROM output_control_schedule WHERE time = " + std::to_string(time));
        return rows.empty() ? std::string("none") : rows[0][0] + "/" + rows[0][1];
    }

    std::unique_ptr<ScheduleDatabase> database_;
};

TEST_F(ScheduleDatabaseTest, CreatesItsFileAndTableInTheDatabaseDirectory) {
    Database();
    ASSERT_TRUE(test::FileExists(kDbFile));
    EXPECT_EQ("CREATE TABLE output_control_schedule (time INTEGER PRIMARY KEY ,controlRate INTEGER,"
              "sent BOOLEAN DEFAULT 0 )",
              test::QueryValue(kDbFile, "SELECT sql FROM sqlite_master WHERE name = 'output_control_schedule'"));
}

TEST_F(ScheduleDatabaseTest, UnwritableCardMovesTheFileUnderTmp) {
    test::WriteFile(test::FixedPath("/media/sdcard/blocked"), "");
    UseLoggerSettings("<SdcardPath>" + test::FixedPath("/media/sdcard/blocked") + "</SdcardPath>");
    EXPECT_TRUE(Database().InsertUpdateSchedule({Row(Now() + 3600, 40)}));
    EXPECT_TRUE(
        test::FileExists(test::FixedPath("/tmp/kestrovanyx/Database/OutputControl/output_control_schedule.db")));
}

TEST_F(ScheduleDatabaseTest, DeleteAllTellsWhetherRowsWentAway) {
    EXPECT_FALSE(Database().DeleteAll());
    ASSERT_TRUE(Database().InsertUpdateSchedule({Row(Now(), 10), Row(Now() + 1800, 20)}));
    EXPECT_TRUE(Database().DeleteAll());
    EXPECT_EQ("0", Count());
    EXPECT_FALSE(Database().DeleteAll());
}

TEST_F(ScheduleDatabaseTest, CurrentAndNextSlots) {
    const std::int64_t first = Now() + kDay;
    ASSERT_TRUE(Database().InsertUpdateSchedule({Row(first, 10), Row(first + 1800, 20), Row(first + 3600, 30, true)}));
    // Before the first slot there is no current one.
    EXPECT_EQ(-1, Database().SelectSchedule(first - 1, true).time);
    // A slot starting exactly at t is current, not next.
    ScheduleRow current = Database().SelectSchedule(first + 1800, true);
    EXPECT_EQ(first + 1800, current.time);
    EXPECT_EQ(20, current.controlRate);
    ScheduleRow next = Database().SelectSchedule(first + 1800, false);
    EXPECT_EQ(first + 3600, next.time);
    EXPECT_EQ(30, next.controlRate);
    EXPECT_TRUE(next.sent);
    // Inside a slot: that slot is current.
    EXPECT_EQ(first + 1800, Database().SelectSchedule(first + 3599, true).time);
    // At or after the last slot there is no next one.
    EXPECT_EQ(-1, Database().SelectSchedule(first + 3600, false).time);
    EXPECT_EQ(-1, Database().SelectSchedule(first + 99999, false).time);
    EXPECT_EQ(first + 3600, Database().SelectSchedule(first + 99999, true).time);
}

// The slots found are kept between requests; every kind of change of the
// table, by the daemon or by another process, must show at the next select.
TEST_F(ScheduleDatabaseTest, RepeatedSelectsSeeEveryChangeOfTheTable) {
    const std::int64_t first = Now() + kDay;
    ASSERT_TRUE(Database().InsertUpdateSchedule({Row(first, 10), Row(first + 3600, 30)}));
    EXPECT_EQ(10, Database().SelectSchedule(first + 60, true).controlRate);
    EXPECT_EQ(first + 3600, Database().SelectSchedule(first + 60, false).time);

    // The daemon's own replacement of the current slot.
    ASSERT_TRUE(Database().InsertUpdateSchedule({Row(first, 11)}));
    EXPECT_EQ(11, Database().SelectSchedule(first + 60, true).controlRate);
    // Another process changes the rate in place, same size of file.
    test::QueryFile(kDbFile,
                    "UPDATE output_control_schedule SET controlRate = 12 WHERE time = " + std::to_string(first));
    EXPECT_EQ(12, Database().SelectSchedule(first + 61, true).controlRate);
    // Another process inserts a slot between the current and the next one.
    test::QueryFile(kDbFile,
                    "INSERT INTO output_control_schedule VALUES (" + std::to_string(first + 1800) + ", 20, 0)");
    EXPECT_EQ(first + 1800, Database().SelectSchedule(first + 62, false).time);
    EXPECT_EQ(12, Database().SelectSchedule(first + 62, true).controlRate);
    // The daemon's own fixed insert before the current slot's time changes
    // nothing after it, but a slot that starts later than the asked time does.
    EXPECT_EQ(20, Database().SelectSchedule(first + 1800, true).controlRate);
    // Another process deletes every row.
    test::QueryFile(kDbFile, "DELETE FROM output_control_schedule");
    EXPECT_EQ(-1, Database().SelectSchedule(first + 1800, true).time);
    EXPECT_EQ(-1, Database().SelectSchedule(first + 1800, false).time);
    // The daemon's own inserts into the empty table.
    ASSERT_TRUE(Database().InsertUpdateSchedule({Row(first + 1000, 44)}));
    EXPECT_EQ(44, Database().SelectSchedule(first + 1800, true).controlRate);
    // The sent flag is part of the answer too.
    Database().SetForwarder([] { return 0; });
    Database().UpdateSentFlag();
    EXPECT_TRUE(Database().SelectSchedule(first + 1800, true).sent);
    ASSERT_TRUE(Database().DeleteAll());
    EXPECT_EQ(-1, Database().SelectSchedule(first + 1800, true).time);
}

// Kept slots answer only for the times they are the answer for: when the
// clock moves into the next slot or back before the time asked first.
TEST_F(ScheduleDatabaseTest, RepeatedSelectsFollowTheClock) {
    const std::int64_t first = Now() + kDay;
    ASSERT_TRUE(Database().InsertUpdateSchedule({Row(first, 10), Row(first + 1800, 20), Row(first + 3600, 30)}));
    EXPECT_EQ(first, Database().SelectSchedule(first + 900, true).time);
    EXPECT_EQ(first, Database().SelectSchedule(first + 1799, true).time);
    EXPECT_EQ(first + 1800, Database().SelectSchedule(first + 1799, false).time);
    EXPECT_EQ(first + 1800, Database().SelectSchedule(first + 1800, true).time);
    EXPECT_EQ(first + 3600, Database().SelectSchedule(first + 1800, false).time);
    // Back in time: before the first slot, then inside it again.
    EXPECT_EQ(-1, Database().SelectSchedule(first - 1, true).time);
    EXPECT_EQ(first, Database().SelectSchedule(first - 1, false).time);
    EXPECT_EQ(first, Database().SelectSchedule(first, true).time);
    // After the last slot the current one stays, whatever the time.
    EXPECT_EQ(first + 3600, Database().SelectSchedule(first + 4000, true).time);
    EXPECT_EQ(first + 3600, Database().SelectSchedule(first + 400000, true).time);
    EXPECT_EQ(-1, Database().SelectSchedule(first + 400000, false).time);
}

TEST_F(ScheduleDatabaseTest, EmptyUpdateInsertTouchesNothing) {
    Database();
    // Were any statement run, it would fail on the missing table.
    test::QueryFile(kDbFile, "DROP TABLE output_control_schedule");
    const std::string before = test::ReadFile(kDbFile);
    EXPECT_TRUE(Database().InsertUpdateSchedule({}));
    EXPECT_EQ(before, test::ReadFile(kDbFile));
    EXPECT_FALSE(test::HasLogLineStarting(LogLines(), "E", kTag, "Insert Update Schedule error."));
    EXPECT_FALSE(Database().InsertUpdateSchedule({Row(Now(), 1)}));
    EXPECT_TRUE(test::HasLogLineStarting(LogLines(), "E", kTag, "Insert Update Schedule error. ["));
}

TEST_F(ScheduleDatabaseTest, FixedInsertWithOnlyPastRowsRunsNothing) {
    Database();
    // Were a statement run, it would fail on the missing table.
    test::QueryFile(kDbFile, "DROP TABLE output_control_schedule");
    const std::int64_t cutoff = Now() - 1800;
    EXPECT_TRUE(Database().InsertFixedSchedule({Row(cutoff - 1800, 10), Row(cutoff - 1, 20)}));
    EXPECT_FALSE(test::HasLogLineStarting(LogLines(), "E", kTag, "Insert Fixed Schedule error."));
    // A row in the future does run, and fails without the table.
    EXPECT_FALSE(Database().InsertFixedSchedule({Row(Now() + 3600, 20)}));
    EXPECT_TRUE(test::HasLogLineStarting(LogLines(), "E", kTag, "Insert Fixed Schedule error. ["));
}

TEST_F(ScheduleDatabaseTest, FixedInsertSkipsRowsUpToHalfAnHourAgo) {
    const std::int64_t now = Now();
    EXPECT_TRUE(Database().InsertFixedSchedule(
        {Row(now - 7200, 1), Row(now - 1800 - 5, 2), Row(now - 1700, 3), Row(now + 1800, 4)}));
    EXPECT_EQ("2", Count());
    EXPECT_EQ("3/0", RowText(now - 1700));
    EXPECT_EQ("4/0", RowText(now + 1800));
}

TEST_F(ScheduleDatabaseTest, FixedRowNeverReplacesAnUpdateRow) {
    const std::int64_t t = Now() + kDay;
    ASSERT_TRUE(Database().InsertUpdateSchedule({Row(t, 70, true)}));
    EXPECT_TRUE(Database().InsertFixedSchedule({Row(t, 10), Row(t + 1800, 11)}));
    EXPECT_EQ("70/1", RowText(t));
    EXPECT_EQ("11/0", RowText(t + 1800));
}

TEST_F(ScheduleDatabaseTest, UpdateRowReplacesAFixedRowAndItsSentFlag) {
    const std::int64_t t = Now() + kDay;
    ASSERT_TRUE(Database().InsertFixedSchedule({Row(t, 10, true), Row(t + 1800, 11, true)}));
    EXPECT_EQ("10/1", RowText(t));
    EXPECT_TRUE(Database().InsertUpdateSchedule({Row(t, 60, false)}));
    EXPECT_EQ("60/0", RowText(t));
    EXPECT_EQ("11/1", RowText(t + 1800));
}

TEST_F(ScheduleDatabaseTest, StartUpPurgesRowsOlderThanTheRetentionCycle) {
    // The cutoff is taken when the table opens; retry when the clock ticked
    // to the next second between computing the rows and opening.
    for (int attempt = 0; attempt < 5; ++attempt) {
        const std::int64_t now = Now();
        const std::int64_t cutoff = now - 90 * kDay;
        Database().DeleteAll();
        ASSERT_TRUE(
            Database().InsertUpdateSchedule({Row(cutoff - 1, 1), Row(cutoff, 2), Row(cutoff + 1, 3), Row(now, 4)}));
        database_.reset();
        database_.reset(new ScheduleDatabase());
        if (Now() != now) continue;
        EXPECT_EQ("none", RowText(cutoff - 1));
        EXPECT_EQ("2/0", RowText(cutoff));
        EXPECT_EQ("3/0", RowText(cutoff + 1));
        EXPECT_EQ("4/0", RowText(now));
        return;
    }
    FAIL() << "the clock kept ticking during every attempt";
}

TEST_F(ScheduleDatabaseTest, RetentionCycleComesFromTheSettings) {
    UseLoggerSettings("<OutputControlScheduleRetensionCycle>2</OutputControlScheduleRetensionCycle>");
    const std::int64_t now = Now();
    ASSERT_TRUE(Database().InsertUpdateSchedule({Row(now - 3 * kDay, 1), Row(now - kDay, 2)}));
    Reopen();
    EXPECT_EQ("none", RowText(now - 3 * kDay));
    EXPECT_EQ("2/0", RowText(now - kDay));
}

TEST_F(ScheduleDatabaseTest, SentFlagIsSetAfterASuccessfulForwarding) {
    const std::int64_t t = Now() + kDay;
    ASSERT_TRUE(Database().InsertUpdateSchedule({Row(t, 1), Row(t + 1800, 2, true)}));
    int calls = 0;
    Database().SetForwarder([&] {
        ++calls;
        // Forwarding runs before the flags change.
        EXPECT_EQ("1/0", RowText(t));
        return 0;
    });
    Database().UpdateSentFlag();
    EXPECT_EQ(1, calls);
    EXPECT_EQ("1/1", RowText(t));
    EXPECT_EQ("2/1", RowText(t + 1800));
}

TEST_F(ScheduleDatabaseTest, FailedForwardingChangesNoFlag) {
    const std::int64_t t = Now() + kDay;
    ASSERT_TRUE(Database().InsertUpdateSchedule({Row(t, 1)}));
    Database().SetForwarder([] { return 1; });
    Database().UpdateSentFlag();
    EXPECT_EQ("1/0", RowText(t));
    EXPECT_TRUE(test::HasLogLine(LogLines(), "W", kTag, "Cloud Send error."));
}

TEST_F(ScheduleDatabaseTest, NoForwardingMeansNothingIsMarkedSent) {
    const std::int64_t t = Now() + kDay;
    ASSERT_TRUE(Database().InsertUpdateSchedule({Row(t, 1)}));
    Database().UpdateSentFlag();
    EXPECT_EQ("1/0", RowText(t));
    EXPECT_TRUE(test::HasLogLine(LogLines(), "W", kTag, "Cloud Send error."));
}

// The target power is asked every few seconds: it must be answered while
// the logger daemon is being told about new data, however long that takes.
TEST_F(ScheduleDatabaseTest, SelectAnswersWhileAForwardingHangs) {
    const std::int64_t t = Now() + kDay;
    ASSERT_TRUE(Database().InsertUpdateSchedule({Row(t, 40), Row(t + 1800, 50)}));
    BlockingForwarder forwarder;
    Database().SetForwarder(forwarder.Forwarder());
    std::future<void> forwarding = std::async(std::launch::async, [this] { Database().UpdateSentFlag(); });
    ASSERT_TRUE(forwarder.WaitEntered());
    std::future<ScheduleRow> current =
        std::async(std::launch::async, [this, t] { return Database().SelectSchedule(t + 60, true); });
    std::future<ScheduleRow> next =
        std::async(std::launch::async, [this, t] { return Database().SelectSchedule(t + 60, false); });
    const bool answered = current.wait_for(Scaled(2000)) == std::future_status::ready &&
                          next.wait_for(Scaled(2000)) == std::future_status::ready;
    EXPECT_FALSE(forwarder.returned);
    forwarder.Release();
    ASSERT_TRUE(answered) << "a select waited on the forwarding";
    EXPECT_EQ(40, current.get().controlRate);
    EXPECT_EQ(t + 1800, next.get().time);
    ASSERT_EQ(std::future_status::ready, forwarding.wait_for(Scaled(10000)));
}

TEST_F(ScheduleDatabaseTest, RowsPresentBeforeASuccessfulForwardingAreMarkedSent) {
    const std::int64_t t = Now() + kDay;
    ASSERT_TRUE(Database().InsertUpdateSchedule({Row(t, 40), Row(t + 1800, 50)}));
    ASSERT_TRUE(Database().InsertFixedSchedule({Row(t + 3600, 60)}));
    BlockingForwarder forwarder;
    Database().SetForwarder(forwarder.Forwarder());
    std::future<void> forwarding = std::async(std::launch::async, [this] { Database().UpdateSentFlag(); });
    ASSERT_TRUE(forwarder.WaitEntered());
    // Reading is no change of the table.
    EXPECT_EQ(40, Database().SelectSchedule(t + 60, true).controlRate);
    forwarder.Release();
    ASSERT_EQ(std::future_status::ready, forwarding.wait_for(Scaled(10000)));
    EXPECT_EQ("40/1", RowText(t));
    EXPECT_EQ("50/1", RowText(t + 1800));
    EXPECT_EQ("60/1", RowText(t + 3600));
}

// The logger daemon may have read the table before these rows came: they
// stay unsent, and the next forwarding (of the run that wrote them) marks
// them.
TEST_F(ScheduleDatabaseTest, UpdateRowsWrittenDuringAForwardingStayUnsent) {
    const std::int64_t t = Now() + kDay;
    ASSERT_TRUE(Database().InsertUpdateSchedule({Row(t, 40)}));
    BlockingForwarder forwarder;
    Database().SetForwarder(forwarder.Forwarder());
    std::future<void> forwarding = std::async(std::launch::async, [this] { Database().UpdateSentFlag(); });
    ASSERT_TRUE(forwarder.WaitEntered());
    std::future<bool> written = std::async(std::launch::async, [this, t] {
        return Database().InsertUpdateSchedule({Row(t + 1800, 50), Row(t + 3600, 60)});
    });
    const bool writtenInTime = written.wait_for(Scaled(5000)) == std::future_status::ready;
    forwarder.Release();
    ASSERT_TRUE(writtenInTime) << "an insert waited on the forwarding";
    EXPECT_TRUE(written.get());
    ASSERT_EQ(std::future_status::ready, forwarding.wait_for(Scaled(10000)));
    EXPECT_EQ(1, forwarder.calls);
    EXPECT_EQ("50/0", RowText(t + 1800));
    EXPECT_EQ("60/0", RowText(t + 3600));

    Database().SetForwarder([] { return 0; });
    Database().UpdateSentFlag();
    EXPECT_EQ("40/1", RowText(t));
    EXPECT_EQ("50/1", RowText(t + 1800));
    EXPECT_EQ("60/1", RowText(t + 3600));
}

TEST_F(ScheduleDatabaseTest, FixedRowsWrittenDuringAForwardingStayUnsent) {
    const std::int64_t t = Now() + kDay;
    ASSERT_TRUE(Database().InsertUpdateSchedule({Row(t, 40)}));
    BlockingForwarder forwarder;
    Database().SetForwarder(forwarder.Forwarder());
    std::future<void> forwarding = std::async(std::launch::async, [this] { Database().UpdateSentFlag(); });
    ASSERT_TRUE(forwarder.WaitEntered());
    std::future<bool> written =
        std::async(std::launch::async, [this, t] { return Database().InsertFixedSchedule({Row(t + 1800, 50)}); });
    const bool writtenInTime = written.wait_for(Scaled(5000)) == std::future_status::ready;
    forwarder.Release();
    ASSERT_TRUE(writtenInTime) << "an insert waited on the forwarding";
    EXPECT_TRUE(written.get());
    ASSERT_EQ(std::future_status::ready, forwarding.wait_for(Scaled(10000)));
    EXPECT_EQ("50/0", RowText(t + 1800));
}

// Once SetForwarder returns the old forwarder is never called again: the
// manager relies on this before it goes away.
TEST_F(ScheduleDatabaseTest, SetForwarderWaitsForTheForwardingInProgress) {
    const std::int64_t t = Now() + kDay;
    ASSERT_TRUE(Database().InsertUpdateSchedule({Row(t, 40)}));
    BlockingForwarder forwarder;
    Database().SetForwarder(forwarder.Forwarder());
    std::future<void> forwarding = std::async(std::launch::async, [this] { Database().UpdateSentFlag(); });
    ASSERT_TRUE(forwarder.WaitEntered());
    std::atomic<int> newCalls{0};
    std::future<bool> replaced = std::async(std::launch::async, [&] {
        Database().SetForwarder([&newCalls] {
            ++newCalls;
            return 0;
        });
        // Whether the old forwarder had returned when this one went in.
        return forwarder.returned.load();
    });
    EXPECT_EQ(std::future_status::timeout, replaced.wait_for(std::chrono::milliseconds(300)));
    forwarder.Release();
    ASSERT_EQ(std::future_status::ready, replaced.wait_for(Scaled(10000)));
    EXPECT_TRUE(replaced.get());
    ASSERT_EQ(std::future_status::ready, forwarding.wait_for(Scaled(10000)));
    Database().UpdateSentFlag();
    EXPECT_EQ(1, forwarder.calls);
    EXPECT_EQ(1, newCalls);
}

// The names beside the table file that it was moved aside as, sorted.
std::vector<std::string> DamagedNames() {
    return StorageNote::DamagedFiles(kDbFile.substr(0, kDbFile.rfind('/')));
}

// The first of the slots WriteTwoThousandSlots writes: recent enough that
// the purge of old rows at the opening leaves them all.
std::int64_t FirstSlot() {
    return (Now() / 1800 - 1000) * 1800;
}

// A table file of 2000 slots of rate 50 from FirstSlot() on, 32 KiB.
void WriteTwoThousandSlots() {
    test::CreateDatabase(kDbFile, "CREATE TABLE output_control_schedule (time INTEGER PRIMARY KEY ,controlRate "
                                  "INTEGER,sent BOOLEAN DEFAULT 0 );"
                                  "WITH RECURSIVE n(i) AS (SELECT 0 UNION ALL SELECT i + 1 FROM n WHERE i < 1999) "
                                  "INSERT INTO output_control_schedule SELECT " +
                                      std::to_string(FirstSlot()) + " + i * 1800, 50, 0 FROM n");
}

// Overwrites `size` bytes of the table file from `offset` with noise.
void Scribble(std::size_t offset, std::size_t size) {
    std::string content = test::ReadFile(kDbFile);
    ASSERT_LE(offset + size, content.size());
    for (std::size_t i = 0; i < size; ++i) content[offset + i] = static_cast<char>((i * 7 + 3) % 251);
    test::WriteFile(kDbFile, content);
}

TEST_F(ScheduleDatabaseTest, GarbageFileIsMovedAsideAndAFreshTableMade) {
    const std::string garbage(4096, 'x');
    test::WriteFile(kDbFile, garbage);
    DatabaseManager::TakeRenewed();
    ScheduleDatabase& database = Database();
    const std::vector<std::string> names = DamagedNames();
    ASSERT_EQ(1u, names.size());
    const std::string aside = kDbFile.substr(0, kDbFile.rfind('/') + 1) + names[0];
    EXPECT_EQ(0u, names[0].find("output_control_schedule.db.damaged-2")) << names[0];
    EXPECT_EQ(garbage, test::ReadFile(aside));
    std::vector<std::string> lines = LogLines();
    EXPECT_TRUE(test::HasLogLineStarting(lines, "E", kTag, "InitDataBaseFile error. ["));
    EXPECT_TRUE(
        test::HasLogLineStarting(lines, "E", kTag, "Damaged table moved aside. [" + kDbFile + "] to [" + aside + "] "));
    EXPECT_FALSE(test::HasLogLine(lines, "E", kTag, "Database Open error."));
    EXPECT_TRUE(DatabaseManager::TakeRenewed());
    EXPECT_FALSE(DatabaseManager::TakeRenewed());
    // pvoctl status finds what happened in the storage note.
    StorageNote::Entry note;
    ASSERT_TRUE(StorageNote::Read(note));
    EXPECT_EQ(kDbFile, note.file);
    EXPECT_EQ(0u, note.error.find("moved aside to [" + aside + "] ")) << note.error;
    // The fresh table works at once.
    EXPECT_TRUE(database.InsertUpdateSchedule({Row(Now() - 60, 40)}));
    EXPECT_EQ(40, database.SelectSchedule(Now(), true).controlRate);
    EXPECT_EQ("1", Count());
}

TEST_F(ScheduleDatabaseTest, TableOfAnotherSchemaIsMovedAside) {
    test::CreateDatabase(kDbFile, "CREATE TABLE output_control_schedule (slot INTEGER, rate INTEGER)");
    DatabaseManager::TakeRenewed();
    ScheduleDatabase& database = Database();
    ASSERT_EQ(1u, DamagedNames().size());
    EXPECT_TRUE(test::HasLogLineStarting(LogLines(), "E", kTag, "Damaged table moved aside. [" + kDbFile + "] to ["));
    EXPECT_TRUE(DatabaseManager::TakeRenewed());
    EXPECT_TRUE(database.InsertUpdateSchedule({Row(Now() - 60, 40)}));
    EXPECT_EQ("40", test::QueryValue(kDbFile, "SELECT controlRate FROM output_control_schedule"));
}

TEST_F(ScheduleDatabaseTest, EmptyFileIsATableLikeAnyNewOne) {
    test::WriteFile(kDbFile, "");
    DatabaseManager::TakeRenewed();
    EXPECT_TRUE(Database().InsertUpdateSchedule({Row(Now() - 60, 40)}));
    EXPECT_TRUE(DamagedNames().empty());
    EXPECT_FALSE(DatabaseManager::TakeRenewed());
}

// Damage that the opening does not touch is found by the first statement
// that reads it: that statement fails as defined, and the file goes aside.
TEST_F(ScheduleDatabaseTest, DamageFoundByASelectMovesTheFileAside) {
    WriteTwoThousandSlots();
    Scribble(test::ReadFile(kDbFile).size() - 4096, 4096);
    DatabaseManager::TakeRenewed();
    ScheduleDatabase& database = Database();
    EXPECT_TRUE(DamagedNames().empty());
    EXPECT_EQ(-1, database.SelectSchedule(FirstSlot() + 1990 * 1800, true).time);
    const std::vector<std::string> lines = LogLines();
    EXPECT_TRUE(test::HasLogLineStarting(lines, "E", kTag, "Select error. ["));
    EXPECT_TRUE(test::HasLogLineStarting(lines, "E", kTag, "Damaged table moved aside. [" + kDbFile + "] to ["));
    EXPECT_EQ(1u, DamagedNames().size());
    EXPECT_TRUE(DatabaseManager::TakeRenewed());
    EXPECT_EQ("0", Count());
    EXPECT_TRUE(database.InsertUpdateSchedule({Row(FirstSlot(), 30)}));
    EXPECT_EQ(30, database.SelectSchedule(FirstSlot() + 10 * 1800, true).controlRate);
}

TEST_F(ScheduleDatabaseTest, TruncatedFileIsMovedAside) {
    WriteTwoThousandSlots();
    const std::string content = test::ReadFile(kDbFile);
    test::WriteFile(kDbFile, content.substr(0, content.size() / 2));
    DatabaseManager::TakeRenewed();
    ScheduleDatabase& database = Database();
    EXPECT_EQ(1u, DamagedNames().size());
    EXPECT_TRUE(DatabaseManager::TakeRenewed());
    EXPECT_EQ(-1, database.SelectSchedule(FirstSlot() + 10 * 1800, true).time);
    EXPECT_TRUE(database.InsertUpdateSchedule({Row(FirstSlot(), 30)}));
    EXPECT_EQ("1", Count());
}

// Damage in a page that neither the opening nor a select of the first
// slots reads is found only by the check that follows a stop that was not
// clean.
TEST_F(ScheduleDatabaseTest, QuickCheckAfterAnUncleanStopFindsDamageThatOpeningMisses) {
    WriteTwoThousandSlots();
    const std::size_t size = test::ReadFile(kDbFile).size();
    Scribble(size - 4096, 4096);
    DatabaseManager::TakeRenewed();
    DatabaseManager::SetCheckOnOpen(false);
    EXPECT_EQ(50, Database().SelectSchedule(FirstSlot(), true).controlRate);
    EXPECT_TRUE(DamagedNames().empty());

    DatabaseManager::SetCheckOnOpen(true);
    ScheduleDatabase& database = Reopen();
    DatabaseManager::SetCheckOnOpen(false);
    EXPECT_EQ(1u, DamagedNames().size());
    EXPECT_TRUE(test::HasLogLineStarting(LogLines(), "E", kTag, "Damaged table moved aside. [" + kDbFile + "] to ["));
    EXPECT_TRUE(DatabaseManager::TakeRenewed());
    EXPECT_EQ(-1, database.SelectSchedule(FirstSlot(), true).time);
}

TEST_F(ScheduleDatabaseTest, SoundFileAfterAnUncleanStopIsKept) {
    WriteTwoThousandSlots();
    DatabaseManager::TakeRenewed();
    DatabaseManager::SetCheckOnOpen(true);
    ScheduleDatabase& database = Database();
    DatabaseManager::SetCheckOnOpen(false);
    EXPECT_TRUE(DamagedNames().empty());
    EXPECT_FALSE(DatabaseManager::TakeRenewed());
    EXPECT_EQ(50, database.SelectSchedule(FirstSlot(), true).controlRate);
}

TEST_F(ScheduleDatabaseTest, TheThreeNewestDamagedFilesAreKept) {
    for (int i = 0; i < 5; ++i) {
        test::WriteFile(kDbFile, std::string(4096, static_cast<char>('a' + i)));
        // A journal that begins with a zero byte is not hot: SQLite leaves
        // it where it is, and it goes aside with the table file.
        test::WriteFile(kDbFile + "-journal", std::string(1, '\0') + std::string(511, static_cast<char>('a' + i)));
        Reopen();
    }
    database_.reset();
    const std::vector<std::string> names = DamagedNames();
    ASSERT_EQ(6u, names.size()) << ::testing::PrintToString(names);
    const std::string directory = kDbFile.substr(0, kDbFile.rfind('/') + 1);
    std::string kept;
    for (const std::string& name : names) {
        if (name.size() < 8 || name.compare(name.size() - 8, 8, "-journal") != 0) {
            kept += test::ReadFile(directory + name).substr(0, 1);
            EXPECT_EQ(test::ReadFile(directory + name).substr(0, 1),
                      test::ReadFile(directory + name + "-journal").substr(1, 1));
        }
    }
    EXPECT_EQ("cde", kept);
    EXPECT_FALSE(test::FileExists(kDbFile + "-journal"));
    DatabaseManager::TakeRenewed();
}

// A file that cannot be opened does not open by trying for longer: each
// attempt fails at once, where the session's time-out once cost 60 s.
TEST_F(ScheduleDatabaseTest, TableThatCannotBeOpenedFailsAtOnce) {
    test::WriteFile(kDbFile + ".keep", "");
    ASSERT_EQ(0, ::mkdir(kDbFile.c_str(), 0755));
    const auto started = std::chrono::steady_clock::now();
    ScheduleDatabase& database = Database();
    EXPECT_EQ(-1, database.SelectSchedule(Now(), true).time);
    EXPECT_FALSE(database.InsertUpdateSchedule({Row(Now(), 1)}));
    EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(30));
    const std::vector<std::string> lines = LogLines();
    EXPECT_TRUE(test::HasLogLineStarting(lines, "E", kTag, "InitDataBaseFile error. ["));
    EXPECT_TRUE(test::HasLogLine(lines, "E", kTag, "Database Open error."));
    EXPECT_TRUE(DamagedNames().empty());
    StorageNote::Entry note;
    ASSERT_TRUE(StorageNote::Read(note));
    EXPECT_EQ(kDbFile, note.file);
    EXPECT_EQ(0u, note.error.find("InitDataBaseFile error. [")) << note.error;
    ::rmdir(kDbFile.c_str());
}

// Another process holds the file's exclusive lock (a tool inside a
// transaction): the reads behind target power give up within a moment,
// with their error line, instead of waiting the minute of a write.
TEST_F(ScheduleDatabaseTest, TargetPowerReadsGiveUpOnAnotherProcesssLockAtOnce) {
    const std::int64_t t = Now() + kDay;
    ASSERT_TRUE(Database().InsertUpdateSchedule({Row(t, 40), Row(t + 1800, 50)}));
    test::TableLock lock(kDbFile);
    if (HasFailure()) return;
    std::future<ScheduleRow> select =
        std::async(std::launch::async, [this, t] { return Database().SelectSchedule(t + 3600, true); });
    std::future<bool> slots = std::async(std::launch::async, [this, t] {
        ScheduleRow current, next, after;
        std::uint64_t version = 0;
        return Database().SelectSlots(t + 3600, current, next, after, version) || current.time != -1;
    });
    const bool answered = select.wait_for(Scaled(20000)) == std::future_status::ready &&
                          slots.wait_for(Scaled(20000)) == std::future_status::ready;
    lock.Release();
    ASSERT_TRUE(answered) << "a target power read waited for the lock";
    EXPECT_EQ(-1, select.get().time);
    EXPECT_FALSE(slots.get());
    EXPECT_TRUE(test::HasLogLineStarting(LogLines(), "E", kTag, "Select error. ["));
    // With the lock gone the table answers again.
    EXPECT_EQ(t + 1800, Database().SelectSchedule(t + 3600, true).time);
}

// A write after such a read still waits for another process's lock, as
// every statement but those reads does: it lands once the lock is gone.
TEST_F(ScheduleDatabaseTest, WriteAfterATargetPowerReadStillWaitsForTheLock) {
    const std::int64_t t = Now() + kDay;
    ASSERT_TRUE(Database().InsertUpdateSchedule({Row(t, 40)}));
    test::TableLock lock(kDbFile);
    if (HasFailure()) return;
    EXPECT_EQ(-1, Database().SelectSchedule(t, true).time);
    // Held for five times as long as a target power read waits.
    std::future<void> release = std::async(std::launch::async, [&lock] {
        std::this_thread::sleep_for(std::chrono::milliseconds(5 * ScheduleDatabase::kTargetPowerLockWaitMs));
        lock.Release();
    });
    EXPECT_TRUE(Database().InsertUpdateSchedule({Row(t, 41)}));
    release.get();
    EXPECT_EQ("41/0", RowText(t));
}

TEST_F(ScheduleDatabaseTest, StatementsAreLoggedWhenTheTableIsGone) {
    Database();
    test::QueryFile(kDbFile, "DROP TABLE output_control_schedule");
    EXPECT_FALSE(Database().InsertUpdateSchedule({Row(Now(), 1)}));
    Database().SetForwarder([] { return 0; });
    Database().UpdateSentFlag();
    Database().DeleteOldData();
    const std::vector<std::string> lines = LogLines();
    EXPECT_TRUE(test::HasLogLineStarting(lines, "E", kTag, "Insert Update Schedule error. ["));
    EXPECT_TRUE(test::HasLogLineStarting(lines, "E", kTag, "Update Sent Flag error. ["));
    EXPECT_TRUE(test::HasLogLineStarting(lines, "E", kTag, "Delete old data error. ["));
}

TEST_F(ScheduleDatabaseTest, WholeYearLandsWhole) {
    std::vector<ScheduleRow> rows;
    const std::int64_t start = Now() + kDay;
    for (int i = 0; i < 17520; ++i) rows.push_back(Row(start + i * 1800LL, i % 101));
    ASSERT_TRUE(Database().InsertUpdateSchedule(rows));
    EXPECT_EQ("17520", Count());
    const ScheduleRow first = Database().SelectSchedule(rows.front().time, true);
    EXPECT_EQ(rows.front().time, first.time);
    EXPECT_EQ(0, first.controlRate);
    const ScheduleRow middle = Database().SelectSchedule(rows[8760].time + 1, true);
    EXPECT_EQ(rows[8760].time, middle.time);
    EXPECT_EQ(8760 % 101, middle.controlRate);
    const ScheduleRow last = Database().SelectSchedule(rows.back().time + 100000, true);
    EXPECT_EQ(rows.back().time, last.time);
    EXPECT_EQ(17519 % 101, last.controlRate);
    EXPECT_EQ(-1, Database().SelectSchedule(rows.back().time, false).time);
}

TEST_F(ScheduleDatabaseTest, YearPayloadParsesAndIsStoredWhole) {
    test::ScheduleRecord record;
    record.start = "204001010000"; // server time; 2039-12-31 15:00 UTC
    record.rates.clear();
    for (int i = 0; i < 17520; ++i) record.rates.push_back((i * 7) % 101);
    const ScheduleModel model(test::BuildSchedulePayload({record}, test::kFixedSchedule).hex, 0);
    ASSERT_TRUE(model.IsResult()) << model.GetMessage();
    const std::vector<ScheduleRow> slots = model.GetSlots();
    ASSERT_EQ(17520u, slots.size());
    ASSERT_TRUE(Database().InsertUpdateSchedule(slots));
    EXPECT_EQ("17520", Count());
    const std::int64_t first = 2208988800LL - 9 * 3600;
    EXPECT_EQ(first, slots.front().time);
    EXPECT_EQ(test::QueryValue(kDbFile, "SELECT MIN(time) FROM output_control_schedule"), std::to_string(first));
    EXPECT_EQ(test::QueryValue(kDbFile, "SELECT MAX(time) FROM output_control_schedule"),
              std::to_string(first + 17519LL * 1800));
    EXPECT_EQ(test::QueryValue(kDbFile, "SELECT SUM(controlRate) FROM output_control_schedule"), std::to_string([&] {
                  long long sum = 0;
                  for (int rate : record.rates) sum += rate;
                  return sum;
              }()));
    const ScheduleRow row = Database().SelectSchedule(first + 1000 * 1800 + 5, true);
    EXPECT_EQ(first + 1000 * 1800, row.time);
    EXPECT_EQ((1000 * 7) % 101, row.controlRate);
}

std::vector<ScheduleRow> RowsFrom(std::int64_t start, std::size_t count, int rate) {
    std::vector<ScheduleRow> rows;
    for (std::size_t i = 0; i < count; ++i) rows.push_back(Row(start + static_cast<std::int64_t>(i) * 1800, rate));
    return rows;
}

// Makes every insert of the row at `time` fail, as a full or failing card
// would in the middle of a schedule.
void RefuseRowAt(std::int64_t time) {
    test::CreateDatabase(kDbFile, "CREATE TRIGGER refuse BEFORE INSERT ON output_control_schedule WHEN NEW.time = " +
                                      std::to_string(time) + " BEGIN SELECT RAISE(ABORT, 'refused'); END");
}

TEST_F(ScheduleDatabaseTest, SchedulesAroundTheStatementSizeLandWhole) {
    const std::size_t sizes[] = {ScheduleDatabase::kRowsPerStatement, ScheduleDatabase::kRowsPerStatement + 1,
                                 2 * ScheduleDatabase::kRowsPerStatement + 7};
    std::int64_t start = Now() + kDay;
    std::size_t total = 0;
    for (const std::size_t size : sizes) {
        ASSERT_TRUE(Database().InsertUpdateSchedule(RowsFrom(start, size, 40)));
        total += size;
        EXPECT_EQ(std::to_string(total), Count());
        start += static_cast<std::int64_t>(size) * 1800;
    }
    ASSERT_TRUE(Database().InsertFixedSchedule(RowsFrom(start, 2 * ScheduleDatabase::kRowsPerStatement + 7, 30)));
    EXPECT_EQ(std::to_string(total + 2 * ScheduleDatabase::kRowsPerStatement + 7), Count());
}

TEST_F(ScheduleDatabaseTest, LargeUpdateScheduleThatFailsPartWayLeavesTheTableAsItWas) {
    const std::int64_t start = Now() + kDay;
    ASSERT_TRUE(Database().InsertUpdateSchedule(RowsFrom(start, 48, 70)));
    // A year whose row in its third statement is refused: the rows of the
    // first two statements must not stay behind, nor replace the day.
    const std::vector<ScheduleRow> year = RowsFrom(start, 17520, 20);
    RefuseRowAt(year[2 * ScheduleDatabase::kRowsPerStatement + 3].time);
    EXPECT_FALSE(Database().InsertUpdateSchedule(year));
    EXPECT_EQ("48", Count());
    EXPECT_EQ("70", test::QueryValue(kDbFile, "SELECT MIN(controlRate) FROM output_control_schedule"));
    EXPECT_EQ(70, Database().SelectSchedule(start + 5, true).controlRate);
    // The transaction is over: the next schedule is written as usual.
    test::CreateDatabase(kDbFile, "DROP TRIGGER refuse");
    ASSERT_TRUE(Database().InsertUpdateSchedule(year));
    EXPECT_EQ("17520", Count());
    EXPECT_EQ(20, Database().SelectSchedule(start + 5, true).controlRate);
}

TEST_F(ScheduleDatabaseTest, LargeFixedScheduleThatFailsPartWayStoresNothing) {
    Database();
    const std::vector<ScheduleRow> rows = RowsFrom(Now() + kDay, 3 * ScheduleDatabase::kRowsPerStatement, 55);
    RefuseRowAt(rows.back().time);
    EXPECT_FALSE(Database().InsertFixedSchedule(rows));
    EXPECT_EQ("0", Count());
}

TEST_F(ScheduleDatabaseTest, StatementLengthLimitLeavesRoomForMillionsOfRows) {
    Database();
    sqlite3* db = nullptr;
    ASSERT_EQ(SQLITE_OK, sqlite3_open(kDbFile.c_str(), &db));
    const int limit = sqlite3_limit(db, SQLITE_LIMIT_SQL_LENGTH, -1);
    sqlite3_close(db);
    // A value group of a slot after 2038 with rate 100 is at most 34 bytes.
    const std::string group = " (  '4102444800','100','0' ) ,";
    EXPECT_GE(limit / static_cast<int>(group.size()), 1000000) << limit;
}

TEST_F(ScheduleDatabaseTest, SlotsAfter2038AreStoredAndSelected) {
    const std::int64_t t = 4102444800LL; // 2100-01-01 00:00:00 UTC
    ASSERT_TRUE(Database().InsertUpdateSchedule({Row(t, 55)}));
    EXPECT_EQ("55/0", RowText(t));
    const ScheduleRow row = Database().SelectSchedule(t + 10, true);
    EXPECT_EQ(t, row.time);
    EXPECT_EQ(55, row.controlRate);
}

TEST_F(ScheduleDatabaseTest, InstanceIsProcessWide) {
    EXPECT_EQ(nullptr, ScheduleDatabase::GetInstance());
    ScheduleDatabase::CreateInstance();
    ScheduleDatabase* first = ScheduleDatabase::GetInstance();
    ASSERT_NE(nullptr, first);
    ScheduleDatabase::CreateInstance();
    EXPECT_EQ(first, ScheduleDatabase::GetInstance());
    ScheduleDatabase::DeleteInstance();
    EXPECT_EQ(nullptr, ScheduleDatabase::GetInstance());
}

} // namespace
} // namespace brvo
