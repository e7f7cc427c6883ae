// The worker pool: a queue of requests and the worker threads that run them.
//
// Ending: Stop asks the workers to end and waits for them with a bound;
// the destructor joins them without one. A pool whose worker is stuck in a
// request (one no stop reaches) is therefore never deleted: its owner
// leaves it to the process exit, which destroys no static object under it.
#ifndef BRVO_CLIENT_CHANNEL_H
#define BRVO_CLIENT_CHANNEL_H

#include <Poco/NotificationQueue.h>
#include <Poco/ThreadPool.h>

#include "util/UseCount.h"

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
    // Asks every worker to end after the request it runs (or is taking off
    // the queue just now), wakes the idle ones and waits up to `waitMs` for
    // every worker's loop to return. True when all did: the destructor then
    // returns at once. False when one still runs its request; the pool must
    // then not be deleted. Requests still queued stay there, unrun, until
    // the pool is deleted. May be called more than once, from one thread at
    // a time.
    bool Stop(long waitMs);
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
    // The workers started whose loop has not returned yet.
    UseCount running_;
};

} // namespace brvo

#endif
