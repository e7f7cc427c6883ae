#include "app/BrevantaOutputControlManager.h"

#include "server/OutputcontrolServer.h"
#include "settings/LoggerSettingManager.h"
#include "support/ChildProcess.h"
#include "support/CommandClient.h"
#include "support/SingletonTest.h"
#include "support/TestFiles.h"
#include "util/LoggerLog.h"

#include <gtest/gtest.h>

#include <Poco/Runnable.h>
#include <Poco/Thread.h>
#include <Poco/Timestamp.h>

#include <cstring>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace brvo {
namespace {

const std::string kLogFile =
    test::FixedPath("/media/sdcard/kestrovanyx/Log/OutputScheduleLog/OutputSchedule_pvocd.log");

class StartRunner : public Poco::Runnable {
public:
    void run() override { BrevantaOutputControlManager::GetInstance()->Start(); }
};

class BrevantaOutputControlManagerTest : public test::SingletonTest {
protected:
    void SetUp() override {
        test::WriteLoggerSetting("<OutputScheduleEnableLogBufferedIO>0</OutputScheduleEnableLogBufferedIO>");
        LoggerSettingManager::CreateInstance();
        LoggerLog::CreateInstance();
        BrevantaOutputControlManager::CreateInstance();
        manager_ = BrevantaOutputControlManager::GetInstance();
    }

    void TearDown() override {
        BrevantaOutputControlManager::RequestKill();
        for (auto& thread : threads_) {
            if (thread->isRunning()) thread->join();
        }
        SingletonTest::TearDown();
    }

    void StartInBackground() {
        threads_.emplace_back(new Poco::Thread());
        threads_.back()->start(runner_);
    }

