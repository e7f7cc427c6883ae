#include "server/OutputcontrolServer.h"

#include "client/Channel.h"
#include "schedule/TargetPowerSnapshot.h"
#include "server/CommandWire.h"
#include "server/OutSocketWork.h"
#include "server/SnapshotRebuild.h"
#include "settings/LoggerSettingManager.h"
#include "util/FileChangeWatch.h"
#include "util/FileUtil.h"
#include "util/LoggerLog.h"
#include "util/ScopedLock.h"
#include "util/SystemClock.h"

#include <Poco/RunnableAdapter.h>
#include <Poco/Thread.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace brvo {

namespace {

// The server thread is never joined: it still runs while the process ends
// (without destroying static objects). Its constants have no destructor
// all the same, and its mutex is never destroyed.
const char kTag[] = "OutputcontrolServer";
const mode_t kSocketMode = 0660;
// Events taken from the kernel per wait, and connections accepted per
// round before the waiting requests are read again.
const int kMaxEvents = 64;
const int kAcceptBurst = 64;
// Pause after the kernel ran short of memory for a connection, so that the
// loop does not spin on a backlog it cannot take.
const long kShortagePauseMs = 10;
// The snapshot reader numbers of the two accepting loops.
const int kServingLoop = 0;
const int kSecondLoop = 1;
static_assert(OutputcontrolServer::kLoops <= TargetPowerSnapshot::kReaders, "a snapshot reader per loop");
// At most one log line about shed connections per period.
const Poco::Clock::ClockDiff kShedLinePeriodUs = 60LL * 1000000;

std::string SocketPath() {
    return LoggerSettingManager::Current().GetOutputControlSocketPath();
}

// The socket address of `path`, or false when the path does not fit the
// address with its terminator.
bool SocketAddress(const std::string& path, sockaddr_un& address) {
    std::memset(&address, 0, sizeof address);
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) return false;
    std::memcpy(address.sun_path, path.data(), path.size());
    return true;
}

// Reads what the new connection `work` sent; abandons it when the read
// failed.
OutSocketWork::ReadState ReadNew(OutSocketWork& work) {
    const OutSocketWork::ReadState state = work.ReadAvailable();
    if (state == OutSocketWork::kReadFailed) work.Abandon();
    return state;
}

} // namespace

RecursiveMutex& OutputcontrolServer::ConnectionMutex() {
    static RecursiveMutex* mutex = new RecursiveMutex();
    return *mutex;
}

OutputcontrolServer::OutputcontrolServer()
    : channel_(new Channel(kWorkerCount)), answerChannel_(new Channel(kAnswerWorkerCount)), listenSocket_(-1),
      stopping_(false), connectionCap_(0), epoll_(-1), spare_(-1), shed_(0), shedLogged_(false), watchEpolls_{-1, -1},
      rebuildPending_(false), secondEpoll_(-1), secondThread_(nullptr), handedEvent_(-1), stopEvent_(-1),
      shedWanted_(false) {
    handedEvent_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    stopEvent_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    channel_->StartWorkers();
    answerChannel_->StartWorkers();
    LoggerLog::Debug(kTag, "StartWorkers done");
}

OutputcontrolServer::~OutputcontrolServer() {
    delete channel_;
    delete answerChannel_;
    if (handedEvent_ >= 0) close(handedEvent_);
    if (stopEvent_ >= 0) close(stopEvent_);
    const int socket = listenSocket_.exchange(-1);
    if (socket >= 0) close(socket);
}

void OutputcontrolServer::RaiseDescriptorLimit() {
    rlimit limit;
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur >= limit.rlim_max) return;
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
}

void OutputcontrolServer::Stop() {
    stopping_ = true;
    const int socket = listenSocket_;
    if (socket >= 0) shutdown(socket, SHUT_RDWR);
    // Both loops wait on the socket exclusively: the shutdown may wake
    // only one of them.
    Signal(handedEvent_);
    Signal(stopEvent_);
}

