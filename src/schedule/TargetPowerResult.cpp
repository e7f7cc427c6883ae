#include "schedule/TargetPowerResult.h"

namespace brvo {

TargetPowerResult::TargetPowerResult(double targetPower, const std::string& timeText)
    : success_(true), code_(Code::kSuccess), timeText_(timeText), targetPower_(targetPower) {}

TargetPowerResult::TargetPowerResult(double targetPower, Code code, const std::string& message)
    : success_(false), code_(code), targetPower_(targetPower), message_(message) {}

TargetPowerResult::~TargetPowerResult() {}

} // namespace brvo
