// pvocd: the output-control daemon of the PV data logger. It takes no
// arguments apart from --help and --version; its settings come from
// LoggerSetting.xml and SystemSetting.xml.
#include "app/BrevantaOutputControlManager.h"
#include "app/CommandLine.h"
#include "app/InstanceLock.h"
#include "database/CleanStopMark.h"
#include "database/DatabaseManager.h"
#include "schedule/ScheduleUpdateManager.h"
#include "server/OutputcontrolServer.h"
#include "settings/LoggerSettingManager.h"
#include "util/FileUtil.h"
#include "util/LoggerLog.h"

#include <clocale>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <locale>
#include <malloc.h>
#include <sys/stat.h>
#include <unistd.h>

// An address-sanitized build checks for leaks as the process exits; the
// daemon's exit skips that (see EndProcess), so it asks for the check.
#if defined(__SANITIZE_ADDRESS__)
#define PVOCD_LEAK_CHECK_AT_END 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define PVOCD_LEAK_CHECK_AT_END 1
#endif
#endif
#ifdef PVOCD_LEAK_CHECK_AT_END
#include <sanitizer/lsan_interface.h>
#endif

namespace {

const mode_t kCreationMask = 022;
const int kArenas = 2;
const int kMappedBlockBytes = 256 * 1024;

void OnStopSignal(int) {
    brvo::BrevantaOutputControlManager::RequestKill();
}

// Stop the daemon as SIGTERM does, so that its log is never cut off: also a
// terminal's hang-up and the interrupt and quit keys of someone running it
// by hand.
const int kStopSignals[] = {SIGUSR1, SIGTERM, SIGHUP, SIGINT, SIGQUIT};
// Signals that would end the process by default but mean nothing to the
// daemon: a stray one is logged and changes nothing. (A file-size limit
// then shows as a failed log write instead of a dead daemon.)
const int kIgnoredSignals[] = {SIGALRM, SIGUSR2, SIGVTALRM, SIGPROF, SIGPOLL, SIGPWR, SIGXFSZ};

const char kTag[] = "BrevantaOutputControlManager";
// Exit status when another pvocd already serves the command socket.
const int kAlreadyRunningStatus = 1;

// Takes the one-instance lock beside the configured command socket, before
// anything could disturb a daemon that already runs: its log gets one line
// from here, nothing else. False when another pvocd holds the lock.
bool TakeInstanceLock(brvo::InstanceLock& lock) {
    const std::string socketPath = brvo::LoggerSettingManager::GetInstance()->GetOutputControlSocketPath();
    const brvo::InstanceLock::Outcome outcome = lock.Acquire(socketPath);
    if (outcome == brvo::InstanceLock::kAcquired) return true;
    brvo::LoggerLog::CreateInstance();
    if (outcome == brvo::InstanceLock::kUnavailable) {
        // A read-only directory must not keep the daemon from running.
        brvo::LoggerLog::Error(kTag, "Instance lock not taken. [" + lock.GetPath() + "][" +
                                         std::to_string(lock.GetError()) + "]");
        return true;
    }
    const std::string line = "Another pvocd holds [" + lock.GetPath() + "]; exiting.";
    // Said once on standard error below: not echoed to standard output too.
    brvo::LoggerLog::SetEcho(false);
    brvo::LoggerLog::Fatal(kTag, line);
    brvo::LoggerLog::DeleteInstance();
    std::fprintf(stderr, "pvocd: %s\n", line.c_str());
    return false;
}

// The C++ library fills its table of narrowed characters lazily, from
// whichever thread asks first (regular expressions ask, on the flow and
// answer workers alike). Filled here, before any thread starts, it is only
// read afterwards.
void FillNarrowTable() {
    const std::ctype<char>& ctype = std::use_facet<std::ctype<char>>(std::locale());
    for (int c = 0; c < 256; ++c) ctype.narrow(static_cast<char>(c), '\0');
}

// The one way pvocd ends once it has started a thread (the log writer's
// timer is the first): the log's final flush, then std::_Exit, which runs
// no static destructor. After Kill the command server still serves, as it
// always has (it is never stopped or joined), and other threads may still
// run: a flow parked in a host-name lookup with its manager, the start-up
// check, and the idle threads POCO keeps for its timers. Returning from
// main would destroy the constant texts, POCO's thread pool and the
// library's own statics under them; ending here destroys nothing. The log
// is taken from the writers atomically, so a line still being written on
// another thread is dropped or written whole, never read freed. Nothing
// stored is lost: the tables' commits are synced as they are made,
// standard output is flushed, and the kernel closes every descriptor and
// drops the instance lock.
[[noreturn]] void EndProcess(int status) {
    brvo::LoggerLog::DeleteInstance();
    std::fflush(nullptr);
#ifdef PVOCD_LEAK_CHECK_AT_END
    __lsan_do_leak_check();
#endif
    std::_Exit(status);
}

} // namespace

