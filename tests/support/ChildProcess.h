// A child process started by a test (the real daemon, or a probe), with its
// standard output and error in a file, and bounded waits for its end.
#ifndef BRVO_TESTS_SUPPORT_CHILDPROCESS_H
#define BRVO_TESTS_SUPPORT_CHILDPROCESS_H

#include <map>
#include <string>
#include <vector>

#include <sys/types.h>

namespace brvo {
namespace test {

class ChildProcess {
public:
    // Path of the daemon under test. PVOCD_LAUNCHER (for example an
    // emulator command line) is put in front of it when set.
    static std::vector<std::string> DaemonCommand();
    // The command that runs `binary` of this build: behind the launcher
    // (PVOCD_LAUNCHER, or the emulator of a cross build) when there is one.
    static std::vector<std::string> Command(const std::string& binary);
    // Runs `binary` (as Command gives it) with `args` to its end, in
    // `directory` when one is given; returns the exit code, -1 when it did
    // not end within a minute, and leaves its output in `output`.
    static int RunToEnd(const std::string& binary, const std::vector<std::string>& args, std::string& output,
                        const std::string& directory = "");
    // Environment that runs a child under libfaketime with FAKETIME=`spec`
    // (the library is preloaded into the child itself, so signals reach it).
    // PVOC_FAKETIME_LIB names the library (or the whole preload list) when
    // it is not the host's. On 32-bit targets a library that fakes the
    // 64-bit wall-clock calls comes first; where the C library's time_t is
    // 64 bits, the monotonic clock stays real. A relative `spec` counts
    // from a whole-run shift (FAKETIME="+N" in the test's environment).
    static std::map<std::string, std::string> FakeTimeEnv(const std::string& spec);
    // `spec` as it counts under a whole-run shift (FAKETIME="+N" in the
    // test's own environment): a relative "+S" or "+S xR" becomes
    // "+(N+S)" with the same rate, so that the child and the test agree on
    // now; anything else, or no shift, leaves it as it is.
    static std::string WithSuiteShift(const std::string& spec);
    // Environment that runs a child under libfaketime (the same libraries
    // as FakeTimeEnv) with its wall clock read from `file` on every call,
    // so that a test steps the child's clock, forward or back, by
    // rewriting the file (SetFakeTime). The monotonic clock stays real on
    // every target: the child's timed waits keep their length across a
    // step. FAKETIME, which would win over the file, is removed from the
    // child's environment, a whole-run shift's included.
    static std::map<std::string, std::string> FakeTimeFileEnv(const std::string& file);
    // Sets the clock of the children started with FakeTimeFileEnv(`file`)
    // to `spec`: "@YYYY-MM-DD HH:MM:SS" (the child's local time) sets it to
    // that moment, from where it runs on; a relative one counts from a
    // whole-run shift (WithSuiteShift). The file is replaced in one step,
    // so that a child never reads half of it. Fails the test on error.
    static void SetFakeTime(const std::string& file, const std::string& spec);
    // A value of Start's `env` that removes the variable from the child's
    // environment instead of setting it.
    static const std::string kUnset;

    ChildProcess();
    // Kills the child (SIGKILL) if it still runs.
    ~ChildProcess();

    // Starts `argv` with the environment of the test plus `env` (less the
    // variables whose value is kUnset); output goes to `outputPath`. False
    // if the process could not be started.
    bool Start(const std::vector<std::string>& argv, const std::string& outputPath,
               const std::map<std::string, std::string>& env = {});
    // Sends `signal`; false when the child is not running.
    bool Signal(int signal);
    // Waits up to `timeoutMs` for the child to end. True when it ended; then
    // ExitedNormally and ExitCode describe how.
    bool WaitExit(int timeoutMs);
    bool ExitedNormally() const;
    int ExitCode() const;
    bool Running() const { return pid_ > 0 && !ended_; }
    pid_t Pid() const { return pid_; }

private:
    pid_t pid_;
    bool ended_;
    int status_;
};

} // namespace test
} // namespace brvo

#endif
