#include "support/ChildProcess.h"

#include "support/TestFiles.h"

#include <Poco/StringTokenizer.h>
#include <Poco/Thread.h>
#include <Poco/Timestamp.h>

#include <gtest/gtest.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <iterator>
#include <sys/wait.h>
#include <unistd.h>

namespace brvo {
namespace test {
namespace {

// The whole-run clock shift: FAKETIME="+N" (or "-N") in the test's own
// environment, as a run of the whole suite at a later date sets it for
// every process. 0 when there is none.
long long SuiteClockShift() {
    const char* suite = std::getenv("FAKETIME");
    if (suite == nullptr || (suite[0] != '+' && suite[0] != '-')) return 0;
    char* end = nullptr;
    const long long shift = std::strtoll(suite, &end, 10);
    return *end == '\0' ? shift : 0;
}

} // namespace

std::string ChildProcess::WithSuiteShift(const std::string& spec) {
    const long long shift = SuiteClockShift();
    if (shift == 0 || spec.empty() || (spec[0] != '+' && spec[0] != '-')) return spec;
    char* end = nullptr;
    const long long offset = std::strtoll(spec.c_str(), &end, 10);
    // Only whole seconds, optionally followed by a rate, are composed.
    if (*end != '\0' && std::strncmp(end, " x", 2) != 0) return spec;
    const long long total = shift + offset;
    return (total < 0 ? "" : "+") + std::to_string(total) + end;
}

std::vector<std::string> ChildProcess::Command(const std::string& binary) {
    std::vector<std::string> command;
    const char* launcher = std::getenv("PVOCD_LAUNCHER");
#ifdef PVOCD_CROSS_LAUNCHER
    if (launcher == nullptr) launcher = PVOCD_CROSS_LAUNCHER;
#endif
    if (launcher != nullptr) {
        Poco::StringTokenizer words(launcher, " ", Poco::StringTokenizer::TOK_IGNORE_EMPTY);
        command.assign(words.begin(), words.end());
    }
    command.push_back(binary);
    return command;
}

int ChildProcess::RunToEnd(const std::string& binary, const std::vector<std::string>& args, std::string& output,
                           const std::string& directory) {
    std::vector<std::string> command;
    if (!directory.empty()) command = {"/bin/sh", "-c", "cd \"$0\" && exec \"$@\"", directory};
    const std::vector<std::string> tool = Command(binary);
    command.insert(command.end(), tool.begin(), tool.end());
    command.insert(command.end(), args.begin(), args.end());
    const std::string outputPath = FixedPath("/tmp/tool.out");
    ChildProcess child;
    if (!child.Start(command, outputPath) || !child.WaitExit(60000)) return -1;
    std::ifstream file(outputPath, std::ios::binary);
    output.assign(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
    return child.ExitCode();
}

std::vector<std::string> ChildProcess::DaemonCommand() {
    return Command(PVOCD_BINARY);
}

namespace {

// The LD_PRELOAD list of a child under a fake clock: libfaketime, behind
// the libraries that must come before it.
std::string FakeTimeLibraries() {
    const char* library = std::getenv("PVOC_FAKETIME_LIB");
    std::string path = library != nullptr ? library : "";
#ifdef PVOCD_CROSS_FAKETIME_LIB
    // The emulated child loads the target's library (found in the sysroot
    // by the emulator), whatever the host has.
    if (path.empty()) path = PVOCD_CROSS_FAKETIME_LIB;
#endif
    if (path.empty()) {
        for (const char* candidate : {"/usr/lib/x86_64-linux-gnu/faketime/libfaketimeMT.so.1",
                                      "/usr/lib/aarch64-linux-gnu/faketime/libfaketimeMT.so.1",
                                      "/usr/lib/arm-linux-gnueabihf/faketime/libfaketimeMT.so.1"}) {
            if (::access(candidate, R_OK) == 0) {
                path = candidate;
                break;
            }
        }
    }
#ifdef PVOCD_CLOCK64_PRELOAD
    // In front of libfaketime, whose own 64-bit clock calls (Debian 13)
    // give wrong times after 2038. A list given in PVOC_FAKETIME_LIB
    // names it already where it is needed.
    if (library == nullptr) path = std::string(PVOCD_CLOCK64_PRELOAD) + ":" + path;
#endif
#ifdef PVOCD_TSAN_CONDWAIT_PRELOAD
    // In front of libfaketime, so that ThreadSanitizer sees its timed waits.
    path = std::string(PVOCD_TSAN_CONDWAIT_PRELOAD) + ":" + path;
#endif
    // A sanitizer build checks that its runtime is loaded first; the
    // preloaded clock library comes first on purpose.
    return path;
}

} // namespace

const std::string ChildProcess::kUnset(1, '\0');

std::map<std::string, std::string> ChildProcess::FakeTimeEnv(const std::string& spec) {
#ifdef PVOCD_FAKE_WALL_CLOCK_ONLY
    const char* fakeMonotonic = "1";
#else
    const char* fakeMonotonic = "0";
#endif
    return {{"LD_PRELOAD", FakeTimeLibraries()},
            {"FAKETIME", WithSuiteShift(spec)},
            {"FAKETIME_DONT_FAKE_MONOTONIC", fakeMonotonic},
            // The daemon never reads file times, and the library's faked
            // file times take a semaphore shared with every child it
            // starts: a child killed while holding it, or the library's own
            // exit handler, would leave each later stat waiting for ever.
            {"NO_FAKE_STAT", "1"},
            {"ASAN_OPTIONS", "verify_asan_link_order=0"}};
}

std::map<std::string, std::string> ChildProcess::FakeTimeFileEnv(const std::string& file) {
    return {{"LD_PRELOAD", FakeTimeLibraries()},
            {"FAKETIME", kUnset},
            {"FAKETIME_TIMESTAMP_FILE", file},
            {"FAKETIME_NO_CACHE", "1"},
            {"FAKETIME_DONT_FAKE_MONOTONIC", "1"},
            // Without it the library takes the deadlines of timed waits
            // (POCO's timers wait so) for the faked clock's, and the timers
            // wake at once over and over.
            {"FAKETIME_FORCE_MONOTONIC_FIX", "0"},
            {"NO_FAKE_STAT", "1"},
            {"ASAN_OPTIONS", "verify_asan_link_order=0"}};
}

void ChildProcess::SetFakeTime(const std::string& file, const std::string& spec) {
    const std::string next = file + ".next";
    WriteFile(next, WithSuiteShift(spec) + "\n");
    ASSERT_EQ(0, std::rename(next.c_str(), file.c_str())) << file;
}

ChildProcess::ChildProcess() : pid_(-1), ended_(false), status_(0) {}

ChildProcess::~ChildProcess() {
    if (Running()) {
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, &status_, 0);
    }
}

bool ChildProcess::Start(const std::vector<std::string>& argv, const std::string& outputPath,
                         const std::map<std::string, std::string>& env) {
    if (argv.empty()) return false;
    const int out = ::open(outputPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (out < 0) return false;
    const pid_t pid = ::fork();
    if (pid < 0) {
        ::close(out);
        return false;
    }
    if (pid == 0) {
        ::dup2(out, 1);
        ::dup2(out, 2);
        for (const auto& entry : env) {
            if (entry.second == kUnset) {
                ::unsetenv(entry.first.c_str());
            } else {
                ::setenv(entry.first.c_str(), entry.second.c_str(), 1);
            }
        }
        std::vector<char*> args;
        for (const std::string& arg : argv) args.push_back(const_cast<char*>(arg.c_str()));
        args.push_back(nullptr);
        ::execv(args[0], args.data());
        ::_exit(127);
    }
    ::close(out);
    pid_ = pid;
    ended_ = false;
    return true;
}

bool ChildProcess::Signal(int signal) {
    return Running() && ::kill(pid_, signal) == 0;
}

bool ChildProcess::WaitExit(int timeoutMs) {
    if (pid_ <= 0) return false;
    Poco::Timestamp start;
    while (!ended_) {
        const pid_t done = ::waitpid(pid_, &status_, WNOHANG);
        if (done == pid_) {
            ended_ = true;
            break;
        }
        if (start.elapsed() > static_cast<Poco::Timestamp::TimeDiff>(timeoutMs) * 1000) return false;
        Poco::Thread::sleep(5);
    }
    return true;
}

bool ChildProcess::ExitedNormally() const {
    return ended_ && WIFEXITED(status_);
}

int ChildProcess::ExitCode() const {
    return ExitedNormally() ? WEXITSTATUS(status_) : -1;
}

} // namespace test
} // namespace brvo
