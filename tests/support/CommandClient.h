// A client of the daemon's command socket for tests: builds requests in the
// device's byte order, sends one per connection and reads the whole answer,
// and takes answers apart again. The layout itself is CommandWire's; the
// byte helpers here are for tests that build odd requests by hand.
#ifndef BRVO_TESTS_SUPPORT_COMMANDCLIENT_H
#define BRVO_TESTS_SUPPORT_COMMANDCLIENT_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <sys/un.h>

namespace brvo {
namespace test {

// The daemon's command socket with the default settings.
const char kCommandSocket[] = "/mnt/system/pvoctrl/brevanta.octrl";

// `value` as 4 bytes in native byte order.
std::string Word(std::int32_t value);
// The 32-bit word at `offset`, or 0 when `data` is too short.
std::int32_t WordAt(const std::string& data, std::size_t offset);
// `text` cut or NUL-padded to `size` bytes.
std::string Field(const std::string& text, std::size_t size);
// `value` as the 8 bytes of a double.
std::string Capacity(double value);
// The target power of a target-power answer, or -1 when it is shorter than
// a whole one.
double PowerOf(const std::string& answer);
// A whole request: total length, `type`, then `params`.
std::string Request(std::int32_t type, const std::string& params = "");

// The answer to a target-power request of `type` (6 or 7) that succeeded
// with `power` for the slot starting at `timeText` ("%Y%m%d%H%M%S").
std::string TargetPowerAnswer(std::int32_t type, double power, const std::string& timeText);

// The update answer to a request of `type` (2, 3 or 5) with `reason`,
// `status` and `message`; by default the answer of a success.
std::string UpdateAnswer(std::int32_t type, std::int32_t reason = 0, std::int32_t status = 0,
                         const std::string& message = "");
// The answer to FlushLog.
std::string FlushAnswer();

// The address of the UNIX socket at `path`, cut to fit (with its NUL).
sockaddr_un UnixAddress(const std::string& path);
// A client socket connected to `socketPath`, or -1.
int Connect(const std::string& socketPath);

// Connects to `socketPath`, writes `request` and reads until the daemon
// closes the connection. False (with what came so far in `answer`) when
// the connection or the write failed, or when no byte came for
// `timeoutMs`.
bool Exchange(const std::string& socketPath, const std::string& request, std::string& answer, int timeoutMs = 30000);
// Sends one request of `type` and returns the whole answer (empty when the
// daemon closed without one). Fails the test when it cannot connect.
std::string Ask(const std::string& socketPath, std::int32_t type, const std::string& params = "");

} // namespace test
} // namespace brvo

#endif
