#include "server/OutputcontrolServer.h"

#include "server/Channel.h"
#include "server/SlowRequest.h"
#include "settings/LoggerSettingManager.h"
#include "support/TestFiles.h"
#include "util/LoggerLog.h"

#include <gtest/gtest.h>

#include <Poco/Event.h>
#include <Poco/Thread.h>

#include <atomic>
#include <cstring>
#include <memory>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace brvo {
namespace {

const std::string kTag = "OutputcontrolServer";
const std::string kDefaultPath = "/mnt/system/pvoctrl/brevanta.octrl";

// A client connection; -1 when connect failed.
int Connect(const std::string& path) {
    const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address;
    std::memset(&address, 0, sizeof address);
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
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
    sockaddr_un address;
    std::memset(&address, 0, sizeof address);
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    const bool bound = bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
                       listen(fd, 1) == 0;
    close(fd);
    return bound;
}

bool IsSocket(const std::string& path) {
    struct stat info;
    return stat(path.c_str(), &info) == 0 && S_ISSOCK(info.st_mode);
}

class OutputcontrolServerTest : public ::testing::Test {
protected:
    void TearDown() override {
        // Frees any slow request still holding a worker, so that deleting the
        // pool does not wait for it.
        release_.set();
        StopServer();
        LoggerLog::DeleteInstance();
        LoggerSettingManager::DeleteInstance();
    }

    // Settings with an unbuffered log at level 0 plus `innerXml`, then the
    // server on its own thread.
    void StartServer(const std::string& innerXml = "") {
        test::WriteLoggerSetting(
            "<OutputScheduleEnableLogBufferedIO>0</OutputScheduleEnableLogBufferedIO>"
            "<LogLevel>0</LogLevel>" + innerXml);
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
        return test::WaitFor([&] {
            const int fd = Connect(path);
            if (fd < 0) return false;
            shutdown(fd, SHUT_WR);
            const bool served = ClosedByServer(fd, 5000);
            close(fd);
            return served;
        }, 5000);
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
    const std::string path = "/mnt/system/new/deeper/control.sock";
    ASSERT_FALSE(test::FileExists("/mnt/system/new"));
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
    for (int i = 0; i < OutputcontrolServer::kWorkerCount; ++i) {
        server_->GetChannel()->Enqueue(new test::SlowRequest(release_, started_, finished_));
    }
    ASSERT_TRUE(test::WaitFor([&] { return started_ == 3; }, 5000));
    const int client = Connect(kDefaultPath);
    ASSERT_GE(client, 0);
    // The request is empty: the server reads the end at once.
    shutdown(client, SHUT_WR);
    // Accepted and queued, but no worker is free to serve it.
    ASSERT_TRUE(test::WaitFor([&] { return server_->GetChannel()->QueuedCount() == 1; }, 5000));
    EXPECT_FALSE(ClosedByServer(client, 300));
    release_.set();
    EXPECT_TRUE(ClosedByServer(client, 5000));
    EXPECT_TRUE(test::WaitFor([&] { return server_->GetChannel()->QueuedCount() == 0; }, 5000));
    EXPECT_TRUE(test::WaitFor([&] { return finished_ == 3; }, 5000));
    close(client);
}

TEST_F(OutputcontrolServerTest, BindFailureGoesOnToListenWhichEndsTheServer) {
    // A plain file where the socket's directory should be: the directory
    // cannot be created and bind fails; an unbound socket cannot listen.
    test::WriteFile("/mnt/system/blocked", "");
    StartServer("<OutputControlSocketPath>/mnt/system/blocked/x.sock</OutputControlSocketPath>");
    ASSERT_TRUE(ServerThreadEnds());
    const std::vector<std::string> lines = LogLines();
    EXPECT_TRUE(test::HasLogLine(lines, "D", kTag, "bind start"));
    EXPECT_TRUE(test::HasLogLine(lines, "F", kTag, "bind failed. [-1]"));
    EXPECT_TRUE(test::HasLogLine(lines, "F", kTag,
                                 "listen failed. [-1][" + std::to_string(EINVAL) + "]"));
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
    const std::string directory = "/mnt/system/" + std::string(120, 'p');
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