// Adds one to the event counter `fd`, which wakes a loop that waits on it.
void OutputcontrolServer::Signal(int fd) {
    const std::uint64_t one = 1;
    if (fd >= 0 && write(fd, &one, sizeof one) != sizeof one) {
        // The counter is non-blocking and far from full: nothing to do.
    }
}

void OutputcontrolServer::run() {
    LoggerLog::Info(kTag, "Start communication server");
    const int socket = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    listenSocket_ = socket;
    if (stopping_) return;
    std::string failure;
    const bool ready = BindAndListen(socket, failure);
    if (listenObserver_) listenObserver_(ready, failure);
    if (!ready) return;
    rlimit limit;
    const long descriptors = getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur != RLIM_INFINITY
                                 ? static_cast<long>(std::min<rlim_t>(limit.rlim_cur, 1L << 20))
                                 : kMaxConnections + kReservedDescriptors;
    connectionCap_ =
        static_cast<int>(std::max(1L, std::min<long>(kMaxConnections, descriptors - kReservedDescriptors)));
    spare_ = open("/dev/null", O_RDONLY | O_CLOEXEC);
    epoll_ = epoll_create1(EPOLL_CLOEXEC);
    epoll_event listening = {};
    listening.events = EPOLLIN | EPOLLEXCLUSIVE;
    listening.data.fd = socket;
    if (epoll_ < 0 || epoll_ctl(epoll_, EPOLL_CTL_ADD, socket, &listening) != 0 || !WatchEvent(epoll_, handedEvent_)) {
        LoggerLog::Fatal(kTag, "epoll failed. [" + std::to_string(errno) + "]");
    } else {
        WatchSettings();
        // The first view is built before the first request is taken, so
        // that the answers never start out on the table: another process
        // may hold it locked from the start.
        TargetPowerSnapshot::Instance().Rebuild();
        StartSecondLoop(socket);
        ServeLoop(socket);
    }
    StopSecondLoop();
    // Connections still coming in are closed unanswered when serving ends.
    pending_.clear();
    byDescriptor_.clear();
    if (epoll_ >= 0) close(epoll_);
    if (spare_ >= 0) close(spare_);
    epoll_ = spare_ = -1;
    for (int& watch : watchEpolls_) {
        if (watch >= 0) close(watch);
        watch = -1;
    }
}

// Adds the event counter `fd` to the epoll set `epoll`.
bool OutputcontrolServer::WatchEvent(int epoll, int fd) {
    epoll_event event = {};
    event.events = EPOLLIN;
    event.data.fd = fd;
    return fd >= 0 && epoll_ctl(epoll, EPOLL_CTL_ADD, fd, &event) == 0;
}

// Starts the second accepting loop on an epoll set of its own; without it
// (a set or the thread cannot be made) the serving loop accepts alone.
void OutputcontrolServer::StartSecondLoop(int socket) {
    const int epoll = epoll_create1(EPOLL_CLOEXEC);
    epoll_event listening = {};
    listening.events = EPOLLIN | EPOLLEXCLUSIVE;
    listening.data.fd = socket;
    if (epoll < 0 || epoll_ctl(epoll, EPOLL_CTL_ADD, socket, &listening) != 0 || !WatchEvent(epoll, stopEvent_)) {
        if (epoll >= 0) close(epoll);
        return;
    }
    secondEpoll_ = epoll;
    secondSocket_ = socket;
    try {
        secondThread_ = new Poco::Thread("AcceptLoop");
        secondThread_->start(secondRunner_);
    } catch (const Poco::Exception&) {
        delete secondThread_;
        secondThread_ = nullptr;
    }
}

// Ends the second accepting loop and closes the connections it handed
// over that the serving loop has not taken.
void OutputcontrolServer::StopSecondLoop() {
    if (secondThread_ != nullptr) {
        stopping_ = true;
        Signal(stopEvent_);
        secondThread_->join();
        delete secondThread_;
        secondThread_ = nullptr;
    }
    if (secondEpoll_ >= 0) close(secondEpoll_);
    secondEpoll_ = -1;
    ScopedLock lock(handedMutex_);
    for (Handed& handed : handed_) {
        if (handed.work.isNull()) close(handed.client);
    }
    handed_.clear();
    for (const Handed& handed : pastCap_) close(handed.client);
    pastCap_.clear();
}

