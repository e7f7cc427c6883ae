#include "util/FileUtil.h"

#include "util/LoggerLog.h"
#include "util/Mutex.h"
#include "util/ScopedLock.h"
#include "util/ThreadAnnotations.h"

#include <Poco/Exception.h>
#include <Poco/File.h>
#include <Poco/Path.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

namespace brvo {

namespace {

const std::string kTag = "FileUtil";
const std::string kProduct = "kestrovanyx";
const std::string kEtcBase = "/usr/local/etc/" + kProduct;

// Built on first use, so that test code may set it while static objects
// are still being built, and never destroyed, so that a thread still
// reading settings while the process exits finds it intact.
std::string& RootPrefix() {
    static std::string* const prefix = new std::string();
    return *prefix;
}

Mutex dataRootMutex;
// The SD card's mount point the data root is built on, empty for the
// built-in one; guarded by dataRootMutex.
std::string sdcardMountPoint GUARDED_BY(dataRootMutex);
std::string dataRoot GUARDED_BY(dataRootMutex);
bool dataRootChecked GUARDED_BY(dataRootMutex) = false;

void LogFailure(const std::string& what, const std::string& path, const Poco::Exception& e) {
    LoggerLog::Error(kTag, what + "[" + path + "] [" + e.displayText() + "]");
}

// The system's text for `error`, safe to call from any thread.
std::string ErrorText(int error) {
    char buffer[128];
    return ::strerror_r(error, buffer, sizeof buffer);
}

std::string TooLarge(std::size_t maxBytes) {
    return "larger than " + std::to_string(maxBytes) + " bytes";
}

// Reads `fd` to its end into `result`, refusing it once more than
// `maxBytes` came: the file may have grown since its size was taken.
void ReadAtMost(int fd, std::size_t maxBytes, FileUtil::ReadResult& result) {
    char buffer[8192];
    for (;;) {
        const std::size_t room = maxBytes + 1 - result.text.size();
        const ssize_t n = ::read(fd, buffer, std::min(sizeof buffer, room));
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) {
            result.reason = ErrorText(errno);
            break;
        }
        if (n == 0) {
            result.ok = true;
            break;
        }
        result.text.append(buffer, static_cast<std::size_t>(n));
        if (result.text.size() > maxBytes) {
            result.reason = TooLarge(maxBytes);
            break;
        }
    }
    if (!result.ok) result.text.clear();
}

} // namespace

FileUtil::~FileUtil() {}

void FileUtil::SetRootPrefix(const std::string& prefix) {
    RootPrefix() = prefix;
}

std::string FileUtil::UnderRoot(const std::string& path) {
    return RootPrefix() + path;
}

std::string FileUtil::GetSettingsDirectory() {
    return UnderRoot(kEtcBase) + "/SettingsXML";
}

std::string FileUtil::GetSystemSettingFile() {
    return GetSettingsDirectory() + "/SystemSetting.xml";
}

std::string FileUtil::GetDefaultSystemSettingFile() {
    return GetSettingsDirectory() + "/DefaultSystemSetting.xml";
}

std::string FileUtil::GetLoggerSettingFile() {
    return GetSettingsDirectory() + "/LoggerSetting.xml";
}

std::string FileUtil::GetDeviceDirectory() {
    return UnderRoot(kEtcBase) + "/DeviceXML";
}

std::string FileUtil::CardDataRoot(const std::string& sdcardPath) {
    return sdcardPath + "/" + kProduct;
}

std::string FileUtil::FallbackDataRoot() {
    return UnderRoot("/tmp/" + kProduct);
}

std::string FileUtil::OutputControlSubdirectory() {
    return "/Database/OutputControl";
}

void FileUtil::SetSdcardPath(const std::string& sdcardPath) {
    ScopedLock lock(dataRootMutex);
    sdcardMountPoint = sdcardPath;
}

// Decided once per run: the card when it can be written, else /tmp.
std::string FileUtil::GetDataRoot() {
    ScopedLock lock(dataRootMutex);
    if (dataRoot.empty()) {
        dataRoot = CardDataRoot(sdcardMountPoint.empty() ? UnderRoot(kDefaultSdcardPath) : sdcardMountPoint);
        if (!dataRootChecked) {
            dataRootChecked = true;
            if (!IsWritableDirectory(dataRoot)) dataRoot = FallbackDataRoot();
        }
    }
    return dataRoot;
}

void FileUtil::ResetDataRoot() {
    ScopedLock lock(dataRootMutex);
    dataRoot.clear();
    dataRootChecked = false;
}

