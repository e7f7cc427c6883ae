#include "schedule/ScheduleUpdateManager.h"

#include "database/DatabaseManager.h"
#include "database/ScheduleDatabase.h"
#include "schedule/RetryPolicy.h"
#include "schedule/ScheduleModel.h"
#include "settings/LoggerSettingManager.h"
#include "settings/SystemSettingXmlManager.h"
#include "support/HttpTestServer.h"
#include "support/SchedulePayload.h"
#include "support/SimulatedTime.h"
#include "support/SingletonTest.h"
#include "support/SqliteFile.h"
#include "support/TestFiles.h"
#include "support/TomorrowSchedules.h"
#include "support/UnixPeer.h"
#include "util/FileUtil.h"
#include "util/LoggerLog.h"
#include "util/TimeStamp.h"

#include <gtest/gtest.h>

#include <Poco/DateTime.h>
#include <Poco/Net/HTTPClientSession.h>
#include <Poco/Net/HTTPRequest.h>
#include <Poco/Net/HTTPResponse.h>
#include <Poco/Timestamp.h>

#include <algorithm>
#include <chrono>
#include <future>
#include <memory>

namespace brvo {
namespace {

using test::HttpTestServer;

const std::string kTag = "ScheduleUpdateManager";
const std::string kDbFile =
    test::FixedPath("/media/sdcard/kestrovanyx/Database/OutputControl/output_control_schedule.db");
const std::string kPlant = "00000000000000000000000777";
// Longer than any test runs: a schedule server that never answers. Its
// delay ends when the server is destroyed.
const int kStalledMs = 600000;

typedef std::future<std::shared_ptr<UpdateResult>> FlowResult;

std::chrono::milliseconds Scaled(long long ms) {
    return std::chrono::milliseconds(ms * test::TimeScale());
}

// Runs a fetching flow (the update schedule one unless told otherwise) on a
// thread of its own, under a pin as the socket workers do, so that the
// manager is never freed under it.
FlowResult UpdateOnAnotherThread(
    std::shared_ptr<UpdateResult> (ScheduleUpdateManager::*flow)() = &ScheduleUpdateManager::UpdateSchedule) {
    return std::async(std::launch::async, [flow] {
        ScheduleUpdateManager::Pin manager;
        return manager ? (manager.get()->*flow)() : std::shared_ptr<UpdateResult>();
    });
}

std::string StoredSlots() {
    return test::QueryValue(kDbFile, "SELECT COUNT(*) FROM output_control_schedule");
}

class ScheduleUpdateManagerTest : public test::SingletonTest {
protected:
    void SetUp() override {
        UseLoggerSettings("");
        test::WriteFile(test::FixedPath("/sys/class/net/eth0/address"), "00:1a:2b:3c:4d:5e\n");
        const test::TomorrowSchedules schedules = test::MakeTomorrowSchedules();
        tomorrow_ = schedules.tomorrow;
        update_ = schedules.update;
        fixed_ = schedules.fixed;
    }

    // Writes the system settings and loads them, as the daemon's start-up
    // check does; then creates the manager.
    ScheduleUpdateManager& Manager(const std::string& plantId, const std::string& url, bool standAlone = false) {
        test::WriteFile(test::SystemSettingPath(),
                        "<logger><general><outputControlPlantId>" + plantId +
                            "</outputControlPlantId><outputControlStandAlone>" + (standAlone ? "1" : "0") +
                            "</outputControlStandAlone><outputScheduleInformationServerUrl>" + url +
                            "</outputScheduleInformationServerUrl></general></logger>");
        SystemSettingXmlManager::CreateInstance();
        SystemSettingXmlManager::GetInstance()->Load();
        ScheduleUpdateManager::CreateInstance();
        return *ScheduleUpdateManager::GetInstance();
    }

    static std::vector<std::string> LogLines() { return test::FlushedLogLines(); }

    // The manager on simulated time (starting at the real now, so that the
    // payloads' dates fit, on a whole second, so that the tests' times in
    // whole seconds lie as far ahead as they say), with the real request
    // pool.
    ScheduleUpdateManager& SimulatedManager(const std::string& plantId, const std::string& url) {
        if (!time_) {
            time_.reset(new test::SimulatedTime(TimeStamp().EpochSeconds() * 1000000));
            updateLane_ = &time_->NewLane();
            fixedLane_ = &time_->NewLane();
        }
        test::WriteFile(test::SystemSettingPath(),
                        "<logger><general><outputControlPlantId>" + plantId +
                            "</outputControlPlantId><outputControlStandAlone>0</outputControlStandAlone>"
                            "<outputScheduleInformationServerUrl>" +
                            url + "</outputScheduleInformationServerUrl></general></logger>");
        SystemSettingXmlManager::CreateInstance();
        SystemSettingXmlManager::GetInstance()->Load();
        ScheduleUpdateManager::Environment environment;
        environment.clock = time_.get();
        environment.updateTimers = updateLane_;
        environment.fixedTimers = fixedLane_;
        ScheduleUpdateManager::CreateInstance(environment);
        return *ScheduleUpdateManager::GetInstance();
    }

    void TearDown() override {
        ScheduleUpdateManager::DeleteInstance();
        test::SingletonTest::TearDown();
    }

    std::int64_t NowSeconds() const { return time_->WallMicroseconds() / 1000000; }

    static std::string InfoDbFile() {
        return test::FixedPath(
            "/media/sdcard/kestrovanyx/Database/OutputControl/output_control_schedule_update_info.db");
    }

    // Stores an update information record for `plantId` as after a first
    // update (its fixed schedule needed or not).
    void StoreFreshRecord(const std::string& plantId, bool needFixed = false) {
        ScheduleUpdateInfo info;
        info.plantId = plantId;
        info.lastUpdateTime = TimeStamp::FromEpochSeconds(NowSeconds())->FormatDisplay();
        info.nextUpdateTime = TimeStamp::FromEpochSeconds(NowSeconds() + 3)->FormatDisplay();
        info.fixedScheduleUpdateFlag = 3;
        info.isNeedUpdateFixedSchedule = needFixed;
        ScheduleUpdateManager* manager = ScheduleUpdateManager::GetInstance();
        manager->DeleteAllUpdateControlInfoFromDB();
        test::QueryFile(InfoDbFile(), "INSERT INTO output_control_schedule_update_info VALUES ('" + info.plantId +
                                          "', '" + info.lastUpdateTime + "', '" + info.nextUpdateTime + "', 3, " +
                                          (needFixed ? "1" : "0") + ")");
    }

    static void StoreNextUpdateTime(std::int64_t seconds) {
        test::QueryFile(InfoDbFile(), "UPDATE output_control_schedule_update_info SET nextUpdateTime = '" +
                                          TimeStamp::FromEpochSeconds(seconds)->FormatDisplay() + "'");
    }

    // Lets the update alarm run one fetch against `server` (the stored
    // record's time, three seconds ahead) and returns the log afterwards.
    std::vector<std::string> TimerRunAgainst(ScheduleUpdateManager& manager, HttpTestServer& server) {
        const std::size_t before = server.Requests().size();
        manager.Start();
        EXPECT_TRUE(time_->AdvanceUntil([&] { return server.Requests().size() > before; }, 10000));
        return LogLines();
    }

    // A manager whose plant ("...7", fetched at 15:40 UTC) needs its fixed
    // schedule, with the fixed alarm set up at 15:30 of the simulated day.
    ScheduleUpdateManager& FixedAlarmAtHalfPastThree(HttpTestServer& server) {
        ScheduleUpdateManager& manager = SimulatedManager(kPlant, server.Url("/s"));
        StoreFreshRecord(kPlant, true);
        const std::int64_t day = NowSeconds() / 86400 * 86400;
        time_->StepWall((day + 15 * 3600 + 30 * 60 - NowSeconds()) * 1000000LL);
        manager.SetupFixedScheduleAlarm();
        return manager;
    }

