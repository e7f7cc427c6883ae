// The command server: listens on the daemon's UNIX-domain command socket and
// serves every connection from one thread that never waits on a client.
//
// The server thread accepts connections and reads their requests as the
// bytes arrive (epoll), each within the socket time-out counted from its
// accept. Complete requests go to one of two worker pools: target power and
// log flushes to the answer workers, the schedule flows, which may wait on
// the schedule server or the logger daemon for long, to the flow workers. A
// silent or slow client thus holds a descriptor, never a worker; target
// power never waits behind a flow; and a select that waits on a database
// locked by another process holds up answer workers, never the accepting.
//
// A second accepting loop, on a thread of its own, takes connections off
// the same backlog (both wait on the listening socket exclusively, so a
// connection wakes one of them) and serves each whose request came with
// it as the serving loop does; a connection still sending its request, or
// one past the cap, it hands to the serving loop, which alone keeps the
// waiting connections, their deadlines and the shedding. Two loops let
// target power use both cores of the device.
//
// Target power is answered on the accepting loops themselves whenever the
// target power snapshot covers the request (see TargetPowerSnapshot for
// when it does): no file, no statement, no lock a flow may hold. Before each such
// answer the settings watch's descriptors are asked, without waiting,
// whether a change was reported that no reader took yet; one counts at
// once. A request the snapshot does not cover goes to the answer workers
// as before, and the server queues a rebuild of the snapshot to them (one
// at a time) when a view stopped covering; the first view is built on the
// serving loop's thread before it takes its first request. Retired
// views are freed at the top of each round of the loop, where it holds
// none.
//
// Open connections are capped below the descriptor limit; past the cap the
// oldest connection still sending its request is closed, and one spare
// descriptor lets accept shed a connection even when the process has none
// left. accept therefore never fails for lack of descriptors.
//
// Threads: run() on the server thread, which starts and joins the second
// loop's; Stop() from any thread. The waiting connections are the server
// thread's alone; the hand-over list is guarded by handedMutex_, taken
// after the process-wide connection mutex when both are held (the second
// loop holds that one from its accept to its hand-over, and the serving
// loop while it takes the hand-overs before shedding).
#ifndef BRVO_SERVER_OUTPUTCONTROLSERVER_H
#define BRVO_SERVER_OUTPUTCONTROLSERVER_H

#include "util/Mutex.h"
#include "util/RecursiveMutex.h"
#include "util/ThreadAnnotations.h"

#include <Poco/AutoPtr.h>
#include <Poco/Clock.h>
#include <Poco/Runnable.h>
#include <Poco/RunnableAdapter.h>

#include <atomic>
#include <functional>
#include <list>
#include <string>
#include <sys/types.h>
#include <unordered_map>
#include <vector>

namespace Poco {
class Thread;
}

namespace brvo {

class Channel;
class OutSocketWork;

class OutputcontrolServer : public Poco::Runnable {
public:
    // Number of workers that run the schedule flows of local clients.
    static constexpr int kWorkerCount = 3;
    // Accepting loops: the serving loop and the second one.
    static constexpr int kLoops = 2;
    // Number of workers that answer target power and log flushes.
    static constexpr int kAnswerWorkerCount = 3;
    // Backlog of the listening socket.
    static constexpr int kBacklog = 100;
    // Most connections open at once (fewer when the descriptor limit is
    // low): a logger has a handful of local clients.
    static constexpr int kMaxConnections = 1024;
    // Descriptors kept for the rest of the daemon (log, databases, server
    // and logger daemon exchanges, settings watch) when the cap is set.
    static constexpr int kReservedDescriptors = 32;

    // Told once by run, on the server thread, whether the command socket
    // listens; when it does not, `failure` says why.
    typedef std::function<void(bool listening, const std::string& failure)> ListenObserver;

    // Creates the two worker pools and starts their workers.
    OutputcontrolServer();
    // Frees the pool (stopping its workers), closes the connections and the
    // listening socket. The daemon never destroys a running server: the
    // process exits.
    ~OutputcontrolServer() override;

    // Raises the soft limit of open descriptors to the hard limit, so that
    // the connection cap and the spare descriptor have room.
    static void RaiseDescriptorLimit();

    // The serving loop. Binds and listens on the configured socket path,
    // then serves until an accept fails for a reason other than a passing
    // shortage; returns at once when listen fails. A failed bind is logged
    // and listen decides.
    void run() override;

    // Sets the observer of the listen outcome; call before the server
    // thread starts.
    void SetListenObserver(const ListenObserver& observer) { listenObserver_ = observer; }

    // Ends the serving loop: wakes it by shutting the listening socket down,
    // so that run returns soon after (the daemon itself never calls this;
    // its server serves until the process exits). The caller then joins the
    // server thread before deleting the server.
    void Stop();
    // Removes the command socket's file when it is still the one this
    // server bound (a daemon started since may have bound its own there).
    // For the end of a clean stop: connections made before go on being
    // served until the process exits; new ones find no socket. Any thread.
    void RemoveSocketFile() EXCLUDES(boundMutex_);

