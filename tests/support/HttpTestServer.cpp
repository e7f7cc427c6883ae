#include "support/HttpTestServer.h"

#include <Poco/Net/Context.h>
#include <Poco/Net/SecureServerSocket.h>
#include <Poco/Net/SocketAddress.h>
#include <Poco/Net/StreamSocket.h>
#include <Poco/NumberParser.h>
#include <Poco/String.h>
#include <Poco/Thread.h>
#include <Poco/Timespan.h>

#include <algorithm>
#include <cstdlib>
#include <sstream>

namespace brvo {
namespace test {

namespace {

// Reads from `socket` until `text` holds "\r\n\r\n" or the peer stops.
bool ReadHeaders(Poco::Net::StreamSocket& socket, std::string& text) {
    char buffer[1024];
    while (text.find("\r\n\r\n") == std::string::npos) {
        const int n = socket.receiveBytes(buffer, sizeof buffer);
        if (n <= 0) return false;
        text.append(buffer, static_cast<std::size_t>(n));
    }
    return true;
}

// The answer of Answer and AnswerWithHeaders.
std::string AnswerText(int status, const std::string& contentType, const std::string& body, long long announced,
                       bool withLength, const std::string& headers) {
    std::ostringstream text;
    text << "HTTP/1.1 " << status << " Status\r\n";
    if (!contentType.empty()) text << "Content-Type: " << contentType << "\r\n";
    if (withLength)
        text << "Content-Length: " << (announced < 0 ? static_cast<long long>(body.size()) : announced) << "\r\n";
    text << "Connection: close\r\n" << headers << "\r\n" << body;
    return text.str();
}

} // namespace

HttpTestServer::HttpTestServer(const std::string& answer, int delayMs)
    : HttpTestServer(std::vector<std::string>{answer}) {
    delayMs_ = delayMs;
}

HttpTestServer::HttpTestServer(const std::string& answer, const Tls& tls)
    : answers_{answer}, answersFrom_(0), delayMs_(0), dripMs_(0), reset_(false), connections_(0),
      released_(Poco::Event::EVENT_MANUALRESET), scheme_("https"),
      socket_(Poco::Net::SecureServerSocket(Poco::Net::SocketAddress("127.0.0.1", 0), 64,
                                            new Poco::Net::Context(Poco::Net::Context::TLS_SERVER_USE, tls.keyFile,
                                                                   tls.certificateFile, "",
                                                                   Poco::Net::Context::VERIFY_NONE))),
      port_(socket_.address().port()), stop_(false) {
    thread_.start(*this);
}

HttpTestServer::HttpTestServer(const std::vector<std::string>& answers)
    : answers_(answers), answersFrom_(0), delayMs_(0), dripMs_(0), reset_(false), connections_(0),
      released_(Poco::Event::EVENT_MANUALRESET), scheme_("http"), socket_(Poco::Net::SocketAddress("127.0.0.1", 0)),
      port_(socket_.address().port()), stop_(false) {
    thread_.start(*this);
}

HttpTestServer::~HttpTestServer() {
    stop_ = true;
    released_.set();
    thread_.join();
    socket_.close();
}

std::string HttpTestServer::Url(const std::string& path) const {
    return scheme_ + "://127.0.0.1:" + std::to_string(port_) + path;
}

std::vector<HttpTestServer::Received> HttpTestServer::Requests() const {
    Poco::FastMutex::ScopedLock lock(mutex_);
    return requests_;
}

void HttpTestServer::SetAnswers(const std::vector<std::string>& answers) {
    Poco::FastMutex::ScopedLock lock(mutex_);
    answers_ = answers;
    answersFrom_ = requests_.size();
}

void HttpTestServer::Release() {
    released_.set();
}

std::string HttpTestServer::Answer(int status, const std::string& contentType, const std::string& body,
                                   long long announced, bool withLength) {
    return AnswerText(status, contentType, body, announced, withLength, std::string());
}

std::string HttpTestServer::AnswerWithHeaders(int status, const std::string& contentType, const std::string& body,
                                              const std::string& headers) {
    return AnswerText(status, contentType, body, -1, true, headers);
}

void HttpTestServer::run() {
    while (!stop_) {
        if (!socket_.poll(Poco::Timespan(0, 50000), Poco::Net::Socket::SELECT_READ)) continue;
        Poco::Net::StreamSocket client = socket_.acceptConnection();
        ++connections_;
        try {
            Serve(client);
        } catch (const Poco::Exception&) {
        }
        client.close();
    }
}

void HttpTestServer::Serve(Poco::Net::StreamSocket& socket) {
    socket.setReceiveTimeout(Poco::Timespan(5, 0));
    std::string text;
    if (!ReadHeaders(socket, text)) return;
    const std::size_t end = text.find("\r\n\r\n");
    Received received;
    std::istringstream lines(text.substr(0, end));
    std::string line;
    std::size_t length = 0;
    bool first = true;
    while (std::getline(lines, line)) {
        if (!line.empty() && line.back() == '\r') line.pop_back();
        if (first) {
            received.requestLine = line;
            first = false;
            continue;
        }
        received.headers.push_back(line);
        if (Poco::icompare(line.substr(0, 15), "Content-Length:") == 0) {
            length = static_cast<std::size_t>(Poco::NumberParser::parseUnsigned64(Poco::trim(line.substr(15))));
        }
    }
    received.body = text.substr(end + 4);
    char buffer[1024];
    while (received.body.size() < length) {
        const int n = socket.receiveBytes(buffer, sizeof buffer);
        if (n <= 0) break;
        received.body.append(buffer, static_cast<std::size_t>(n));
    }
    std::string answer;
    {
        Poco::FastMutex::ScopedLock lock(mutex_);
        requests_.push_back(received);
        answer = answers_.at(std::min(requests_.size() - answersFrom_, answers_.size()) - 1);
    }
    // Released at once when the test releases it or the server stops, so a
    // server told to stall longer than a test runs still stops with it.
    if (delayMs_ > 0) released_.tryWait(delayMs_);
    Send(socket, answer);
}

void HttpTestServer::Send(Poco::Net::StreamSocket& socket, const std::string& answer) {
    if (dripMs_ > 0) {
        for (std::size_t i = 0; i < answer.size() && !stop_; ++i) {
            if (socket.sendBytes(answer.data() + i, 1) <= 0) return;
            released_.tryWait(dripMs_);
        }
    } else {
        socket.sendBytes(answer.data(), static_cast<int>(answer.size()));
    }
    if (reset_) {
        socket.setLinger(true, 0);
        return;
    }
    socket.shutdownSend();
}

bool MakeCertificate(const std::string& certificateFile, const std::string& keyFile) {
    const std::string command = "openssl req -x509 -newkey rsa:2048 -nodes -days 2 -subj /CN=127.0.0.1"
                                " -addext subjectAltName=IP:127.0.0.1 -keyout '" +
                                keyFile + "' -out '" + certificateFile + "' >/dev/null 2>&1";
    return std::system(command.c_str()) == 0;
}

int ClosedPort() {
    Poco::Net::ServerSocket probe(Poco::Net::SocketAddress("127.0.0.1", 0));
    const int port = probe.address().port();
    probe.close();
    return port;
}

std::string ScheduleServerAnswer(const ScheduleRecord& record, int kind) {
    return ScheduleServerAnswer(std::vector<ScheduleRecord>{record}, kind);
}

std::string ScheduleServerAnswer(const std::vector<ScheduleRecord>& records, int kind) {
    const std::string payload = BytesText(BuildSchedulePayload(records, kind).bytes);
    return HttpTestServer::Answer(200, MultipartContentType("b"), BinaryPartBody("b", payload));
}

} // namespace test
} // namespace brvo