// The second accepting loop: takes connections off the same backlog, and
// answers each whose request came with it from the snapshot or hands it to
// a worker pool, as the serving loop does. A connection still sending its
// request, or one past the connection cap, goes to the serving loop, which
// keeps every waiting connection and sheds.
void OutputcontrolServer::RunSecondLoop() {
    epoll_event events[2];
    while (!stopping_) {
        TargetPowerSnapshot::Instance().Reclaim();
        const int ready = epoll_wait(secondEpoll_, events, 2, -1);
        for (int i = 0; i < ready && !stopping_; ++i) {
            if (events[i].data.fd != secondSocket_) continue;
            if (!AcceptPending(secondSocket_, (events[i].events & (EPOLLHUP | EPOLLERR)) != 0, kSecondLoop)) return;
        }
    }
}

// A connection the second loop took, under the connection mutex: one past
// the cap or still sending its request is handed to the serving loop; one
// whose request is complete is returned, to be served once the mutex is
// released.
Poco::AutoPtr<OutSocketWork> OutputcontrolServer::AdmitSecond(int client, const Poco::Clock& accepted) {
    if (OutSocketWork::OpenCount() >= connectionCap_) {
        Hand(Handed{Poco::AutoPtr<OutSocketWork>(), client, accepted});
        return Poco::AutoPtr<OutSocketWork>();
    }
    Poco::AutoPtr<OutSocketWork> work(new OutSocketWork(client));
    const OutSocketWork::ReadState state = ReadNew(*work);
    if (state == OutSocketWork::kReading) Hand(Handed{work, -1, accepted});
    return state == OutSocketWork::kRead ? work : Poco::AutoPtr<OutSocketWork>();
}

void OutputcontrolServer::Hand(const Handed& handed) {
    {
        ScopedLock lock(handedMutex_);
        handed_.push_back(handed);
    }
    Signal(handedEvent_);
}

// Takes what the second loop handed over; sheds for the second loop when
// it ran out of descriptors; admits the connections it took past the cap
// (which sheds).
void OutputcontrolServer::TakeHanded(int socket) {
    std::uint64_t count = 0;
    if (read(handedEvent_, &count, sizeof count) != sizeof count) {
        // Nothing was signalled since the last read.
    }
    MergeHanded();
    if (shedWanted_.exchange(false)) ShedOrUseSpare(socket);
    while (!pastCap_.empty()) {
        const Handed handed = pastCap_.front();
        pastCap_.erase(pastCap_.begin());
        Poco::AutoPtr<OutSocketWork> work;
        {
            ScopedLock lock(ConnectionMutex());
            work = TakeIn(handed.client);
        }
        if (!work.isNull()) Admit(work, handed.accepted);
    }
}

// Puts the connections still sending that the second loop handed over
// among the waiting ones, in accept order (so the oldest is shed first and
// each keeps the deadline of its accept); keeps those taken past the cap
// for TakeHanded. Under the connection mutex, which the second loop holds
// from its accept to its hand-over: every connection accepted before is
// then either here or being served.
void OutputcontrolServer::MergeHanded() {
    ScopedLock connections(ConnectionMutex());
    MergeHandedLocked();
}

void OutputcontrolServer::MergeHandedLocked() {
    std::vector<Handed> taken;
    {
        ScopedLock lock(handedMutex_);
        taken.swap(handed_);
    }
    for (Handed& handed : taken) {
        if (handed.work.isNull()) {
            pastCap_.push_back(handed);
            continue;
        }
        const int fd = handed.work->GetSocket();
        if (!Watch(fd, EPOLL_CTL_ADD)) {
            handed.work->Abandon();
            continue;
        }
        PendingList::iterator at = pending_.end();
        while (at != pending_.begin() && handed.accepted < std::prev(at)->accepted) --at;
        byDescriptor_[fd] = pending_.insert(at, Pending{handed.work, handed.accepted});
    }
}

