#include "support/DaemonClient.h"

#include "support/CommandClient.h"
#include "support/HttpTestServer.h"
#include "support/SqliteFile.h"
#include "support/TestFiles.h"
#include "util/TimeStamp.h"

#include <gtest/gtest.h>

#include <cstring>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace brvo {
namespace test {

int SendRequest(std::int32_t type, const std::string& params) {
    const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    const sockaddr_un address = UnixAddress(kCommandSocket);
    if (connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        close(fd);
        ADD_FAILURE() << "cannot connect to the daemon";
        return -1;
    }
    const std::string request = Request(type, params);
    EXPECT_EQ(static_cast<ssize_t>(request.size()), write(fd, request.data(), request.size()));
    return fd;
}

std::string ReadAnswer(int fd, int silenceMs) {
    if (fd < 0) return std::string();
    std::string answer;
    char buffer[512];
    for (;;) {
        pollfd in = {fd, POLLIN, 0};
        if (poll(&in, 1, silenceMs) <= 0) break;
        const ssize_t n = read(fd, buffer, sizeof buffer);
        if (n <= 0) break;
        answer.append(buffer, static_cast<std::size_t>(n));
    }
    close(fd);
    return answer;
}

std::string Ask(std::int32_t type, const std::string& params, int silenceMs) {
    return ReadAnswer(SendRequest(type, params), silenceMs);
}

std::string ServerTime(std::int64_t utcSeconds, const std::string& pattern) {
    return TimeStamp::FromEpochSeconds(utcSeconds + 9 * 3600)->Format(pattern);
}

namespace {

std::int64_t TodayUtc() {
    return TimeStamp().EpochSeconds() / 86400 * 86400;
}

} // namespace

ScheduleRecord CurrentUpdateRecord(int rate, std::size_t slots) {
    const std::int64_t today = TodayUtc();
    ScheduleRecord record;
    record.plantId = "777";
    record.start = ServerTime(today - 86400, "%Y%m%d%H%M");
    record.rates = std::vector<int>(slots, rate);
    record.fixedFlag = 3;
    record.nextUpdate = ServerTime(today + 86400, "%Y%m%d%H%M%S");
    return record;
}

ScheduleRecord FixedRecordAhead(int rate, int daysAhead) {
    ScheduleRecord record = CurrentUpdateRecord(rate, 48);
    record.start = ServerTime(TodayUtc() + daysAhead * 86400LL, "%Y%m%d%H%M");
    return record;
}

namespace {

// Whether a connection to the command socket is accepted. The daemon binds
// the socket before it listens; only a listening socket takes clients. The
// probe sends nothing, which the daemon takes as a request of no known type
// and closes.
bool Listening() {
    const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    const sockaddr_un address = UnixAddress(kCommandSocket);
    const bool accepted = connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    close(fd);
    return accepted;
}

} // namespace

bool StartDaemon(ChildProcess& daemon, const std::string& outputPath, const std::map<std::string, std::string>& env) {
    return StartDaemon(daemon, ChildProcess::DaemonCommand(), outputPath, env);
}

bool StartDaemon(ChildProcess& daemon, const std::vector<std::string>& command, const std::string& outputPath,
                 const std::map<std::string, std::string>& env) {
    ::unlink(kCommandSocket);
    if (!daemon.Start(command, outputPath, env)) {
        ADD_FAILURE() << "cannot start the daemon";
        return false;
    }
    const bool serving = WaitFor(
        [] {
            struct stat info;
            return stat(kCommandSocket, &info) == 0 && S_ISSOCK(info.st_mode) && Listening();
        },
        10000);
    if (!serving) ADD_FAILURE() << "the daemon's command socket did not appear\n" << ReadFile(outputPath);
    return serving;
}

} // namespace test
} // namespace brvo
