#include "client/WorkerThreadRunnable.h"

#include "client/SlowRequest.h"
#include "support/TestFiles.h"

#include <gtest/gtest.h>

#include <Poco/AutoPtr.h>
#include <Poco/Event.h>
#include <Poco/Notification.h>
#include <Poco/NotificationQueue.h>
#include <Poco/Thread.h>
#include <Poco/Timestamp.h>

#include <atomic>

namespace brvo {
namespace {

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

} // namespace
} // namespace brvo
