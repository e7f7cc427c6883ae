#include "client/ScheduleServerAccessRequest.h"

#include "client/Channel.h"
#include "client/ScheduleServerAccessRequestCallback.h"
#include "settings/LoggerSettingManager.h"
#include "support/HttpTestServer.h"
#include "support/SchedulePayload.h"
#include "support/SingletonTest.h"
#include "support/TestFiles.h"
#include "util/GuardedCall.h"
#include "util/LoggerLog.h"
#include "util/SystemClock.h"

#include <gtest/gtest.h>

#include <Poco/AutoPtr.h>
#include <Poco/DateTimeFormat.h>
#include <Poco/DateTimeFormatter.h>
#include <Poco/Event.h>
#include <Poco/Thread.h>
#include <Poco/Timestamp.h>

#include <arpa/inet.h>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <memory>
#include <netinet/in.h>
#include <sstream>
#include <string>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

namespace brvo {
namespace {

using test::HttpTestServer;

const std::string kMacFile = test::FixedPath("/sys/class/net/eth0/address");
const std::string kTag = "ScheduleServerAccessRequest";
const std::string kFailurePrefix = "schedule server access failed. EXCEPTION[";
// Longer than any test runs: a server that never answers. Its delay ends
// when the server is destroyed.
const int kStalledMs = 600000;

// Records the report of an exchange, with a copy of the body.
class Recorder : public ScheduleServerAccessRequestCallback {
public:
    void OnResult(int resultStatus, int resultHttpStatus, const std::string& resultContentType, const char* data,
                  std::int64_t resultDataLength, const std::string& resultMessage) override {
        ++calls;
        status = resultStatus;
        httpStatus = resultHttpStatus;
        contentType = resultContentType;
        dataLength = resultDataLength;
        hasData = data != nullptr;
        if (data != nullptr) body.assign(data, static_cast<std::size_t>(resultDataLength));
        message = resultMessage;
        done.set();
    }
    void OnRetryAfter(std::int64_t seconds) override {
        ++retryAfterCalls;
        retryAfterBeforeResult = calls == 0;
        retryAfter = seconds;
    }
    int calls = 0;
    int retryAfterCalls = 0;
    bool retryAfterBeforeResult = false;
    std::int64_t retryAfter = -1;
    int status = -1;
    int httpStatus = -1;
    std::string contentType;
    std::int64_t dataLength = -1;
    bool hasData = false;
    std::string body;
    std::string message;
    Poco::Event done;
};

// A port of 127.0.0.1 whose accept queue is full: one connection waits in
// it, never accepted, and the kernel drops every further handshake, so a
// client stays in its connect as with a server whose packets are lost.
class FullBacklog {
public:
    FullBacklog() : listen_(socket(AF_INET, SOCK_STREAM, 0)), filler_(socket(AF_INET, SOCK_STREAM, 0)), port_(0) {
        sockaddr_in address;
        std::memset(&address, 0, sizeof address);
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        if (bind(listen_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 || listen(listen_, 0) != 0 ||
            getsockname(listen_, reinterpret_cast<sockaddr*>(&address), &length) != 0 ||
            connect(filler_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
            ADD_FAILURE() << "cannot fill a listening socket's queue";
        }
        port_ = ntohs(address.sin_port);
    }
    ~FullBacklog() {
        close(filler_);
        close(listen_);
    }
    int Port() const { return port_; }
    // Whether a connect to the port waits for its handshake (SYN_SENT in
    // the kernel's table).
    bool HasConnectInProgress() const {
        std::ifstream table("/proc/net/tcp");
        std::string line;
        std::getline(table, line);
        char remote[16];
        std::snprintf(remote, sizeof remote, "0100007F:%04X", port_);
        while (std::getline(table, line)) {
            std::istringstream fields(line);
            std::string slot, local, peer, state;
            fields >> slot >> local >> peer >> state;
            if (peer == remote && state == "02") return true;
        }
        return false;
    }

private:
    int listen_;
    int filler_;
    int port_;
};

class ScheduleServerAccessRequestTest : public test::SingletonTest {
protected:
    void SetUp() override {
        test::WriteLoggerSetting("<OutputScheduleEnableLogBufferedIO>0</OutputScheduleEnableLogBufferedIO>");
        LoggerSettingManager::CreateInstance();
        LoggerLog::CreateInstance();
        test::WriteFile(kMacFile, "00:1a:2b:3c:4d:5e\n");
        channel_.StartWorkers();
    }

    // Runs one exchange on the pool with the given parameters.
    void Exchange(Recorder& recorder, const std::string& kbn, const std::string& plantId, const std::string& url) {
        ScheduleServerAccessRequest* request = new ScheduleServerAccessRequest(&recorder);
        request->SetParameters(kbn, plantId, url);
        channel_.Enqueue(request);
        ASSERT_TRUE(recorder.done.tryWait(30000));
        EXPECT_EQ(1, recorder.calls);
    }

    static std::vector<std::string> LogLines() { return test::FlushedLogLines(); }

    static bool HasHeader(const HttpTestServer::Received& request, const std::string& header) {
        for (const std::string& line : request.headers) {
            if (line == header) return true;
        }
        return false;
    }

    Channel channel_{3};
};

TEST(ScheduleServerAccessRequestStatusTest, TheCallbacksStatusFollowsWhatWasCaught) {
    EXPECT_EQ(0, ScheduleServerAccessRequest::StatusOf(Caught()));
    EXPECT_EQ(1, ScheduleServerAccessRequest::StatusOf(GuardedCall([] { throw Poco::TimeoutException("t"); })));
    EXPECT_EQ(2, ScheduleServerAccessRequest::StatusOf(GuardedCall([] { throw std::bad_alloc(); })));
    EXPECT_EQ(2, ScheduleServerAccessRequest::StatusOf(GuardedCall([] { throw 1; })));
}

TEST_F(ScheduleServerAccessRequestTest, PostsTheFormAndReportsTheAnswer) {
    const std::string body = test::BinaryPartBody("b1", std::string("\x01\xab\xff", 3));
    HttpTestServer server(HttpTestServer::Answer(200, "multipart/mixed; boundary=\"b1\"", body));
    Recorder recorder;
    Exchange(recorder, "0000", "0123456789", server.Url("/schedule/get"));
    EXPECT_EQ(0, recorder.status);
    EXPECT_EQ(200, recorder.httpStatus);
    EXPECT_EQ("multipart/mixed; boundary=\"b1\"", recorder.contentType);
    EXPECT_EQ(static_cast<std::int64_t>(body.size()), recorder.dataLength);
    EXPECT_EQ(body, recorder.body);
    EXPECT_EQ("", recorder.message);

    const std::vector<HttpTestServer::Received> requests = server.Requests();
    ASSERT_EQ(1u, requests.size());
    EXPECT_EQ("POST /schedule/get HTTP/1.1", requests[0].requestLine);
    EXPECT_EQ("power_plant_id=0123456789&mac_address=001A2B3C4D5E&schedule_kbn=0000", requests[0].body);
    EXPECT_TRUE(HasHeader(requests[0], "Content-Type: application/x-www-form-urlencoded"));
    EXPECT_TRUE(HasHeader(requests[0], "Content-Length: " + std::to_string(requests[0].body.size())));
    EXPECT_EQ(68u, requests[0].body.size());
    EXPECT_TRUE(HasHeader(requests[0], "Connection: Close"));
    EXPECT_TRUE(HasHeader(requests[0], "Host: 127.0.0.1:" + std::to_string(server.Port())));
    EXPECT_TRUE(test::HasLogLine(LogLines(), "D", kTag, "Execute"));
}

TEST_F(ScheduleServerAccessRequestTest, QueryOfTheUrlIsNotSent) {
    HttpTestServer server(HttpTestServer::Answer(200, "text/plain", "x"));
    Recorder recorder;
    Exchange(recorder, "8888", "P", server.Url("/check?plant=1&x=2#frag"));
    ASSERT_EQ(1u, server.Requests().size());
    EXPECT_EQ("POST /check HTTP/1.1", server.Requests()[0].requestLine);
}

TEST_F(ScheduleServerAccessRequestTest, ValuesOtherThanLettersAndDigitsAreEncoded) {
    HttpTestServer server(HttpTestServer::Answer(200, "text/plain", "x"));
    Recorder recorder;
    Exchange(recorder, "9993", "a b&c=d\r\nX: 1%", server.Url("/"));
    const std::string sent = "power_plant_id=a%20b%26c%3Dd%0D%0AX%3A%201%25&mac_address=001A2B3C4D5E&schedule_kbn=9993";
    EXPECT_EQ(sent, server.Requests().at(0).body);
    ASSERT_EQ(1u, server.Requests().size());
    EXPECT_TRUE(HasHeader(server.Requests()[0], "Content-Length: " + std::to_string(sent.size())));
}

TEST_F(ScheduleServerAccessRequestTest, HexDigitValuesAreSentAsTheyAre) {
    Recorder recorder;
    ScheduleServerAccessRequest* request = new ScheduleServerAccessRequest(&recorder);
    request->SetParameters("0000", "0123456789abcdefABCDEF", "http://127.0.0.1/");
    EXPECT_EQ("power_plant_id=0123456789abcdefABCDEF&mac_address=001A2B3C4D5E&schedule_kbn=0000",
              request->BuildBody("001A2B3C4D5E"));
    request->release();
}

TEST_F(ScheduleServerAccessRequestTest, TheFailureShowsTheBodyAsSent) {
    Recorder recorder;
    Exchange(recorder, "8888", "1&2", "http://127.0.0.1:" + std::to_string(test::ClosedPort()) + "/s");
    EXPECT_EQ(1, recorder.status);
    const std::string tail = "] request_body[power_plant_id=1%262&mac_address=001A2B3C4D5E&schedule_kbn=8888]";
    ASSERT_GE(recorder.message.size(), tail.size());
    EXPECT_EQ(tail, recorder.message.substr(recorder.message.size() - tail.size()));
}

TEST_F(ScheduleServerAccessRequestTest, DashedMacAddressIsNormalised) {
    test::WriteFile(kMacFile, "00-1a-2b-3c-4d-5e\n");
    EXPECT_EQ("001A2B3C4D5E", ScheduleServerAccessRequest::GetMacAddress());
    test::WriteFile(kMacFile, "  aa:bb:cc:dd:ee:ff trailing\n");
    EXPECT_EQ("AABBCCDDEEFF", ScheduleServerAccessRequest::GetMacAddress());
}

TEST_F(ScheduleServerAccessRequestTest, MissingMacFileStillSendsTheRequest) {
    test::RemoveAll(kMacFile);
    EXPECT_EQ("", ScheduleServerAccessRequest::GetMacAddress());
    HttpTestServer server(HttpTestServer::Answer(200, "text/plain", "x"));
    Recorder recorder;
    Exchange(recorder, "0000", "P", server.Url("/"));
    EXPECT_EQ(0, recorder.status);
    EXPECT_EQ("power_plant_id=P&mac_address=&schedule_kbn=0000", server.Requests().at(0).body);
    EXPECT_TRUE(
        test::HasLogLine(LogLines(), "E", kTag, "failed to open " + test::FixedPath("/sys/class/net/eth0/address")));
}

TEST_F(ScheduleServerAccessRequestTest, OtherStatusIsReportedAsAnAnswer) {
    for (int status : {404, 500, 401}) {
        HttpTestServer server(HttpTestServer::Answer(status, "text/html", "<p>no</p>"));
        Recorder recorder;
        Exchange(recorder, "0000", "P", server.Url("/"));
        EXPECT_EQ(0, recorder.status);
        EXPECT_EQ(status, recorder.httpStatus);
        EXPECT_EQ("<p>no</p>", recorder.body);
    }
}

// An overloaded server (429) or one down for maintenance (503) may say how
// long to leave it alone; the answer is reported as it always was, with the
// wait before it.
TEST_F(ScheduleServerAccessRequestTest, RetryAfterOfTooManyRequestsIsReported) {
    HttpTestServer server(HttpTestServer::AnswerWithHeaders(429, "text/plain", "busy", "Retry-After: 120\r\n"));
    Recorder recorder;
    Exchange(recorder, "0000", "P", server.Url("/"));
    EXPECT_EQ(1, recorder.retryAfterCalls);
    EXPECT_TRUE(recorder.retryAfterBeforeResult);
    EXPECT_EQ(120, recorder.retryAfter);
    EXPECT_EQ(0, recorder.status);
    EXPECT_EQ(429, recorder.httpStatus);
    EXPECT_EQ("text/plain", recorder.contentType);
    EXPECT_EQ("busy", recorder.body);
    EXPECT_EQ("", recorder.message);
}

TEST_F(ScheduleServerAccessRequestTest, RetryAfterOfServiceUnavailableIsReported) {
    HttpTestServer server(HttpTestServer::AnswerWithHeaders(503, "text/html", "down", "retry-after:  3600 \r\n"));
    Recorder recorder;
    Exchange(recorder, "0000", "P", server.Url("/"));
    EXPECT_EQ(1, recorder.retryAfterCalls);
    EXPECT_EQ(3600, recorder.retryAfter);
    EXPECT_EQ(0, recorder.status);
    EXPECT_EQ(503, recorder.httpStatus);
    EXPECT_EQ("down", recorder.body);
}

// The date form is counted from the device's clock.
TEST_F(ScheduleServerAccessRequestTest, RetryAfterAsADateIsReportedInSeconds) {
    const Poco::Timestamp inFiveMinutes(SystemClock::NowMicroseconds() + 300 * 1000000LL);
    const std::string date = Poco::DateTimeFormatter::format(inFiveMinutes, Poco::DateTimeFormat::HTTP_FORMAT);
    HttpTestServer server(HttpTestServer::AnswerWithHeaders(503, "text/plain", "x", "Retry-After: " + date + "\r\n"));
    Recorder recorder;
    Exchange(recorder, "0000", "P", server.Url("/"));
    EXPECT_EQ(1, recorder.retryAfterCalls) << date;
    EXPECT_LE(recorder.retryAfter, 300) << date;
    EXPECT_GE(recorder.retryAfter, 300 - 30 * test::TimeScale()) << date;
    EXPECT_EQ(503, recorder.httpStatus);
}

TEST_F(ScheduleServerAccessRequestTest, RetryAfterOfOtherStatusesIsNotReported) {
    for (const int status : {500, 200, 404, 502}) {
        HttpTestServer server(HttpTestServer::AnswerWithHeaders(status, "text/plain", "x", "Retry-After: 120\r\n"));
        Recorder recorder;
        Exchange(recorder, "0000", "P", server.Url("/"));
        EXPECT_EQ(0, recorder.retryAfterCalls) << status;
        EXPECT_EQ(-1, recorder.retryAfter) << status;
        EXPECT_EQ(0, recorder.status) << status;
        EXPECT_EQ(status, recorder.httpStatus);
        EXPECT_EQ("x", recorder.body);
    }
}

TEST_F(ScheduleServerAccessRequestTest, MissingOrUnreadableRetryAfterIsNotReported) {
    for (const std::string& headers : {std::string(), std::string("Retry-After: soon\r\n"),
                                       std::string("Retry-After: -5\r\n"), std::string("Retry-After:\r\n")}) {
        HttpTestServer server(HttpTestServer::AnswerWithHeaders(429, "text/plain", "x", headers));
        Recorder recorder;
        Exchange(recorder, "0000", "P", server.Url("/"));
        EXPECT_EQ(0, recorder.retryAfterCalls) << headers;
        EXPECT_EQ(-1, recorder.retryAfter) << headers;
        EXPECT_EQ(0, recorder.status) << headers;
        EXPECT_EQ(429, recorder.httpStatus);
    }
}

// The wait belongs to a complete answer: one cut short fails as before,
// without it.
TEST_F(ScheduleServerAccessRequestTest, RetryAfterOfAnAnswerCutShortIsNotReported) {
    HttpTestServer server("HTTP/1.1 503 Status\r\nContent-Length: 40\r\nRetry-After: 120\r\n"
                          "Connection: close\r\n\r\nshort");
    Recorder recorder;
    Exchange(recorder, "0000", "P", server.Url("/"));
    EXPECT_EQ(0, recorder.retryAfterCalls);
    EXPECT_EQ(1, recorder.status);
    EXPECT_EQ(0, recorder.httpStatus);
    EXPECT_EQ(0u, recorder.message.find(kFailurePrefix + "I/O error: answer ended after 5 of 40 bytes]"))
        << recorder.message;
}

TEST_F(ScheduleServerAccessRequestTest, RefusedConnectionIsALibraryException) {
    Recorder recorder;
    Exchange(recorder, "0000", "P", "http://127.0.0.1:" + std::to_string(test::ClosedPort()) + "/s");
    EXPECT_EQ(1, recorder.status);
    EXPECT_EQ(0, recorder.httpStatus);
    EXPECT_FALSE(recorder.hasData);
    EXPECT_EQ(0, recorder.dataLength);
    const std::string prefix = "schedule server access failed. EXCEPTION[Connection refused";
    EXPECT_EQ(0u, recorder.message.find(prefix)) << recorder.message;
    const std::string tail = "] request_body[power_plant_id=P&mac_address=001A2B3C4D5E&schedule_kbn=0000]";
    ASSERT_GE(recorder.message.size(), tail.size());
    EXPECT_EQ(tail, recorder.message.substr(recorder.message.size() - tail.size()));
    EXPECT_TRUE(test::HasLogLine(LogLines(), "E", kTag, recorder.message));
}

TEST_F(ScheduleServerAccessRequestTest, MissingContentLengthIsAnOtherException) {
    HttpTestServer server(HttpTestServer::Answer(200, "text/plain", "body", -1, false));
    Recorder recorder;
    Exchange(recorder, "0000", "P", server.Url("/"));
    EXPECT_EQ(2, recorder.status);
    EXPECT_EQ(0, recorder.httpStatus);
    EXPECT_FALSE(recorder.hasData);
    EXPECT_EQ("schedule server access failed. exception request_body[power_plant_id=P&mac_address="
              "001A2B3C4D5E&schedule_kbn=0000]",
              recorder.message);
    EXPECT_EQ("text/plain", recorder.contentType);
}

// The missing bytes of a body cut short must not read as zeros: a zero
// checksum over zero rates would pass for a schedule.
TEST_F(ScheduleServerAccessRequestTest, BodyShorterThanAnnouncedFailsTheExchange) {
    HttpTestServer server(HttpTestServer::Answer(200, "application/octet-stream", std::string(17, 'a'), 131));
    Recorder recorder;
    Exchange(recorder, "0000", "P", server.Url("/"));
    EXPECT_EQ(1, recorder.status);
    EXPECT_EQ(0, recorder.httpStatus);
    EXPECT_FALSE(recorder.hasData);
    EXPECT_EQ(0, recorder.dataLength);
    EXPECT_EQ("schedule server access failed. EXCEPTION[I/O error: answer ended after 17 of 131 bytes] "
              "request_body[power_plant_id=P&mac_address=001A2B3C4D5E&schedule_kbn=0000]",
              recorder.message);
    EXPECT_TRUE(test::HasLogLine(LogLines(), "E", kTag, recorder.message));
}

TEST_F(ScheduleServerAccessRequestTest, ConnectionResetInsideTheBodyFailsTheExchange) {
    HttpTestServer server(HttpTestServer::Answer(200, "application/octet-stream", std::string(17, 'a'), 131));
    server.ResetAfterAnswer();
    Recorder recorder;
    Exchange(recorder, "0000", "P", server.Url("/"));
    EXPECT_EQ(1, recorder.status);
    EXPECT_FALSE(recorder.hasData);
    EXPECT_EQ(0u, recorder.message.find(kFailurePrefix + "I/O error: answer ended after ")) << recorder.message;
    EXPECT_NE(std::string::npos, recorder.message.find(" of 131 bytes")) << recorder.message;
}

TEST_F(ScheduleServerAccessRequestTest, BodyOfTheAnnouncedLengthIsComplete) {
    const std::string body(3000, 'z');
    HttpTestServer server(HttpTestServer::Answer(200, "application/octet-stream", body));
    Recorder recorder;
    Exchange(recorder, "0000", "P", server.Url("/"));
    EXPECT_EQ(0, recorder.status) << recorder.message;
    EXPECT_EQ(body, recorder.body);
}

TEST_F(ScheduleServerAccessRequestTest, LongerBodyIsCutAtTheAnnouncedLength) {
    HttpTestServer server(HttpTestServer::Answer(200, "application/octet-stream", "abcdefgh", 3));
    Recorder recorder;
    Exchange(recorder, "0000", "P", server.Url("/"));
    EXPECT_EQ(0, recorder.status);
    EXPECT_EQ(3, recorder.dataLength);
    EXPECT_EQ("abc", recorder.body);
}

TEST_F(ScheduleServerAccessRequestTest, AnnouncedLengthOverTheCapIsRefused) {
    for (const long long announced : {262145LL, 64LL * 1024 * 1024, 40LL * 1024 * 1024 * 1024}) {
        HttpTestServer server(HttpTestServer::Answer(200, "application/octet-stream", "abc", announced));
        Recorder recorder;
        Exchange(recorder, "0000", "P", server.Url("/"));
        EXPECT_EQ(1, recorder.status);
        EXPECT_FALSE(recorder.hasData);
        EXPECT_EQ(0u, recorder.message.find(kFailurePrefix + "Out of range: answer announces " +
                                            std::to_string(announced) + " bytes, more than the 262144 taken]"))
            << recorder.message;
    }
}

TEST_F(ScheduleServerAccessRequestTest, AnnouncedLengthAtTheCapIsTaken) {
    const std::string body(262144, 'q');
    HttpTestServer server(HttpTestServer::Answer(200, "application/octet-stream", body));
    Recorder recorder;
    Exchange(recorder, "0000", "P", server.Url("/"));
    EXPECT_EQ(0, recorder.status) << recorder.message;
    EXPECT_EQ(body, recorder.body);
}

TEST_F(ScheduleServerAccessRequestTest, GarbageAnswerIsALibraryException) {
    HttpTestServer server("this is not http\r\n\r\n");
    Recorder recorder;
    Exchange(recorder, "0000", "P", server.Url("/"));
    EXPECT_EQ(1, recorder.status);
    EXPECT_EQ(0u, recorder.message.find("schedule server access failed. EXCEPTION[")) << recorder.message;
}

TEST_F(ScheduleServerAccessRequestTest, HttpsServerTrustedThroughTheCertificatesDirectory) {
    ASSERT_TRUE(test::MakeCertificate(test::FixedPath("/tmp/server.pem"), test::FixedPath("/tmp/server.key")));
    // The certificates directory lies under the data root on the card.
    test::WriteFile(test::FixedPath("/media/sdcard/kestrovanyx/Certificates/server.pem"),
                    test::ReadFile(test::FixedPath("/tmp/server.pem")));
    const std::string body = test::BinaryPartBody("b1", std::string("\x05\x06", 2));
    HttpTestServer server(HttpTestServer::Answer(200, test::MultipartContentType("b1"), body),
                          HttpTestServer::Tls{test::FixedPath("/tmp/server.pem"), test::FixedPath("/tmp/server.key")});
    ASSERT_EQ(0u, server.Url("/s").find("https://127.0.0.1:"));
    Recorder recorder;
    Exchange(recorder, "0000", "P", server.Url("/tls/schedule?x=1"));
    EXPECT_EQ(0, recorder.status) << recorder.message;
    EXPECT_EQ(200, recorder.httpStatus);
    EXPECT_EQ(body, recorder.body);
    ASSERT_EQ(1u, server.Requests().size());
    EXPECT_EQ("POST /tls/schedule HTTP/1.1", server.Requests()[0].requestLine);
    EXPECT_EQ("power_plant_id=P&mac_address=001A2B3C4D5E&schedule_kbn=0000", server.Requests()[0].body);
}

TEST_F(ScheduleServerAccessRequestTest, HttpsServerWithAnUnknownCertificateFails) {
    ASSERT_TRUE(test::MakeCertificate(test::FixedPath("/tmp/server.pem"), test::FixedPath("/tmp/server.key")));
    HttpTestServer server(HttpTestServer::Answer(200, "text/plain", "x"),
                          HttpTestServer::Tls{test::FixedPath("/tmp/server.pem"), test::FixedPath("/tmp/server.key")});
    Recorder recorder;
    Exchange(recorder, "0000", "P", server.Url("/s"));
    EXPECT_EQ(1, recorder.status);
    EXPECT_EQ(0, recorder.httpStatus);
    EXPECT_EQ(0u, recorder.message.find("schedule server access failed. EXCEPTION[")) << recorder.message;
    EXPECT_NE(std::string::npos, recorder.message.find("certificate verify failed")) << recorder.message;
    EXPECT_TRUE(server.Requests().empty());
}

// The handshake runs on a socket the exchange made itself: the server's
// certificate must still name the host asked for.
TEST_F(ScheduleServerAccessRequestTest, HttpsServerWhoseCertificateNamesAnotherHostFails) {
    ASSERT_TRUE(test::MakeCertificate(test::FixedPath("/tmp/server.pem"), test::FixedPath("/tmp/server.key")));
    test::WriteFile(test::FixedPath("/media/sdcard/kestrovanyx/Certificates/server.pem"),
                    test::ReadFile(test::FixedPath("/tmp/server.pem")));
    HttpTestServer server(HttpTestServer::Answer(200, "text/plain", "x"),
                          HttpTestServer::Tls{test::FixedPath("/tmp/server.pem"), test::FixedPath("/tmp/server.key")});
    Recorder recorder;
    Exchange(recorder, "0000", "P", "https://localhost:" + std::to_string(server.Port()) + "/s");
    EXPECT_EQ(1, recorder.status);
    EXPECT_EQ(0u, recorder.message.find(kFailurePrefix)) << recorder.message;
    EXPECT_NE(std::string::npos, recorder.message.find("Unacceptable certificate from localhost")) << recorder.message;
    EXPECT_TRUE(server.Requests().empty());
}

TEST_F(ScheduleServerAccessRequestTest, ParametersFromTheSystemSettings) {
    HttpTestServer server(HttpTestServer::Answer(200, "text/plain", "x"));
    test::WriteFile(test::SystemSettingPath(), "<logger><general><outputControlPlantId>PLANT7</outputControlPlantId>"
                                               "<outputScheduleInformationServerUrl>" +
                                                   server.Url("/from/settings") +
                                                   "</outputScheduleInformationServerUrl></general></logger>");
    Recorder recorder;
    ScheduleServerAccessRequest* request = new ScheduleServerAccessRequest(&recorder);
    request->SetParameters("0000");
    EXPECT_EQ("PLANT7", request->GetPowerPlantId());
    EXPECT_EQ(server.Url("/from/settings"), request->GetUrl());
    EXPECT_EQ("0000", request->GetScheduleKbn());
    channel_.Enqueue(request);
    ASSERT_TRUE(recorder.done.tryWait(30000));
    EXPECT_EQ("POST /from/settings HTTP/1.1", server.Requests().at(0).requestLine);
    EXPECT_EQ("power_plant_id=PLANT7&mac_address=001A2B3C4D5E&schedule_kbn=0000", server.Requests().at(0).body);
}

// The daemon aborts the exchanges in flight when it stops: a schedule
// server that took the request and never answers must not hold the stop up
// for the session's twenty-minute time-out.
TEST_F(ScheduleServerAccessRequestTest, AbortEndsAnExchangeWaitingOnAStalledServer) {
    HttpTestServer server(HttpTestServer::Answer(200, "text/plain", "late"), kStalledMs);
    // Kept by the request: should the abort fail, the report that comes
    // when the server stops still finds it.
    auto kept = std::make_shared<Recorder>();
    Recorder& recorder = *kept;
    Poco::AutoPtr<ScheduleServerAccessRequest> request(new ScheduleServerAccessRequest(kept.get()));
    request->SetParameters("0000", "P", server.Url("/s"));
    request->Keep(kept);
    // The pool releases its reference when the request ends; this one keeps
    // it alive for the Abort below.
    request->duplicate();
    channel_.Enqueue(request.get());
    ASSERT_TRUE(test::WaitFor([&] { return server.Requests().size() == 1; }, 10000));
    const Poco::Timestamp aborted;
    request->Abort();
    ASSERT_TRUE(recorder.done.tryWait(static_cast<long>(5000 * test::TimeScale())));
    EXPECT_LT(aborted.elapsed(), 5000 * 1000 * test::TimeScale());
    EXPECT_EQ(1, recorder.calls);
    EXPECT_EQ(1, recorder.status);
    EXPECT_EQ(0, recorder.httpStatus);
    EXPECT_FALSE(recorder.hasData);
    EXPECT_EQ(0u, recorder.message.find(kFailurePrefix)) << recorder.message;
    EXPECT_TRUE(test::HasLogLine(LogLines(), "E", kTag, recorder.message));
}

TEST_F(ScheduleServerAccessRequestTest, AbortEndsAnExchangeThatIsStillConnecting) {
    FullBacklog server;
    auto kept = std::make_shared<Recorder>();
    Recorder& recorder = *kept;
    Poco::AutoPtr<ScheduleServerAccessRequest> request(new ScheduleServerAccessRequest(kept.get()));
    request->SetParameters("0000", "P", "http://127.0.0.1:" + std::to_string(server.Port()) + "/s");
    request->Keep(kept);
    request->duplicate();
    channel_.Enqueue(request.get());
    ASSERT_TRUE(test::WaitFor([&] { return server.HasConnectInProgress(); }, 10000));
    const Poco::Timestamp aborted;
    request->Abort();
    ASSERT_TRUE(recorder.done.tryWait(static_cast<long>(5000 * test::TimeScale())));
    EXPECT_LT(aborted.elapsed(), 5000 * 1000 * test::TimeScale());
    EXPECT_EQ(1, recorder.status);
    EXPECT_EQ(0u, recorder.message.find(kFailurePrefix)) << recorder.message;
}

TEST_F(ScheduleServerAccessRequestTest, AbortBeforeExecuteFailsWithoutAskingTheServer) {
    HttpTestServer server(HttpTestServer::Answer(200, "text/plain", "x"));
    Recorder recorder;
    ScheduleServerAccessRequest* request = new ScheduleServerAccessRequest(&recorder);
    request->SetParameters("0000", "P", server.Url("/s"));
    request->Abort();
    const Poco::Timestamp queued;
    channel_.Enqueue(request);
    ASSERT_TRUE(recorder.done.tryWait(static_cast<long>(5000 * test::TimeScale())));
    EXPECT_LT(queued.elapsed(), 5000 * 1000 * test::TimeScale());
    EXPECT_EQ(1, recorder.calls);
    EXPECT_EQ(1, recorder.status);
    EXPECT_EQ(0, recorder.httpStatus);
    EXPECT_FALSE(recorder.hasData);
    EXPECT_EQ(0u, recorder.message.find(kFailurePrefix)) << recorder.message;
    // The server would have recorded a request within this time.
    Poco::Thread::sleep(300);
    EXPECT_TRUE(server.Requests().empty());
}

TEST_F(ScheduleServerAccessRequestTest, AbortAfterTheExchangeChangesNothing) {
    HttpTestServer server(HttpTestServer::Answer(200, "text/plain", "done"));
    Recorder recorder;
    Poco::AutoPtr<ScheduleServerAccessRequest> request(new ScheduleServerAccessRequest(&recorder));
    request->SetParameters("0000", "P", server.Url("/s"));
    request->duplicate();
    channel_.Enqueue(request.get());
    ASSERT_TRUE(recorder.done.tryWait(30000));
    request->Abort();
    EXPECT_EQ(0, recorder.status);
    EXPECT_EQ(200, recorder.httpStatus);
    EXPECT_EQ("done", recorder.body);
    EXPECT_FALSE(recorder.done.tryWait(200));
    EXPECT_EQ(1, recorder.calls);
}

// Server addresses that must not reach the wire: each fails before a
// connection is made, with the reason in the message.
TEST_F(ScheduleServerAccessRequestTest, UnusableServerAddressesAreRefusedBeforeConnecting) {
    HttpTestServer server(HttpTestServer::Answer(200, "text/plain", "x"));
    const std::string port = std::to_string(server.Port());
    const std::string control = "Syntax error: server address holds a control character";
    const struct {
        std::string url;
        std::string reason;
    } cases[] = {
        {"http://127.0.0.1:" + port + "/a\r\nX-Injected: 1", control},
        {"http://127.0.0.1:" + port + "/a%0D%0AX-Injected:%201", control},
        {"http://127.0.0.1:" + port + "/a%0d%0aX-Injected:%201", control},
        {"http://127.0.0.1:" + port + "/a?q=%00", control},
        {"http://127.0.0.1:" + port + "/a#%7f", control},
        {"http://127.0.0.1:" + port + "/a\tb", control},
        {"ftp://127.0.0.1:" + port + "/a", "Syntax error: server address is neither http nor https: ftp"},
        {"127.0.0.1:" + port + "/a", "Syntax error: server address is neither http nor https"},
        {"http:///a", "Syntax error: server address names no host"},
    };
    for (const auto& item : cases) {
        Recorder recorder;
        Exchange(recorder, "8888", "P", item.url);
        EXPECT_EQ(1, recorder.status) << item.url;
        EXPECT_EQ(0, recorder.httpStatus);
        EXPECT_FALSE(recorder.hasData);
        EXPECT_EQ(0u, recorder.message.find(kFailurePrefix + item.reason)) << recorder.message;
    }
    // The server would have recorded a request within this time.
    Poco::Thread::sleep(300);
    EXPECT_TRUE(server.Requests().empty());
}

TEST_F(ScheduleServerAccessRequestTest, EncodedCharactersOtherThanControlsStayAllowed) {
    HttpTestServer server(HttpTestServer::Answer(200, "text/plain", "x"));
    Recorder recorder;
    Exchange(recorder, "8888", "P", "HTTP://127.0.0.1:" + std::to_string(server.Port()) + "/a%41b%2fc?q=%7e");
    EXPECT_EQ(0, recorder.status) << recorder.message;
    ASSERT_EQ(1u, server.Requests().size());
    EXPECT_EQ("POST /aAb/c HTTP/1.1", server.Requests()[0].requestLine);
}

// A server that sends its answer a byte at a time holds the exchange only
// until the deadline, wherever the answer stands.
TEST_F(ScheduleServerAccessRequestTest, TricklingServerIsCutOffAtTheDeadline) {
    HttpTestServer server(HttpTestServer::Answer(200, "application/octet-stream", std::string(100, 'd')));
    server.Drip(100);
    Recorder recorder;
    ScheduleServerAccessRequest* request = new ScheduleServerAccessRequest(&recorder);
    request->SetParameters("0000", "P", server.Url("/"));
    request->SetDeadline(Poco::Timespan(1, 0));
    const Poco::Timestamp started;
    channel_.Enqueue(request);
    ASSERT_TRUE(recorder.done.tryWait(static_cast<long>(10000 * test::TimeScale())));
    EXPECT_GE(started.elapsed(), 1000 * 1000);
    EXPECT_LT(started.elapsed(), 8000 * 1000 * test::TimeScale());
    EXPECT_EQ(1, recorder.status);
    EXPECT_FALSE(recorder.hasData);
    EXPECT_EQ(0u, recorder.message.find(kFailurePrefix + "Timeout: schedule server exchange exceeded 1 s]"))
        << recorder.message;
    EXPECT_TRUE(test::HasLogLine(LogLines(), "E", kTag, recorder.message));
}

TEST_F(ScheduleServerAccessRequestTest, ConnectThatHangsEndsAtTheDeadline) {
    FullBacklog server;
    Recorder recorder;
    ScheduleServerAccessRequest* request = new ScheduleServerAccessRequest(&recorder);
    request->SetParameters("0000", "P", "http://127.0.0.1:" + std::to_string(server.Port()) + "/s");
    request->SetDeadline(Poco::Timespan(0, 500000));
    const Poco::Timestamp started;
    channel_.Enqueue(request);
    ASSERT_TRUE(recorder.done.tryWait(static_cast<long>(10000 * test::TimeScale())));
    EXPECT_LT(started.elapsed(), 8000 * 1000 * test::TimeScale());
    EXPECT_EQ(1, recorder.status);
    EXPECT_EQ(0u, recorder.message.find(kFailurePrefix + "Timeout: schedule server exchange exceeded 500 ms]"))
        << recorder.message;
}

// A TLS server that never finishes its handshake (here a plain server that
// says nothing) is cut off at the deadline too.
TEST_F(ScheduleServerAccessRequestTest, HandshakeThatNeverEndsEndsAtTheDeadline) {
    HttpTestServer server(std::string(), kStalledMs);
    Recorder recorder;
    ScheduleServerAccessRequest* request = new ScheduleServerAccessRequest(&recorder);
    request->SetParameters("0000", "P", "https://127.0.0.1:" + std::to_string(server.Port()) + "/s");
    request->SetDeadline(Poco::Timespan(1, 0));
    const Poco::Timestamp started;
    channel_.Enqueue(request);
    ASSERT_TRUE(recorder.done.tryWait(static_cast<long>(10000 * test::TimeScale())));
    EXPECT_LT(started.elapsed(), 4000 * 1000 * test::TimeScale());
    EXPECT_EQ(1, recorder.status);
    EXPECT_EQ(0u, recorder.message.find(kFailurePrefix + "Timeout: schedule server exchange exceeded 1 s]"))
        << recorder.message;
}

TEST_F(ScheduleServerAccessRequestTest, TrickleOverTlsEndsAtTheDeadline) {
    ASSERT_TRUE(test::MakeCertificate(test::FixedPath("/tmp/server.pem"), test::FixedPath("/tmp/server.key")));
    test::WriteFile(test::FixedPath("/media/sdcard/kestrovanyx/Certificates/server.pem"),
                    test::ReadFile(test::FixedPath("/tmp/server.pem")));
    HttpTestServer server(HttpTestServer::Answer(200, "text/plain", std::string(100, 't')),
                          HttpTestServer::Tls{test::FixedPath("/tmp/server.pem"), test::FixedPath("/tmp/server.key")});
    server.Drip(100);
    Recorder recorder;
    ScheduleServerAccessRequest* request = new ScheduleServerAccessRequest(&recorder);
    request->SetParameters("0000", "P", server.Url("/s"));
    request->SetDeadline(Poco::Timespan(2, 0));
    channel_.Enqueue(request);
    ASSERT_TRUE(recorder.done.tryWait(static_cast<long>(12000 * test::TimeScale())));
    EXPECT_EQ(1, recorder.status);
    EXPECT_EQ(1u, server.Requests().size());
    EXPECT_EQ(0u, recorder.message.find(kFailurePrefix + "Timeout: schedule server exchange exceeded 2 s]"))
        << recorder.message;
}

// An exchange that ends well within its deadline is not disturbed by it.
TEST_F(ScheduleServerAccessRequestTest, ShortDeadlineLeavesAPromptAnswerAlone) {
    HttpTestServer server(HttpTestServer::Answer(200, "text/plain", "prompt"));
    Recorder recorder;
    ScheduleServerAccessRequest* request = new ScheduleServerAccessRequest(&recorder);
    request->SetParameters("0000", "P", server.Url("/"));
    request->SetDeadline(Poco::Timespan(5, 0));
    channel_.Enqueue(request);
    ASSERT_TRUE(recorder.done.tryWait(30000));
    EXPECT_EQ(0, recorder.status) << recorder.message;
    EXPECT_EQ("prompt", recorder.body);
    EXPECT_FALSE(recorder.done.tryWait(200));
    EXPECT_EQ(1, recorder.calls);
}

} // namespace
} // namespace brvo
