// The real pvocd with its log directory on a small file system that fills
// up: the daemon goes on serving, notes each period of failed log writes
// once in the fall-back file under /tmp, and writes its log again as soon
// as there is room.
#include "server/CommandWire.h"
#include "support/ChildProcess.h"
#include "support/DaemonClient.h"
#include "support/Mounts.h"
#include "support/TestFiles.h"

#include <gtest/gtest.h>

#include <Poco/Thread.h>

#include <csignal>
#include <regex>

namespace brvo {
namespace {

using test::Ask;
using test::Field;
using test::WordAt;

const std::string kLogDirectory = "/media/sdcard/kestrovanyx/Log/OutputScheduleLog";
const std::string kErrorFile = "/tmp/logger_io_file_error";

class LogSpaceFaultTest : public ::testing::Test {
protected:
    void SetUp() override {
        test::WriteLoggerSetting("<OutputScheduleEnableLogBufferedIO>0</OutputScheduleEnableLogBufferedIO>");
        test::WriteSystemSetting("", "", false);
        ASSERT_TRUE(test::MountTmpfs(kLogDirectory, "size=256k"));
        ASSERT_TRUE(test::StartDaemon(daemon_, test::kDaemonOutput));
        ASSERT_TRUE(LogShows("Start AppVer:20220119_qtx"));
    }

    void TearDown() override {
        if (daemon_.Running()) {
            daemon_.Signal(SIGTERM);
            daemon_.WaitExit(5000);
        }
    }

    // Asks for a fixed schedule from a file that does not exist: the
    // daemon logs the path and answers "file not found.".
    static void AskWithMarker(const std::string& path) {
        const std::string answer =
            Ask(test::kUpdateFixedScheduleRequest, CommandWire::EncodeFixedScheduleBlock(path, 0));
        ASSERT_EQ(171u, answer.size());
        EXPECT_EQ(9, WordAt(answer, CommandWire::kFixedReasonOffset));
        EXPECT_EQ(Field("file not found.", CommandWire::kMessageSize), answer.substr(CommandWire::kFixedMessageOffset));
    }

    static bool LogShows(const std::string& text) {
        return test::WaitFor([&] { return test::ReadFile(test::LogFilePath()).find(text) != std::string::npos; }, 3000);
    }

    static std::string MarkerLine(const std::string& path) {
        return "UpdateFixedSchedule Param file_path [" + path + "]  update_flg [0]";
    }

    // Logs while the directory is full until a write fails (the log
    // file's last page may still take a few lines), then through several
    // more writer ticks; nothing more reaches the file.
    void LogWhileFull(const std::string& name, std::size_t notesBefore) {
        int asked = 0;
        for (; asked < 100 && test::ReadLines(kErrorFile).size() == notesBefore; ++asked) {
            AskWithMarker("/tmp/" + name + "-" + std::to_string(asked));
            Poco::Thread::sleep(50);
        }
        ASSERT_GT(test::ReadLines(kErrorFile).size(), notesBefore) << "no write failed";
        std::string last;
        for (int i = 0; i < 4; ++i) {
            last = "/tmp/" + name + "-" + std::to_string(asked + i);
            AskWithMarker(last);
            Poco::Thread::sleep(600);
        }
        EXPECT_EQ(std::string::npos, test::ReadFile(test::LogFilePath()).find(MarkerLine(last)));
        EXPECT_TRUE(daemon_.Running());
    }

    // Deletes the filler and logs: the line reaches the file again.
    void MakeRoomAndLog(const std::string& filler, const std::string& marker) {
        test::RemoveAll(filler);
        AskWithMarker(marker);
        EXPECT_TRUE(LogShows(MarkerLine(marker)));
    }

    static void ExpectNotes(std::size_t count) {
        const std::vector<std::string> notes = test::ReadLines(kErrorFile);
        ASSERT_EQ(count, notes.size()) << test::ReadFile(kErrorFile);
        const std::regex note(R"(\[\d{4}-\d\d-\d\d \d\d:\d\d:\d\d UTC\] )" + kLogDirectory +
                              R"(/OutputSchedule_pvocd\.log)");
        for (const std::string& line : notes) EXPECT_TRUE(std::regex_match(line, note)) << line;
    }

    test::ChildProcess daemon_;
};

TEST_F(LogSpaceFaultTest, FullDirectoryIsNotedOncePerPeriodAndLoggingResumes) {
    EXPECT_FALSE(test::FileExists(kErrorFile));

    const std::string filler = test::FillFileSystem(kLogDirectory);
    LogWhileFull("full-1", 0);
    ExpectNotes(1);
    MakeRoomAndLog(filler, "/tmp/room-1");
    ExpectNotes(1);

    // A second period of failures is a second note.
    test::FillFileSystem(kLogDirectory);
    LogWhileFull("full-2", 1);
    ExpectNotes(2);
    MakeRoomAndLog(filler, "/tmp/room-2");
    ExpectNotes(2);

    // The daemon still answers everything.
    EXPECT_EQ(test::kUpdateAnswerSize, Ask(test::kFlushLogRequest).size());
    EXPECT_TRUE(daemon_.Running());
}

} // namespace
} // namespace brvo
