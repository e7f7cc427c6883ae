#include "client/BrvfdAccessRequest.h"

#include "client/BrvfdAccessRequestCallback.h"
#include "settings/LoggerSettingManager.h"
#include "util/GuardedCall.h"
#include "util/LoggerLog.h"
#include "util/ScopedLock.h"

#include <cerrno>
#include <cstring>
#include <string>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

namespace brvo {

namespace {

const std::string kTag = "BrvfdAccessRequest";

// Exchange steps that end early, with the status they report.
const int kStatusSent = 0;
const int kStatusSocket = 1;
const int kStatusConnect = 2;
const int kStatusCommand = 3;
const int kStatusWrite = 4;
const int kStatusRead = 5;
const int kStatusException = 6;

std::string LoggerSocketPath() {
    return LoggerSettingManager::Current().GetLoggerSocketPath();
}

// The send and receive time-out of the exchange; never 0, which the socket
// takes as no time-out at all, nor below, which it takes as no wait at all.
int TimeoutSeconds() {
    return LoggerSettingManager::Current().GetBoundedSocketTimeout();
}

// The command in the device's byte order: total length 8, then the command
// byte and three zero bytes.
void BuildCommand(unsigned char* buffer, std::int32_t command) {
    const std::uint32_t length = BrvfdAccessRequest::kCommandSize;
    std::memcpy(buffer, &length, sizeof length);
    buffer[4] = static_cast<unsigned char>(command);
}

} // namespace

BrvfdAccessRequest::BrvfdAccessRequest(BrvfdAccessRequestCallback* callback)
    : callback_(callback), replyIgnored_(false), command_(0), fd_(-1), aborted_(false) {}

BrvfdAccessRequest::~BrvfdAccessRequest() {}

void BrvfdAccessRequest::SetCommand(int command) {
    command_ = command;
}

void BrvfdAccessRequest::SetReplyIgnored(bool ignored) {
    replyIgnored_ = ignored;
}

void BrvfdAccessRequest::Abort() {
    ScopedLock lock(abortMutex_);
    aborted_ = true;
    if (fd_ >= 0) shutdown(fd_, SHUT_RDWR);
}

// Makes `fd` the connection Abort shuts down; false when the exchange was
// aborted already.
bool BrvfdAccessRequest::Track(int fd) {
    ScopedLock lock(abortMutex_);
    if (aborted_) return false;
    fd_ = fd;
    return true;
}

// Called before the connection is closed, so that Abort never shuts down a
// descriptor that was closed and reused.
void BrvfdAccessRequest::Untrack() {
    ScopedLock lock(abortMutex_);
    fd_ = -1;
}

void BrvfdAccessRequest::Report(int status, const unsigned char* reply) {
    if (callback_ != nullptr) callback_->OnResult(status, reply);
}

void BrvfdAccessRequest::Execute() {
    LoggerLog::Debug(kTag, "Execute");
    int fd = -1;
    const Caught caught = GuardedCall([&] {
        errno = 1;
        fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (fd < 0) {
            Report(kStatusSocket, nullptr);
            return;
        }
        if (!Track(fd)) {
            close(fd);
            Report(kStatusConnect, nullptr);
            return;
        }
        unsigned char reply[kReplySize] = {0};
        int status = Exchange(fd, reply);
        Untrack();
        close(fd);
        fd = -1;
        // A reply cut short by Abort is not the logger daemon's answer.
        if (status == kStatusSent && aborted_) status = kStatusRead;
        if (status != kStatusSent) {
            Report(status, nullptr);
        } else if (!replyIgnored_) {
            Report(kStatusSent, reply);
        }
    });
    if (!caught) return;
    Untrack();
    if (fd >= 0) close(fd);
    LoggerLog::Error(kTag, "send error");
    Report(kStatusException, nullptr);
}

// Connects, sends the command and reads the reply into `reply`; returns the
// status to report. A peer that closes early leaves the rest of the reply
// zero; one that never answers fails the read after the receive time-out.
int BrvfdAccessRequest::Exchange(int fd, unsigned char* reply) {
    timeval timeout;
    timeout.tv_sec = TimeoutSeconds();
    timeout.tv_usec = 0;
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout);
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);

    sockaddr_un address;
    std::memset(&address, 0, sizeof address);
    address.sun_family = AF_UNIX;
    const std::string path = LoggerSocketPath();
    // A path too long for the address cannot name the logger daemon's
    // socket: treated as a failed connect rather than cut to another name.
    if (path.size() >= sizeof address.sun_path) return kStatusConnect;
    std::memcpy(address.sun_path, path.data(), path.size());
    if (connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        return kStatusConnect;
    }
    if (command_ != kCommandScheduleUpdated) return kStatusCommand;

    unsigned char command[kCommandSize] = {0};
    BuildCommand(command, command_);
    // Every call starts again at the head of the command: eight bytes always
    // go out in one call on a local socket. MSG_NOSIGNAL keeps a logger
    // daemon that hung up from killing this one with SIGPIPE; the failed
    // write is reported instead.
    std::size_t remaining = kCommandSize;
    while (remaining != 0) {
        const ssize_t written = send(fd, command, remaining, MSG_NOSIGNAL);
        if (written < 0) return kStatusWrite;
        remaining -= static_cast<std::size_t>(written);
    }

    LoggerLog::Debug(kTag, "read");
    std::size_t received = 0;
    while (received < kReplySize) {
        const ssize_t got = read(fd, reply + received, kReplySize - received);
        if (got < 0) return kStatusRead;
        if (got == 0) break;
        received += static_cast<std::size_t>(got);
    }
    return kStatusSent;
}

} // namespace brvo
