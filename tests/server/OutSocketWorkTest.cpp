#include "server/OutSocketWork.h"

#include "database/ScheduleDatabase.h"
#include "schedule/ScheduleUpdateManager.h"
#include "schedule/TargetPowerResult.h"
#include "schedule/TargetPowerSnapshot.h"
#include "schedule/UpdateResult.h"
#include "server/CommandWire.h"
#include "settings/LoggerSettingManager.h"
#include "settings/SystemSettingXmlManager.h"
#include "support/CommandClient.h"
#include "support/HttpTestServer.h"
#include "support/SchedulePayload.h"
#include "support/SingletonTest.h"
#include "support/SqliteFile.h"
#include "support/TestFiles.h"
#include "support/TomorrowSchedules.h"
#include "support/UnixPeer.h"
#include "util/FileUtil.h"
#include "util/LoggerLog.h"
#include "util/TimeStamp.h"

#include <gtest/gtest.h>

#include <Poco/AutoPtr.h>

#include <cstring>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace brvo {
namespace {

using test::HttpTestServer;

const std::string kTag = "OutputcontrolServer";
const std::string kDbFile =
    test::FixedPath("/media/sdcard/kestrovanyx/Database/OutputControl/output_control_schedule.db");

std::string Bytes(const std::vector<unsigned char>& data) {
    return std::string(data.begin(), data.end());
}

// Whole answers below are spelled out byte by byte from the defined
// answer tables, not built with the codec, so that the daemon's answers
// are checked against the tables themselves.
using test::Field;
using test::Request;
using test::Word;
using test::WordAt;

class OutSocketWorkTest : public test::SingletonTest {
protected:
    void SetUp() override {
        test::WriteLoggerSetting("<OutputScheduleEnableLogBufferedIO>0</OutputScheduleEnableLogBufferedIO>"
                                 "<OutputControlSocketTimeout>2</OutputControlSocketTimeout>");
        LoggerSettingManager::CreateInstance();
        LoggerLog::CreateInstance();
        FileUtil::ResetDataRoot();
        test::WriteFile(test::FixedPath("/sys/class/net/eth0/address"), "00:1a:2b:3c:4d:5e\n");
    }

    // Sends `request` over a socket pair, runs the work item and returns
    // everything it answered before closing.
    static std::string Serve(const std::string& request) {
        int pair[2];
        EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, pair));
        EXPECT_EQ(static_cast<ssize_t>(request.size()), write(pair[0], request.data(), request.size()));
        shutdown(pair[0], SHUT_WR);
        Poco::AutoPtr<OutSocketWork> work(new OutSocketWork(pair[1]));
        work->Execute();
        EXPECT_EQ(-1, work->GetSocket());
        std::string answer;
        char buffer[512];
        for (;;) {
            pollfd in = {pair[0], POLLIN, 0};
            if (poll(&in, 1, 2000) <= 0) break;
            const ssize_t n = read(pair[0], buffer, sizeof buffer);
            if (n <= 0) break;
            answer.append(buffer, static_cast<std::size_t>(n));
        }
        close(pair[0]);
        return answer;
    }

    static void WriteSystemSetting(const std::string& plantId, const std::string& url, bool standAlone) {
        test::WriteSystemSetting(plantId, url, standAlone);
    }

    static std::vector<std::string> LogLines() { return test::FlushedLogLines(); }
};

// No wait for a client may be unbounded: a time-out below 1 s is the
// built-in 60 s.
TEST_F(OutSocketWorkTest, TimeoutBelowOneSecondIsTheBuiltInSixty) {
    EXPECT_EQ(2, OutSocketWork::TimeoutSeconds());
    EXPECT_EQ(2000000, OutSocketWork::TimeoutMicroseconds());
    for (const char* value : {"0", "-5"}) {
        LoggerSettingManager::DeleteInstance();
        test::WriteLoggerSetting(std::string("<OutputControlSocketTimeout>") + value + "</OutputControlSocketTimeout>");
        LoggerSettingManager::CreateInstance();
        EXPECT_EQ(60, OutSocketWork::TimeoutSeconds()) << value;
        EXPECT_EQ(60000000, OutSocketWork::TimeoutMicroseconds()) << value;
    }
}

