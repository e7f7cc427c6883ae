// The command server: listens on the daemon's UNIX-domain command socket and
// hands every accepted connection to the worker pool as an OutSocketWork.
#ifndef BRVO_SERVER_OUTPUTCONTROLSERVER_H
#define BRVO_SERVER_OUTPUTCONTROLSERVER_H

#include <Poco/Runnable.h>

#include <atomic>

namespace brvo {

class Channel;

class OutputcontrolServer : public Poco::Runnable {
public:
    // Number of workers that serve local clients.
    static constexpr int kWorkerCount = 3;
    // Backlog of the listening socket.
    static constexpr int kBacklog = 100;

    // Creates the worker pool and starts its workers, so connections are
    // served as soon as the socket listens.
    OutputcontrolServer();
    // Frees the pool (stopping its workers) and closes the listening socket.
    // The daemon never destroys a running server: the process exits.
    ~OutputcontrolServer() override;

    // The accept loop. Binds and listens on the configured socket path, then
    // accepts until an accept fails; returns at once when listen fails. A
    // failed bind is logged and listen decides.
    void run() override;

    // Ends the accept loop: wakes it by shutting the listening socket down,
    // so that run returns soon after (the daemon itself never calls this;
    // its server serves until the process exits). The caller then joins the
    // server thread before deleting the server.
    void Stop();

    // The worker pool that runs the accepted connections.
    Channel* GetChannel() const { return channel_; }
    // The listening descriptor; -1 before run created it.
    int GetListenSocket() const { return listenSocket_; }

private:
    OutputcontrolServer(const OutputcontrolServer&) = delete;
    OutputcontrolServer& operator=(const OutputcontrolServer&) = delete;

    bool BindAndListen(int socket);
    void AcceptLoop(int socket);

    Channel* channel_;
    std::atomic<int> listenSocket_;
    std::atomic<bool> stopping_;
};

} // namespace brvo

#endif
