#include "sim/CardStorage.h"

#include <Poco/File.h>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/mount.h>
#include <unistd.h>

namespace brvo {
namespace sim {

namespace {

// Room for the years of rows a seed stores, several times over.
const char kCardOptions[] = "size=16m,mode=0755";
const std::size_t kBlock = 65536;
// Bounded: a file system that never fills ends the attempt.
const int kMostWrites = 100000;

bool Failed(std::string& error, const std::string& what) {
    error = what + ": " + std::strerror(errno);
    return false;
}

} // namespace

CardStorage::CardStorage(const std::string& directory) : directory_(directory), state_(State::kUnmounted) {}

CardStorage::~CardStorage() {
    std::string ignored;
    Unmount(ignored);
}

std::string CardStorage::FillerPath() const {
    return directory_ + "/.filler";
}

bool CardStorage::Mount(std::string& error) {
    if (state_ != State::kUnmounted && !Unmount(error)) return false;
    Poco::File(directory_).createDirectories();
    if (::mount("pvoc-sim-card", directory_.c_str(), "tmpfs", 0, kCardOptions) != 0) {
        return Failed(error, "cannot mount a tmpfs on " + directory_);
    }
    state_ = State::kWritable;
    return true;
}

bool CardStorage::Unmount(std::string& error) {
    if (state_ == State::kUnmounted) return true;
    if (state_ == State::kReadOnly && ::umount2(directory_.c_str(), MNT_DETACH) != 0) {
        return Failed(error, "cannot unmount the read-only view of " + directory_);
    }
    if (::umount2(directory_.c_str(), MNT_DETACH) != 0) return Failed(error, "cannot unmount " + directory_);
    state_ = State::kUnmounted;
    return true;
}

// Large blocks first, then ever smaller ones for what is left of the last
// page.
bool CardStorage::Fill(std::string& error) {
    const int fd = ::open(FillerPath().c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (fd < 0) return Failed(error, "cannot create " + FillerPath());
    const std::string block(kBlock, 'f');
    std::size_t size = block.size();
    for (int writes = 0; writes < kMostWrites && size > 0; ++writes) {
        if (::write(fd, block.data(), size) >= 0) continue;
        if (errno != ENOSPC) break;
        size /= 2;
    }
    ::close(fd);
    if (size > 0) return Failed(error, directory_ + " did not fill up");
    state_ = State::kFull;
    return true;
}

bool CardStorage::MakeReadOnly(std::string& error) {
    const char* path = directory_.c_str();
    if (::mount(path, path, nullptr, MS_BIND, nullptr) != 0) return Failed(error, "cannot bind " + directory_);
    if (::mount(nullptr, path, nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr) != 0) {
        const std::string reason = std::strerror(errno);
        ::umount2(path, 0);
        error = "cannot make " + directory_ + " read-only: " + reason;
        return false;
    }
    state_ = State::kReadOnly;
    return true;
}

bool CardStorage::Mend(std::string& error) {
    if (state_ == State::kFull && ::unlink(FillerPath().c_str()) != 0) {
        return Failed(error, "cannot remove " + FillerPath());
    }
    // Detached: files opened through the view (by a restart while it
    // stood) stay open on it, read-only, as on a card remounted writable
    // under a program that opened its files while it was read-only.
    if (state_ == State::kReadOnly && ::umount2(directory_.c_str(), MNT_DETACH) != 0) {
        return Failed(error, "cannot unmount the read-only view of " + directory_);
    }
    if (state_ != State::kUnmounted) state_ = State::kWritable;
    return true;
}

} // namespace sim
} // namespace brvo