    BrevantaOutputControlManager* manager_ = nullptr;
    StartRunner runner_;
    std::vector<std::unique_ptr<Poco::Thread>> threads_;
};

TEST_F(BrevantaOutputControlManagerTest, StartRunsUntilKillRequested) {
    StartInBackground();
    ASSERT_TRUE(test::WaitFor([this] { return manager_->IsRunning(); }, 5000));
    Poco::Thread::sleep(700);
    EXPECT_TRUE(threads_[0]->isRunning());

    Poco::Timestamp requested;
    BrevantaOutputControlManager::RequestKill();
    ASSERT_TRUE(threads_[0]->tryJoin(2000));
    EXPECT_LT(requested.elapsed(), 500000 * test::TimeScale());
    EXPECT_FALSE(manager_->IsRunning());
    EXPECT_EQ(nullptr, manager_->GetFlushTimer());

    LoggerLog::DeleteInstance();
    const std::string text = test::ReadFile(kLogFile);
    const std::size_t start = text.find("] BrevantaOutputControlManager Start AppVer:20220119_qtx\n");
    const std::size_t kill = text.find("] BrevantaOutputControlManager Kill complete.\n");
    ASSERT_NE(std::string::npos, start) << text;
    ASSERT_NE(std::string::npos, kill) << text;
    EXPECT_LT(start, kill);
    EXPECT_NE(std::string::npos, text.find("] [I] [", start - 40));
}

TEST_F(BrevantaOutputControlManagerTest, FlushTimerFiresAfterFiveMinutesThenEveryFive) {
    StartInBackground();
    ASSERT_TRUE(test::WaitFor([this] { return manager_->GetFlushTimer() != nullptr; }, 5000));
    EXPECT_EQ(300000, manager_->GetFlushTimer()->getStartInterval());
    EXPECT_EQ(300000, manager_->GetFlushTimer()->getPeriodicInterval());
}

TEST_F(BrevantaOutputControlManagerTest, SecondStartCreatesNoSecondTimer) {
    StartInBackground();
    ASSERT_TRUE(test::WaitFor([this] { return manager_->GetFlushTimer() != nullptr; }, 5000));
    const Poco::Timer* first = manager_->GetFlushTimer();
    const Poco::Thread* serverThread = manager_->GetServerThread();
    ASSERT_NE(nullptr, serverThread);
    StartInBackground();
    Poco::Thread::sleep(300);
    EXPECT_EQ(first, manager_->GetFlushTimer());
    EXPECT_EQ(serverThread, manager_->GetServerThread());
    BrevantaOutputControlManager::RequestKill();
    ASSERT_TRUE(threads_[0]->tryJoin(2000));
    ASSERT_TRUE(threads_[1]->tryJoin(2000));
    LoggerLog::DeleteInstance();
    const std::string text = test::ReadFile(kLogFile);
    const std::size_t once = text.find("Start AppVer:");
    ASSERT_NE(std::string::npos, once);
    EXPECT_EQ(std::string::npos, text.find("Start AppVer:", once + 1));
    const std::size_t server = text.find("] BrevantaOutputControlManager Start Server\n");
    ASSERT_NE(std::string::npos, server);
    EXPECT_LT(once, server);
    EXPECT_EQ(std::string::npos, text.find("Start Server", server + 40));
}

TEST_F(BrevantaOutputControlManagerTest, StartOpensTheCommandSocket) {
    StartInBackground();
    ASSERT_TRUE(test::WaitFor([this] { return manager_->IsRunning(); }, 5000));
    EXPECT_TRUE(
        test::WaitFor([] { return test::FileExists(test::FixedPath("/mnt/system/pvoctrl/brevanta.octrl")); }, 5000));
    ASSERT_NE(nullptr, manager_->GetServer());
    EXPECT_GE(manager_->GetServer()->GetListenSocket(), 0);
}

// Whether a client can connect to the command socket at `path`.
bool CanConnect(const std::string& path) {
    const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    const sockaddr_un address = test::UnixAddress(path);
    const bool connected = connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    close(fd);
    return connected;
}

// Kill leaves the command server serving; only deleting the manager ends
// it. A second manager in the same process then serves the socket again.
TEST_F(BrevantaOutputControlManagerTest, DeletedManagerEndsItsServerAndANewOneServesAgain) {
    const std::string path = test::FixedPath("/mnt/system/pvoctrl/brevanta.octrl");
    for (int round = 0; round < 2; ++round) {
        if (round > 0) {
            BrevantaOutputControlManager::CreateInstance();
            manager_ = BrevantaOutputControlManager::GetInstance();
        }
        StartInBackground();
        ASSERT_TRUE(test::WaitFor([this] { return manager_->IsRunning(); }, 5000));
        ASSERT_TRUE(test::WaitFor([&] { return CanConnect(path); }, 5000));
        manager_->Kill();
        ASSERT_TRUE(threads_.back()->tryJoin(2000));
        EXPECT_TRUE(CanConnect(path));
        const Poco::Timestamp deleting;
        BrevantaOutputControlManager::DeleteInstance();
        EXPECT_LT(deleting.elapsed(), 2000 * 1000);
        EXPECT_FALSE(CanConnect(path));
    }
}

TEST_F(BrevantaOutputControlManagerTest, WatchdogRunsFromStartUntilKill) {
    ASSERT_NE(nullptr, manager_->GetWatchdog());
    StartInBackground();
    EXPECT_TRUE(test::WaitFor([] { return test::FileExists(test::FixedPath("/mnt/system/check/brvo")); }, 5000));
    BrevantaOutputControlManager::RequestKill();
    ASSERT_TRUE(threads_[0]->tryJoin(2000));
    EXPECT_EQ(nullptr, manager_->GetWatchdog());
}

TEST_F(BrevantaOutputControlManagerTest, KillTwiceIsHarmless) {
    manager_->Kill();
    manager_->Kill();
    EXPECT_FALSE(manager_->IsRunning());
    LoggerLog::DeleteInstance();
    const std::string text = test::ReadFile(kLogFile);
    const std::size_t first = text.find("Kill complete.");
    ASSERT_NE(std::string::npos, first);
    EXPECT_NE(std::string::npos, text.find("Kill complete.", first + 1));
}

TEST_F(BrevantaOutputControlManagerTest, KillRequestedBeforeStartStopsAtOnce) {
    BrevantaOutputControlManager::RequestKill();
    StartInBackground();
    ASSERT_TRUE(threads_[0]->tryJoin(2000));
    EXPECT_FALSE(manager_->IsRunning());
}

TEST_F(BrevantaOutputControlManagerTest, FlushTimerWritesBufferedLinesEveryFiveMinutes) {
    // The probe runs the manager under a fake clock thirty times faster than
    // real time, so five minutes pass in ten seconds.
    test::ChildProcess probe;
    ASSERT_TRUE(probe.Start(test::ChildProcess::Command(FLUSH_PROBE_BINARY), test::FixedPath("/tmp/probe.out"),
                            test::ChildProcess::FakeTimeEnv("+0 x30")));
    ASSERT_TRUE(probe.WaitExit(90000)) << test::ReadFile(test::FixedPath("/tmp/probe.out"));
    EXPECT_EQ(0, probe.ExitCode()) << test::ReadFile(test::FixedPath("/tmp/probe.out"));
}

} // namespace
} // namespace brvo