// A connection answered on the thread that took it reuses the block of the
// one before: the fast path allocates nothing per connection.
TEST_F(OutSocketWorkTest, AWorkItemFreedOnAThreadLendsItsBlockToTheNextOne) {
    Poco::AutoPtr<OutSocketWork> first(new OutSocketWork(-1));
    const void* const block = first.get();
    first = nullptr;
    // An allocation of the same size in between, which the C library would
    // serve from the block just freed.
    void* const between = ::operator new(sizeof(OutSocketWork));
    Poco::AutoPtr<OutSocketWork> second(new OutSocketWork(-1));
    ::operator delete(between);
    EXPECT_EQ(block, second.get());
    // One still in use is not lent.
    Poco::AutoPtr<OutSocketWork> third(new OutSocketWork(-1));
    EXPECT_NE(second.get(), third.get());
}

TEST_F(OutSocketWorkTest, UpdateAnswerLayout) {
    const std::string answer = Bytes(OutSocketWork::UpdateAnswer(
        3, UpdateResult(FailureReason::kPlantIdNotRegistered, 200, "Plant ID is not registered")));
    ASSERT_EQ(144u, answer.size());
    EXPECT_EQ(Word(144) + Word(3) + Word(6) + Word(200) +
                  Field("Plant ID is not registered", CommandWire::kMessageSize),
              answer);
}

TEST_F(OutSocketWorkTest, UpdateAnswerCutsTheMessageAt127Bytes) {
    const std::string answer =
        Bytes(OutSocketWork::UpdateAnswer(2, UpdateResult(FailureReason::kAccessFailed, 0, std::string(300, 'm'))));
    EXPECT_EQ(std::string(127, 'm') + '\0', answer.substr(CommandWire::kUpdateMessageOffset));
}

TEST_F(OutSocketWorkTest, FixedScheduleAnswerLayoutIsUnaligned) {
    const std::string changed = Bytes(OutSocketWork::FixedScheduleAnswer(UpdateResult(true, "PLANT9")));
    ASSERT_EQ(171u, changed.size());
    EXPECT_EQ(Word(171) + Word(4) + Field("PLANT9", CommandWire::kFixedPlantIdSize) + Word(0) + Word(0) +
                  std::string(128, '\0'),
              changed);
    const std::string unchanged = Bytes(OutSocketWork::FixedScheduleAnswer(UpdateResult(false, "PLANT9")));
    EXPECT_EQ(std::string(27, '\0'),
              unchanged.substr(CommandWire::kFixedPlantIdOffset, CommandWire::kFixedPlantIdSize));
    const std::string failed =
        Bytes(OutSocketWork::FixedScheduleAnswer(UpdateResult(FailureReason::kPlantIdMismatch, 0, "[A] : [B]")));
    EXPECT_EQ(7, WordAt(failed, CommandWire::kFixedReasonOffset));
    EXPECT_EQ(0, WordAt(failed, CommandWire::kFixedStatusOffset));
    EXPECT_EQ(Field("[A] : [B]", CommandWire::kMessageSize), failed.substr(CommandWire::kFixedMessageOffset));
}

TEST_F(OutSocketWorkTest, TargetPowerAnswerLayout) {
    const std::string answer = Bytes(OutSocketWork::TargetPowerAnswer(6, TargetPowerResult(2.75, "20220119030000")));
    ASSERT_EQ(167u, answer.size());
    const double power = 2.75;
    std::string powerBytes(8, '\0');
    std::memcpy(&powerBytes[0], &power, 8);
    EXPECT_EQ(Word(167) + Word(6) + powerBytes + Field("20220119030000", CommandWire::kTargetTimeSize) + Word(0) +
                  Word(0) + std::string(128, '\0'),
              answer);
    const std::string failed = Bytes(OutSocketWork::TargetPowerAnswer(
        7, TargetPowerResult(1.0, TargetPowerResult::Code::kNoSchedule, "can not get.")));
    EXPECT_EQ(5, WordAt(failed, CommandWire::kTargetCodeOffset));
    EXPECT_EQ(Field("can not get.", CommandWire::kMessageSize), failed.substr(CommandWire::kTargetMessageOffset));
}

