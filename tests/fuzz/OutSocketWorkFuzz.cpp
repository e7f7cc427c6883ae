// Fuzz target of the command socket's request handling: the input is what a
// local client writes. It goes into one end of a socket pair whose writing
// side is then shut down, so the handler's reads see the end of the data
// instead of waiting; the handler runs on the other end and its answer is
// read and checked for its fixed layout. What follows the longest request
// (a fixed-schedule request, 265 bytes) is never read from the socket; it
// becomes the content of the fixed-schedule file input.hex, so a request
// naming that file hands in a schedule of the fuzzer's making.
//
// The requests reach the schedule update manager, the schedule server, the
// logger daemon and the databases. The set-up makes every outside exchange
// fail at once: the process has a network namespace of its own (nothing an
// input names can be reached, a closed loopback port refuses), the schedule
// server of the settings is such a closed port, no logger daemon listens,
// and the databases live on the sandbox's SD card mount. The update timers
// tick only once an hour, so they stay out of a run.
//
// State carries over from one input to the next as in the daemon: the
// stored schedule and update information, the stand-alone switch set by a
// fixed schedule. A crash input may therefore need the inputs before it;
// libFuzzer's crash report names the last one.
#include "fuzz/FuzzEnvironment.h"

#include "schedule/ScheduleUpdateManager.h"
#include "server/CommandWire.h"
#include "server/OutSocketWork.h"
#include "support/SchedulePayload.h"
#include "support/SingletonScope.h"
#include "util/FileUtil.h"

#include <Poco/AutoPtr.h>
#include <Poco/DateTimeFormatter.h>
#include <Poco/Timespan.h>
#include <Poco/Timestamp.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <sys/socket.h>
#include <unistd.h>

using brvo::fuzz::FuzzEnvironment;

