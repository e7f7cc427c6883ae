#include "client/RetryAfter.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <string>

namespace brvo {
namespace {

const std::int64_t kMicros = 1000000;
// 2026-11-25 21:40:18 UTC, a Wednesday.
const std::int64_t kNow = 1795642818 * kMicros;

TEST(RetryAfterTest, TheClockOfTheseTestsIsTheDateTheyName) {
    // Every date below is counted from kNow; this pins kNow to its text.
    EXPECT_EQ(0, RetryAfter::Seconds("Wed, 25 Nov 2026 21:40:18 GMT", kNow));
    EXPECT_EQ(1, RetryAfter::Seconds("Wed, 25 Nov 2026 21:40:19 GMT", kNow));
}

TEST(RetryAfterTest, DeltaSeconds) {
    const struct {
        const char* value;
        std::int64_t seconds;
    } cases[] = {
        {"0", 0},
        {"1", 1},
        {"120", 120},
        {"0120", 120},
        {"86400", 86400},
        {" 120", 120},
        {"120 ", 120},
        {" \t120\t ", 120},
        {"999999999", 999999999},
        {"1000000000", RetryAfter::kMaxSeconds},
        {"1000000001", RetryAfter::kMaxSeconds},
        {"9223372036854775807", RetryAfter::kMaxSeconds},
        {"9223372036854775808", RetryAfter::kMaxSeconds},
        {"99999999999999999999999999999999999999999999", RetryAfter::kMaxSeconds},
        {"00000000000000000000000000000000000000000007", 7},
    };
    for (const auto& item : cases) {
        EXPECT_EQ(item.seconds, RetryAfter::Seconds(item.value, kNow)) << "\"" << item.value << "\"";
    }
}

TEST(RetryAfterTest, ValuesThatAreNeitherANumberNorADateGiveNone) {
    const char* const cases[] = {
        "",
        " ",
        "\t",
        "-1",
        "-120",
        "+120",
        "1.5",
        "1e3",
        "12 0",
        "120s",
        "0x10",
        "soon",
        "120\r",
        "\v120",
        "garbage",
        // Digits of other scripts and bytes with the high bit set are no
        // digits: the check runs on unsigned bytes on every target.
        "\xd9\xa1\xd9\xa2",
        "12\xff",
        "\xb2",
        "\xff",
    };
    for (const char* value : cases) {
        EXPECT_EQ(-1, RetryAfter::Seconds(value, kNow)) << "\"" << value << "\"";
    }
    EXPECT_EQ(-1, RetryAfter::Seconds(std::string("12\0"
                                                  "3",
                                                  4),
                                      kNow));
}

TEST(RetryAfterTest, HttpDateInTheFuture) {
    EXPECT_EQ(120, RetryAfter::Seconds("Wed, 25 Nov 2026 21:42:18 GMT", kNow));
    EXPECT_EQ(3600, RetryAfter::Seconds("Wed, 25 Nov 2026 22:40:18 GMT", kNow));
    EXPECT_EQ(86400 + 60, RetryAfter::Seconds("Thu, 26 Nov 2026 21:41:18 GMT", kNow));
    EXPECT_EQ(120, RetryAfter::Seconds("  Wed, 25 Nov 2026 21:42:18 GMT\t", kNow));
    // Across the end of 32-bit time: the device must read it right too.
    EXPECT_EQ(2147483647 - 1795642818 + 1, RetryAfter::Seconds("Tue, 19 Jan 2038 03:14:08 GMT", kNow));
}

// A date names a whole second: a wait that ends within a second still
// waits until that second, never before it.
TEST(RetryAfterTest, PartOfASecondCountsAsAWholeOne) {
    EXPECT_EQ(1, RetryAfter::Seconds("Wed, 25 Nov 2026 21:40:19 GMT", kNow + 999999));
    EXPECT_EQ(2, RetryAfter::Seconds("Wed, 25 Nov 2026 21:40:20 GMT", kNow + 1));
    EXPECT_EQ(0, RetryAfter::Seconds("Wed, 25 Nov 2026 21:40:19 GMT", kNow + kMicros));
}

TEST(RetryAfterTest, HttpDateInThePastIsNoWait) {
    EXPECT_EQ(0, RetryAfter::Seconds("Wed, 25 Nov 2026 21:40:17 GMT", kNow));
    EXPECT_EQ(0, RetryAfter::Seconds("Sun, 06 Nov 1994 08:49:37 GMT", kNow));
    EXPECT_EQ(0, RetryAfter::Seconds("Sat, 01 Jan 0000 00:00:00 GMT", kNow));
}

TEST(RetryAfterTest, FarHttpDateIsCutToTheCeiling) {
    EXPECT_EQ(RetryAfter::kMaxSeconds, RetryAfter::Seconds("Fri, 31 Dec 9999 23:59:59 GMT", kNow));
    EXPECT_EQ(RetryAfter::kMaxSeconds, RetryAfter::Seconds("Fri, 31 Dec 9999 23:59:59 GMT", 0));
}

// Whatever the clock says, the difference neither overflows nor turns
// negative.
TEST(RetryAfterTest, ExtremeClocksStayInRange) {
    const std::int64_t lowest = std::numeric_limits<std::int64_t>::min();
    const std::int64_t highest = std::numeric_limits<std::int64_t>::max();
    EXPECT_EQ(RetryAfter::kMaxSeconds, RetryAfter::Seconds("Sat, 01 Jan 0000 00:00:00 GMT", lowest));
    EXPECT_EQ(RetryAfter::kMaxSeconds, RetryAfter::Seconds("Fri, 31 Dec 9999 23:59:59 GMT", lowest));
    EXPECT_EQ(0, RetryAfter::Seconds("Sat, 01 Jan 0000 00:00:00 GMT", highest));
    EXPECT_EQ(0, RetryAfter::Seconds("Fri, 31 Dec 9999 23:59:59 GMT", highest));
}

TEST(RetryAfterTest, DatesInOtherFormsGiveNone) {
    const char* const cases[] = {
        // The obsolete forms a sender must no longer use.
        "Wednesday, 25-Nov-26 21:42:18 GMT",
        "Wed Nov 25 21:42:18 2026",
        // Near misses of an IMF-fixdate.
        "Wed, 25 Nov 2026 21:42:18 UTC",
        "Wed, 25 Nov 2026 21:42:18 +0000",
        "Wed, 25 Nov 2026 21:42:18",
        "Wed, 25 Nov 2026 21:42:18 GMT x",
        "Wed,  25 Nov 2026 21:42:18 GMT",
        "Wed, 5 Nov 2026 21:42:18 GMT",
        "Wed, 25 Nov 26 21:42:18 GMT",
        "wed, 25 nov 2026 21:42:18 GMT",
        "Xyz, 25 Nov 2026 21:42:18 GMT",
        "Wed, 25 Foo 2026 21:42:18 GMT",
        "Wed, 25 Nov 2026 21.42.18 GMT",
        "2026-11-25T21:42:18Z",
        // The shape, but no date.
        "Wed, 32 Nov 2026 21:42:18 GMT",
        "Wed, 00 Nov 2026 21:42:18 GMT",
        "Wed, 25 Nov 2026 24:42:18 GMT",
        "Wed, 25 Nov 2026 21:60:18 GMT",
        "Wed, 31 Nov 2026 21:42:18 GMT",
        "Sun, 29 Feb 2026 21:42:18 GMT",
    };
    for (const char* value : cases) {
        EXPECT_EQ(-1, RetryAfter::Seconds(value, kNow)) << "\"" << value << "\"";
    }
}

TEST(RetryAfterTest, OnlyTooManyRequestsAndServiceUnavailableCount) {
    EXPECT_EQ(120, RetryAfter::ForAnswer(429, true, "120", kNow));
    EXPECT_EQ(120, RetryAfter::ForAnswer(503, true, "120", kNow));
    EXPECT_EQ(120, RetryAfter::ForAnswer(503, true, "Wed, 25 Nov 2026 21:42:18 GMT", kNow));
    for (const int status : {200, 301, 302, 400, 404, 413, 428, 430, 500, 502, 504}) {
        EXPECT_EQ(-1, RetryAfter::ForAnswer(status, true, "120", kNow)) << status;
    }
}

TEST(RetryAfterTest, AnswerWithoutTheHeaderOrWithAnUnreadableOneGivesNone) {
    EXPECT_EQ(-1, RetryAfter::ForAnswer(429, false, "", kNow));
    EXPECT_EQ(-1, RetryAfter::ForAnswer(503, false, "120", kNow));
    EXPECT_EQ(-1, RetryAfter::ForAnswer(429, true, "", kNow));
    EXPECT_EQ(-1, RetryAfter::ForAnswer(503, true, "-5", kNow));
    EXPECT_EQ(-1, RetryAfter::ForAnswer(429, true, "later", kNow));
    EXPECT_EQ(0, RetryAfter::ForAnswer(503, true, "Sun, 06 Nov 1994 08:49:37 GMT", kNow));
}

} // namespace
} // namespace brvo