    std::unique_ptr<test::SimulatedTime> time_;
    TimerService* updateLane_ = nullptr;
    TimerService* fixedLane_ = nullptr;

    std::int64_t tomorrow_ = 0;
    test::ScheduleRecord update_;
    test::ScheduleRecord fixed_;
};

TEST_F(ScheduleUpdateManagerTest, RetryRule) {
    EXPECT_FALSE(ScheduleUpdateManager::IsRetryable(UpdateResult()));
    EXPECT_TRUE(ScheduleUpdateManager::IsRetryable(UpdateResult(FailureReason::kResponseUnparsable, 100, "")));
    EXPECT_TRUE(ScheduleUpdateManager::IsRetryable(UpdateResult(FailureReason::kResponseUnparsable, 199, "")));
    EXPECT_FALSE(ScheduleUpdateManager::IsRetryable(UpdateResult(FailureReason::kPayloadInvalid, 200, "")));
    EXPECT_FALSE(ScheduleUpdateManager::IsRetryable(UpdateResult(FailureReason::kAccessFailed, 299, "")));
    EXPECT_TRUE(ScheduleUpdateManager::IsRetryable(UpdateResult(FailureReason::kDatabaseWriteFailed, 302, "")));
    EXPECT_FALSE(ScheduleUpdateManager::IsRetryable(UpdateResult(FailureReason::kAccessFailed, 404, "")));
    EXPECT_TRUE(ScheduleUpdateManager::IsRetryable(UpdateResult(FailureReason::kDatabaseWriteFailed, 503, "")));
    for (FailureReason reason : {FailureReason::kAccessFailed, FailureReason::kPayloadInvalid, FailureReason::kNoSlots,
                                 FailureReason::kException}) {
        EXPECT_TRUE(ScheduleUpdateManager::IsRetryable(UpdateResult(reason, 0, ""))) << ToWire(reason);
        EXPECT_TRUE(ScheduleUpdateManager::IsRetryable(UpdateResult(reason, -1, ""))) << ToWire(reason);
    }
    for (FailureReason reason :
         {FailureReason::kResponseUnparsable, FailureReason::kDatabaseWriteFailed, FailureReason::kPlantIdNotRegistered,
          FailureReason::kPlantIdMismatch, FailureReason::kFileNotFound}) {
        EXPECT_FALSE(ScheduleUpdateManager::IsRetryable(UpdateResult(reason, 0, ""))) << ToWire(reason);
    }
}

// On simulated time, so that each digit's time is seen from both sides of
// its 20-minute grace, whatever the time of day the test runs.
TEST_F(ScheduleUpdateManagerTest, FixedScheduleTimeByTheLastDigit) {
    ScheduleUpdateManager& manager = SimulatedManager("", "");
    const std::int64_t day = NowSeconds() / 86400 * 86400 + 86400;
    for (int digit = 0; digit <= 9; ++digit) {
        const std::int64_t at = day + 12 * 3600 + 10 * 60 + 30 * 60 * digit;
        const std::string plant = "PLANT" + std::to_string(digit);
        // An hour before, right at it, 20 minutes after (still today), and
        // 20 minutes and a second after (tomorrow).
        const std::vector<std::pair<std::int64_t, std::int64_t>> cases = {
            {at - 3600, at}, {at, at}, {at + 20 * 60, at}, {at + 20 * 60 + 1, at + 86400}};
        for (const auto& c : cases) {
            time_->StepWall((c.first - NowSeconds()) * 1000000LL - time_->WallMicroseconds() % 1000000);
            std::shared_ptr<TimeStamp> got = manager.FixedScheduleUpdateTime(plant);
            ASSERT_NE(nullptr, got);
            EXPECT_EQ(c.second, got->EpochSeconds()) << digit << " at " << c.first - at;
        }
    }
    std::shared_ptr<TimeStamp> other = manager.FixedScheduleUpdateTime("PLANTX");
    ASSERT_NE(nullptr, other);
    EXPECT_EQ(NowSeconds() + 1800, other->EpochSeconds());
}

TEST_F(ScheduleUpdateManagerTest, UpdateFixedScheduleNeedsUpdateInformation) {
    ScheduleUpdateManager& manager = Manager(kPlant, "http://127.0.0.1:1/");
    std::shared_ptr<UpdateResult> result = manager.UpdateFixedSchedule();
    EXPECT_FALSE(result->IsResult());
    EXPECT_EQ(1, ToWire(result->GetFailureReason()));
    EXPECT_EQ(-1, result->GetStatusCode());
    EXPECT_EQ("Update information of fixed schedule does not exist.", result->GetMessage());
}

TEST_F(ScheduleUpdateManagerTest, UpdateScheduleFailureReasons) {
    HttpTestServer server(
        {HttpTestServer::Answer(500, "text/plain", "down"),
         HttpTestServer::Answer(200, test::MultipartContentType("b"), test::TextPartBody("b", "702")),
         HttpTestServer::Answer(200, test::MultipartContentType("b"), test::BinaryPartBody("b", "\x01")),
         test::ScheduleServerAnswer(
             [&] {
                 test::ScheduleRecord empty = update_;
                 empty.rates.clear();
                 return empty;
             }(),
             test::kUpdateSchedule)});
    ScheduleUpdateManager& manager = Manager(kPlant, server.Url("/s"));
    std::shared_ptr<UpdateResult> result = manager.UpdateSchedule();
    EXPECT_EQ(1, ToWire(result->GetFailureReason()));
    EXPECT_EQ(500, result->GetStatusCode());
    EXPECT_EQ("Data is not found.", result->GetMessage());
    result = manager.UpdateSchedule();
    EXPECT_EQ(2, ToWire(result->GetFailureReason()));
    EXPECT_EQ("702", result->GetMessage());
    result = manager.UpdateSchedule();
    EXPECT_EQ(3, ToWire(result->GetFailureReason()));
    EXPECT_EQ("data is missing.", result->GetMessage());
    result = manager.UpdateSchedule();
    EXPECT_EQ(4, ToWire(result->GetFailureReason()));
    EXPECT_EQ("Schedule data is nothing.", result->GetMessage());
    const std::vector<std::string> lines = LogLines();
    EXPECT_TRUE(test::HasLogLineStarting(lines, "W", kTag, "Schedule update failed. [ServerAccessResult [false]"));
    EXPECT_TRUE(test::HasLogLine(lines, "W", kTag, "Schedule update failed. [702]"));
    EXPECT_TRUE(test::HasLogLine(lines, "W", kTag, "Schedule parse failed. [data is missing.]"));
    EXPECT_TRUE(test::HasLogLine(lines, "W", kTag, "Schedule update failed. Schedule data is nothing."));
}

// Answers that are cut short or overflow their counts are refused: nothing
// is stored, the update information stays, and the logger daemon is not
// told.
TEST_F(ScheduleUpdateManagerTest, RefusedAnswersStoreNothing) {
    const std::string payload = test::BytesText(test::BuildSchedulePayload({update_}, test::kUpdateSchedule).bytes);
    std::string overflowed = payload;
    overflowed.replace(0, test::kRecordCountBytes, std::string(test::kRecordCountBytes, '\xff'));
    const std::string type = test::MultipartContentType("b");
    HttpTestServer server(
        {HttpTestServer::Answer(200, type,
                                test::MultipartBody("b",
                                                    {"Content-Type: application/octet-stream",
                                                     "Content-Length: " + std::to_string(payload.size() + 100)},
                                                    payload, false)),
         HttpTestServer::Answer(200, type, test::BinaryPartBody("b", payload.substr(0, payload.size() - 1))),
         HttpTestServer::Answer(200, type, test::BinaryPartBody("b", overflowed))});
    test::WriteFile(test::FixedPath("/mnt/system/brvlogger/.keep"), "");
    test::UnixPeer logger(test::FixedPath("/mnt/system/brvlogger/brevanta.logger"), test::UnixPeer::kReply,
                          std::string(12, '\0'), 8);
    ScheduleUpdateManager& manager = Manager(kPlant, server.Url("/s"));
    const ScheduleUpdateInfo before = manager.GetUpdateInfo();

    std::shared_ptr<UpdateResult> result = manager.UpdateSchedule();
    EXPECT_EQ(2, ToWire(result->GetFailureReason()));
    EXPECT_EQ("Parser error. part is truncated. Content-Length[" + std::to_string(payload.size() + 100) +
                  "] received[" + std::to_string(payload.size() + 2) + "]",
              result->GetMessage());
    result = manager.UpdateSchedule();
    EXPECT_EQ(3, ToWire(result->GetFailureReason()));
    EXPECT_EQ("Schedule data error. data is truncated.", result->GetMessage());
    result = manager.UpdateSchedule();
    EXPECT_EQ(3, ToWire(result->GetFailureReason()));
    EXPECT_EQ("Schedule data error. number out of range. [255255255255255255]", result->GetMessage());

    EXPECT_EQ("0", StoredSlots());
    EXPECT_EQ(before.plantId, manager.GetUpdateInfo().plantId);
    EXPECT_EQ(before.nextUpdateTime, manager.GetUpdateInfo().nextUpdateTime);
    EXPECT_EQ(0, logger.Connections());
    EXPECT_TRUE(
        test::HasLogLine(LogLines(), "W", kTag, "Schedule parse failed. [Schedule data error. data is truncated.]"));
}

// An answer of a plant that is neither the stored nor the configured one.
TEST_F(ScheduleUpdateManagerTest, DataOfAnotherPlantIsNotStored) {
    test::ScheduleRecord other = update_;
    other.plantId = "888";
    HttpTestServer server({test::ScheduleServerAnswer(other, test::kUpdateSchedule)});
    ScheduleUpdateManager& manager = Manager(kPlant, server.Url("/s"));
    ScheduleUpdateInfo stored;
    stored.plantId = "00000000000000000000000999";
    ScheduleUpdateInfo received;
    received.plantId = kPlant;
    ScheduleRow row;
    row.time = tomorrow_;
    row.controlRate = 5;
    ASSERT_TRUE(manager.UpdateWithFixedSchedule({row}, stored.plantId));
    std::shared_ptr<UpdateResult> result = manager.UpdateSchedule();
    EXPECT_EQ(5, ToWire(result->GetFailureReason()));
    EXPECT_EQ("Database update error.", result->GetMessage());
    EXPECT_TRUE(test::HasLogLine(LogLines(), "E", kTag,
                                 "It is data of a different power station ID. Expected[" + stored.plantId +
                                     "], but [00000000000000000000000888]"));
    EXPECT_EQ("5", test::QueryValue(kDbFile, "SELECT controlRate FROM output_control_schedule"));
}

// A change of plant whose reset could not be written (a full card) left
// the record of the plant before: the configured plant's answer resets the
// tables then and is stored, rather than being refused until a restart.
TEST_F(ScheduleUpdateManagerTest, RecordOfAPlantNoLongerConfiguredGivesWayToTheConfiguredPlantsAnswer) {
    HttpTestServer server({test::ScheduleServerAnswer(update_, test::kUpdateSchedule)});
    ScheduleUpdateManager& manager = Manager(kPlant, server.Url("/s"));
    const std::string before = "00000000000000000000000999";
    ScheduleRow row;
    row.time = tomorrow_ + 3 * 86400;
    row.controlRate = 5;
    ASSERT_TRUE(manager.UpdateWithFixedSchedule({row}, before));
    std::shared_ptr<UpdateResult> result = manager.UpdateSchedule();
    EXPECT_TRUE(result->IsResult()) << result->ToString();
    EXPECT_EQ(kPlant, manager.GetUpdateInfo().plantId);
    EXPECT_EQ("48", StoredSlots());
    EXPECT_EQ("0", test::QueryValue(kDbFile, "SELECT COUNT(*) FROM output_control_schedule WHERE controlRate = 5"));
    EXPECT_TRUE(test::HasLogLine(LogLines(), "I", kTag, "Plant ID change. [" + before + "] to [" + kPlant + "]"));
}

// The server mixes up plants: a fixed schedule of another plant is neither
// stored nor taken as the plant's own.
TEST_F(ScheduleUpdateManagerTest, FixedScheduleOfAnotherPlantIsNotStored) {
    test::ScheduleRecord other = fixed_;
    other.plantId = "999";
    HttpTestServer server(test::ScheduleServerAnswer(other, test::kFixedSchedule));
    ScheduleUpdateManager& manager = Manager(kPlant, server.Url("/s"));
    ScheduleRow row;
    row.time = tomorrow_;
    row.controlRate = 5;
    ASSERT_TRUE(manager.UpdateWithFixedSchedule({row}, kPlant));
    std::shared_ptr<UpdateResult> result = manager.UpdateFixedSchedule();
    EXPECT_EQ(7, ToWire(result->GetFailureReason()));
    EXPECT_EQ(200, result->GetStatusCode());
    EXPECT_FALSE(ScheduleUpdateManager::IsRetryable(*result));
    EXPECT_EQ("1", StoredSlots());
    EXPECT_EQ(kPlant, manager.GetUpdateInfo().plantId);
    EXPECT_TRUE(test::HasLogLine(LogLines(), "E", kTag,
                                 "Fixed schedule update failed. It is data of a different power station ID. [" +
                                     kPlant + "] : [00000000000000000000000999]"));
}

// Without a record (it could not be written when the plant was set) an
// answer is taken only for the configured plant.
TEST_F(ScheduleUpdateManagerTest, AnswerOfAnotherPlantIsNotStoredWithoutARecord) {
    test::ScheduleRecord other = update_;
    other.plantId = "999";
    HttpTestServer server(test::ScheduleServerAnswer(other, test::kUpdateSchedule));
    ScheduleUpdateManager& manager = Manager(kPlant, server.Url("/s"));
    std::shared_ptr<UpdateResult> result = manager.UpdateSchedule();
    EXPECT_EQ(5, ToWire(result->GetFailureReason()));
    EXPECT_EQ("0", StoredSlots());
    EXPECT_EQ("", manager.GetUpdateInfo().plantId);
    EXPECT_TRUE(test::HasLogLine(LogLines(), "E", kTag,
                                 "It is data of a different power station ID. Expected[" + kPlant +
                                     "], but [00000000000000000000000999]"));
}

TEST_F(ScheduleUpdateManagerTest, PlantIdRemovedFromTheSettingsWipesEverything) {
    HttpTestServer server({test::ScheduleServerAnswer(update_, test::kUpdateSchedule),
                           test::ScheduleServerAnswer(fixed_, test::kFixedSchedule)});
    ScheduleUpdateManager& manager = Manager(kPlant, server.Url("/s"));
    bool started = false;
    ASSERT_TRUE(manager.CheckAndUpdateWithSystemSetting(started, true)->IsResult());
    EXPECT_TRUE(started);
    EXPECT_EQ("96", test::QueryValue(kDbFile, "SELECT COUNT(*) FROM output_control_schedule"));
    EXPECT_NE(nullptr, manager.GetScheduleUpdateTime());
    test::WriteFile(test::SystemSettingPath(), "<logger><general><outputControlPlantId></outputControlPlantId>"
                                               "</general></logger>");
    started = false;
    EXPECT_TRUE(manager.CheckAndUpdateWithSystemSetting(started, false)->IsResult());
    EXPECT_FALSE(started);
    EXPECT_EQ("0", test::QueryValue(kDbFile, "SELECT COUNT(*) FROM output_control_schedule"));
    EXPECT_EQ("", manager.GetUpdateInfo().plantId);
    EXPECT_EQ(nullptr, manager.GetScheduleUpdateTime());
    EXPECT_TRUE(test::HasLogLine(LogLines(), "I", kTag, "Plant ID is not set. [" + kPlant + "]"));
}

TEST_F(ScheduleUpdateManagerTest, NewPlantStartsFromAFreshRecord) {
    HttpTestServer server(HttpTestServer::Answer(503, "text/plain", "busy"));
    ScheduleUpdateManager& manager = Manager(kPlant, server.Url("/s"));
    bool started = false;
    std::shared_ptr<UpdateResult> result = manager.CheckAndUpdateWithSystemSetting(started, true);
    EXPECT_FALSE(result->IsResult());
    EXPECT_EQ(503, result->GetStatusCode());
    EXPECT_FALSE(started);
    const ScheduleUpdateInfo info = manager.GetUpdateInfo();
    EXPECT_EQ(kPlant, info.plantId);
    EXPECT_EQ("", info.lastUpdateTime);
    EXPECT_EQ(-1, info.fixedScheduleUpdateFlag);
    EXPECT_FALSE(info.isNeedUpdateFixedSchedule);
    EXPECT_TRUE(test::HasLogLine(LogLines(), "I", kTag, "Plant ID change. [] to [" + kPlant + "]"));
    // The timers run all the same: the failed first fetch backs off for half
    // an hour, stretched by this plant's share.
    ASSERT_NE(nullptr, manager.GetScheduleUpdateTime());
    const std::int64_t backOff = 1800 + RetryPolicy::SpreadSeconds(kPlant, 1800);
    EXPECT_GE(manager.GetScheduleUpdateTime()->EpochSeconds(), TimeStamp().EpochSeconds() + backOff - 2);
    EXPECT_LE(manager.GetScheduleUpdateTime()->EpochSeconds(), TimeStamp().EpochSeconds() + backOff);
}

// The update timer's runs below happen on simulated time: the manager's
// clock and lanes are a SimulatedTime, so no test waits for the alarm; only
// the exchanges with the loopback server take real (short) time.
TEST_F(ScheduleUpdateManagerTest, UpdateTimerFiresAtTheStoredTime) {
    UseLoggerSettings("<OutputScheduleMonitoringInterval>1</OutputScheduleMonitoringInterval>");
    HttpTestServer server({HttpTestServer::Answer(503, "text/plain", "busy"),
                           test::ScheduleServerAnswer(update_, test::kUpdateSchedule),
                           test::ScheduleServerAnswer(fixed_, test::kFixedSchedule)});
    test::WriteFile(test::FixedPath("/mnt/system/brvlogger/.keep"), "");
    test::UnixPeer logger(test::FixedPath("/mnt/system/brvlogger/brevanta.logger"), test::UnixPeer::kReply,
                          std::string(12, '\0'), 8);
    ScheduleUpdateManager& manager = SimulatedManager(kPlant, server.Url("/s"));
    bool started = false;
    manager.CheckAndUpdateWithSystemSetting(started, true);
    ASSERT_EQ(1u, server.Requests().size());
    // A fresh start (as after a restart): no failure counts, the stored time
    // rules.
    ScheduleUpdateManager::DeleteInstance();
    ScheduleUpdateManager& restarted = SimulatedManager(kPlant, server.Url("/s"));
    const std::int64_t due = NowSeconds() + 2;
    StoreNextUpdateTime(due);
    restarted.Start();
    ASSERT_EQ(due, restarted.GetScheduleUpdateTime()->EpochSeconds());
    ASSERT_TRUE(time_->AdvanceUntil([&] { return server.Requests().size() >= 2; }, 10000));
    // The fetch happened at the stored time, not at a tick before it.
    EXPECT_EQ(due, NowSeconds());
    EXPECT_EQ("power_plant_id=" + kPlant + "&mac_address=001A2B3C4D5E&schedule_kbn=0000", server.Requests()[1].body);
    ASSERT_TRUE(test::WaitFor([&] { return logger.Received().size() == 1; }, 10000));
    EXPECT_EQ("48", test::QueryValue(kDbFile, "SELECT COUNT(*) FROM output_control_schedule"));
    // The next update is the payload's time, tomorrow.
    std::shared_ptr<TimeStamp> next = restarted.GetScheduleUpdateTime();
    ASSERT_NE(nullptr, next);
    EXPECT_EQ(tomorrow_, next->EpochSeconds());
}

// A table found damaged is made anew empty: at the update alarm's next
// tick both tables start again from nothing and the plant is fetched as a
// new one, the update schedule and then the fixed schedule.
TEST_F(ScheduleUpdateManagerTest, TableMadeAnewIsFetchedAgainAsForANewPlant) {
    UseLoggerSettings("<OutputScheduleMonitoringInterval>1</OutputScheduleMonitoringInterval>");
    update_.plantId = kPlant;
    fixed_.plantId = kPlant;
    HttpTestServer server({test::ScheduleServerAnswer(update_, test::kUpdateSchedule),
                           test::ScheduleServerAnswer(fixed_, test::kFixedSchedule),
                           test::ScheduleServerAnswer(update_, test::kUpdateSchedule),
                           test::ScheduleServerAnswer(fixed_, test::kFixedSchedule)});
    DatabaseManager::TakeRenewed();
    ScheduleUpdateManager& manager = SimulatedManager(kPlant, server.Url("/s"));
    bool started = false;
    manager.CheckAndUpdateWithSystemSetting(started, true);
    ASSERT_TRUE(started);
    ASSERT_EQ(2u, server.Requests().size());
    ASSERT_EQ("96", StoredSlots());

    // The card damaged the file under the open session; the next read
    // finds it and the table is made anew.
    test::WriteFile(kDbFile, std::string(test::ReadFile(kDbFile).size(), 'x'));
    ASSERT_EQ(-1, ScheduleDatabase::GetInstance()->SelectSchedule(NowSeconds(), true).time);
    ASSERT_EQ("0", StoredSlots());
    EXPECT_EQ(2u, server.Requests().size());

    ASSERT_TRUE(time_->AdvanceUntil([&] { return server.Requests().size() >= 4; }, 10000));
    EXPECT_EQ("power_plant_id=" + kPlant + "&mac_address=001A2B3C4D5E&schedule_kbn=0000", server.Requests()[2].body);
    EXPECT_NE(std::string::npos, server.Requests()[3].body.find("schedule_kbn=999"));
    const std::vector<std::string> lines = LogLines();
    EXPECT_TRUE(test::HasLogLineStarting(lines, "E", "ScheduleDatabase", "Damaged table moved aside. [" + kDbFile));
    const auto plantChanges = std::count_if(lines.begin(), lines.end(), [](const std::string& line) {
        return line.find("Plant ID change. [] to [" + kPlant + "]") != std::string::npos;
    });
    EXPECT_EQ(2, plantChanges);
    ASSERT_TRUE(test::WaitFor([] { return StoredSlots() == "96"; }, 10000));
    EXPECT_EQ(kPlant, manager.GetUpdateInfo().plantId);
    EXPECT_FALSE(DatabaseManager::TakeRenewed());
}

TEST_F(ScheduleUpdateManagerTest, StoredTimeHoursAgoIsSteppedOnItsOwnHalfHours) {
    ScheduleUpdateManager& manager = SimulatedManager(kPlant, "http://127.0.0.1:9/s");
    StoreFreshRecord(kPlant);
    // 5 h 10 min 7 s ago: the next step of that time's half hours after now
    // is 11 steps on, 19 min 53 s from now.
    const std::int64_t stored = NowSeconds() - (5 * 3600 + 10 * 60 + 7);
    StoreNextUpdateTime(stored);
    manager.Start();
    ASSERT_NE(nullptr, manager.GetScheduleUpdateTime());
    EXPECT_EQ(stored + 11 * 1800, manager.GetScheduleUpdateTime()->EpochSeconds());
}

TEST_F(ScheduleUpdateManagerTest, ClientErrorPlansTheNextAttemptHoursLater) {
    UseLoggerSettings("<OutputScheduleMonitoringInterval>1</OutputScheduleMonitoringInterval>");
    HttpTestServer server(HttpTestServer::Answer(404, "text/plain", "gone"));
    ScheduleUpdateManager& manager = SimulatedManager(kPlant, server.Url("/s"));
    StoreFreshRecord(kPlant);
    const std::vector<std::string> lines = TimerRunAgainst(manager, server);
    std::shared_ptr<TimeStamp> next = manager.GetScheduleUpdateTime();
    ASSERT_NE(nullptr, next);
    EXPECT_TRUE(test::HasLogLine(lines, "E", kTag,
                                 "Update schedule failed. Stop retry. UpdateResult [false]  FailureReason:1 "
                                 "StatusCode:404 Message:Data is not found. Next attempt [" +
                                     next->FormatDisplay() + "]"));
    const std::int64_t failedAt = NowSeconds();
    // Six hours, stretched by this plant's share of up to an hour.
    EXPECT_GE(next->EpochSeconds(), failedAt + 6 * 3600);
    EXPECT_LE(next->EpochSeconds(), failedAt + 7 * 3600);
    EXPECT_EQ(failedAt + 6 * 3600 + RetryPolicy::SpreadSeconds(kPlant, RetryPolicy::kPermanentSpreadSeconds, 100),
              next->EpochSeconds());
    // A day later the alarm still runs and asks again.
    const std::size_t asked = server.Requests().size();
    time_->Advance(24 * 3600 * 1000LL);
    EXPECT_GT(server.Requests().size(), asked);
    ASSERT_NE(nullptr, manager.GetScheduleUpdateTime());
    EXPECT_LE(manager.GetScheduleUpdateTime()->EpochSeconds(), NowSeconds() + 24 * 3600);
}

TEST_F(ScheduleUpdateManagerTest, ServerErrorBacksOffFromHalfAnHour) {
    UseLoggerSettings("<OutputScheduleMonitoringInterval>1</OutputScheduleMonitoringInterval>");
    HttpTestServer server(HttpTestServer::Answer(503, "text/plain", "busy"));
    ScheduleUpdateManager& manager = SimulatedManager(kPlant, server.Url("/s"));
    StoreFreshRecord(kPlant);
    const std::vector<std::string> lines = TimerRunAgainst(manager, server);
    EXPECT_TRUE(test::HasLogLineStarting(lines, "D", kTag, "retry. schedule_update_time_ ["));
    EXPECT_FALSE(test::HasLogLineStarting(lines, "E", kTag, "Update schedule failed. Stop retry."));
    std::shared_ptr<TimeStamp> next = manager.GetScheduleUpdateTime();
    ASSERT_NE(nullptr, next);
    const std::int64_t failedAt = NowSeconds();
    EXPECT_EQ(failedAt + 1800 + RetryPolicy::SpreadSeconds(kPlant, 1800), next->EpochSeconds());
    // The second failure waits about twice as long.
    time_->AdvanceUntil([&] { return server.Requests().size() >= 2; }, 3 * 3600 * 1000LL);
    ASSERT_EQ(2u, server.Requests().size());
    next = manager.GetScheduleUpdateTime();
    ASSERT_NE(nullptr, next);
    EXPECT_EQ(NowSeconds() + 3600 + RetryPolicy::SpreadSeconds(kPlant, 3600), next->EpochSeconds());
}

TEST_F(ScheduleUpdateManagerTest, RetryAfterOfTheServerIsHonoured) {
    UseLoggerSettings("<OutputScheduleMonitoringInterval>1</OutputScheduleMonitoringInterval>");
    std::string busy = HttpTestServer::Answer(503, "text/plain", "busy");
    busy.insert(busy.find("\r\n") + 2, "Retry-After: 120\r\n");
    HttpTestServer server(busy);
    ScheduleUpdateManager& manager = SimulatedManager(kPlant, server.Url("/s"));
    StoreFreshRecord(kPlant);
    TimerRunAgainst(manager, server);
    std::shared_ptr<TimeStamp> next = manager.GetScheduleUpdateTime();
    ASSERT_NE(nullptr, next);
    EXPECT_EQ(NowSeconds() + 120, next->EpochSeconds());
}

TEST_F(ScheduleUpdateManagerTest, SuccessEndsTheBackOff) {
    UseLoggerSettings("<OutputScheduleMonitoringInterval>1</OutputScheduleMonitoringInterval>");
    HttpTestServer server({HttpTestServer::Answer(503, "text/plain", "busy"),
                           test::ScheduleServerAnswer(update_, test::kUpdateSchedule)});
    ScheduleUpdateManager& manager = SimulatedManager(kPlant, server.Url("/s"));
    StoreFreshRecord(kPlant);
    TimerRunAgainst(manager, server);
    EXPECT_EQ(1, manager.GetUpdateHistory().failures);
    ASSERT_TRUE(time_->AdvanceUntil([&] { return server.Requests().size() >= 2; }, 3 * 3600 * 1000LL));
    EXPECT_EQ(0, manager.GetUpdateHistory().failures);
    // The payload's next update time (tomorrow's midnight), stepped on by
    // half hours should the back-off have passed it.
    ASSERT_NE(nullptr, manager.GetScheduleUpdateTime());
    EXPECT_EQ(RetryPolicy::SteppedServerTime(tomorrow_, NowSeconds()), manager.GetScheduleUpdateTime()->EpochSeconds());
}

TEST_F(ScheduleUpdateManagerTest, ClockSetBackPlansTheStoredTimeAtOnce) {
    UseLoggerSettings("<OutputScheduleMonitoringInterval>1</OutputScheduleMonitoringInterval>");
    HttpTestServer server(test::ScheduleServerAnswer(update_, test::kUpdateSchedule));
    ScheduleUpdateManager& manager = SimulatedManager(kPlant, server.Url("/s"));
    StoreFreshRecord(kPlant);
    // Booted a day and seven hours ahead of the stored next update time.
    const std::int64_t stored = NowSeconds() + 600;
    StoreNextUpdateTime(stored);
    time_->StepWall((31 * 3600) * 1000000LL);
    manager.Start();
    ASSERT_GT(manager.GetScheduleUpdateTime()->EpochSeconds(), stored + 30 * 3600);
    // The clock is put right: the stored time is planned at once and kept.
    time_->StepWall(-(31 * 3600) * 1000000LL);
    ASSERT_NE(nullptr, manager.GetScheduleUpdateTime());
    EXPECT_EQ(stored, manager.GetScheduleUpdateTime()->EpochSeconds());
    ASSERT_TRUE(time_->AdvanceUntil([&] { return !server.Requests().empty(); }, 700 * 1000));
    EXPECT_EQ(stored, NowSeconds());
    EXPECT_TRUE(
        test::HasLogLine(LogLines(), "I", kTag, "The clock was set by [-111600 s]; the alarms are planned again."));
}

TEST_F(ScheduleUpdateManagerTest, ClockSetForwardPastTheUpdateTimeFetchesAtOnce) {
    UseLoggerSettings("<OutputScheduleMonitoringInterval>1</OutputScheduleMonitoringInterval>");
    HttpTestServer server(test::ScheduleServerAnswer(update_, test::kUpdateSchedule));
    ScheduleUpdateManager& manager = SimulatedManager(kPlant, server.Url("/s"));
    StoreFreshRecord(kPlant);
    StoreNextUpdateTime(NowSeconds() + 3600);
    manager.Start();
    time_->StepWall(2 * 3600 * 1000000LL);
    ASSERT_TRUE(time_->AdvanceUntil([&] { return !server.Requests().empty(); }, 3000));
}

// A plant whose record could not be written (a full card when it was set)
// still has its update attempts planned; the first that succeeds writes
// the record.
TEST_F(ScheduleUpdateManagerTest, PlantWithoutARecordStillHasAnUpdateAttemptPlanned) {
    HttpTestServer server(test::ScheduleServerAnswer(update_, test::kUpdateSchedule));
    ScheduleUpdateManager& manager = SimulatedManager(kPlant, server.Url("/s"));
    manager.DeleteAllUpdateControlInfoFromDB();
    manager.Start();
    ASSERT_NE(nullptr, manager.GetScheduleUpdateTime());
    EXPECT_LE(manager.GetScheduleUpdateTime()->EpochSeconds(), NowSeconds() + 1800);
    ASSERT_TRUE(time_->AdvanceUntil([&] { return !server.Requests().empty(); }, 3600 * 1000LL));
    EXPECT_EQ(kPlant, manager.GetUpdateInfo().plantId);
    EXPECT_EQ("48", StoredSlots());
}

// Stand-alone operation stops the alarms; a settings change that ends it
// (not only a restart) starts them again.
TEST_F(ScheduleUpdateManagerTest, EndOfStandAloneOperationStartsTheAlarmsAgain) {
    HttpTestServer server(test::ScheduleServerAnswer(update_, test::kUpdateSchedule));
    ScheduleUpdateManager& manager = SimulatedManager(kPlant, server.Url("/s"));
    StoreFreshRecord(kPlant);
    manager.Start();
    ASSERT_NE(nullptr, manager.GetScheduleUpdateTime());
    bool started = false;
    test::WriteSystemSetting(kPlant, server.Url("/s"), true);
    EXPECT_TRUE(manager.CheckAndUpdateWithSystemSetting(started, false)->IsResult());
    EXPECT_EQ(nullptr, manager.GetScheduleUpdateTime());
    test::WriteSystemSetting(kPlant, server.Url("/s"), false);
    EXPECT_TRUE(manager.CheckAndUpdateWithSystemSetting(started, false)->IsResult());
    EXPECT_FALSE(started);
    ASSERT_NE(nullptr, manager.GetScheduleUpdateTime());
    EXPECT_EQ(NowSeconds() + 3, manager.GetScheduleUpdateTime()->EpochSeconds());
    EXPECT_TRUE(server.Requests().empty());
}

// The lanes of a simulated time outlive the manager: a step of the clock
// after it is gone reaches nothing.
TEST_F(ScheduleUpdateManagerTest, ClockStepAfterTheManagerIsGoneReachesNothing) {
    SimulatedManager(kPlant, "http://127.0.0.1:1/");
    ScheduleUpdateManager::DeleteInstance();
    time_->StepWall(3600 * 1000000LL);
    EXPECT_FALSE(test::HasLogLineStarting(LogLines(), "I", kTag, "The clock was set by"));
}

TEST_F(ScheduleUpdateManagerTest, StopCancelsASleepingCallback) {
    UseLoggerSettings("<OutputScheduleMonitoringInterval>1</OutputScheduleMonitoringInterval>");
    HttpTestServer server(HttpTestServer::Answer(503, "text/plain", "busy"));
    ScheduleUpdateManager& manager = SimulatedManager(kPlant, server.Url("/s"));
    StoreFreshRecord(kPlant);
    StoreNextUpdateTime(NowSeconds() + 2);
    manager.Start();
    // The tick after one second finds the update a second away and waits
    // for it; the stop ends that wait.
    time_->Advance(1200);
    ASSERT_TRUE(test::HasLogLine(LogLines(), "D", kTag, "sleep"));
    manager.Stop();
    time_->Advance(5000);
    EXPECT_TRUE(server.Requests().empty());
    EXPECT_TRUE(test::HasLogLine(LogLines(), "D", kTag, "Cancel 2"));
    EXPECT_EQ(nullptr, manager.GetScheduleUpdateTime());
}

TEST_F(ScheduleUpdateManagerTest, FixedScheduleTriesAgainTheNextDayAfterFiveFailures) {
    UseLoggerSettings("<OutputScheduleMonitoringInterval>60</OutputScheduleMonitoringInterval>");
    HttpTestServer server(HttpTestServer::Answer(500, "text/plain", "down"));
    ScheduleUpdateManager& manager = FixedAlarmAtHalfPastThree(server);
    const std::int64_t day = NowSeconds() / 86400 * 86400;
    ASSERT_EQ(day + 15 * 3600 + 40 * 60, manager.GetFixedScheduleUpdateTime()->EpochSeconds());
    ASSERT_TRUE(time_->AdvanceUntil([&] { return server.Requests().size() >= 5; }, 3600 * 1000));
    // Five minutes apart on the clock (the first at the tick that finds the
    // time come).
    EXPECT_GE(NowSeconds(), day + 15 * 3600 + 40 * 60 + 4 * 300);
    EXPECT_LT(NowSeconds(), day + 15 * 3600 + 40 * 60 + 4 * 300 + 62);
    const std::vector<std::string> lines = LogLines();
    for (int attempt = 1; attempt <= 4; ++attempt) {
        EXPECT_TRUE(
            test::HasLogLine(lines, "E", kTag, "Fixed schedule update retry. [" + std::to_string(attempt) + "]"));
    }
    const std::int64_t tomorrow = day + 86400 + 15 * 3600 + 40 * 60;
    EXPECT_TRUE(test::HasLogLine(lines, "E", kTag,
                                 "Fixed schedule update failed 5 times. Next attempt [" +
                                     TimeStamp::FromEpochSeconds(tomorrow)->FormatDisplay() + "]"));
    ASSERT_NE(nullptr, manager.GetFixedScheduleUpdateTime());
    EXPECT_EQ(tomorrow, manager.GetFixedScheduleUpdateTime()->EpochSeconds());
    time_->Advance(3600 * 1000);
    EXPECT_EQ(5u, server.Requests().size());
    ASSERT_TRUE(time_->AdvanceUntil([&] { return server.Requests().size() >= 6; }, 24 * 3600 * 1000LL));
    EXPECT_GE(NowSeconds(), tomorrow);
    EXPECT_LT(NowSeconds(), tomorrow + 61);
}

TEST_F(ScheduleUpdateManagerTest, FixedScheduleNotWorthRetryingTriesTheNextDay) {
    UseLoggerSettings("<OutputScheduleMonitoringInterval>60</OutputScheduleMonitoringInterval>");
    HttpTestServer server(HttpTestServer::Answer(404, "text/plain", "gone"));
    ScheduleUpdateManager& manager = FixedAlarmAtHalfPastThree(server);
    const std::int64_t day = NowSeconds() / 86400 * 86400;
    ASSERT_TRUE(time_->AdvanceUntil([&] { return !server.Requests().empty(); }, 3600 * 1000));
    time_->Advance(3600 * 1000);
    EXPECT_EQ(1u, server.Requests().size());
    EXPECT_TRUE(test::HasLogLineStarting(LogLines(), "E", kTag, "Update fixed schedule failed. Stop retry. "));
    ASSERT_NE(nullptr, manager.GetFixedScheduleUpdateTime());
    EXPECT_EQ(day + 86400 + 15 * 3600 + 40 * 60, manager.GetFixedScheduleUpdateTime()->EpochSeconds());
}

TEST_F(ScheduleUpdateManagerTest, FixedDataOfAnotherPlantNeedsForce) {
    ScheduleUpdateManager& manager = Manager("", "");
    test::ScheduleRecord first = fixed_;
    first.plantId = "111";
    auto model = std::make_shared<ScheduleModel>(test::BuildSchedulePayload({first}, 0).hex, 0);
    std::shared_ptr<UpdateResult> result = manager.UpdateWithFixedData(model, false);
    ASSERT_TRUE(result->IsResult());
    EXPECT_TRUE(result->IsSettingChanged());
    test::ScheduleRecord second = fixed_;
    second.plantId = "222";
    auto other = std::make_shared<ScheduleModel>(test::BuildSchedulePayload({second}, 0).hex, 0);
    result = manager.UpdateWithFixedData(other, false);
    EXPECT_EQ(7, ToWire(result->GetFailureReason()));
    EXPECT_EQ("[00000000000000000000000111] : [00000000000000000000000222]", result->GetMessage());
    result = manager.UpdateWithFixedData(other, true);
    ASSERT_TRUE(result->IsResult());
    EXPECT_TRUE(result->IsSettingChanged());
    EXPECT_EQ("00000000000000000000000222", result->GetPlantId());
    // Same plant again: already stand-alone, nothing changed.
    result = manager.UpdateWithFixedData(other, false);
    ASSERT_TRUE(result->IsResult());
    EXPECT_FALSE(result->IsSettingChanged());
}

// A flow that only touches the tables (a client's fixed schedule) must not
// wait for a fetch that waits on the schedule server.
TEST_F(ScheduleUpdateManagerTest, FixedDataIsStoredWhileAnUpdateFetchWaitsOnTheServer) {
    // Declared before the server: the server's end lets a stalled fetch
    // finish, whatever happens in the test.
    FlowResult fetch;
    HttpTestServer server(test::ScheduleServerAnswer(update_, test::kUpdateSchedule), kStalledMs);
    ScheduleUpdateManager& manager = Manager(kPlant, server.Url("/s"));
    fetch = UpdateOnAnotherThread();
    ASSERT_TRUE(test::WaitFor([&] { return server.Requests().size() == 1; }, 10000));
    auto model = std::make_shared<ScheduleModel>(test::BuildSchedulePayload({fixed_}, test::kFixedSchedule).hex, 0);
    ASSERT_TRUE(model->IsResult()) << model->GetMessage();
    FlowResult stored =
        std::async(std::launch::async, [&manager, model] { return manager.UpdateWithFixedData(model, false); });
    const bool storedInTime = stored.wait_for(Scaled(3000)) == std::future_status::ready;
    // Ends the fetch, and with it a wait on it.
    manager.Shutdown();
    ASSERT_TRUE(storedInTime) << "the fixed data waited on the fetch";
    const std::shared_ptr<UpdateResult> result = stored.get();
    EXPECT_TRUE(result->IsResult()) << result->ToString();
    EXPECT_EQ("48", StoredSlots());
    EXPECT_EQ(kPlant, manager.GetUpdateInfo().plantId);
    ASSERT_EQ(std::future_status::ready, fetch.wait_for(Scaled(5000)));
}

TEST_F(ScheduleUpdateManagerTest, UnchangedPlantIsCheckedWhileAnUpdateFetchWaitsOnTheServer) {
    FlowResult fetch;
    HttpTestServer server(test::ScheduleServerAnswer(update_, test::kUpdateSchedule), kStalledMs);
    ScheduleUpdateManager& manager = Manager(kPlant, server.Url("/s"));
    ScheduleRow row;
    row.time = tomorrow_;
    row.controlRate = 5;
    ASSERT_TRUE(manager.UpdateWithFixedSchedule({row}, kPlant));
    fetch = UpdateOnAnotherThread();
    ASSERT_TRUE(test::WaitFor([&] { return server.Requests().size() == 1; }, 10000));
    bool started = false;
    FlowResult checked = std::async(
        std::launch::async, [&manager, &started] { return manager.CheckAndUpdateWithSystemSetting(started, true); });
    const bool checkedInTime = checked.wait_for(Scaled(3000)) == std::future_status::ready;
    manager.Shutdown();
    ASSERT_TRUE(checkedInTime) << "the settings check waited on the fetch";
    const std::shared_ptr<UpdateResult> result = checked.get();
    EXPECT_TRUE(result->IsResult()) << result->ToString();
    EXPECT_FALSE(started);
    // The plant is the same: nothing was wiped, and no second fetch ran.
    EXPECT_EQ("1", StoredSlots());
    EXPECT_EQ(kPlant, manager.GetUpdateInfo().plantId);
    EXPECT_EQ(1u, server.Requests().size());
    ASSERT_EQ(std::future_status::ready, fetch.wait_for(Scaled(5000)));
}

// The daemon stops within half a second: a fetch waiting on a server that
// never answers must end at once when the manager shuts down.
TEST_F(ScheduleUpdateManagerTest, ShutdownEndsAnUpdateWaitingOnAStalledServer) {
    FlowResult fetch;
    HttpTestServer server(test::ScheduleServerAnswer(update_, test::kUpdateSchedule), kStalledMs);
    ScheduleUpdateManager& manager = Manager(kPlant, server.Url("/s"));
    fetch = UpdateOnAnotherThread();
    ASSERT_TRUE(test::WaitFor([&] { return server.Requests().size() == 1; }, 10000));
    const Poco::Timestamp stopping;
    manager.Shutdown();
    EXPECT_TRUE(manager.IsShuttingDown());
    ASSERT_EQ(std::future_status::ready, fetch.wait_for(Scaled(3000)));
    EXPECT_LT(stopping.elapsed(), 3000 * 1000 * test::TimeScale());
    const std::shared_ptr<UpdateResult> result = fetch.get();
    ASSERT_NE(nullptr, result);
    EXPECT_FALSE(result->IsResult());
    EXPECT_EQ(1, ToWire(result->GetFailureReason()));
    EXPECT_EQ("0", StoredSlots());
    EXPECT_EQ("", manager.GetUpdateInfo().plantId);
    EXPECT_TRUE(test::HasLogLineStarting(LogLines(), "W", kTag, "Schedule update failed. [ServerAccessResult [false]"));
}

TEST_F(ScheduleUpdateManagerTest, FetchAfterShutdownFailsWithoutAskingTheServer) {
    HttpTestServer server(test::ScheduleServerAnswer(update_, test::kUpdateSchedule));
    ScheduleUpdateManager& manager = Manager(kPlant, server.Url("/s"));
    manager.Shutdown();
    FlowResult fetch = UpdateOnAnotherThread();
    ASSERT_EQ(std::future_status::ready, fetch.wait_for(Scaled(3000)));
    const std::shared_ptr<UpdateResult> result = fetch.get();
    ASSERT_NE(nullptr, result);
    EXPECT_EQ(1, ToWire(result->GetFailureReason()));
    EXPECT_EQ("0", StoredSlots());
    // The server takes one connection after the other: had the aborted
    // exchange connected, it would stand before this probe of ours.
    Poco::Net::HTTPClientSession probe("127.0.0.1", static_cast<Poco::UInt16>(server.Port()));
    Poco::Net::HTTPRequest request(Poco::Net::HTTPRequest::HTTP_POST, "/probe");
    request.setContentLength(0);
    probe.sendRequest(request);
    Poco::Net::HTTPResponse response;
    probe.receiveResponse(response);
    ASSERT_EQ(1u, server.Requests().size());
    EXPECT_NE(std::string::npos, server.Requests()[0].requestLine.find("/probe"));
}

TEST_F(ScheduleUpdateManagerTest, ShutdownEndsAForwardingWaitingOnASilentLoggerDaemon) {
    // Declared before the logger daemon: its end lets a stalled forwarding
    // finish, whatever happens in the test.
    std::future<int> forwarded;
    test::WriteFile(test::FixedPath("/mnt/system/brvlogger/.keep"), "");
    test::UnixPeer logger(test::FixedPath("/mnt/system/brvlogger/brevanta.logger"), test::UnixPeer::kSilent, "", 8);
    ScheduleUpdateManager& manager = Manager(kPlant, "http://127.0.0.1:1/");
    forwarded = std::async(std::launch::async, [] {
        ScheduleUpdateManager::Pin pinned;
        return pinned ? pinned->SendScheduleData() : -1;
    });
    ASSERT_TRUE(test::WaitFor([&] { return logger.Received().size() == 1; }, 10000));
    manager.Shutdown();
    ASSERT_EQ(std::future_status::ready, forwarded.wait_for(Scaled(3000)));
    EXPECT_EQ(1, forwarded.get());
}

// A fetch begun for a plant that is gone by the time the answer comes must
// not bring that plant's schedule back into the emptied tables.
TEST_F(ScheduleUpdateManagerTest, AnswerOfAFetchBegunBeforeTheTablesWereEmptiedIsNotStored) {
    FlowResult fetch;
    HttpTestServer server(test::ScheduleServerAnswer(update_, test::kUpdateSchedule),
                          static_cast<int>(2000 * test::TimeScale()));
    ScheduleUpdateManager& manager = Manager(kPlant, server.Url("/s"));
    fetch = UpdateOnAnotherThread();
    ASSERT_TRUE(test::WaitFor([&] { return server.Requests().size() == 1; }, 10000));
    ASSERT_EQ(std::future_status::timeout, fetch.wait_for(std::chrono::milliseconds(0)));
    manager.DeleteAllUpdateControlInfoFromDB();
    ASSERT_EQ(std::future_status::ready, fetch.wait_for(Scaled(10000)));
    const std::shared_ptr<UpdateResult> result = fetch.get();
    ASSERT_NE(nullptr, result);
    // The answer did come (status 200) and was dropped.
    EXPECT_EQ(5, ToWire(result->GetFailureReason()));
    EXPECT_EQ(200, result->GetStatusCode());
    EXPECT_EQ("Database update error.", result->GetMessage());
    EXPECT_EQ("0", StoredSlots());
    EXPECT_EQ("", manager.GetUpdateInfo().plantId);
    EXPECT_TRUE(test::HasLogLine(LogLines(), "W", kTag,
                                 "Schedule update failed. The stored schedule was reset while it was fetched."));
}

TEST_F(ScheduleUpdateManagerTest, AnswerOfAFetchForAPlantRemovedFromTheSettingsMeanwhileIsNotStored) {
    FlowResult fetch;
    HttpTestServer server(test::ScheduleServerAnswer(update_, test::kUpdateSchedule),
                          static_cast<int>(2000 * test::TimeScale()));
    ScheduleUpdateManager& manager = Manager(kPlant, server.Url("/s"));
    fetch = UpdateOnAnotherThread();
    ASSERT_TRUE(test::WaitFor([&] { return server.Requests().size() == 1; }, 10000));
    ASSERT_EQ(std::future_status::timeout, fetch.wait_for(std::chrono::milliseconds(0)));
    test::WriteFile(test::SystemSettingPath(), "<logger><general><outputControlPlantId></outputControlPlantId>"
                                               "</general></logger>");
    bool started = false;
    EXPECT_TRUE(manager.CheckAndUpdateWithSystemSetting(started, false)->IsResult());
    EXPECT_FALSE(started);
    ASSERT_EQ(std::future_status::ready, fetch.wait_for(Scaled(10000)));
    const std::shared_ptr<UpdateResult> result = fetch.get();
    ASSERT_NE(nullptr, result);
    EXPECT_EQ(5, ToWire(result->GetFailureReason()));
    EXPECT_EQ(200, result->GetStatusCode());
    EXPECT_EQ("0", StoredSlots());
    EXPECT_EQ("", manager.GetUpdateInfo().plantId);
    EXPECT_EQ(1u, server.Requests().size());
}

TEST_F(ScheduleUpdateManagerTest, AnswerOfAFixedFetchBegunBeforeTheTablesWereEmptiedIsNotStored) {
    FlowResult fetch;
    HttpTestServer server(test::ScheduleServerAnswer(fixed_, test::kFixedSchedule),
                          static_cast<int>(2000 * test::TimeScale()));
    ScheduleUpdateManager& manager = Manager(kPlant, server.Url("/s"));
    ScheduleRow row;
    row.time = tomorrow_;
    row.controlRate = 5;
    ASSERT_TRUE(manager.UpdateWithFixedSchedule({row}, kPlant));
    fetch = UpdateOnAnotherThread(&ScheduleUpdateManager::UpdateFixedSchedule);
    ASSERT_TRUE(test::WaitFor([&] { return server.Requests().size() == 1; }, 10000));
    ASSERT_EQ(std::future_status::timeout, fetch.wait_for(std::chrono::milliseconds(0)));
    manager.DeleteAllUpdateControlInfoFromDB();
    ASSERT_EQ(std::future_status::ready, fetch.wait_for(Scaled(10000)));
    const std::shared_ptr<UpdateResult> result = fetch.get();
    ASSERT_NE(nullptr, result);
    EXPECT_EQ(5, ToWire(result->GetFailureReason()));
    EXPECT_EQ(200, result->GetStatusCode());
    EXPECT_EQ("0", StoredSlots());
    EXPECT_EQ("", manager.GetUpdateInfo().plantId);
    EXPECT_TRUE(test::HasLogLine(LogLines(), "W", kTag,
                                 "Fixed schedule update failed. The stored schedule was reset while it was fetched."));
}

TEST_F(ScheduleUpdateManagerTest, DeleteInstanceReturnsPromptlyWhileAFlowWaitsOnAStalledServer) {
    FlowResult fetch;
    HttpTestServer server(test::ScheduleServerAnswer(update_, test::kUpdateSchedule), kStalledMs);
    Manager(kPlant, server.Url("/s"));
    fetch = UpdateOnAnotherThread();
    ASSERT_TRUE(test::WaitFor([&] { return server.Requests().size() == 1; }, 10000));
    const Poco::Timestamp deleting;
    ScheduleUpdateManager::DeleteInstance();
    EXPECT_LT(deleting.elapsed(), 1000 * 1000 * test::TimeScale());
    EXPECT_EQ(nullptr, ScheduleUpdateManager::GetInstance());
    ASSERT_EQ(std::future_status::ready, fetch.wait_for(Scaled(3000)));
    const std::shared_ptr<UpdateResult> result = fetch.get();
    ASSERT_NE(nullptr, result);
    EXPECT_EQ(1, ToWire(result->GetFailureReason()));
    EXPECT_EQ("0", StoredSlots());
}

TEST_F(ScheduleUpdateManagerTest, PinHoldsTheInstanceOrNothing) {
    {
        ScheduleUpdateManager::Pin none;
        EXPECT_FALSE(none);
        EXPECT_EQ(nullptr, none.get());
    }
    ScheduleUpdateManager& manager = Manager("", "");
    ScheduleUpdateManager::Pin pinned;
    EXPECT_TRUE(pinned);
    EXPECT_EQ(&manager, pinned.get());
}

TEST_F(ScheduleUpdateManagerTest, DeleteInstanceWaitsForAPinThatGoesSoon) {
    Manager("", "");
    std::promise<bool> taken;
    std::future<bool> pinnedFirst = taken.get_future();
    std::future<void> user = std::async(std::launch::async, [&taken] {
        ScheduleUpdateManager::Pin pinned;
        taken.set_value(static_cast<bool>(pinned));
        // Let go once the deletion has begun (it takes the instance away
        // first), so that it has to wait for this pin.
        test::WaitFor([] { return ScheduleUpdateManager::GetInstance() == nullptr; }, 10000);
    });
    ASSERT_TRUE(pinnedFirst.get());
    ScheduleUpdateManager::DeleteInstance();
    ASSERT_EQ(std::future_status::ready, user.wait_for(Scaled(3000)));
    EXPECT_EQ(nullptr, ScheduleUpdateManager::GetInstance());
    EXPECT_FALSE(
        test::HasLogLine(LogLines(), "W", kTag, "A schedule flow did not end in time; it is left to the exit."));
}

// The stop must not hang on a user that does not let go (a name lookup
// cannot be aborted): the manager is left to the process exit instead of
// being freed under that user.
TEST_F(ScheduleUpdateManagerTest, DeleteInstanceLeavesAManagerThatIsStillPinned) {
    Manager("", "");
    ScheduleUpdateManager::Pin pinned;
    ASSERT_TRUE(pinned);
    const Poco::Timestamp deleting;
    ScheduleUpdateManager::DeleteInstance();
    EXPECT_GE(deleting.elapsed(), (ScheduleUpdateManager::kDeleteWaitMs - 50) * 1000);
    EXPECT_LT(deleting.elapsed(), 1000 * 1000 * test::TimeScale());
    EXPECT_EQ(nullptr, ScheduleUpdateManager::GetInstance());
    ScheduleUpdateManager::Pin late;
    EXPECT_FALSE(late);
    // Still a live object for the one who pinned it.
    EXPECT_TRUE(pinned->IsShuttingDown());
    EXPECT_EQ("", pinned->GetUpdateInfo().plantId);
    EXPECT_TRUE(
        test::HasLogLine(LogLines(), "W", kTag, "A schedule flow did not end in time; it is left to the exit."));
}

} // namespace
} // namespace brvo
