// The waiting side of one logger daemon exchange: turns the report into the
// integer the caller waits for through a future.
#ifndef BRVO_CLIENT_BRVFDSENDCOMMANDREQUEST_H
#define BRVO_CLIENT_BRVFDSENDCOMMANDREQUEST_H

#include "client/BrvfdAccessRequestCallback.h"

#include <future>
#include <memory>

namespace brvo {

class BrvfdSendCommandRequest : public BrvfdAccessRequestCallback {
public:
    // Made for the command `command` (the daemon sends 1).
    explicit BrvfdSendCommandRequest(int command);
    ~BrvfdSendCommandRequest() override;

    // The future of the result; may be taken once.
    std::future<int> GetFuture();
    // The command it was made for.
    int GetCommand() const { return command_; }

    // A reply: the result word at offset 8 of the reply. A failure: logs
    // "sending error. error_code [status]" and gives 1. A second report is
    // ignored, so the promise is fulfilled exactly once.
    void OnResult(int status, const unsigned char* reply) override;

private:
    int command_;
    std::unique_ptr<std::promise<int>> promise_;
    bool fulfilled_;
};

} // namespace brvo

#endif
