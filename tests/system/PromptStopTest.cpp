// The real pvocd stopped by SIGTERM or SIGUSR1 while a flow is in flight:
// idle, while the start-up fetch, an update request or a plant check waits
// on a schedule server that never answers, while the logger daemon takes
// the forwarding command and never replies, while a whole year of slots is
// stored, while the start-up fetch is stuck in the host-name lookup of the
// schedule server, which no stop can abort, and while clients keep asking
// for target power. A restart or a shutdown of the logger must never wait on a
// network peer: whatever the peers do, the daemon logs "Kill complete."
// and exits with code 0 within half a second, and leaves no schedule
// half-written.
#include "server/CommandWire.h"
#include "support/ChildProcess.h"
#include "support/DaemonClient.h"
#include "support/HttpTestServer.h"
#include "support/Mounts.h"
#include "support/SchedulePayload.h"
#include "support/SqliteFile.h"
#include "support/StoredSchedule.h"
#include "support/TestFiles.h"
#include "support/UnixPeer.h"

#include <gtest/gtest.h>

#include <Poco/Timestamp.h>

#include <algorithm>
#include <arpa/inet.h>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <memory>
#include <mutex>
#include <netinet/in.h>
#include <numeric>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace brvo {
namespace {

using test::HttpTestServer;
using test::ScheduleServerAnswer;

const std::string kPlant = "00000000000000000000000777";
const int kRate = 60;
const int kFixedRate = 30;
// The update schedule of the start-up fetch: three days of slots.
const std::size_t kUpdateSlots = 3 * 48;
// A year of half-hour slots.
const std::size_t kYearSlots = 365 * 48;
// The longest a stop may take (times TimeScale()).
const int kStopLimitMs = 500;
// How long a daemon that does not stop promptly is waited for, to tell how
// long it took; a daemon still running then is killed with the fixture.
const int kGiveUpMs = 10000;
// Bound on reaching the state a test stops the daemon in.
const int kReachMs = 15000;
// Longer than any test runs: a server delaying its answer this long never
// answers while the daemon runs.
const int kStallMs = 10 * 60 * 1000;
// The logger daemon's receive time-out: far longer than a stop may take,
// so that a silent logger daemon is still being waited on at the signal.
const int kLoggerTimeoutSeconds = 60;

// The schedule server's host name in the lookup test: not in /etc/hosts,
// so that the C library asks the name server of /etc/resolv.conf for it.
const std::string kUnresolvableHost = "schedule.invalid-host.test";
const std::string kResolverConfig = "/etc/resolv.conf";
// What is bound over it (in the sandbox's private /tmp): the silent name
// server only, and a resolver time-out (the C library's longest) that lets
// no lookup end on its own while a test runs.
const std::string kSilentResolverConfig = "/tmp/resolv.conf.silent";
const std::string kSilentResolverText = "nameserver 127.0.0.1\noptions timeout:30 attempts:1\n";

// `host` as a name server query carries it: each label behind its length.
std::string QueriedName(const std::string& host) {
    std::string name;
    std::size_t start = 0;
    while (start <= host.size()) {
        std::size_t end = host.find('.', start);
        if (end == std::string::npos) end = host.size();
        name += static_cast<char>(end - start);
        name += host.substr(start, end - start);
        start = end + 1;
    }
    return name;
}

// A name server on 127.0.0.1:53 that reads every query and never answers:
// a host-name lookup sent to it blocks inside the C library until the
// resolver gives up. Listens from construction to destruction, on its own
// thread; the socket is not inherited by the daemon.
class SilentNameServer {
public:
    SilentNameServer() : fd_(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)), stop_(false) {
        sockaddr_in address;
        std::memset(&address, 0, sizeof address);
        address.sin_family = AF_INET;
        address.sin_port = htons(53);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (fd_ < 0 || ::bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
            ADD_FAILURE() << "the name server cannot listen on 127.0.0.1:53: " << std::strerror(errno);
            if (fd_ >= 0) ::close(fd_);
            fd_ = -1;
            return;
        }
        thread_ = std::thread([this] { Run(); });
    }

    ~SilentNameServer() {
        stop_ = true;
        if (thread_.joinable()) thread_.join();
        if (fd_ >= 0) ::close(fd_);
    }

    bool Listening() const { return fd_ >= 0; }

    // Every query received so far, as it came.
    std::vector<std::string> Queries() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return queries_;
    }

    // Whether a query asked for `host`.
    bool Asked(const std::string& host) const {
        const std::string name = QueriedName(host);
        for (const std::string& query : Queries()) {
            if (query.find(name) != std::string::npos) return true;
        }
        return false;
    }

