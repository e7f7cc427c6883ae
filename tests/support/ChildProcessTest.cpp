// How a child's own fake clock composes with a shift of the whole run's clock.
#include "support/ChildProcess.h"

#include "support/TestFiles.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <map>
#include <string>

namespace brvo {
namespace {

// Sets FAKETIME for one test and puts back what was there.
class SuiteShiftTest : public ::testing::Test {
protected:
    void SetUp() override {
        const char* old = std::getenv("FAKETIME");
        hadOld_ = old != nullptr;
        if (hadOld_) old_ = old;
    }
    void TearDown() override {
        if (hadOld_) {
            ::setenv("FAKETIME", old_.c_str(), 1);
        } else {
            ::unsetenv("FAKETIME");
        }
    }

    bool hadOld_ = false;
    std::string old_;
};

TEST_F(SuiteShiftTest, WithoutAShiftEverySpecStaysAsItIs) {
    ::unsetenv("FAKETIME");
    EXPECT_EQ("+0 x30", test::ChildProcess::WithSuiteShift("+0 x30"));
    EXPECT_EQ("@2040-03-01 00:40:00", test::ChildProcess::WithSuiteShift("@2040-03-01 00:40:00"));
}

TEST_F(SuiteShiftTest, RelativeSpecsCountFromTheShiftedClock) {
    ::setenv("FAKETIME", "+413522764", 1);
    EXPECT_EQ("+413522764 x30", test::ChildProcess::WithSuiteShift("+0 x30"));
    EXPECT_EQ("+413522774", test::ChildProcess::WithSuiteShift("+10"));
    EXPECT_EQ("+413522754 x2", test::ChildProcess::WithSuiteShift("-10 x2"));
    ::setenv("FAKETIME", "-100", 1);
    EXPECT_EQ("-90 x10", test::ChildProcess::WithSuiteShift("+10 x10"));
}

TEST_F(SuiteShiftTest, AbsoluteAndUnitSpecsAreNotComposed) {
    ::setenv("FAKETIME", "+1000", 1);
    EXPECT_EQ("@2040-03-01 00:40:00", test::ChildProcess::WithSuiteShift("@2040-03-01 00:40:00"));
    EXPECT_EQ("+5m", test::ChildProcess::WithSuiteShift("+5m"));
}

TEST_F(SuiteShiftTest, AShiftThatIsNoWholeNumberOfSecondsIsNoShift) {
    ::setenv("FAKETIME", "@2040-01-01 00:00:00", 1);
    EXPECT_EQ("+0 x30", test::ChildProcess::WithSuiteShift("+0 x30"));
    ::setenv("FAKETIME", "+2y", 1);
    EXPECT_EQ("+0 x30", test::ChildProcess::WithSuiteShift("+0 x30"));
}

// A child whose clock follows a file must not see FAKETIME, a whole-run
// shift's included: libfaketime would take it and never read the file.
TEST_F(SuiteShiftTest, ClockFileChildSeesTheFileAndNoFaketime) {
    ::setenv("FAKETIME", "+1000", 1);
    const std::string file = test::FixedPath("/tmp/child.clock");
    std::map<std::string, std::string> env = test::ChildProcess::FakeTimeFileEnv(file);
    EXPECT_EQ(file, env.at("FAKETIME_TIMESTAMP_FILE"));
    EXPECT_EQ("1", env.at("FAKETIME_NO_CACHE"));
    EXPECT_EQ("1", env.at("FAKETIME_DONT_FAKE_MONOTONIC"));
    EXPECT_EQ("0", env.at("FAKETIME_FORCE_MONOTONIC_FIX"));
    // The shell itself runs on the real clock.
    env.erase("LD_PRELOAD");
    const std::string output = test::FixedPath("/tmp/child.out");
    test::ChildProcess child;
    ASSERT_TRUE(child.Start({"/bin/sh", "-c", "echo \"${FAKETIME-none} $FAKETIME_TIMESTAMP_FILE\""}, output, env));
    ASSERT_TRUE(child.WaitExit(10000));
    EXPECT_EQ("none " + file + "\n", test::ReadFile(output));
}

TEST_F(SuiteShiftTest, ClockFileHoldsAbsoluteTimesAsTheyAreAndRelativeOnesFromTheShift) {
    ::setenv("FAKETIME", "+1000", 1);
    const std::string file = test::FixedPath("/tmp/child.clock");
    test::ChildProcess::SetFakeTime(file, "@2040-03-01 00:40:00");
    EXPECT_EQ("@2040-03-01 00:40:00\n", test::ReadFile(file));
    test::ChildProcess::SetFakeTime(file, "+10");
    EXPECT_EQ("+1010\n", test::ReadFile(file));
    EXPECT_FALSE(test::FileExists(file + ".next"));
}

} // namespace
} // namespace brvo
