#include "support/CommandClient.h"

#include "server/CommandWire.h"

#include <gtest/gtest.h>

#include <cstring>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <vector>

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
    return CommandWire::EncodeCapacityBlock(value);
}

double PowerOf(const std::string& answer) {
    CommandWire::TargetPowerReply reply;
    return CommandWire::DecodeTargetPowerAnswer(answer, reply) ? reply.power : -1;
}

std::string Request(std::int32_t type, const std::string& params) {
    return CommandWire::EncodeRequest(type, params);
}

std::string TargetPowerAnswer(std::int32_t type, double power, const std::string& timeText) {
    const std::vector<unsigned char> answer = CommandWire::EncodeTargetPowerAnswer(type, power, timeText, 0, "");
    return std::string(answer.begin(), answer.end());
}

std::string UpdateAnswer(std::int32_t type, std::int32_t reason, std::int32_t status, const std::string& message) {
    const std::vector<unsigned char> answer = CommandWire::EncodeUpdateAnswer(type, reason, status, message);
    return std::string(answer.begin(), answer.end());
}

std::string FlushAnswer() {
    const std::vector<unsigned char> answer = CommandWire::EncodeFlushAnswer();
    return std::string(answer.begin(), answer.end());
}

sockaddr_un UnixAddress(const std::string& path) {
    sockaddr_un address;
    std::memset(&address, 0, sizeof address);
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    return address;
}

int Connect(const std::string& socketPath) {
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return -1;
    const sockaddr_un address = UnixAddress(socketPath);
    if (connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

namespace {

// Everything `fd` delivers until its end; `complete` says whether the end
// came (rather than `timeoutMs` without a byte, or a read error).
std::string ReadAll(int fd, int timeoutMs, bool& complete) {
    complete = false;
    std::string answer;
    char buffer[512];
    for (;;) {
        pollfd in = {fd, POLLIN, 0};
        if (poll(&in, 1, timeoutMs) <= 0) break;
        const ssize_t n = read(fd, buffer, sizeof buffer);
        if (n <= 0) {
            complete = n == 0;
            break;
        }
        answer.append(buffer, static_cast<std::size_t>(n));
    }
    return answer;
}

} // namespace

bool Exchange(const std::string& socketPath, const std::string& request, std::string& answer, int timeoutMs) {
    answer.clear();
    const int fd = Connect(socketPath);
    if (fd < 0) return false;
    bool complete = false;
    if (write(fd, request.data(), request.size()) == static_cast<ssize_t>(request.size())) {
        answer = ReadAll(fd, timeoutMs, complete);
    }
    close(fd);
    return complete;
}

std::string Ask(const std::string& socketPath, std::int32_t type, const std::string& params) {
    const int fd = Connect(socketPath);
    if (fd < 0) {
        ADD_FAILURE() << "cannot connect to the daemon at " << socketPath;
        return std::string();
    }
    const std::string request = Request(type, params);
    EXPECT_EQ(static_cast<ssize_t>(request.size()), write(fd, request.data(), request.size()));
    bool complete = false;
    const std::string answer = ReadAll(fd, 30000, complete);
    close(fd);
    return answer;
}

} // namespace test
} // namespace brvo
