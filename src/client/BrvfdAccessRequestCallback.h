// Receives the outcome of one exchange with the logger daemon.
#ifndef BRVO_CLIENT_BRVFDACCESSREQUESTCALLBACK_H
#define BRVO_CLIENT_BRVFDACCESSREQUESTCALLBACK_H

namespace brvo {

class BrvfdAccessRequestCallback {
public:
    virtual ~BrvfdAccessRequestCallback() {}

    // Called exactly once per exchange (unless a successful reply is set to
    // be ignored). `status` 0: a reply came and `reply` points at its 12
    // bytes (missing bytes zero); otherwise `reply` is null and `status`
    // says what failed: 1 socket, 2 connect, 3 no valid command, 4 write,
    // 5 read, 6 an exception.
    virtual void OnResult(int status, const unsigned char* reply) = 0;
};

} // namespace brvo

#endif
