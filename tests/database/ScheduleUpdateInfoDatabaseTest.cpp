#include "database/ScheduleUpdateInfoDatabase.h"

#include "settings/LoggerSettingManager.h"
#include "support/SingletonTest.h"
#include "support/SqliteFile.h"
#include "support/TestFiles.h"
#include "util/FileUtil.h"
#include "util/LoggerLog.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

namespace brvo {
namespace {

const std::string kTag = "ScheduleUpdateDataInfo";
const std::string kDbFile =
    test::FixedPath("/media/sdcard/kestrovanyx/Database/OutputControl/output_control_schedule_update_info.db");

ScheduleUpdateInfo Info(const std::string& plantId, const std::string& next = "2022-01-20 00:00:00", int flag = 3,
                        bool need = true) {
    ScheduleUpdateInfo info;
    info.plantId = plantId;
    info.lastUpdateTime = "2022-01-19 00:00:00";
    info.nextUpdateTime = next;
    info.fixedScheduleUpdateFlag = flag;
    info.isNeedUpdateFixedSchedule = need;
    return info;
}

class ScheduleUpdateInfoDatabaseTest : public test::SingletonTest {
protected:
    void SetUp() override {
        test::WriteLoggerSetting("<OutputScheduleEnableLogBufferedIO>0</OutputScheduleEnableLogBufferedIO>");
        LoggerSettingManager::CreateInstance();
        LoggerLog::CreateInstance();
        FileUtil::ResetDataRoot();
    }

    void TearDown() override {
        database_.reset();
        SingletonTest::TearDown();
    }

    static std::vector<std::string> LogLines() { return test::FlushedLogLines(); }

    static std::vector<std::vector<std::string>> Rows() {
        return test::QueryFile(kDbFile, "SELECT plantId, lastUpdateTime, nextUpdateTime, fixedScheduleUpdateFlag, "
                                        "isNeedUpdateFixedSchedule FROM output_control_schedule_update_info");
    }

