// Entry point of the unit tests. In the sandbox they work on the machine's
// fixed paths, each a private tmpfs there; anywhere else, as an ordinary
// user too, on the same paths below a temporary directory (TestRoot).
#include "support/TestRoot.h"

#include <gtest/gtest.h>

int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    brvo::test::TestRoot::Prefix();
    const int result = RUN_ALL_TESTS();
    brvo::test::TestRoot::Remove();
    return result;
}