namespace {

// Far more than any request reads, and well within a socket pair's buffer,
// so the whole input is written before the handler runs.
const std::size_t kMaxRequestBytes = 65536;
const std::string kFixedDirectory = "/tmp/pvocd-fuzz";
const std::string kInputFile = kFixedDirectory + "/input.hex";
// Header and parameter block of a fixed-schedule request.
const std::size_t kFixedRequestBytes = brvo::CommandWire::kHeaderSize + brvo::CommandWire::kFixedScheduleSize;

// Today's start in the server's time (UTC+9), YYYYMMDD0000: a schedule from
// there is not too old to be kept and has a slot for now and the next one.
std::string TodayInServerTime() {
    const Poco::Timestamp serverNow = Poco::Timestamp() + Poco::Timespan(9 * Poco::Timespan::HOURS);
    return Poco::DateTimeFormatter::format(serverNow, "%Y%m%d") + "0000";
}

// Fixed-schedule files that seeds name: a valid one of today for the
// configured plant, one of another plant, an update schedule handed in as
// fixed, one with a wrong checksum and an empty one.
void WriteFixedScheduleFiles() {
    using namespace brvo::test;
    ScheduleRecord record;
    record.plantId = FuzzEnvironment::kPlantId;
    record.start = TodayInServerTime();
    record.rates.clear();
    for (int slot = 0; slot < 48; ++slot) record.rates.push_back(slot * 2);
    FuzzEnvironment::WriteFile(kFixedDirectory + "/valid.hex", BuildSchedulePayload({record}, kFixedSchedule).hex);
    FuzzEnvironment::WriteFile(kFixedDirectory + "/update-kind.hex",
                               BuildSchedulePayload({record}, kUpdateSchedule).hex);
    ScheduleRecord other = record;
    other.plantId = "99999999999999999999999999";
    FuzzEnvironment::WriteFile(kFixedDirectory + "/other-plant.hex", BuildSchedulePayload({other}, kFixedSchedule).hex);
    ScheduleRecord broken = record;
    broken.corruptChecksum = true;
    FuzzEnvironment::WriteFile(kFixedDirectory + "/bad-checksum.hex",
                               BuildSchedulePayload({broken}, kFixedSchedule).hex);
    FuzzEnvironment::WriteFile(kFixedDirectory + "/empty.hex", "");
}

std::uint32_t WordAt(const std::string& data, std::size_t offset) {
    std::uint32_t value = 0;
    std::memcpy(&value, data.data() + offset, sizeof value);
    return value;
}

std::string ReadToEnd(int fd) {
    std::string answer;
    char buffer[512];
    for (;;) {
        const ssize_t got = read(fd, buffer, sizeof buffer);
        if (got <= 0) break;
        answer.append(buffer, static_cast<std::size_t>(got));
    }
    return answer;
}

bool WriteAll(int fd, const std::uint8_t* data, std::size_t size) {
    while (size > 0) {
        const ssize_t written = write(fd, data, size);
        if (written <= 0) return false;
        data += written;
        size -= static_cast<std::size_t>(written);
    }
    return true;
}

// As the daemon's stop does: the manager's timers end and the log is written
// out, instead of the exit waiting for timer threads that never finish.
void TearDown() {
    brvo::test::SingletonScope::DeleteAll();
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    FuzzEnvironment::RequireSandbox("OutSocketWorkFuzz");
    FuzzEnvironment::IsolateNetwork();
    // The log keeps only fatal lines (there are none): lines kept across
    // inputs make libFuzzer check for leaks after every input, which slows
    // the run thirty times over. The messages are built all the same.
    FuzzEnvironment::SetUpSettingsAndLog("<OutputControlSocketTimeout>1</OutputControlSocketTimeout>"
                                         "<OutputScheduleMonitoringInterval>3600</OutputScheduleMonitoringInterval>"
                                         "<LogLevel>5</LogLevel>");
    FuzzEnvironment::WriteFile(brvo::FileUtil::GetSystemSettingFile(), FuzzEnvironment::SystemSettingText());
    FuzzEnvironment::WriteFile(brvo::FileUtil::GetDeviceDirectory() + "/" + FuzzEnvironment::kDeviceFile + ".xml",
                               FuzzEnvironment::DeviceText());
    FuzzEnvironment::WriteFile("/sys/class/net/eth0/address", "00:1a:2b:3c:4d:5e\n");
    WriteFixedScheduleFiles();
    // As at the daemon's start: the update information follows the settings.
    brvo::ScheduleUpdateManager::CreateInstance();
    bool started = false;
    brvo::ScheduleUpdateManager::GetInstance()->CheckAndUpdateWithSystemSetting(started, true);
    std::atexit(TearDown);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    FuzzEnvironment::WriteFile(kInputFile, size > kFixedRequestBytes ? FuzzEnvironment::Text(data + kFixedRequestBytes,
                                                                                             size - kFixedRequestBytes)
                                                                     : std::string());
    int pair[2];
    FuzzEnvironment::Check(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) == 0, "socketpair");
    FuzzEnvironment::Check(WriteAll(pair[0], data, std::min(size, kMaxRequestBytes)), "request written");
    shutdown(pair[0], SHUT_WR);

    Poco::AutoPtr<brvo::OutSocketWork> work(new brvo::OutSocketWork(pair[1]));
    work->Execute();
    FuzzEnvironment::Check(work->GetSocket() == -1, "connection left open");
    // The handler closed its end: the answer is there, or nothing is.
    const std::string answer = ReadToEnd(pair[0]);
    close(pair[0]);

    const std::size_t length = answer.size();
    FuzzEnvironment::Check(length == 0 || length == brvo::CommandWire::kUpdateAnswerSize ||
                               length == brvo::CommandWire::kFixedAnswerSize ||
                               length == brvo::CommandWire::kTargetAnswerSize,
                           "answer of unknown size");
    if (length != 0) {
        FuzzEnvironment::Check(WordAt(answer, brvo::CommandWire::kAnswerLengthOffset) == length, "answer length word");
        // A short header is read as far as it came, the rest stays zero.
        unsigned char header[8] = {0};
        if (size > 0) std::memcpy(header, data, std::min<std::size_t>(size, sizeof header));
        FuzzEnvironment::Check(std::memcmp(answer.data() + 4, header + 4, 4) == 0,
                               "answer type differs from the request type");
        // Every text field ends in a NUL: the message is the answer's tail.
        FuzzEnvironment::Check(answer[length - 1] == '\0', "message without a NUL");
    }
    return 0;
}
