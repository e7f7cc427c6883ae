// The daemon's file-system layout and thin wrappers over Poco::File and
// Poco::Path that turn exceptions into a log line and a result.
#ifndef BRVO_UTIL_FILEUTIL_H
#define BRVO_UTIL_FILEUTIL_H

#include <Poco/Types.h>

#include <cstddef>
#include <string>

namespace brvo {

class FileUtil {
public:
    virtual ~FileUtil();

    // Tests only: a directory put in front of every fixed absolute path of
    // the machine (the settings and device directories, the card's and the
    // fallback data root, the logger settings' default paths, the MAC
    // address file, the log's I/O error mark, the storage error note), so
    // that the unit tests need neither root nor a sandbox. Empty, and never
    // set, in the daemon.
    static void SetRootPrefix(const std::string& prefix);
    // `path`, a fixed absolute path of the machine, with the root prefix in
    // front; `path` itself while the prefix is empty.
    static std::string UnderRoot(const std::string& path);

    // "/usr/local/etc/kestrovanyx/SettingsXML".
    static std::string GetSettingsDirectory();
    // Settings directory + "/SystemSetting.xml".
    static std::string GetSystemSettingFile();
    // Settings directory + "/DefaultSystemSetting.xml" (never read).
    static std::string GetDefaultSystemSettingFile();
    // Settings directory + "/LoggerSetting.xml".
    static std::string GetLoggerSettingFile();
    // "/usr/local/etc/kestrovanyx/DeviceXML".
    static std::string GetDeviceDirectory();
    // Built-in mount point of the SD card, used until SetSdcardPath names another.
    static constexpr const char kDefaultSdcardPath[] = "/media/sdcard";
    // Sets the SD card's mount point that GetDataRoot builds on; empty
    // stands for the built-in one. The logger settings set theirs when they
    // are created and the built-in one when they are deleted.
    static void SetSdcardPath(const std::string& sdcardPath);
    // SD card path + "/kestrovanyx", or "/tmp/kestrovanyx" when the card path
    // could not be written on the first call; cached for the whole run.
    static std::string GetDataRoot();
    // Data root + "/Database".
    static std::string GetDatabaseDirectory();
    // Database directory + "/OutputControl", created with its parents on
    // every call (a failure is logged and the path returned all the same).
    static std::string GetOutputControlDirectory();
    // Data root + "/Certificates/".
    static std::string GetCertificatesDirectory();
    // The data root on the card mounted at `sdcardPath`.
    static std::string CardDataRoot(const std::string& sdcardPath);
    // The data root used when the card's cannot be written.
    static std::string FallbackDataRoot();
    // "/Database/OutputControl": the databases' directory below a data root.
    static std::string OutputControlSubdirectory();
    // "/Certificates/": the CA certificates' directory below a data root.
    static std::string CertificatesSubdirectory();
    // Forgets the cached data root, so that the next call probes again.
    // Only tests need this; the daemon decides once per run.
    static void ResetDataRoot();

    // Renames `from` to `to`, replacing an existing `to`; false on failure.
    static bool Rename(const std::string& from, const std::string& to);
    // Replaces an existing file with a new empty one; true if it was created.
    static bool CreateFile(const std::string& path);
    // False for an empty path without asking the file system.
    static bool Exists(const std::string& path);
    // Creates one directory, or with its parents; with parents the result
    // says whether the directory exists afterwards.
    static bool CreateDirectory(const std::string& path, bool withParents);
    // The parent directory of `path` as text.
    static std::string GetDirectory(const std::string& path);
    // The last component of `path`; empty for an empty path.
    static std::string GetFileName(const std::string& path);
    // Sets or clears write permission; true if it reads back as asked.
    static bool SetWritable(const std::string& path, bool writable);
    // Whether `path` can be written; false on failure.
    static bool CanWrite(const std::string& path);
    // Size of the file in bytes; 0 on failure.
    static Poco::UInt64 GetSize(const std::string& path);
    // What ReadFile found: the file's bytes, or why there are none.
    struct ReadResult {
        // True when `text` holds the whole file.
        bool ok = false;
        // True when there is nothing at the path.
        bool missing = false;
        // Why the file was not read: "not a regular file", "larger than N
        // bytes" or the system's text for the error; empty when ok.
        std::string reason;
        // The file's bytes when ok.
        std::string text;
    };
    // Reads the whole regular file `path` if it holds at most `maxBytes`.
    // Never blocks and never reads a device: anything but a regular file
    // (FIFO, socket, device, directory) is refused before a byte is read,
    // as is a file larger than `maxBytes`, or one that grows past it while
    // it is read. Logs nothing.
    static ReadResult ReadFile(const std::string& path, std::size_t maxBytes);
    // Creates `dir` with its parents and proves it writable by creating and
    // removing `dir` + "/write_test".
    static bool IsWritableDirectory(const std::string& dir);
    // Whether what is written to descriptor `fd` goes nowhere: it is the
    // null device, or not open at all.
    static bool DiscardsWrites(int fd);
};

} // namespace brvo

#endif
