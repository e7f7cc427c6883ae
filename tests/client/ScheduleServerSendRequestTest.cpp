#include "client/ScheduleServerSendRequest.h"

#include "client/Channel.h"
#include "client/ScheduleServerAccessRequest.h"
#include "client/ServerAccessResult.h"
#include "client/ServerResponseParser.h"
#include "settings/LoggerSettingManager.h"
#include "support/HttpTestServer.h"
#include "support/SchedulePayload.h"
#include "support/SingletonTest.h"
#include "support/TestFiles.h"
#include "util/LoggerLog.h"

#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <memory>

namespace brvo {
namespace {

using test::HttpTestServer;

class ScheduleServerSendRequestTest : public test::SingletonTest {
protected:
    void SetUp() override {
        test::WriteLoggerSetting("<OutputScheduleEnableLogBufferedIO>0</OutputScheduleEnableLogBufferedIO>");
        LoggerSettingManager::CreateInstance();
        LoggerLog::CreateInstance();
        test::WriteFile(test::FixedPath("/sys/class/net/eth0/address"), "00:1a:2b:3c:4d:5e\n");
        channel_.StartWorkers();
    }

    // Starts an exchange the way the schedule update manager does and waits
    // for its result.
    std::shared_ptr<ServerAccessResult> Access(const std::string& url) {
        ScheduleServerSendRequest callback;
        std::future<std::shared_ptr<ServerAccessResult>> future = callback.GetFuture();
        ScheduleServerAccessRequest* request = new ScheduleServerAccessRequest(&callback);
        request->SetParameters("0000", "P1", url);
        channel_.Enqueue(request);
        EXPECT_EQ(std::future_status::ready, future.wait_for(std::chrono::seconds(30)));
        return future.get();
    }