TEST_F(OutSocketWorkTest, FlushAnswerIsLengthTypeAndZeros) {
    const std::string answer = Serve(Request(CommandWire::kFlushLog));
    EXPECT_EQ(Word(144) + Word(8) + std::string(136, '\0'), answer);
    EXPECT_TRUE(test::HasLogLineStarting(LogLines(), "D", kTag, "RequestDataType FlushLog ["));
}

TEST_F(OutSocketWorkTest, UnknownTypesGetNoAnswer) {
    for (std::int32_t type : {0, 1, 9, 100, -1}) {
        EXPECT_EQ("", Serve(Request(type))) << type;
    }
    EXPECT_EQ("", Serve(""));
    EXPECT_TRUE(test::HasLogLine(LogLines(), "D", kTag, "unknown data..."));
}

TEST_F(OutSocketWorkTest, FixedScheduleFileMissing) {
    const std::string answer = Serve(Request(
        CommandWire::kUpdateFixedSchedule, CommandWire::EncodeFixedScheduleBlock(test::FixedPath("/tmp/none.hex"), 1)));
    ASSERT_EQ(171u, answer.size());
    EXPECT_EQ(9, WordAt(answer, CommandWire::kFixedReasonOffset));
    EXPECT_EQ(0, WordAt(answer, CommandWire::kFixedStatusOffset));
    EXPECT_EQ(Field("file not found.", CommandWire::kMessageSize), answer.substr(CommandWire::kFixedMessageOffset));
    EXPECT_TRUE(test::HasLogLine(LogLines(), "D", kTag,
                                 "UpdateFixedSchedule Param file_path [" + test::FixedPath("/tmp/none.hex") +
                                     "]  update_flg [1]"));
}

TEST_F(OutSocketWorkTest, EmptyFixedScheduleFileIsPassedOnAsEmptyText) {
    ScheduleUpdateManager::CreateInstance();
    test::WriteFile(test::FixedPath("/tmp/empty.hex"), "");
    const std::string answer =
        Serve(Request(CommandWire::kUpdateFixedSchedule,
                      CommandWire::EncodeFixedScheduleBlock(test::FixedPath("/tmp/empty.hex"), 2)));
    ASSERT_EQ(171u, answer.size());
    EXPECT_EQ(3, WordAt(answer, CommandWire::kFixedReasonOffset));
    EXPECT_EQ(Field("data is missing.", CommandWire::kMessageSize), answer.substr(CommandWire::kFixedMessageOffset));
    // A flag of 2 is not 1: no force.
    EXPECT_TRUE(test::HasLogLine(LogLines(), "D", kTag,
                                 "UpdateFixedSchedule Param file_path [" + test::FixedPath("/tmp/empty.hex") +
                                     "]  update_flg [0]"));
}

// Only a regular file is read: anything else is refused at once, without
// a model, and logged.
TEST_F(OutSocketWorkTest, FixedSchedulePathThatIsNoRegularFileIsRefused) {
    ScheduleUpdateManager::CreateInstance();
    test::WriteFile(test::FixedPath("/tmp/adir/.keep"), "");
    test::MakeFifo(test::FixedPath("/tmp/fixed.fifo"));
    for (const std::string& path :
         {test::FixedPath("/tmp/adir"), test::FixedPath("/tmp/fixed.fifo"), std::string("/dev/zero")}) {
        const std::string answer =
            Serve(Request(CommandWire::kUpdateFixedSchedule, CommandWire::EncodeFixedScheduleBlock(path, 1)));
        ASSERT_EQ(171u, answer.size()) << path;
        EXPECT_EQ(std::string(27, '\0'),
                  answer.substr(CommandWire::kFixedPlantIdOffset, CommandWire::kFixedPlantIdSize))
            << path;
        EXPECT_EQ(9, WordAt(answer, CommandWire::kFixedReasonOffset)) << path;
        EXPECT_EQ(0, WordAt(answer, CommandWire::kFixedStatusOffset)) << path;
        EXPECT_EQ(Field("file not usable. [not a regular file]", CommandWire::kMessageSize),
                  answer.substr(CommandWire::kFixedMessageOffset))
            << path;
        EXPECT_TRUE(test::HasLogLine(LogLines(), "W", kTag,
                                     "UpdateFixedSchedule file not usable. [" + path + "] [not a regular file]"))
            << path;
    }
    EXPECT_EQ(Word(144) + Word(8) + std::string(136, '\0'), Serve(Request(CommandWire::kFlushLog)));
    test::RemoveAll(test::FixedPath("/tmp/fixed.fifo"));
}

