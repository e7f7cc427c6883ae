// One accepted connection of a local client: one binary request in, one
// binary answer out, then the connection is closed. All integers are 32-bit
// in the device's byte order; text fields are fixed-size and NUL-padded.
//
// The command server reads the request without waiting (ReadAvailable) as
// its bytes arrive and queues the complete request to a worker (Execute):
// target power and log flushes to its answer workers, the schedule flows,
// which may wait on the network, to its flow workers. A work item on its own (Execute without a prior read)
// reads its request itself, waiting up to the socket time-out.
//
// A target power request whose answer the target power snapshot holds is
// answered by the accepting thread itself (ServeFromSnapshot), with the
// same answer and log lines as a worker gives.
//
// Not thread-safe: one thread at a time owns a work item.
#ifndef BRVO_SERVER_OUTSOCKETWORK_H
#define BRVO_SERVER_OUTSOCKETWORK_H

#include "client/Request.h"
#include "schedule/TargetPowerSnapshot.h"
#include "server/CommandWire.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <sys/types.h>
#include <vector>

namespace brvo {

class TargetPowerResult;
class UpdateResult;

class OutSocketWork : public Request {
public:
    // How far reading the request got.
    enum ReadState {
        kReading,    // more bytes are due
        kRead,       // complete, or the client ended its side early
        kReadFailed, // the header could not be read
    };

    // Takes over the accepted client descriptor `socket`.
    explicit OutSocketWork(int socket);

    // Logs the start of serving the connection ("Execute"), once: by the
    // worker that serves it, or where the connection ends unserved, so
    // that the accepting thread formats no log line for a served request.
    void Start();
    // Reads what has arrived without waiting: the header, then the
    // parameter block its type asks for. A client that ends its side early
    // leaves the missing bytes zero (kRead).
    ReadState ReadAvailable();
    // Whether the 8-byte header is in.
    bool HasHeader() const { return received_ >= CommandWire::kHeaderSize; }
    // The request type; 0 until the header is in.
    std::int32_t GetType() const;
    // Seconds a client has from connecting to the end of its request
    // (OutputControlSocketTimeout); the default 60 for a value below 1,
    // since no wait for a client may be unbounded.
    static int TimeoutSeconds();
    // The same in microseconds, as Poco::Clock counts.
    static std::int64_t TimeoutMicroseconds();
    // Whether requests of `type` run a schedule flow, which may wait on the
    // schedule server or the logger daemon.
    static bool IsFlow(std::int32_t type);
    // Whether requests of `type` are answered from local state alone
    // (target power, log flush).
    static bool IsAnswer(std::int32_t type);
    // Closes a connection whose request did not arrive within the socket
    // time-out, without an answer: a request completed late is never
    // answered, since its missing bytes would have to be taken as zeros.
    void Expire();
    // Closes a connection whose request could not be read, without an
    // answer ("Execute read error...").
    void Abandon();

    // Serves a request of unknown type (no answer, the connection closed),
    // its "Execute" held to one line per period as for an unread request.
    void Refuse();
    // Answers the request read so far and closes the connection; after a
    // successful update whose answer went out, forwards the new schedule to
    // the logger daemon. A request of unknown type gets no answer.
    void Serve();
    // Answers the target power request read so far from `view` (see
    // TargetPowerSnapshot) when the view covers it: the answer and log lines
    // Serve would give, built in fixed buffers (no heap allocation but what
    // the log keeps), then closes the connection. When the view does not
    // cover it, does nothing and returns why; a worker then serves it.
    TargetPowerSnapshot::Miss ServeFromSnapshot(const TargetPowerSnapshot::View* view);

    // Reads the request (unless already read), waiting up to the socket
    // time-out, then serves it as Serve does.
    void Execute() override;
    // Closes the client descriptor (once; later calls do nothing).
    void Close();
    // The client descriptor; -1 once closed.
    int GetSocket() const { return socket_; }
    // Connections of all work items not yet closed, in this process.
    static int OpenCount() { return openCount_; }

    // A work item is made and freed once per connection. Each thread keeps
    // a few freed blocks for its next work items, so a connection answered
    // on the accepting thread that took it costs no allocation and no lock.
    static void* operator new(std::size_t size);
    static void operator delete(void* block, std::size_t size) noexcept;

    // The answers to the daemon's results (see CommandWire for the bytes).
    static std::vector<unsigned char> UpdateAnswer(std::int32_t type, const UpdateResult& result);
    static std::vector<unsigned char> FixedScheduleAnswer(const UpdateResult& result);
    static std::vector<unsigned char> TargetPowerAnswer(std::int32_t type, const TargetPowerResult& result);

protected:
    ~OutSocketWork() override;

private:
    void StartUnserved();
    std::vector<unsigned char> Dispatch(std::int32_t type, bool& sendAfter);
    std::vector<unsigned char> ServeCheckPlantId();
    std::vector<unsigned char> ServeFixedSchedule(bool& sendAfter);
    std::vector<unsigned char> ServeTargetPower(std::int32_t type);
    std::size_t ExpectedSize() const;
    bool ReadUntilDeadline();
    const unsigned char* Parameters() const { return request_ + CommandWire::kHeaderSize; }
    std::string Tag(const std::string& text) const;
    void LogServed(ssize_t sent, std::int32_t type, int error);
    static const char* TypeLine(std::int32_t type);

    static std::atomic<int> openCount_;

    int socket_;
    // Header and parameter block as received; missing bytes stay zero.
    unsigned char request_[CommandWire::kHeaderSize + CommandWire::kLargestParameterSize];
    std::size_t received_;
    // Whether the client ended its side before the request was complete.
    bool ended_;
    bool started_;
};

} // namespace brvo

#endif