    std::unique_ptr<ScheduleUpdateInfoDatabase> database_{new ScheduleUpdateInfoDatabase()};
};

TEST_F(ScheduleUpdateInfoDatabaseTest, ConstructionDoesNotOpenTheFile) {
    EXPECT_FALSE(test::FileExists(kDbFile));
}

TEST_F(ScheduleUpdateInfoDatabaseTest, FirstSelectCreatesFileAndTableAndFindsNoPlant) {
    const ScheduleUpdateInfo info = database_->SelectUpdateInfo();
    EXPECT_EQ("", info.plantId);
    EXPECT_EQ("", info.lastUpdateTime);
    EXPECT_EQ("", info.nextUpdateTime);
    ASSERT_TRUE(test::FileExists(kDbFile));
    EXPECT_EQ("CREATE TABLE output_control_schedule_update_info (plantId VARCHAR(26),"
              "lastUpdateTime VARCHAR(19),nextUpdateTime VARCHAR(19),fixedScheduleUpdateFlag INTEGER,"
              "isNeedUpdateFixedSchedule BOOLEAN DEFAULT 0, PRIMARY KEY( plantId) )",
              test::QueryValue(kDbFile, "SELECT sql FROM sqlite_master WHERE type = 'table'"));
}

TEST_F(ScheduleUpdateInfoDatabaseTest, RecordRoundTrip) {
    ASSERT_TRUE(database_->InsertUpdateInfo(Info("PLANT1", "2040-01-01 00:00:00", 7, true)));
    const ScheduleUpdateInfo info = database_->SelectUpdateInfo();
    EXPECT_EQ("PLANT1", info.plantId);
    EXPECT_EQ("2022-01-19 00:00:00", info.lastUpdateTime);
    EXPECT_EQ("2040-01-01 00:00:00", info.nextUpdateTime);
    EXPECT_EQ(7, info.fixedScheduleUpdateFlag);
    EXPECT_TRUE(info.isNeedUpdateFixedSchedule);
    ASSERT_TRUE(database_->InsertUpdateInfo(Info("PLANT1", "x", 0, false)));
    EXPECT_FALSE(database_->SelectUpdateInfo().isNeedUpdateFixedSchedule);
    EXPECT_EQ(0, database_->SelectUpdateInfo().fixedScheduleUpdateFlag);
}

TEST_F(ScheduleUpdateInfoDatabaseTest, DeleteOnEmptyTableIsFalse) {
    EXPECT_FALSE(database_->DeleteUpdateInfo());
    ASSERT_TRUE(database_->InsertUpdateInfo(Info("P")));
    EXPECT_TRUE(database_->DeleteUpdateInfo());
    EXPECT_TRUE(Rows().empty());
    EXPECT_EQ("", database_->SelectUpdateInfo().plantId);
}

TEST_F(ScheduleUpdateInfoDatabaseTest, SamePlantTwiceKeepsOneRowWithTheSecondValues) {
    ASSERT_TRUE(database_->InsertUpdateInfo(Info("P", "2022-01-20 00:00:00", 1, false)));
    ASSERT_TRUE(database_->InsertUpdateInfo(Info("P", "2022-01-21 00:00:00", 2, true)));
    const auto rows = Rows();
    ASSERT_EQ(1u, rows.size());
    EXPECT_EQ("2022-01-21 00:00:00", rows[0][2]);
    EXPECT_EQ("2", rows[0][3]);
    EXPECT_EQ("1", rows[0][4]);
}

TEST_F(ScheduleUpdateInfoDatabaseTest, AnotherPlantAddsASecondRow) {
    ASSERT_TRUE(database_->InsertUpdateInfo(Info("A")));
    ASSERT_TRUE(database_->InsertUpdateInfo(Info("B")));
    EXPECT_EQ(2u, Rows().size());
}

TEST_F(ScheduleUpdateInfoDatabaseTest, LongPlantIdIsStoredWhole) {
    const std::string id(40, '7');
    ASSERT_TRUE(database_->InsertUpdateInfo(Info(id)));
    EXPECT_EQ(id, database_->SelectUpdateInfo().plantId);
    EXPECT_EQ(id, Rows().at(0).at(0));
}

TEST_F(ScheduleUpdateInfoDatabaseTest, QuoteInAValueFailsTheStatement) {
    EXPECT_FALSE(database_->InsertUpdateInfo(Info("O'Brien")));
    EXPECT_TRUE(test::HasLogLineStarting(LogLines(), "E", kTag, "Insert Update error. ["));
    EXPECT_TRUE(Rows().empty());
}

TEST_F(ScheduleUpdateInfoDatabaseTest, SmuggledSecondStatementNeverRuns) {
    ASSERT_TRUE(database_->InsertUpdateInfo(Info("A")));
    const std::string hostile = "x','','',0,0); DELETE FROM output_control_schedule_update_info; --";
    EXPECT_FALSE(database_->InsertUpdateInfo(Info(hostile)));
    const auto rows = Rows();
    ASSERT_EQ(1u, rows.size());
    EXPECT_EQ("A", rows[0][0]);
    EXPECT_TRUE(test::HasLogLineStarting(LogLines(), "E", kTag, "Insert Update error. ["));
}

// A value that closes its own quote and stays one statement: without the
// refusal it would write rows and values of its own choosing.
TEST_F(ScheduleUpdateInfoDatabaseTest, ValueThatRewritesTheStatementIsRefused) {
    ASSERT_TRUE(database_->InsertUpdateInfo(Info("A")));
    const auto stored = Rows();
    const std::string hostile = "x','2000-01-01 00:00:00','2000-01-01 00:00:00',9,1),('evil','','',0,0) --";
    EXPECT_FALSE(database_->InsertUpdateInfo(Info(hostile)));
    EXPECT_EQ(stored, Rows());
    EXPECT_TRUE(test::HasLogLineStarting(LogLines(), "E", kTag, "Insert Update error. ["));
}

TEST_F(ScheduleUpdateInfoDatabaseTest, EveryTextValueIsGuarded) {
    ASSERT_TRUE(database_->InsertUpdateInfo(Info("A")));
    const auto stored = Rows();
    ScheduleUpdateInfo last = Info("A");
    last.lastUpdateTime = "x','y',7,0) --";
    EXPECT_FALSE(database_->InsertUpdateInfo(last));
    ScheduleUpdateInfo next = Info("A", "x',9,1) --");
    EXPECT_FALSE(database_->InsertUpdateInfo(next));
    ScheduleUpdateInfo dropping = Info("'; DROP TABLE output_control_schedule_update_info; --");
    EXPECT_FALSE(database_->InsertUpdateInfo(dropping));
    EXPECT_EQ(stored, Rows());
    EXPECT_EQ(std::vector<std::vector<std::string>>{{"output_control_schedule_update_info"}},
              test::QueryFile(kDbFile, "SELECT name FROM sqlite_master WHERE type = 'table'"));
}

// Semicolons and SQL words without a quote stay inside the value.
TEST_F(ScheduleUpdateInfoDatabaseTest, SemicolonsWithoutQuotesAreStoredAsText) {
    const std::string id = "x; DELETE FROM output_control_schedule_update_info; --";
    ASSERT_TRUE(database_->InsertUpdateInfo(Info(id)));
    const auto rows = Rows();
    ASSERT_EQ(1u, rows.size());
    EXPECT_EQ(id, rows[0][0]);
    EXPECT_EQ(id, database_->SelectUpdateInfo().plantId);
}

TEST_F(ScheduleUpdateInfoDatabaseTest, CorruptFileIsMovedAsideAndTheTableMadeAnew) {
    test::WriteFile(kDbFile, std::string(4096, 'x'));
    DatabaseManager::TakeRenewed();
    EXPECT_EQ("", database_->SelectUpdateInfo().plantId);
    const std::vector<std::string> lines = LogLines();
    EXPECT_TRUE(test::HasLogLineStarting(lines, "E", kTag, "InitDataBaseFile error. ["));
    EXPECT_TRUE(test::HasLogLineStarting(lines, "E", kTag,
                                         "Damaged table moved aside. [" + kDbFile + "] to [" + kDbFile + ".damaged-"));
    EXPECT_TRUE(DatabaseManager::TakeRenewed());
    EXPECT_TRUE(database_->InsertUpdateInfo(Info("P")));
    EXPECT_EQ("P", database_->SelectUpdateInfo().plantId);
}

} // namespace
} // namespace brvo
