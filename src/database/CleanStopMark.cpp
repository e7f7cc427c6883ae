#include "database/CleanStopMark.h"

#include "util/FileUtil.h"

#include <cstdio>
#include <fcntl.h>
#include <unistd.h>

namespace brvo {

const std::string CleanStopMark::kFileName = "pvocd.clean-stop";

std::string CleanStopMark::Path() {
    return FileUtil::GetOutputControlDirectory() + "/" + kFileName;
}

bool CleanStopMark::Take() {
    const std::string path = Path();
    if (::access(path.c_str(), F_OK) != 0) return false;
    std::remove(path.c_str());
    return true;
}

void CleanStopMark::Leave() {
    const int fd = ::open(Path().c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) return;
    ::fsync(fd);
    ::close(fd);
}

} // namespace brvo
