#include "util/TimerService.h"

namespace brvo {

TimerService::~TimerService() = default;

} // namespace brvo
