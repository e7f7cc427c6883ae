#include "system/ScheduleServerFixture.h"

#include "server/CommandWire.h"
#include "support/DaemonClient.h"
#include "support/SqliteFile.h"
#include "support/TestFiles.h"

#include <csignal>

namespace brvo {
namespace test {

ScheduleRecord CoveringRecord() {
    return CurrentUpdateRecord(kStoredRate, kStoredSlots);
}

ScheduleRecord LaterFixedRecord() {
    return FixedRecordAhead(30, 3);
}

std::string PayloadText(const ScheduleRecord& record) {
    return BytesText(BuildSchedulePayload({record}, kUpdateSchedule).bytes);
}

std::string CutBody(const std::string& answer, std::size_t keep) {
    return answer.substr(0, answer.find("\r\n\r\n") + 4 + keep);
}

void ScheduleServerFixture::SetUp() {
    WriteLoggerSetting("<OutputScheduleEnableLogBufferedIO>0</OutputScheduleEnableLogBufferedIO>"
                       "<OutputControlSocketTimeout>5</OutputControlSocketTimeout>");
    WriteFile("/sys/class/net/eth0/address", "00:1a:2b:3c:4d:5e\n");
    WriteFile(kLoggerSocket + ".keep", "");
    logger_.reset(new UnixPeer(kLoggerSocket, UnixPeer::kReply, std::string(12, '\0'), 8));
}

void ScheduleServerFixture::TearDown() {
    if (daemon_.Running()) {
        daemon_.Signal(SIGTERM);
        daemon_.WaitExit(5000);
    }
}

void ScheduleServerFixture::StartWithStoredSchedule(const std::map<std::string, std::string>& env) {
    good_.reset(new HttpTestServer({ScheduleServerAnswer(CoveringRecord(), kUpdateSchedule),
                                    ScheduleServerAnswer(LaterFixedRecord(), kFixedSchedule)}));
    WriteSystemSetting(kServerTestPlant, good_->Url("/schedule"), false);
    ASSERT_TRUE(StartDaemon(daemon_, kDaemonOutput, env));
    const std::string all = std::to_string(kStoredSlots + 48);
    ASSERT_TRUE(WaitFor(
        [&] {
            return QueryValue(kScheduleDbFile, "SELECT COUNT(*) FROM output_control_schedule WHERE sent = 1") == all;
        },
        15000))
        << ReadFile(kDaemonOutput);
    schedule_ = ScheduleRows();
    info_ = UpdateInfoRows();
    ASSERT_EQ(1u, info_.size());
}

void ScheduleServerFixture::ExpectNothingStored() {
    EXPECT_EQ(schedule_, ScheduleRows());
    EXPECT_EQ(info_, UpdateInfoRows());
}

void ScheduleServerFixture::ExpectCurrentTargetPower() {
    const std::string answer = Ask(kCurrentTargetPowerRequest, Capacity(10.0));
    ASSERT_EQ(kTargetPowerAnswerSize, answer.size());
    EXPECT_EQ(0, WordAt(answer, CommandWire::kTargetCodeOffset)) << answer.substr(CommandWire::kTargetMessageOffset);
    EXPECT_DOUBLE_EQ(10.0 * kStoredRate / 100.0, PowerOf(answer));
}

void ScheduleServerFixture::ExpectUpdateWorksAgain() {
    HttpTestServer server({ScheduleServerAnswer(CoveringRecord(), kUpdateSchedule),
                           ScheduleServerAnswer(LaterFixedRecord(), kFixedSchedule)});
    WriteSystemSetting(kServerTestPlant, server.Url("/schedule"), false);
    EXPECT_EQ(test::UpdateAnswer(CommandWire::kUpdateSchedule), Ask(kUpdateScheduleRequest));
    EXPECT_EQ(2u, server.Requests().size());
}

bool ScheduleServerFixture::LogHasWarning(const std::string& prefix) {
    return WaitFor([&] { return HasLogLineStarting(ReadLines(LogFilePath()), "W", "ScheduleUpdateManager", prefix); },
                   3000);
}

} // namespace test
} // namespace brvo
