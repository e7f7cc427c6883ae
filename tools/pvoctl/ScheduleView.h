// show-schedule: the stored slots of one day, read from the schedule
// database without changing it.
#ifndef BRVO_TOOLS_PVOCTL_SCHEDULEVIEW_H
#define BRVO_TOOLS_PVOCTL_SCHEDULEVIEW_H

#include "Options.h"

#include <cstdint>
#include <string>

namespace brvo {

class ScheduleView {
public:
    // Takes the day, --db, --server-time and --json from `options`.
    explicit ScheduleView(const Options& options);
    // Prints the day; 0 with slots, 1 without, 2 on a usage or file error.
    int Run();

private:
    std::string Database() const;
    void PrintRow(std::int64_t time, int rate, bool sent, bool first);

    const Options& options_;
    std::int64_t shift_;
    std::string json_;
};

} // namespace brvo

#endif
