#include "support/SingletonTest.h"

#include "support/SingletonScope.h"

namespace brvo {
namespace test {

void SingletonTest::TearDown() {
    SingletonScope::DeleteAll();
}

} // namespace test
} // namespace brvo