// False when listen failed, with `failure` naming the path and both
// errors; a bind failure is only logged.
void OutputcontrolServer::NoteBound(const char* path) {
    struct stat info;
    if (::stat(path, &info) != 0) return;
    ScopedLock lock(boundMutex_);
    boundPath_ = path;
    boundDevice_ = info.st_dev;
    boundInode_ = info.st_ino;
}

void OutputcontrolServer::RemoveSocketFile() {
    ScopedLock lock(boundMutex_);
    struct stat info;
    if (boundPath_.empty() || ::stat(boundPath_.c_str(), &info) != 0) return;
    if (info.st_dev == boundDevice_ && info.st_ino == boundInode_) ::unlink(boundPath_.c_str());
}

bool OutputcontrolServer::BindAndListen(int socket, std::string& failure) {
    const std::string path = SocketPath();
    const std::string directory = FileUtil::GetDirectory(path);
    if (!FileUtil::Exists(directory)) FileUtil::CreateDirectory(directory, true);
    // A path too long for the address is not cut to some other name: it
    // cannot be bound, which the bind failure line reports.
    sockaddr_un address;
    const bool fits = SocketAddress(path, address);
    if (fits) unlink(address.sun_path);
    LoggerLog::Debug(kTag, "bind start");
    errno = fits ? 0 : ENAMETOOLONG;
    const int bound = fits ? bind(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) : -1;
    const int bindError = bound == 0 ? 0 : errno;
    if (bound != 0) LoggerLog::Fatal(kTag, "bind failed. [" + std::to_string(bound) + "]");
    // Commands can start schedule fetches and, on a plant change, wipe the
    // stored schedule: only pvocd's user and group may connect.
    if (bound == 0) {
        chmod(address.sun_path, kSocketMode);
        NoteBound(address.sun_path);
    }
    errno = 0;
    const int listening = listen(socket, kBacklog);
    if (listening != 0) {
        const int listenError = errno;
        LoggerLog::Fatal(kTag,
                         "listen failed. [" + std::to_string(listening) + "][" + std::to_string(listenError) + "]");
        failure = "command socket [" + path + "] not listening: bind error [" + std::strerror(bindError) +
                  "], listen error [" + std::strerror(listenError) + "]";
        return false;
    }
    return true;
}

// Waits for connections and request bytes, at most until the next deadline
// of a connection or the socket time-out, re-read every round so that a
// changed setting takes effect; ends when an accept fails for good.
void OutputcontrolServer::ServeLoop(int socket) {
    epoll_event events[kMaxEvents];
    TargetPowerSnapshot& snapshot = TargetPowerSnapshot::Instance();
    while (!stopping_) {
        // No view is held here: the views retired so far can go.
        snapshot.Reclaim();
        const int ready = epoll_wait(epoll_, events, kMaxEvents, WaitMs());
        if (ready == -1) {
            LoggerLog::Debug(kTag, "select error continue");
            continue;
        }
        for (int i = 0; i < ready; ++i) {
            const int fd = events[i].data.fd;
            if (fd == handedEvent_) {
                TakeHanded(socket);
            } else if (fd != socket) {
                ReadRequest(fd);
            } else if (!AcceptPending(socket, (events[i].events & (EPOLLHUP | EPOLLERR)) != 0, kServingLoop)) {
                return;
            }
        }
        ExpireLate();
    }
}

// Until the oldest connection's deadline; the whole time-out when none is
// waiting.
int OutputcontrolServer::WaitMs() const {
    const Poco::Clock::ClockDiff timeout = OutSocketWork::TimeoutMicroseconds();
    if (pending_.empty()) return static_cast<int>(timeout / 1000);
    const Poco::Clock::ClockDiff left = std::min(timeout, timeout - pending_.front().accepted.elapsed());
    return left <= 0 ? 0 : static_cast<int>((left + 999) / 1000);
}

