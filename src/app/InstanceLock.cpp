#include "app/InstanceLock.h"

#include "util/FileUtil.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

namespace brvo {

namespace {

const mode_t kLockFileMode = 0644;

} // namespace

const char InstanceLock::kSuffix[] = ".lock";

InstanceLock::InstanceLock() : fd_(-1), error_(0) {}

InstanceLock::~InstanceLock() {
    if (fd_ >= 0) close(fd_);
}

InstanceLock::Outcome InstanceLock::Acquire(const std::string& socketPath) {
    if (fd_ >= 0) return kAcquired;
    path_ = socketPath + kSuffix;
    error_ = 0;
    const std::string directory = FileUtil::GetDirectory(path_);
    if (!directory.empty() && !FileUtil::Exists(directory)) FileUtil::CreateDirectory(directory, true);
    const int fd = open(path_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOCTTY, kLockFileMode);
    if (fd < 0) {
        error_ = errno;
        return kUnavailable;
    }
    if (flock(fd, LOCK_EX | LOCK_NB) != 0) {
        const int error = errno;
        close(fd);
        if (error == EWOULDBLOCK) return kHeldElsewhere;
        error_ = error;
        return kUnavailable;
    }
    fd_ = fd;
    return kAcquired;
}

} // namespace brvo
