#include "app/ServiceNotifier.h"

#include "util/Mutex.h"
#include "util/ScopedLock.h"
#include "util/ThreadAnnotations.h"

#include <cstdlib>
#include <systemd/sd-daemon.h>

namespace brvo {

namespace {

// Never destroyed: timer threads may still send while the process exits.
Mutex& StatusMutex() {
    static Mutex* mutex = new Mutex();
    return *mutex;
}

// Under StatusMutex.
std::string& LastStatus() REQUIRES(StatusMutex()) {
    static std::string* text = new std::string();
    return *text;
}

// Under StatusMutex.
std::string& Failure() REQUIRES(StatusMutex()) {
    static std::string* text = new std::string();
    return *text;
}

} // namespace

bool ServiceNotifier::Enabled() {
    const char* socket = std::getenv("NOTIFY_SOCKET");
    return socket != nullptr && socket[0] != '\0';
}

void ServiceNotifier::Send(const std::string& message) {
    if (Enabled()) sd_notify(0, message.c_str());
}

void ServiceNotifier::Ready() {
    Send("READY=1");
}

void ServiceNotifier::Failed(const std::string& reason) {
    {
        ScopedLock lock(StatusMutex());
        Failure() = reason;
    }
    Status("");
}

void ServiceNotifier::Status(const std::string& status) {
    if (!Enabled()) return;
    ScopedLock lock(StatusMutex());
    const std::string& failure = Failure();
    const std::string text = failure.empty() ? status : status.empty() ? failure : failure + "; " + status;
    if (text.empty() || text == LastStatus()) return;
    LastStatus() = text;
    Send("STATUS=" + text);
}

void ServiceNotifier::KeepAlive() {
    if (WatchdogMicroseconds() > 0) Send("WATCHDOG=1");
}

void ServiceNotifier::Stopping() {
    Send("STOPPING=1");
}

std::uint64_t ServiceNotifier::WatchdogMicroseconds() {
    if (!Enabled()) return 0;
    std::uint64_t usec = 0;
    return sd_watchdog_enabled(0, &usec) > 0 ? usec : 0;
}

std::string ServiceNotifier::PlantStatus(const std::string& plantId, const std::string& nextUpdate) {
    if (plantId.empty()) return "no plant ID set";
    if (nextUpdate.empty()) return "plant " + plantId + ", no update planned";
    return "plant " + plantId + ", next update " + nextUpdate + " UTC";
}

} // namespace brvo
