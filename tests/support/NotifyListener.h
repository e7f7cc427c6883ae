// Stands in for the service manager: a UNIX datagram socket that a child
// (or the test process itself) names in NOTIFY_SOCKET, and the messages
// that arrive on it.
#ifndef BRVO_TESTS_SUPPORT_NOTIFYLISTENER_H
#define BRVO_TESTS_SUPPORT_NOTIFYLISTENER_H

#include <functional>
#include <string>
#include <vector>

namespace brvo {
namespace test {

class NotifyListener {
public:
    // Binds a datagram socket at `path` (a stale file is removed first).
    // Fails the test when it cannot.
    explicit NotifyListener(const std::string& path);
    // Closes the socket and removes its file.
    ~NotifyListener();

    // The socket's path, the value for NOTIFY_SOCKET.
    const std::string& Path() const { return path_; }
    // Takes every datagram waiting now; each one is a message such as
    // "READY=1" or "STATUS=...".
    void Drain();
    // Every message received so far, in order of arrival.
    const std::vector<std::string>& Messages() const { return messages_; }
    // How many received messages equal `message`.
    int Count(const std::string& message) const;
    // The received messages that begin with `prefix`.
    std::vector<std::string> Starting(const std::string& prefix) const;
    // Waits (bounded by `timeoutMs` times the time scale) until `condition`
    // holds for the messages, receiving as they come; `condition` runs after
    // every message. True when it held.
    bool WaitUntil(const std::function<bool(const std::vector<std::string>&)>& condition, int timeoutMs);
    // Waits until `message` arrived (at least `times` times in all).
    bool WaitFor(const std::string& message, int timeoutMs, int times = 1);

private:
    NotifyListener(const NotifyListener&) = delete;
    NotifyListener& operator=(const NotifyListener&) = delete;
    bool ReceiveOne(int waitMs);

    std::string path_;
    int fd_;
    std::vector<std::string> messages_;
};

} // namespace test
} // namespace brvo

#endif
