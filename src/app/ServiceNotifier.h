// Tells the service manager how the daemon is doing: ready once the command
// socket listens, alive at every watchdog tick, what it is working on, and
// that it is stopping. Every call does nothing when the daemon was not
// started by a service manager that asked for these messages
// (NOTIFY_SOCKET unset), so a daemon run by hand behaves as before.
//
// Threads: every call may come from any thread.
#ifndef BRVO_APP_SERVICENOTIFIER_H
#define BRVO_APP_SERVICENOTIFIER_H

#include <cstdint>
#include <string>

namespace brvo {

class ServiceNotifier {
public:
    // Whether a service manager listens for the messages.
    static bool Enabled();
    // The command socket listens: the daemon is ready to serve.
    static void Ready();
    // The command socket could not be set up: `reason` becomes the status
    // and stays in front of every later status. Ready is never sent then.
    static void Failed(const std::string& reason);
    // Sets the status line shown by the service manager; sent only when it
    // differs from the last one sent.
    static void Status(const std::string& status);
    // Proves the daemon alive, when the service manager runs a watchdog on
    // it.
    static void KeepAlive();
    // The daemon begins to stop.
    static void Stopping();
    // The watchdog period the service manager asked for, in microseconds;
    // 0 when it runs none on this process.
    static std::uint64_t WatchdogMicroseconds();

    // The status text for a plant: "plant " + id + ", next update " + UTC
    // time + " UTC", or what is known when there is no id or no update
    // planned. `nextUpdate` is empty when no update is planned.
    static std::string PlantStatus(const std::string& plantId, const std::string& nextUpdate);

private:
    ServiceNotifier() = delete;
    static void Send(const std::string& message);
};

} // namespace brvo

#endif
