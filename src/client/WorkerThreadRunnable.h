// One worker of the pool: takes requests from the shared queue and runs them
// until it is told to stop. Its pool learns that run ended through the
// use count it may be given, so that a stop can wait for the workers with a
// bound instead of joining a thread that may never come back.
#ifndef BRVO_CLIENT_WORKERTHREADRUNNABLE_H
#define BRVO_CLIENT_WORKERTHREADRUNNABLE_H

#include <Poco/NotificationQueue.h>
#include <Poco/Runnable.h>

#include <atomic>

namespace brvo {

class UseCount;

class WorkerThreadRunnable : public Poco::Runnable {
public:
    // Serves `queue`, which must outlive the worker. `running`, when given,
    // is left once as run returns (whoever starts the worker enters it
    // first) and must outlive the worker's thread.
    explicit WorkerThreadRunnable(Poco::NotificationQueue* queue, UseCount* running = nullptr);
    ~WorkerThreadRunnable() override;

    // Runs requests until Stop; notices a stop within 500 ms.
    void run() override;
    // Asks the loop to end after the request it is running, if any.
    void Stop();
    // Whether Stop was called.
    bool IsStopped() const { return stop_; }

private:
    // Longest wait for a request before the stop flag is looked at again.
    static constexpr long kWaitMs = 500;

    Poco::NotificationQueue* queue_;
    UseCount* running_;
    std::atomic<bool> stop_;
};

} // namespace brvo

#endif
