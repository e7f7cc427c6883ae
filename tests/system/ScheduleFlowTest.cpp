// The real pvocd in the sandbox against a simulated schedule server (HTTP on
// 127.0.0.1) and a simulated logger daemon (UNIX socket), driven only
// through its command socket, its files and its signals.
#include "server/CommandWire.h"
#include "support/ChildProcess.h"
#include "support/CommandClient.h"
#include "support/DaemonClient.h"
#include "support/HttpTestServer.h"
#include "support/SchedulePayload.h"
#include "support/SqliteFile.h"
#include "support/TestFiles.h"
#include "support/TomorrowSchedules.h"
#include "support/UnixPeer.h"
#include "util/TimeStamp.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstring>
#include <memory>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace brvo {
namespace {

using test::Ask;
using test::Capacity;
using test::Field;
using test::HttpTestServer;
using test::PowerOf;
using test::ScheduleServerAnswer;
using test::Word;
using test::WordAt;

const std::string kDbFile = "/media/sdcard/kestrovanyx/Database/OutputControl/output_control_schedule.db";
const std::string kInfoFile = "/media/sdcard/kestrovanyx/Database/OutputControl/output_control_schedule_update_info.db";
const std::string kPlant = "00000000000000000000000777";

class ScheduleFlowTest : public ::testing::Test {
protected:
    void SetUp() override {
        test::WriteLoggerSetting("<OutputScheduleEnableLogBufferedIO>0</OutputScheduleEnableLogBufferedIO>"
                                 "<OutputControlSocketTimeout>5</OutputControlSocketTimeout>");
        test::WriteFile("/sys/class/net/eth0/address", "00:1a:2b:3c:4d:5e\n");
        test::WriteFile(test::kLoggerSocket + ".keep", "");
        const test::TomorrowSchedules schedules = test::MakeTomorrowSchedules();
        tomorrow_ = schedules.tomorrow;
        update_ = schedules.update;
        fixed_ = schedules.fixed;
    }

    void TearDown() override {
        if (daemon_.Running()) {
            daemon_.Signal(SIGTERM);
            daemon_.WaitExit(5000);
        }
    }

    static std::string ServerTime(std::int64_t utcSeconds, const std::string& pattern) {
        return test::ServerTime(utcSeconds, pattern);
    }

    static void WriteSystemSetting(const std::string& plantId, const std::string& url, bool standAlone) {
        test::WriteSystemSetting(plantId, url, standAlone);
    }

    // Starts the daemon and waits until its command socket serves.
    void StartDaemon() { ASSERT_TRUE(test::StartDaemon(daemon_, test::kDaemonOutput)); }

    static std::string Count(const std::string& where = "") {
        return test::QueryValue(kDbFile, "SELECT COUNT(*) FROM output_control_schedule" + where);
    }

