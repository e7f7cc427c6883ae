// Keeps a second pvocd from taking over the command socket of a running
// one: an exclusive lock on a file beside the socket, held for the life of
// the process. The kernel drops the lock when the holder dies in any way,
// so a daemon that crashed never blocks the next start.
#ifndef BRVO_APP_INSTANCELOCK_H
#define BRVO_APP_INSTANCELOCK_H

#include <string>

namespace brvo {

class InstanceLock {
public:
    // How an Acquire ended.
    enum Outcome { kAcquired, kHeldElsewhere, kUnavailable };

    // The lock file's suffix after the command socket's path.
    static const char kSuffix[];

    InstanceLock();
    // Closes the lock file, which releases the lock.
    ~InstanceLock();

    // Creates the socket's directory if missing, opens (creating, 0644) the
    // lock file `socketPath` + kSuffix and takes the lock without waiting.
    // kHeldElsewhere when another process holds it; kUnavailable when the
    // file cannot be opened or locked for another reason (see Error). A
    // second call after kAcquired returns kAcquired.
    Outcome Acquire(const std::string& socketPath);

    // The lock file's path of the last Acquire.
    const std::string& GetPath() const { return path_; }
    // The errno of a kUnavailable outcome, else 0.
    int GetError() const { return error_; }

private:
    InstanceLock(const InstanceLock&) = delete;
    InstanceLock& operator=(const InstanceLock&) = delete;

    int fd_;
    std::string path_;
    int error_;
};

} // namespace brvo

#endif
