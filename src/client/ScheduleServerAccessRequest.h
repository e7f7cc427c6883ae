// One HTTP exchange with the schedule server, run on a worker thread: a
// form-encoded POST naming the plant, the device's MAC address and the kind
// of schedule wanted. The answer's status, Content-Type and body go to the
// callback, which parses them.
#ifndef BRVO_CLIENT_SCHEDULESERVERACCESSREQUEST_H
#define BRVO_CLIENT_SCHEDULESERVERACCESSREQUEST_H

#include "client/Request.h"
#include "util/Mutex.h"
#include "util/ThreadAnnotations.h"

#include <Poco/Exception.h>
#include <Poco/Timespan.h>

#include <memory>
#include <string>

namespace brvo {

class Caught;
class ScheduleServerAccessRequestCallback;

class ScheduleServerAccessRequest : public Request {
public:
    // The callback's status: an answer came, or the exchange ended on a
    // library exception or on any other.
    static const int kStatusAnswered = 0;
    static const int kStatusLibrary = 1;
    static const int kStatusOther = 2;

    // The callback's status for what the exchange threw: kStatusAnswered
    // when it threw nothing.
    static int StatusOf(const Caught& caught);

    // Reports to `callback`, which must live until it has been called.
    explicit ScheduleServerAccessRequest(ScheduleServerAccessRequestCallback* callback);

    // Sets the schedule kind; plant id and server address come from the
    // system settings (reloaded).
    void SetParameters(const std::string& scheduleKbn);
    // Sets all three parameters.
    void SetParameters(const std::string& scheduleKbn, const std::string& powerPlantId, const std::string& url);

    // Keeps `owner` (normally the callback itself) alive until this request
    // is released, so that the callback outlives its own report.
    void Keep(const std::shared_ptr<ScheduleServerAccessRequestCallback>& owner) { owner_ = owner; }

    // Sets the longest time one exchange may take, from the connect to the
    // last byte of the answer (60 s unless changed; tests shorten it).
    void SetDeadline(const Poco::Timespan& budget) { budget_ = budget; }

    // Performs the exchange and reports exactly once to the callback. A URL
    // that is not plain http or https, or that holds control characters,
    // fails before anything is sent; so does an answer that announces more
    // than the device takes in, one that ends before its announced length,
    // and one that is not complete when the deadline passes. A complete
    // answer of 429 or 503 with a readable Retry-After reports it to the
    // callback's OnRetryAfter first.
    void Execute() override;
    // Ends the exchange: its socket is shut down, so it fails at once with
    // the library's exception (also while it connects or, over TLS, while
    // it shakes hands); one not yet started fails as it starts.
    void Abort() override EXCLUDES(abortMutex_);

    // The device's MAC address from /sys/class/net/eth0/address without ":"
    // and "-", in upper case; empty (with a log line) when the file cannot be
    // opened.
    static std::string GetMacAddress();
    // The form body sent for the parameters: each value percent-encoded,
    // so that one of digits and letters only is sent as it is.
    std::string BuildBody(const std::string& macAddress) const;

    const std::string& GetScheduleKbn() const { return scheduleKbn_; }
    const std::string& GetPowerPlantId() const { return powerPlantId_; }
    const std::string& GetUrl() const { return url_; }

protected:
    ~ScheduleServerAccessRequest() override;

private:
    void Exchange(const std::string& body, std::string& contentType);
    void ThrowIfAborted() EXCLUDES(abortMutex_);
    void Publish(int fd) EXCLUDES(abortMutex_);
    void Expire() EXCLUDES(abortMutex_);
    // The display text of the library exception that ended the exchange,
    // or the abort or the deadline that caused it.
    std::string FailureText(const std::string& displayText) EXCLUDES(abortMutex_);

    ScheduleServerAccessRequestCallback* callback_;
    std::shared_ptr<ScheduleServerAccessRequestCallback> owner_;
    std::string scheduleKbn_;
    std::string powerPlantId_;
    std::string url_;
    Poco::Timespan budget_;
    // When the exchange under way must end, on the monotonic clock, in
    // microseconds; 0 before it starts. Used by the worker thread only.
    Poco::Int64 deadline_;
    // Guards `socket_`, the descriptor Abort and the deadline shut down (-1
    // when none is published), `aborted_` and `expired_`.
    Mutex abortMutex_;
    int socket_ GUARDED_BY(abortMutex_);
    bool aborted_ GUARDED_BY(abortMutex_);
    bool expired_ GUARDED_BY(abortMutex_);
};

} // namespace brvo

#endif
