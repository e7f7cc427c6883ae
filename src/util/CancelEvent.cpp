#include "util/CancelEvent.h"

#include <Poco/Clock.h>
#include <Poco/Thread.h>

#include <algorithm>
#include <cerrno>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

namespace brvo {

namespace {

// Longest single poll, and the step of a wait without an eventfd.
const std::int64_t kLongestPollMs = 1000000;
const std::int64_t kFallbackStepMs = 50;

} // namespace

CancelEvent::CancelEvent() : fd_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)), set_(false) {}

CancelEvent::~CancelEvent() {
    if (fd_ >= 0) close(fd_);
}

void CancelEvent::Set() {
    set_ = true;
    if (fd_ < 0) return;
    // Never read back: the descriptor stays readable, which is what keeps
    // the event set for every later wait.
    const std::uint64_t one = 1;
    const int savedErrno = errno;
    ssize_t ignored = write(fd_, &one, sizeof one);
    (void)ignored;
    errno = savedErrno;
}

bool CancelEvent::Wait(std::int64_t ms) const {
    const Poco::Clock start;
    for (;;) {
        if (set_) return true;
        const std::int64_t left = ms - start.elapsed() / 1000;
        if (left <= 0) return false;
        if (fd_ < 0) {
            Poco::Thread::sleep(static_cast<long>(std::min(left, kFallbackStepMs)));
            continue;
        }
        pollfd wait = {fd_, POLLIN, 0};
        poll(&wait, 1, static_cast<int>(std::min(left, kLongestPollMs)));
    }
}

} // namespace brvo
