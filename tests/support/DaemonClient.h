// Talks to a running pvocd the way its local clients do: the binary
// requests of the command socket and their answers, the settings files it
// reads, and the schedule server's answers it expects. Shared by the system
// tests that run the real daemon.
#ifndef BRVO_TESTS_SUPPORT_DAEMONCLIENT_H
#define BRVO_TESTS_SUPPORT_DAEMONCLIENT_H

#include "server/CommandWire.h"
#include "support/ChildProcess.h"
#include "support/CommandClient.h"
#include "support/SchedulePayload.h"
#include "support/StoredSchedule.h"

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace brvo {
namespace test {

// The logger daemon's socket with the default settings (one copy per unit,
// so usable in its static objects).
const std::string kLoggerSocket = "/mnt/system/brvlogger/brevanta.logger";

// Request types of the command socket, under the names the system tests use.
const std::int32_t kUpdateScheduleRequest = CommandWire::kUpdateSchedule;
const std::int32_t kCheckPlantIdRequest = CommandWire::kCheckPlantId;
const std::int32_t kUpdateFixedScheduleRequest = CommandWire::kUpdateFixedSchedule;
const std::int32_t kChangeSettingRequest = CommandWire::kChangeSettingNotify;
const std::int32_t kCurrentTargetPowerRequest = CommandWire::kCurrentTargetPower;
const std::int32_t kNextTargetPowerRequest = CommandWire::kNextTargetPower;
const std::int32_t kFlushLogRequest = CommandWire::kFlushLog;

// Sizes of the answers.
const std::size_t kUpdateAnswerSize = CommandWire::kUpdateAnswerSize;
const std::size_t kTargetPowerAnswerSize = CommandWire::kTargetAnswerSize;

// Connects to the daemon's command socket and sends one request of `type`
// with `params`; returns the connection, or -1 (with a test failure) when
// it cannot connect.
int SendRequest(std::int32_t type, const std::string& params = "");
// Reads the whole answer from `connection` (until the daemon closes it, or
// nothing arrives for `silenceMs`) and closes it. Empty for -1.
std::string ReadAnswer(int connection, int silenceMs = 30000);
// Sends one request of `type` with `params` to the daemon's command socket
// and returns its whole answer: empty when it closed without one, or when
// nothing arrived for `silenceMs`. Fails the test when it cannot connect.
std::string Ask(std::int32_t type, const std::string& params = "", int silenceMs = 30000);

// `utcSeconds` in server time (UTC+9) formatted with `pattern`.
std::string ServerTime(std::int64_t utcSeconds, const std::string& pattern);
// An update schedule for plant "777" from yesterday 00:00 UTC on: `slots`
// slots of `rate` percent (so that a slot is current whenever a test
// runs), fixed flag 3, the next update due tomorrow 00:00 UTC.
ScheduleRecord CurrentUpdateRecord(int rate, std::size_t slots = 3 * 48);
// A fixed schedule for the same plant: one day of `rate` percent starting
// `daysAhead` days after today 00:00 UTC.
ScheduleRecord FixedRecordAhead(int rate, int daysAhead);

// Starts the daemon with its output in `outputPath` and the environment
// of the test plus `env`, and waits until its command socket accepts
// clients. A stale socket file of an earlier run is removed first, so that
// it is not taken for the new one. False (with a test failure naming the
// output) when it does not come up.
bool StartDaemon(ChildProcess& daemon, const std::string& outputPath,
                 const std::map<std::string, std::string>& env = {});
// The same with `command` run in place of the daemon's own command line
// (for example the daemon behind a wrapper that sets its limits).
bool StartDaemon(ChildProcess& daemon, const std::vector<std::string>& command, const std::string& outputPath,
                 const std::map<std::string, std::string>& env = {});

} // namespace test
} // namespace brvo

#endif