// Accepts for loop `loop` what the backlog holds (a bounded number per
// round). False when an accept failed for good: the loop then ends. A
// listening socket that was shut down (`hungUp`) reports "no connection"
// on every accept; that counts as the failure it is.
bool OutputcontrolServer::AcceptPending(int socket, bool hungUp, int loop) {
    for (int i = 0; i < kAcceptBurst && !stopping_; ++i) {
        sockaddr_un peer;
        socklen_t peerLength = sizeof peer;
        int client = -1;
        // Accept times are taken under the mutex, so that their order is
        // the order of the backlog whichever loop accepted.
        Poco::Clock accepted;
        // Each loop also counts its connection in under the mutex: were
        // one loop to count after the other had checked the cap, the two
        // together could pass it.
        Poco::AutoPtr<OutSocketWork> work;
        {
            ScopedLock lock(ConnectionMutex());
            client = accept4(socket, reinterpret_cast<sockaddr*>(&peer), &peerLength, SOCK_CLOEXEC | SOCK_NONBLOCK);
            accepted.update();
            if (client >= 0) work = loop == kServingLoop ? TakeIn(client) : AdmitSecond(client, accepted);
        }
        if (client >= 0) {
            // No work: the connection was shed, or handed to the serving loop.
            if (work.isNull()) continue;
            if (loop == kServingLoop) {
                Admit(work, accepted);
            } else {
                Dispatch(work, kSecondLoop);
            }
            continue;
        }
        const int error = errno;
        if ((error == EAGAIN || error == EWOULDBLOCK) && !hungUp) return true;
        if (!HandleAcceptFailure(socket, hungUp ? EINVAL : error, loop)) return false;
    }
    return true;
}

// A connection that went away before it was taken, a signal, or a shortage
// of descriptors or memory passes; anything else ends the server.
bool OutputcontrolServer::HandleAcceptFailure(int socket, int error, int loop) {
    switch (error) {
    case EINTR:
    case ECONNABORTED:
    case EPROTO:
        return true;
    case EMFILE:
    case ENFILE:
        if (loop == kServingLoop) {
            ShedOrUseSpare(socket);
            return true;
        }
        // Only the serving loop can shed: it is asked to, and this one
        // pauses meanwhile.
        shedWanted_ = true;
        Signal(handedEvent_);
        Poco::Thread::sleep(kShortagePauseMs);
        return true;
    case ENOBUFS:
    case ENOMEM:
        Poco::Thread::sleep(kShortagePauseMs);
        return true;
    default:
        if (!stopping_ && loop == kServingLoop) LoggerLog::Error(kTag, "Failed to accept");
        return false;
    }
}

// Counts a new connection in, making room under the cap first; null when
// there was no room, and the connection is closed.
Poco::AutoPtr<OutSocketWork> OutputcontrolServer::TakeIn(int client) {
    if (OutSocketWork::OpenCount() >= connectionCap_ && !ShedOldest()) {
        // Every open connection is running a flow: the newest waits longest.
        close(client);
        NoteShed();
        return Poco::AutoPtr<OutSocketWork>();
    }
    return Poco::AutoPtr<OutSocketWork>(new OutSocketWork(client));
}

// Takes a counted connection in. A request that is already complete (a
// client writes it right after connecting) is served at once; only a
// connection still sending is watched.
void OutputcontrolServer::Admit(Poco::AutoPtr<OutSocketWork> work, const Poco::Clock& accepted) {
    const int client = work->GetSocket();
    const OutSocketWork::ReadState state = ReadNew(*work);
    if (state == OutSocketWork::kRead) Dispatch(work, kServingLoop);
    if (state != OutSocketWork::kReading) return;
    if (!Watch(client, EPOLL_CTL_ADD)) {
        work->Abandon();
        return;
    }
    pending_.push_back(Pending{work, accepted});
    byDescriptor_[client] = std::prev(pending_.end());
}

