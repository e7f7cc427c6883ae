#include "fuzz/FuzzEnvironment.h"

#include "settings/LoggerSettingManager.h"
#include "util/FileUtil.h"
#include "util/LoggerLog.h"

#include <Poco/File.h>
#include <Poco/Path.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace brvo {
namespace fuzz {

namespace {

[[noreturn]] void Die(const std::string& message) {
    std::fprintf(stderr, "fuzz set-up: %s\n", message.c_str());
    std::fflush(stderr);
    std::_Exit(2);
}

} // namespace

void FuzzEnvironment::RequireSandbox(const char* target) {
    const char* sandbox = std::getenv("PVOC_SANDBOX");
    if (sandbox != nullptr && std::strcmp(sandbox, "1") == 0) return;
    Die(std::string(target) + ": run me through tests/support/run-in-sandbox; I would write the "
                              "machine's real /usr/local/etc/kestrovanyx, /mnt/system and /media/sdcard");
}

void FuzzEnvironment::IsolateNetwork() {
    if (unshare(CLONE_NEWNET) != 0) Die(std::string("no network namespace: ") + std::strerror(errno));
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) Die(std::string("no socket: ") + std::strerror(errno));
    ifreq request;
    std::memset(&request, 0, sizeof request);
    std::strncpy(request.ifr_name, "lo", IFNAMSIZ - 1);
    const bool up = ioctl(fd, SIOCGIFFLAGS, &request) == 0 &&
                    (request.ifr_flags |= IFF_UP | IFF_RUNNING, ioctl(fd, SIOCSIFFLAGS, &request) == 0);
    const int error = errno;
    close(fd);
    if (!up) Die(std::string("loopback stays down: ") + std::strerror(error));
}

void FuzzEnvironment::WriteFile(const std::string& path, const std::string& content) {
    try {
        Poco::File(Poco::Path(path).parent()).createDirectories();
    } catch (...) {
        Die("cannot create the directory of " + path);
    }
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(content.data(), static_cast<std::streamsize>(content.size()));
    out.close();
    if (!out.good()) Die("cannot write " + path);
}

void FuzzEnvironment::SetUpSettingsAndLog(const std::string& loggerSettingElements) {
    WriteFile(FileUtil::GetLoggerSettingFile(), "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<LoggerSetting>\n" +
                                                    loggerSettingElements + "\n</LoggerSetting>\n");
    LoggerSettingManager::CreateInstance();
    LoggerLog::CreateInstance();
}

const std::string FuzzEnvironment::kPlantId = "01234567890123456789012345";
const std::string FuzzEnvironment::kDeviceFile = "pv_inverter";

// Port 1 on the loopback of a fresh network namespace has no listener.
std::string FuzzEnvironment::SystemSettingText() {
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
           "<logger loggerId=\"LG1\" plantId=\"PL1\" planeName=\"fuzz plant\">\n"
           "<general>\n"
           "<outputControlPlantId>" +
           kPlantId +
           "</outputControlPlantId>\n"
           "<outputControlStandAlone>0</outputControlStandAlone>\n"
           "<outputScheduleInformationServerUrl>http://127.0.0.1:1/schedule</outputScheduleInformationServerUrl>\n"
           "<facilityCertifiedCapacity>49.5</facilityCertifiedCapacity>\n"
           "<system><timezone>Asia/Tokyo</timezone><communicationErrorRetry>0</communicationErrorRetry></system>\n"
           "</general>\n"
           "<channelList><channel><addressList><address>"
           "<type>HouseHoldSolarPowerGeneration</type><deviceSettingFile>" +
           kDeviceFile +
           "</deviceSettingFile></address></addressList></channel></channelList>\n"
           "</logger>\n";
}

std::string FuzzEnvironment::DeviceText() {
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
           "<lggrdev:EchonetLiteDevices xmlns:lggrdev=\"urn:example:lggrdev\"><lggrdev:Device>"
           "<lggrdev:Properties><lggrdev:Property><lggrdev:Variables>"
           "<lggrdev:VariableInfo Name=\"Limit\" Value0=\"0\" Value100=\"100\" ValueMin=\"0x10\"/>"
           "</lggrdev:Variables></lggrdev:Property></lggrdev:Properties>"
           "</lggrdev:Device></lggrdev:EchonetLiteDevices>\n";
}

void FuzzEnvironment::Check(bool condition, const char* what) {
    if (condition) return;
    std::fprintf(stderr, "fuzz invariant broken: %s\n", what);
    std::fflush(stderr);
    std::abort();
}

std::string FuzzEnvironment::Text(const std::uint8_t* data, std::size_t size) {
    if (data == nullptr || size == 0) return std::string();
    return std::string(reinterpret_cast<const char*>(data), size);
}

} // namespace fuzz
} // namespace brvo
