#include "client/Channel.h"

#include "client/Request.h"
#include "client/WorkerThreadRunnable.h"

#include <Poco/AutoPtr.h>

namespace brvo {

namespace {
const int kMaxThreads = 16;
const int kIdleSeconds = 60;
} // namespace

Channel::Channel(int workerCount)
    : pool_(new Poco::ThreadPool(workerCount, kMaxThreads, kIdleSeconds, 0)), queue_(new Poco::NotificationQueue()),
      workers_(new std::vector<WorkerThreadRunnable*>()) {
    for (int i = 0; i < workerCount; ++i) workers_->push_back(new WorkerThreadRunnable(queue_));
}

Channel::~Channel() {
    for (WorkerThreadRunnable* worker : *workers_) worker->Stop();
    queue_->wakeUpAll();
    pool_->joinAll();
    for (WorkerThreadRunnable* worker : *workers_) delete worker;
    delete workers_;
    delete pool_;
    delete queue_;
}

void Channel::StartWorkers() {
    for (WorkerThreadRunnable* worker : *workers_) pool_->start(*worker);
}

void Channel::Enqueue(Request* request) {
    if (request == nullptr) return;
    queue_->enqueueNotification(Poco::AutoPtr<Request>(request));
}

int Channel::QueuedCount() const {
    return queue_->size();
}

} // namespace brvo