TEST_F(OutSocketWorkTest, FixedScheduleFileOverFourMebibytesIsRefused) {
    ScheduleUpdateManager::CreateInstance();
    const std::size_t cap = 4 * 1024 * 1024;
    test::WriteFile(test::FixedPath("/tmp/large.hex"), std::string(cap, '0'));
    const std::string atCap =
        Serve(Request(CommandWire::kUpdateFixedSchedule,
                      CommandWire::EncodeFixedScheduleBlock(test::FixedPath("/tmp/large.hex"), 0)));
    ASSERT_EQ(171u, atCap.size());
    EXPECT_NE(9, WordAt(atCap, CommandWire::kFixedReasonOffset));
    test::WriteFile(test::FixedPath("/tmp/large.hex"), std::string(cap + 1, '0'));
    const std::string over =
        Serve(Request(CommandWire::kUpdateFixedSchedule,
                      CommandWire::EncodeFixedScheduleBlock(test::FixedPath("/tmp/large.hex"), 0)));
    ASSERT_EQ(171u, over.size());
    EXPECT_EQ(9, WordAt(over, CommandWire::kFixedReasonOffset));
    EXPECT_EQ(Field("file not usable. [larger than 4194304 bytes]", CommandWire::kMessageSize),
              over.substr(CommandWire::kFixedMessageOffset));
    test::RemoveAll(test::FixedPath("/tmp/large.hex"));
}

TEST_F(OutSocketWorkTest, FixedScheduleFileIsStoredAndSwitchesToStandAlone) {
    WriteSystemSetting("", "", false);
    ScheduleUpdateManager::CreateInstance();
    test::ScheduleRecord record;
    record.plantId = "12345";
    const std::int64_t tomorrow = TimeStamp().EpochSeconds() / 86400 * 86400 + 86400;
    record.start = TimeStamp::FromEpochSeconds(tomorrow + 9 * 3600)->Format("%Y%m%d%H%M");
    record.rates = std::vector<int>(48, 70);
    test::WriteFile(test::FixedPath("/tmp/fixed.hex"), test::BuildSchedulePayload({record}, test::kFixedSchedule).hex);
    const std::string answer =
        Serve(Request(CommandWire::kUpdateFixedSchedule,
                      CommandWire::EncodeFixedScheduleBlock(test::FixedPath("/tmp/fixed.hex"), 0)));
    ASSERT_EQ(171u, answer.size());
    EXPECT_EQ(0, WordAt(answer, CommandWire::kFixedReasonOffset)) << answer.substr(CommandWire::kFixedMessageOffset);
    EXPECT_EQ(Field("00000000000000000000012345", CommandWire::kFixedPlantIdSize),
              answer.substr(CommandWire::kFixedPlantIdOffset, CommandWire::kFixedPlantIdSize));
    EXPECT_EQ("48", test::QueryValue(kDbFile, "SELECT COUNT(*) FROM output_control_schedule"));
    EXPECT_TRUE(SystemSettingXmlManager::GetInstance()->GetOutputControlStandAlone());
}