std::string FileUtil::GetDatabaseDirectory() {
    return GetDataRoot() + "/Database";
}

std::string FileUtil::GetOutputControlDirectory() {
    const std::string directory = GetDataRoot() + OutputControlSubdirectory();
    CreateDirectory(directory, true);
    return directory;
}

std::string FileUtil::GetCertificatesDirectory() {
    return GetDataRoot() + CertificatesSubdirectory();
}

std::string FileUtil::CertificatesSubdirectory() {
    return "/Certificates/";
}

bool FileUtil::Rename(const std::string& from, const std::string& to) {
    try {
        Poco::File(from).renameTo(to);
        return true;
    } catch (const Poco::Exception& e) {
        LoggerLog::Error(kTag, "Rename file. file:[" + from + "] -> [" + to + "] [" + e.displayText() + "]");
        return false;
    }
}

bool FileUtil::CreateFile(const std::string& path) {
    try {
        Poco::File file(path);
        if (file.exists()) file.remove();
        return file.createFile();
    } catch (const Poco::Exception& e) {
        LogFailure("Create file. file:", path, e);
        return false;
    }
}

bool FileUtil::Exists(const std::string& path) {
    if (path.empty()) return false;
    try {
        return Poco::File(path).exists();
    } catch (const Poco::Exception&) {
        return false;
    }
}

bool FileUtil::CreateDirectory(const std::string& path, bool withParents) {
    try {
        Poco::File directory(path);
        if (!withParents) return directory.createDirectory();
        directory.createDirectories();
        return Exists(path);
    } catch (const Poco::Exception& e) {
        LogFailure("Create directory failed. file:", path, e);
        return false;
    }
}

std::string FileUtil::GetDirectory(const std::string& path) {
    return Poco::Path(path).parent().toString(Poco::Path::PATH_NATIVE);
}

std::string FileUtil::GetFileName(const std::string& path) {
    if (path.empty()) return std::string();
    return Poco::Path(path).getFileName();
}

bool FileUtil::SetWritable(const std::string& path, bool writable) {
    try {
        Poco::File file(path);
        file.setWriteable(writable);
        return file.canWrite() == writable;
    } catch (const Poco::Exception& e) {
        LogFailure("Set Writable fail. file:", path, e);
        return false;
    }
}

bool FileUtil::CanWrite(const std::string& path) {
    try {
        return Poco::File(path).canWrite();
    } catch (const Poco::Exception& e) {
        LogFailure("Can Write fail. file:", path, e);
        return false;
    }
}

Poco::UInt64 FileUtil::GetSize(const std::string& path) {
    try {
        return Poco::File(path).getSize();
    } catch (const Poco::Exception& e) {
        LogFailure("Get fail size fail. file:", path, e);
        return 0;
    }
}

bool FileUtil::IsWritableDirectory(const std::string& dir) {
    if (!CreateDirectory(dir, true)) return false;
    const std::string probe = dir + "/write_test";
    try {
        Poco::File file(probe);
        if (file.exists()) file.remove();
        const bool created = file.createFile();
        file.remove();
        return created;
    } catch (const Poco::Exception&) {
        return false;
    }
}

// O_NONBLOCK: opening a FIFO without a writer would wait for one. The
// descriptor is checked before anything is read from it.
FileUtil::ReadResult FileUtil::ReadFile(const std::string& path, std::size_t maxBytes) {
    ReadResult result;
    const int fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (fd < 0) {
        result.missing = errno == ENOENT;
        result.reason = ErrorText(errno);
        return result;
    }
    struct stat status;
    if (::fstat(fd, &status) != 0) {
        result.reason = ErrorText(errno);
    } else if (!S_ISREG(status.st_mode)) {
        result.reason = "not a regular file";
    } else if (static_cast<std::uint64_t>(status.st_size) > maxBytes) {
        result.reason = TooLarge(maxBytes);
    } else {
        result.text.reserve(static_cast<std::size_t>(status.st_size));
        ReadAtMost(fd, maxBytes, result);
    }
    ::close(fd);
    return result;
}

bool FileUtil::DiscardsWrites(int fd) {
    struct stat target;
    if (fstat(fd, &target) != 0) return errno == EBADF;
    if (!S_ISCHR(target.st_mode)) return false;
    struct stat null;
    const dev_t nullDevice = stat("/dev/null", &null) == 0 && S_ISCHR(null.st_mode) ? null.st_rdev : makedev(1, 3);
    return target.st_rdev == nullDevice;
}

} // namespace brvo
