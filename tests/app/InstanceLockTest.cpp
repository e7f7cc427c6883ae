#include "app/InstanceLock.h"

#include "support/TestFiles.h"

#include <gtest/gtest.h>

#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace brvo {
namespace {

const std::string kSocket = test::FixedPath("/mnt/system/pvoctrl-lock-test/brevanta.octrl");

// Whether a separate process (which opens the file anew) can take the lock
// beside kSocket now.
bool OtherProcessCanLock() {
    const pid_t child = fork();
    if (child == 0) {
        InstanceLock lock;
        _exit(lock.Acquire(kSocket) == InstanceLock::kAcquired ? 0 : 1);
    }
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

TEST(InstanceLockTest, CreatesTheDirectoryAndTheLockFileBesideTheSocket) {
    test::RemoveAll(test::FixedPath("/mnt/system/pvoctrl-lock-test"));
    umask(022);
    InstanceLock lock;
    ASSERT_EQ(InstanceLock::kAcquired, lock.Acquire(kSocket));
    EXPECT_EQ(kSocket + ".lock", lock.GetPath());
    struct stat info;
    ASSERT_EQ(0, stat(lock.GetPath().c_str(), &info));
    EXPECT_EQ(0644u, info.st_mode & 07777);
    EXPECT_EQ(InstanceLock::kAcquired, lock.Acquire(kSocket));
    EXPECT_EQ(0, lock.GetError());
}

TEST(InstanceLockTest, IsHeldAgainstOtherProcessesUntilReleased) {
    {
        InstanceLock lock;
        ASSERT_EQ(InstanceLock::kAcquired, lock.Acquire(kSocket));
        EXPECT_FALSE(OtherProcessCanLock());
    }
    EXPECT_TRUE(OtherProcessCanLock());
}

TEST(InstanceLockTest, SecondHolderInTheSameProcessIsRefused) {
    InstanceLock first;
    InstanceLock second;
    ASSERT_EQ(InstanceLock::kAcquired, first.Acquire(kSocket));
    EXPECT_EQ(InstanceLock::kHeldElsewhere, second.Acquire(kSocket));
    EXPECT_EQ(0, second.GetError());
}

TEST(InstanceLockTest, AFileThatCannotBeCreatedIsReportedNotHeld) {
    InstanceLock lock;
    EXPECT_EQ(InstanceLock::kUnavailable, lock.Acquire("/proc/self/no-such-dir/brevanta.octrl"));
    EXPECT_NE(0, lock.GetError());
}

} // namespace
} // namespace brvo