TEST_F(OutSocketWorkTest, PlantIdWithoutNulRunsOnIntoTheUrl) {
    ScheduleUpdateManager::CreateInstance();
    const std::string params = std::string(27, 'A') + Field("http://127.0.0.1:1/x", 256);
    const std::string answer = Serve(Request(CommandWire::kCheckPlantId, params));
    ASSERT_EQ(144u, answer.size());
    EXPECT_TRUE(test::HasLogLine(LogLines(), "D", kTag,
                                 "CheckPlantId Param plant_id [" + std::string(27, 'A') +
                                     "http://127.0.0.1:1/x]  plant_url [http://127.0.0.1:1/x]"));
}

TEST_F(OutSocketWorkTest, CheckPlantIdAsksTheServer) {
    ScheduleUpdateManager::CreateInstance();
    // Byte 32 of the answer is zero: registered.
    HttpTestServer server(
        HttpTestServer::Answer(200, test::MultipartContentType("b"), test::BinaryPartBody("b", std::string(40, '\0'))));
    const std::string answer =
        Serve(Request(CommandWire::kCheckPlantId, CommandWire::EncodeCheckPlantIdBlock("PLANT", server.Url("/check"))));
    ASSERT_EQ(144u, answer.size());
    EXPECT_EQ(3, WordAt(answer, CommandWire::kAnswerTypeOffset));
    EXPECT_EQ(0, WordAt(answer, CommandWire::kUpdateReasonOffset));
    EXPECT_EQ("power_plant_id=PLANT&mac_address=001A2B3C4D5E&schedule_kbn=8888", server.Requests().at(0).body);

    HttpTestServer refusing(HttpTestServer::Answer(200, test::MultipartContentType("b"),
                                                   test::BinaryPartBody("b", std::string(32, '\0') + "\1")));
    const std::string other = Serve(
        Request(CommandWire::kCheckPlantId, CommandWire::EncodeCheckPlantIdBlock("PLANT", refusing.Url("/check"))));
    EXPECT_EQ(6, WordAt(other, CommandWire::kUpdateReasonOffset));
    EXPECT_EQ(200, WordAt(other, CommandWire::kUpdateStatusOffset));
    EXPECT_EQ(Field("Plant ID is not registered", CommandWire::kMessageSize),
              other.substr(CommandWire::kUpdateMessageOffset));
}

TEST_F(OutSocketWorkTest, TruncatedCapacityReadsAsZero) {
    WriteSystemSetting("P1", "", false);
    ScheduleDatabase::CreateInstance();
    const std::int64_t now = TimeStamp().EpochSeconds();
    ScheduleRow row;
    row.time = now - 60;
    row.controlRate = 50;
    ASSERT_TRUE(ScheduleDatabase::GetInstance()->InsertUpdateSchedule({row}));
    const std::string answer = Serve(Request(CommandWire::kCurrentTargetPower));
    ASSERT_EQ(167u, answer.size());
    double power = -1;
    std::memcpy(&power, answer.data() + 8, 8);
    EXPECT_EQ(0.0, power);
    EXPECT_EQ(0, WordAt(answer, CommandWire::kTargetCodeOffset));
    EXPECT_TRUE(test::HasLogLine(LogLines(), "D", kTag, "TargetPower Param capacity [0.000000]"));
}

TEST_F(OutSocketWorkTest, CurrentAndNextTargetPower) {
    WriteSystemSetting("P1", "", false);
    ScheduleDatabase::CreateInstance();
    const std::int64_t now = TimeStamp().EpochSeconds();
    ScheduleRow current;
    current.time = now - 60;
    current.controlRate = 40;
    ScheduleRow next;
    next.time = now + 1800;
    next.controlRate = 90;
    ASSERT_TRUE(ScheduleDatabase::GetInstance()->InsertUpdateSchedule({current, next}));
    const double capacity = 10.0;
    std::string capacityBytes(8, '\0');
    std::memcpy(&capacityBytes[0], &capacity, 8);
    const std::string first = Serve(Request(CommandWire::kCurrentTargetPower, capacityBytes));
    double power = 0;
    std::memcpy(&power, first.data() + 8, 8);
    EXPECT_DOUBLE_EQ(4.0, power);
    EXPECT_EQ(Field(TimeStamp::FromEpochSeconds(now - 60)->FormatCompact(), CommandWire::kTargetTimeSize),
              first.substr(CommandWire::kTargetTimeOffset, CommandWire::kTargetTimeSize));
    const std::string second = Serve(Request(CommandWire::kNextTargetPower, capacityBytes));
    std::memcpy(&power, second.data() + 8, 8);
    EXPECT_DOUBLE_EQ(9.0, power);
    EXPECT_EQ(7, WordAt(second, CommandWire::kAnswerTypeOffset));
}