void OutputcontrolServer::ReadRequest(int fd) {
    const auto found = byDescriptor_.find(fd);
    if (found == byDescriptor_.end()) return;
    const PendingList::iterator it = found->second;
    switch (it->work->ReadAvailable()) {
    case OutSocketWork::kReading:
        if (!Watch(fd, EPOLL_CTL_MOD)) {
            Poco::AutoPtr<OutSocketWork> work = it->work;
            Forget(it);
            work->Abandon();
        }
        return;
    case OutSocketWork::kReadFailed: {
        Poco::AutoPtr<OutSocketWork> work = it->work;
        Forget(it);
        work->Abandon();
        return;
    }
    case OutSocketWork::kRead: {
        Poco::AutoPtr<OutSocketWork> work = it->work;
        Forget(it);
        Dispatch(work, kServingLoop);
        return;
    }
    }
}

// A complete request: target power the snapshot covers is answered here;
// schedule flows go to the flow workers, other target power and flushes to
// the answer workers; a request of unknown type is closed here, unanswered.
void OutputcontrolServer::Dispatch(Poco::AutoPtr<OutSocketWork> work, int reader) {
    const std::int32_t type = work->GetType();
    if (!OutSocketWork::IsFlow(type) && !OutSocketWork::IsAnswer(type)) {
        work->Refuse();
        return;
    }
    if ((type == CommandWire::kCurrentTargetPower || type == CommandWire::kNextTargetPower) &&
        AnswerFromSnapshot(*work, reader)) {
        return;
    }
    ScopedLock lock(ConnectionMutex());
    work->duplicate();
    (OutSocketWork::IsFlow(type) ? channel_ : answerChannel_)->Enqueue(work.get());
}

// True when the snapshot answered the request. A rebuild is queued when
// the view answered from slots past their freshness, or did not answer:
// it is missing, stale or past its slot boundary, or unusable for longer
// than its retry time.
bool OutputcontrolServer::AnswerFromSnapshot(OutSocketWork& work, int reader) {
    // Without the watch's reports the loop could not tell a view gone
    // stale: every request then goes to the workers.
    if (watchEpolls_[reader] < 0) return false;
    TakeWatchReports(reader);
    TargetPowerSnapshot& snapshot = TargetPowerSnapshot::Instance();
    const TargetPowerSnapshot::View* view = snapshot.Hold(reader);
    const TargetPowerSnapshot::Miss miss = work.ServeFromSnapshot(view);
    const std::int64_t now = SystemClock::NowMicroseconds();
    const bool rebuild = miss == TargetPowerSnapshot::Miss::kNone
                             ? TargetPowerSnapshot::Aging(*view, now)
                             : miss != TargetPowerSnapshot::Miss::kUnusable || now >= view->retryAfterMicros;
    snapshot.LetGo(reader);
    if (rebuild) RequestRebuild();
    return miss == TargetPowerSnapshot::Miss::kNone;
}

// Queues a rebuild of the snapshot to the answer workers unless one is
// queued or running.
void OutputcontrolServer::RequestRebuild() {
    if (rebuildPending_.exchange(true, std::memory_order_acq_rel)) return;
    answerChannel_->Enqueue(new SnapshotRebuild(rebuildPending_));
}

// An epoll set per accepting loop of the settings watch's two
// descriptors, asked without waiting before each answer from the snapshot.
// It cannot be the loop's own set: a connection accepted in the same round
// as one before it may come from a client that changed a setting after the
// round's wait returned, and the change must count before its answer. Each
// loop has its own, so that the two never wait on one set's lock. Left
// unset (no answers from the snapshot) when one cannot be made.
void OutputcontrolServer::WatchSettings() {
    int inotify = -1;
    int mounts = -1;
    FileChangeWatch::Instance().Descriptors(inotify, mounts);
    if (inotify < 0 || mounts < 0) return;
    int watches[kLoops] = {-1, -1};
    bool added = true;
    for (int& watch : watches) {
        watch = epoll_create1(EPOLL_CLOEXEC);
        epoll_event event = {};
        event.events = EPOLLIN;
        event.data.fd = inotify;
        added = added && watch >= 0 && epoll_ctl(watch, EPOLL_CTL_ADD, inotify, &event) == 0;
        event.events = EPOLLPRI;
        event.data.fd = mounts;
        added = added && epoll_ctl(watch, EPOLL_CTL_ADD, mounts, &event) == 0;
    }
    for (int loop = 0; loop < kLoops; ++loop) {
        if (added) {
            watchEpolls_[loop] = watches[loop];
        } else if (watches[loop] >= 0) {
            close(watches[loop]);
        }
    }
}

