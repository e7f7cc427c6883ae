// The daemon's process-wide instances, ended together so that whatever a
// test or a fuzz input created does not leak into the next one.
#ifndef BRVO_TESTS_SUPPORT_SINGLETONSCOPE_H
#define BRVO_TESTS_SUPPORT_SINGLETONSCOPE_H

namespace brvo {
namespace test {

class SingletonScope {
public:
    // Deletes every process-wide instance, highest layer first (the manager,
    // the schedule update manager, the database, the settings, the log, the
    // logger settings), skipping absent ones, then forgets the cached data root.
    static void DeleteAll();
};

} // namespace test
} // namespace brvo

#endif
