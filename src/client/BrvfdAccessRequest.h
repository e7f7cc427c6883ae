// One exchange with the logger daemon, run on a worker thread: connects to
// its UNIX-domain socket, sends the 8-byte command and reads the 12-byte
// reply, then reports to the callback. Sending and reading each wait at
// most the socket time-out (OutputControlSocketTimeout, 60 s for a value
// below 1), so a logger daemon that never answers fails the exchange.
#ifndef BRVO_CLIENT_BRVFDACCESSREQUEST_H
#define BRVO_CLIENT_BRVFDACCESSREQUEST_H

#include "client/Request.h"
#include "util/Mutex.h"
#include "util/ThreadAnnotations.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>

namespace brvo {

class BrvfdAccessRequestCallback;

class BrvfdAccessRequest : public Request {
public:
    // The only command this daemon sends: new schedule data is stored.
    static constexpr int kCommandScheduleUpdated = 1;
    // Sizes of the command and of the reply on the wire.
    static constexpr std::size_t kCommandSize = 8;
    static constexpr std::size_t kReplySize = 12;

    // Reports to `callback`, which must live until it has been called.
    explicit BrvfdAccessRequest(BrvfdAccessRequestCallback* callback);

    // Sets the command to send; only kCommandScheduleUpdated is sent.
    void SetCommand(int command);
    // While set, a successful exchange is not reported.
    void SetReplyIgnored(bool ignored);

    // Keeps `owner` (normally the callback itself) alive until this request
    // is released, so that the callback outlives its own report.
    void Keep(const std::shared_ptr<BrvfdAccessRequestCallback>& owner) { owner_ = owner; }

    // Performs the exchange and reports once to the callback.
    void Execute() override;
    // Ends the exchange: a connection in progress is shut down, and the
    // exchange reports a failure (never the logger daemon's reply, which
    // did not come); one not yet started reports a failed connect.
    void Abort() override EXCLUDES(abortMutex_);

protected:
    ~BrvfdAccessRequest() override;

private:
    int Exchange(int fd, unsigned char* reply);
    void Report(int status, const unsigned char* reply);
    bool Track(int fd) EXCLUDES(abortMutex_);
    void Untrack() EXCLUDES(abortMutex_);

    BrvfdAccessRequestCallback* callback_;
    std::shared_ptr<BrvfdAccessRequestCallback> owner_;
    bool replyIgnored_;
    std::int32_t command_;
    // Guards `fd_`, the connection Abort shuts down (-1 when none is open).
    Mutex abortMutex_;
    int fd_ GUARDED_BY(abortMutex_);
    std::atomic<bool> aborted_;
};

} // namespace brvo

#endif
