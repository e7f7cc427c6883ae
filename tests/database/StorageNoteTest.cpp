#include "database/StorageNote.h"

#include "support/SimulatedTime.h"
#include "support/TestFiles.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <cstdint>
#include <string>
#include <vector>

namespace brvo {
namespace {

const std::string kFile = "/media/sdcard/kestrovanyx/Database/OutputControl/output_control_schedule.db";
// 2026-11-26T01:38:00Z.
const std::int64_t kNovember2026 = 1795657080;
// 2100-01-01T00:00:00Z, past the end of a 32-bit time_t.
const std::int64_t kYear2100 = 4102444800;

class StorageNoteTest : public ::testing::Test {
protected:
    void SetUp() override {
        test::RemoveAll(StorageNote::Path());
        StorageNote::SetClock(&time_);
    }

    void TearDown() override {
        StorageNote::SetClock(nullptr);
        test::RemoveAll(StorageNote::Path());
    }

    std::string Note() const { return test::ReadFile(StorageNote::Path()); }

    test::SimulatedTime time_{kNovember2026 * 1000000 + 250000};
};

TEST_F(StorageNoteTest, UsesTheFixedPathUnderTheTestRoot) {
    EXPECT_EQ("/tmp/pvocd_storage_error", StorageNote::kPath);
    EXPECT_EQ(test::FixedPath("/tmp/pvocd_storage_error"), StorageNote::Path());
}

TEST_F(StorageNoteTest, ARecordedNoteReadsBack) {
    StorageNote::Record(kFile, "disk I/O error");
    EXPECT_EQ("2026-11-26T01:38:00Z " + kFile + ": disk I/O error\n", Note());
    StorageNote::Entry entry;
    ASSERT_TRUE(StorageNote::Read(entry));
    EXPECT_EQ(kNovember2026, entry.time);
    EXPECT_EQ(kFile, entry.file);
    EXPECT_EQ("disk I/O error", entry.error);
    // Nothing is left beside the note.
    EXPECT_FALSE(test::FileExists(StorageNote::Path() + ".new"));
}

TEST_F(StorageNoteTest, TimesPastTwoThousandThirtyEightReadBackWhole) {
    test::SimulatedTime later(kYear2100 * 1000000);
    StorageNote::SetClock(&later);
    StorageNote::Record(kFile, "database disk image is malformed: a: b");
    EXPECT_EQ("2100-01-01T00:00:00Z " + kFile + ": database disk image is malformed: a: b\n", Note());
    StorageNote::Entry entry;
    ASSERT_TRUE(StorageNote::Read(entry));
    EXPECT_EQ(kYear2100, entry.time);
    // The file ends at the first ": ", the error keeps the others.
    EXPECT_EQ(kFile, entry.file);
    EXPECT_EQ("database disk image is malformed: a: b", entry.error);
}

TEST_F(StorageNoteTest, ControlBytesBecomeSpacesAndOtherBytesStay) {
    std::string error = "a\nb\rc\td\x1b[31m";
    error += '\x7f';
    error += 'e';
    error += '\0';
    // Bytes from 0x80 up stay, whatever the signedness of char.
    error += "f\xc3\xa9\xff";
    StorageNote::Record("/x\n.db", error);
    EXPECT_EQ("2026-11-26T01:38:00Z /x .db: a b c d [31m e f\xc3\xa9\xff\n", Note());
    StorageNote::Entry entry;
    ASSERT_TRUE(StorageNote::Read(entry));
    EXPECT_EQ("/x .db", entry.file);
    EXPECT_EQ("a b c d [31m e f\xc3\xa9\xff", entry.error);
}

TEST_F(StorageNoteTest, TheErrorIsCutToItsLimit) {
    StorageNote::Record(kFile, std::string(600, 'x'));
    StorageNote::Entry entry;
    ASSERT_TRUE(StorageNote::Read(entry));
    EXPECT_EQ(std::string(StorageNote::kMaxErrorBytes, 'x'), entry.error);
    // A character that would straddle the limit is left out whole.
    StorageNote::Record(kFile, std::string(StorageNote::kMaxErrorBytes - 1, 'y') + "\xc3\xa9z");
    ASSERT_TRUE(StorageNote::Read(entry));
    EXPECT_EQ(std::string(StorageNote::kMaxErrorBytes - 1, 'y'), entry.error);
}

TEST_F(StorageNoteTest, TheSameNoteIsNotWrittenAgainWithinAMinute) {
    StorageNote::Record(kFile, "disk I/O error");
    ASSERT_TRUE(test::FileExists(StorageNote::Path()));
    test::RemoveAll(StorageNote::Path());
    time_.Advance(59 * 1000);
    StorageNote::Record(kFile, "disk I/O error");
    EXPECT_FALSE(test::FileExists(StorageNote::Path()));
    // A minute after the first, the same note is written again.
    time_.Advance(1000);
    StorageNote::Record(kFile, "disk I/O error");
    EXPECT_EQ("2026-11-26T01:39:00Z " + kFile + ": disk I/O error\n", Note());
}

TEST_F(StorageNoteTest, ADifferentNoteIsWrittenAtOnce) {
    StorageNote::Record(kFile, "disk I/O error");
    time_.Advance(1000);
    StorageNote::Record(kFile, "database or disk is full");
    EXPECT_EQ("2026-11-26T01:38:01Z " + kFile + ": database or disk is full\n", Note());
    time_.Advance(1000);
    StorageNote::Record("/other.db", "database or disk is full");
    EXPECT_EQ("2026-11-26T01:38:02Z /other.db: database or disk is full\n", Note());
    // The first note again: no longer the last one, so written.
    StorageNote::Record(kFile, "disk I/O error");
    EXPECT_EQ("2026-11-26T01:38:02Z " + kFile + ": disk I/O error\n", Note());
}

TEST_F(StorageNoteTest, AFailedWriteIsDroppedQuietly) {
    // A directory where the note belongs: the rename over it fails.
    test::WriteFile(StorageNote::Path() + "/.keep", "");
    StorageNote::Record(kFile, "disk I/O error");
    EXPECT_FALSE(test::FileExists(StorageNote::Path() + ".new"));
    StorageNote::Entry entry;
    EXPECT_FALSE(StorageNote::Read(entry));
    test::RemoveAll(StorageNote::Path());
}

TEST_F(StorageNoteTest, AMissingNoteIsNotRead) {
    StorageNote::Entry entry;
    entry.time = 7;
    EXPECT_FALSE(StorageNote::Read(entry));
    EXPECT_EQ(7, entry.time);
    EXPECT_TRUE(entry.file.empty());
    EXPECT_TRUE(entry.error.empty());
}

TEST_F(StorageNoteTest, AnUnreadableNoteIsNotRead) {
    const std::vector<std::string> broken = {"",
                                             "garbage\n",
                                             "2026-11-26T01:38:00Z\n",
                                             "2026-11-26T01:38:00Z no separator\n",
                                             "2026-11-26 01:38:00Z /a.db: error\n",
                                             "2026-11-26T01:38:00 /a.db: error\n",
                                             "2026-13-26T01:38:00Z /a.db: error\n",
                                             "2026-11-26T01:38:00Z\t/a.db: error\n"};
    for (const std::string& text : broken) {
        test::WriteFile(StorageNote::Path(), text);
        StorageNote::Entry entry;
        EXPECT_FALSE(StorageNote::Read(entry)) << text;
        EXPECT_EQ(-1, entry.time) << text;
    }
    // Only the first line counts.
    test::WriteFile(StorageNote::Path(), "2026-11-26T01:38:00Z /a.db: error\nmore\n");
    StorageNote::Entry entry;
    ASSERT_TRUE(StorageNote::Read(entry));
    EXPECT_EQ("error", entry.error);
}

TEST_F(StorageNoteTest, DamagedFilesAreListedByNameInOrder) {
    const std::string directory = test::FixedPath("/tmp/storage-note/OutputControl");
    test::WriteFile(directory + "/output_control_schedule.db", "");
    test::WriteFile(directory + "/output_control_schedule.db.damaged-20261126T013800Z-wal", "");
    test::WriteFile(directory + "/output_control_schedule_update_info.db.damaged-20261125T000000Z", "");
    test::WriteFile(directory + "/output_control_schedule.db.damaged-20261126T013800Z", "");
    test::WriteFile(directory + "/output_control_schedule.db.damaged-20261126T013800Z-journal", "");
    test::WriteFile(directory + "/output_control_schedule.db-journal", "");
    const std::vector<std::string> expected = {"output_control_schedule.db.damaged-20261126T013800Z",
                                               "output_control_schedule.db.damaged-20261126T013800Z-journal",
                                               "output_control_schedule.db.damaged-20261126T013800Z-wal",
                                               "output_control_schedule_update_info.db.damaged-20261125T000000Z"};
    EXPECT_EQ(expected, StorageNote::DamagedFiles(directory));
    EXPECT_EQ(expected, StorageNote::DamagedFiles(directory + "/"));
    test::RemoveAll(test::FixedPath("/tmp/storage-note"));
}

TEST_F(StorageNoteTest, NoDamagedFilesWhereTheDirectoryCannotBeRead) {
    EXPECT_TRUE(StorageNote::DamagedFiles(test::FixedPath("/tmp/no-such-directory")).empty());
    EXPECT_TRUE(StorageNote::DamagedFiles("").empty());
    test::WriteFile(test::FixedPath("/tmp/storage-note-file"), "");
    EXPECT_TRUE(StorageNote::DamagedFiles(test::FixedPath("/tmp/storage-note-file")).empty());
    test::RemoveAll(test::FixedPath("/tmp/storage-note-file"));
}

} // namespace
} // namespace brvo
