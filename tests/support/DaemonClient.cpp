#include "support/DaemonClient.h"

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

std::string Word(std::int32_t value) {
    std::string text(4, '\0');
    std::memcpy(&text[0], &value, 4);
    return text;
}

std::int32_t WordAt(const std::string& data, std::size_t offset) {
    std::int32_t value = 0;
    if (data.size() >= offset + 4) std::memcpy(&value, data.data() + offset, 4);
    return value;
}

std::string Field(const std::string& text, std::size_t size) {
    std::string field = text.substr(0, size);
    field.resize(size, '\0');
    return field;
}

std::string Capacity(double value) {
    std::string bytes(8, '\0');
    std::memcpy(&bytes[0], &value, 8);
    return bytes;
}

double PowerOf(const std::string& answer) {
    double value = -1;
    if (answer.size() >= 16) std::memcpy(&value, answer.data() + 8, 8);
    return value;
}

int SendRequest(std::int32_t type, const std::string& params) {
    const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address;
    std::memset(&address, 0, sizeof address);
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, kCommandSocket.c_str(), sizeof address.sun_path - 1);
    if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        close(fd);
        ADD_FAILURE() << "cannot connect to the daemon";
        return -1;
    }
    const std::string request = Word(static_cast<std::int32_t>(8 + params.size())) + Word(type) + params;
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

std::string ScheduleAnswer(const ScheduleRecord& record, int kind) {
    const std::string payload = BytesText(BuildSchedulePayload({record}, kind).bytes);
    return HttpTestServer::Answer(200, MultipartContentType("b"), BinaryPartBody("b", payload));
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

void WriteSystemSetting(const std::string& plantId, const std::string& url, bool standAlone) {
    WriteFile(SystemSettingPath(),
              "<logger><general><outputControlPlantId>" + plantId +
                  "</outputControlPlantId><outputControlStandAlone>" + (standAlone ? "1" : "0") +
                  "</outputControlStandAlone><outputScheduleInformationServerUrl>" + url +
                  "</outputScheduleInformationServerUrl></general></logger>");
}

std::vector<std::vector<std::string>> StoredSchedule(const std::string& file) {
    return QueryFile(file, "SELECT time, controlRate, sent FROM output_control_schedule ORDER BY time");
}

std::vector<std::vector<std::string>> StoredUpdateInfo(const std::string& file) {
    return QueryFile(file, "SELECT * FROM output_control_schedule_update_info ORDER BY plantId");
}

namespace {

// Whether a connection to the command socket is accepted. The daemon binds
// the socket before it listens; only a listening socket takes clients. The
// probe sends nothing, which the daemon takes as a request of no known type
// and closes.
bool Listening() {
    const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address;
    std::memset(&address, 0, sizeof address);
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, kCommandSocket.c_str(), sizeof address.sun_path - 1);
    const bool accepted = connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    close(fd);
    return accepted;
}

} // namespace

bool StartDaemon(ChildProcess& daemon, const std::string& outputPath,
                 const std::map<std::string, std::string>& env) {
    ::unlink(kCommandSocket.c_str());
    if (!daemon.Start(ChildProcess::DaemonCommand(), outputPath, env)) {
        ADD_FAILURE() << "cannot start the daemon";
        return false;
    }
    const bool serving = WaitFor([] {
        struct stat info;
        return stat(kCommandSocket.c_str(), &info) == 0 && S_ISSOCK(info.st_mode) && Listening();
    }, static_cast<int>(10000 * TimeScale()));
    if (!serving) ADD_FAILURE() << "the daemon's command socket did not appear\n" << ReadFile(outputPath);
    return serving;
}

} // namespace test
} // namespace brvo
