// Probe run under an accelerated fake clock by the manager's tests: proves
// that the log-flush timer writes a buffered line about five minutes after
// Start, and again five minutes later. Prints what it saw; exits 0 on
// success.
#include "app/BrevantaOutputControlManager.h"
#include "settings/LoggerSettingManager.h"
#include "support/TestFiles.h"
#include "support/TestRoot.h"
#include "util/LoggerLog.h"

#include <Poco/Runnable.h>
#include <Poco/Thread.h>
#include <Poco/Timestamp.h>

#include <cstdio>
#include <cstdlib>

namespace {

const std::string kLogFile =
    brvo::test::FixedPath("/media/sdcard/kestrovanyx/Log/OutputScheduleLog/OutputSchedule_pvocd.log");

class StartRunner : public Poco::Runnable {
public:
    void run() override { brvo::BrevantaOutputControlManager::GetInstance()->Start(); }
};

bool LogHas(const std::string& text) {
    return brvo::test::ReadFile(kLogFile).find(text) != std::string::npos;
}

// Seconds (of the fake clock) from `start` until `text` is in the log file;
// -1 if it did not appear within `limitSeconds`.
double SecondsUntilWritten(const Poco::Timestamp& start, const std::string& text, int limitSeconds) {
    for (;;) {
        const double elapsed = static_cast<double>(start.elapsed()) / 1e6;
        if (LogHas(text)) return elapsed;
        if (elapsed > limitSeconds) return -1;
        Poco::Thread::sleep(200);
    }
}

} // namespace

int main() {
    // The test that starts the probe names its root in PVOC_TEST_ROOT.
    brvo::test::TestRoot::Prefix();
    brvo::test::WriteLoggerSetting("<OutputScheduleLogMaxBufferedSize>1000000</OutputScheduleLogMaxBufferedSize>");
    brvo::LoggerSettingManager::CreateInstance();
    brvo::LoggerLog::CreateInstance();
    brvo::BrevantaOutputControlManager::CreateInstance();

    Poco::Timestamp started;
    StartRunner runner;
    Poco::Thread thread;
    thread.start(runner);
    if (SecondsUntilWritten(started, "Start AppVer:", 30) < 0) {
        std::printf("start-up flush missing\n");
        return 1;
    }
    brvo::LoggerLog::Info("Probe", "first-marker");
    const double first = SecondsUntilWritten(started, "first-marker", 900);
    brvo::LoggerLog::Info("Probe", "second-marker");
    const double second = SecondsUntilWritten(started, "second-marker", 1200);
    std::printf("first flush after %.1f s, second after %.1f s\n", first, second);

    brvo::BrevantaOutputControlManager::RequestKill();
    thread.join();
    brvo::LoggerLog::DeleteInstance();
    const bool firstOk = first >= 280 && first <= 340;
    const bool secondOk = second >= 580 && second <= 640;
    return firstOk && secondOk ? 0 : 1;
}
