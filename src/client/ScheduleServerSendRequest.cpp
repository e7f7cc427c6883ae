#include "client/ScheduleServerSendRequest.h"

#include "client/ScheduleServerAccessRequest.h"
#include "client/ServerAccessResult.h"
#include "client/ServerResponseParser.h"

namespace brvo {

namespace {
const int kHttpOk = 200;
}

ScheduleServerSendRequest::ScheduleServerSendRequest() : fulfilled_(false), retryAfterSeconds_(-1) {}

ScheduleServerSendRequest::~ScheduleServerSendRequest() {}

std::future<std::shared_ptr<ServerAccessResult>> ScheduleServerSendRequest::GetFuture() {
    return promise_.get_future();
}

void ScheduleServerSendRequest::OnResult(int status, int httpStatus, const std::string& contentType, const char* data,
                                         std::int64_t dataLength, const std::string& message) {
    if (fulfilled_) return;
    std::shared_ptr<ServerAccessResult> result;
    if (status == ScheduleServerAccessRequest::kStatusAnswered && httpStatus == kHttpOk) {
        result = ServerAccessResult::Answered(httpStatus,
                                              std::make_shared<ServerResponseParser>(contentType, data, dataLength));
    } else if (status == ScheduleServerAccessRequest::kStatusAnswered) {
        result = ServerAccessResult::Failed(httpStatus, "Data is not found.");
        result->SetRetryAfterSeconds(retryAfterSeconds_);
    } else {
        result = ServerAccessResult::Failed(0, message);
    }
    fulfilled_ = true;
    promise_.set_value(result);
}

void ScheduleServerSendRequest::OnRetryAfter(std::int64_t seconds) {
    retryAfterSeconds_ = seconds;
}

} // namespace brvo
