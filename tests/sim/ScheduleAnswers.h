// The scripted server's answers, in the shape the manager receives them
// from its HTTP client: a result with a parser of the multipart body for a
// 200 answer, a failed result with the HTTP status for any other status,
// and a failed result with status 0 when no answer came (a refused
// connection, a time-out).
#ifndef BRVO_TESTS_SIM_SCHEDULEANSWERS_H
#define BRVO_TESTS_SIM_SCHEDULEANSWERS_H

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace brvo {

class ServerAccessResult;

namespace sim {

class ScheduleAnswers {
public:
    // The rate of each slot (epoch seconds) of a payload.
    typedef std::function<int(std::int64_t)> Rates;

    // One record of `slots` half hours from `first` (epoch seconds, on a
    // half hour) for `plantId`. An update schedule carries `flag` and the
    // next update time `next` (epoch seconds); `fixed` leaves both out.
    struct Record {
        std::string plantId;
        std::int64_t first = 0;
        int slots = 0;
        bool fixed = false;
        int flag = 0;
        std::int64_t next = 0;
    };

    // A 200 answer carrying the payload of `record`: right, with a wrong
    // checksum, or cut short by `cut` bytes inside a complete body.
    static std::shared_ptr<ServerAccessResult> Payload(const Record& record, const Rates& rates);
    static std::shared_ptr<ServerAccessResult> BadChecksum(const Record& record, const Rates& rates);
    static std::shared_ptr<ServerAccessResult> Truncated(const Record& record, const Rates& rates, int cut);
    // A 200 answer to a plant ID check: the plant is registered.
    static std::shared_ptr<ServerAccessResult> Registered();
    // An answer with HTTP status `status` other than 200, with the
    // server's Retry-After when `retryAfter` >= 0.
    static std::shared_ptr<ServerAccessResult> Status(int status, std::int64_t retryAfter);
    // No answer: the exchange failed with `text` (status 0).
    static std::shared_ptr<ServerAccessResult> NoAnswer(const std::string& text);

private:
    ScheduleAnswers() = delete;
    static std::vector<unsigned char> Bytes(const Record& record, const Rates& rates, bool corrupt);
    static std::shared_ptr<ServerAccessResult> Carrying(const std::string& content);
};

} // namespace sim
} // namespace brvo

#endif
