#include "client/Channel.h"

#include "client/Request.h"
#include "client/WorkerThreadRunnable.h"

#include <Poco/AutoPtr.h>
#include <Poco/Clock.h>

#include <algorithm>

namespace brvo {

namespace {
const int kMaxThreads = 16;
const int kIdleSeconds = 60;
// How often Stop wakes the queue again while it waits for the workers.
const long kRewakeMs = 20;
} // namespace

Channel::Channel(int workerCount)
    : pool_(new Poco::ThreadPool(workerCount, kMaxThreads, kIdleSeconds, 0)), queue_(new Poco::NotificationQueue()),
      workers_(new std::vector<WorkerThreadRunnable*>()) {
    for (int i = 0; i < workerCount; ++i) workers_->push_back(new WorkerThreadRunnable(queue_, &running_));
}

Channel::~Channel() {
    Stop(0);
    pool_->joinAll();
    for (WorkerThreadRunnable* worker : *workers_) delete worker;
    delete workers_;
    delete pool_;
    delete queue_;
}

// Each worker counts as running from here until its loop returns.
void Channel::StartWorkers() {
    for (WorkerThreadRunnable* worker : *workers_) {
        running_.Enter();
        try {
            pool_->start(*worker);
        } catch (...) {
            running_.Leave();
            throw;
        }
    }
}

// A worker between its look at the stop flag and its wait on the queue
// misses a wake-up, and would sleep out its whole wait: the queue is woken
// again every few milliseconds until every worker ended.
bool Channel::Stop(long waitMs) {
    for (WorkerThreadRunnable* worker : *workers_) worker->Stop();
    const Poco::Clock started;
    for (;;) {
        queue_->wakeUpAll();
        const long left = std::max(0L, waitMs - static_cast<long>(started.elapsed() / 1000));
        if (running_.WaitUnused(std::min(left, kRewakeMs))) return true;
        if (left <= kRewakeMs) return false;
    }
}

void Channel::Enqueue(Request* request) {
    if (request == nullptr) return;
    queue_->enqueueNotification(Poco::AutoPtr<Request>(request));
}

int Channel::QueuedCount() const {
    return queue_->size();
}

} // namespace brvo
