#include "CommandSocket.h"

#include <cerrno>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

namespace brvo {

namespace {

// Longest wait for a place in the daemon's listen queue.
const int kConnectTimeoutSeconds = 5;

// A connected socket, or -1 with `error` set.
int Connect(const std::string& path, std::string& error) {
    sockaddr_un address;
    std::memset(&address, 0, sizeof address);
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) {
        error = "socket path too long: " + path;
        return -1;
    }
    std::memcpy(address.sun_path, path.data(), path.size());
    const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    // A daemon whose accepting thread is stuck fills its listen queue, and
    // connect would then wait for ever: the very case a status check is
    // for. The send time-out bounds that wait.
    const timeval connectTimeout = {kConnectTimeoutSeconds, 0};
    if (fd >= 0) setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &connectTimeout, sizeof connectTimeout);
    if (fd < 0 || connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        error = "cannot connect to pvocd at " + path + ": " + std::strerror(errno) + " (is the daemon running?)";
        if (fd >= 0) close(fd);
        return -1;
    }
    return fd;
}

std::string ReadAll(int fd, int timeoutMs, std::string& error) {
    std::string answer;
    char buffer[512];
    for (;;) {
        pollfd in = {fd, POLLIN, 0};
        const int ready = poll(&in, 1, timeoutMs);
        if (ready == 0) {
            const int seconds = timeoutMs / 1000;
            error = seconds * 1000 == timeoutMs ? "pvocd did not answer within " + std::to_string(seconds) + " s"
                                                : "pvocd did not answer within " + std::to_string(timeoutMs) + " ms";
            break;
        }
        if (ready < 0) break;
        const ssize_t n = read(fd, buffer, sizeof buffer);
        if (n <= 0) break;
        answer.append(buffer, static_cast<std::size_t>(n));
    }
    return answer;
}

} // namespace

std::string CommandSocket::Exchange(const std::string& path, const std::string& request, int timeoutMs,
                                    std::string& error) {
    const int fd = Connect(path, error);
    if (fd < 0) return std::string();
    if (send(fd, request.data(), request.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(request.size())) {
        error = errno == EPIPE || errno == ECONNRESET ? std::string("pvocd closed the connection without an answer")
                                                      : std::string("cannot send the request: ") + std::strerror(errno);
        close(fd);
        return std::string();
    }
    const std::string answer = ReadAll(fd, timeoutMs, error);
    close(fd);
    if (answer.empty() && error.empty()) error = "pvocd closed the connection without an answer";
    return answer;
}

} // namespace brvo