TEST_F(OutSocketWorkTest, UpdateScheduleStoresAndForwardsAfterAnswering) {
    const test::TomorrowSchedules schedules = test::MakeTomorrowSchedules();
    const std::int64_t tomorrow = schedules.tomorrow;
    const test::ScheduleRecord& update = schedules.update;
    const test::ScheduleRecord& fixed = schedules.fixed;
    const auto answer = [](const test::ScheduleRecord& record, int kind) {
        const std::string payload = test::BytesText(test::BuildSchedulePayload({record}, kind).bytes);
        return HttpTestServer::Answer(200, test::MultipartContentType("b"), test::BinaryPartBody("b", payload));
    };
    HttpTestServer server({answer(update, test::kUpdateSchedule), answer(fixed, test::kFixedSchedule)});
    WriteSystemSetting("00000000000000000000000777", server.Url("/s"), false);
    test::WriteFile(test::FixedPath("/mnt/system/brvlogger/.keep"), "");
    test::UnixPeer logger(test::FixedPath("/mnt/system/brvlogger/brevanta.logger"), test::UnixPeer::kReply,
                          std::string(12, '\0'), 8);
    // As after the daemon's start-up check: the system settings are loaded.
    SystemSettingXmlManager::CreateInstance();
    ASSERT_TRUE(SystemSettingXmlManager::GetInstance()->Load());
    ScheduleUpdateManager::CreateInstance();

    const std::string reply = Serve(Request(CommandWire::kUpdateSchedule));
    ASSERT_EQ(144u, reply.size());
    EXPECT_EQ(Word(144) + Word(2) + Word(0) + Word(0) + std::string(128, '\0'), reply);
    const std::vector<HttpTestServer::Received> requests = server.Requests();
    ASSERT_EQ(2u, requests.size());
    EXPECT_EQ("power_plant_id=00000000000000000000000777&mac_address=001A2B3C4D5E&schedule_kbn=0000", requests[0].body);
    EXPECT_EQ("power_plant_id=00000000000000000000000777&mac_address=001A2B3C4D5E&schedule_kbn=9993", requests[1].body);
    EXPECT_EQ("48", test::QueryValue(kDbFile, "SELECT COUNT(*) FROM output_control_schedule WHERE controlRate = 60"));
    EXPECT_EQ("48", test::QueryValue(kDbFile, "SELECT COUNT(*) FROM output_control_schedule WHERE controlRate = 30"));
    // The client had its answer first; then the logger daemon is told and
    // the rows are marked sent.
    ASSERT_TRUE(test::WaitFor([&] { return logger.Received().size() == 1; }, 5000));
    EXPECT_EQ(std::string("\x08\x00\x00\x00\x01\x00\x00\x00", 8), logger.Received()[0]);
    EXPECT_EQ("0", test::QueryValue(kDbFile, "SELECT COUNT(*) FROM output_control_schedule WHERE sent = 0"));
    const ScheduleUpdateInfo info = ScheduleUpdateManager::GetInstance()->GetUpdateInfo();
    EXPECT_EQ("00000000000000000000000777", info.plantId);
    EXPECT_EQ(3, info.fixedScheduleUpdateFlag);
    EXPECT_FALSE(info.isNeedUpdateFixedSchedule);
    EXPECT_EQ(TimeStamp::FromEpochSeconds(tomorrow)->FormatDisplay(), info.nextUpdateTime);
    // The update alarm waits for the stored next update time.
    ASSERT_NE(nullptr, ScheduleUpdateManager::GetInstance()->GetScheduleUpdateTime());
    EXPECT_EQ(tomorrow, ScheduleUpdateManager::GetInstance()->GetScheduleUpdateTime()->EpochSeconds());
}

