#include "client/WorkerThreadRunnable.h"

#include "client/SlowRequest.h"
#include "support/SingletonTest.h"
#include "support/TestFiles.h"
#include "util/LoggerLog.h"

#include <gtest/gtest.h>

#include <Poco/AutoPtr.h>
#include <Poco/Event.h>
#include <Poco/Exception.h>
#include <Poco/Notification.h>
#include <Poco/NotificationQueue.h>
#include <Poco/Thread.h>
#include <Poco/Timestamp.h>

#include <atomic>
#include <stdexcept>
#include <string>
#include <vector>

namespace brvo {
namespace {

// A request that throws `Thrown` from its work.
template <typename Thrown>
class ThrowingRequest : public Request {
public:
    explicit ThrowingRequest(std::atomic<int>& ran) : ran_(ran) {}
    void Execute() override {
        ++ran_;
        throw Thrown("out of order");
    }

private:
    std::atomic<int>& ran_;
};

class WorkerThreadRunnableLogTest : public test::SingletonTest {};

TEST(WorkerThreadRunnableTest, NoticesAStopWithin500Ms) {
    Poco::NotificationQueue queue;
    WorkerThreadRunnable worker(&queue);
    Poco::Thread thread;
    thread.start(worker);
    Poco::Thread::sleep(200);
    const Poco::Timestamp stopped;
    // No wake-up: the worker has to notice the flag by itself.
    worker.Stop();
    ASSERT_TRUE(thread.tryJoin(3000));
    const Poco::Timestamp::TimeDiff took = stopped.elapsed();
    // 500 ms of waiting at most, plus generous scheduling slack for a loaded
    // machine.
    EXPECT_LT(took, 1500 * 1000) << took;
    EXPECT_TRUE(worker.IsStopped());
}

TEST(WorkerThreadRunnableTest, RunsRequestsAndSkipsOtherNotifications) {
    Poco::NotificationQueue queue;
    WorkerThreadRunnable worker(&queue);
    Poco::Event release(false);
    release.set();
    std::atomic<int> started(0);
    std::atomic<int> finished(0);
    queue.enqueueNotification(new Poco::Notification());
    queue.enqueueNotification(new test::SlowRequest(release, started, finished));
    Poco::Thread thread;
    thread.start(worker);
    EXPECT_TRUE(test::WaitFor([&] { return finished == 1; }, 5000));
    EXPECT_EQ(0, queue.size());
    worker.Stop();
    queue.wakeUpAll();
    EXPECT_TRUE(thread.tryJoin(3000));
}

TEST_F(WorkerThreadRunnableLogTest, ARequestThatThrowsIsLoggedAndTheWorkerGoesOn) {
    UseLoggerSettings("<LogLevel>1</LogLevel>");
    Poco::NotificationQueue queue;
    WorkerThreadRunnable worker(&queue);
    Poco::Event release(false);
    release.set();
    std::atomic<int> ran(0);
    std::atomic<int> started(0);
    std::atomic<int> finished(0);
    queue.enqueueNotification(new ThrowingRequest<Poco::IOException>(ran));
    queue.enqueueNotification(new ThrowingRequest<std::runtime_error>(ran));
    queue.enqueueNotification(new test::SlowRequest(release, started, finished));
    Poco::Thread thread;
    thread.start(worker);
    // One worker: the last request runs only if the two before did not end
    // the loop.
    EXPECT_TRUE(test::WaitFor([&] { return finished == 1; }, 5000));
    EXPECT_EQ(2, ran.load());
    worker.Stop();
    queue.wakeUpAll();
    ASSERT_TRUE(thread.tryJoin(3000));
    LoggerLog::DeleteInstance();
    const std::vector<std::string> lines = test::ReadLines(test::LogFilePath());
    EXPECT_TRUE(test::HasLogLine(lines, "E", "WorkerThreadRunnable", "Request failed. [I/O error: out of order]"));
}

} // namespace
} // namespace brvo
