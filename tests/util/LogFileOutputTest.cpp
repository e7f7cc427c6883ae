#include "util/LogFileOutput.h"

#include "settings/LoggerSettingManager.h"
#include "support/TestFiles.h"
#include "util/LoggerLog.h"

#include <gtest/gtest.h>

#include <Poco/File.h>
#include <Poco/Thread.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <fcntl.h>
#include <memory>
#include <regex>
#include <unistd.h>

namespace brvo {
namespace {

const std::string kDir = test::FixedPath("/media/sdcard/logtest");
const std::string kFile = kDir + "/out.log";

class LogFileOutputTest : public ::testing::Test {
protected:
    void TearDown() override { output_.reset(); }

    LogFileOutput& Make(bool buffered, int bufferedSize = 8192) {
        output_.reset(new LogFileOutput());
        output_->SetBufferedIO(buffered);
        output_->SetMaxBufferedSize(bufferedSize);
        return *output_;
    }

    // An output whose writer runs only when the test calls Tick(), and whose
    // lines carry the time of wall_: between two ticks no timer can write,
    // so a check that nothing was written is exact rather than timed.
    LogFileOutput& MakeStepped(bool buffered, int bufferedSize = 8192) {
        std::shared_ptr<std::atomic<std::int64_t>> wall = wall_;
        output_.reset(new LogFileOutput(
            LogLimiter::Clock(), [wall] { return wall->load(); }, LogFileOutput::Ticks::kByCaller));
        output_->SetBufferedIO(buffered);
        output_->SetMaxBufferedSize(bufferedSize);
        return *output_;
    }

    void Log(const std::string& message, int level = 2) { output_->Output(level, "I", "[1] Test", message); }

    static bool FileHas(const std::string& path, const std::string& text) {
        return test::ReadFile(path).find(text) != std::string::npos;
    }

