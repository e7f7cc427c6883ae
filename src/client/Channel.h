// The worker pool: a queue of requests and the worker threads that run them.
#ifndef BRVO_CLIENT_CHANNEL_H
#define BRVO_CLIENT_CHANNEL_H

#include <Poco/NotificationQueue.h>
#include <Poco/ThreadPool.h>

#include <vector>

namespace brvo {

class Request;
class WorkerThreadRunnable;

class Channel {
public:
    // Creates a pool of `workerCount` workers (at most 16 threads) serving
    // one queue. The workers run only after StartWorkers.
    explicit Channel(int workerCount);
    // Stops every worker, wakes them, waits for them to end (each finishes
    // the request it is running), then frees the pool. Requests still in the
    // queue are released unrun.
    virtual ~Channel();

    // Starts every worker on the pool.
    void StartWorkers();
    // Queues `request` and takes ownership of it; null is ignored.
    void Enqueue(Request* request);
    // Number of requests waiting for a worker.
    int QueuedCount() const;

private:
    Channel(const Channel&) = delete;
    Channel& operator=(const Channel&) = delete;

    Poco::ThreadPool* pool_;
    Poco::NotificationQueue* queue_;
    std::vector<WorkerThreadRunnable*>* workers_;
};

} // namespace brvo

#endif
