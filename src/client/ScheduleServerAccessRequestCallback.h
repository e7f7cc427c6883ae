// Receives the raw outcome of one schedule server exchange.
#ifndef BRVO_CLIENT_SCHEDULESERVERACCESSREQUESTCALLBACK_H
#define BRVO_CLIENT_SCHEDULESERVERACCESSREQUESTCALLBACK_H

#include <cstdint>
#include <string>

namespace brvo {

class ScheduleServerAccessRequestCallback {
public:
    virtual ~ScheduleServerAccessRequestCallback() {}

    // Called exactly once per exchange, on the worker thread that ran it.
    // `status` 0: an answer came, with its HTTP status, Content-Type and
    // body (`data` valid only during the call, `dataLength` bytes); 1: a
    // library exception, 2: any other exception, each with `message`
    // saying what failed, `httpStatus` 0 and no data.
    virtual void OnResult(int status, int httpStatus, const std::string& contentType, const char* data,
                          std::int64_t dataLength, const std::string& message) = 0;

    // Called just before OnResult, on the same thread, when a complete
    // answer of status 429 or 503 named a Retry-After that could be read:
    // the seconds it asks the device to wait (0 to RetryAfter::kMaxSeconds).
    // Not called otherwise; ignored unless overridden.
    virtual void OnRetryAfter(std::int64_t seconds) { (void)seconds; }
};

} // namespace brvo

#endif