    std::unique_ptr<LogFileOutput> output_;
    // 2026-11-25 06:30:00 UTC, in microseconds.
    std::shared_ptr<std::atomic<std::int64_t>> wall_ =
        std::make_shared<std::atomic<std::int64_t>>(1795588200LL * 1000000);
};

TEST_F(LogFileOutputTest, DefaultsAndSetterGuards) {
    LogFileOutput output;
    EXPECT_EQ(10485760u, output.GetMaxFileSize());
    EXPECT_EQ(1, output.GetMaxRollIndex());
    EXPECT_EQ(8192, output.GetMaxBufferedSize());
    EXPECT_EQ(1, output.GetLogLevel());
    EXPECT_TRUE(output.IsBufferedIO());

    output.SetLogLevel(3);
    output.SetLogLevel(6);
    EXPECT_EQ(3, output.GetLogLevel());
    output.SetLogLevel(-1);
    EXPECT_EQ(3, output.GetLogLevel());
    output.SetMaxFileSize(0);
    EXPECT_EQ(10485760u, output.GetMaxFileSize());
    output.SetMaxRollIndex(0);
    EXPECT_EQ(1, output.GetMaxRollIndex());
    output.SetMaxBufferedSize(0);
    EXPECT_EQ(8192, output.GetMaxBufferedSize());
    output.SetLogLevel(0);
    EXPECT_EQ(0, output.GetLogLevel());
    output.SetLogLevel(5);
    EXPECT_EQ(5, output.GetLogLevel());
}

TEST_F(LogFileOutputTest, LineFormat) {
    Make(false).SetFilePath(kFile);
    Log("hello world");
    ASSERT_TRUE(test::WaitFor([] { return FileHas(kFile, "hello world"); }, 5000));
    const std::vector<std::string> lines = test::ReadLines(kFile);
    ASSERT_EQ(1u, lines.size());
    EXPECT_TRUE(std::regex_match(lines[0],
                                 std::regex(R"(\[\d{4}-\d\d-\d\d \d\d:\d\d:\d\d UTC\] \[I\] \[1\] Test hello world)")))
        << lines[0];
    EXPECT_EQ('\n', test::ReadFile(kFile).back());
}

// The time text is formatted once per second; each line must still carry
// its own second, and a format with fractions of a second its own fraction.
TEST_F(LogFileOutputTest, EveryLineCarriesItsOwnTime) {
    MakeStepped(false).SetFilePath(kFile);
    Log("first");
    *wall_ += 999999;
    Log("same second");
    *wall_ += 1;
    Log("next second");
    output_->SetTimeFormat("%Y-%m-%d %H:%M:%S.%i");
    *wall_ += 20000;
    Log("with fraction");
    *wall_ += 20000;
    Log("next fraction");
    output_->Tick();
    const std::vector<std::string> lines = test::ReadLines(kFile);
    ASSERT_EQ(5u, lines.size());
    const auto time = [](const std::string& line) { return line.substr(0, line.find(" UTC]") + 5); };
    EXPECT_EQ("[2026-11-25 06:30:00 UTC]", time(lines[0]));
    EXPECT_EQ("[2026-11-25 06:30:00 UTC]", time(lines[1]));
    EXPECT_EQ("[2026-11-25 06:30:01 UTC]", time(lines[2]));
    EXPECT_EQ("[2026-11-25 06:30:01.020 UTC]", time(lines[3]));
    EXPECT_EQ("[2026-11-25 06:30:01.040 UTC]", time(lines[4]));
}

TEST_F(LogFileOutputTest, NothingIsWrittenBetweenTicksWhenTheCallerTicks) {
    MakeStepped(false).SetFilePath(kFile);
    Log("waits for the tick");
    EXPECT_FALSE(FileHas(kFile, "waits for the tick"));
    output_->Tick();
    EXPECT_TRUE(FileHas(kFile, "waits for the tick"));
}

TEST_F(LogFileOutputTest, EmptyMarkAndPrefixAreLeftOut) {
    Make(false).SetFilePath(kFile);
    output_->Output(2, "", "", "bare");
    ASSERT_TRUE(test::WaitFor([] { return FileHas(kFile, "bare"); }, 5000));
    EXPECT_TRUE(std::regex_match(test::ReadLines(kFile)[0], std::regex(R"(\[[-0-9 :]+ UTC\] bare)")));
}

TEST_F(LogFileOutputTest, LineBelowLevelIsNeitherWrittenNorEchoed) {
    Make(false).SetFilePath(kFile);
    output_->SetLogLevel(3);
    ::testing::internal::CaptureStdout();
    Log("too low", 2);
    Log("high enough", 3);
    std::fflush(stdout);
    const std::string echoed = ::testing::internal::GetCapturedStdout();
    EXPECT_EQ(std::string::npos, echoed.find("too low"));
    EXPECT_NE(std::string::npos, echoed.find("out.log [")) << echoed;
    EXPECT_NE(std::string::npos, echoed.find("high enough"));
    ASSERT_TRUE(test::WaitFor([] { return FileHas(kFile, "high enough"); }, 5000));
    EXPECT_FALSE(FileHas(kFile, "too low"));
}

TEST_F(LogFileOutputTest, BufferedWaitsForThreshold) {
    MakeStepped(true, 200).SetFilePath(kFile);
    Log("first");
    for (int i = 0; i < 3; ++i) output_->Tick();
    EXPECT_FALSE(FileHas(kFile, "first"));
    for (int i = 0; i < 5; ++i) Log(std::string(40, 'x'));
    output_->Tick();
    EXPECT_TRUE(FileHas(kFile, "first"));
    EXPECT_EQ(6u, test::ReadLines(kFile).size());
}

TEST_F(LogFileOutputTest, BufferedWritesOnFlushRequest) {
    MakeStepped(true, 100000).SetFilePath(kFile);
    Log("pending");
    for (int i = 0; i < 3; ++i) output_->Tick();
    EXPECT_FALSE(FileHas(kFile, "pending"));
    output_->RequestFlush();
    EXPECT_TRUE(output_->IsFlushRequested());
    output_->Tick();
    EXPECT_TRUE(FileHas(kFile, "pending"));
    EXPECT_FALSE(output_->IsFlushRequested());
}

// With its own timer the writer needs no caller: a flush request is
// written within a few of its 500 ms ticks.
TEST_F(LogFileOutputTest, TimerWritesAFlushRequestByItself) {
    Make(true, 100000).SetFilePath(kFile);
    Log("pending");
    output_->RequestFlush();
    ASSERT_TRUE(test::WaitFor([] { return FileHas(kFile, "pending"); }, 5000));
    EXPECT_FALSE(output_->IsFlushRequested());
}

// A burst is written in pieces as it comes, not held for the next tick:
// the writer here has no tick at all, so only the pile can wake it.
TEST_F(LogFileOutputTest, APileOfLinesWakesTheWriterBeforeItsTick) {
    output_.reset(new LogFileOutput(LogLimiter::Clock(), LogLimiter::Clock(), LogFileOutput::Ticks::kPileOnly));
    output_->SetBufferedIO(true);
    output_->SetMaxBufferedSize(4096);
    output_->SetFilePath(kFile);
    const std::string payload(1000, 'p');
    Log("first " + payload);
    for (std::size_t i = 0; i < 8; ++i) Log(payload);
    Poco::Thread::sleep(200);
    EXPECT_FALSE(FileHas(kFile, "first")) << "fewer than a pile's bytes woke the writer";
    for (std::size_t bytes = 9 * payload.size(); bytes < LogFileOutput::kPressureBytes; bytes += payload.size()) {
        Log(payload);
    }
    // The wake may come while lines are still being added; the write takes
    // at least the pile that woke it, whole lines from the first on.
    ASSERT_TRUE(test::WaitFor([] { return FileHas(kFile, "first"); }, 5000));
    const std::vector<std::string> written = test::ReadLines(kFile);
    std::size_t bytes = 0;
    for (const std::string& line : written) bytes += line.size() + 1;
    EXPECT_GE(bytes, LogFileOutput::kPressureBytes);
    EXPECT_NE(std::string::npos, written.front().find("first"));
}

// A buffered size above the pile size still holds the lines back: the pile
// that wakes the writer is then the buffered size.
TEST_F(LogFileOutputTest, ABufferedSizeAboveThePileHoldsTheLinesUntilItIsReached) {
    const std::size_t bufferedSize = 2 * LogFileOutput::kPressureBytes;
    output_.reset(new LogFileOutput(LogLimiter::Clock(), LogLimiter::Clock(), LogFileOutput::Ticks::kPileOnly));
    output_->SetBufferedIO(true);
    output_->SetMaxBufferedSize(static_cast<int>(bufferedSize));
    output_->SetFilePath(kFile);
    const std::string payload(1000, 'p');
    Log("first " + payload);
    std::size_t lines = 1;
    // Each line is the payload and its time, mark and prefix (well under
    // 100 bytes).
    for (; (lines + 1) * (payload.size() + 100) < bufferedSize; ++lines) Log(payload);
    ASSERT_GT(lines * payload.size(), LogFileOutput::kPressureBytes);
    Poco::Thread::sleep(200);
    EXPECT_FALSE(FileHas(kFile, "first")) << "the pile size woke the writer below the buffered size";
    for (int i = 0; i < 30; ++i) Log(payload);
    ASSERT_TRUE(test::WaitFor([] { return FileHas(kFile, "first"); }, 5000));
}

// A file that could not be written is not tried again at every pile: only
// a write that reached the file lets the next pile wake the writer.
TEST_F(LogFileOutputTest, AFailedWriteLeavesTheNextPileToTheTicks) {
    test::WriteFile(test::FixedPath("/media/sdcard/blocked"), "x");
    const std::string blockedFile = test::FixedPath("/media/sdcard/blocked/log/out.log");
    output_.reset(new LogFileOutput(LogLimiter::Clock(), LogLimiter::Clock(), LogFileOutput::Ticks::kPileOnly));
    output_->SetBufferedIO(true);
    output_->SetMaxBufferedSize(4096);
    output_->SetFilePath(blockedFile);
    const std::string payload(1000, 'p');
    // The failed write sends the lines to standard error: a file of the
    // test's own stands in for it, to see when that write was tried.
    const std::string sentPath = test::FixedPath("/tmp/sent-to-stderr");
    test::WriteFile(sentPath, "");
    const int sentFile = open(sentPath.c_str(), O_WRONLY | O_CLOEXEC);
    const int savedStderr = dup(STDERR_FILENO);
    ASSERT_GE(sentFile, 0);
    ASSERT_GE(savedStderr, 0);
    dup2(sentFile, STDERR_FILENO);
    for (std::size_t bytes = 0; bytes <= LogFileOutput::kPressureBytes; bytes += payload.size()) Log(payload);
    const bool sent = test::WaitFor([&] { return FileHas(sentPath, payload); }, 5000);
    test::RemoveAll(test::FixedPath("/media/sdcard/blocked"));
    Log("after " + payload);
    Poco::Thread::sleep(200);
    dup2(savedStderr, STDERR_FILENO);
    close(savedStderr);
    close(sentFile);
    ASSERT_TRUE(sent) << "the first pile did not wake the writer";
    EXPECT_FALSE(FileHas(blockedFile, "after")) << "a pile woke the writer again after a failed write";
}

TEST_F(LogFileOutputTest, BufferedWritesOnDestruction) {
    MakeStepped(true, 100000).SetFilePath(kFile);
    Log("kept at the end");
    output_->Tick();
    EXPECT_FALSE(FileHas(kFile, "kept at the end"));
    output_.reset();
    EXPECT_TRUE(FileHas(kFile, "kept at the end"));
}

TEST_F(LogFileOutputTest, UnbufferedWritesWithinATick) {
    Make(false, 100000).SetFilePath(kFile);
    Log("soon");
    EXPECT_TRUE(test::WaitFor([] { return FileHas(kFile, "soon"); }, 1500));
}

TEST_F(LogFileOutputTest, OversizedFileIsRolledBeforeFirstLine) {
    test::WriteFile(kFile, std::string(300, 'o') + "\n");
    LogFileOutput& output = Make(false);
    output.SetMaxFileSize(200);
    output.SetMaxRollIndex(2);
    output.SetFilePath(kFile);
    Log("new");
    ASSERT_TRUE(test::WaitFor([] { return FileHas(kFile, "new"); }, 5000));
    EXPECT_EQ(std::string(300, 'o') + "\n", test::ReadFile(kFile + ".1"));
    EXPECT_EQ(1u, test::ReadLines(kFile).size());
}

TEST_F(LogFileOutputTest, LineLongerThanLimitIsWrittenWholeIntoFreshFile) {
    LogFileOutput& output = Make(false);
    output.SetMaxFileSize(100);
    output.SetMaxRollIndex(5);
    output.SetFilePath(kFile);
    Log("short");
    ASSERT_TRUE(test::WaitFor([] { return FileHas(kFile, "short"); }, 5000));
    const std::string longText(500, 'L');
    Log(longText);
    ASSERT_TRUE(test::WaitFor([&] { return FileHas(kFile, longText); }, 5000));
    EXPECT_TRUE(FileHas(kFile + ".1", "short"));
    const std::vector<std::string> lines = test::ReadLines(kFile);
    ASSERT_EQ(1u, lines.size());
    EXPECT_NE(std::string::npos, lines[0].find(longText));
}

std::vector<std::string> NumberedLines(const std::string& path) {
    std::vector<std::string> numbers;
    std::regex pattern(R"(line-(\d+)$)");
    for (const std::string& line : test::ReadLines(path)) {
        std::smatch match;
        if (std::regex_search(line, match, pattern)) numbers.push_back(match[1]);
    }
    return numbers;
}

TEST_F(LogFileOutputTest, RollingKeepsEveryLineOnceInOrder) {
    LogFileOutput& output = MakeStepped(false);
    output.SetMaxFileSize(400);
    output.SetMaxRollIndex(40);
    output.SetFilePath(kFile);
    for (int i = 0; i < 60; ++i) {
        Log("line-" + std::to_string(i));
        if (i % 7 == 0) output.Tick();
    }
    output.Tick();
    ASSERT_TRUE(FileHas(kFile, "line-59\n"));
    std::vector<std::string> all;
    for (int i = 40; i >= 1; --i) {
        const std::string rolled = kFile + "." + std::to_string(i);
        if (!test::FileExists(rolled)) continue;
        EXPECT_LE(Poco::File(rolled).getSize(), 400u) << rolled;
        for (const std::string& n : NumberedLines(rolled)) all.push_back(n);
    }
    for (const std::string& n : NumberedLines(kFile)) all.push_back(n);
    ASSERT_EQ(60u, all.size());
    for (int i = 0; i < 60; ++i) EXPECT_EQ(std::to_string(i), all[static_cast<std::size_t>(i)]);
    EXPECT_TRUE(test::FileExists(kFile + ".2"));
}

TEST_F(LogFileOutputTest, RollingOverwritesOldestBeyondRollIndex) {
    LogFileOutput& output = Make(false);
    output.SetMaxFileSize(120);
    output.SetMaxRollIndex(3);
    output.SetFilePath(kFile);
    for (int i = 0; i < 40; ++i) Log("line-" + std::to_string(i));
    ASSERT_TRUE(test::WaitFor([] { return FileHas(kFile, "line-39\n"); }, 5000));
    EXPECT_FALSE(test::FileExists(kFile + ".4"));
    std::vector<std::string> kept;
    for (int i = 3; i >= 1; --i) {
        ASSERT_TRUE(test::FileExists(kFile + "." + std::to_string(i)));
        for (const std::string& n : NumberedLines(kFile + "." + std::to_string(i))) kept.push_back(n);
    }
    for (const std::string& n : NumberedLines(kFile)) kept.push_back(n);
    // What is kept is the newest lines, each once, in order, ending in the last.
    ASSERT_FALSE(kept.empty());
    const int first = std::stoi(kept.front());
    for (std::size_t i = 0; i < kept.size(); ++i) {
        EXPECT_EQ(std::to_string(first + static_cast<int>(i)), kept[i]);
    }
    EXPECT_EQ("39", kept.back());
}

TEST_F(LogFileOutputTest, RemovedDirectoryIsRecreatedAtNextTick) {
    Make(false).SetFilePath(kFile);
    Log("before");
    ASSERT_TRUE(test::WaitFor([] { return FileHas(kFile, "before"); }, 5000));
    test::RemoveAll(kDir);
    Log("after");
    ASSERT_TRUE(test::WaitFor([] { return FileHas(kFile, "after"); }, 5000));
    EXPECT_FALSE(FileHas(kFile, "before"));
}

TEST_F(LogFileOutputTest, RepeatedFailuresLeaveOneEntryPerPeriod) {
    // A regular file where the log directory should be makes every write
    // fail, even for root.
    test::WriteFile(test::FixedPath("/media/sdcard/blocked"), "x");
    const std::string blockedFile = test::FixedPath("/media/sdcard/blocked/log/out.log");
    MakeStepped(false).SetFilePath(blockedFile);
    for (int i = 0; i < 4; ++i) {
        Log("lost-" + std::to_string(i));
        output_->Tick();
    }
    std::vector<std::string> entries = test::ReadLines(LogFileOutput::ErrorFilePath());
    ASSERT_EQ(1u, entries.size());
    EXPECT_TRUE(std::regex_match(entries[0], std::regex(R"(\[\d{4}-\d\d-\d\d \d\d:\d\d:\d\d UTC\] )" +
                                                        std::regex_replace(blockedFile, std::regex(R"(\.)"), R"(\.)"))))
        << entries[0];

    // Space returns: the held lines are written, in order, and the entry is
    // re-armed for the next failure period.
    test::RemoveAll(test::FixedPath("/media/sdcard/blocked"));
    output_->Tick();
    ASSERT_TRUE(FileHas(blockedFile, "lost-3"));
    const std::string written = test::ReadFile(blockedFile);
    for (int i = 0; i < 4; ++i) {
        const std::string text = "lost-" + std::to_string(i);
        ASSERT_NE(std::string::npos, written.find(text)) << text;
        if (i > 0) {
            EXPECT_LT(written.find("lost-" + std::to_string(i - 1)), written.find(text));
        }
    }
    test::RemoveAll(test::FixedPath("/media/sdcard/blocked"));
    test::WriteFile(test::FixedPath("/media/sdcard/blocked"), "x");
    Log("lost-again");
    output_->Tick();
    EXPECT_EQ(2u, test::ReadLines(LogFileOutput::ErrorFilePath()).size());
    for (int i = 0; i < 3; ++i) output_->Tick();
    EXPECT_EQ(2u, test::ReadLines(LogFileOutput::ErrorFilePath()).size());
}

// While the file cannot be written each line goes to standard error once,
// with its level as a syslog priority; once the file takes writes again,
// nothing more goes there.
TEST_F(LogFileOutputTest, LinesGoToStandardErrorOnceWhileTheFileCannotBeWritten) {
    test::WriteFile(test::FixedPath("/media/sdcard/blocked"), "x");
    const std::string blockedFile = test::FixedPath("/media/sdcard/blocked/log/out.log");
    MakeStepped(false).SetFilePath(blockedFile);
    ::testing::internal::CaptureStderr();
    output_->Output(4, "E", "[1] Test", "first");
    output_->Tick();
    output_->Output(3, "W", "[1] Test", "second");
    output_->Output(2, "I", "[1] Test", "third");
    output_->Tick();
    output_->Tick();
    test::RemoveAll(test::FixedPath("/media/sdcard/blocked"));
    output_->Output(5, "F", "[1] Test", "written");
    output_->Tick();
    output_->Output(1, "D", "[1] Test", "after");
    output_->Tick();
    const std::string sent = ::testing::internal::GetCapturedStderr();
    EXPECT_EQ("<3>[2026-11-25 06:30:00 UTC] [E] [1] Test first\n"
              "<4>[2026-11-25 06:30:00 UTC] [W] [1] Test second\n"
              "<6>[2026-11-25 06:30:00 UTC] [I] [1] Test third\n",
              sent);
    const std::string written = test::ReadFile(blockedFile);
    for (const char* text : {"first", "second", "third", "written", "after"}) {
        EXPECT_NE(std::string::npos, written.find(text)) << text;
    }
}

TEST_F(LogFileOutputTest, SyslogPriorityFollowsTheMark) {
    const auto priority = [](const std::string& line) {
        return LogFileOutput::SyslogPriority(line.data(), line.size());
    };
    EXPECT_EQ(7, priority("[t UTC] [V] [1] T m\n"));
    EXPECT_EQ(7, priority("[t UTC] [D] [1] T m\n"));
    EXPECT_EQ(6, priority("[t UTC] [I] [1] T m\n"));
    EXPECT_EQ(4, priority("[t UTC] [W] [1] T m\n"));
    EXPECT_EQ(3, priority("[t UTC] [E] [1] T m\n"));
    EXPECT_EQ(2, priority("[t UTC] [F] [1] T m\n"));
    EXPECT_EQ(6, priority("no mark at all\n"));
    EXPECT_EQ(6, priority("[t UTC] [E"));
}

// A file that stays unwritable keeps at most kMaxUnwrittenBytes of lines for
// later, the newest; each of the others reached standard error.
TEST_F(LogFileOutputTest, LinesKeptForAnUnwritableFileAreCapped) {
    test::WriteFile(test::FixedPath("/media/sdcard/blocked"), "x");
    const std::string blockedFile = test::FixedPath("/media/sdcard/blocked/log/out.log");
    MakeStepped(false).SetFilePath(blockedFile);
    const std::string filler(1000, 'x');
    const int lines = static_cast<int>(2 * LogFileOutput::kMaxUnwrittenBytes / filler.size());
    ::testing::internal::CaptureStderr();
    for (int i = 0; i < lines; ++i) {
        Log("n" + std::to_string(i) + " " + filler);
        if (i % 100 == 99) output_->Tick();
    }
    output_->Tick();
    const std::string sent = ::testing::internal::GetCapturedStderr();
    EXPECT_NE(std::string::npos, sent.find("] Test n0 ")) << sent.substr(0, 200);
    EXPECT_NE(std::string::npos, sent.find("] Test n" + std::to_string(lines - 1) + " "));
    EXPECT_EQ(std::string::npos, sent.find("] Test n0 ", sent.find("] Test n0 ") + 1)) << "a line was sent twice";
    test::RemoveAll(test::FixedPath("/media/sdcard/blocked"));
    output_->Tick();
    const std::string written = test::ReadFile(blockedFile);
    EXPECT_LE(written.size(), LogFileOutput::kMaxUnwrittenBytes);
    EXPECT_EQ(std::string::npos, written.find("] Test n0 "));
    EXPECT_NE(std::string::npos, written.find("] Test n" + std::to_string(lines - 1) + " "));
}

TEST_F(LogFileOutputTest, EmptyPathIsReportedButDoesNotCrash) {
    ::testing::internal::CaptureStdout();
    MakeStepped(false).SetFilePath("");
    std::fflush(stdout);
    EXPECT_NE(std::string::npos, ::testing::internal::GetCapturedStdout().find("file_path error not set\n"));
    Log("nowhere");
    output_->Tick();
    EXPECT_TRUE(test::FileExists(LogFileOutput::ErrorFilePath()));
}

TEST_F(LogFileOutputTest, LinesFromManyThreadsAreAllWritten) {
    Make(true, 512).SetFilePath(kFile);
    std::vector<std::unique_ptr<Poco::Thread>> threads;
    class Writer : public Poco::Runnable {
    public:
        Writer(LogFileOutput& out, int id) : out_(out), id_(id) {}
        void run() override {
            for (int i = 0; i < 200; ++i) {
                out_.Output(2, "I", "[t]", "w" + std::to_string(id_) + "-" + std::to_string(i));
            }
        }

    private:
        LogFileOutput& out_;
        int id_;
    };
    std::vector<std::unique_ptr<Writer>> writers;
    for (int t = 0; t < 4; ++t) {
        writers.emplace_back(new Writer(*output_, t));
        threads.emplace_back(new Poco::Thread());
        threads.back()->start(*writers.back());
    }
    for (auto& thread : threads) thread->join();
    output_.reset();
    EXPECT_EQ(800u, test::ReadLines(kFile).size());
}

// The process-wide output of the log, left open when the process exits, is
// destroyed by the exit's static destruction and writes out its last lines
// then, after the file mutex it takes has been used by earlier writes.
TEST_F(LogFileOutputTest, OutputStillOpenAtExitWritesItsLastLines) {
    // The child is forked, not started anew: under the Arm emulator a
    // started child would be a foreign binary. ctest runs this test alone,
    // so no other thread exists when it forks.
    GTEST_FLAG_SET(death_test_style, "fast");
    const long long waitMs = 5000 * test::TimeScale();
    EXPECT_EXIT(
        {
            test::WriteLoggerSetting("<OutputScheduleEnableLogBufferedIO>1</OutputScheduleEnableLogBufferedIO>");
            LoggerSettingManager::CreateInstance();
            LoggerLog::CreateInstance();
            // Two written buffers: the first one's clearing has surely
            // taken the file mutex once the second one is in the file.
            for (const char* line : {"first write", "second write"}) {
                LoggerLog::Error("ExitTest", line);
                LoggerLog::Flush();
                if (!test::WaitFor([&] { return FileHas(test::LogFilePath(), line); }, static_cast<int>(waitMs))) {
                    std::_Exit(3);
                }
            }
            LoggerLog::Error("ExitTest", "written at exit");
            std::exit(0);
        },
        ::testing::ExitedWithCode(0), "");
    EXPECT_TRUE(FileHas(test::LogFilePath(), "written at exit"));
}

// --- Control bytes in a line -------------------------------------------------

// The escape a control byte is written as.
std::string Escaped(unsigned char byte) {
    static const char kHex[] = "0123456789abcdef";
    return std::string("\\x") + kHex[byte >> 4] + kHex[byte & 0x0f];
}

std::vector<unsigned char> ControlBytes() {
    std::vector<unsigned char> bytes;
    for (int byte = 0; byte < 0x20; ++byte) bytes.push_back(static_cast<unsigned char>(byte));
    bytes.push_back(0x7f);
    return bytes;
}

TEST_F(LogFileOutputTest, EveryControlByteIsWrittenAsAnEscape) {
    Make(false).SetFilePath(kFile);
    for (unsigned char byte : ControlBytes()) {
        Log("a" + std::string(1, static_cast<char>(byte)) + "b" + std::string(1, static_cast<char>(byte)));
    }
    Log("last");
    ASSERT_TRUE(test::WaitFor([] { return FileHas(kFile, "last"); }, 5000));
    const std::vector<std::string> lines = test::ReadLines(kFile);
    ASSERT_EQ(ControlBytes().size() + 1, lines.size()) << test::ReadFile(kFile);
    std::size_t i = 0;
    for (unsigned char byte : ControlBytes()) {
        const std::string& line = lines[i++];
        const std::string expected = " Test a" + Escaped(byte) + "b" + Escaped(byte);
        ASSERT_GE(line.size(), expected.size());
        EXPECT_EQ(expected, line.substr(line.size() - expected.size())) << static_cast<int>(byte);
        for (char c : line) EXPECT_FALSE(static_cast<unsigned char>(c) < 0x20 || c == 0x7f) << line;
    }
}

// Long messages are scanned several bytes at a time: a control byte is
// found at every position of a word, and the bytes next to the control
// ranges (space, tilde, 0x80, 0x9f, 0xa0, 0xff) pass at every position.
TEST_F(LogFileOutputTest, ControlBytesAreFoundAtEveryPositionOfALongMessage) {
    Make(false).SetFilePath(kFile);
    std::vector<unsigned char> bytes = ControlBytes();
    for (int plain : {0x20, 0x7e, 0x80, 0x9f, 0xa0, 0xff}) bytes.push_back(static_cast<unsigned char>(plain));
    const std::size_t kLength = 24;
    std::vector<std::string> expected;
    for (unsigned char byte : bytes) {
        for (std::size_t at = 0; at < kLength; ++at) {
            std::string message(kLength, 'm');
            message[at] = static_cast<char>(byte);
            Log(message);
            const bool control = byte < 0x20 || byte == 0x7f;
            expected.push_back(std::string(at, 'm') +
                               (control ? Escaped(byte) : std::string(1, static_cast<char>(byte))) +
                               std::string(kLength - at - 1, 'm'));
        }
    }
    Log("last");
    ASSERT_TRUE(test::WaitFor([] { return FileHas(kFile, "last"); }, 5000));
    const std::vector<std::string> lines = test::ReadLines(kFile);
    ASSERT_EQ(expected.size() + 1, lines.size());
    for (std::size_t i = 0; i < expected.size(); ++i) {
        const std::string tail = " Test " + expected[i];
        ASSERT_GE(lines[i].size(), tail.size());
        EXPECT_EQ(tail, lines[i].substr(lines[i].size() - tail.size())) << i;
    }
}

TEST_F(LogFileOutputTest, Utf8AndPlainTextStayAsTheyAre) {
    Make(false).SetFilePath(kFile);
    const std::string text = "Gr\xc3\xbc\xc3\x9f"
                             "e \xe6\x97\xa5\xe6\x9c\xac \x80\xff back\\slash \\x0a ~ [x]";
    Log(text);
    ASSERT_TRUE(test::WaitFor([] { return FileHas(kFile, "back"); }, 5000));
    const std::vector<std::string> lines = test::ReadLines(kFile);
    ASSERT_EQ(1u, lines.size());
    EXPECT_EQ(" Test " + text, lines[0].substr(lines[0].size() - text.size() - 6));
}

TEST_F(LogFileOutputTest, AForgedLineStaysOneLineInTheFileAndOnStandardOutput) {
    Make(false).SetFilePath(kFile);
    const std::string forged = "\n[2026-01-01 00:00:00 UTC] [E] forged";
    ::testing::internal::CaptureStdout();
    output_->Output(2, "I", "[1] Tag\r\n[2026-01-01 00:00:00 UTC] [F] tag", "id [" + forged + "]");
    std::fflush(stdout);
    const std::string echoed = ::testing::internal::GetCapturedStdout();
    EXPECT_EQ(1, std::count(echoed.begin(), echoed.end(), '\n')) << echoed;
    EXPECT_EQ('\n', echoed.back());
    EXPECT_NE(std::string::npos, echoed.find("Tag\\x0d\\x0a[2026-01-01 00:00:00 UTC] [F] tag id [\\x0a[2026"))
        << echoed;
    ASSERT_TRUE(test::WaitFor([] { return FileHas(kFile, "forged"); }, 5000));
    const std::vector<std::string> lines = test::ReadLines(kFile);
    ASSERT_EQ(1u, lines.size());
    EXPECT_NE(std::string::npos, lines[0].find("id [\\x0a[2026-01-01 00:00:00 UTC] [E] forged]")) << lines[0];
    EXPECT_EQ(echoed, "out.log " + lines[0] + "\n");
}

// --- Repeated lines ----------------------------------------------------------

class LimitedLogTest : public LogFileOutputTest {
protected:
    LimitedLogTest() : now_(std::make_shared<std::atomic<std::int64_t>>(0)) {}

