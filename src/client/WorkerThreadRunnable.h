// One worker of the pool: takes requests from the shared queue and runs them
// until it is told to stop.
#ifndef BRVO_CLIENT_WORKERTHREADRUNNABLE_H
#define BRVO_CLIENT_WORKERTHREADRUNNABLE_H

#include <Poco/NotificationQueue.h>
#include <Poco/Runnable.h>

#include <atomic>

namespace brvo {

class WorkerThreadRunnable : public Poco::Runnable {
public:
    // Serves `queue`, which must outlive the worker.
    explicit WorkerThreadRunnable(Poco::NotificationQueue* queue);
    ~WorkerThreadRunnable() override;

    // Runs requests until Stop; notices a stop within 500 ms. A request
    // that throws is logged ("Request failed. [...]") and the worker goes
    // on with the next.
    void run() override;
    // Asks the loop to end after the request it is running, if any.
    void Stop();
    // Whether Stop was called.
    bool IsStopped() const { return stop_; }

private:
    // Longest wait for a request before the stop flag is looked at again.
    static constexpr long kWaitMs = 500;

    Poco::NotificationQueue* queue_;
    std::atomic<bool> stop_;
};

} // namespace brvo

#endif
