#include "support/NotifyListener.h"

#include "support/TestFiles.h"

#include <gtest/gtest.h>

#include <Poco/Timestamp.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace brvo {
namespace test {

NotifyListener::NotifyListener(const std::string& path) : path_(path), fd_(-1) {
    unlink(path_.c_str());
    sockaddr_un address;
    std::memset(&address, 0, sizeof address);
    address.sun_family = AF_UNIX;
    if (path_.size() >= sizeof address.sun_path) {
        ADD_FAILURE() << "notify socket path too long: " << path_;
        return;
    }
    std::memcpy(address.sun_path, path_.data(), path_.size());
    fd_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd_ < 0 || bind(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        ADD_FAILURE() << "cannot bind the notify socket " << path_ << ": " << std::strerror(errno);
    }
}

NotifyListener::~NotifyListener() {
    if (fd_ >= 0) close(fd_);
    unlink(path_.c_str());
}

bool NotifyListener::ReceiveOne(int waitMs) {
    if (fd_ < 0) return false;
    pollfd ready = {fd_, POLLIN, 0};
    if (poll(&ready, 1, waitMs) <= 0) return false;
    char buffer[4096];
    const ssize_t n = recv(fd_, buffer, sizeof buffer, MSG_DONTWAIT);
    if (n < 0) return false;
    // One datagram may carry several lines ("READY=1\nSTATUS=...").
    std::string datagram(buffer, static_cast<std::size_t>(n));
    std::size_t start = 0;
    while (start < datagram.size()) {
        std::size_t end = datagram.find('\n', start);
        if (end == std::string::npos) end = datagram.size();
        if (end > start) messages_.push_back(datagram.substr(start, end - start));
        start = end + 1;
    }
    return true;
}

void NotifyListener::Drain() {
    while (ReceiveOne(0)) {
    }
}

int NotifyListener::Count(const std::string& message) const {
    int count = 0;
    for (const std::string& received : messages_) count += received == message ? 1 : 0;
    return count;
}

std::vector<std::string> NotifyListener::Starting(const std::string& prefix) const {
    std::vector<std::string> found;
    for (const std::string& received : messages_) {
        if (received.compare(0, prefix.size(), prefix) == 0) found.push_back(received);
    }
    return found;
}

bool NotifyListener::WaitUntil(const std::function<bool(const std::vector<std::string>&)>& condition, int timeoutMs) {
    const Poco::Timestamp::TimeDiff limitUs = static_cast<Poco::Timestamp::TimeDiff>(timeoutMs) * 1000 * TimeScale();
    const Poco::Timestamp started;
    Drain();
    while (!condition(messages_)) {
        const Poco::Timestamp::TimeDiff leftUs = limitUs - started.elapsed();
        if (leftUs <= 0) return false;
        ReceiveOne(static_cast<int>(std::min<Poco::Timestamp::TimeDiff>(leftUs / 1000 + 1, 100)));
    }
    return true;
}

bool NotifyListener::WaitFor(const std::string& message, int timeoutMs, int times) {
    return WaitUntil([&](const std::vector<std::string>&) { return Count(message) >= times; }, timeoutMs);
}

} // namespace test
} // namespace brvo
