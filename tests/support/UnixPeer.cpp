#include "support/UnixPeer.h"

#include "support/CommandClient.h"
#include <gtest/gtest.h>

#include <cstring>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace brvo {
namespace test {

UnixPeer::UnixPeer(const std::string& path, Mode mode, const std::string& reply, std::size_t readBytes)
    : path_(path), mode_(mode), reply_(reply), readBytes_(readBytes), listenFd_(-1), stop_(false), connections_(0) {
    listenFd_ = socket(AF_UNIX, SOCK_STREAM, 0);
    const sockaddr_un address = UnixAddress(path);
    unlink(path.c_str());
    if (bind(listenFd_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        listen(listenFd_, 16) != 0) {
        ADD_FAILURE() << "peer cannot listen on " << path;
    }
    thread_.start(*this);
}

UnixPeer::~UnixPeer() {
    stop_ = true;
    thread_.join();
    for (int fd : open_) close(fd);
    close(listenFd_);
}

std::vector<std::string> UnixPeer::Received() const {
    Poco::FastMutex::ScopedLock lock(mutex_);
    return received_;
}

void UnixPeer::run() {
    while (!stop_) {
        pollfd wait = {listenFd_, POLLIN, 0};
        if (poll(&wait, 1, 50) <= 0) continue;
        const int fd = accept(listenFd_, nullptr, nullptr);
        if (fd < 0) continue;
        ++connections_;
        if (mode_ == kCloseAtOnce) {
            close(fd);
            continue;
        }
        std::string got;
        char buffer[256];
        while (got.size() < readBytes_) {
            pollfd in = {fd, POLLIN, 0};
            if (poll(&in, 1, 2000) <= 0) break;
            const ssize_t n = read(fd, buffer, std::min(sizeof buffer, readBytes_ - got.size()));
            if (n <= 0) break;
            got.append(buffer, static_cast<std::size_t>(n));
        }
        {
            Poco::FastMutex::ScopedLock lock(mutex_);
            received_.push_back(got);
        }
        if (mode_ == kSilent) {
            open_.push_back(fd);
            continue;
        }
        if (!reply_.empty()) {
            ssize_t ignored = write(fd, reply_.data(), reply_.size());
            (void)ignored;
        }
        close(fd);
    }
}

} // namespace test
} // namespace brvo
