// A unit of queued work: the worker threads take requests from the pool's
// queue and run their Execute.
#ifndef BRVO_CLIENT_REQUEST_H
#define BRVO_CLIENT_REQUEST_H

#include <Poco/Notification.h>

namespace brvo {

class Request : public Poco::Notification {
public:
    Request();
    // Runs the work on a worker thread. The base does nothing.
    virtual void Execute();
    // Asks work that waits on a peer to give up: an exchange in progress
    // fails at once, one not yet started fails when it starts. Callable from
    // any thread, also before and after Execute. The base does nothing.
    virtual void Abort();

protected:
    // Requests are reference-counted and released by the queue.
    ~Request() override;
};

} // namespace brvo

#endif