// What a log line says, without its time and thread: "[mark] tag message",
// for the lines of the request (this class and RateControl).
std::vector<std::string> RequestLines(const std::vector<std::string>& lines) {
    std::vector<std::string> kept;
    for (const std::string& line : lines) {
        const std::size_t mark = line.find(" UTC] ");
        if (mark == std::string::npos) continue;
        const std::size_t thread = line.find("] [", mark + 6);
        if (thread == std::string::npos) continue;
        const std::size_t tag = line.find("] ", thread + 3);
        if (tag == std::string::npos) continue;
        const std::string said = line.substr(mark + 6, thread + 2 - (mark + 6)) + line.substr(tag + 2);
        if (said.find("] OutputcontrolServer ") != std::string::npos ||
            said.find("] RateControl ") != std::string::npos) {
            kept.push_back(said);
        }
    }
    return kept;
}

// Reads everything `peer` gets until the other end closes, then closes it.
std::string ReadAll(int peer) {
    std::string answer;
    char buffer[512];
    for (;;) {
        pollfd in = {peer, POLLIN, 0};
        if (poll(&in, 1, 2000) <= 0) break;
        const ssize_t n = read(peer, buffer, sizeof buffer);
        if (n <= 0) break;
        answer.append(buffer, static_cast<std::size_t>(n));
    }
    close(peer);
    return answer;
}

class TargetPowerPathsTest : public OutSocketWorkTest {
protected:
    void SetUp() override {
        OutSocketWorkTest::SetUp();
        test::WriteSystemSettingWithDevice("PLANT1");
        test::WriteDeviceLimit("Value0=\"10\" Value100=\"90\" ValueMin=\"3\"");
        ScheduleDatabase::CreateInstance();
    }

    void TearDown() override {
        TargetPowerSnapshot::Instance().Reclaim();
        OutSocketWorkTest::TearDown();
    }

    // The answer to `request` from the snapshot's view, or empty when the
    // view does not cover it.
    static std::string ServeFast(const std::string& request) {
        int pair[2];
        EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, pair));
        EXPECT_EQ(static_cast<ssize_t>(request.size()), write(pair[0], request.data(), request.size()));
        Poco::AutoPtr<OutSocketWork> work(new OutSocketWork(pair[1]));
        EXPECT_EQ(OutSocketWork::kRead, work->ReadAvailable());
        const TargetPowerSnapshot::Miss miss = work->ServeFromSnapshot(TargetPowerSnapshot::Instance().Hold(0));
        TargetPowerSnapshot::Instance().LetGo(0);
        EXPECT_EQ(TargetPowerSnapshot::Miss::kNone, miss);
        if (miss != TargetPowerSnapshot::Miss::kNone) {
            close(pair[0]);
            return std::string();
        }
        EXPECT_EQ(-1, work->GetSocket());
        return ReadAll(pair[0]);
    }

    // Serves `request` both ways, the log written anew before each (so that
    // a line held to one a period shows both times); expects the same
    // answer and lines, and returns the answer.
    static std::string ServeBothWays(const std::string& request) {
        const std::size_t before = RequestLines(test::FlushedLogLines()).size();
        const std::string fast = ServeFast(request);
        std::vector<std::string> fastLines = RequestLines(test::FlushedLogLines());
        const std::string worker = Serve(request);
        std::vector<std::string> workerLines = RequestLines(test::FlushedLogLines());
        workerLines.erase(workerLines.begin(), workerLines.begin() + static_cast<std::ptrdiff_t>(fastLines.size()));
        fastLines.erase(fastLines.begin(), fastLines.begin() + static_cast<std::ptrdiff_t>(before));
        EXPECT_EQ(worker, fast);
        EXPECT_EQ(workerLines, fastLines);
        EXPECT_LE(4u, workerLines.size());
        return worker;
    }

    static std::string Capacity(double capacity) {
        std::string text(8, '\0');
        std::memcpy(&text[0], &capacity, 8);
        return text;
    }
};

