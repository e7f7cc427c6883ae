#include "client/WorkerThreadRunnable.h"

#include "client/Request.h"
#include "util/GuardedCall.h"
#include "util/LoggerLog.h"

#include <Poco/AutoPtr.h>

namespace brvo {

namespace {

const std::string kTag = "WorkerThreadRunnable";

} // namespace

WorkerThreadRunnable::WorkerThreadRunnable(Poco::NotificationQueue* queue) : queue_(queue), stop_(false) {}

WorkerThreadRunnable::~WorkerThreadRunnable() {}

void WorkerThreadRunnable::run() {
    while (!stop_) {
        Poco::AutoPtr<Poco::Notification> item(queue_->waitDequeueNotification(kWaitMs));
        Request* request = dynamic_cast<Request*>(item.get());
        if (request == nullptr) continue;
        // A request that throws costs its own work, never the worker.
        const Caught caught = GuardedCall([&] { request->Execute(); });
        if (caught) LoggerLog::Limited(LoggerLog::kError, kTag, "Request failed", caught.Describe("Request failed. "));
    }
}

void WorkerThreadRunnable::Stop() {
    stop_ = true;
}

} // namespace brvo
