#include "client/ServerResponseParser.h"

#include "settings/LoggerSettingManager.h"
#include "support/SchedulePayload.h"
#include "support/SingletonTest.h"
#include "support/TestFiles.h"
#include "util/LoggerLog.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <limits>
#include <memory>
#include <random>
#include <vector>

namespace brvo {
namespace {

const std::string kLogFile =
    test::FixedPath("/media/sdcard/kestrovanyx/Log/OutputScheduleLog/OutputSchedule_pvocd.log");
const std::string kCrlf = "\r\n";
const std::string kBinaryType = "Content-Type: application/octet-stream";
const std::string kTextType = "Content-Type: text/plain; charset=UTF-8";

// Parses `body` under a Content-Type naming `boundary` and keeps what the
// parse wrote to standard output.
struct Parsed {
    std::unique_ptr<ServerResponseParser> parser;
    std::string trace;
};

Parsed ParseWith(const std::string& contentType, const std::string& body) {
    Parsed parsed;
    testing::internal::CaptureStdout();
    parsed.parser.reset(new ServerResponseParser(contentType, body.data(), static_cast<std::int64_t>(body.size())));
    std::fflush(stdout);
    parsed.trace = testing::internal::GetCapturedStdout();
    return parsed;
}

Parsed Parse(const std::string& body) {
    return ParseWith(test::MultipartContentType("abc"), body);
}

std::string Bytes(std::initializer_list<int> values) {
    std::string bytes;
    for (int value : values) bytes.push_back(static_cast<char>(static_cast<unsigned char>(value)));
    return bytes;
}

class ServerResponseParserLogTest : public test::SingletonTest {
protected:
    void SetUp() override {
        test::WriteLoggerSetting("<OutputScheduleEnableLogBufferedIO>0</OutputScheduleEnableLogBufferedIO>");
        LoggerSettingManager::CreateInstance();
        LoggerLog::CreateInstance();
    }
    // Ends the log so that everything is on disk, then reads it.
    std::string LogText() {
        LoggerLog::DeleteInstance();
        return test::ReadFile(kLogFile);
    }
};

TEST(ServerResponseParserTest, BinaryPartBecomesHex) {
    const std::string body =
        "--abc\r\n" + kBinaryType + "\r\nContent-Length: 3\r\n\r\n" + Bytes({1, 171, 255}) + "\r\n--abc--\r\n";
    Parsed parsed = Parse(body);
    const ServerResponseParser& parser = *parsed.parser;
    EXPECT_EQ("01abff", parser.GetHexData());
    EXPECT_TRUE(parser.IsBinary());
    EXPECT_FALSE(parser.IsText());
    EXPECT_EQ("", parser.GetMessage());
    EXPECT_EQ(3, parser.GetContentLength());
    EXPECT_EQ(static_cast<std::int32_t>(body.size()), parser.GetDataLength());
    EXPECT_EQ("abc", parser.GetBoundary());
    EXPECT_EQ(test::MultipartContentType("abc"), parser.GetContentType());
    EXPECT_EQ("data length = [" + std::to_string(body.size()) + "]", parser.ToString());
}

TEST(ServerResponseParserTest, TextPartBecomesMessage) {
    Parsed parsed = Parse(test::TextPartBody("abc", "OK"));
    EXPECT_EQ("OK", parsed.parser->GetMessage());
    EXPECT_TRUE(parsed.parser->IsText());
    EXPECT_FALSE(parsed.parser->IsBinary());
    EXPECT_EQ("", parsed.parser->GetHexData());
    EXPECT_EQ("message = [OK]", parsed.parser->ToString());
}

TEST(ServerResponseParserTest, TracesGoToStandardOutput) {
    const std::string body =
        "pre\r\n--abc\r\n" + kBinaryType + "\r\nContent-Length: 1\r\n\r\n" + Bytes({7}) + "\r\n--abc--\r\n";
    Parsed parsed = Parse(body);
    EXPECT_EQ("boundary_ ::[[abc\n"
              "data_length_ ::[[" +
                  std::to_string(body.size()) +
                  "\n"
                  "str_linexx01 ::[[pre\n"
                  "str_linexx01 ::[[--abc\n"
                  "end ::[[10\n"
                  "str_linexx02 ::[[" +
                  kBinaryType +
                  "\n"
                  "str_linexx02 ::[[Content-Length: 1\n"
                  "str_linexx02 ::[[\n",
              parsed.trace);
    EXPECT_EQ("07", parsed.parser->GetHexData());
}

TEST(ServerResponseParserTest, PartWithoutContentTypeIsText) {
    Parsed parsed = Parse(test::MultipartBody("abc", {"Content-Length: 2"}, "hi"));
    EXPECT_TRUE(parsed.parser->IsText());
    EXPECT_FALSE(parsed.parser->IsBinary());
    EXPECT_EQ("hi", parsed.parser->GetMessage());
}

TEST(ServerResponseParserTest, NoBlankAfterColonMakesPartBinary) {
    Parsed parsed =
        Parse(test::MultipartBody("abc", {"Content-Type:text/plain; charset=UTF-8", "Content-Length: 2"}, "hi"));
    EXPECT_FALSE(parsed.parser->IsText());
    EXPECT_TRUE(parsed.parser->IsBinary());
    EXPECT_EQ("6869", parsed.parser->GetHexData());
    EXPECT_EQ("", parsed.parser->GetMessage());
}

TEST(ServerResponseParserTest, TextWithoutCharsetIsBinary) {
    Parsed parsed = Parse(test::MultipartBody("abc", {"Content-Type: text/plain", "Content-Length: 2"}, "hi"));
    EXPECT_TRUE(parsed.parser->IsBinary());
    EXPECT_EQ("6869", parsed.parser->GetHexData());
}

TEST(ServerResponseParserTest, SeveralBlanksAreAccepted) {
    Parsed parsed = Parse(
        test::MultipartBody("abc", {"Content-Type:   text/plain;   charset=Shift_JIS", "Content-Length:    2"}, "hi"));
    EXPECT_TRUE(parsed.parser->IsText());
    EXPECT_EQ("hi", parsed.parser->GetMessage());
    EXPECT_EQ(2, parsed.parser->GetContentLength());
}

TEST(ServerResponseParserTest, LastContentTypeLineDecides) {
    Parsed parsed = Parse(test::MultipartBody("abc", {kTextType, kBinaryType, "Content-Length: 2"}, "hi"));
    EXPECT_TRUE(parsed.parser->IsBinary());
}

TEST(ServerResponseParserTest, MissingContentLength) {
    Parsed parsed = Parse(test::MultipartBody("abc", {kBinaryType}, Bytes({1, 2})));
    EXPECT_EQ("No Content-Length parameter.", parsed.parser->GetMessage());
    EXPECT_EQ("", parsed.parser->GetHexData());
    EXPECT_FALSE(parsed.parser->IsBinary());
}

TEST(ServerResponseParserTest, ZeroContentLength) {
    Parsed parsed = Parse(test::MultipartBody("abc", {kBinaryType, "Content-Length: 0"}, Bytes({1, 2})));
    EXPECT_EQ("No Content-Length parameter.", parsed.parser->GetMessage());
    EXPECT_FALSE(parsed.parser->IsBinary());
}

TEST(ServerResponseParserTest, ContentLengthWithoutBlankIsNotRead) {
    Parsed parsed = Parse(test::MultipartBody("abc", {kBinaryType, "Content-Length:2"}, Bytes({1, 2})));
    EXPECT_EQ(0, parsed.parser->GetContentLength());
    EXPECT_EQ("No Content-Length parameter.", parsed.parser->GetMessage());
}

TEST(ServerResponseParserTest, ContentLengthWithLeadingZeros) {
    Parsed parsed =
        Parse(test::MultipartBody("abc", {kBinaryType, "Content-Length: 0000000000000000000002"}, Bytes({1, 2})));
    EXPECT_EQ(2, parsed.parser->GetContentLength());
    EXPECT_EQ("0102", parsed.parser->GetHexData());
}

TEST(ServerResponseParserTest, BodyWithoutDelimiterGivesNothing) {
    const std::string body = kBinaryType + "\r\nContent-Length: 2\r\n\r\n" + Bytes({1, 2}) + "\r\n";
    Parsed parsed = Parse(body);
    EXPECT_EQ("", parsed.parser->GetMessage());
    EXPECT_EQ("", parsed.parser->GetHexData());
    EXPECT_FALSE(parsed.parser->IsBinary());
    EXPECT_EQ(std::string::npos, parsed.trace.find("str_linexx02"));
    EXPECT_NE(std::string::npos, parsed.trace.find("end ::[[" + std::to_string(body.size()) + "\n"));
}

TEST(ServerResponseParserTest, UnquotedBoundaryIsNotRecognised) {
    Parsed parsed = ParseWith("multipart/form-data; boundary=abc", test::BinaryPartBody("abc", Bytes({1})));
    EXPECT_EQ("", parsed.parser->GetBoundary());
    EXPECT_EQ("", parsed.parser->GetHexData());
    EXPECT_EQ("", parsed.parser->GetMessage());
    EXPECT_NE(std::string::npos, parsed.trace.find("boundary_ ::[[\n"));
}

TEST(ServerResponseParserTest, ContentTypeWithoutBoundary) {
    Parsed parsed = ParseWith("application/octet-stream", test::BinaryPartBody("abc", Bytes({1})));
    EXPECT_EQ("", parsed.parser->GetBoundary());
    EXPECT_EQ("", parsed.parser->GetHexData());
    EXPECT_EQ("", parsed.parser->GetMessage());
}

TEST(ServerResponseParserTest, EmptyBoundaryMatchesBareDashes) {
    // With no boundary the delimiter is "--" alone.
    Parsed parsed = ParseWith("text/html", test::BinaryPartBody("", Bytes({9})));
    EXPECT_EQ("09", parsed.parser->GetHexData());
}

TEST(ServerResponseParserTest, BoundaryFoundAnywhereInContentType) {
    Parsed parsed =
        ParseWith("multipart/mixed;charset=x;boundary=\"b-1\";x=y", test::BinaryPartBody("b-1", Bytes({5})));
    EXPECT_EQ("b-1", parsed.parser->GetBoundary());
    EXPECT_EQ("05", parsed.parser->GetHexData());
}

TEST(ServerResponseParserTest, ClosingDelimiterBeforeContentEndsParse) {
    Parsed parsed = Parse("--abc\r\n" + kBinaryType + "\r\n--abc--\r\n\r\nxx\r\n");
    EXPECT_EQ("", parsed.parser->GetHexData());
    EXPECT_EQ("", parsed.parser->GetMessage());
    EXPECT_FALSE(parsed.parser->IsBinary());
}

TEST(ServerResponseParserTest, OnlyFirstPartIsRead) {
    const std::string body = "--abc\r\n" + kBinaryType + "\r\nContent-Length: 1\r\n\r\n" + Bytes({1}) +
                             "\r\n--abc\r\n" + kTextType + "\r\nContent-Length: 2\r\n\r\nOK\r\n--abc--\r\n";
    Parsed parsed = Parse(body);
    EXPECT_EQ("01", parsed.parser->GetHexData());
    EXPECT_EQ("", parsed.parser->GetMessage());
}

TEST(ServerResponseParserTest, MissingHeadersGiveNoContentLength) {
    Parsed parsed = Parse("--abc\r\n\r\nOK\r\n--abc--\r\n");
    EXPECT_EQ("No Content-Length parameter.", parsed.parser->GetMessage());
    EXPECT_TRUE(parsed.parser->IsText());
}

TEST(ServerResponseParserTest, UnterminatedHeadersGiveNothing) {
    Parsed parsed = Parse("--abc\r\n" + kBinaryType + "\r\nContent-Length: 3");
    EXPECT_EQ("", parsed.parser->GetMessage());
    EXPECT_EQ("", parsed.parser->GetHexData());
    EXPECT_EQ(0, parsed.parser->GetContentLength());

    // Nor does an empty text at the very end open the content.
    Parsed ended = Parse("--abc\r\n" + kBinaryType + "\r\nContent-Length: 3\r\n");
    EXPECT_EQ(3, ended.parser->GetContentLength());
    EXPECT_EQ("", ended.parser->GetMessage());
    EXPECT_FALSE(ended.parser->IsBinary());
}

std::string Truncated(std::int64_t declared, std::int64_t received) {
    return "Parser error. part is truncated. Content-Length[" + std::to_string(declared) + "] received[" +
           std::to_string(received) + "]";
}

// A part declaring more bytes than the answer holds was cut short on the
// way: no content at all, binary or text.
TEST(ServerResponseParserTest, ContentLongerThanDataGivesNoContent) {
    Parsed parsed = Parse("--abc\r\n" + kBinaryType + "\r\nContent-Length: 1000\r\n\r\n" + Bytes({1, 171, 255}));
    EXPECT_EQ(1000, parsed.parser->GetContentLength());
    EXPECT_EQ("", parsed.parser->GetHexData());
    EXPECT_FALSE(parsed.parser->IsBinary());
    EXPECT_EQ(Truncated(1000, 3), parsed.parser->GetMessage());
    EXPECT_FALSE(parsed.parser->OCCheckIDModel());

    Parsed text = Parse("--abc\r\n" + kTextType + "\r\nContent-Length: 50\r\n\r\nOK\r\n--abc--\r\n");
    EXPECT_EQ(Truncated(50, 13), text.parser->GetMessage());
    EXPECT_TRUE(text.parser->IsText());
}

TEST(ServerResponseParserTest, ContentEndingExactlyAtEndOfDataIsRead) {
    Parsed parsed = Parse("--abc\r\n" + kBinaryType + "\r\nContent-Length: 3\r\n\r\n" + Bytes({1, 171, 255}));
    EXPECT_EQ("01abff", parsed.parser->GetHexData());
    EXPECT_TRUE(parsed.parser->IsBinary());
    EXPECT_EQ("", parsed.parser->GetMessage());

    // One byte short of the declared length.
    Parsed shorter = Parse("--abc\r\n" + kBinaryType + "\r\nContent-Length: 4\r\n\r\n" + Bytes({1, 171, 255}));
    EXPECT_EQ(Truncated(4, 3), shorter.parser->GetMessage());
    EXPECT_EQ("", shorter.parser->GetHexData());
}

TEST(ServerResponseParserTest, PlantIdCheckOfATruncatedPartIsFalse) {
    // Byte 32 is there and zero, but the part declares more than was sent.
    const std::string content(40, '\0');
    Parsed parsed = Parse("--abc\r\n" + kBinaryType + "\r\nContent-Length: 41\r\n\r\n" + content);
    EXPECT_EQ(Truncated(41, 40), parsed.parser->GetMessage());
    EXPECT_FALSE(parsed.parser->OCCheckIDModel());
}

TEST(ServerResponseParserTest, EmptyContentAfterHeadersAtEndOfData) {
    Parsed parsed = Parse("--abc\r\n" + kBinaryType + "\r\nContent-Length: 4\r\n\r\n");
    EXPECT_FALSE(parsed.parser->IsBinary());
    EXPECT_EQ("", parsed.parser->GetHexData());
    EXPECT_EQ(Truncated(4, 0), parsed.parser->GetMessage());
}

TEST(ServerResponseParserTest, OverflowingContentLengthIsTruncated) {
    Parsed parsed =
        Parse("--abc\r\n" + kBinaryType + "\r\nContent-Length: 99999999999999999999999\r\n\r\n" + Bytes({1, 2, 3}));
    EXPECT_EQ(std::numeric_limits<std::int32_t>::max(), parsed.parser->GetContentLength());
    EXPECT_EQ("", parsed.parser->GetHexData());
    EXPECT_EQ(Truncated(2147483647, 3), parsed.parser->GetMessage());

    Parsed edge = Parse("--abc\r\n" + kBinaryType + "\r\nContent-Length: 2147483648\r\n\r\n" + Bytes({4}));
    EXPECT_EQ(std::numeric_limits<std::int32_t>::max(), edge.parser->GetContentLength());
    EXPECT_EQ("", edge.parser->GetHexData());

    Parsed largest = Parse("--abc\r\n" + kBinaryType + "\r\nContent-Length: 2147483647\r\n\r\n" + Bytes({4}));
    EXPECT_EQ(2147483647, largest.parser->GetContentLength());
    EXPECT_EQ(Truncated(2147483647, 1), largest.parser->GetMessage());
}

TEST(ServerResponseParserTest, NulBytesInsideBinaryContentAreCopied) {
    const std::string content = Bytes({0, 1, 0, 13, 10, 0});
    Parsed parsed = Parse(test::BinaryPartBody("abc", content));
    EXPECT_EQ("0001000d0a00", parsed.parser->GetHexData());
}

TEST(ServerResponseParserTest, NulBytesInsideTextContentAreCopied) {
    Parsed parsed = Parse(test::TextPartBody("abc", std::string("a\0b", 3)));
    EXPECT_EQ(std::string("a\0b", 3), parsed.parser->GetMessage());
}

TEST(ServerResponseParserTest, NulInPreambleEndsInParserError) {
    // The lines end at the first NUL; the next line then starts beyond them.
    Parsed parsed = Parse(Bytes({0}) + "\r\n" + test::BinaryPartBody("abc", Bytes({1})));
    EXPECT_EQ("Parser error. exception", parsed.parser->GetMessage());
    EXPECT_EQ("", parsed.parser->GetHexData());
    EXPECT_FALSE(parsed.parser->IsBinary());
}

TEST(ServerResponseParserTest, NulInsideHeadersCutsLines) {
    const std::string body = "--abc\r\nContent-Type: text/pl" + Bytes({0}) + "ain; charset=UTF-8\r\n" +
                             "Content-Length: 2\r\n\r\nOK\r\n--abc--\r\n";
    Parsed parsed = Parse(body);
    EXPECT_NE(std::string::npos, parsed.trace.find("str_linexx02 ::[[Content-Type: text/pl\n"));
    EXPECT_FALSE(parsed.parser->IsText());
    EXPECT_EQ("Parser error. exception", parsed.parser->GetMessage());
}

TEST(ServerResponseParserTest, EmptyAndNullBodies) {
    Parsed empty = Parse("");
    EXPECT_EQ(0, empty.parser->GetDataLength());
    EXPECT_EQ("", empty.parser->GetMessage());
    EXPECT_EQ("message = []", empty.parser->ToString());

    testing::internal::CaptureStdout();
    ServerResponseParser null(test::MultipartContentType("abc"), nullptr, 100);
    ServerResponseParser negative(test::MultipartContentType("abc"), "--abc\r\n", -5);
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(0, null.GetDataLength());
    EXPECT_EQ("", null.GetMessage());
    EXPECT_EQ(0, negative.GetDataLength());
    EXPECT_EQ("", negative.GetHexData());
}

TEST(ServerResponseParserTest, LoneFinalByteIsNotExamined) {
    // A CR as the last byte is no line end.
    Parsed parsed = Parse("--abc\r");
    EXPECT_NE(std::string::npos, parsed.trace.find("str_linexx01 ::[[--abc\r\n"));
    EXPECT_NE(std::string::npos, parsed.trace.find("end ::[[6\n"));
}

TEST(ServerResponseParserTest, BufferIsNotReadAfterConstruction) {
    std::string body = test::BinaryPartBody("abc", Bytes({1, 2, 3}));
    Parsed parsed = Parse(body);
    body.assign(body.size(), '\0');
    body.clear();
    body.shrink_to_fit();
    EXPECT_EQ("010203", parsed.parser->GetHexData());
    EXPECT_EQ("data length = [" + std::to_string(test::BinaryPartBody("abc", Bytes({1, 2, 3})).size()) + "]",
              parsed.parser->ToString());
    EXPECT_TRUE(parsed.parser->OCCheckIDModel() == false);
}

TEST(ServerResponseParserTest, YearOfRatesAsBinaryPart) {
    std::string content;
    for (int i = 0; i < 17520; ++i) content.push_back(static_cast<char>(i % 101));
    Parsed parsed = Parse(test::BinaryPartBody("abc", content));
    ASSERT_EQ(35040u, parsed.parser->GetHexData().size());
    EXPECT_EQ("000102", parsed.parser->GetHexData().substr(0, 6));
    EXPECT_EQ(test::HexOf(std::vector<unsigned char>(content.begin(), content.end())), parsed.parser->GetHexData());
}

TEST(ServerResponseParserTest, VeryLongHeaderLinesDoNotExhaustTheStack) {
    const std::string longType = "Content-Type: text/plain; charset=" + std::string(200000, 'x');
    Parsed parsed = Parse(test::MultipartBody("abc", {longType, "Content-Length: 2"}, "hi"));
    EXPECT_TRUE(parsed.parser->IsText());
    EXPECT_EQ("hi", parsed.parser->GetMessage());

    const std::string longLength = "Content-Length: " + std::string(200000, '0') + "2";
    Parsed length = Parse(test::MultipartBody("abc", {kBinaryType, longLength}, Bytes({1, 2})));
    EXPECT_EQ(2, length.parser->GetContentLength());
    EXPECT_EQ("0102", length.parser->GetHexData());

    Parsed longContentType = ParseWith("multipart/form-data; boundary=\"abc\"; " + std::string(200000, 'y'),
                                       test::BinaryPartBody("abc", Bytes({1})));
    EXPECT_EQ("abc", longContentType.parser->GetBoundary());
    EXPECT_EQ("01", longContentType.parser->GetHexData());
}

TEST(ServerResponseParserTest, PlantIdCheckLooksAtByte32) {
    std::vector<unsigned char> bytes(33, 0xff);
    bytes[32] = 0;
    Parsed registered = Parse(test::BinaryPartBody("abc", test::BytesText(bytes)));
    EXPECT_TRUE(registered.parser->OCCheckIDModel());

    bytes[32] = 1;
    Parsed unregistered = Parse(test::BinaryPartBody("abc", test::BytesText(bytes)));
    EXPECT_FALSE(unregistered.parser->OCCheckIDModel());

    bytes.assign(40, 0);
    bytes[33] = 7;
    Parsed longer = Parse(test::BinaryPartBody("abc", test::BytesText(bytes)));
    EXPECT_TRUE(longer.parser->OCCheckIDModel());

    bytes.assign(32, 0);
    Parsed shorter = Parse(test::BinaryPartBody("abc", test::BytesText(bytes)));
    EXPECT_FALSE(shorter.parser->OCCheckIDModel());

    Parsed text = Parse(test::TextPartBody("abc", std::string(40, '\0')));
    EXPECT_FALSE(text.parser->OCCheckIDModel());
}

TEST_F(ServerResponseParserLogTest, ParserErrorIsLoggedAtErrorLevel) {
    Parsed parsed = Parse(Bytes({0}) + "\r\n--abc\r\n");
    EXPECT_EQ("Parser error. exception", parsed.parser->GetMessage());
    const std::string log = LogText();
    EXPECT_NE(std::string::npos, log.find("[E]")) << log;
    EXPECT_NE(std::string::npos, log.find("] ServerResponseParser Parser error. exception\n")) << log;
}

TEST_F(ServerResponseParserLogTest, TruncatedPartIsLoggedAtErrorLevel) {
    Parsed parsed = Parse("--abc\r\n" + kBinaryType + "\r\nContent-Length: 10\r\n\r\n" + Bytes({1, 2}));
    const std::string log = LogText();
    EXPECT_NE(std::string::npos, log.find("[E]")) << log;
    EXPECT_NE(std::string::npos, log.find("] ServerResponseParser " + Truncated(10, 2) + "\n")) << log;
}

TEST_F(ServerResponseParserLogTest, SuccessfulParseLogsNothing) {
    Parsed parsed = Parse(test::BinaryPartBody("abc", Bytes({1})));
    EXPECT_EQ("01", parsed.parser->GetHexData());
    Parsed missing = Parse(test::MultipartBody("abc", {kBinaryType}, Bytes({1})));
    EXPECT_EQ("No Content-Length parameter.", missing.parser->GetMessage());
    EXPECT_EQ(std::string::npos, LogText().find("ServerResponseParser"));
}

// A random multipart body: maybe a preamble, a delimiter line (sometimes
// wrong), a random choice of header lines, the empty line, random content
// with NULs and line ends, the closing delimiter; then maybe cut short and
// with a few bytes overwritten.
std::string RandomBody(std::mt19937& random) {
    const std::vector<std::string> headers = {kBinaryType,
                                              kTextType,
                                              "Content-Type:text/plain; charset=UTF-8",
                                              "Content-Type: text/plain",
                                              "Content-Length: 0",
                                              "Content-Length: 3",
                                              "Content-Length: 40",
                                              "Content-Length: 99999999999",
                                              "Content-Length:",
                                              "X-Other: 1",
                                              "--abc--",
                                              "--abc"};
    std::string body;
    if (random() % 4 == 0) body += "preamble\r\n";
    body += random() % 8 == 0 ? "--abd\r\n" : "--abc\r\n";
    for (std::size_t n = random() % 4; n > 0; --n) body += headers[random() % headers.size()] + kCrlf;
    if (random() % 8 != 0) body += kCrlf;
    for (std::size_t n = random() % 48; n > 0; --n) {
        const unsigned pick = random() % 8;
        body += pick == 0   ? std::string(1, '\0')
                : pick == 1 ? kCrlf
                            : std::string(1, static_cast<char>(random() % 256));
    }
    body += "\r\n--abc--\r\n";
    if (random() % 3 == 0) body.resize(random() % (body.size() + 1));
    for (std::size_t n = random() % 3; n > 0 && !body.empty(); --n) {
        body[random() % body.size()] = static_cast<char>(random() % 256);
    }
    return body;
}

// No crash; the message is one of the parser's own texts or a text part's
// content.
TEST(ServerResponseParserTest, RandomBodiesNeverCrash) {
    std::mt19937 random(20220119);
    int binaries = 0, texts = 0, missing = 0, errors = 0, truncated = 0;
    testing::internal::CaptureStdout();
    for (int round = 0; round < 4000; ++round) {
        const std::string body = RandomBody(random);
        const std::string contentType =
            random() % 8 == 0 ? "multipart/form-data; boundary=abc" : test::MultipartContentType("abc");
        ServerResponseParser parser(contentType, body.data(), static_cast<std::int64_t>(body.size()));
        const std::string& message = parser.GetMessage();
        const bool ownText = message.empty() || message == "No Content-Length parameter." ||
                             message == "Parser error. exception" ||
                             message.compare(0, 33, "Parser error. part is truncated. ") == 0;
        EXPECT_TRUE(ownText || (parser.IsText() && message.size() <= body.size())) << round;
        EXPECT_LE(parser.GetHexData().size(), 2 * body.size()) << round;
        EXPECT_EQ(0u, parser.GetHexData().size() % 2) << round;
        EXPECT_FALSE(parser.IsBinary() && parser.IsText()) << round;
        // Content never claims more than the part declared.
        EXPECT_TRUE(!parser.IsBinary() ||
                    parser.GetHexData().size() == 2 * static_cast<std::size_t>(parser.GetContentLength()))
            << round;
        binaries += parser.IsBinary() ? 1 : 0;
        texts += !ownText ? 1 : 0;
        missing += message == "No Content-Length parameter." ? 1 : 0;
        errors += message == "Parser error. exception" ? 1 : 0;
        truncated += message.compare(0, 33, "Parser error. part is truncated. ") == 0 ? 1 : 0;
    }
    std::fflush(stdout);
    testing::internal::GetCapturedStdout();
    // The rounds reach every outcome.
    // Most random binary parts declare more than they hold.
    EXPECT_GT(binaries, 50);
    EXPECT_GT(truncated, 100);
    EXPECT_GT(texts, 100);
    EXPECT_GT(missing, 100);
    EXPECT_GT(errors, 100);
    std::printf("binary %d, text %d, no length %d, error %d, truncated %d\n", binaries, texts, missing, errors,
                truncated);
}

} // namespace
} // namespace brvo
