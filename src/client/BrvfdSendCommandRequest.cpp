#include "client/BrvfdSendCommandRequest.h"

#include "util/LoggerLog.h"

#include <cstdint>
#include <cstring>
#include <string>

namespace brvo {

namespace {
const std::string kTag = "BrvfdSendCommandRequest";
const std::size_t kResultOffset = 8;
const int kFailure = 1;
} // namespace

BrvfdSendCommandRequest::BrvfdSendCommandRequest(int command)
    : command_(command), promise_(new std::promise<int>()), fulfilled_(false) {}

BrvfdSendCommandRequest::~BrvfdSendCommandRequest() {}

std::future<int> BrvfdSendCommandRequest::GetFuture() {
    return promise_->get_future();
}

void BrvfdSendCommandRequest::OnResult(int status, const unsigned char* reply) {
    if (fulfilled_) return;
    fulfilled_ = true;
    if (reply == nullptr || status != 0) {
        LoggerLog::Error(kTag, "sending error. error_code [" + std::to_string(status) + "]");
        promise_->set_value(kFailure);
        return;
    }
    std::int32_t result = 0;
    std::memcpy(&result, reply + kResultOffset, sizeof result);
    promise_->set_value(result);
}

} // namespace brvo