    test::ChildProcess daemon_;
    std::int64_t tomorrow_ = 0;
    test::ScheduleRecord update_;
    test::ScheduleRecord fixed_;
};

TEST_F(ScheduleFlowTest, StartUpFetchesBothSchedulesAndTellsTheLoggerDaemon) {
    HttpTestServer server(
        {ScheduleServerAnswer(update_, test::kUpdateSchedule), ScheduleServerAnswer(fixed_, test::kFixedSchedule)});
    test::UnixPeer logger(test::kLoggerSocket, test::UnixPeer::kReply, std::string(12, '\0'), 8);
    WriteSystemSetting(kPlant, server.Url("/schedule"), false);
    StartDaemon();
    ASSERT_TRUE(test::WaitFor([&] { return logger.Received().size() == 1; }, 15000))
        << test::ReadFile(test::kDaemonOutput);
    EXPECT_EQ(std::string("\x08\x00\x00\x00\x01\x00\x00\x00", 8), logger.Received()[0]);
    const std::vector<HttpTestServer::Received> requests = server.Requests();
    ASSERT_EQ(2u, requests.size());
    EXPECT_EQ("POST /schedule HTTP/1.1", requests[0].requestLine);
    EXPECT_EQ("power_plant_id=" + kPlant + "&mac_address=001A2B3C4D5E&schedule_kbn=0000", requests[0].body);
    EXPECT_EQ("power_plant_id=" + kPlant + "&mac_address=001A2B3C4D5E&schedule_kbn=9993", requests[1].body);
    ASSERT_TRUE(test::WaitFor([&] { return Count(" WHERE sent = 0") == "0"; }, 5000));
    EXPECT_EQ("96", Count());
    EXPECT_EQ(kPlant, test::QueryValue(kInfoFile, "SELECT plantId FROM output_control_schedule_update_info"));
}

TEST_F(ScheduleFlowTest, EveryRequestTypeIsAnswered) {
    const std::string notRegistered = HttpTestServer::Answer(200, test::MultipartContentType("b"),
                                                             test::BinaryPartBody("b", std::string(32, '\0') + "\1"));
    HttpTestServer server({ScheduleServerAnswer(update_, test::kUpdateSchedule),
                           ScheduleServerAnswer(fixed_, test::kFixedSchedule),
                           ScheduleServerAnswer(update_, test::kUpdateSchedule),
                           ScheduleServerAnswer(fixed_, test::kFixedSchedule), notRegistered});
    test::UnixPeer logger(test::kLoggerSocket, test::UnixPeer::kReply, std::string(12, '\0'), 8);
    WriteSystemSetting(kPlant, server.Url("/schedule"), false);
    StartDaemon();
    ASSERT_TRUE(test::WaitFor([&] { return logger.Received().size() == 1; }, 15000));

    // FlushLog.
    EXPECT_EQ(test::FlushAnswer(), Ask(CommandWire::kFlushLog));
    // Unknown types: closed without an answer.
    EXPECT_EQ("", Ask(1));
    EXPECT_EQ("", Ask(9));
    // Target powers: no slot now (the schedule starts tomorrow), the next
    // one is tomorrow's first at 60 %.
    const std::string current = Ask(CommandWire::kCurrentTargetPower, Capacity(10.0));
    ASSERT_EQ(167u, current.size());
    EXPECT_EQ(5, WordAt(current, CommandWire::kTargetCodeOffset));
    EXPECT_EQ(Field("can not get.", CommandWire::kMessageSize), current.substr(CommandWire::kTargetMessageOffset));
    const std::string next = Ask(CommandWire::kNextTargetPower, Capacity(10.0));
    ASSERT_EQ(167u, next.size());
    EXPECT_EQ(0, WordAt(next, CommandWire::kTargetCodeOffset));
    EXPECT_DOUBLE_EQ(6.0, PowerOf(next));
    EXPECT_EQ(Field(TimeStamp::FromEpochSeconds(tomorrow_)->FormatCompact(), CommandWire::kTargetTimeSize),
              next.substr(CommandWire::kTargetTimeOffset, CommandWire::kTargetTimeSize));
    // UpdateSchedule: both fetches again, success.
    const std::string updated = Ask(CommandWire::kUpdateSchedule);
    EXPECT_EQ(test::UpdateAnswer(CommandWire::kUpdateSchedule), updated);
    // ChangeSettingNotify with the same plant: nothing to do.
    EXPECT_EQ(test::UpdateAnswer(CommandWire::kChangeSettingNotify), Ask(CommandWire::kChangeSettingNotify));
    // CheckPlantId: the server's answer has a non-zero byte 32.
    const std::string check =
        Ask(CommandWire::kCheckPlantId, CommandWire::EncodeCheckPlantIdBlock("P", server.Url("/check")));
    ASSERT_EQ(144u, check.size());
    EXPECT_EQ(6, WordAt(check, CommandWire::kUpdateReasonOffset));
    EXPECT_EQ(200, WordAt(check, CommandWire::kUpdateStatusOffset));
    EXPECT_EQ(Field("Plant ID is not registered", CommandWire::kMessageSize),
              check.substr(CommandWire::kUpdateMessageOffset));
    // UpdateFixedSchedule with a missing file.
    const std::string missing =
        Ask(CommandWire::kUpdateFixedSchedule, CommandWire::EncodeFixedScheduleBlock("/tmp/none.hex", 0));
    ASSERT_EQ(171u, missing.size());
    EXPECT_EQ(9, WordAt(missing, CommandWire::kFixedReasonOffset));
    EXPECT_EQ(Field("file not found.", CommandWire::kMessageSize), missing.substr(CommandWire::kFixedMessageOffset));
    // The daemon still serves.
    EXPECT_EQ(144u, Ask(CommandWire::kFlushLog).size());
}

TEST_F(ScheduleFlowTest, ChangedPlantIdWipesBothTables) {
    HttpTestServer server({ScheduleServerAnswer(update_, test::kUpdateSchedule),
                           ScheduleServerAnswer(fixed_, test::kFixedSchedule),
                           HttpTestServer::Answer(500, "text/plain", "down")});
    test::UnixPeer logger(test::kLoggerSocket, test::UnixPeer::kReply, std::string(12, '\0'), 8);
    WriteSystemSetting(kPlant, server.Url("/schedule"), false);
    StartDaemon();
    ASSERT_TRUE(test::WaitFor([&] { return Count() == "96"; }, 15000));
    WriteSystemSetting("00000000000000000000000888", server.Url("/schedule"), false);
    const std::string answer = Ask(CommandWire::kChangeSettingNotify);
    ASSERT_EQ(144u, answer.size());
    // The new plant's fetch meets the failing server: reason 1, status 500.
    EXPECT_EQ(1, WordAt(answer, CommandWire::kUpdateReasonOffset));
    EXPECT_EQ(500, WordAt(answer, CommandWire::kUpdateStatusOffset));
    EXPECT_EQ(Field("Data is not found.", CommandWire::kMessageSize), answer.substr(CommandWire::kUpdateMessageOffset));
    EXPECT_EQ("0", Count());
    EXPECT_EQ("00000000000000000000000888",
              test::QueryValue(kInfoFile, "SELECT plantId FROM output_control_schedule_update_info"));
}

TEST_F(ScheduleFlowTest, StandAloneFetchesNothing) {
    HttpTestServer server(ScheduleServerAnswer(update_, test::kUpdateSchedule));
    WriteSystemSetting(kPlant, server.Url("/schedule"), true);
    StartDaemon();
    ASSERT_TRUE(test::WaitFor(
        [] {
            return test::ReadFile(test::LogFilePath()).find("Plant ID changed but, Standalone setting...") !=
                   std::string::npos;
        },
        10000));
    EXPECT_TRUE(server.Requests().empty());
}

TEST_F(ScheduleFlowTest, FixedScheduleByFileWithAndWithoutForce) {
    WriteSystemSetting("", "", false);
    StartDaemon();
    // The start's settings check runs beside the command socket: once it has
    // found no plant, a stored fixed schedule is no longer wiped by it.
    ASSERT_TRUE(test::WaitFor(
        [] {
            return test::ReadFile(test::LogFilePath()).find("ScheduleUpdateManager Plant ID is not set. []") !=
                   std::string::npos;
        },
        10000))
        << test::ReadFile(test::kDaemonOutput);
    test::ScheduleRecord first = fixed_;
    first.plantId = "111";
    test::WriteFile("/tmp/first.hex", test::BuildSchedulePayload({first}, test::kFixedSchedule).hex);
    const std::string stored =
        Ask(CommandWire::kUpdateFixedSchedule, CommandWire::EncodeFixedScheduleBlock("/tmp/first.hex", 0));
    ASSERT_EQ(171u, stored.size());
    EXPECT_EQ(0, WordAt(stored, CommandWire::kFixedReasonOffset));
    EXPECT_EQ(Field("00000000000000000000000111", CommandWire::kFixedPlantIdSize),
              stored.substr(CommandWire::kFixedPlantIdOffset, CommandWire::kFixedPlantIdSize));
    EXPECT_EQ("48", Count());

    test::ScheduleRecord other = fixed_;
    other.plantId = "222";
    other.rates = std::vector<int>(48, 20);
    other.start = ServerTime(tomorrow_ + 2 * 86400, "%Y%m%d%H%M");
    test::WriteFile("/tmp/other.hex", test::BuildSchedulePayload({other}, test::kFixedSchedule).hex);
    const std::string refused =
        Ask(CommandWire::kUpdateFixedSchedule, CommandWire::EncodeFixedScheduleBlock("/tmp/other.hex", 0));
    EXPECT_EQ(7, WordAt(refused, CommandWire::kFixedReasonOffset));
    EXPECT_EQ(Field("[00000000000000000000000111] : [00000000000000000000000222]", CommandWire::kMessageSize),
              refused.substr(CommandWire::kFixedMessageOffset));
    EXPECT_EQ("48", Count());

    const std::string forced =
        Ask(CommandWire::kUpdateFixedSchedule, CommandWire::EncodeFixedScheduleBlock("/tmp/other.hex", 1));
    EXPECT_EQ(0, WordAt(forced, CommandWire::kFixedReasonOffset));
    EXPECT_EQ(Field("00000000000000000000000222", CommandWire::kFixedPlantIdSize),
              forced.substr(CommandWire::kFixedPlantIdOffset, CommandWire::kFixedPlantIdSize));
    EXPECT_EQ("48", Count());
    EXPECT_EQ("48", Count(" WHERE controlRate = 20"));
}

TEST_F(ScheduleFlowTest, TargetPowerIsComputedWithTheClockPast2038) {
    // The clock runs from 2040-03-01 00:40 UTC, past the last second a
    // 32-bit time can hold; a fixed schedule for that day is stored, and the
    // current and next slots are answered from it.
    WriteSystemSetting(kPlant, "", true);
    std::map<std::string, std::string> env = test::ChildProcess::FakeTimeEnv("@2040-03-01 00:40:00");
    env["TZ"] = "UTC";
    ASSERT_TRUE(test::StartDaemon(daemon_, test::kDaemonOutput, env));
    ASSERT_TRUE(test::WaitFor(
        [] {
            return test::ReadFile(test::LogFilePath()).find("Plant ID changed but, Standalone setting...") !=
                   std::string::npos;
        },
        10000));
    const std::int64_t day = 2214172800; // 2040-03-01 00:00:00 UTC
    test::ScheduleRecord fixed = fixed_;
    fixed.start = ServerTime(day, "%Y%m%d%H%M");
    fixed.rates = std::vector<int>(48, 90);
    fixed.rates[1] = 40; // 00:30
    fixed.rates[2] = 70; // 01:00
    test::WriteFile("/tmp/2040.hex", test::BuildSchedulePayload({fixed}, test::kFixedSchedule).hex);
    const std::string stored =
        Ask(CommandWire::kUpdateFixedSchedule, CommandWire::EncodeFixedScheduleBlock("/tmp/2040.hex", 0));
    ASSERT_EQ(171u, stored.size());
    ASSERT_EQ(0, WordAt(stored, CommandWire::kFixedReasonOffset)) << stored.substr(CommandWire::kFixedMessageOffset);
    // Only slots later than the clock minus 30 minutes are kept: not 00:00.
    EXPECT_EQ("47", Count());
    EXPECT_EQ("40", test::QueryValue(kDbFile, "SELECT controlRate FROM output_control_schedule WHERE time = " +
                                                  std::to_string(day + 1800)));

    const std::string current = Ask(CommandWire::kCurrentTargetPower, Capacity(10.0));
    ASSERT_EQ(167u, current.size());
    EXPECT_EQ(0, WordAt(current, CommandWire::kTargetCodeOffset)) << current.substr(CommandWire::kTargetMessageOffset);
    EXPECT_DOUBLE_EQ(4.0, PowerOf(current));
    EXPECT_EQ(Field("20400301003000", CommandWire::kTargetTimeSize),
              current.substr(CommandWire::kTargetTimeOffset, CommandWire::kTargetTimeSize));
    const std::string next = Ask(CommandWire::kNextTargetPower, Capacity(10.0));
    ASSERT_EQ(167u, next.size());
    EXPECT_EQ(0, WordAt(next, CommandWire::kTargetCodeOffset)) << next.substr(CommandWire::kTargetMessageOffset);
    EXPECT_DOUBLE_EQ(7.0, PowerOf(next));
    EXPECT_EQ(Field("20400301010000", CommandWire::kTargetTimeSize),
              next.substr(CommandWire::kTargetTimeOffset, CommandWire::kTargetTimeSize));
    EXPECT_NE(std::string::npos, test::ReadFile(test::LogFilePath()).find("[2040-03-01 00:4"));
}

TEST_F(ScheduleFlowTest, ServerFailuresGiveTheirReasons) {
    WriteSystemSetting("", "", false);
    StartDaemon();
    HttpTestServer notFound(HttpTestServer::Answer(404, "text/plain", "no"));
    std::string answer = Ask(CommandWire::kCheckPlantId, CommandWire::EncodeCheckPlantIdBlock("P", notFound.Url("/c")));
    EXPECT_EQ(1, WordAt(answer, CommandWire::kUpdateReasonOffset));
    EXPECT_EQ(404, WordAt(answer, CommandWire::kUpdateStatusOffset));
    EXPECT_EQ(Field("Data is not found.", CommandWire::kMessageSize), answer.substr(CommandWire::kUpdateMessageOffset));
    answer =
        Ask(CommandWire::kCheckPlantId,
            CommandWire::EncodeCheckPlantIdBlock("P", "http://127.0.0.1:" + std::to_string(test::ClosedPort()) + "/c"));
    EXPECT_EQ(1, WordAt(answer, CommandWire::kUpdateReasonOffset));
    EXPECT_EQ(0, WordAt(answer, CommandWire::kUpdateStatusOffset));
    EXPECT_EQ(0u, answer.substr(CommandWire::kUpdateMessageOffset).find("schedule server access failed. EXCEPTION["));
    HttpTestServer text(HttpTestServer::Answer(200, test::MultipartContentType("b"), test::TextPartBody("b", "701")));
    answer = Ask(CommandWire::kCheckPlantId, CommandWire::EncodeCheckPlantIdBlock("P", text.Url("/c")));
    EXPECT_EQ(2, WordAt(answer, CommandWire::kUpdateReasonOffset));
    EXPECT_EQ(200, WordAt(answer, CommandWire::kUpdateStatusOffset));
    EXPECT_EQ(Field("701", CommandWire::kMessageSize), answer.substr(CommandWire::kUpdateMessageOffset));
    HttpTestServer registered(
        HttpTestServer::Answer(200, test::MultipartContentType("b"), test::BinaryPartBody("b", std::string(40, '\0'))));
    EXPECT_EQ(test::UpdateAnswer(CommandWire::kCheckPlantId),
              Ask(CommandWire::kCheckPlantId, CommandWire::EncodeCheckPlantIdBlock("P", registered.Url("/c"))));
}

TEST_F(ScheduleFlowTest, ClientThatHangsUpDoesNotStopTheDaemon) {
    WriteSystemSetting("", "", false);
    StartDaemon();
    for (int i = 0; i < 5; ++i) {
        const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
        const sockaddr_un address = test::UnixAddress(test::kCommandSocket);
        ASSERT_EQ(0, connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address));
        const std::string request = Word(8) + Word(8);
        ASSERT_EQ(8, write(fd, request.data(), request.size()));
        close(fd);
    }
    EXPECT_EQ(144u, Ask(CommandWire::kFlushLog).size());
    EXPECT_TRUE(daemon_.Running());
}

