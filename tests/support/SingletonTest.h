// Base of the unit-test fixtures that create any of the daemon's
// process-wide instances: none of them outlives the test.
#ifndef BRVO_TESTS_SUPPORT_SINGLETONTEST_H
#define BRVO_TESTS_SUPPORT_SINGLETONTEST_H

#include <gtest/gtest.h>

namespace brvo {
namespace test {

class SingletonTest : public ::testing::Test {
protected:
    // Deletes every process-wide instance and forgets the data root
    // (SingletonScope::DeleteAll). A fixture with steps of its own runs them
    // first and then calls this.
    void TearDown() override;
};

} // namespace test
} // namespace brvo

#endif
