#include "util/TimeStamp.h"

#include <gtest/gtest.h>

#include <Poco/Exception.h>

namespace brvo {
namespace {

TEST(TimeStampTest, DisplayTextParses) {
    std::shared_ptr<TimeStamp> t = TimeStamp::ParseDisplay("2022-01-19 12:00:00");
    ASSERT_NE(nullptr, t);
    EXPECT_EQ("2022-01-19 12:00:00", t->FormatDisplay());
    EXPECT_EQ(1642593600, t->EpochSeconds());
}

TEST(TimeStampTest, DisplayParseRefusesOtherForms) {
    EXPECT_EQ(nullptr, TimeStamp::ParseDisplay("2022/01/19"));
    EXPECT_EQ(nullptr, TimeStamp::ParseDisplay("2022/01/19 12:00:00"));
    EXPECT_EQ(nullptr, TimeStamp::ParseDisplay(""));
    EXPECT_EQ(nullptr, TimeStamp::ParseDisplay("2022-13-19 12:00:00"));
    EXPECT_EQ(nullptr, TimeStamp::ParseDisplay("2022-01-19 12:00:00x"));
}

TEST(TimeStampTest, ServerTimeMinusNineHoursIsUtc) {
    std::shared_ptr<TimeStamp> t = TimeStamp::ParseDisplay("2022-01-19 09:00:00");
    ASSERT_NE(nullptr, t);
    t->SubtractServerOffset();
    EXPECT_EQ("2022-01-19 00:00:00", t->FormatDisplay());
    EXPECT_EQ(1642550400, t->EpochSeconds());
    t->AddServerOffset();
    EXPECT_EQ("2022-01-19 09:00:00", t->FormatDisplay());
}

TEST(TimeStampTest, CompactParseAndFormat) {
    std::shared_ptr<TimeStamp> t = TimeStamp::ParseCompact("20220119090000");
    ASSERT_NE(nullptr, t);
    EXPECT_EQ("20220119090000", t->FormatCompact());
    EXPECT_EQ("2022-01-19 09:00:00", t->FormatDisplay());
}

TEST(TimeStampTest, CompactParseThrowsOnMismatch) {
    EXPECT_THROW(TimeStamp::ParseCompact("2022-01-19 09:00:00"), Poco::SyntaxException);
    EXPECT_THROW(TimeStamp::ParseCompact("2022011909000"), Poco::SyntaxException);
    EXPECT_THROW(TimeStamp::ParseCompact("20221319090000"), Poco::SyntaxException);
}

TEST(TimeStampTest, PatternParse) {
    std::shared_ptr<TimeStamp> t = TimeStamp::Parse("%Y-%m-%d", "2022-01-19");
    ASSERT_NE(nullptr, t);
    EXPECT_EQ(1642550400, t->EpochSeconds());
    EXPECT_EQ(nullptr, TimeStamp::Parse("%Y-%m-%d", "2022-13-19"));
    EXPECT_EQ(nullptr, TimeStamp::Parse("%Y-%m-%d", "2022-02-30"));
}

TEST(TimeStampTest, PatternLiteralsDemandNothing) {
    // The schedule start is read with "%Y%m%d%H%M00" from twelve digits: the
    // trailing "00" of the pattern is literal text and consumes nothing.
    std::shared_ptr<TimeStamp> t = TimeStamp::Parse("%Y%m%d%H%M00", "202201190930");
    ASSERT_NE(nullptr, t);
    EXPECT_EQ("2022-01-19 09:30:00", t->FormatDisplay());
}

TEST(TimeStampTest, EpochSecondsRoundTripPast2038) {
    // 2040-01-01 00:00:00 UTC does not fit a 32-bit time_t.
    const std::int64_t seconds = 2208988800LL;
    std::shared_ptr<TimeStamp> t = TimeStamp::FromEpochSeconds(seconds);
    ASSERT_NE(nullptr, t);
    EXPECT_EQ(seconds, t->EpochSeconds());
    EXPECT_EQ("2040-01-01 00:00:00", t->FormatDisplay());
    std::shared_ptr<TimeStamp> back = TimeStamp::ParseCompact("20400101000000");
    EXPECT_EQ(seconds, back->EpochSeconds());
}

TEST(TimeStampTest, EpochSecondsRoundTowardsNegativeInfinity) {
    TimeStamp t(Poco::Timestamp(-1));
    EXPECT_EQ(-1, t.EpochSeconds());
    TimeStamp u(Poco::Timestamp(1999999));
    EXPECT_EQ(1, u.EpochSeconds());
}

TEST(TimeStampTest, CopyIsIndependent) {
    TimeStamp a(Poco::Timestamp(0));
    TimeStamp b(a);
    b.AddServerOffset();
    EXPECT_EQ(0, a.EpochSeconds());
    EXPECT_EQ(32400, b.EpochSeconds());
    a = b;
    EXPECT_EQ(32400, a.EpochSeconds());
}

TEST(TimeStampTest, FormatPattern) {
    std::shared_ptr<TimeStamp> t = TimeStamp::FromEpochSeconds(1642550400);
    ASSERT_NE(nullptr, t);
    EXPECT_EQ("2022/01/19", t->Format("%Y/%m/%d"));
}

} // namespace
} // namespace brvo
