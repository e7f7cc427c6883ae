#include "client/ServerAccessResult.h"

#include "client/ServerResponseParser.h"

#include <sstream>

namespace brvo {

std::shared_ptr<ServerAccessResult> ServerAccessResult::Answered(std::int32_t statusCode,
                                                                 const std::shared_ptr<ServerResponseParser>& parser) {
    std::shared_ptr<ServerAccessResult> result = std::make_shared<ServerAccessResult>(true, statusCode, std::string());
    result->SetResponseParser(parser);
    return result;
}

std::shared_ptr<ServerAccessResult> ServerAccessResult::Failed(std::int32_t statusCode,
                                                               const std::string& failureReason) {
    return std::make_shared<ServerAccessResult>(false, statusCode, failureReason);
}

ServerAccessResult::ServerAccessResult(bool result, std::int32_t statusCode, const std::string& failureReason)
    : result_(result), failureReason_(failureReason), statusCode_(statusCode), retryAfterSeconds_(-1) {}

ServerAccessResult::~ServerAccessResult() = default;

void ServerAccessResult::SetResponseParser(const std::shared_ptr<ServerResponseParser>& parser) {
    responseParser_ = parser;
}

void ServerAccessResult::SetRetryAfterSeconds(std::int64_t seconds) {
    retryAfterSeconds_ = seconds;
}

// The label " Response Parser:" always stands, so every line has the same
// fields; the parser's own form follows only when there is a parser.
std::string ServerAccessResult::ToString() const {
    std::ostringstream text;
    text << "ServerAccessResult [" << (result_ ? "true" : "false") << "] "
         << " Failure Reason:" << failureReason_ << " StatusCode:" << statusCode_ << " Response Parser:";
    if (responseParser_) text << responseParser_->ToString();
    return text.str();
}

} // namespace brvo
