// The real pvocd with a stored schedule, for tests of what a schedule
// server can do to it: starts the daemon against a good server, keeps what
// it stored, and checks afterwards that it was kept, that the daemon still
// answers and that a good server is still taken.
#ifndef BRVO_TESTS_SYSTEM_SCHEDULESERVERFIXTURE_H
#define BRVO_TESTS_SYSTEM_SCHEDULESERVERFIXTURE_H

#include "support/ChildProcess.h"
#include "support/HttpTestServer.h"
#include "support/SchedulePayload.h"
#include "support/UnixPeer.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace brvo {
namespace test {

// The plant of the stored schedule.
const std::string kServerTestPlant = "00000000000000000000000777";
// The rate of every stored slot.
const int kStoredRate = 60;
// Slots of the stored update schedule: yesterday to the end of tomorrow.
const std::size_t kStoredSlots = 3 * 48;
// Bytes of a payload before the first rate: record count, reserved, plant
// ID, start and slot count.
const std::size_t kBytesBeforeRates = 6 + 10 + 26 + 12 + 5;
// The start of the access failure's message.
const std::string kAccessFailed = "schedule server access failed. EXCEPTION[";
// The start of the warning of an update whose exchange failed.
const std::string kAccessLogged = "Schedule update failed. [ServerAccessResult [false]";

// A schedule from yesterday to the end of tomorrow (UTC), so that a slot is
// current whenever the test runs.
ScheduleRecord CoveringRecord();
// A fixed schedule after the update schedule's end.
ScheduleRecord LaterFixedRecord();
// The payload bytes of `record` as an update schedule.
std::string PayloadText(const ScheduleRecord& record);
// `answer` cut after `keep` bytes of its body, whatever its header
// announces.
std::string CutBody(const std::string& answer, std::size_t keep);

class ScheduleServerFixture : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    // Starts the daemon (with `env` added to its environment) against a
    // good server and waits until it stored both schedules and forwarded
    // them.
    void StartWithStoredSchedule(const std::map<std::string, std::string>& env = {});
    // The stored schedule and update information are those stored at
    // start.
    void ExpectNothingStored();
    // The current target power is the stored slot's, at once.
    static void ExpectCurrentTargetPower();
    // An update request against a good server succeeds again.
    void ExpectUpdateWorksAgain();
    // Whether the daemon's log shows a warning of the schedule update
    // manager that begins with `prefix` (waiting a little for it).
    static bool LogHasWarning(const std::string& prefix);

    ChildProcess daemon_;
    std::unique_ptr<UnixPeer> logger_;
    std::unique_ptr<HttpTestServer> good_;
    std::vector<std::vector<std::string>> schedule_;
    std::vector<std::vector<std::string>> info_;
};

} // namespace test
} // namespace brvo

#endif