// Starts the daemon with the clock faked to `now` and returns the fixed
// schedule time it arms for a plant ending in 7 whose fixed fetch failed.
std::string FixedTimeAt(test::ChildProcess& daemon, const std::string& now, const test::ScheduleRecord& update) {
    HttpTestServer server(
        {ScheduleServerAnswer(update, test::kUpdateSchedule), HttpTestServer::Answer(500, "text/plain", "x")});
    test::WriteFile(test::SystemSettingPath(), "<logger><general><outputControlPlantId>" + kPlant +
                                                   "</outputControlPlantId><outputScheduleInformationServerUrl>" +
                                                   server.Url("/s") +
                                                   "</outputScheduleInformationServerUrl></general></logger>");
    EXPECT_TRUE(daemon.Start(test::ChildProcess::DaemonCommand(), test::kDaemonOutput,
                             test::ChildProcess::FakeTimeEnv("@" + now)));
    const std::string marker = "ScheduleUpdateManager fixed_schedule_update_time_ [";
    std::string log;
    test::WaitFor(
        [&] {
            log = test::ReadFile(test::LogFilePath());
            return log.find(marker) != std::string::npos;
        },
        20000);
    daemon.Signal(SIGTERM);
    daemon.WaitExit(5000);
    const std::size_t at = log.find(marker);
    if (at == std::string::npos) return std::string();
    return log.substr(at + marker.size(), 19);
}

