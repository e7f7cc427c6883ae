#include "client/WorkerThreadRunnable.h"

#include "client/Request.h"
#include "util/UseCount.h"

#include <Poco/AutoPtr.h>

namespace brvo {

WorkerThreadRunnable::WorkerThreadRunnable(Poco::NotificationQueue* queue, UseCount* running)
    : queue_(queue), running_(running), stop_(false) {}

WorkerThreadRunnable::~WorkerThreadRunnable() {}

namespace {

// Leaves the pool's count of running workers however run ends.
class LeaveOnReturn {
public:
    explicit LeaveOnReturn(UseCount* running) : running_(running) {}
    ~LeaveOnReturn() {
        if (running_ != nullptr) running_->Leave();
    }

private:
    LeaveOnReturn(const LeaveOnReturn&) = delete;
    LeaveOnReturn& operator=(const LeaveOnReturn&) = delete;
    UseCount* running_;
};

} // namespace

void WorkerThreadRunnable::run() {
    const LeaveOnReturn leave(running_);
    while (!stop_) {
        Poco::AutoPtr<Poco::Notification> item(queue_->waitDequeueNotification(kWaitMs));
        Request* request = dynamic_cast<Request*>(item.get());
        if (request != nullptr) request->Execute();
    }
}

void WorkerThreadRunnable::Stop() {
    stop_ = true;
}

} // namespace brvo
