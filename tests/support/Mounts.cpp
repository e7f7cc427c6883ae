#include "support/Mounts.h"

#include <gtest/gtest.h>

#include <Poco/File.h>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/mount.h>
#include <unistd.h>

namespace brvo {
namespace test {

bool MountTmpfs(const std::string& directory, const std::string& options, bool readOnly) {
    Poco::File(directory).createDirectories();
    const unsigned long flags = readOnly ? MS_RDONLY : 0;
    if (::mount("pvoc-fault", directory.c_str(), "tmpfs", flags, options.c_str()) != 0) {
        ADD_FAILURE() << "cannot mount a tmpfs on " << directory << ": " << std::strerror(errno);
        return false;
    }
    return true;
}

bool MakeReadOnly(const std::string& directory) {
    if (::mount(directory.c_str(), directory.c_str(), nullptr, MS_BIND, nullptr) != 0 ||
        ::mount(nullptr, directory.c_str(), nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr) != 0) {
        ADD_FAILURE() << "cannot make " << directory << " read-only: " << std::strerror(errno);
        return false;
    }
    return true;
}

bool BindMount(const std::string& source, const std::string& target) {
    if (::mount(source.c_str(), target.c_str(), nullptr, MS_BIND, nullptr) != 0) {
        ADD_FAILURE() << "cannot bind " << source << " over " << target << ": " << std::strerror(errno);
        return false;
    }
    return true;
}

bool Unmount(const std::string& directory) {
    if (::umount2(directory.c_str(), 0) != 0) {
        ADD_FAILURE() << "cannot unmount " << directory << ": " << std::strerror(errno);
        return false;
    }
    return true;
}

bool UnmountLazily(const std::string& directory) {
    if (::umount2(directory.c_str(), MNT_DETACH) != 0) {
        ADD_FAILURE() << "cannot detach " << directory << ": " << std::strerror(errno);
        return false;
    }
    return true;
}

std::string FillFileSystem(const std::string& directory, const std::string& name) {
    const std::string path = directory + "/" + name;
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (fd < 0) {
        ADD_FAILURE() << "cannot create " << path << ": " << std::strerror(errno);
        return path;
    }
    // Large blocks first, then single bytes for what is left of the last
    // page. Bounded: a file system that never fills ends the test.
    const std::string block(65536, 'f');
    std::size_t size = block.size();
    for (int rounds = 0; rounds < 100000 && size > 0; ++rounds) {
        const ssize_t written = ::write(fd, block.data(), size);
        if (written < 0) {
            if (errno != ENOSPC) break;
            size /= 2;
        }
    }
    ::close(fd);
    EXPECT_EQ(0u, size) << path << " did not fill its file system";
    return path;
}

} // namespace test
} // namespace brvo
