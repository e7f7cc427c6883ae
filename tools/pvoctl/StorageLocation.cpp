#include "StorageLocation.h"

#include "database/TableNames.h"
#include "util/FileUtil.h"

#include <cstdint>
#include <sys/stat.h>
#include <unistd.h>

namespace brvo {

namespace {

// Modification time of `path` in nanoseconds, or -1 when it is not there.
std::int64_t ModifiedNanoseconds(const std::string& path) {
    struct stat info;
    if (::stat(path.c_str(), &info) != 0) return -1;
    return static_cast<std::int64_t>(info.st_mtim.tv_sec) * 1000000000 + info.st_mtim.tv_nsec;
}

} // namespace

// The daemon chooses its root when it first opens a table and keeps it for
// the run: a card that became writable later, or one the daemon was not
// allowed to write, is told apart by where the update information was
// written last. Only with no table anywhere does the write test decide.
StorageLocation::StorageLocation(const std::string& sdcardPath)
    : root_(FileUtil::CardDataRoot(sdcardPath)), fallback_(false) {
    const std::int64_t card = ModifiedNanoseconds(UpdateInfoDatabaseUnder(root_));
    const std::int64_t tmp = ModifiedNanoseconds(UpdateInfoDatabaseUnder(FileUtil::FallbackDataRoot()));
    const bool useTmp = card >= 0 || tmp >= 0 ? tmp > card : !WritableDirectory(root_);
    if (useTmp) {
        root_ = FileUtil::FallbackDataRoot();
        fallback_ = true;
    }
}

std::string StorageLocation::ScheduleDatabase() const {
    return root_ + FileUtil::OutputControlSubdirectory() + "/" + kTableSchedule + ".db";
}

std::string StorageLocation::UpdateInfoDatabase() const {
    return UpdateInfoDatabaseUnder(root_);
}

std::string StorageLocation::UpdateInfoDatabaseUnder(const std::string& root) {
    return root + FileUtil::OutputControlSubdirectory() + "/" + kTableScheduleUpdateInfo + ".db";
}

bool StorageLocation::WritableDirectory(const std::string& dir) {
    std::string path = dir;
    for (;;) {
        struct stat info;
        if (::stat(path.c_str(), &info) == 0) {
            return S_ISDIR(info.st_mode) && ::access(path.c_str(), W_OK | X_OK) == 0;
        }
        const std::size_t slash = path.find_last_of('/');
        if (path == "/" || slash == std::string::npos) return false;
        path = slash == 0 ? std::string("/") : path.substr(0, slash);
    }
}

} // namespace brvo
