// Tells whether settings files may have changed since they were last read,
// without reading them: the kernel reports every change of a watched file,
// of the directories on its path and of the mount table. A request then
// pays one poll instead of opening and reading each file.
//
// Contract: content read after Arm(path) returned generation G is still
// what `path` holds while Unchanged(G) is true. Anything the watch cannot
// vouch for (a symbolic link on the path, a file system whose changes the
// kernel may not see, no free watch) gets no generation and must be read
// every time. Writes through a shared memory mapping are not reported by
// the kernel; settings are written with write() or replaced by rename().
#ifndef BRVO_UTIL_FILECHANGEWATCH_H
#define BRVO_UTIL_FILECHANGEWATCH_H

#include <Poco/Mutex.h>

#include <cstdint>
#include <string>

namespace brvo {

class FileChangeWatch {
public:
    // Generation handed out when a path cannot be watched; never unchanged.
    static constexpr std::int64_t kNotWatched = -1;

    // The process-wide watch, set up on first use.
    static FileChangeWatch& Instance();

    // Watches `path` (which need not exist) and every directory above it.
    // Call before reading the file; returns the generation to keep with the
    // content read next, or kNotWatched.
    std::int64_t Arm(const std::string& path);

    // True if nothing watched has changed since `generation` was handed
    // out; false for kNotWatched, or when the watch itself failed.
    bool Unchanged(std::int64_t generation);

    FileChangeWatch(const FileChangeWatch&) = delete;
    FileChangeWatch& operator=(const FileChangeWatch&) = delete;

private:
    FileChangeWatch();
    // Never destroyed: a worker still answering while the process exits
    // must not find the watch gone. The kernel closes its descriptors.
    ~FileChangeWatch() = delete;

    // Takes every pending report; a report moves the generation on.
    // Called with the mutex held.
    void Drain();
    // Adds the watches of `path`; false if it cannot be vouched for.
    bool AddWatches(const std::string& path);
    // Adds one watch for `events`; false if the file system or the kernel
    // refuses.
    bool WatchOne(const std::string& path, std::uint32_t events);
    // Whether changes on the file system holding `path` reach inotify.
    static bool LocalFileSystem(const std::string& path);

    Poco::FastMutex mutex_;
    int inotifyFd_;
    int mountsFd_;
    bool broken_;
    std::int64_t generation_;
};

} // namespace brvo

#endif
