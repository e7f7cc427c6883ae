// Where a test process finds the daemon's fixed paths. Inside the sandbox
// they are the machine's own paths, each a private tmpfs. Outside it (the
// unit tests run as an ordinary user) they all lie below a fresh directory
// that FileUtil::SetRootPrefix puts in front of every fixed path.
#ifndef BRVO_TESTS_SUPPORT_TESTROOT_H
#define BRVO_TESTS_SUPPORT_TESTROOT_H

#include <string>

namespace brvo {
namespace test {

class TestRoot {
public:
    // Decides the prefix on the first call and hands it to
    // FileUtil::SetRootPrefix: empty inside the sandbox; else the directory
    // named by PVOC_TEST_ROOT (a test's child inherits its parent's), else
    // a new directory under $TMPDIR or /tmp holding the sandbox's fixed
    // directories, which is then named in PVOC_TEST_ROOT for children.
    static const std::string& Prefix();
    // Whether the process runs in the sandbox, where the fixed paths are
    // the machine's own.
    static bool InSandbox();
    // Removes the directory Prefix made, if it made one.
    static void Remove();
};

} // namespace test
} // namespace brvo

#endif
