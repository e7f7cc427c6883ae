#include "database/CleanStopMark.h"

#include "settings/LoggerSettingManager.h"
#include "support/SingletonTest.h"
#include "support/TestFiles.h"
#include "util/FileUtil.h"

#include <gtest/gtest.h>

namespace brvo {
namespace {

const std::string kMark = test::FixedPath("/media/sdcard/kestrovanyx/Database/OutputControl/pvocd.clean-stop");

class CleanStopMarkTest : public test::SingletonTest {
protected:
    void SetUp() override {
        test::WriteLoggerSetting("");
        LoggerSettingManager::CreateInstance();
        FileUtil::ResetDataRoot();
    }
};

TEST_F(CleanStopMarkTest, FirstStartFindsNoMark) {
    EXPECT_FALSE(CleanStopMark::Take());
    EXPECT_FALSE(test::FileExists(kMark));
}

TEST_F(CleanStopMarkTest, MarkLeftByACleanStopIsFoundOnceAtTheNextStart) {
    CleanStopMark::Leave();
    EXPECT_TRUE(test::FileExists(kMark));
    EXPECT_TRUE(CleanStopMark::Take());
    // Gone once taken: a kill from now on leaves no mark.
    EXPECT_FALSE(test::FileExists(kMark));
    EXPECT_FALSE(CleanStopMark::Take());
}

} // namespace
} // namespace brvo
