// File helpers shared by the tests. Every path they touch lies inside the
// sandbox's private tmpfs mounts, or below the test root (TestRoot).
#ifndef BRVO_TESTS_SUPPORT_TESTFILES_H
#define BRVO_TESTS_SUPPORT_TESTFILES_H

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

namespace brvo {
namespace test {

// `path`, one of the daemon's fixed absolute paths (or a path below one),
// where this test process finds it: below the test root's prefix.
std::string FixedPath(const std::string& path);
// Writes `content` to `path`, creating parent directories. Fails the test on error.
void WriteFile(const std::string& path, const std::string& content);
// The whole file, or empty text when it cannot be read.
std::string ReadFile(const std::string& path);
// The file's lines without their line feeds.
std::vector<std::string> ReadLines(const std::string& path);
// `depth` elements named `name`, each inside the one before, the innermost
// holding `text`.
std::string NestedXml(const std::string& name, std::size_t depth, const std::string& text = "");
// Replaces whatever is at `path` with a FIFO that no one writes, creating
// parent directories. Fails the test on error.
void MakeFifo(const std::string& path);
// Whether the file exists.
bool FileExists(const std::string& path);
// Removes a file or a directory tree; silent when absent.
void RemoveAll(const std::string& path);
// Polls `condition` every 10 ms until it holds or `timeoutMs` (times
// TimeScale()) passed.
bool WaitFor(const std::function<bool()>& condition, int timeoutMs);
// Writes LoggerSetting.xml with the given child elements (raw XML text).
void WriteLoggerSetting(const std::string& innerXml);
// Path of LoggerSetting.xml.
std::string LoggerSettingPath();
// Path of SystemSetting.xml.
std::string SystemSettingPath();
// Writes SystemSetting.xml with the output-control plant ID, the stand-alone
// flag and the schedule server's URL (texts escaped for XML).
void WriteSystemSetting(const std::string& plantId, const std::string& url, bool standAlone);
// Writes SystemSetting.xml with the output-control plant ID, the stand-alone
// flag, and one household solar unit described by the device file pv.xml.
void WriteSystemSettingWithDevice(const std::string& plantId, bool standAlone = false);
// Writes the device file pv.xml with a Limit variable of the given
// attributes (raw XML text, for example "ValueMin=\"3\"").
void WriteDeviceLimit(const std::string& limitAttributes);
// Waits up to `timeoutMs` for a UNIX socket file at `path`.
bool WaitForSocket(const std::string& path, int timeoutMs);

// The lines of the log so far: the writer is deleted (which writes out all
// it holds), the file read and a new writer created.
std::vector<std::string> FlushedLogLines();
// How many times longer than normal timed checks may take: the value of
// PVOC_TIME_SCALE (sanitizer and emulator runs are slower), else 1.
long long TimeScale();
// The daemon's log file with the default settings.
std::string LogFilePath();
// Where the system tests put a started daemon's standard output and error.
const std::string kDaemonOutput = "/tmp/pvocd.out";
// Whether one of `lines` is a log line of level `mark` (for example "E")
// whose text after the thread id is exactly `tag` + " " + `message`.
bool HasLogLine(const std::vector<std::string>& lines, const std::string& mark, const std::string& tag,
                const std::string& message);
// Whether one of `lines` is a log line of level `mark` from `tag` whose
// message begins with `prefix`.
bool HasLogLineStarting(const std::vector<std::string>& lines, const std::string& mark, const std::string& tag,
                        const std::string& prefix);

} // namespace test
} // namespace brvo

#endif
