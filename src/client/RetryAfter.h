// Reads the Retry-After of the schedule server's answers: a server that is
// overloaded (429) or down for maintenance (503) may say how long the
// device should leave it alone, either as a number of seconds or as the
// HTTP date it wants to be asked again. Only those two statuses count: on
// any other answer the header means nothing to the device.
#ifndef BRVO_CLIENT_RETRYAFTER_H
#define BRVO_CLIENT_RETRYAFTER_H

#include <cstdint>
#include <string>

namespace brvo {

class RetryAfter {
public:
    // The longest wait reported, in seconds (some 31 years); a longer one
    // is cut to it, so that no count overflows on its way to a timer.
    static constexpr std::int64_t kMaxSeconds = 1000000000;

    // Seconds to wait named by the Retry-After value `value`, counted from
    // `nowMicroseconds` (since 1970-01-01 00:00:00 UTC); -1 when the value
    // is neither delta-seconds (ASCII digits only, blanks around them
    // allowed; cut to kMaxSeconds) nor an IMF-fixdate ("Sun, 06 Nov 1994
    // 08:49:37 GMT"; rounded up to whole seconds, 0 when it has passed).
    // Never throws.
    static std::int64_t Seconds(const std::string& value, std::int64_t nowMicroseconds);

    // The wait an answer of HTTP status `status` asks for: Seconds() of
    // `value` for 429 and 503 when the answer has the header (`present`),
    // -1 otherwise. Never throws.
    static std::int64_t ForAnswer(int status, bool present, const std::string& value, std::int64_t nowMicroseconds);

private:
    RetryAfter() = delete;
};

} // namespace brvo

#endif