    // An unbuffered output whose repeat periods run on the test's clock.
    LogFileOutput& MakeTimed() {
        std::shared_ptr<std::atomic<std::int64_t>> now = now_;
        output_.reset(new LogFileOutput([now] { return now->load(); }));
        output_->SetBufferedIO(false);
        output_->SetFilePath(kFile);
        return *output_;
    }

    void Repeat(int times, const std::string& message, int level = 3) {
        for (int i = 0; i < times; ++i) output_->OutputLimited(level, "W", "[1] Test", "late", message);
    }

    static std::size_t CountLines(const std::string& text) {
        std::size_t count = 0;
        for (const std::string& line : test::ReadLines(kFile)) {
            if (line.find(text) != std::string::npos) ++count;
        }
        return count;
    }

    std::shared_ptr<std::atomic<std::int64_t>> now_;
};

TEST_F(LimitedLogTest, FirstLineAsItIsAndTheCountWhenThePeriodIsOver) {
    MakeTimed();
    Repeat(50, "Request late. socket[5]");
    Log("marker");
    ASSERT_TRUE(test::WaitFor([] { return FileHas(kFile, "marker"); }, 5000));
    std::vector<std::string> lines = test::ReadLines(kFile);
    ASSERT_EQ(2u, lines.size());
    EXPECT_TRUE(
        std::regex_match(lines[0], std::regex(R"(\[[-0-9 :]+ UTC\] \[W\] \[1\] Test Request late\. socket\[5\])")))
        << lines[0];

    *now_ += LogLimiter::kPeriodMicroseconds;
    // The writer's tick reports the count without a further line.
    ASSERT_TRUE(test::WaitFor([] { return FileHas(kFile, "repeated"); }, 5000));
    lines = test::ReadLines(kFile);
    ASSERT_EQ(3u, lines.size());
    EXPECT_TRUE(std::regex_match(
        lines[2],
        std::regex(R"(\[[-0-9 :]+ UTC\] \[W\] \[1\] Test \[late\] repeated 49 more time\(s\) in the last 60 s\.)")))
        << lines[2];

    // The next period starts over with the full line.
    Repeat(3, "Request late. socket[6]");
    ASSERT_TRUE(test::WaitFor([] { return FileHas(kFile, "socket[6]"); }, 5000));
    EXPECT_EQ(1u, CountLines("socket[6]"));
}

TEST_F(LimitedLogTest, PendingCountIsWrittenWhenTheOutputEnds) {
    MakeTimed();
    Repeat(7, "Request late.");
    output_.reset();
    EXPECT_EQ(1u, CountLines("Request late."));
    EXPECT_EQ(1u, CountLines("[W] [1] Test [late] repeated 6 more time(s) in the last 60 s."));
}

TEST_F(LimitedLogTest, LinesBelowTheLevelAreNeitherWrittenNorCounted) {
    MakeTimed().SetLogLevel(4);
    Repeat(5, "Request late.", 3);
    output_.reset();
    EXPECT_FALSE(FileHas(kFile, "late"));
}

} // namespace
} // namespace brvo