private:
    SilentNameServer(const SilentNameServer&) = delete;
    SilentNameServer& operator=(const SilentNameServer&) = delete;

    void Run() {
        char buffer[512];
        while (!stop_) {
            pollfd wait = {fd_, POLLIN, 0};
            if (::poll(&wait, 1, 50) <= 0) continue;
            const ssize_t size = ::recv(fd_, buffer, sizeof buffer, 0);
            if (size <= 0) continue;
            std::lock_guard<std::mutex> lock(mutex_);
            queries_.emplace_back(buffer, static_cast<std::size_t>(size));
        }
    }

    int fd_;
    std::atomic<bool> stop_;
    mutable std::mutex mutex_;
    std::vector<std::string> queries_;
    std::thread thread_;
};

// The schedule rows holding `rate` percent.
std::string RowsAtRate(int rate) {
    return test::QueryValue(test::kScheduleDbFile,
                            "SELECT COUNT(*) FROM output_control_schedule WHERE controlRate = " + std::to_string(rate));
}

std::string UnsentRows() {
    return test::QueryValue(test::kScheduleDbFile, "SELECT COUNT(*) FROM output_control_schedule WHERE sent = 0");
}

// A schedule server that answers the start-up fetch with an update
// schedule of `slots` from yesterday on, and the fixed-schedule fetch after
// it with one day of another rate after those slots.
std::unique_ptr<HttpTestServer> GoodServer(std::size_t slots) {
    test::ScheduleRecord fixed = test::FixedRecordAhead(kFixedRate, static_cast<int>(slots / 48));
    return std::unique_ptr<HttpTestServer>(
        new HttpTestServer({ScheduleServerAnswer(test::CurrentUpdateRecord(kRate, slots), test::kUpdateSchedule),
                            ScheduleServerAnswer(fixed, test::kFixedSchedule)}));
}

// A schedule server that takes every request and never answers.
std::unique_ptr<HttpTestServer> StallingServer() {
    return std::unique_ptr<HttpTestServer>(new HttpTestServer(std::string(), kStallMs));
}

// Clients asking for target power (now and next slot) and log flushes, one
// request per connection, each on a thread of its own, until Stop. Every
// answer that came is kept apart by its request's type, so that a test can
// see that each one was whole. Each exchange is bounded, so Stop ends
// within that bound.
class RequestHammer {
public:
    explicit RequestHammer(std::size_t clients) : stop_(false), answered_(clients, 0), parts_(clients) {
        for (std::size_t i = 0; i < clients; ++i) threads_.emplace_back([this, i] { Run(i); });
    }

    ~RequestHammer() { Stop(); }

    void Stop() {
        stop_ = true;
        for (std::thread& thread : threads_) {
            if (thread.joinable()) thread.join();
        }
    }

    // Whether every client has had at least `count` whole answers.
    bool EachAnswered(int count) const {
        std::lock_guard<std::mutex> lock(mutex_);
        for (const int answered : answered_) {
            if (answered < count) return false;
        }
        return true;
    }

    int Answered() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return std::accumulate(answered_.begin(), answered_.end(), 0);
    }

    // Answers that were neither whole nor empty, as "type:size".
    std::vector<std::string> Partial() const {
        std::lock_guard<std::mutex> lock(mutex_);
        std::vector<std::string> partial;
        for (const std::vector<std::string>& parts : parts_) partial.insert(partial.end(), parts.begin(), parts.end());
        return partial;
    }

private:
    // Bound on one exchange; far above an answer's time.
    static constexpr int kExchangeMs = 2000;

    void Run(std::size_t client) {
        const std::int32_t types[] = {test::kCurrentTargetPowerRequest, test::kNextTargetPowerRequest,
                                      test::kCurrentTargetPowerRequest, test::kFlushLogRequest};
        for (std::size_t round = 0; !stop_; ++round) {
            const std::int32_t type = types[(round + client) % (sizeof types / sizeof types[0])];
            const std::string request =
                type == test::kFlushLogRequest ? test::Request(type) : test::Request(type, test::Capacity(250.0));
            std::string answer;
            test::Exchange(test::kCommandSocket, request, answer, kExchangeMs);
            const std::size_t whole =
                type == test::kFlushLogRequest ? test::kUpdateAnswerSize : test::kTargetPowerAnswerSize;
            std::lock_guard<std::mutex> lock(mutex_);
            if (answer.size() == whole) {
                ++answered_[client];
            } else if (!answer.empty()) {
                parts_[client].push_back(std::to_string(type) + ":" + std::to_string(answer.size()));
            }
        }
    }

    std::atomic<bool> stop_;
    mutable std::mutex mutex_;
    std::vector<int> answered_;
    std::vector<std::vector<std::string>> parts_;
    std::vector<std::thread> threads_;
};