    Channel channel_{3};
};

TEST_F(ScheduleServerSendRequestTest, MultipartAnswerYieldsAParsedResult) {
    const std::string payload("\x00\x01\xab\xff", 4);
    HttpTestServer server(
        HttpTestServer::Answer(200, test::MultipartContentType("sep"), test::BinaryPartBody("sep", payload)));
    std::shared_ptr<ServerAccessResult> result = Access(server.Url("/s"));
    ASSERT_NE(nullptr, result);
    EXPECT_TRUE(result->IsResult());
    EXPECT_EQ(200, result->GetStatusCode());
    EXPECT_EQ("", result->GetFailureReason());
    ASSERT_NE(nullptr, result->GetResponseParser());
    EXPECT_TRUE(result->GetResponseParser()->IsBinary());
    EXPECT_EQ("0001abff", result->GetResponseParser()->GetHexData());
}

TEST_F(ScheduleServerSendRequestTest, TextAnswerYieldsTheServersMessage) {
    HttpTestServer server(
        HttpTestServer::Answer(200, test::MultipartContentType("sep"), test::TextPartBody("sep", "701")));
    std::shared_ptr<ServerAccessResult> result = Access(server.Url("/s"));
    ASSERT_TRUE(result->IsResult());
    ASSERT_NE(nullptr, result->GetResponseParser());
    EXPECT_TRUE(result->GetResponseParser()->IsText());
    EXPECT_EQ("701", result->GetResponseParser()->GetMessage());
}

TEST_F(ScheduleServerSendRequestTest, NotFoundYieldsAFailedResult) {
    HttpTestServer server(HttpTestServer::Answer(404, "text/html", "missing"));
    std::shared_ptr<ServerAccessResult> result = Access(server.Url("/s"));
    EXPECT_FALSE(result->IsResult());
    EXPECT_EQ(404, result->GetStatusCode());
    EXPECT_EQ("Data is not found.", result->GetFailureReason());
    EXPECT_EQ(nullptr, result->GetResponseParser());
}

// The schedule update manager learns from the result how long the server
// asked to be left alone.
TEST_F(ScheduleServerSendRequestTest, RetryAfterOfTooManyRequestsReachesTheResult) {
    HttpTestServer server(HttpTestServer::AnswerWithHeaders(429, "text/plain", "busy", "Retry-After: 120\r\n"));
    std::shared_ptr<ServerAccessResult> result = Access(server.Url("/s"));
    EXPECT_FALSE(result->IsResult());
    EXPECT_EQ(429, result->GetStatusCode());
    EXPECT_EQ("Data is not found.", result->GetFailureReason());
    EXPECT_EQ(120, result->GetRetryAfterSeconds());
    EXPECT_EQ("ServerAccessResult [false]  Failure Reason:Data is not found. StatusCode:429 Response Parser:",
              result->ToString());
}

TEST_F(ScheduleServerSendRequestTest, RetryAfterOfServiceUnavailableReachesTheResult) {
    HttpTestServer server(HttpTestServer::AnswerWithHeaders(503, "text/plain", "down", "Retry-After: 45\r\n"));
    std::shared_ptr<ServerAccessResult> result = Access(server.Url("/s"));
    EXPECT_EQ(503, result->GetStatusCode());
    EXPECT_EQ(45, result->GetRetryAfterSeconds());
}

TEST_F(ScheduleServerSendRequestTest, ResultsWithoutAUsableRetryAfterHaveNone) {
    const struct {
        int status;
        std::string headers;
    } cases[] = {
        {500, "Retry-After: 120\r\n"},
        {429, ""},
        {503, "Retry-After: whenever\r\n"},
    };
    for (const auto& item : cases) {
        HttpTestServer server(HttpTestServer::AnswerWithHeaders(item.status, "text/plain", "x", item.headers));
        std::shared_ptr<ServerAccessResult> result = Access(server.Url("/s"));
        EXPECT_EQ(item.status, result->GetStatusCode());
        EXPECT_EQ(-1, result->GetRetryAfterSeconds()) << item.status << " " << item.headers;
    }
    HttpTestServer good(HttpTestServer::AnswerWithHeaders(200, test::MultipartContentType("sep"),
                                                          test::TextPartBody("sep", "701"), "Retry-After: 120\r\n"));
    std::shared_ptr<ServerAccessResult> result = Access(good.Url("/s"));
    EXPECT_TRUE(result->IsResult());
    EXPECT_EQ(-1, result->GetRetryAfterSeconds());
}

TEST_F(ScheduleServerSendRequestTest, ReportedRetryAfterGoesToTheAnswersResult) {
    ScheduleServerSendRequest callback;
    std::future<std::shared_ptr<ServerAccessResult>> future = callback.GetFuture();
    callback.OnRetryAfter(0);
    callback.OnResult(0, 503, "text/plain", "x", 1, "");
    std::shared_ptr<ServerAccessResult> result = future.get();
    EXPECT_EQ(503, result->GetStatusCode());
    EXPECT_EQ(0, result->GetRetryAfterSeconds());
}

TEST_F(ScheduleServerSendRequestTest, RefusedConnectionYieldsAFailedResult) {
    std::shared_ptr<ServerAccessResult> result =
        Access("http://127.0.0.1:" + std::to_string(test::ClosedPort()) + "/s");
    EXPECT_FALSE(result->IsResult());
    EXPECT_EQ(0, result->GetStatusCode());
    EXPECT_EQ(0u, result->GetFailureReason().find("schedule server access failed. EXCEPTION["))
        << result->GetFailureReason();
    EXPECT_EQ(nullptr, result->GetResponseParser());
    EXPECT_EQ(-1, result->GetRetryAfterSeconds());
}

TEST_F(ScheduleServerSendRequestTest, AnswerWithoutLengthYieldsAFailedResult) {
    HttpTestServer server(HttpTestServer::Answer(200, "text/plain", "x", -1, false));
    std::shared_ptr<ServerAccessResult> result = Access(server.Url("/s"));
    EXPECT_FALSE(result->IsResult());
    EXPECT_EQ(0, result->GetStatusCode());
    EXPECT_EQ(0u, result->GetFailureReason().find("schedule server access failed. exception request_body["));
}

TEST_F(ScheduleServerSendRequestTest, SecondReportIsIgnored) {
    ScheduleServerSendRequest callback;
    std::future<std::shared_ptr<ServerAccessResult>> future = callback.GetFuture();
    callback.OnResult(0, 500, "text/plain", "x", 1, "");
    callback.OnResult(1, 0, "", nullptr, 0, "late");
    std::shared_ptr<ServerAccessResult> result = future.get();
    EXPECT_EQ(500, result->GetStatusCode());
    EXPECT_EQ("Data is not found.", result->GetFailureReason());
}

} // namespace
} // namespace brvo
