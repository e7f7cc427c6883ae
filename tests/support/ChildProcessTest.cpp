// How a child's own fake clock composes with a shift of the whole run's clock.
#include "support/ChildProcess.h"

#include <gtest/gtest.h>

#include <cstdlib>
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

} // namespace
} // namespace brvo
