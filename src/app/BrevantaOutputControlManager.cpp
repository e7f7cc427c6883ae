#include "app/BrevantaOutputControlManager.h"

#include <atomic>

#include "app/Constants.h"
#include "app/ServiceNotifier.h"
#include "app/Watchdog.h"
#include "database/ScheduleDatabase.h"
#include "schedule/ScheduleUpdateManager.h"
#include "server/OutputcontrolServer.h"
#include "util/LoggerLog.h"
#include "util/Mutex.h"
#include "util/ScopedLock.h"

#include <Poco/Clock.h>
#include <Poco/Timestamp.h>

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <malloc.h>
#include <poll.h>
#include <pthread.h>
#include <unistd.h>

namespace brvo {

namespace {

const std::string kTag = "BrevantaOutputControlManager";
const int kSleepStepMs = 500;
// Every worker thread keeps its own malloc arena, and memory freed after a
// burst of requests stays with the process until it is trimmed. Once a
// minute the sleep loop hands it back, so that the daemon's resident size
// returns to its level instead of staying at its peak for years.
const int kTrimEverySteps = 120;

// Read from every thread; created and deleted on the main thread.
std::atomic<BrevantaOutputControlManager*> instance(nullptr);

// Stop requests arrive in a signal handler, where almost nothing may be
// called. The handler only sets this flag and writes one byte to a pipe that
// the main loop waits on; Kill itself then runs on the main thread.
std::atomic<int> killRequested(0);
// One bit per signal number below 32 that arrived and was not acted on.
std::atomic<unsigned> ignoredSignals(0);
std::atomic<int> wakeWriteFd(-1);
std::atomic<int> wakeReadFd(-1);
Mutex wakePipeMutex;

static_assert(std::atomic<int>::is_always_lock_free, "the signal handler needs lock-free atomics");

void OpenWakePipe() {
    ScopedLock lock(wakePipeMutex);
    if (wakeReadFd >= 0) return;
    int fds[2];
    if (pipe2(fds, O_CLOEXEC | O_NONBLOCK) != 0) return;
    wakeReadFd = fds[0];
    wakeWriteFd = fds[1];
}

} // namespace

void BrevantaOutputControlManager::CreateInstance() {
    if (instance == nullptr) instance = new BrevantaOutputControlManager();
}

BrevantaOutputControlManager* BrevantaOutputControlManager::GetInstance() {
    return instance;
}

void BrevantaOutputControlManager::DeleteInstance() {
    BrevantaOutputControlManager* doomed = instance.exchange(nullptr);
    delete doomed;
}

namespace {

// Wakes the main loop from a signal handler.
void WakeMainLoop() {
    const int savedErrno = errno;
    const int fd = wakeWriteFd.load();
    if (fd >= 0) {
        const char byte = 1;
        ssize_t ignored = write(fd, &byte, 1);
        (void)ignored;
    }
    errno = savedErrno;
}

} // namespace

void BrevantaOutputControlManager::RequestKill() {
    killRequested = 1;
    WakeMainLoop();
}

namespace {

// The signals of IgnoreSignals; written once before other threads exist.
sigset_t ignoredSet;

void NoteIgnoredSignal(int signal) {
    if (signal <= 0 || signal >= 32) return;
    ignoredSignals.fetch_or(1u << signal);
    WakeMainLoop();
}

} // namespace

void BrevantaOutputControlManager::IgnoreSignals(const int* signals, std::size_t count) {
    sigemptyset(&ignoredSet);
    for (std::size_t i = 0; i < count; ++i) {
        sigaddset(&ignoredSet, signals[i]);
        std::signal(signals[i], NoteIgnoredSignal);
    }
    pthread_sigmask(SIG_BLOCK, &ignoredSet, nullptr);
}

// Writes one line for each signal noted since the last call, so that
// whoever sent it can see in the log that it arrived and changed nothing.
void BrevantaOutputControlManager::LogIgnoredSignals() {
    const unsigned noted = ignoredSignals.exchange(0);
    for (int signal = 1; signal < 32; ++signal) {
        if ((noted & (1u << signal)) == 0) continue;
        LoggerLog::Info(kTag, "Signal ignored. [" + std::to_string(signal) + "]");
    }
}

BrevantaOutputControlManager::BrevantaOutputControlManager()
    : serverThread_(nullptr), server_(nullptr), startupThread_(nullptr),
      startupCheck_(*this, &BrevantaOutputControlManager::RunStartupCheck), watchdog_(new Watchdog()),
      flushTimer_(nullptr), running_(false) {}

BrevantaOutputControlManager::~BrevantaOutputControlManager() {
    Kill();
    // A check still waiting on the schedule server is left to the process
    // exit rather than freed under its feet.
    if (startupThread_ != nullptr && startupThread_->tryJoin(30000)) {
        delete startupThread_;
        startupThread_ = nullptr;
    }
    DeleteServer();
    BrevantaOutputControlManager* self = this;
    instance.compare_exchange_strong(self, nullptr);
}

// The daemon itself never gets here with a live server (the process exits
// after Start returns); a manager deleted inside a running program first
// ends the accept loop and waits for the server thread.
void BrevantaOutputControlManager::DeleteServer() {
    if (server_ == nullptr) return;
    server_->Stop();
    if (serverThread_ != nullptr) serverThread_->join();
    delete serverThread_;
    serverThread_ = nullptr;
    delete server_;
    server_ = nullptr;
}

void BrevantaOutputControlManager::Start() {
    OpenWakePipe();
    {
        ScopedLock lock(killMutex_);
        StartComponents();
        StartFlushTimer();
    }
    LoggerLog::Flush();
    {
        ScopedLock lock(killMutex_);
        if (startupThread_ == nullptr && running_) {
            startupThread_ = new Poco::Thread();
            startupThread_->start(startupCheck_);
        }
    }
    WaitForKill();
}

const Poco::Timer* BrevantaOutputControlManager::GetFlushTimer() const {
    ScopedLock lock(killMutex_);
    return flushTimer_;
}

OutputcontrolServer* BrevantaOutputControlManager::GetServer() const {
    ScopedLock lock(killMutex_);
    return server_;
}

const Poco::Thread* BrevantaOutputControlManager::GetServerThread() const {
    ScopedLock lock(killMutex_);
    return serverThread_;
}

const Watchdog* BrevantaOutputControlManager::GetWatchdog() const {
    ScopedLock lock(killMutex_);
    return watchdog_;
}

void BrevantaOutputControlManager::StartComponents() {
    if (serverThread_ != nullptr) return;
    LoggerLog::Info(kTag, "Start AppVer:" + kAppVersion);
    if (watchdog_ != nullptr) watchdog_->Start();
    server_ = new OutputcontrolServer();
    server_->SetListenObserver(&BrevantaOutputControlManager::OnListening);
    serverThread_ = new Poco::Thread();
    LoggerLog::Info(kTag, "Start Server");
    serverThread_->start(*server_);
    running_ = true;
}

// The service manager counts the daemon started only once clients can
// connect; a daemon without its command socket never reports ready, so its
// start fails visibly instead of looking healthy.
void BrevantaOutputControlManager::OnListening(bool listening, const std::string& failure) {
    if (listening) {
        ServiceNotifier::Ready();
    } else {
        ServiceNotifier::Failed(failure);
    }
}

void BrevantaOutputControlManager::StartFlushTimer() {
    if (flushTimer_ != nullptr) return;
    flushTimer_ = new Poco::Timer(kFlushIntervalMs, kFlushIntervalMs);
    flushTimer_->start(
        Poco::TimerCallback<BrevantaOutputControlManager>(*this, &BrevantaOutputControlManager::OnTimer));
}

// Brings the stored schedule in step with the system settings; when that
// fetched new data, tells the logger daemon and marks the rows sent.
void BrevantaOutputControlManager::RunStartupCheck() {
    bool started = false;
    {
        const ScheduleUpdateManager::Pin updates;
        if (!updates) return;
        updates->CheckAndUpdateWithSystemSetting(started, true);
    }
    ScheduleDatabase* database = ScheduleDatabase::GetInstance();
    if (started && database != nullptr) database->UpdateSentFlag();
}

// Sleeps in 500 ms steps while running; a stop request wakes it at once and
// runs Kill here, on the main thread.
void BrevantaOutputControlManager::WaitForKill() {
    pthread_sigmask(SIG_UNBLOCK, &ignoredSet, nullptr);
    int step = 0;
    std::int64_t lastKeepAlive = -1;
    while (running_) {
        if (killRequested) {
            Kill();
            break;
        }
        LogIgnoredSignals();
        KeepServiceAlive(lastKeepAlive);
        if (++step == kTrimEverySteps) {
            step = 0;
            malloc_trim(0);
        }
        if (wakeReadFd < 0) {
            usleep(kSleepStepMs * 1000);
            continue;
        }
        struct pollfd wake = {wakeReadFd, POLLIN, 0};
        if (poll(&wake, 1, kSleepStepMs) > 0) {
            char drain[16];
            while (read(wakeReadFd, drain, sizeof drain) > 0) {
            }
        }
    }
}

// Tells the service manager, when it watches the daemon, that the main
// loop still turns, at half its watchdog period. This loop and not the
// watchdog file's timer: the file's interval is a setting, and one as long
// as the service watchdog (or 0, a single touch) would have the daemon
// killed and restarted for ever.
void BrevantaOutputControlManager::KeepServiceAlive(std::int64_t& lastMicroseconds) {
    const std::int64_t period = static_cast<std::int64_t>(ServiceNotifier::WatchdogMicroseconds());
    if (period == 0) return;
    const std::int64_t now = Poco::Clock().raw();
    if (lastMicroseconds >= 0 && now - lastMicroseconds < period / 2) return;
    ServiceNotifier::KeepAlive();
    lastMicroseconds = now;
}

void BrevantaOutputControlManager::Kill() {
    ScopedLock lock(killMutex_);
    if (running_) ServiceNotifier::Stopping();
    LoggerLog::Flush();
    ScheduleUpdateManager::DeleteInstance();
    running_ = false;
    if (watchdog_ != nullptr) {
        watchdog_->Stop();
        delete watchdog_;
        watchdog_ = nullptr;
    }
    if (flushTimer_ != nullptr) {
        flushTimer_->stop();
        delete flushTimer_;
        flushTimer_ = nullptr;
    }
    LoggerLog::Info(kTag, "Kill complete.");
    LoggerLog::Flush();
}

void BrevantaOutputControlManager::OnTimer(Poco::Timer&) {
    LoggerLog::Flush();
}

} // namespace brvo
