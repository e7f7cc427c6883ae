#include "util/FileUtil.h"

#include "settings/LoggerSettingManager.h"
#include "support/TestFiles.h"
#include "util/LoggerLog.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

namespace brvo {
namespace {

const std::string kLogFile =
    "/media/sdcard/kestrovanyx/Log/OutputScheduleLog/OutputSchedule_pvocd.log";

class FileUtilTest : public ::testing::Test {
protected:
    void SetUp() override { FileUtil::ResetDataRoot(); }

    void TearDown() override {
        LoggerLog::DeleteInstance();
        LoggerSettingManager::DeleteInstance();
        FileUtil::ResetDataRoot();
    }

    static void UseSettings(const std::string& innerXml) {
        test::WriteLoggerSetting(innerXml);
        LoggerSettingManager::CreateInstance();
    }
};

TEST_F(FileUtilTest, FixedLayout) {
    EXPECT_EQ("/usr/local/etc/kestrovanyx/SettingsXML", FileUtil::GetSettingsDirectory());
    EXPECT_EQ("/usr/local/etc/kestrovanyx/SettingsXML/SystemSetting.xml",
              FileUtil::GetSystemSettingFile());
    EXPECT_EQ("/usr/local/etc/kestrovanyx/SettingsXML/DefaultSystemSetting.xml",
              FileUtil::GetDefaultSystemSettingFile());
    EXPECT_EQ("/usr/local/etc/kestrovanyx/SettingsXML/LoggerSetting.xml",
              FileUtil::GetLoggerSettingFile());
    EXPECT_EQ("/usr/local/etc/kestrovanyx/DeviceXML", FileUtil::GetDeviceDirectory());
}

TEST_F(FileUtilTest, WritableCardHoldsTheData) {
    UseSettings("<SdcardPath>/media/sdcard/card</SdcardPath>");
    EXPECT_EQ("/media/sdcard/card/kestrovanyx", FileUtil::GetDataRoot());
    EXPECT_EQ("/media/sdcard/card/kestrovanyx/Database", FileUtil::GetDatabaseDirectory());
    EXPECT_EQ("/media/sdcard/card/kestrovanyx/Certificates/", FileUtil::GetCertificatesDirectory());
    // The probe file is removed again.
    EXPECT_FALSE(test::FileExists("/media/sdcard/card/kestrovanyx/write_test"));
}

TEST_F(FileUtilTest, UnwritableCardMovesDatabaseAndCertificatesUnderTmp) {
    // A plain file where the card's directory should be: nothing can be
    // created below it, not even by root.
    test::WriteFile("/media/sdcard/blocked", "");
    UseSettings("<SdcardPath>/media/sdcard/blocked</SdcardPath>");
    EXPECT_EQ("/tmp/kestrovanyx", FileUtil::GetDataRoot());
    EXPECT_EQ("/tmp/kestrovanyx/Database", FileUtil::GetDatabaseDirectory());
    EXPECT_EQ("/tmp/kestrovanyx/Database/OutputControl", FileUtil::GetOutputControlDirectory());
    EXPECT_TRUE(test::FileExists("/tmp/kestrovanyx/Database/OutputControl"));
    EXPECT_EQ("/tmp/kestrovanyx/Certificates/", FileUtil::GetCertificatesDirectory());
}

TEST_F(FileUtilTest, DataRootIsDecidedOnce) {
    UseSettings("<SdcardPath>/media/sdcard/card</SdcardPath>");
    ASSERT_EQ("/media/sdcard/card/kestrovanyx", FileUtil::GetDataRoot());
    test::RemoveAll("/media/sdcard/card");
    test::WriteFile("/media/sdcard/card", "");
    EXPECT_EQ("/media/sdcard/card/kestrovanyx", FileUtil::GetDataRoot());
}

TEST_F(FileUtilTest, OutputControlDirectoryIsCreatedOnEveryCall) {
    UseSettings("");
    const std::string dir = FileUtil::GetOutputControlDirectory();
    EXPECT_EQ("/media/sdcard/kestrovanyx/Database/OutputControl", dir);
    test::RemoveAll(dir);
    ASSERT_FALSE(test::FileExists(dir));
    FileUtil::GetOutputControlDirectory();
    EXPECT_TRUE(test::FileExists(dir));
}

TEST_F(FileUtilTest, EmptyPathDoesNotExist) {
    // The working directory exists, so asking the file system about "" the
    // way a relative path is resolved would answer true.
    EXPECT_FALSE(FileUtil::Exists(""));
    EXPECT_TRUE(FileUtil::Exists("/tmp"));
    EXPECT_FALSE(FileUtil::Exists("/tmp/absent"));
}

TEST_F(FileUtilTest, CreateFileReplacesAnExistingFileWithAnEmptyOne) {
    test::WriteFile("/tmp/f.txt", "old content");
    EXPECT_TRUE(FileUtil::CreateFile("/tmp/f.txt"));
    EXPECT_TRUE(test::FileExists("/tmp/f.txt"));
    EXPECT_EQ("", test::ReadFile("/tmp/f.txt"));
    EXPECT_TRUE(FileUtil::CreateFile("/tmp/new.txt"));
    EXPECT_TRUE(test::FileExists("/tmp/new.txt"));
}

TEST_F(FileUtilTest, FailuresAreLoggedAndFalse) {
    UseSettings("<OutputScheduleEnableLogBufferedIO>0</OutputScheduleEnableLogBufferedIO>");
    LoggerLog::CreateInstance();
    EXPECT_FALSE(FileUtil::CreateFile("/tmp/none/f.txt"));
    EXPECT_FALSE(FileUtil::Rename("/tmp/none/a", "/tmp/none/b"));
    EXPECT_EQ(0u, FileUtil::GetSize("/tmp/none/a"));
    test::WriteFile("/tmp/plain", "");
    EXPECT_FALSE(FileUtil::CreateDirectory("/tmp/plain/sub", true));
    LoggerLog::DeleteInstance();
    const std::string log = test::ReadFile(kLogFile);
    EXPECT_NE(std::string::npos, log.find("] FileUtil Create file. file:[/tmp/none/f.txt] [")) << log;
    EXPECT_NE(std::string::npos,
              log.find("] FileUtil Rename file. file:[/tmp/none/a] -> [/tmp/none/b] [")) << log;
    EXPECT_NE(std::string::npos,
              log.find("] FileUtil Get fail size fail. file:[/tmp/none/a] [")) << log;
    EXPECT_NE(std::string::npos,
              log.find("] FileUtil Create directory failed. file:[/tmp/plain/sub] [")) << log;
}

TEST_F(FileUtilTest, RenameReplacesTheTarget) {
    test::WriteFile("/tmp/a", "A");
    test::WriteFile("/tmp/b", "B");
    EXPECT_TRUE(FileUtil::Rename("/tmp/a", "/tmp/b"));
    EXPECT_FALSE(test::FileExists("/tmp/a"));
    EXPECT_EQ("A", test::ReadFile("/tmp/b"));
    EXPECT_EQ(1u, FileUtil::GetSize("/tmp/b"));
}

TEST_F(FileUtilTest, PathParts) {
    EXPECT_EQ("/a/b/", FileUtil::GetDirectory("/a/b/c.sock"));
    EXPECT_EQ("c.sock", FileUtil::GetFileName("/a/b/c.sock"));
    EXPECT_EQ("", FileUtil::GetFileName(""));
}

TEST_F(FileUtilTest, WritableDirectoryProbe) {
    EXPECT_TRUE(FileUtil::IsWritableDirectory("/tmp/x/y"));
    EXPECT_TRUE(test::FileExists("/tmp/x/y"));
    EXPECT_FALSE(test::FileExists("/tmp/x/y/write_test"));
    test::WriteFile("/tmp/file", "");
    EXPECT_FALSE(FileUtil::IsWritableDirectory("/tmp/file/y"));
}

} // namespace
} // namespace brvo
