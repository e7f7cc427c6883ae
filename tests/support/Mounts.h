// Mounts for fault tests. The tests run as root in a private mount
// namespace (tests/support/run-in-sandbox), so what they mount is seen by
// the daemon they start and vanishes with the test.
#ifndef BRVO_TESTS_SUPPORT_MOUNTS_H
#define BRVO_TESTS_SUPPORT_MOUNTS_H

#include <string>

namespace brvo {
namespace test {

// Mounts a fresh tmpfs on `directory` (created when missing) with the
// mount options `options` (for example "size=256k"). Fails the test and
// returns false when the mount fails.
bool MountTmpfs(const std::string& directory, const std::string& options, bool readOnly = false);
// Makes `directory` read-only in place (a read-only bind mount of itself):
// nothing below it can be created or written, not even by root. Fails the
// test and returns false when that fails.
bool MakeReadOnly(const std::string& directory);
// Bind-mounts the file or directory `source` over `target` (which must
// exist), so that whoever opens `target` in the namespace reads `source`.
// Fails the test and returns false when that fails.
bool BindMount(const std::string& source, const std::string& target);
// Unmounts the topmost mount on `directory`. Fails the test and returns
// false when that fails.
bool Unmount(const std::string& directory);
// Detaches the topmost mount on `directory` at once (MNT_DETACH), as a card
// pulled out while files on it are open: whoever holds a file there keeps
// it, and the path shows what lies beneath. Fails the test and returns
// false when that fails.
bool UnmountLazily(const std::string& directory);
// Fills the file system of `directory` with a file `name` until no byte
// more fits. Returns the filler's path.
std::string FillFileSystem(const std::string& directory, const std::string& name = "filler");

} // namespace test
} // namespace brvo

#endif
