// The waiting side of one schedule server exchange: turns the exchange's
// report into a ServerAccessResult (parsing a good answer on the spot, while
// its body is still there) and hands it over through a promise.
#ifndef BRVO_CLIENT_SCHEDULESERVERSENDREQUEST_H
#define BRVO_CLIENT_SCHEDULESERVERSENDREQUEST_H

#include "client/ScheduleServerAccessRequestCallback.h"

#include <future>
#include <memory>

namespace brvo {

class ServerAccessResult;

class ScheduleServerSendRequest : public ScheduleServerAccessRequestCallback {
public:
    ScheduleServerSendRequest();
    ~ScheduleServerSendRequest() override;

    // The future of the result; may be taken once.
    std::future<std::shared_ptr<ServerAccessResult>> GetFuture();

    // HTTP 200: a successful result holding the parsed answer; another
    // status: a failed result with that code and "Data is not found.";
    // a failed exchange: a failed result with code 0 and its message. A
    // second report is ignored, so the promise is fulfilled exactly once.
    // The failed result of an answer carries the Retry-After reported
    // before it (-1 when none was).
    void OnResult(int status, int httpStatus, const std::string& contentType, const char* data, std::int64_t dataLength,
                  const std::string& message) override;
    // Keeps `seconds` for the result of the answer reported next.
    void OnRetryAfter(std::int64_t seconds) override;

private:
    std::promise<std::shared_ptr<ServerAccessResult>> promise_;
    bool fulfilled_;
    // The Retry-After reported for the answer; -1 while none was.
    std::int64_t retryAfterSeconds_;
};

} // namespace brvo

#endif
