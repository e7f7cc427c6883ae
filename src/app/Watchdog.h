// Proves to the device's supervisor that the daemon is alive by touching the
// watchdog file at a fixed interval, on a timer thread. Under a service
// manager it also keeps the status line up to date: at every touch, and
// within a second of any change of the planned update (a second timer).
#ifndef BRVO_APP_WATCHDOG_H
#define BRVO_APP_WATCHDOG_H

#include <Poco/Timer.h>

#include <cstdint>
#include <string>

namespace brvo {

class Watchdog {
public:
    Watchdog();
    // Stops the timer (waiting for a running tick) and frees it.
    virtual ~Watchdog();

    // Creates the watchdog file's directory and starts touching the file:
    // first after 100 ms, then every WatchdogFileUpdateInterval seconds;
    // under a service manager also the status timer. A second call does
    // nothing.
    void Start();
    // Does nothing: the file is touched until the watchdog is deleted, so a
    // daemon that is still running never looks dead to the supervisor.
    void Stop();
    // Timer callback: touches the file named by the settings at this tick;
    // a failed touch is logged and tried again at the next tick.
    void OnTimer(Poco::Timer& timer);

    // Status timer callback: sends the status when the update alarm's due
    // time moved since the last look.
    void OnStatusTimer(Poco::Timer& timer);

    // The timer, or null before Start.
    const Poco::Timer* GetTimer() const { return timer_; }

private:
    Watchdog(const Watchdog&) = delete;
    Watchdog& operator=(const Watchdog&) = delete;

    Poco::Timer* timer_;
    // Checks the planned update every second; null without a service
    // manager.
    Poco::Timer* statusTimer_;
    // The update alarm's due time at the last look (epoch microseconds, -1
    // for none; -2 before the first look, so that it sends); read and
    // written on the status timer's thread only.
    std::int64_t lastDue_;
};

} // namespace brvo

#endif
