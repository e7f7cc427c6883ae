// The real pvocd storing schedule after schedule while clients ask for the
// current target power: every answer is the rate of one stored schedule,
// the one before a store or the one after it, and never "no schedule" from
// a table caught between its delete and its insert.
#include "server/CommandWire.h"
#include "support/DaemonClient.h"
#include "support/HttpTestServer.h"
#include "support/TestFiles.h"
#include "system/ScheduleServerFixture.h"

#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <string>
#include <thread>
#include <vector>

namespace brvo {
namespace {

using test::Ask;
using test::Capacity;
using test::HttpTestServer;
using test::PowerOf;
using test::ScheduleServerAnswer;
using test::WordAt;

// Requests that race the stores, at least; stores made meanwhile.
const int kRequests = 10000;
const int kStores = 20;
// The two rates the stores take turns with.
const int kRates[] = {10, 20};

// The answer of an update request that fetched and stored.
const std::string kSuccess = test::UpdateAnswer(CommandWire::kUpdateSchedule);

class StoreRaceTest : public test::ScheduleServerFixture {};

TEST_F(StoreRaceTest, RequestsDuringStoresGetTheOldScheduleOrTheNew) {
    StartWithStoredSchedule();
    if (HasFatalFailure()) return;
    // Each update request fetches an update schedule (rates taking turns)
    // and then the fixed schedule.
    std::vector<std::string> answers;
    for (int store = 0; store < kStores; ++store) {
        answers.push_back(ScheduleServerAnswer(test::CurrentUpdateRecord(kRates[store % 2]), test::kUpdateSchedule));
        answers.push_back(ScheduleServerAnswer(test::LaterFixedRecord(), test::kFixedSchedule));
    }
    HttpTestServer server(answers);
    test::WriteSystemSetting(test::kServerTestPlant, server.Url("/schedule"), false);

    // The stores are spread over the requests: each waits for its share of
    // them to be answered.
    std::atomic<int> stored(0);
    std::atomic<int> answered(0);
    std::atomic<bool> failed(false);
    std::atomic<bool> asking(true);
    std::thread updater([&] {
        for (int store = 0; store < kStores && !failed; ++store) {
            while (asking && answered < store * (kRequests / kStores)) std::this_thread::yield();
            if (Ask(test::kUpdateScheduleRequest) != kSuccess) failed = true;
            ++stored;
        }
    });
    // The rate of every answer: the start's, or one of the two stored.
    std::map<int, int> seen;
    while (answered < kRequests || (stored < kStores && !failed)) {
        const std::string answer = Ask(test::kCurrentTargetPowerRequest, Capacity(100.0));
        ++answered;
        if (answer.size() != test::kTargetPowerAnswerSize || WordAt(answer, CommandWire::kTargetCodeOffset) != 0) {
            ADD_FAILURE() << "request " << answered << ": " << answer.size() << " bytes"
                          << (answer.size() == test::kTargetPowerAnswerSize
                                  ? ", " + answer.substr(CommandWire::kTargetMessageOffset)
                                  : "");
            break;
        }
        ++seen[static_cast<int>(PowerOf(answer))];
    }
    asking = false;
    updater.join();
    EXPECT_FALSE(failed);
    EXPECT_EQ(kStores, stored);
    for (const auto& rate : seen) {
        EXPECT_TRUE(rate.first == test::kStoredRate || rate.first == kRates[0] || rate.first == kRates[1])
            << rate.second << " answers with a rate of " << rate.first;
    }
    EXPECT_GT(seen[kRates[0]], 0);
    EXPECT_GT(seen[kRates[1]], 0);
    // The last store's rate holds once the stores are done.
    EXPECT_DOUBLE_EQ(static_cast<double>(kRates[(kStores - 1) % 2]),
                     PowerOf(Ask(test::kCurrentTargetPowerRequest, Capacity(100.0))));
}

} // namespace
} // namespace brvo
