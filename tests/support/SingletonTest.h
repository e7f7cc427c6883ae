// Base of the unit-test fixtures that create any of the daemon's
// process-wide instances: none of them outlives the test.
#ifndef BRVO_TESTS_SUPPORT_SINGLETONTEST_H
#define BRVO_TESTS_SUPPORT_SINGLETONTEST_H

#include <gtest/gtest.h>

#include <string>

namespace brvo {
namespace test {

class SingletonTest : public ::testing::Test {
protected:
    // Deletes every process-wide instance and forgets the data root
    // (SingletonScope::DeleteAll). A fixture with steps of its own runs them
    // first and then calls this.
    void TearDown() override;

    // Starts the log and the logger settings afresh from LoggerSetting.xml
    // holding `innerXml` after unbuffered log writes (so that every line
    // reaches the file at the next tick), and forgets the data root the
    // earlier settings gave.
    static void UseLoggerSettings(const std::string& innerXml);
};

} // namespace test
} // namespace brvo

#endif
