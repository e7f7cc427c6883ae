// A peer on a UNIX-domain stream socket for tests: accepts connections on
// its own thread and answers each with a scripted reply.
#ifndef BRVO_TESTS_SUPPORT_UNIXPEER_H
#define BRVO_TESTS_SUPPORT_UNIXPEER_H

#include <Poco/Mutex.h>
#include <Poco/Runnable.h>
#include <Poco/Thread.h>

#include <atomic>
#include <string>
#include <vector>

namespace brvo {
namespace test {

class UnixPeer : public Poco::Runnable {
public:
    // What the peer does with each connection after reading `readBytes`.
    enum Mode {
        kReply,       // write `reply`, then close
        kSilent,      // never answer; close only when the peer stops
        kCloseAtOnce, // close without reading or answering
    };

    // Listens on `path` (removing a stale file first).
    UnixPeer(const std::string& path, Mode mode, const std::string& reply, std::size_t readBytes);
    // Stops listening and closes every connection.
    ~UnixPeer() override;

    void run() override;

    // Everything received, one entry per connection.
    std::vector<std::string> Received() const;
    // Number of accepted connections.
    int Connections() const { return connections_; }

private:
    std::string path_;
    Mode mode_;
    std::string reply_;
    std::size_t readBytes_;
    int listenFd_;
    std::atomic<bool> stop_;
    std::atomic<int> connections_;
    std::vector<int> open_;
    mutable Poco::FastMutex mutex_;
    std::vector<std::string> received_;
    Poco::Thread thread_;
};

} // namespace test
} // namespace brvo

#endif
