#include "support/ProcessStatus.h"

#include <cstdlib>
#include <dirent.h>
#include <fstream>
#include <sstream>

namespace brvo {
namespace test {

namespace {

// Entries of `directory` other than "." and "..", or -1.
int CountEntries(const std::string& directory) {
    DIR* dir = opendir(directory.c_str());
    if (dir == nullptr) return -1;
    int count = 0;
    while (const dirent* entry = readdir(dir)) {
        const std::string name = entry->d_name;
        if (name != "." && name != "..") ++count;
    }
    closedir(dir);
    return count;
}

// The process name, state letter and parent of /proc/<pid>/stat. The name
// stands in parentheses and may itself hold blanks and parentheses, so the
// fields after it are found from the last ")".
bool ReadStat(const std::string& pid, std::string& name, std::string& state, long& parent) {
    std::ifstream in("/proc/" + pid + "/stat");
    std::string line;
    if (!std::getline(in, line)) return false;
    const std::size_t open = line.find('(');
    const std::size_t close = line.rfind(')');
    if (open == std::string::npos || close == std::string::npos || close < open) return false;
    name = line.substr(open + 1, close - open - 1);
    std::istringstream rest(line.substr(close + 1));
    return static_cast<bool>(rest >> state >> parent);
}

// The value in KiB of the /proc/<pid>/status line that starts with `key`.
std::int64_t StatusKiB(pid_t pid, const std::string& key) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/status");
    std::string line;
    while (std::getline(in, line)) {
        if (line.compare(0, key.size(), key) == 0) return std::strtoll(line.c_str() + key.size(), nullptr, 10);
    }
    return -1;
}

} // namespace

int OpenDescriptorCount(pid_t pid) {
    return CountEntries("/proc/" + std::to_string(pid) + "/fd");
}

int ThreadCount(pid_t pid) {
    return CountEntries("/proc/" + std::to_string(pid) + "/task");
}

std::int64_t ResidentKiB(pid_t pid) {
    return StatusKiB(pid, "VmRSS:");
}

std::int64_t PeakResidentKiB(pid_t pid) {
    return StatusKiB(pid, "VmHWM:");
}

bool MemoryIsMeasurable() {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    return false;
#else
    return true;
#endif
}

std::int64_t MemoryBoundKiB(std::int64_t startedKiB) {
    const std::int64_t ownKiB = 64 * 1024;
#ifdef PVOCD_CROSS_LAUNCHER
    return ownKiB + startedKiB;
#else
    (void)startedKiB;
    return ownKiB;
#endif
}

std::vector<std::string> Children(pid_t pid) {
    std::vector<std::string> children;
    DIR* proc = opendir("/proc");
    if (proc == nullptr) return children;
    while (const dirent* entry = readdir(proc)) {
        const std::string id = entry->d_name;
        if (id.empty() || id.find_first_not_of("0123456789") != std::string::npos) continue;
        std::string name;
        std::string state;
        long parent = 0;
        if (ReadStat(id, name, state, parent) && parent == static_cast<long>(pid)) {
            children.push_back(id + ":" + state + ":" + name);
        }
    }
    closedir(proc);
    return children;
}

std::vector<std::string> ZombieChildren(pid_t pid) {
    std::vector<std::string> zombies;
    for (const std::string& child : Children(pid)) {
        const std::size_t colon = child.find(':');
        if (child.compare(colon + 1, 2, "Z:") == 0) zombies.push_back(child);
    }
    return zombies;
}

} // namespace test
} // namespace brvo
