#include "client/WorkerThreadRunnable.h"

#include "client/Request.h"

#include <Poco/AutoPtr.h>

namespace brvo {

WorkerThreadRunnable::WorkerThreadRunnable(Poco::NotificationQueue* queue) : queue_(queue), stop_(false) {}

WorkerThreadRunnable::~WorkerThreadRunnable() {}

void WorkerThreadRunnable::run() {
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
