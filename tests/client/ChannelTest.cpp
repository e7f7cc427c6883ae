#include "client/Channel.h"

#include "client/SlowRequest.h"
#include "support/TestFiles.h"

#include <gtest/gtest.h>

#include <Poco/Event.h>
#include <Poco/Thread.h>
#include <Poco/Timestamp.h>

#include <atomic>
#include <memory>

namespace brvo {
namespace {

using test::SlowRequest;

class ChannelTest : public ::testing::Test {
protected:
    // Auto-reset off: one set releases every slow request still waiting.
    Poco::Event release_{false};
    std::atomic<int> started_{0};
    std::atomic<int> finished_{0};
};

TEST_F(ChannelTest, FourthRequestWaitsInTheQueueUntilAWorkerIsFree) {
    Poco::Event releaseFourth(false);
    std::unique_ptr<Channel> channel(new Channel(3));
    channel->StartWorkers();
    for (int i = 0; i < 3; ++i) channel->Enqueue(new SlowRequest(release_, started_, finished_));
    ASSERT_TRUE(test::WaitFor([&] { return started_ == 3; }, 5000));
    channel->Enqueue(new SlowRequest(releaseFourth, started_, finished_));
    // Three workers are busy: the fourth stays queued.
    Poco::Thread::sleep(300);
    EXPECT_EQ(3, started_.load());
    EXPECT_EQ(1, channel->QueuedCount());
    release_.set();
    ASSERT_TRUE(test::WaitFor([&] { return started_ == 4; }, 5000));
    EXPECT_EQ(0, channel->QueuedCount());
    EXPECT_TRUE(test::WaitFor([&] { return finished_ == 3; }, 5000));
    releaseFourth.set();
    EXPECT_TRUE(test::WaitFor([&] { return finished_ == 4; }, 5000));
}

TEST_F(ChannelTest, NullRequestIsIgnored) {
    Channel channel(1);
    channel.Enqueue(nullptr);
    EXPECT_EQ(0, channel.QueuedCount());
}

TEST_F(ChannelTest, RequestsQueuedBeforeStartRunOnceStarted) {
    Channel channel(2);
    release_.set();
    channel.Enqueue(new SlowRequest(release_, started_, finished_));
    Poco::Thread::sleep(100);
    EXPECT_EQ(0, started_.load());
    channel.StartWorkers();
    EXPECT_TRUE(test::WaitFor([&] { return finished_ == 1; }, 5000));
}

TEST_F(ChannelTest, DeletingStopsIdleWorkersPromptly) {
    std::unique_ptr<Channel> channel(new Channel(3));
    channel->StartWorkers();
    Poco::Thread::sleep(100);
    const Poco::Timestamp before;
    channel.reset();
    // Each worker looks at its stop flag at least every 500 ms; the wake-up
    // makes it see the flag at once.
    EXPECT_LT(before.elapsed(), 1500 * 1000);
}

TEST_F(ChannelTest, DeletingWaitsForRunningRequestsAndDropsQueuedOnes) {
    std::unique_ptr<Channel> channel(new Channel(1));
    channel->StartWorkers();
    channel->Enqueue(new SlowRequest(release_, started_, finished_));
    ASSERT_TRUE(test::WaitFor([&] { return started_ == 1; }, 5000));
    channel->Enqueue(new SlowRequest(release_, started_, finished_));
    Poco::Thread deleter;
    struct Deleter : Poco::Runnable {
        std::unique_ptr<Channel>* channel;
        void run() override { channel->reset(); }
    } job;
    job.channel = &channel;
    deleter.start(job);
    Poco::Thread::sleep(200);
    EXPECT_TRUE(deleter.isRunning());
    release_.set();
    ASSERT_TRUE(deleter.tryJoin(5000));
    EXPECT_EQ(1, finished_.load());
    EXPECT_EQ(1, started_.load());
}

} // namespace
} // namespace brvo
