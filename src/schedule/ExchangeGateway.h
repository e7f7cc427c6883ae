// The manager's way out: the exchanges with the schedule server and the
// logger daemon, run on a request pool of the gateway's own. It tracks
// every exchange in flight, so that Abort can cut them all (their sockets
// are shut down) and the flows waiting on them end at once; an exchange
// started after Abort fails as soon as it starts.
//
// The simulation of the schedule flows puts a scripted server behind the
// same interface. Lock rules: mutex_ guards the list of exchanges in flight
// and is a leaf lock.
#ifndef BRVO_SCHEDULE_EXCHANGEGATEWAY_H
#define BRVO_SCHEDULE_EXCHANGEGATEWAY_H

#include "util/Mutex.h"
#include "util/ThreadAnnotations.h"

#include <future>
#include <memory>
#include <string>
#include <vector>

namespace brvo {

class Channel;
class Request;
class ServerAccessResult;

class ExchangeGateway {
public:
    // Starts the request pool.
    ExchangeGateway();
    // Aborts what is in flight and ends the pool.
    virtual ~ExchangeGateway();

    // Starts one exchange with the schedule server asking for
    // `scheduleKbn`, with the plant ID and server address of the system
    // settings, or (`explicitTarget`) with `plantId` and `url`.
    virtual std::future<std::shared_ptr<ServerAccessResult>> Fetch(const std::string& scheduleKbn, bool explicitTarget,
                                                                   const std::string& plantId, const std::string& url);
    // Tells the logger daemon that schedule data is stored and waits for
    // its answer: its result word (0 on success), 1 when the exchange
    // failed.
    virtual int SendScheduleData();
    // Aborts every exchange in flight and every later one. Idempotent.
    virtual void Abort() EXCLUDES(mutex_);

protected:
    // For a gateway that runs no exchange of its own (a scripted server in
    // the simulation): no request pool.
    struct NoPool {};
    explicit ExchangeGateway(NoPool);

private:
    ExchangeGateway(const ExchangeGateway&) = delete;
    ExchangeGateway& operator=(const ExchangeGateway&) = delete;

    void Register(Request* request) EXCLUDES(mutex_);

    Channel* channel_;
    // A leaf lock: taken after the flow lock and the alarms' locks.
    Mutex mutex_;
    bool aborted_ GUARDED_BY(mutex_);
    // The requests queued or running (and some that finished, dropped at
    // the next Register).
    std::vector<Request*> inFlight_ GUARDED_BY(mutex_);
};

} // namespace brvo

#endif
