// The schedule server's calendar: it speaks Japan time (UTC+9), so its
// days begin at 15:00 UTC, and it writes times as digit texts.
#ifndef BRVO_TESTS_SIM_SERVERDAY_H
#define BRVO_TESTS_SIM_SERVERDAY_H

#include <cstdint>
#include <string>

namespace brvo {
namespace sim {

class ServerDay {
public:
    static constexpr std::int64_t kDaySeconds = 86400;
    static constexpr std::int64_t kSlotSeconds = 1800;
    static constexpr int kSlotsPerDay = 48;

    // The number of the server day that holds `t` (epoch seconds).
    static std::int64_t DayOf(std::int64_t t);
    // The start (epoch seconds) of server day `day`.
    static std::int64_t DayStart(std::int64_t day);
    // `t` in server time as YYYYMMDDhhmm and as YYYYMMDDhhmmss.
    static std::string MinuteText(std::int64_t t);
    static std::string SecondText(std::int64_t t);
    // `t` (epoch seconds) as "YYYY-MM-DD hh:mm:ss" UTC, for reports.
    static std::string Utc(std::int64_t t);

private:
    ServerDay() = delete;
};

} // namespace sim
} // namespace brvo

#endif
