// Top-level controller of the daemon: starts the components, runs the
// start-up schedule check, keeps the log flushed and stops everything on
// request.
//
// Lock rules: killMutex_ guards the components (the server and its thread,
// the start-up check's thread, the watchdog, the flush timer) against a
// Kill or a second Start on another thread; it is held while they start
// and stop, and only the destructor, which no other thread reaches, goes
// without it.
//
// Stopping. Kill flushes the log, deletes the schedule update manager (which
// aborts the flows in flight and ends its timers, or parks itself when a flow
// does not end), deletes the watchdog and the flush timer and logs
// "Kill complete.". The command server is neither stopped nor joined: it
// serves until the process ends (main removes the socket's file, when it is
// still the one the server bound, as the process ends). The daemon therefore
// ends with std::_Exit after its final log flush (see main), never by
// returning from main, so that no static object is destroyed under the
// server's threads, a parked flow or the idle threads POCO keeps for its
// timers.
#ifndef BRVO_APP_BREVANTAOUTPUTCONTROLMANAGER_H
#define BRVO_APP_BREVANTAOUTPUTCONTROLMANAGER_H

#include "util/Mutex.h"
#include "util/ThreadAnnotations.h"

#include <Poco/RunnableAdapter.h>
#include <Poco/Thread.h>
#include <Poco/Timer.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>

namespace brvo {

class OutputcontrolServer;
class Watchdog;

class BrevantaOutputControlManager {
public:
    // First flush of the log by the flush timer, and its period.
    static constexpr long kFlushIntervalMs = 300000;

    // Creates the process-wide instance if absent.
    static void CreateInstance();
    // The instance, or null before CreateInstance.
    static BrevantaOutputControlManager* GetInstance();
    // Deletes the instance and clears the pointer.
    static void DeleteInstance();

    // Asks the daemon to stop. Async-signal-safe: it only sets a flag and
    // wakes the main loop, which then runs Kill on the main thread. May be
    // called before the instance exists; Start then stops at once.
    static void RequestKill();
    // Makes the `count` signals in `signals` harmless: each one that arrives
    // is logged by the main loop and changes nothing. Call on the main
    // thread before any other thread exists: the signals are blocked in
    // every thread and taken only while the main loop waits, so no
    // worker's system call is ever interrupted by one.
    static void IgnoreSignals(const int* signals, std::size_t count);

    // Starts the components (once), runs the start-up schedule check and
    // then waits until Kill has run. Returns when the daemon stops.
    void Start() EXCLUDES(killMutex_);
    // Stops the components in the order above and logs "Kill complete.".
    // A second call is harmless.
    void Kill() EXCLUDES(killMutex_);
    // Flush-timer callback: asks the log to write its buffer.
    void OnTimer(Poco::Timer& timer);

    // Whether Start has started the components and Kill has not run.
    bool IsRunning() const { return running_; }
    // The flush timer, or null before Start and after Kill.
    const Poco::Timer* GetFlushTimer() const EXCLUDES(killMutex_);
    // The command server and its thread, or null before Start.
    OutputcontrolServer* GetServer() const EXCLUDES(killMutex_);
    const Poco::Thread* GetServerThread() const EXCLUDES(killMutex_);
    // The watchdog; null after Kill.
    const Watchdog* GetWatchdog() const EXCLUDES(killMutex_);

    virtual ~BrevantaOutputControlManager();

private:
    BrevantaOutputControlManager();
    void StartComponents() REQUIRES(killMutex_);
    void StartFlushTimer() REQUIRES(killMutex_);
    static void OnListening(bool listening, const std::string& failure);
    void LogIgnoredSignals();
    // Sends the service manager's keep-alive when half its watchdog period
    // passed since `lastMicroseconds` on the monotonic clock (-1: never),
    // and sets it to now then. Main thread only.
    static void KeepServiceAlive(std::int64_t& lastMicroseconds);
    void RunStartupCheck();
    void WaitForKill();
    // Only for the destructor, which no other thread reaches: it goes
    // without killMutex_, so the analysis is told to leave it.
    void DeleteServer() NO_THREAD_SAFETY_ANALYSIS;

    // The schedule update manager is wired in here once it is built.
    Poco::Thread* serverThread_ GUARDED_BY(killMutex_);
    OutputcontrolServer* server_ GUARDED_BY(killMutex_);
    // Runs the start-up schedule check, so that a stop request is served
    // while a slow schedule server keeps the check waiting.
    Poco::Thread* startupThread_ GUARDED_BY(killMutex_);
    Poco::RunnableAdapter<BrevantaOutputControlManager> startupCheck_;
    Watchdog* watchdog_ GUARDED_BY(killMutex_);
    // Guards the components against a Kill or a second Start on another
    // thread.
    mutable Mutex killMutex_;
    Poco::Timer* flushTimer_ GUARDED_BY(killMutex_);
    std::atomic<bool> running_;
};

} // namespace brvo

#endif