    // The worker pool that runs the schedule flows.
    Channel* GetChannel() const { return channel_; }
    // The worker pool that answers target power and log flushes.
    Channel* GetAnswerChannel() const { return answerChannel_; }
    // The listening descriptor; -1 before run created it.
    int GetListenSocket() const { return listenSocket_; }
    // Most connections open at once; set when run starts.
    int GetConnectionCap() const { return connectionCap_; }

private:
    // A connection whose request is still coming in.
    struct Pending {
        Poco::AutoPtr<OutSocketWork> work;
        Poco::Clock accepted;
    };
    typedef std::list<Pending> PendingList;
    // What the second loop hands to the serving loop: a connection still
    // sending its request (work), or one accepted past the cap (client,
    // with no work yet).
    struct Handed {
        Poco::AutoPtr<OutSocketWork> work;
        int client;
        Poco::Clock accepted;
    };

    OutputcontrolServer(const OutputcontrolServer&) = delete;
    OutputcontrolServer& operator=(const OutputcontrolServer&) = delete;

    bool BindAndListen(int socket, std::string& failure);
    // Remembers the socket file bound at `path`.
    void NoteBound(const char* path) EXCLUDES(boundMutex_);
    void ServeLoop(int socket);
    int WaitMs() const;
    bool AcceptPending(int socket, bool hungUp, int loop) EXCLUDES(ConnectionMutex());
    bool HandleAcceptFailure(int socket, int error, int loop);
    Poco::AutoPtr<OutSocketWork> TakeIn(int client) REQUIRES(ConnectionMutex());
    void Admit(Poco::AutoPtr<OutSocketWork> work, const Poco::Clock& accepted) EXCLUDES(ConnectionMutex());
    void ReadRequest(int fd);
    void Dispatch(Poco::AutoPtr<OutSocketWork> work, int reader) EXCLUDES(ConnectionMutex());
    void ExpireLate();
    bool Watch(int fd, int operation);
    void Forget(PendingList::iterator it);
    bool ShedOldest() REQUIRES(ConnectionMutex());
    void ShedOrUseSpare(int socket) EXCLUDES(ConnectionMutex());
    void ShedWithSpare(int socket);
    void NoteShed();
    void WatchSettings();
    void TakeWatchReports(int loop);
    void RequestRebuild();
    bool AnswerFromSnapshot(OutSocketWork& work, int reader);
    static void Signal(int fd);
    static bool WatchEvent(int epoll, int fd);
    void StartSecondLoop(int socket);
    void StopSecondLoop() EXCLUDES(handedMutex_);
    void RunSecondLoop();
    Poco::AutoPtr<OutSocketWork> AdmitSecond(int client, const Poco::Clock& accepted) REQUIRES(ConnectionMutex());
    void Hand(const Handed& handed) EXCLUDES(handedMutex_);
    void TakeHanded(int socket);
    void MergeHanded() EXCLUDES(ConnectionMutex(), handedMutex_);
    void MergeHandedLocked() REQUIRES(ConnectionMutex()) EXCLUDES(handedMutex_);
    // The one process-wide mutex that serialises accept and the hand-over
    // to the pool.
    static RecursiveMutex& ConnectionMutex();

    Channel* channel_;
    Channel* answerChannel_;
    ListenObserver listenObserver_;
    std::atomic<int> listenSocket_;
    std::atomic<bool> stopping_;
    std::atomic<int> connectionCap_;
    int epoll_;
    // Held open so that one connection can be accepted and closed when the
    // process has no descriptor left.
    int spare_;
    // In accept order, which is also deadline order.
    PendingList pending_;
    std::unordered_map<int, PendingList::iterator> byDescriptor_;
    // Connections shed since the last log line about it, and when that
    // line was written.
    int shed_;
    Poco::Clock lastShedLine_;
    bool shedLogged_;
    // Each loop's epoll set of the settings watch's descriptors; -1 when
    // none.
    int watchEpolls_[kLoops];
    // Set while a snapshot rebuild is queued or running.
    std::atomic<bool> rebuildPending_;
    // The socket file this server bound: its path, device and inode.
    Mutex boundMutex_;
    std::string boundPath_ GUARDED_BY(boundMutex_);
    dev_t boundDevice_ GUARDED_BY(boundMutex_) = 0;
    ino_t boundInode_ GUARDED_BY(boundMutex_) = 0;
    // The second loop: its epoll set, thread and listening socket.
    int secondEpoll_;
    Poco::Thread* secondThread_;
    int secondSocket_ = -1;
    Poco::RunnableAdapter<OutputcontrolServer> secondRunner_{*this, &OutputcontrolServer::RunSecondLoop};
    // Counters that wake the serving loop for a hand-over and the second
    // loop for its end.
    int handedEvent_;
    int stopEvent_;
    Mutex handedMutex_ ACQUIRED_AFTER(ConnectionMutex());
    std::vector<Handed> handed_ GUARDED_BY(handedMutex_);
    // Connections the second loop took past the cap, merged but not yet
    // admitted; the server thread's alone.
    std::vector<Handed> pastCap_;
    // Set by the second loop when it ran out of descriptors.
    std::atomic<bool> shedWanted_;
};

} // namespace brvo

#endif