// Returns only for --help and --version, before any thread exists; every
// other end is EndProcess.
int main(int argc, char* argv[]) {
    const brvo::CommandLine commandLine(argc, argv);
    if (commandLine.GetAction() != brvo::CommandLine::kRun) return commandLine.Answer(stdout, stderr);

    // Memory stays near its level after start however many requests came:
    // two allocation arenas instead of one per thread that ever allocated
    // (each worker, timer and the accepting thread would keep its own,
    // each holding what a burst left free), and blocks from 256 KiB up
    // (the log buffers after a burst) are mapped on their own and given
    // back when freed, rather than the threshold rising with them.
    mallopt(M_ARENA_MAX, kArenas);
    mallopt(M_MMAP_THRESHOLD, kMappedBlockBytes);
    std::setlocale(LC_CTYPE, "");
    FillNarrowTable();
    for (const int signal : kStopSignals) std::signal(signal, OnStopSignal);
    brvo::BrevantaOutputControlManager::IgnoreSignals(kIgnoredSignals,
                                                      sizeof kIgnoredSignals / sizeof kIgnoredSignals[0]);
    // A client or the logger daemon hanging up mid-write must cost a log
    // line, not the daemon.
    std::signal(SIGPIPE, SIG_IGN);
    // Whatever the starting environment's mask, what pvocd creates (log,
    // database and socket directories 0755, log and database files 0644)
    // is readable for diagnosis and writable only by pvocd itself.
    ::umask(kCreationMask);
    // Every client connection holds a descriptor until its request is in:
    // the connection cap is set below whatever limit this leaves.
    brvo::OutputcontrolServer::RaiseDescriptorLimit();

    brvo::LoggerSettingManager::CreateInstance();
    brvo::InstanceLock instanceLock;
    if (!TakeInstanceLock(instanceLock)) EndProcess(kAlreadyRunningStatus);
    brvo::LoggerLog::CreateInstance();
    // Every log line is echoed to standard output; where that is the null
    // device (the service unit's setting) the echo would only cost each
    // answer a lock and a copy.
    if (brvo::FileUtil::DiscardsWrites(STDOUT_FILENO)) brvo::LoggerLog::SetEcho(false);
    brvo::LoggerSettingManager::GetInstance()->Dump();
    brvo::BrevantaOutputControlManager::CreateInstance();
    // A stop that was not clean may have cut a write short: the tables are
    // checked as they are opened.
    brvo::DatabaseManager::SetCheckOnOpen(!brvo::CleanStopMark::Take());
    brvo::ScheduleUpdateManager::CreateInstance();

    brvo::BrevantaOutputControlManager::GetInstance()->Start();

    // A schedule flow that could not be aborted (a host-name lookup) still
    // runs: no clean-stop mark, since it may still write.
    const bool parked = brvo::ScheduleUpdateManager::HasParked();
    if (!parked) brvo::CleanStopMark::Leave();
    // The stop is complete: the socket's file goes with the process, when
    // it is still the one this daemon bound.
    brvo::OutputcontrolServer* server = brvo::BrevantaOutputControlManager::GetInstance()->GetServer();
    if (server != nullptr) server->RemoveSocketFile();
    // Threads Kill could not end may still run, and POCO's idle timer
    // threads do: the process ends without destroying the statics they may
    // use (EndProcess says why that is safe).
    EndProcess(0);
}