class PromptStopTest : public ::testing::Test {
protected:
    void SetUp() override {
        test::WriteLoggerSetting("<OutputScheduleEnableLogBufferedIO>0</OutputScheduleEnableLogBufferedIO>"
                                 "<OutputControlSocketTimeout>" +
                                 std::to_string(kLoggerTimeoutSeconds) + "</OutputControlSocketTimeout>");
        test::WriteFile("/sys/class/net/eth0/address", "00:1a:2b:3c:4d:5e\n");
        test::WriteFile(test::kLoggerSocket + ".keep", "");
    }

    void TearDown() override {
        if (client_ >= 0) ::close(client_);
        if (resolverReplaced_) test::Unmount(kResolverConfig);
    }

    // Sends every host-name lookup, the daemon's too (it shares the test's
    // mount namespace), to a silent name server on the loopback interface.
    void ResolveThroughSilentNameServer() {
        ASSERT_EQ(std::string::npos, test::ReadFile("/etc/hosts").find(kUnresolvableHost))
            << "/etc/hosts resolves " << kUnresolvableHost << " without a name server";
        nameServer_.reset(new SilentNameServer());
        ASSERT_TRUE(nameServer_->Listening());
        test::WriteFile(kSilentResolverConfig, kSilentResolverText);
        ASSERT_TRUE(test::BindMount(kSilentResolverConfig, kResolverConfig));
        resolverReplaced_ = true;
        ASSERT_EQ(kSilentResolverText, test::ReadFile(kResolverConfig));
    }

    // A logger daemon that confirms every command.
    void StartConfirmingLogger() {
        logger_.reset(new test::UnixPeer(test::kLoggerSocket, test::UnixPeer::kReply, std::string(12, '\0'), 8));
    }

    // Starts the daemon against a good server and waits until it stored
    // the start-up fetch's schedules and forwarded them.
    void StartWithStoredSchedule() {
        StartConfirmingLogger();
        server_ = GoodServer(kUpdateSlots);
        test::WriteSystemSetting(kPlant, server_->Url("/schedule"), false);
        ASSERT_TRUE(test::StartDaemon(daemon_, test::kDaemonOutput));
        const std::string all = std::to_string(kUpdateSlots + 48);
        ASSERT_TRUE(test::WaitFor(
            [&] {
                return test::QueryValue(test::kScheduleDbFile,
                                        "SELECT COUNT(*) FROM output_control_schedule WHERE sent = 1") == all;
            },
            kReachMs))
            << test::ReadFile(test::kDaemonOutput);
        schedule_ = test::ScheduleRows();
        info_ = test::UpdateInfoRows();
    }

    // Waits until the stalling server holds the daemon's request.
    void WaitUntilStalled() {
        ASSERT_TRUE(test::WaitFor([&] { return stalled_->Requests().size() == 1; }, kReachMs))
            << test::ReadFile(test::kDaemonOutput);
    }

    // Sends `signal` and expects "Kill complete." in the log and exit code
    // 0 within kStopLimitMs.
    void ExpectPromptStop(int signal) {
        const Poco::Timestamp sent;
        ASSERT_TRUE(daemon_.Signal(signal));
        const bool ended = daemon_.WaitExit(static_cast<int>(kGiveUpMs * test::TimeScale()));
        const Poco::Timestamp::TimeDiff tookMs = sent.elapsed() / 1000;
        RecordProperty("StopMs", static_cast<int>(tookMs));
        ASSERT_TRUE(ended) << "pvocd did not stop within " << tookMs << " ms";
        EXPECT_LT(tookMs, kStopLimitMs * test::TimeScale()) << "pvocd took " << tookMs << " ms to stop";
        ASSERT_TRUE(daemon_.ExitedNormally());
        EXPECT_EQ(0, daemon_.ExitCode());
        EXPECT_NE(std::string::npos,
                  test::ReadFile(test::LogFilePath()).find("] BrevantaOutputControlManager Kill complete.\n"))
            << test::ReadFile(test::LogFilePath());
    }

    // The stored schedule and update information are those stored before
    // the signal.
    void ExpectStoredScheduleKept() {
        EXPECT_EQ(schedule_, test::ScheduleRows());
        EXPECT_EQ(info_, test::UpdateInfoRows());
    }

