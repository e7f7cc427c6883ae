#include "support/TomorrowSchedules.h"

#include "support/DaemonClient.h"
#include "util/TimeStamp.h"

#include <vector>

namespace brvo {
namespace test {

namespace {

const std::int64_t kDaySeconds = 86400;
const std::size_t kSlotsADay = 48;

} // namespace

TomorrowSchedules MakeTomorrowSchedules() {
    TomorrowSchedules schedules;
    schedules.tomorrow = TimeStamp().EpochSeconds() / kDaySeconds * kDaySeconds + kDaySeconds;
    schedules.update.plantId = "777";
    schedules.update.start = ServerTime(schedules.tomorrow, "%Y%m%d%H%M");
    schedules.update.rates = std::vector<int>(kSlotsADay, 60);
    schedules.update.fixedFlag = 3;
    schedules.update.nextUpdate = ServerTime(schedules.tomorrow, "%Y%m%d%H%M%S");
    schedules.fixed = schedules.update;
    schedules.fixed.start = ServerTime(schedules.tomorrow + kDaySeconds, "%Y%m%d%H%M");
    schedules.fixed.rates = std::vector<int>(kSlotsADay, 30);
    return schedules;
}

} // namespace test
} // namespace brvo
