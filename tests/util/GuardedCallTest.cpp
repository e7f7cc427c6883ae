#include "util/GuardedCall.h"

#include <gtest/gtest.h>

#include <stdexcept>

namespace brvo {
namespace {

TEST(GuardedCallTest, ReturningCallCatchesNothing) {
    bool ran = false;
    const Caught caught = GuardedCall([&] { ran = true; });
    EXPECT_TRUE(ran);
    EXPECT_FALSE(caught);
    EXPECT_EQ(Caught::kNothing, caught.GetKind());
    EXPECT_EQ("", caught.GetText());
}

TEST(GuardedCallTest, LibraryExceptionKeepsItsDisplayText) {
    const Caught caught = GuardedCall([] { throw Poco::FileNotFoundException("/x"); });
    EXPECT_TRUE(caught);
    EXPECT_EQ(Caught::kLibrary, caught.GetKind());
    EXPECT_EQ("File not found: /x", caught.GetText());
    EXPECT_EQ("Delete error. [File not found: /x]", caught.Describe("Delete error. "));
    EXPECT_EQ("Parser error. EXCEPTION[File not found: /x]", caught.DescribeTagged("Parser error. "));
}

TEST(GuardedCallTest, StandardExceptionKeepsWhatButIsDescribedPlainly) {
    const Caught caught = GuardedCall([] { throw std::runtime_error("boom"); });
    EXPECT_EQ(Caught::kStandard, caught.GetKind());
    EXPECT_EQ("boom", caught.GetText());
    EXPECT_EQ("Delete error. exception", caught.Describe("Delete error. "));
    EXPECT_EQ("Parser error. exception", caught.DescribeTagged("Parser error. "));
}

TEST(GuardedCallTest, AnythingElseIsCaughtToo) {
    const Caught caught = GuardedCall([] { throw 7; });
    EXPECT_EQ(Caught::kUnknown, caught.GetKind());
    EXPECT_EQ("", caught.GetText());
    EXPECT_EQ("Select error. exception", caught.Describe("Select error. "));
}

} // namespace
} // namespace brvo
