#include "schedule/ExchangeGateway.h"

#include "client/BrvfdAccessRequest.h"
#include "client/BrvfdSendCommandRequest.h"
#include "client/Channel.h"
#include "client/Request.h"
#include "client/ScheduleServerAccessRequest.h"
#include "client/ScheduleServerSendRequest.h"
#include "client/ServerAccessResult.h"
#include "util/ScopedLock.h"

#include <algorithm>

namespace brvo {

namespace {

const int kRequestWorkers = 3;

} // namespace

ExchangeGateway::ExchangeGateway() : channel_(new Channel(kRequestWorkers)), aborted_(false) {
    channel_->StartWorkers();
}

ExchangeGateway::ExchangeGateway(NoPool) : channel_(nullptr), aborted_(false) {}

ExchangeGateway::~ExchangeGateway() {
    Abort();
    delete channel_;
    ScopedLock lock(mutex_);
    for (Request* request : inFlight_) request->release();
    inFlight_.clear();
}

// Tracks `request` (before it is queued) so that Abort can reach it;
// requests that have finished (only this list still holds them) are
// dropped here.
void ExchangeGateway::Register(Request* request) {
    ScopedLock lock(mutex_);
    const auto finished = std::remove_if(inFlight_.begin(), inFlight_.end(), [](Request* tracked) {
        if (tracked->referenceCount() > 1) return false;
        tracked->release();
        return true;
    });
    inFlight_.erase(finished, inFlight_.end());
    request->duplicate();
    inFlight_.push_back(request);
    if (aborted_) request->Abort();
}

void ExchangeGateway::Abort() {
    ScopedLock lock(mutex_);
    aborted_ = true;
    for (Request* request : inFlight_) request->Abort();
}

// The callback lives as long as the request, so it outlives its own report.
std::future<std::shared_ptr<ServerAccessResult>> ExchangeGateway::Fetch(const std::string& scheduleKbn,
                                                                        bool explicitTarget, const std::string& plantId,
                                                                        const std::string& url) {
    auto callback = std::make_shared<ScheduleServerSendRequest>();
    std::future<std::shared_ptr<ServerAccessResult>> future = callback->GetFuture();
    ScheduleServerAccessRequest* request = new ScheduleServerAccessRequest(callback.get());
    if (explicitTarget) {
        request->SetParameters(scheduleKbn, plantId, url);
    } else {
        request->SetParameters(scheduleKbn);
    }
    request->Keep(callback);
    Register(request);
    if (channel_ != nullptr) channel_->Enqueue(request);
    return future;
}

int ExchangeGateway::SendScheduleData() {
    auto callback = std::make_shared<BrvfdSendCommandRequest>(BrvfdAccessRequest::kCommandScheduleUpdated);
    std::future<int> future = callback->GetFuture();
    BrvfdAccessRequest* request = new BrvfdAccessRequest(callback.get());
    request->SetCommand(BrvfdAccessRequest::kCommandScheduleUpdated);
    request->Keep(callback);
    Register(request);
    if (channel_ == nullptr) return 1;
    channel_->Enqueue(request);
    return future.get();
}

} // namespace brvo
