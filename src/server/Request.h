// A unit of queued work: the worker threads take requests from the pool's
// queue and run their Execute.
#ifndef BRVO_SERVER_REQUEST_H
#define BRVO_SERVER_REQUEST_H

#include <Poco/Notification.h>

namespace brvo {

class Request : public Poco::Notification {
public:
    Request();
    // Runs the work on a worker thread. The base does nothing.
    virtual void Execute();

protected:
    // Requests are reference-counted and released by the queue.
    ~Request() override;
};

} // namespace brvo

#endif
