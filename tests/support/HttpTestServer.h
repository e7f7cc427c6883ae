// A small HTTP server on 127.0.0.1 for tests: accepts connections on its own
// thread, records each request exactly as received (request line, headers,
// body) and answers with scripted raw bytes, so that tests control every
// byte of the answer, broken ones included.
#ifndef BRVO_TESTS_SUPPORT_HTTPTESTSERVER_H
#define BRVO_TESTS_SUPPORT_HTTPTESTSERVER_H

#include "support/SchedulePayload.h"

#include <Poco/Event.h>
#include <Poco/Mutex.h>
#include <Poco/Net/ServerSocket.h>
#include <Poco/Runnable.h>
#include <Poco/Thread.h>

#include <atomic>
#include <string>
#include <vector>

namespace brvo {
namespace test {

class HttpTestServer : public Poco::Runnable {
public:
    // One received request.
    struct Received {
        std::string requestLine;
        std::vector<std::string> headers;
        std::string body;
    };

    // Listens on an ephemeral port of 127.0.0.1; answers every request with
    // `answer` (raw bytes, status line included) after `delayMs`. A server
    // stopped while it delays answers at once, so a delay longer than the
    // test stands for a server that never answers.
    explicit HttpTestServer(const std::string& answer, int delayMs = 0);
    // Answers the n-th request with `answers[n]`, and every later one with
    // the last of them.
    explicit HttpTestServer(const std::vector<std::string>& answers);
    // PEM files of a TLS server's certificate and key.
    struct Tls {
        std::string certificateFile;
        std::string keyFile;
    };
    // Answers every request with `answer`, over TLS.
    HttpTestServer(const std::string& answer, const Tls& tls);
    // Stops and closes.
    ~HttpTestServer() override;

    void run() override;

    // The port it listens on.
    int Port() const { return port_; }
    // "http://127.0.0.1:<port>" + `path` ("https://" for a TLS server).
    std::string Url(const std::string& path) const;
    // The requests received so far.
    std::vector<Received> Requests() const;
    // The connections accepted so far, with a request or without.
    int Connections() const { return connections_; }
    // Ends the delay of the request being held now and of every later one:
    // they are answered at once. Lets a test hold a client for as long as it
    // needs and no longer.
    void Release();
    // Sends every later answer one byte at a time, `ms` apart, as a server
    // that trickles its answer; it stops when the client leaves or the
    // server stops.
    void Drip(int ms) { dripMs_ = ms; }
    // Ends every later connection with a reset (RST) right after the
    // answer, instead of an orderly close.
    void ResetAfterAnswer() { reset_ = true; }
    // Answers the requests from now on with `answers` as the constructor
    // does: the first of them with `answers[0]`, and so on, every one
    // past the list with its last. A server that comes back, or changes
    // its mind, while its client runs on.
    void SetAnswers(const std::vector<std::string>& answers);

    // A complete answer: status line, Content-Type (when not empty), a
    // Content-Length of `announced` (the body's own length when negative;
    // none at all when `withLength` is false), Connection: close, then the
    // body.
    static std::string Answer(int status, const std::string& contentType, const std::string& body,
                              long long announced = -1, bool withLength = true);
    // The same answer with the body's own length and `headers` (whole
    // header lines, each ending in "\r\n") after Connection: close.
    static std::string AnswerWithHeaders(int status, const std::string& contentType, const std::string& body,
                                         const std::string& headers);

private:
    void Serve(Poco::Net::StreamSocket& socket);
    void Send(Poco::Net::StreamSocket& socket, const std::string& answer);

    // Under mutex_: the answers, and the number of requests received
    // before the first of them.
    std::vector<std::string> answers_;
    std::size_t answersFrom_;
    std::atomic<int> delayMs_;
    std::atomic<int> dripMs_;
    std::atomic<bool> reset_;
    std::atomic<int> connections_;
    Poco::Event released_;
    std::string scheme_;
    Poco::Net::ServerSocket socket_;
    int port_;
    std::atomic<bool> stop_;
    mutable Poco::FastMutex mutex_;
    std::vector<Received> requests_;
    Poco::Thread thread_;
};

// Makes a self-signed certificate for 127.0.0.1 (PEM files); false when
// the openssl command fails.
bool MakeCertificate(const std::string& certificateFile, const std::string& keyFile);

// A port of 127.0.0.1 on which nothing listens.
int ClosedPort();

// A complete answer of the schedule server: status 200 and a multipart body
// carrying the payload of `record` of `kind` as binary content.
std::string ScheduleServerAnswer(const ScheduleRecord& record, int kind);
// The same for a payload of all of `records`.
std::string ScheduleServerAnswer(const std::vector<ScheduleRecord>& records, int kind);

} // namespace test
} // namespace brvo

#endif