// Counts a report of the settings watch that no reader has taken yet
// (reports stay queued until the settings readers take them; a mount is
// reported once), so that the view read before it no longer answers.
void OutputcontrolServer::TakeWatchReports(int loop) {
    epoll_event events[2];
    if (epoll_wait(watchEpolls_[loop], events, 2, 0) > 0) FileChangeWatch::Instance().NoteReported();
}

// Closes, unanswered, the connections whose request did not arrive within
// the socket time-out of their accept.
void OutputcontrolServer::ExpireLate() {
    const Poco::Clock::ClockDiff timeout = OutSocketWork::TimeoutMicroseconds();
    while (!pending_.empty() && pending_.front().accepted.elapsed() >= timeout) {
        Poco::AutoPtr<OutSocketWork> work = pending_.front().work;
        Forget(pending_.begin());
        work->Expire();
    }
}

// Watches `fd` for its next bytes, once: a connection reports one event,
// then stays quiet until it is watched again, so one that is handed over
// or closed needs no call to stop watching it (closing ends the watch).
bool OutputcontrolServer::Watch(int fd, int operation) {
    epoll_event event = {};
    event.events = EPOLLIN | EPOLLONESHOT;
    event.data.fd = fd;
    return epoll_ctl(epoll_, operation, fd, &event) == 0;
}

// Stops tracking a connection; its descriptor stays open, and no longer
// reports (its one-shot watch fired or it was never re-armed).
void OutputcontrolServer::Forget(PendingList::iterator it) {
    byDescriptor_.erase(it->work->GetSocket());
    pending_.erase(it);
}

// Closes the oldest connection still sending its request; false when there
// is none.
bool OutputcontrolServer::ShedOldest() {
    // The oldest may be among those the second loop just handed over.
    MergeHandedLocked();
    if (pending_.empty()) return false;
    Poco::AutoPtr<OutSocketWork> work = pending_.front().work;
    Forget(pending_.begin());
    work->Close();
    NoteShed();
    return true;
}

// Sheds the oldest connection still sending; with none, takes the waiting
// one off the backlog with the spare descriptor.
void OutputcontrolServer::ShedOrUseSpare(int socket) {
    bool shed = false;
    {
        ScopedLock lock(ConnectionMutex());
        shed = ShedOldest();
    }
    if (!shed) ShedWithSpare(socket);
}

// With no descriptor left and no connection to shed, the spare descriptor
// makes room to take the waiting connection off the backlog and close it;
// otherwise it would wake every round and never be served.
void OutputcontrolServer::ShedWithSpare(int socket) {
    if (spare_ >= 0) {
        close(spare_);
        const int client = accept4(socket, nullptr, nullptr, SOCK_CLOEXEC);
        if (client >= 0) {
            close(client);
            NoteShed();
        }
        spare_ = open("/dev/null", O_RDONLY | O_CLOEXEC);
    }
    if (spare_ < 0) Poco::Thread::sleep(kShortagePauseMs);
}

// Counts a shed connection; logs the count at most once per period.
void OutputcontrolServer::NoteShed() {
    ++shed_;
    if (shedLogged_ && lastShedLine_.elapsed() < kShedLinePeriodUs) return;
    LoggerLog::Warning(kTag, "Too many connections. Closed [" + std::to_string(shed_) +
                                 "] connection(s) unanswered. limit[" + std::to_string(connectionCap_) + "]");
    shed_ = 0;
    shedLogged_ = true;
    lastShedLine_.update();
}

} // namespace brvo
