#include "support/TestRoot.h"

#include "util/FileUtil.h"

#include <Poco/File.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace brvo {
namespace test {

namespace {

const char kRootVariable[] = "PVOC_TEST_ROOT";

// The directories run-in-sandbox mounts a fresh tmpfs over.
const char* const kFixedDirectories[] = {"/usr/local/etc/kestrovanyx", "/mnt/system", "/media/sdcard", "/sys/class/net",
                                         "/tmp"};

bool made = false;

// A new directory holding empty fixed directories; exits when it cannot.
std::string MakeRoot() {
    const char* base = std::getenv("TMPDIR");
    std::string pattern = std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/pvoc-unit.XXXXXX";
    std::vector<char> name(pattern.begin(), pattern.end());
    name.push_back('\0');
    if (::mkdtemp(name.data()) == nullptr) {
        std::perror(pattern.c_str());
        std::exit(2);
    }
    const std::string root(name.data());
    for (const char* directory : kFixedDirectories) Poco::File(root + directory).createDirectories();
    ::setenv(kRootVariable, root.c_str(), 1);
    made = true;
    return root;
}

std::string DecidePrefix() {
    if (TestRoot::InSandbox()) return std::string();
    const char* inherited = std::getenv(kRootVariable);
    if (inherited != nullptr && *inherited != '\0') return inherited;
    return MakeRoot();
}

} // namespace

bool TestRoot::InSandbox() {
    const char* sandbox = std::getenv("PVOC_SANDBOX");
    return sandbox != nullptr && std::strcmp(sandbox, "1") == 0;
}

const std::string& TestRoot::Prefix() {
    static const std::string prefix = [] {
        const std::string decided = DecidePrefix();
        FileUtil::SetRootPrefix(decided);
        return decided;
    }();
    return prefix;
}

void TestRoot::Remove() {
    if (!made) return;
    try {
        Poco::File(Prefix()).remove(true);
    } catch (...) {
    }
}

} // namespace test
} // namespace brvo
