#include "util/FileChangeWatch.h"

#include "util/ScopedLock.h"

#include <cerrno>
#include <fcntl.h>
#include <poll.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

namespace brvo {

namespace {

// A change of the file's content, its permissions, or the file itself
// going away or being renamed.
const std::uint32_t kFileEvents = IN_MODIFY | IN_ATTRIB | IN_CLOSE_WRITE | IN_DELETE_SELF | IN_MOVE_SELF;
// An entry created, removed or renamed in a directory on the path (which
// includes replacing the file or a directory below), its permissions, or
// the directory itself going away or being renamed. Reading files raises
// none of these, so the daemon's own reads never count as a change.
const std::uint32_t kDirectoryEvents =
    IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO | IN_ATTRIB | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;

// File systems whose every change passes through this kernel's VFS, so
// that inotify reports it. Network and layered file systems are not here.
const std::uint32_t kLocalFileSystems[] = {
    0x01021994, // tmpfs
    0xEF53,     // ext2, ext3, ext4
    0x24051905, // ubifs
    0x72b6,     // jffs2
    0xF2F52010, // f2fs
    0x9123683E, // btrfs
    0x58465342, // xfs
    0x4d44,     // vfat
    0x2011BAB0, // exfat
    0x794c7630, // overlayfs, changed through the overlay (changing its
                // layers under a mounted overlay is unsupported anyway)
};

} // namespace

FileChangeWatch& FileChangeWatch::Instance() {
    static FileChangeWatch* const watch = new FileChangeWatch();
    return *watch;
}

FileChangeWatch::FileChangeWatch()
    : inotifyFd_(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC)),
      mountsFd_(::open("/proc/self/mountinfo", O_RDONLY | O_CLOEXEC)), broken_(inotifyFd_ < 0 || mountsFd_ < 0),
      generation_(0) {}

std::int64_t FileChangeWatch::Arm(const std::string& path) {
    ScopedLock lock(mutex_);
    Drain();
    if (broken_ || !AddWatches(path)) return kNotWatched;
    return generation_.load(std::memory_order_acquire);
}

void FileChangeWatch::Descriptors(int& inotify, int& mounts) const {
    ScopedLock lock(mutex_);
    inotify = broken_ ? -1 : inotifyFd_;
    mounts = broken_ ? -1 : mountsFd_;
}

bool FileChangeWatch::Unchanged(std::int64_t generation) {
    if (generation == kNotWatched) return false;
    ScopedLock lock(mutex_);
    Drain();
    return !broken_ && generation == generation_.load(std::memory_order_acquire);
}

// A mount or unmount anywhere (one over a settings directory hides the
// files below it without any inotify report) shows as POLLPRI on the mount
// table. Any inotify report at all, an overflowed queue or a dropped watch
// included, counts as a change: reading a file again costs little.
void FileChangeWatch::Drain() {
    if (broken_) return;
    pollfd fds[2] = {{inotifyFd_, POLLIN, 0}, {mountsFd_, POLLPRI, 0}};
    const int ready = ::poll(fds, 2, 0);
    if (ready < 0) {
        if (errno != EINTR) broken_ = true;
        ++generation_;
        return;
    }
    if (ready == 0) return;
    if (fds[1].revents & (POLLPRI | POLLERR)) ++generation_;
    if (fds[0].revents & POLLIN) {
        alignas(inotify_event) char buffer[4096];
        while (::read(inotifyFd_, buffer, sizeof buffer) > 0) {
        }
        ++generation_;
    }
    if ((fds[0].revents & (POLLERR | POLLNVAL)) || (fds[1].revents & POLLNVAL)) broken_ = true;
}

// Watches "/" and every directory down to the file, then the file, top
// down: a directory replaced after its parent is watched shows in the
// parent. Below a missing directory nothing is watched; the deepest one
// that exists sees it appear. A path through a symbolic link is refused: a
// change above the link's target would not be seen.
bool FileChangeWatch::AddWatches(const std::string& path) {
    if (path.empty() || path[0] != '/' || path.back() == '/' || path.find("/.") != std::string::npos ||
        path.find("//") != std::string::npos) {
        return false;
    }
    if (!WatchOne("/", kDirectoryEvents)) return false;
    std::size_t slash = 0;
    while (slash != std::string::npos) {
        const std::size_t next = path.find('/', slash + 1);
        const std::string component = path.substr(0, next);
        struct stat info;
        if (::lstat(component.c_str(), &info) != 0) return errno == ENOENT;
        if (S_ISLNK(info.st_mode)) return false;
        if (!WatchOne(component, next == std::string::npos ? kFileEvents : kDirectoryEvents)) return false;
        slash = next;
    }
    return true;
}

bool FileChangeWatch::WatchOne(const std::string& path, std::uint32_t events) {
    return LocalFileSystem(path) && ::inotify_add_watch(inotifyFd_, path.c_str(), events | IN_DONT_FOLLOW) >= 0;
}

bool FileChangeWatch::LocalFileSystem(const std::string& path) {
    struct statfs info;
    if (::statfs(path.c_str(), &info) != 0) return false;
    for (const std::uint32_t type : kLocalFileSystems) {
        if (static_cast<std::uint32_t>(info.f_type) == type) return true;
    }
    return false;
}

} // namespace brvo