TEST_F(ScheduleFlowTest, FixedScheduleTimeFollowsTheLastDigitOfThePlantId) {
    // Plant ...7 fetches at 15:40 UTC.
    EXPECT_EQ("2030-01-15 15:40:00", FixedTimeAt(daemon_, "2030-01-15 12:00:00", update_));
}

TEST_F(ScheduleFlowTest, FixedScheduleTimePassedLongAgoMovesToTomorrow) {
    EXPECT_EQ("2030-01-16 15:40:00", FixedTimeAt(daemon_, "2030-01-15 16:05:00", update_));
}

TEST_F(ScheduleFlowTest, FixedScheduleTimeJustPassedStaysToday) {
    EXPECT_EQ("2030-01-15 15:40:00", FixedTimeAt(daemon_, "2030-01-15 15:50:00", update_));
}

TEST_F(ScheduleFlowTest, WatchdogFileKeepsBeingTouched) {
    test::WriteLoggerSetting("<OutputScheduleEnableLogBufferedIO>0</OutputScheduleEnableLogBufferedIO>"
                             "<WatchdogFileUpdateInterval>1</WatchdogFileUpdateInterval>");
    StartDaemon();
    ASSERT_TRUE(test::WaitFor([] { return test::FileExists("/mnt/system/check/brvo"); }, 5000));
    test::RemoveAll("/mnt/system/check/brvo");
    EXPECT_TRUE(test::WaitFor([] { return test::FileExists("/mnt/system/check/brvo"); }, 5000));
}

} // namespace
} // namespace brvo
