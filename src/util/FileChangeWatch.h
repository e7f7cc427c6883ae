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
//
// A thread that must not wait on the watch's lock (the command server's
// event loop) may ask Descriptors() for reports itself, by polling them
// without reading (the reports stay for the readers to take). When one
// shows, it calls NoteReported, and Generation() tells it, without a lock,
// whether anything has been seen since a generation was handed out.
#ifndef BRVO_UTIL_FILECHANGEWATCH_H
#define BRVO_UTIL_FILECHANGEWATCH_H

#include "util/Mutex.h"
#include "util/ThreadAnnotations.h"

#include <atomic>
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
    std::int64_t Arm(const std::string& path) EXCLUDES(mutex_);

    // True if nothing watched has changed since `generation` was handed
    // out; false for kNotWatched, or when the watch itself failed.
    bool Unchanged(std::int64_t generation) EXCLUDES(mutex_);

    // The generation now, without a lock and without taking reports: it
    // moves on with every report taken or noted. Never kNotWatched.
    std::int64_t Generation() const { return generation_.load(std::memory_order_acquire); }
    // Counts a report seen on Descriptors() by a thread that does not take
    // reports itself: moves the generation on.
    void NoteReported() { generation_.fetch_add(1, std::memory_order_acq_rel); }
    // The descriptors that become readable (the inotify queue) or report
    // an exceptional condition (the mount table) when something watched
    // changes; -1 each when the watch is broken. They stay open for the
    // life of the process.
    void Descriptors(int& inotify, int& mounts) const EXCLUDES(mutex_);

    FileChangeWatch(const FileChangeWatch&) = delete;
    FileChangeWatch& operator=(const FileChangeWatch&) = delete;

private:
    FileChangeWatch();
    // Never destroyed: a worker still answering while the process exits
    // must not find the watch gone. The kernel closes its descriptors.
    ~FileChangeWatch() = delete;

    // Takes every pending report; a report moves the generation on.
    // Called with the mutex held.
    void Drain() REQUIRES(mutex_);
    // Adds the watches of `path`; false if it cannot be vouched for.
    bool AddWatches(const std::string& path) REQUIRES(mutex_);
    // Adds one watch for `events`; false if the file system or the kernel
    // refuses.
    bool WatchOne(const std::string& path, std::uint32_t events) REQUIRES(mutex_);
    // Whether changes on the file system holding `path` reach inotify.
    static bool LocalFileSystem(const std::string& path);

    mutable Mutex mutex_;
    // Opened by the constructor, never closed.
    int inotifyFd_;
    int mountsFd_;
    bool broken_ GUARDED_BY(mutex_);
    // Moved on under mutex_ by Drain, and without it by NoteReported.
    std::atomic<std::int64_t> generation_;
};

} // namespace brvo

#endif
