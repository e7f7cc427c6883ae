// Test entry point. Refuses to run outside the sandbox, because the daemon's
// code works on fixed absolute paths of the machine.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

int main(int argc, char** argv) {
    bool listing = false;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--gtest_list_tests") == 0) listing = true;
    }
    const char* sandbox = std::getenv("PVOC_SANDBOX");
    if (!listing && (sandbox == nullptr || std::strcmp(sandbox, "1") != 0)) {
        std::fprintf(stderr,
                     "%s: run me through tests/support/run-in-sandbox (or ctest); "
                     "I would touch the machine's real /tmp, /mnt/system and "
                     "/usr/local/etc/kestrovanyx otherwise\n",
                     argv[0]);
        return 2;
    }
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