    std::unique_ptr<test::UnixPeer> logger_;
    std::unique_ptr<HttpTestServer> server_;
    std::unique_ptr<HttpTestServer> stalled_;
    std::unique_ptr<SilentNameServer> nameServer_;
    // Whether /etc/resolv.conf is bound over and must be unmounted.
    bool resolverReplaced_ = false;
    std::vector<std::vector<std::string>> schedule_;
    std::vector<std::vector<std::string>> info_;
    // A client's connection waiting for its answer, or -1.
    int client_ = -1;
    // Declared last, so that a daemon that did not stop is killed before
    // the peers it still talks to go away.
    test::ChildProcess daemon_;
};

TEST_F(PromptStopTest, StopsPromptlyWhenIdle) {
    ASSERT_TRUE(test::StartDaemon(daemon_, test::kDaemonOutput));
    ASSERT_EQ(test::kUpdateAnswerSize, test::Ask(test::kFlushLogRequest).size());
    ExpectPromptStop(SIGTERM);
}

TEST_F(PromptStopTest, StopsPromptlyWhileTheStartUpFetchWaitsOnAStalledServer) {
    stalled_ = StallingServer();
    test::WriteSystemSetting(kPlant, stalled_->Url("/schedule"), false);
    ASSERT_TRUE(test::StartDaemon(daemon_, test::kDaemonOutput));
    WaitUntilStalled();
    if (HasFatalFailure()) return;
    ExpectPromptStop(SIGTERM);
    EXPECT_EQ("0", test::QueryValue(test::kScheduleDbFile, "SELECT COUNT(*) FROM output_control_schedule"));
}

TEST_F(PromptStopTest, StopsPromptlyWhileAnUpdateRequestWaitsOnAStalledServer) {
    StartWithStoredSchedule();
    if (HasFatalFailure()) return;
    stalled_ = StallingServer();
    test::WriteSystemSetting(kPlant, stalled_->Url("/schedule"), false);
    client_ = test::SendRequest(test::kUpdateScheduleRequest);
    ASSERT_GE(client_, 0);
    WaitUntilStalled();
    if (HasFatalFailure()) return;
    ExpectPromptStop(SIGTERM);
    ExpectStoredScheduleKept();
}

TEST_F(PromptStopTest, StopsPromptlyOnSigusr1WhileAPlantCheckWaitsOnAStalledServer) {
    // A stand-alone plant with a stored schedule: nothing is fetched at
    // start, and the check is the only flow in flight.
    const std::int64_t slot = Poco::Timestamp().epochTime() / 1800 * 1800;
    test::StoreSchedule(kPlant, {{slot, 10}, {slot + 1800, 20}});
    test::WriteSystemSetting(kPlant, "", true);
    ASSERT_TRUE(test::StartDaemon(daemon_, test::kDaemonOutput));
    schedule_ = test::ScheduleRows();
    info_ = test::UpdateInfoRows();
    stalled_ = StallingServer();
    client_ = test::SendRequest(test::kCheckPlantIdRequest,
                                CommandWire::EncodeCheckPlantIdBlock("777", stalled_->Url("/check")));
    ASSERT_GE(client_, 0);
    WaitUntilStalled();
    if (HasFatalFailure()) return;
    ExpectPromptStop(SIGUSR1);
    ExpectStoredScheduleKept();
}

TEST_F(PromptStopTest, StopsPromptlyWhileTheServerNameLookupHangs) {
    ResolveThroughSilentNameServer();
    if (HasFatalFailure()) return;
    test::WriteSystemSetting(kPlant, "http://" + kUnresolvableHost + ":18080/schedule", false);
    ASSERT_TRUE(test::StartDaemon(daemon_, test::kDaemonOutput));
    // Once the name server has the query, the start-up fetch is inside the
    // C library's lookup, where shutting sockets down does not reach it.
    ASSERT_TRUE(test::WaitFor([&] { return nameServer_->Asked(kUnresolvableHost); }, kReachMs))
        << "no lookup of " << kUnresolvableHost << " reached 127.0.0.1:53 (" << nameServer_->Queries().size()
        << " queries); is \"dns\" among the hosts sources of /etc/nsswitch.conf?\n"
        << test::ReadFile(test::kDaemonOutput);
    ExpectPromptStop(SIGTERM);
    // The lookup was left running and the daemon said so.
    EXPECT_TRUE(test::HasLogLine(test::ReadLines(test::LogFilePath()), "W", "ScheduleUpdateManager",
                                 "A schedule flow did not end in time; it is left to the exit."))
        << test::ReadFile(test::LogFilePath());
    EXPECT_EQ("0", test::QueryValue(test::kScheduleDbFile, "SELECT COUNT(*) FROM output_control_schedule"));
}

