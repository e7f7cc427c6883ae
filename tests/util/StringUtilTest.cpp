#include "util/StringUtil.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <limits>
#include <string>

namespace brvo {
namespace {

TEST(StringUtilTest, SizeTexts) {
    EXPECT_EQ(10485760, StringUtil::SizeTextToBytes("10MB"));
    EXPECT_EQ(524288, StringUtil::SizeTextToBytes("512kb"));
    EXPECT_EQ(2048, StringUtil::SizeTextToBytes("2048"));
    EXPECT_EQ(10485760, StringUtil::SizeTextToBytes(""));
    EXPECT_EQ(1024, StringUtil::SizeTextToBytes("KB"));
}

TEST(StringUtilTest, UnreadableNumberCountsAsOne) {
    EXPECT_EQ(1048576, StringUtil::SizeTextToBytes("10 MB"));
    EXPECT_EQ(1073741824, StringUtil::SizeTextToBytes("GB"));
    EXPECT_EQ(1, StringUtil::SizeTextToBytes("abc"));
}

TEST(StringUtilTest, SizeNumberBases) {
    EXPECT_EQ(16 * 1024, StringUtil::SizeTextToBytes("0x10KB"));
    EXPECT_EQ(8, StringUtil::SizeTextToBytes("010"));
    EXPECT_EQ(500 * 1024, StringUtil::SizeTextToBytes("500KB"));
    EXPECT_EQ(2 * 1048576, StringUtil::SizeTextToBytes("2mB"));
}

TEST(StringUtilTest, OtherLetterBeforeBMeansBytes) {
    EXPECT_EQ(12, StringUtil::SizeTextToBytes("12B"));
    // The number is then the whole text before the "b": "12x" is unreadable.
    EXPECT_EQ(1, StringUtil::SizeTextToBytes("12xB"));
    // A leading "b" is not a unit: the whole text is the number.
    EXPECT_EQ(1, StringUtil::SizeTextToBytes("b12"));
    EXPECT_EQ(100, StringUtil::SizeTextToBytes("100B"));
}

TEST(StringUtilTest, DecodeDigitHex) {
    EXPECT_EQ("101", StringUtil::DecodeDigitHex("0a01"));
    EXPECT_EQ("255", StringUtil::DecodeDigitHex("ff"));
    EXPECT_EQ("255", StringUtil::DecodeDigitHex("FF"));
    // Schedule payloads carry one digit per byte.
    EXPECT_EQ("20220119", StringUtil::DecodeDigitHex("0200020200010109"));
    EXPECT_EQ("", StringUtil::DecodeDigitHex(""));
}

TEST(StringUtilTest, DecodeOddTrailingDigitReadsAlone) {
    EXPECT_EQ("110", StringUtil::DecodeDigitHex("01a"));
    EXPECT_EQ("7", StringUtil::DecodeDigitHex("7"));
}

TEST(StringUtilTest, BytesToHexIsLowerCaseTwoDigits) {
    const unsigned char bytes[] = {0x00, 0x7f, 0x80, 0xff, 0x0a};
    EXPECT_EQ("007f80ff0a", StringUtil::BytesToHex(bytes, sizeof bytes));
    const signed char signedBytes[] = {0, 127, -128, -1, 10};
    EXPECT_EQ("007f80ff0a", StringUtil::BytesToHex(signedBytes, sizeof signedBytes));
    EXPECT_EQ("", StringUtil::BytesToHex(static_cast<const unsigned char*>(nullptr), 3));
}

TEST(StringUtilTest, BytesToStringKeepsEveryByte) {
    const unsigned char bytes[] = {'a', 0x00, 0xe9, 'b'};
    const std::string text = StringUtil::BytesToString(bytes, sizeof bytes);
    ASSERT_EQ(4u, text.size());
    EXPECT_EQ('\0', text[1]);
    EXPECT_EQ(0xe9, static_cast<unsigned char>(text[2]));
}

TEST(StringUtilTest, LongToString) {
    EXPECT_EQ("0", StringUtil::LongToString(0));
    EXPECT_EQ("-42", StringUtil::LongToString(-42));
    EXPECT_EQ("4102444800", StringUtil::LongToString(4102444800LL));
}

TEST(StringUtilTest, CharacterClassesIgnoreBytesAbove127) {
    EXPECT_TRUE(StringUtil::IsSpace(' '));
    EXPECT_TRUE(StringUtil::IsSpace('\t'));
    EXPECT_FALSE(StringUtil::IsSpace('a'));
    EXPECT_TRUE(StringUtil::IsDigit('7'));
    EXPECT_TRUE(StringUtil::IsHexDigit('F'));
    EXPECT_FALSE(StringUtil::IsHexDigit('g'));
    EXPECT_TRUE(StringUtil::IsAlpha('z'));
    EXPECT_FALSE(StringUtil::IsSpace(0xa0));
    EXPECT_FALSE(StringUtil::IsAlpha(0xe9));
    EXPECT_FALSE(StringUtil::IsDigit(-1));
}

} // namespace
} // namespace brvo

// The same text as "%f", whether the value was formatted before on this
// thread or not, and cut as snprintf cuts it.
TEST(StringUtilTest, FormatFixedWritesWhatPercentFWrites) {
    const double values[] = {0.0,
                             -0.0,
                             10.0,
                             4.5,
                             49.5,
                             1e-7,
                             0.0000005,
                             1234.5678,
                             -273.15,
                             1e15,
                             1e300,
                             -1e300,
                             std::numeric_limits<double>::infinity(),
                             std::nan(""),
                             2.5,
                             10.0,
                             4.5,
                             0.1 + 0.2,
                             7.0,
                             8.0,
                             9.0};
    for (int round = 0; round < 3; ++round) {
        for (double value : values) {
            char expected[512];
            std::snprintf(expected, sizeof expected, "%f", value);
            char text[512];
            brvo::StringUtil::FormatFixed(value, text, sizeof text);
            EXPECT_STREQ(expected, text) << round;
            char cut[8];
            brvo::StringUtil::FormatFixed(value, cut, sizeof cut);
            EXPECT_EQ(std::string(expected).substr(0, sizeof cut - 1), cut) << round;
        }
    }
}
