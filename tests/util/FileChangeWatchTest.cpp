#include "util/FileChangeWatch.h"

#include "support/TestFiles.h"
#include "util/FileUtil.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

namespace brvo {
namespace {

const std::string kRoot = test::FixedPath("/tmp/watched");
const std::string kDirectory = kRoot + "/settings";
const std::string kFile = kDirectory + "/System.xml";

class FileChangeWatchTest : public ::testing::Test {
protected:
    void SetUp() override {
        test::RemoveAll(kRoot);
        test::WriteFile(kFile, "<logger/>");
    }

    void TearDown() override {
        ::umount2(kDirectory.c_str(), MNT_DETACH);
        test::RemoveAll(kRoot);
    }

    static std::int64_t Arm(const std::string& path = kFile) { return FileChangeWatch::Instance().Arm(path); }
    static bool Unchanged(std::int64_t generation) { return FileChangeWatch::Instance().Unchanged(generation); }

    static std::string Read(const std::string& path = kFile) { return FileUtil::ReadFile(path, 1 << 20).text; }
};

TEST_F(FileChangeWatchTest, ReadingAndUnrelatedChangesLeaveTheFileUnchanged) {
    test::WriteFile(test::FixedPath("/tmp/other/file.txt"), "");
    const std::int64_t generation = Arm();
    ASSERT_NE(FileChangeWatch::kNotWatched, generation);
    EXPECT_EQ("<logger/>", Read());
    EXPECT_EQ("<logger/>", Read());
    // Directories off the path: only an entry of a directory on it counts.
    test::WriteFile(test::FixedPath("/media/sdcard/elsewhere.txt"), "x");
    test::WriteFile(test::FixedPath("/tmp/other/file.txt"), "x");
    EXPECT_TRUE(Unchanged(generation));
    EXPECT_TRUE(Unchanged(generation));
    test::RemoveAll(test::FixedPath("/tmp/other"));
}

TEST_F(FileChangeWatchTest, EveryWriteIsAChangeEvenOfTheSameBytes) {
    std::int64_t generation = Arm();
    test::WriteFile(kFile, "<logger></logger>");
    EXPECT_FALSE(Unchanged(generation));
    generation = Arm();
    EXPECT_TRUE(Unchanged(generation));
    test::WriteFile(kFile, "<logger></logger>");
    EXPECT_FALSE(Unchanged(generation));
}

TEST_F(FileChangeWatchTest, TruncationIsAChange) {
    const std::int64_t generation = Arm();
    ASSERT_EQ(0, ::truncate(kFile.c_str(), 3));
    EXPECT_FALSE(Unchanged(generation));
}

TEST_F(FileChangeWatchTest, ReplacingTheFileByRenameIsAChange) {
    const std::int64_t generation = Arm();
    test::WriteFile(kDirectory + "/new.tmp", "<other/>");
    ASSERT_EQ(0, std::rename((kDirectory + "/new.tmp").c_str(), kFile.c_str()));
    EXPECT_FALSE(Unchanged(generation));
}

TEST_F(FileChangeWatchTest, PermissionChangeIsAChange) {
    const std::int64_t generation = Arm();
    ASSERT_EQ(0, ::chmod(kFile.c_str(), 0));
    EXPECT_FALSE(Unchanged(generation));
    const std::int64_t again = Arm();
    ASSERT_EQ(0, ::chmod(kDirectory.c_str(), 0700));
    EXPECT_FALSE(Unchanged(again));
}

TEST_F(FileChangeWatchTest, DeletionIsAChange) {
    const std::int64_t generation = Arm();
    test::RemoveAll(kFile);
    EXPECT_FALSE(Unchanged(generation));
}

TEST_F(FileChangeWatchTest, MissingFileAppearingIsAChange) {
    test::RemoveAll(kFile);
    const std::int64_t generation = Arm();
    ASSERT_NE(FileChangeWatch::kNotWatched, generation);
    EXPECT_TRUE(Unchanged(generation));
    test::WriteFile(kFile, "<logger/>");
    EXPECT_FALSE(Unchanged(generation));
}

TEST_F(FileChangeWatchTest, MissingDirectoriesAppearingAreAChange) {
    const std::string deep = kRoot + "/a/b/c.xml";
    const std::int64_t generation = Arm(deep);
    ASSERT_NE(FileChangeWatch::kNotWatched, generation);
    ASSERT_EQ(0, ::mkdir((kRoot + "/a").c_str(), 0755));
    EXPECT_FALSE(Unchanged(generation));
    const std::int64_t again = Arm(deep);
    test::WriteFile(deep, "x");
    EXPECT_FALSE(Unchanged(again));
}

TEST_F(FileChangeWatchTest, ParentDirectoryRenamedAndReplacedIsAChange) {
    const std::int64_t generation = Arm();
    ASSERT_EQ(0, std::rename(kDirectory.c_str(), (kRoot + "/old").c_str()));
    test::WriteFile(kFile, "<other/>");
    EXPECT_FALSE(Unchanged(generation));
    // The new directory is watched from the next arming on.
    const std::int64_t again = Arm();
    test::WriteFile(kFile, "<third/>");
    EXPECT_FALSE(Unchanged(again));
}

TEST_F(FileChangeWatchTest, DirectoryHigherUpReplacedIsAChange) {
    const std::int64_t generation = Arm();
    ASSERT_EQ(0, std::rename(kRoot.c_str(), test::FixedPath("/tmp/watched-old").c_str()));
    test::WriteFile(kFile, "<other/>");
    test::RemoveAll(test::FixedPath("/tmp/watched-old"));
    EXPECT_FALSE(Unchanged(generation));
}

TEST_F(FileChangeWatchTest, ChangeThroughAHardLinkIsAChange) {
    test::WriteFile(test::FixedPath("/tmp/linked/placeholder"), "");
    ASSERT_EQ(0, ::link(kFile.c_str(), test::FixedPath("/tmp/linked/alias.xml").c_str()));
    const std::int64_t generation = Arm();
    const int fd = ::open(test::FixedPath("/tmp/linked/alias.xml").c_str(), O_WRONLY | O_APPEND);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(1, ::write(fd, "x", 1));
    ::close(fd);
    EXPECT_FALSE(Unchanged(generation));
    test::RemoveAll(test::FixedPath("/tmp/linked"));
}

TEST_F(FileChangeWatchTest, MountOverTheDirectoryIsAChange) {
    const std::int64_t generation = Arm();
    ASSERT_EQ(0, ::mount("tmpfs", kDirectory.c_str(), "tmpfs", 0, nullptr));
    EXPECT_FALSE(Unchanged(generation));
    const std::int64_t again = Arm();
    ASSERT_EQ(0, ::umount2(kDirectory.c_str(), MNT_DETACH));
    EXPECT_FALSE(Unchanged(again));
}

TEST_F(FileChangeWatchTest, OldGenerationStaysStaleAfterANewArming) {
    const std::int64_t first = Arm();
    test::WriteFile(kFile, "<other/>");
    const std::int64_t second = Arm();
    EXPECT_NE(first, second);
    EXPECT_FALSE(Unchanged(first));
    EXPECT_TRUE(Unchanged(second));
}

TEST_F(FileChangeWatchTest, PathThroughASymbolicLinkIsNeverVouchedFor) {
    ASSERT_EQ(0, ::symlink(kDirectory.c_str(), (kRoot + "/link").c_str()));
    EXPECT_EQ(FileChangeWatch::kNotWatched, Arm(kRoot + "/link/System.xml"));
    ASSERT_EQ(0, ::symlink(kFile.c_str(), (kRoot + "/file-link.xml").c_str()));
    EXPECT_EQ(FileChangeWatch::kNotWatched, Arm(kRoot + "/file-link.xml"));
    EXPECT_FALSE(Unchanged(FileChangeWatch::kNotWatched));
}

TEST_F(FileChangeWatchTest, PathsThatNameAFileIndirectlyAreNeverVouchedFor) {
    EXPECT_EQ(FileChangeWatch::kNotWatched, Arm("tmp/watched/settings/System.xml"));
    EXPECT_EQ(FileChangeWatch::kNotWatched, Arm(kRoot + "/x/../settings/System.xml"));
    EXPECT_EQ(FileChangeWatch::kNotWatched, Arm(kRoot + "//settings/System.xml"));
    EXPECT_EQ(FileChangeWatch::kNotWatched, Arm(kDirectory + "/"));
    EXPECT_EQ(FileChangeWatch::kNotWatched, Arm(""));
}

TEST_F(FileChangeWatchTest, FileSystemWithoutReliableReportsIsNeverVouchedFor) {
    // /proc changes without any report.
    EXPECT_EQ(FileChangeWatch::kNotWatched, Arm("/proc/self/status"));
}

} // namespace
} // namespace brvo
