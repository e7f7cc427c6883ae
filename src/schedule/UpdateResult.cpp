#include "schedule/UpdateResult.h"

#include "util/GuardedCall.h"

#include <sstream>

namespace brvo {

std::shared_ptr<UpdateResult> UpdateResult::Success() {
    return std::make_shared<UpdateResult>();
}

std::shared_ptr<UpdateResult> UpdateResult::Failure(FailureReason reason, std::int32_t statusCode,
                                                    const std::string& message) {
    return std::make_shared<UpdateResult>(reason, statusCode, message);
}

std::shared_ptr<UpdateResult> UpdateResult::FixedDataApplied(bool settingChanged, const std::string& plantId) {
    return std::make_shared<UpdateResult>(settingChanged, plantId);
}

std::shared_ptr<UpdateResult> UpdateResult::FromCaught(const Caught& caught) {
    return Failure(FailureReason::kException, 0, caught.GetText());
}

UpdateResult::UpdateResult()
    : result_(true), failureReason_(FailureReason::kNone), statusCode_(0), settingChanged_(false) {}

UpdateResult::UpdateResult(FailureReason failureReason, std::int32_t statusCode, const std::string& message)
    : result_(false), failureReason_(failureReason), statusCode_(statusCode), message_(message),
      settingChanged_(false) {}

UpdateResult::UpdateResult(bool settingChanged, const std::string& plantId)
    : result_(true), failureReason_(FailureReason::kNone), statusCode_(0), settingChanged_(settingChanged),
      plantId_(plantId) {}

UpdateResult::~UpdateResult() = default;

// The blank closing the bracket and the blank opening " FailureReason:" both
// stay: log readers already match on the double blank.
std::string UpdateResult::ToString() const {
    std::ostringstream text;
    text << "UpdateResult [" << (result_ ? "true" : "false") << "] "
         << " FailureReason:" << ToWire(failureReason_) << " StatusCode:" << statusCode_ << " Message:" << message_;
    return text.str();
}

} // namespace brvo
