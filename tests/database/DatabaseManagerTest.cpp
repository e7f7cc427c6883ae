#include "database/DatabaseManager.h"

#include "database/ScheduleDatabase.h"
#include "settings/LoggerSettingManager.h"
#include "support/SingletonTest.h"
#include "support/SqliteFile.h"
#include "support/TestFiles.h"
#include "util/LoggerLog.h"

#include <gtest/gtest.h>

#include <Poco/Data/Statement.h>

#include <sqlite3.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>

namespace brvo {
namespace {

const std::string kTag = "ProbeTable";
const std::string kProbeFile = test::FixedPath("/media/sdcard/probe.db");
const std::string kScheduleFile =
    test::FixedPath("/media/sdcard/kestrovanyx/Database/OutputControl/output_control_schedule.db");

// A table of its own on the common base, to read the session's settings.
class ProbeTable : public DatabaseManager {
public:
    ProbeTable() : DatabaseManager(kTag, "probe_table") {}

    // The value of `pragma` on the table's session.
    std::string Pragma(const std::string& pragma) {
        std::string value;
        Poco::Data::Statement statement(GetSession());
        statement << "PRAGMA " << pragma, Poco::Data::Keywords::into(value);
        statement.execute();
        return value;
    }

protected:
    std::string CreateTableStatement() const override { return "CREATE TABLE IF NOT EXISTS probe_table (id INTEGER)"; }
    std::string ColumnList() const override { return "id"; }
};

// A table whose CREATE TABLE statement SQLite refuses: a failure that is
// not the file's.
class RefusedTable : public DatabaseManager {
public:
    RefusedTable() : DatabaseManager(kTag, "refused_table") {}

protected:
    std::string CreateTableStatement() const override { return "CREATE TABLE refused_table (id INTEGER"; }
    std::string ColumnList() const override { return "id"; }
};

// Run on every new SQLite connection of the process while registered: as a
// library built with other defaults would, it starts each connection with
// an in-memory journal and no syncing.
int UnsafeDefaults(sqlite3* db, char**, const sqlite3_api_routines*) {
    sqlite3_exec(db, "PRAGMA journal_mode=MEMORY; PRAGMA synchronous=OFF", nullptr, nullptr, nullptr);
    return SQLITE_OK;
}

// Refuses both durability settings, and nothing else.
int RefusePragmas(void*, int action, const char* name, const char*, const char*, const char*) {
    if (action == SQLITE_PRAGMA && name != nullptr &&
        (std::strcmp(name, "journal_mode") == 0 || std::strcmp(name, "synchronous") == 0)) {
        return SQLITE_DENY;
    }
    return SQLITE_OK;
}

int InstallRefusal(sqlite3* db, char**, const sqlite3_api_routines*) {
    sqlite3_set_authorizer(db, RefusePragmas, nullptr);
    return SQLITE_OK;
}

typedef void (*Extension)();

Extension AsExtension(int (*entry)(sqlite3*, char**, const sqlite3_api_routines*)) {
    return reinterpret_cast<Extension>(reinterpret_cast<void*>(entry));
}

class DatabaseManagerTest : public test::SingletonTest {
protected:
    void SetUp() override {
        test::WriteLoggerSetting("<OutputScheduleEnableLogBufferedIO>0</OutputScheduleEnableLogBufferedIO>");
        LoggerSettingManager::CreateInstance();
        LoggerLog::CreateInstance();
    }

    void TearDown() override {
        sqlite3_reset_auto_extension();
        probe_.reset();
        SingletonTest::TearDown();
    }

    ProbeTable& Probe() {
        if (!probe_) probe_.reset(new ProbeTable());
        return *probe_;
    }

    std::unique_ptr<ProbeTable> probe_;
};

TEST_F(DatabaseManagerTest, SessionUsesADeletedRollbackJournalAndFullSync) {
    ASSERT_EQ(SQLITE_OK, sqlite3_auto_extension(AsExtension(UnsafeDefaults)));
    ASSERT_TRUE(Probe().InitDataBaseFile(kProbeFile));
    EXPECT_EQ("delete", Probe().Pragma("journal_mode"));
    // 2 is FULL.
    EXPECT_EQ("2", Probe().Pragma("synchronous"));
}

TEST_F(DatabaseManagerTest, TableFileLeftInWalModeIsOneFileAgain) {
    test::WriteFile(kScheduleFile, "");
    ASSERT_EQ("wal", test::QueryValue(kScheduleFile, "CREATE TABLE other (x); PRAGMA journal_mode=WAL"));
    {
        ScheduleDatabase database;
        EXPECT_FALSE(test::FileExists(kScheduleFile + "-wal"));
    }
    EXPECT_EQ("delete", test::QueryValue(kScheduleFile, "PRAGMA journal_mode"));
    EXPECT_FALSE(test::FileExists(kScheduleFile + "-wal"));
}

TEST_F(DatabaseManagerTest, RefusedDurabilitySettingsStillOpenTheTable) {
    ASSERT_EQ(SQLITE_OK, sqlite3_auto_extension(AsExtension(InstallRefusal)));
    EXPECT_TRUE(Probe().InitDataBaseFile(kProbeFile));
    sqlite3_reset_auto_extension();
    EXPECT_EQ("probe_table", test::QueryValue(kProbeFile, "SELECT name FROM sqlite_master"));
    const std::vector<std::string> lines = test::FlushedLogLines();
    EXPECT_TRUE(test::HasLogLineStarting(lines, "D", kTag, "Durability settings not applied. ["));
    EXPECT_FALSE(test::HasLogLineStarting(lines, "E", kTag, "InitDataBaseFile error."));
}

} // namespace
} // namespace brvo

namespace brvo {
namespace {

// A session opened before a failed CREATE TABLE is kept, and a later call
// returns true without trying again; a failure that is not damage moves
// nothing aside.
TEST_F(DatabaseManagerTest, SessionOpenedBeforeAFailedCreateTableIsKept) {
    RefusedTable table;
    EXPECT_FALSE(table.InitDataBaseFile(kProbeFile));
    EXPECT_TRUE(table.InitDataBaseFile(kProbeFile));
    const std::vector<std::string> lines = test::FlushedLogLines();
    const auto failures = std::count_if(lines.begin(), lines.end(), [](const std::string& line) {
        return line.find("InitDataBaseFile error. [") != std::string::npos;
    });
    EXPECT_EQ(1, failures);
    EXPECT_TRUE(test::FileExists(kProbeFile));
    EXPECT_FALSE(DatabaseManager::TakeRenewed());
}

} // namespace
} // namespace brvo