// The event loop's answers and log lines are the workers', byte for byte:
// success through the inverter's scale and floor, a capacity too wide for
// its log field, no slot, and no plant ID.
TEST_F(TargetPowerPathsTest, SnapshotAnswersAndLogsAsTheWorkerPath) {
    const std::int64_t slot0 = TimeStamp().EpochSeconds() / 1800 * 1800;
    ScheduleRow current;
    current.time = slot0;
    current.controlRate = 50;
    ScheduleRow next = current;
    next.time = slot0 + 1800;
    next.controlRate = 33;
    ASSERT_TRUE(ScheduleDatabase::GetInstance()->InsertUpdateSchedule({current, next}));
    TargetPowerSnapshot::Instance().Rebuild();
    for (const double capacity : {5.5, 0.0, 1e300}) {
        for (const std::int32_t type : {6, 7}) {
            SCOPED_TRACE(std::to_string(type) + " " + std::to_string(capacity));
            const std::string answer = ServeBothWays(Request(type, Capacity(capacity)));
            ASSERT_EQ(167u, answer.size());
            EXPECT_EQ(0, WordAt(answer, CommandWire::kTargetCodeOffset));
        }
    }

    ASSERT_TRUE(ScheduleDatabase::GetInstance()->DeleteAll());
    EXPECT_EQ(5, WordAt(ServeBothWays(Request(CommandWire::kNextTargetPower, Capacity(10.0))), 31));

    test::WriteFile(test::SystemSettingPath(), "<logger><general></general></logger>");
    TargetPowerSnapshot::Instance().Rebuild();
    const std::string noPlant = ServeBothWays(Request(CommandWire::kCurrentTargetPower, Capacity(10.0)));
    EXPECT_EQ(11, WordAt(noPlant, CommandWire::kTargetCodeOffset));
    EXPECT_EQ(Field("Plantid not found.", CommandWire::kMessageSize),
              noPlant.substr(CommandWire::kTargetMessageOffset));
}

// A client gone before its answer: the failed write is logged with its own
// error, after the request's lines, not one that formatting them left.
TEST_F(TargetPowerPathsTest, AnAnswerToAClientGoneIsLoggedWithTheWriteError) {
    const std::int64_t slot0 = TimeStamp().EpochSeconds() / 1800 * 1800;
    ScheduleRow current;
    current.time = slot0;
    current.controlRate = 50;
    ASSERT_TRUE(ScheduleDatabase::GetInstance()->InsertUpdateSchedule({current}));
    TargetPowerSnapshot::Instance().Rebuild();
    int pair[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, pair));
    const std::string request = Request(CommandWire::kCurrentTargetPower, Capacity(5.5));
    ASSERT_EQ(static_cast<ssize_t>(request.size()), write(pair[0], request.data(), request.size()));
    close(pair[0]);
    Poco::AutoPtr<OutSocketWork> work(new OutSocketWork(pair[1]));
    ASSERT_EQ(OutSocketWork::kRead, work->ReadAvailable());
    const TargetPowerSnapshot::Miss miss = work->ServeFromSnapshot(TargetPowerSnapshot::Instance().Hold(0));
    TargetPowerSnapshot::Instance().LetGo(0);
    ASSERT_EQ(TargetPowerSnapshot::Miss::kNone, miss);
    const std::vector<std::string> lines = test::FlushedLogLines();
    const std::string failed = "OutputcontrolServer Request data type 6, write socket failed. [" +
                               std::to_string(EPIPE) + "] socket[" + std::to_string(pair[1]) + "]";
    const auto at = std::find_if(lines.begin(), lines.end(),
                                 [&](const std::string& line) { return line.find(failed) != std::string::npos; });
    ASSERT_NE(lines.end(), at) << failed;
    ASSERT_NE(lines.begin(), at);
    EXPECT_NE(std::string::npos, std::prev(at)->find("RateControl")) << *std::prev(at);
}

} // namespace
} // namespace brvo
