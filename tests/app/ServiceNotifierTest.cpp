#include "app/ServiceNotifier.h"

#include "support/NotifyListener.h"
#include "support/TestFiles.h"

#include <gtest/gtest.h>

#include <cstdlib>

namespace brvo {
namespace {

const std::string kNotifySocket = test::FixedPath("/tmp/pvocd-notify-unit.sock");

class ServiceNotifierTest : public ::testing::Test {
protected:
    void TearDown() override {
        unsetenv("NOTIFY_SOCKET");
        unsetenv("WATCHDOG_USEC");
        unsetenv("WATCHDOG_PID");
    }
};

TEST_F(ServiceNotifierTest, SendsNothingWithoutAServiceManager) {
    test::NotifyListener listener(kNotifySocket);
    unsetenv("NOTIFY_SOCKET");
    setenv("WATCHDOG_USEC", "1000000", 1);
    EXPECT_FALSE(ServiceNotifier::Enabled());
    ServiceNotifier::Ready();
    ServiceNotifier::Status("plant 1");
    ServiceNotifier::KeepAlive();
    ServiceNotifier::Stopping();
    EXPECT_EQ(0u, ServiceNotifier::WatchdogMicroseconds());
    listener.Drain();
    EXPECT_TRUE(listener.Messages().empty());
}

TEST_F(ServiceNotifierTest, SendsEachMessageAndAStatusOnlyWhenItChanged) {
    test::NotifyListener listener(kNotifySocket);
    setenv("NOTIFY_SOCKET", kNotifySocket.c_str(), 1);
    ServiceNotifier::Ready();
    ServiceNotifier::Status("plant 1");
    ServiceNotifier::Status("plant 1");
    ServiceNotifier::Status("plant 2");
    ServiceNotifier::Stopping();
    ASSERT_TRUE(listener.WaitFor("STOPPING=1", 2000));
    EXPECT_EQ((std::vector<std::string>{"READY=1", "STATUS=plant 1", "STATUS=plant 2", "STOPPING=1"}),
              listener.Messages());
}

TEST_F(ServiceNotifierTest, KeepAliveOnlyWhenTheServiceManagerWatches) {
    test::NotifyListener listener(kNotifySocket);
    setenv("NOTIFY_SOCKET", kNotifySocket.c_str(), 1);
    ServiceNotifier::KeepAlive();
    setenv("WATCHDOG_USEC", "2000000", 1);
    EXPECT_EQ(2000000u, ServiceNotifier::WatchdogMicroseconds());
    ServiceNotifier::KeepAlive();
    // Meant for another process.
    setenv("WATCHDOG_PID", "1", 1);
    EXPECT_EQ(0u, ServiceNotifier::WatchdogMicroseconds());
    ServiceNotifier::KeepAlive();
    ServiceNotifier::Stopping();
    ASSERT_TRUE(listener.WaitFor("STOPPING=1", 2000));
    EXPECT_EQ((std::vector<std::string>{"WATCHDOG=1", "STOPPING=1"}), listener.Messages());
}

TEST_F(ServiceNotifierTest, AFailureStaysInFrontOfLaterStatuses) {
    test::NotifyListener listener(kNotifySocket);
    setenv("NOTIFY_SOCKET", kNotifySocket.c_str(), 1);
    ServiceNotifier::Failed("command socket [/x] not listening");
    ServiceNotifier::Status("plant 7, no update planned");
    ServiceNotifier::Stopping();
    ASSERT_TRUE(listener.WaitFor("STOPPING=1", 2000));
    EXPECT_EQ((std::vector<std::string>{"STATUS=command socket [/x] not listening",
                                        "STATUS=command socket [/x] not listening; plant 7, no update planned",
                                        "STOPPING=1"}),
              listener.Messages());
}

TEST(ServiceNotifierPlantStatusTest, NamesThePlantAndTheNextUpdate) {
    EXPECT_EQ("plant 0000777, next update 2026-11-23 17:30:00 UTC",
              ServiceNotifier::PlantStatus("0000777", "2026-11-23 17:30:00"));
    EXPECT_EQ("plant 0000777, no update planned", ServiceNotifier::PlantStatus("0000777", ""));
    EXPECT_EQ("no plant ID set", ServiceNotifier::PlantStatus("", "2026-11-23 17:30:00"));
}

} // namespace
} // namespace brvo
