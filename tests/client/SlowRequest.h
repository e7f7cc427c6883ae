// A request that holds its worker until the test releases it.
#ifndef BRVO_TESTS_CLIENT_SLOWREQUEST_H
#define BRVO_TESTS_CLIENT_SLOWREQUEST_H

#include "client/Request.h"

#include <Poco/Event.h>

#include <atomic>

namespace brvo {
namespace test {

class SlowRequest : public Request {
public:
    // Counts itself in `started` when a worker runs it, then waits for
    // `release` (at most 10 s, so a broken test cannot hang), then counts
    // itself in `finished`.
    SlowRequest(Poco::Event& release, std::atomic<int>& started, std::atomic<int>& finished)
        : release_(release), started_(started), finished_(finished) {}

    void Execute() override {
        ++started_;
        release_.tryWait(10000);
        ++finished_;
    }

private:
    Poco::Event& release_;
    std::atomic<int>& started_;
    std::atomic<int>& finished_;
};

} // namespace test
} // namespace brvo

#endif