TEST_F(PromptStopTest, StopsPromptlyWhileForwardingWaitsOnASilentLoggerDaemon) {
    logger_.reset(new test::UnixPeer(test::kLoggerSocket, test::UnixPeer::kSilent, "", 8));
    server_ = GoodServer(kUpdateSlots);
    test::WriteSystemSetting(kPlant, server_->Url("/schedule"), false);
    ASSERT_TRUE(test::StartDaemon(daemon_, test::kDaemonOutput));
    // The logger daemon got the whole command and says nothing.
    ASSERT_TRUE(test::WaitFor([&] { return logger_->Received().size() == 1; }, kReachMs))
        << test::ReadFile(test::kDaemonOutput);
    ASSERT_EQ(8u, logger_->Received()[0].size());
    ExpectPromptStop(SIGTERM);
    // Both schedules were stored before forwarding began; the forwarding
    // never finished, so no row is marked sent.
    const std::string all = std::to_string(kUpdateSlots + 48);
    EXPECT_EQ(all, test::QueryValue(test::kScheduleDbFile, "SELECT COUNT(*) FROM output_control_schedule"));
    EXPECT_EQ(all, UnsentRows());
}

TEST_F(PromptStopTest, StopsPromptlyWhileAYearOfSlotsIsStored) {
    StartConfirmingLogger();
    server_ = GoodServer(kYearSlots);
    test::WriteSystemSetting(kPlant, server_->Url("/schedule"), false);
    // Started without waiting for the command socket: the signal is to
    // come as soon as the fetch reached the server, while the year is
    // decoded and stored.
    ASSERT_TRUE(daemon_.Start(test::ChildProcess::DaemonCommand(), test::kDaemonOutput));
    ASSERT_TRUE(test::WaitFor([&] { return !server_->Requests().empty(); }, kReachMs))
        << test::ReadFile(test::kDaemonOutput);
    // The fixed schedule is fetched only once the year is stored.
    ASSERT_EQ(1u, server_->Requests().size()) << "the year was stored before the signal";
    ExpectPromptStop(SIGTERM);
    const std::string stored = RowsAtRate(kRate);
    EXPECT_TRUE(stored == "0" || stored == std::to_string(kYearSlots)) << stored << " of the year's slots stored";
}

// The stop comes while clients keep asking for target power and flushes
// (answered on the accepting loops and on the answer workers) and one
// client has sent only part of its request. The command server serves
// until the process ends, which destroys nothing under its threads: every
// answer that came is whole, the waiting client's connection is closed,
// and the exit is clean (under ThreadSanitizer: no thread races the end of
// the process).
TEST_F(PromptStopTest, StopsPromptlyWhileTargetPowerRequestsAreInFlight) {
    const std::int64_t slot = Poco::Timestamp().epochTime() / 1800 * 1800;
    test::StoreSchedule(kPlant, {{slot, kRate}, {slot + 1800, kFixedRate}});
    test::WriteSystemSetting(kPlant, "", true);
    ASSERT_TRUE(test::StartDaemon(daemon_, test::kDaemonOutput));
    const std::string request = test::Request(test::kCurrentTargetPowerRequest, test::Capacity(250.0));
    ASSERT_EQ(16u, request.size());
    client_ = test::Connect(test::kCommandSocket);
    ASSERT_GE(client_, 0);
    ASSERT_EQ(10, ::write(client_, request.data(), 10));
    RequestHammer hammer(4);
    ASSERT_TRUE(test::WaitFor([&] { return hammer.EachAnswered(3); }, kReachMs)) << hammer.Answered() << " answers\n"
                                                                                 << test::ReadFile(test::kDaemonOutput);
    ExpectPromptStop(SIGTERM);
    hammer.Stop();
    EXPECT_EQ(std::vector<std::string>(), hammer.Partial());
    EXPECT_NE(std::string::npos,
              test::ReadFile(test::LogFilePath()).find("] BrevantaOutputControlManager Kill complete.\n"));
    // The half-sent request is dropped with its connection.
    pollfd closed = {client_, POLLIN, 0};
    ASSERT_EQ(1, ::poll(&closed, 1, static_cast<int>(kReachMs * test::TimeScale())));
    char byte = 0;
    EXPECT_LE(::read(client_, &byte, 1), 0);
}

} // namespace
} // namespace brvo
