#include "StorageLocation.h"

#include "app/Constants.h"
#include "util/FileUtil.h"

#include <sys/stat.h>
#include <unistd.h>

namespace brvo {

StorageLocation::StorageLocation(const std::string& sdcardPath)
    : root_(FileUtil::CardDataRoot(sdcardPath)), fallback_(false) {
    if (!WritableDirectory(root_)) {
        root_ = FileUtil::FallbackDataRoot();
        fallback_ = true;
    }
}

std::string StorageLocation::ScheduleDatabase() const {
    return root_ + FileUtil::OutputControlSubdirectory() + "/" + kTableSchedule + ".db";
}

std::string StorageLocation::UpdateInfoDatabase() const {
    return root_ + FileUtil::OutputControlSubdirectory() + "/" + kTableScheduleUpdateInfo + ".db";
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
