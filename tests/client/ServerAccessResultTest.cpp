#include "client/ServerAccessResult.h"

#include "client/ServerResponseParser.h"
#include "support/SchedulePayload.h"

#include <gtest/gtest.h>

#include <memory>

namespace brvo {
namespace {

std::shared_ptr<ServerResponseParser> ParserOf(const std::string& body) {
    testing::internal::CaptureStdout();
    std::shared_ptr<ServerResponseParser> parser = std::make_shared<ServerResponseParser>(
        test::MultipartContentType("abc"), body.data(), static_cast<std::int64_t>(body.size()));
    testing::internal::GetCapturedStdout();
    return parser;
}

TEST(ServerAccessResultTest, AnsweredHoldsItsParser) {
    const std::shared_ptr<ServerResponseParser> parser = ParserOf("x");
    const std::shared_ptr<ServerAccessResult> result = ServerAccessResult::Answered(200, parser);
    EXPECT_TRUE(result->IsResult());
    EXPECT_EQ(200, result->GetStatusCode());
    EXPECT_EQ("", result->GetFailureReason());
    EXPECT_EQ(parser, result->GetResponseParser());
    EXPECT_EQ(-1, result->GetRetryAfterSeconds());
}

TEST(ServerAccessResultTest, FailedHoldsNoParser) {
    const std::shared_ptr<ServerAccessResult> result = ServerAccessResult::Failed(503, "Data is not found.");
    EXPECT_FALSE(result->IsResult());
    EXPECT_EQ(503, result->GetStatusCode());
    EXPECT_EQ("ServerAccessResult [false]  Failure Reason:Data is not found. StatusCode:503 Response Parser:",
              result->ToString());
    EXPECT_EQ(nullptr, result->GetResponseParser());
}

TEST(ServerAccessResultTest, FieldsAsBuilt) {
    ServerAccessResult result(false, 404, "Data is not found.");
    EXPECT_FALSE(result.IsResult());
    EXPECT_EQ(404, result.GetStatusCode());
    EXPECT_EQ("Data is not found.", result.GetFailureReason());
    EXPECT_FALSE(result.GetResponseParser());
    EXPECT_EQ(-1, result.GetRetryAfterSeconds());
}

TEST(ServerAccessResultTest, RetryAfterAsSet) {
    ServerAccessResult result(false, 503, "Data is not found.");
    result.SetRetryAfterSeconds(120);
    EXPECT_EQ(120, result.GetRetryAfterSeconds());
    result.SetRetryAfterSeconds(0);
    EXPECT_EQ(0, result.GetRetryAfterSeconds());
    result.SetRetryAfterSeconds(-1);
    EXPECT_EQ(-1, result.GetRetryAfterSeconds());
}

// The log lines keep their fields whatever the server asked for.
TEST(ServerAccessResultTest, RetryAfterIsNotPrinted) {
    ServerAccessResult result(false, 429, "Data is not found.");
    result.SetRetryAfterSeconds(120);
    EXPECT_EQ("ServerAccessResult [false]  Failure Reason:Data is not found. StatusCode:429 Response Parser:",
              result.ToString());
}

TEST(ServerAccessResultTest, PrintsWithoutParser) {
    ServerAccessResult result(false, 404, "Data is not found.");
    EXPECT_EQ("ServerAccessResult [false]  Failure Reason:Data is not found. StatusCode:404 Response Parser:",
              result.ToString());
}

TEST(ServerAccessResultTest, PrintsBinaryParser) {
    const std::string body = test::BinaryPartBody("abc", std::string("\x01\xab\xff", 3));
    ServerAccessResult result(true, 200, "");
    result.SetResponseParser(ParserOf(body));
    ASSERT_TRUE(result.GetResponseParser());
    EXPECT_EQ("01abff", result.GetResponseParser()->GetHexData());
    EXPECT_EQ("ServerAccessResult [true]  Failure Reason: StatusCode:200 Response Parser:data length = [" +
                  std::to_string(body.size()) + "]",
              result.ToString());
}

TEST(ServerAccessResultTest, PrintsTextParser) {
    ServerAccessResult result(true, 200, "");
    result.SetResponseParser(ParserOf(test::TextPartBody("abc", "OK")));
    EXPECT_EQ("ServerAccessResult [true]  Failure Reason: StatusCode:200 Response Parser:message = [OK]",
              result.ToString());
}

TEST(ServerAccessResultTest, ParserCanBeDetached) {
    ServerAccessResult result(true, 200, "");
    result.SetResponseParser(ParserOf(test::TextPartBody("abc", "OK")));
    result.SetResponseParser(nullptr);
    EXPECT_FALSE(result.GetResponseParser());
    EXPECT_EQ("ServerAccessResult [true]  Failure Reason: StatusCode:200 Response Parser:", result.ToString());
}

TEST(ServerAccessResultTest, ExchangeFailurePrintsItsText) {
    std::shared_ptr<ServerAccessResult> result = std::make_shared<ServerAccessResult>(
        false, 0, "schedule server access failed. EXCEPTION[Connection refused] request_body[x]");
    EXPECT_EQ("ServerAccessResult [false]  Failure Reason:schedule server access failed. "
              "EXCEPTION[Connection refused] request_body[x] StatusCode:0 Response Parser:",
              result->ToString());
}

} // namespace
} // namespace brvo
