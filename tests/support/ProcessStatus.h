// What /proc tells about a running process: its open descriptors, threads,
// resident memory and children, for tests that check the daemon gives back
// what it took.
#ifndef BRVO_TESTS_SUPPORT_PROCESSSTATUS_H
#define BRVO_TESTS_SUPPORT_PROCESSSTATUS_H

#include <cstdint>
#include <string>
#include <vector>

#include <sys/types.h>

namespace brvo {
namespace test {

// Number of entries of /proc/<pid>/fd; -1 when it cannot be read.
int OpenDescriptorCount(pid_t pid);
// Number of entries of /proc/<pid>/task; -1 when it cannot be read.
int ThreadCount(pid_t pid);
// VmRSS of /proc/<pid>/status in KiB; -1 when it cannot be read.
std::int64_t ResidentKiB(pid_t pid);
// VmHWM of /proc/<pid>/status (peak resident memory) in KiB; -1 when it
// cannot be read.
std::int64_t PeakResidentKiB(pid_t pid);
// Whether the daemon's resident memory says anything about its own
// allocations in this build: false under AddressSanitizer and
// ThreadSanitizer, whose runtimes keep shadow memory and freed blocks.
bool MemoryIsMeasurable();
// The peak resident memory the daemon may reach while it handles input
// under the caps: 64 MiB of its own, plus, under an emulator, what the
// emulator itself held (`startedKiB`, the daemon's VmRSS once it serves).
std::int64_t MemoryBoundKiB(std::int64_t startedKiB);

// The processes whose parent is `pid`, with their state letter from
// /proc/<child>/stat ("Z" for a zombie), as "<pid>:<state>:<name>".
std::vector<std::string> Children(pid_t pid);
// The entries of Children(`pid`) whose state is "Z".
std::vector<std::string> ZombieChildren(pid_t pid);

} // namespace test
} // namespace brvo

#endif
