#include "server/OutputcontrolServer.h"

#include "client/Channel.h"
#include "client/SlowRequest.h"
#include "settings/LoggerSettingManager.h"
#include "support/CommandClient.h"
#include "support/SingletonTest.h"
#include "support/TestFiles.h"
#include "util/LoggerLog.h"

#include <gtest/gtest.h>

#include <Poco/Event.h>
#include <Poco/Thread.h>

#include <atomic>
#include <cstring>
#include <memory>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace brvo {
namespace {

const std::string kTag = "OutputcontrolServer";
const std::string kDefaultPath = test::FixedPath("/mnt/system/pvoctrl/brevanta.octrl");
const std::int32_t kChangeSettingNotify = 5;
const std::int32_t kCurrentTargetPower = 6;
const std::int32_t kFlushLog = 8;

// Writes a request header of `type`; false when it did not go out whole.
bool SendHeader(int fd, std::int32_t type) {
    const std::int32_t header[2] = {8, type};
    return write(fd, header, sizeof header) == static_cast<ssize_t>(sizeof header);
}

// The number of answer bytes read from `fd` until the server closes it
// (or nothing arrives for `timeoutMs`).
std::size_t AnswerSize(int fd, int timeoutMs) {
    std::size_t total = 0;
    char buffer[512];
    for (;;) {
        pollfd wait = {fd, POLLIN, 0};
        if (poll(&wait, 1, timeoutMs) <= 0) return total;
        const ssize_t got = read(fd, buffer, sizeof buffer);
        if (got <= 0) return total;
        total += static_cast<std::size_t>(got);
    }
}

// A client connection; -1 when connect failed.
int Connect(const std::string& path) {
    const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    const sockaddr_un address = test::UnixAddress(path);
    if (connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

// Whether the server closed `fd` within `timeoutMs` (a read sees the end).
bool ClosedByServer(int fd, int timeoutMs) {
    pollfd wait = {fd, POLLIN, 0};
    if (poll(&wait, 1, timeoutMs) <= 0) return false;
    char byte;
    return read(fd, &byte, 1) == 0;
}

// Leaves a socket file at `path` whose listener is gone, as a daemon that
// died would: the file stays, connections to it are refused.
bool LeaveStaleSocket(const std::string& path) {
    test::WriteFile(path, "");
    if (unlink(path.c_str()) != 0) return false;
    const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    const sockaddr_un address = test::UnixAddress(path);
    const bool bound = bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 && listen(fd, 1) == 0;
    close(fd);
    return bound;
}

bool IsSocket(const std::string& path) {
    struct stat info;
    return stat(path.c_str(), &info) == 0 && S_ISSOCK(info.st_mode);
}

class OutputcontrolServerTest : public test::SingletonTest {
protected:
    void TearDown() override {
        // Frees any slow request still holding a worker, so that deleting the
        // pool does not wait for it.
        release_.set();
        StopServer();
        SingletonTest::TearDown();
    }

    // Settings with an unbuffered log at level 0 plus `innerXml`, then the
    // server on its own thread.
    void StartServer(const std::string& innerXml = "") {
        test::WriteLoggerSetting("<OutputScheduleEnableLogBufferedIO>0</OutputScheduleEnableLogBufferedIO>"
                                 "<LogLevel>0</LogLevel>" +
                                 innerXml);
        LoggerSettingManager::CreateInstance();
        LoggerLog::CreateInstance();
        server_.reset(new OutputcontrolServer());
        thread_.start(*server_);
    }

    void StopServer() {
        if (!server_) return;
        server_->Stop();
        if (!joined_) thread_.join();
        joined_ = true;
        server_.reset();
    }

    // Waits until a client can connect to `path` and its connection has
    // been served (closed by the server), so that no probe is left queued.
    static bool Listening(const std::string& path) {
        return test::WaitFor(
            [&] {
                const int fd = Connect(path);
                if (fd < 0) return false;
                shutdown(fd, SHUT_WR);
                const bool served = ClosedByServer(fd, 5000);
                close(fd);
                return served;
            },
            5000);
    }

    // Waits until a client can connect to `path` and the server has served
    // and closed that connection, so no probe is left in the queue.
    static bool ServedProbe(const std::string& path) {
        int fd = -1;
        if (!test::WaitFor([&] { return (fd = Connect(path)) >= 0; }, 5000)) return false;
        shutdown(fd, SHUT_WR);
        const bool closed = ClosedByServer(fd, 5000);
        close(fd);
        return closed;
    }

    static std::vector<std::string> LogLines() {
        LoggerLog::DeleteInstance();
        return test::ReadLines(test::LogFilePath());
    }

    // Holds every worker of `channel` (the flow workers by default) with a
    // slow request.
    void OccupyWorkers(Channel* channel = nullptr) {
        if (channel == nullptr) channel = server_->GetChannel();
        for (int i = 0; i < OutputcontrolServer::kWorkerCount; ++i) {
            channel->Enqueue(new test::SlowRequest(release_, started_, finished_));
        }
        ASSERT_TRUE(test::WaitFor([&] { return started_ == OutputcontrolServer::kWorkerCount; }, 5000));
    }

    // Waits for the server thread to end by itself.
    bool ServerThreadEnds() {
        joined_ = thread_.tryJoin(5000);
        return joined_;
    }

    // Shared with the slow requests; declared before the server, so they
    // outlive its workers.
    Poco::Event release_{false};
    std::atomic<int> started_{0};
    std::atomic<int> finished_{0};
    std::unique_ptr<OutputcontrolServer> server_;
    Poco::Thread thread_;
    bool joined_ = false;
};

TEST_F(OutputcontrolServerTest, ListensOnTheDefaultPathAndLogsItsStart) {
    StartServer();
    ASSERT_TRUE(Listening(kDefaultPath));
    EXPECT_TRUE(IsSocket(kDefaultPath));
    StopServer();
    const std::vector<std::string> lines = LogLines();
    EXPECT_TRUE(test::HasLogLine(lines, "D", kTag, "StartWorkers done"));
    EXPECT_TRUE(test::HasLogLine(lines, "I", kTag, "Start communication server"));
    EXPECT_TRUE(test::HasLogLine(lines, "D", kTag, "bind start"));
    EXPECT_FALSE(test::HasLogLineStarting(lines, "F", kTag, "bind failed."));
}

TEST_F(OutputcontrolServerTest, StaleSocketFileIsReplaced) {
    test::WriteFile(kDefaultPath, "stale");
    ASSERT_FALSE(IsSocket(kDefaultPath));
    StartServer();
    ASSERT_TRUE(Listening(kDefaultPath));
    EXPECT_TRUE(IsSocket(kDefaultPath));
    StopServer();
    EXPECT_FALSE(test::HasLogLineStarting(LogLines(), "F", kTag, "bind failed."));
}

TEST_F(OutputcontrolServerTest, StaleSocketOfAnEarlierRunIsRemovedAndBoundAfresh) {
    ASSERT_TRUE(LeaveStaleSocket(kDefaultPath));
    ASSERT_TRUE(IsSocket(kDefaultPath));
    // Nobody listens behind the old file.
    EXPECT_EQ(-1, Connect(kDefaultPath));
    StartServer();
    ASSERT_TRUE(Listening(kDefaultPath));
    StopServer();
    EXPECT_FALSE(test::HasLogLineStarting(LogLines(), "F", kTag, "bind failed."));
}

TEST_F(OutputcontrolServerTest, MissingDirectoryIsCreatedBeforeBinding) {
    const std::string path = test::FixedPath("/mnt/system/new/deeper/control.sock");
    ASSERT_FALSE(test::FileExists(test::FixedPath("/mnt/system/new")));
    StartServer("<OutputControlSocketPath>" + path + "</OutputControlSocketPath>");
    ASSERT_TRUE(Listening(path));
    EXPECT_TRUE(IsSocket(path));
}

TEST_F(OutputcontrolServerTest, AcceptedConnectionIsServedAndClosed) {
    StartServer();
    ASSERT_TRUE(Listening(kDefaultPath));
    const int client = Connect(kDefaultPath);
    ASSERT_GE(client, 0);
    // The request is empty: the server reads the end at once.
    shutdown(client, SHUT_WR);
    EXPECT_TRUE(ClosedByServer(client, 5000));
    close(client);
}

TEST_F(OutputcontrolServerTest, FourthConnectionWaitsWhileThreeWorkersAreBusy) {
    StartServer();
    ASSERT_TRUE(ServedProbe(kDefaultPath));
    OccupyWorkers();
    const int client = Connect(kDefaultPath);
    ASSERT_GE(client, 0);
    // A schedule flow (ChangeSettingNotify) goes to the flow workers.
    ASSERT_TRUE(SendHeader(client, kChangeSettingNotify));
    shutdown(client, SHUT_WR);
    // Accepted and queued, but no worker is free to serve it.
    ASSERT_TRUE(test::WaitFor([&] { return server_->GetChannel()->QueuedCount() == 1; }, 5000));
    EXPECT_FALSE(ClosedByServer(client, 300));
    release_.set();
    EXPECT_EQ(144u, AnswerSize(client, 5000));
    EXPECT_TRUE(test::WaitFor([&] { return server_->GetChannel()->QueuedCount() == 0; }, 5000));
    EXPECT_TRUE(test::WaitFor([&] { return finished_ == 3; }, 5000));
    close(client);
}

TEST_F(OutputcontrolServerTest, TargetPowerAndFlushAreAnsweredWhileEveryWorkerIsBusy) {
    StartServer();
    ASSERT_TRUE(ServedProbe(kDefaultPath));
    OccupyWorkers();
    const int current = Connect(kDefaultPath);
    ASSERT_GE(current, 0);
    ASSERT_TRUE(SendHeader(current, kCurrentTargetPower));
    const double capacity = 10.0;
    ASSERT_EQ(static_cast<ssize_t>(sizeof capacity), write(current, &capacity, sizeof capacity));
    EXPECT_EQ(167u, AnswerSize(current, 5000));
    close(current);
    const int flush = Connect(kDefaultPath);
    ASSERT_GE(flush, 0);
    ASSERT_TRUE(SendHeader(flush, kFlushLog));
    EXPECT_EQ(144u, AnswerSize(flush, 5000));
    close(flush);
    EXPECT_EQ(3, started_.load());
    EXPECT_EQ(0, finished_.load());
}

TEST_F(OutputcontrolServerTest, AcceptingGoesOnWhileEveryAnswerWorkerIsBusy) {
    StartServer();
    ASSERT_TRUE(ServedProbe(kDefaultPath));
    // Answer workers held, as by a select waiting on a database locked by
    // another process. (Target power that the snapshot covers would not
    // even reach them: a flush must.)
    OccupyWorkers(server_->GetAnswerChannel());
    const int current = Connect(kDefaultPath);
    ASSERT_GE(current, 0);
    ASSERT_TRUE(SendHeader(current, kFlushLog));
    ASSERT_TRUE(test::WaitFor([&] { return server_->GetAnswerChannel()->QueuedCount() >= 1; }, 5000));
    // A flow is still taken in and answered meanwhile.
    const int flow = Connect(kDefaultPath);
    ASSERT_GE(flow, 0);
    ASSERT_TRUE(SendHeader(flow, kChangeSettingNotify));
    EXPECT_EQ(144u, AnswerSize(flow, 5000));
    close(flow);
    release_.set();
    EXPECT_EQ(144u, AnswerSize(current, 5000));
    close(current);
}

TEST_F(OutputcontrolServerTest, SilentClientIsClosedUnansweredAtTheTimeOut) {
    StartServer("<OutputControlSocketTimeout>1</OutputControlSocketTimeout>");
    ASSERT_TRUE(ServedProbe(kDefaultPath));
    const int silent = Connect(kDefaultPath);
    ASSERT_GE(silent, 0);
    EXPECT_FALSE(ClosedByServer(silent, 300));
    EXPECT_TRUE(ClosedByServer(silent, 5000));
    close(silent);
    EXPECT_TRUE(test::HasLogLine(LogLines(), "D", kTag, "Execute read error..."));
}

TEST_F(OutputcontrolServerTest, LateParametersAreNeverAnsweredAsZeros) {
    StartServer("<OutputControlSocketTimeout>1</OutputControlSocketTimeout>");
    ASSERT_TRUE(ServedProbe(kDefaultPath));
    const int client = Connect(kDefaultPath);
    ASSERT_GE(client, 0);
    ASSERT_TRUE(SendHeader(client, kCurrentTargetPower));
    // The capacity comes after the time-out: the connection is closed
    // without an answer instead of computing with a capacity of 0.
    EXPECT_TRUE(ClosedByServer(client, 5000));
    const double capacity = 10.0;
    (void)!write(client, &capacity, sizeof capacity);
    close(client);
    EXPECT_TRUE(
        test::HasLogLineStarting(LogLines(), "W", kTag, "Request data type 6, parameters not received in time."));
}

TEST_F(OutputcontrolServerTest, ConnectionsPastTheCapCloseTheOldestIdleOne) {
    // Clients and server share this process: both ends of every connection
    // need a descriptor here.
    OutputcontrolServer::RaiseDescriptorLimit();
    rlimit limit;
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &limit));
    if (limit.rlim_cur < 2 * OutputcontrolServer::kMaxConnections + 256) {
        GTEST_SKIP() << "descriptor limit " << limit.rlim_cur << " too low for both ends of the cap";
    }
    StartServer();
    ASSERT_TRUE(ServedProbe(kDefaultPath));
    const int cap = server_->GetConnectionCap();
    ASSERT_GT(cap, 0);
    std::vector<int> idle;
    for (int i = 0; i < cap; ++i) {
        idle.push_back(Connect(kDefaultPath));
        ASSERT_GE(idle.back(), 0);
    }
    // The cap is reached: the next client makes the daemon close the oldest
    // idle connection, and is served itself.
    const int client = Connect(kDefaultPath);
    ASSERT_GE(client, 0);
    ASSERT_TRUE(SendHeader(client, kFlushLog));
    EXPECT_EQ(144u, AnswerSize(client, 5000));
    close(client);
    EXPECT_TRUE(ClosedByServer(idle.front(), 5000));
    EXPECT_FALSE(ClosedByServer(idle.back(), 100));
    // Read before the idle clients go: each close is one more request (an
    // empty one) whose log lines would race with the reading.
    const std::vector<std::string> lines = LogLines();
    for (int fd : idle) close(fd);
    EXPECT_TRUE(test::HasLogLineStarting(lines, "W", kTag, "Too many connections. Closed [1] connection(s)"));
}

TEST_F(OutputcontrolServerTest, BindFailureGoesOnToListenWhichEndsTheServer) {
    // A plain file where the socket's directory should be: the directory
    // cannot be created and bind fails; an unbound socket cannot listen.
    test::WriteFile(test::FixedPath("/mnt/system/blocked"), "");
    StartServer("<OutputControlSocketPath>" + test::FixedPath("/mnt/system/blocked/x.sock") +
                "</OutputControlSocketPath>");
    ASSERT_TRUE(ServerThreadEnds());
    const std::vector<std::string> lines = LogLines();
    EXPECT_TRUE(test::HasLogLine(lines, "D", kTag, "bind start"));
    EXPECT_TRUE(test::HasLogLine(lines, "F", kTag, "bind failed. [-1]"));
    EXPECT_TRUE(test::HasLogLine(lines, "F", kTag, "listen failed. [-1][" + std::to_string(EINVAL) + "]"));
}

TEST_F(OutputcontrolServerTest, FailedAcceptEndsTheServerThread) {
    StartServer();
    ASSERT_TRUE(Listening(kDefaultPath));
    // Shutting the listening socket down makes the next accept fail.
    ASSERT_EQ(0, shutdown(server_->GetListenSocket(), SHUT_RDWR));
    ASSERT_TRUE(ServerThreadEnds());
    EXPECT_TRUE(test::HasLogLine(LogLines(), "E", kTag, "Failed to accept"));
}

TEST_F(OutputcontrolServerTest, PathTooLongForTheAddressIsNotBound) {
    const std::string directory = test::FixedPath("/mnt/system/") + std::string(120, 'p');
    StartServer("<OutputControlSocketPath>" + directory + "/s.sock</OutputControlSocketPath>");
    ASSERT_TRUE(ServerThreadEnds());
    const std::vector<std::string> lines = LogLines();
    EXPECT_TRUE(test::HasLogLine(lines, "F", kTag, "bind failed. [-1]"));
    EXPECT_TRUE(test::HasLogLineStarting(lines, "F", kTag, "listen failed. [-1]["));
    // Nothing was bound under a shortened name either.
    EXPECT_FALSE(test::FileExists(directory.substr(0, 107)));
    EXPECT_FALSE(test::FileExists(directory + "/s.sock"));
}

} // namespace
} // namespace brvo
