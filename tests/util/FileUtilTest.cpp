#include "util/FileUtil.h"

#include "settings/LoggerSettingManager.h"
#include "support/SingletonTest.h"
#include "support/TestFiles.h"
#include "util/LoggerLog.h"

#include <gtest/gtest.h>

#include <Poco/Clock.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace brvo {
namespace {

const std::string kLogFile =
    test::FixedPath("/media/sdcard/kestrovanyx/Log/OutputScheduleLog/OutputSchedule_pvocd.log");

class FileUtilTest : public test::SingletonTest {
protected:
    void SetUp() override { FileUtil::ResetDataRoot(); }

    static void UseSettings(const std::string& innerXml) {
        test::WriteLoggerSetting(innerXml);
        LoggerSettingManager::CreateInstance();
    }
};

TEST_F(FileUtilTest, FixedLayout) {
    EXPECT_EQ(test::FixedPath("/usr/local/etc/kestrovanyx/SettingsXML"), FileUtil::GetSettingsDirectory());
    EXPECT_EQ(test::FixedPath("/usr/local/etc/kestrovanyx/SettingsXML/SystemSetting.xml"),
              FileUtil::GetSystemSettingFile());
    EXPECT_EQ(test::FixedPath("/usr/local/etc/kestrovanyx/SettingsXML/DefaultSystemSetting.xml"),
              FileUtil::GetDefaultSystemSettingFile());
    EXPECT_EQ(test::FixedPath("/usr/local/etc/kestrovanyx/SettingsXML/LoggerSetting.xml"),
              FileUtil::GetLoggerSettingFile());
    EXPECT_EQ(test::FixedPath("/usr/local/etc/kestrovanyx/DeviceXML"), FileUtil::GetDeviceDirectory());
}

TEST_F(FileUtilTest, WritableCardHoldsTheData) {
    UseSettings("<SdcardPath>" + test::FixedPath("/media/sdcard/card") + "</SdcardPath>");
    EXPECT_EQ(test::FixedPath("/media/sdcard/card/kestrovanyx"), FileUtil::GetDataRoot());
    EXPECT_EQ(test::FixedPath("/media/sdcard/card/kestrovanyx/Database"), FileUtil::GetDatabaseDirectory());
    EXPECT_EQ(test::FixedPath("/media/sdcard/card/kestrovanyx/Certificates/"), FileUtil::GetCertificatesDirectory());
    // The probe file is removed again.
    EXPECT_FALSE(test::FileExists(test::FixedPath("/media/sdcard/card/kestrovanyx/write_test")));
}

TEST_F(FileUtilTest, UnwritableCardMovesDatabaseAndCertificatesUnderTmp) {
    // A plain file where the card's directory should be: nothing can be
    // created below it, not even by root.
    test::WriteFile(test::FixedPath("/media/sdcard/blocked"), "");
    UseSettings("<SdcardPath>" + test::FixedPath("/media/sdcard/blocked") + "</SdcardPath>");
    EXPECT_EQ(test::FixedPath("/tmp/kestrovanyx"), FileUtil::GetDataRoot());
    EXPECT_EQ(test::FixedPath("/tmp/kestrovanyx/Database"), FileUtil::GetDatabaseDirectory());
    EXPECT_EQ(test::FixedPath("/tmp/kestrovanyx/Database/OutputControl"), FileUtil::GetOutputControlDirectory());
    EXPECT_TRUE(test::FileExists(test::FixedPath("/tmp/kestrovanyx/Database/OutputControl")));
    EXPECT_EQ(test::FixedPath("/tmp/kestrovanyx/Certificates/"), FileUtil::GetCertificatesDirectory());
}

TEST_F(FileUtilTest, DataRootIsDecidedOnce) {
    UseSettings("<SdcardPath>" + test::FixedPath("/media/sdcard/card") + "</SdcardPath>");
    ASSERT_EQ(test::FixedPath("/media/sdcard/card/kestrovanyx"), FileUtil::GetDataRoot());
    test::RemoveAll(test::FixedPath("/media/sdcard/card"));
    test::WriteFile(test::FixedPath("/media/sdcard/card"), "");
    EXPECT_EQ(test::FixedPath("/media/sdcard/card/kestrovanyx"), FileUtil::GetDataRoot());
}

TEST_F(FileUtilTest, SdcardPathSetDirectlyHoldsTheData) {
    FileUtil::SetSdcardPath(test::FixedPath("/media/sdcard/direct"));
    EXPECT_EQ(test::FixedPath("/media/sdcard/direct/kestrovanyx"), FileUtil::GetDataRoot());
}

TEST_F(FileUtilTest, DeletedSettingsGiveBackTheBuiltInCard) {
    UseSettings("<SdcardPath>" + test::FixedPath("/media/sdcard/card") + "</SdcardPath>");
    ASSERT_EQ(test::FixedPath("/media/sdcard/card/kestrovanyx"), FileUtil::GetDataRoot());
    LoggerSettingManager::DeleteInstance();
    FileUtil::ResetDataRoot();
    EXPECT_EQ(test::FixedPath("/media/sdcard/kestrovanyx"), FileUtil::GetDataRoot());
}

TEST_F(FileUtilTest, OutputControlDirectoryIsCreatedOnEveryCall) {
    UseSettings("");
    const std::string dir = FileUtil::GetOutputControlDirectory();
    EXPECT_EQ(test::FixedPath("/media/sdcard/kestrovanyx/Database/OutputControl"), dir);
    test::RemoveAll(dir);
    ASSERT_FALSE(test::FileExists(dir));
    FileUtil::GetOutputControlDirectory();
    EXPECT_TRUE(test::FileExists(dir));
}

TEST_F(FileUtilTest, EmptyPathDoesNotExist) {
    // The working directory exists, so asking the file system about "" the
    // way a relative path is resolved would answer true.
    EXPECT_FALSE(FileUtil::Exists(""));
    EXPECT_TRUE(FileUtil::Exists(test::FixedPath("/tmp")));
    EXPECT_FALSE(FileUtil::Exists(test::FixedPath("/tmp/absent")));
}

TEST_F(FileUtilTest, CreateFileReplacesAnExistingFileWithAnEmptyOne) {
    test::WriteFile(test::FixedPath("/tmp/f.txt"), "old content");
    EXPECT_TRUE(FileUtil::CreateFile(test::FixedPath("/tmp/f.txt")));
    EXPECT_TRUE(test::FileExists(test::FixedPath("/tmp/f.txt")));
    EXPECT_EQ("", test::ReadFile(test::FixedPath("/tmp/f.txt")));
    EXPECT_TRUE(FileUtil::CreateFile(test::FixedPath("/tmp/new.txt")));
    EXPECT_TRUE(test::FileExists(test::FixedPath("/tmp/new.txt")));
}

TEST_F(FileUtilTest, FailuresAreLoggedAndFalse) {
    UseSettings("<OutputScheduleEnableLogBufferedIO>0</OutputScheduleEnableLogBufferedIO>");
    LoggerLog::CreateInstance();
    EXPECT_FALSE(FileUtil::CreateFile(test::FixedPath("/tmp/none/f.txt")));
    EXPECT_FALSE(FileUtil::Rename(test::FixedPath("/tmp/none/a"), test::FixedPath("/tmp/none/b")));
    EXPECT_EQ(0u, FileUtil::GetSize(test::FixedPath("/tmp/none/a")));
    test::WriteFile(test::FixedPath("/tmp/plain"), "");
    EXPECT_FALSE(FileUtil::CreateDirectory(test::FixedPath("/tmp/plain/sub"), true));
    LoggerLog::DeleteInstance();
    const std::string log = test::ReadFile(kLogFile);
    EXPECT_NE(std::string::npos,
              log.find("] FileUtil Create file. file:[" + test::FixedPath("/tmp/none/f.txt") + "] ["))
        << log;
    EXPECT_NE(std::string::npos, log.find("] FileUtil Rename file. file:[" + test::FixedPath("/tmp/none/a") + "] -> [" +
                                          test::FixedPath("/tmp/none/b") + "] ["))
        << log;
    EXPECT_NE(std::string::npos,
              log.find("] FileUtil Get fail size fail. file:[" + test::FixedPath("/tmp/none/a") + "] ["))
        << log;
    EXPECT_NE(std::string::npos,
              log.find("] FileUtil Create directory failed. file:[" + test::FixedPath("/tmp/plain/sub") + "] ["))
        << log;
}

TEST_F(FileUtilTest, RenameReplacesTheTarget) {
    test::WriteFile(test::FixedPath("/tmp/a"), "A");
    test::WriteFile(test::FixedPath("/tmp/b"), "B");
    EXPECT_TRUE(FileUtil::Rename(test::FixedPath("/tmp/a"), test::FixedPath("/tmp/b")));
    EXPECT_FALSE(test::FileExists(test::FixedPath("/tmp/a")));
    EXPECT_EQ("A", test::ReadFile(test::FixedPath("/tmp/b")));
    EXPECT_EQ(1u, FileUtil::GetSize(test::FixedPath("/tmp/b")));
}

TEST_F(FileUtilTest, PathParts) {
    EXPECT_EQ("/a/b/", FileUtil::GetDirectory("/a/b/c.sock"));
    EXPECT_EQ("c.sock", FileUtil::GetFileName("/a/b/c.sock"));
    EXPECT_EQ("", FileUtil::GetFileName(""));
}

TEST_F(FileUtilTest, WritableDirectoryProbe) {
    EXPECT_TRUE(FileUtil::IsWritableDirectory(test::FixedPath("/tmp/x/y")));
    EXPECT_TRUE(test::FileExists(test::FixedPath("/tmp/x/y")));
    EXPECT_FALSE(test::FileExists(test::FixedPath("/tmp/x/y/write_test")));
    test::WriteFile(test::FixedPath("/tmp/file"), "");
    EXPECT_FALSE(FileUtil::IsWritableDirectory(test::FixedPath("/tmp/file/y")));
}

// --- ReadFile ----------------------------------------------------------------

const std::string kReadPath = test::FixedPath("/tmp/read/file.txt");

TEST_F(FileUtilTest, ReadFileGivesTheWholeRegularFile) {
    test::WriteFile(kReadPath, std::string("a\0b\n", 4));
    const FileUtil::ReadResult file = FileUtil::ReadFile(kReadPath, 100);
    EXPECT_TRUE(file.ok);
    EXPECT_FALSE(file.missing);
    EXPECT_EQ("", file.reason);
    EXPECT_EQ(std::string("a\0b\n", 4), file.text);
    test::WriteFile(kReadPath, "");
    EXPECT_TRUE(FileUtil::ReadFile(kReadPath, 100).ok);
    EXPECT_EQ("", FileUtil::ReadFile(kReadPath, 100).text);
}

TEST_F(FileUtilTest, ReadFileTakesAFileOfExactlyTheCapAndRefusesOneByteMore) {
    test::WriteFile(kReadPath, std::string(20000, 'x'));
    const FileUtil::ReadResult atCap = FileUtil::ReadFile(kReadPath, 20000);
    EXPECT_TRUE(atCap.ok);
    EXPECT_EQ(20000u, atCap.text.size());
    const FileUtil::ReadResult over = FileUtil::ReadFile(kReadPath, 19999);
    EXPECT_FALSE(over.ok);
    EXPECT_FALSE(over.missing);
    EXPECT_EQ("larger than 19999 bytes", over.reason);
    EXPECT_EQ("", over.text);
}

TEST_F(FileUtilTest, ReadFileReportsAMissingFile) {
    test::RemoveAll(kReadPath);
    const FileUtil::ReadResult file = FileUtil::ReadFile(kReadPath, 100);
    EXPECT_FALSE(file.ok);
    EXPECT_TRUE(file.missing);
    EXPECT_EQ("No such file or directory", file.reason);
}

TEST_F(FileUtilTest, ReadFileRefusesAFifoWithoutAWriterAtOnce) {
    test::MakeFifo(kReadPath);
    const Poco::Clock start;
    const FileUtil::ReadResult file = FileUtil::ReadFile(kReadPath, 100);
    EXPECT_LT(start.elapsed(), 2000000 * test::TimeScale());
    EXPECT_FALSE(file.ok);
    EXPECT_FALSE(file.missing);
    EXPECT_EQ("not a regular file", file.reason);
    test::RemoveAll(kReadPath);
}

TEST_F(FileUtilTest, ReadFileRefusesDevicesAndDirectories) {
    for (const std::string& path :
         {std::string("/dev/zero"), std::string("/dev/null"), std::string(test::FixedPath("/tmp"))}) {
        const FileUtil::ReadResult file = FileUtil::ReadFile(path, 100);
        EXPECT_FALSE(file.ok) << path;
        EXPECT_EQ("not a regular file", file.reason) << path;
        EXPECT_EQ("", file.text) << path;
    }
}

// A sparse file's size is refused before a byte of it is read.
TEST_F(FileUtilTest, ReadFileRefusesALargeSparseFileBeforeReading) {
    test::WriteFile(kReadPath, "");
    ASSERT_EQ(0, ::truncate(kReadPath.c_str(), 1024LL * 1024 * 1024));
    const Poco::Clock start;
    const FileUtil::ReadResult file = FileUtil::ReadFile(kReadPath, 4 * 1024 * 1024);
    EXPECT_LT(start.elapsed(), 2000000 * test::TimeScale());
    EXPECT_EQ("larger than 4194304 bytes", file.reason);
    EXPECT_FALSE(file.ok);
    EXPECT_EQ("", file.text);
    test::RemoveAll(kReadPath);
}

// Files of /proc tell no size: the cap holds while they are read.
TEST_F(FileUtilTest, ReadFileStopsAFileThatGrowsPastTheCap) {
    const FileUtil::ReadResult file = FileUtil::ReadFile("/proc/self/maps", 16);
    EXPECT_FALSE(file.ok);
    EXPECT_EQ("larger than 16 bytes", file.reason);
    EXPECT_TRUE(FileUtil::ReadFile("/proc/self/maps", 1 << 20).ok);
}

TEST_F(FileUtilTest, OnlyTheNullDeviceAndAClosedDescriptorDiscardWrites) {
    const int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
    ASSERT_GE(null, 0);
    EXPECT_TRUE(FileUtil::DiscardsWrites(null));
    close(null);
    EXPECT_TRUE(FileUtil::DiscardsWrites(null));
    const int zero = open("/dev/zero", O_WRONLY | O_CLOEXEC);
    ASSERT_GE(zero, 0);
    EXPECT_FALSE(FileUtil::DiscardsWrites(zero));
    close(zero);
    int ends[2];
    ASSERT_EQ(0, pipe(ends));
    EXPECT_FALSE(FileUtil::DiscardsWrites(ends[1]));
    close(ends[0]);
    close(ends[1]);
    test::WriteFile(kReadPath, "x");
    const int file = open(kReadPath.c_str(), O_WRONLY | O_CLOEXEC);
    ASSERT_GE(file, 0);
    EXPECT_FALSE(FileUtil::DiscardsWrites(file));
    close(file);
    test::RemoveAll(kReadPath);
}

} // namespace
} // namespace brvo
