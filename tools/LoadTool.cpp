// pvoc-load: drives pvocd's command socket with CurrentTargetPower requests
// from 1, 4 and 16 concurrent clients and prints requests per second and
// the p50, p99 and max latency. In the same run it measures the floor: a
// minimal server inside this tool that accepts, reads 16 bytes, answers 167
// bytes and closes, driven the same way; it prints both and their ratio.
// Given the daemon's process ID, it also prints the daemon's start-up time
// (exec to the command socket accepting), its resident memory after start
// and after the requests, and its CPU use while idle. A second reference, the
// hand-off floor, does the floor's work behind pvocd's own design (an
// accepting thread handing connections to a pool of workers).
//
// With --stalled-port P it measures only pvocd, while schedule flows wait
// on a schedule server that never answers (this tool listens on
// 127.0.0.1:P; pvocd's settings must point there) and idle clients hold
// connections that never send a request.
#include "server/CommandWire.h"

#include <Poco/AutoPtr.h>
#include <Poco/Notification.h>
#include <Poco/NotificationQueue.h>
#include <Poco/Thread.h>
#include <Poco/Timestamp.h>

#include <sys/time.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>
#include <memory>
#include <netinet/in.h>
#include <poll.h>
#include <string>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

struct Result {
    double perSecond = 0;
    double p50 = 0;
    double p99 = 0;
    double max = 0;
    int failures = 0;
};

bool Address(const std::string& path, sockaddr_un& address) {
    std::memset(&address, 0, sizeof address);
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) return false;
    std::memcpy(address.sun_path, path.data(), path.size());
    return true;
}

// One CurrentTargetPower exchange; false when no full answer came. The
// answer's result code goes to `code` when given.
bool Ask(const sockaddr_un& address, std::int32_t* code = nullptr) {
    const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    if (fd < 0) return false;
    if (connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        close(fd);
        return false;
    }
    static const std::string request = brvo::CommandWire::EncodeRequest(brvo::CommandWire::kCurrentTargetPower,
                                                                        brvo::CommandWire::EncodeCapacityBlock(100.0));
    bool ok = send(fd, request.data(), request.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(request.size());
    std::size_t got = 0;
    char answer[256];
    while (ok && got < sizeof answer) {
        const ssize_t n = read(fd, answer + got, sizeof answer - got);
        if (n <= 0) break;
        got += static_cast<std::size_t>(n);
    }
    close(fd);
    const bool whole = got == brvo::CommandWire::kTargetAnswerSize;
    brvo::CommandWire::TargetPowerReply reply;
    if (code != nullptr && whole && brvo::CommandWire::DecodeTargetPowerAnswer(std::string(answer, got), reply)) {
        *code = reply.code;
    }
    return ok && whole;
}

Result Drive(const std::string& path, int clients, int count) {
    sockaddr_un address;
    Result result;
    if (!Address(path, address)) {
        result.failures = count;
        return result;
    }
    std::vector<std::vector<double>> latencies(static_cast<std::size_t>(clients));
    std::atomic<int> next(0);
    std::atomic<int> failures(0);
    const Poco::Timestamp started;
    std::vector<std::thread> threads;
    for (int c = 0; c < clients; ++c) {
        threads.emplace_back([&, c] {
            while (next++ < count) {
                const Poco::Timestamp one;
                if (!Ask(address)) ++failures;
                latencies[static_cast<std::size_t>(c)].push_back(static_cast<double>(one.elapsed()) / 1000.0);
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    const double seconds = static_cast<double>(started.elapsed()) / 1e6;
    std::vector<double> all;
    for (const std::vector<double>& part : latencies) all.insert(all.end(), part.begin(), part.end());
    std::sort(all.begin(), all.end());
    if (!all.empty()) {
        result.p50 = all[all.size() / 2];
        result.p99 = all[std::min(all.size() - 1, all.size() * 99 / 100)];
        result.max = all.back();
    }
    result.perSecond = seconds > 0 ? static_cast<double>(all.size()) / seconds : 0;
    result.failures = failures;
    return result;
}

// A listening socket of type SOCK_STREAM | `flags` at `path` (replacing a
// stale file there); a message on standard error when it cannot listen.
int Listen(const std::string& path, int flags) {
    sockaddr_un address;
    Address(path, address);
    unlink(path.c_str());
    const int fd = socket(AF_UNIX, SOCK_STREAM | flags, 0);
    if (bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 || listen(fd, 100) != 0) {
        std::cerr << "pvoc-load: cannot listen on " << path << std::endl;
    }
    return fd;
}

// What the floors read of a target power request: header and capacity.
const std::size_t kRequestSize = brvo::CommandWire::kHeaderSize + brvo::CommandWire::kCapacitySize;

// The floor: the least a server must do for this exchange.
class FloorServer {
public:
    explicit FloorServer(const std::string& path) : path_(path), stop_(false) {
        // Non-blocking: when two workers wake for one connection, the one
        // that loses the race must not block in accept for ever.
        fd_ = Listen(path, SOCK_NONBLOCK);
        for (int i = 0; i < 3; ++i) workers_.emplace_back([this] { Serve(); });
    }

    ~FloorServer() {
        stop_ = true;
        for (std::thread& worker : workers_) worker.join();
        close(fd_);
        unlink(path_.c_str());
    }

private:
    void Serve() {
        while (!stop_) {
            pollfd wait = {fd_, POLLIN, 0};
            if (poll(&wait, 1, 50) <= 0) continue;
            const int client = accept(fd_, nullptr, nullptr);
            if (client < 0) continue;
            char request[kRequestSize];
            ssize_t ignored = read(client, request, sizeof request);
            unsigned char answer[brvo::CommandWire::kTargetAnswerSize] = {0};
            ignored = send(client, answer, sizeof answer, MSG_NOSIGNAL);
            (void)ignored;
            close(client);
        }
    }

    std::string path_;
    int fd_;
    std::atomic<bool> stop_;
    std::vector<std::thread> workers_;
};

// The floor of pvocd's design: one thread waits in select and accepts, and
// hands each connection through a POCO notification queue to one of three
// workers, which reads 16 bytes, answers 167 bytes and closes. Everything
// pvocd does beyond this is the request's own work.
class HandOffServer {
public:
    explicit HandOffServer(const std::string& path) : path_(path), stop_(false) {
        fd_ = Listen(path, 0);
        threads_.emplace_back([this] { Accept(); });
        for (int i = 0; i < 3; ++i) threads_.emplace_back([this] { Work(); });
    }

    ~HandOffServer() {
        stop_ = true;
        queue_.wakeUpAll();
        for (std::thread& thread : threads_) thread.join();
        close(fd_);
        unlink(path_.c_str());
    }

private:
    struct Connection : Poco::Notification {
        explicit Connection(int acceptedFd) : fd(acceptedFd) {}
        int fd;
    };

    void Accept() {
        while (!stop_) {
            fd_set readSet;
            FD_ZERO(&readSet);
            FD_SET(fd_, &readSet);
            timeval timeout = {0, 50000};
            if (select(fd_ + 1, &readSet, nullptr, nullptr, &timeout) <= 0) continue;
            const int client = accept(fd_, nullptr, nullptr);
            if (client >= 0) queue_.enqueueNotification(new Connection(client));
        }
    }

    void Work() {
        while (!stop_) {
            Poco::AutoPtr<Poco::Notification> item(queue_.waitDequeueNotification(500));
            Connection* connection = dynamic_cast<Connection*>(item.get());
            if (connection == nullptr) continue;
            char request[kRequestSize];
            ssize_t ignored = read(connection->fd, request, sizeof request);
            unsigned char answer[brvo::CommandWire::kTargetAnswerSize] = {0};
            ignored = send(connection->fd, answer, sizeof answer, MSG_NOSIGNAL);
            (void)ignored;
            close(connection->fd);
        }
    }

    std::string path_;
    int fd_;
    std::atomic<bool> stop_;
    Poco::NotificationQueue queue_;
    std::vector<std::thread> threads_;
};

// Whether a connection to `path` is accepted.
bool Accepting(const std::string& path) {
    sockaddr_un address;
    if (!Address(path, address)) return false;
    const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    if (fd < 0) return false;
    const bool accepted = connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    close(fd);
    return accepted;
}

// Waits up to 30 s until `path` answers with a target power (result code
// 0), so that the measured requests take the full path.
bool WaitForSchedule(const std::string& path) {
    sockaddr_un address;
    if (!Address(path, address)) return false;
    for (int i = 0; i < 300; ++i) {
        std::int32_t code = -1;
        if (Ask(address, &code) && code == 0) return true;
        usleep(100000);
    }
    return false;
}

// Wall-clock seconds since the epoch, as the shell's EPOCHREALTIME.
double EpochSeconds() {
    timeval now;
    gettimeofday(&now, nullptr);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_usec) / 1e6;
}

// Polls `path` every 0.2 ms for up to 30 s; the seconds from `since` (an
// EpochSeconds value) to the first accepted connection, or -1.
double WaitAccepting(const std::string& path, double since) {
    for (int i = 0; i < 150000; ++i) {
        if (Accepting(path)) return EpochSeconds() - since;
        usleep(200);
    }
    return -1;
}

// The resident memory of process `pid` in KiB, or -1.
long long ResidentKiB(int pid) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.compare(0, 6, "VmRSS:") == 0) return std::atoll(line.c_str() + 6);
    }
    return -1;
}

// User plus system CPU time of process `pid` in clock ticks, or -1.
long long CpuTicks(int pid) {
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string text((std::istreambuf_iterator<char>(stat)), std::istreambuf_iterator<char>());
    const std::size_t end = text.rfind(')');
    if (end == std::string::npos) return -1;
    // After the command name: state is field 3; utime and stime are 14, 15.
    std::vector<std::string> fields;
    std::size_t at = end + 2;
    while (at < text.size() && fields.size() < 13) {
        const std::size_t space = text.find(' ', at);
        fields.push_back(text.substr(at, space - at));
        if (space == std::string::npos) break;
        at = space + 1;
    }
    if (fields.size() < 13) return -1;
    return std::atoll(fields[11].c_str()) + std::atoll(fields[12].c_str());
}

// CPU use of process `pid` over `seconds`, in percent of one core.
double IdleCpuPercent(int pid, int seconds) {
    const long long before = CpuTicks(pid);
    const Poco::Timestamp started;
    sleep(static_cast<unsigned>(seconds));
    const long long after = CpuTicks(pid);
    const double elapsed = static_cast<double>(started.elapsed()) / 1e6;
    if (before < 0 || after < 0 || elapsed <= 0) return -1;
    return 100.0 * static_cast<double>(after - before) / static_cast<double>(sysconf(_SC_CLK_TCK)) / elapsed;
}

void Print(const char* name, int clients, const Result& r) {
    std::printf("%-7s %2d clients: %9.0f req/s  p50 %7.3f ms  p99 %7.3f ms  max %7.3f ms%s\n", name, clients,
                r.perSecond, r.p50, r.p99, r.max, r.failures > 0 ? "  (failures!)" : "");
}

// A schedule server that takes connections and never answers: a flow sent
// to it waits until the server goes (and closes them).
class StalledServer {
public:
    explicit StalledServer(int port) : fd_(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0)), stop_(false) {
        const int on = 1;
        setsockopt(fd_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
        sockaddr_in address;
        std::memset(&address, 0, sizeof address);
        address.sin_family = AF_INET;
        address.sin_port = htons(static_cast<std::uint16_t>(port));
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 || listen(fd_, 16) != 0) {
            std::cerr << "pvoc-load: cannot listen on 127.0.0.1:" << port << std::endl;
        }
        thread_ = std::thread([this] { Accept(); });
    }

    ~StalledServer() {
        stop_ = true;
        thread_.join();
        for (const int client : clients_) close(client);
        close(fd_);
    }

    // Connections taken so far.
    int Accepted() const { return accepted_; }

private:
    void Accept() {
        while (!stop_) {
            pollfd wait = {fd_, POLLIN, 0};
            if (poll(&wait, 1, 50) <= 0) continue;
            const int client = accept(fd_, nullptr, nullptr);
            if (client < 0) continue;
            clients_.push_back(client);
            ++accepted_;
        }
    }

    int fd_;
    std::atomic<bool> stop_;
    std::atomic<int> accepted_{0};
    std::vector<int> clients_;
    std::thread thread_;
};

// A connection to `path` that has sent `bytes` and waits; -1 when it
// could not connect.
int OpenHeld(const std::string& path, const std::string& bytes) {
    sockaddr_un address;
    if (!Address(path, address)) return -1;
    const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    if (fd < 0) return -1;
    if (connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        (!bytes.empty() && send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(bytes.size()))) {
        close(fd);
        return -1;
    }
    return fd;
}

// Measures pvocd from 1 and 16 clients while `flows` UpdateSchedule
// requests wait on a stalled schedule server at `port` and `idle` clients
// hold connections without a request. False when the flows did not reach
// the server or a request failed.
bool DriveHeld(const std::string& path, int port, int flows, int idle, int count) {
    StalledServer stalled(port);
    std::vector<int> held;
    for (int i = 0; i < idle; ++i) held.push_back(OpenHeld(path, std::string()));
    const std::string update = brvo::CommandWire::EncodeRequest(brvo::CommandWire::kUpdateSchedule);
    for (int i = 0; i < flows; ++i) held.push_back(OpenHeld(path, update));
    for (int i = 0; i < 100 && stalled.Accepted() < flows; ++i) usleep(100000);
    bool ok = stalled.Accepted() >= flows;
    if (!ok) std::cerr << "pvoc-load: only " << stalled.Accepted() << " flow(s) reached the stalled server\n";
    std::printf("with %d flows waiting on a stalled server and %d idle clients:\n", flows, idle);
    for (int clients : {1, 16}) {
        const Result daemon = Drive(path, clients, count);
        Print("pvocd", clients, daemon);
        ok = ok && daemon.failures == 0;
    }
    for (const int fd : held) {
        if (fd >= 0) close(fd);
    }
    return ok;
}

} // namespace

int main(int argc, char** argv) {
    std::string socketPath = "/mnt/system/pvoctrl/brevanta.octrl";
    int count = 2000;
    int pid = 0;
    int idleSeconds = 60;
    double readySince = 0;
    int stalledPort = 0;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--socket" && i + 1 < argc) {
            socketPath = argv[++i];
        } else if (arg == "--count" && i + 1 < argc) {
            count = std::max(1, std::atoi(argv[++i]));
        } else if (arg == "--pid" && i + 1 < argc) {
            pid = std::atoi(argv[++i]);
        } else if (arg == "--idle" && i + 1 < argc) {
            idleSeconds = std::max(0, std::atoi(argv[++i]));
        } else if (arg == "--started-at" && i + 1 < argc) {
            readySince = std::atof(argv[++i]);
        } else if (arg == "--stalled-port" && i + 1 < argc) {
            stalledPort = std::atoi(argv[++i]);
        } else {
            std::cerr << "usage: pvoc-load [--socket PATH] [--count N] [--pid PID [--started-at T] [--idle S]]\n"
                         "       pvoc-load [--socket PATH] [--count N] --stalled-port P\n"
                         "Sends N CurrentTargetPower requests from 1, 4 and 16 clients to pvocd and to\n"
                         "a minimal floor server, and prints both and their ratio. With the daemon's\n"
                         "PID it also prints its start-up time (from T, the EPOCHREALTIME of its exec,\n"
                         "to the socket accepting), its resident memory after start and after the\n"
                         "requests, then its CPU use and memory over S idle seconds (default 60; 0\n"
                         "skips them). With --stalled-port it measures pvocd alone from 1 and 16\n"
                         "clients while 3 UpdateSchedule requests wait on a schedule server at\n"
                         "127.0.0.1:P that never answers and 100 clients hold idle connections.\n";
            return 2;
        }
    }
    if (readySince > 0) {
        const double startup = WaitAccepting(socketPath, readySince);
        if (startup < 0) {
            std::cerr << "pvoc-load: " << socketPath << " never accepted" << std::endl;
            return 1;
        }
        std::printf("start-up: %.1f ms from exec to the command socket accepting\n", startup * 1000.0);
    }
    if (pid > 0) std::printf("resident memory after start: %lld KiB\n", ResidentKiB(pid));
    std::fflush(stdout);
    if (!WaitForSchedule(socketPath)) {
        std::cerr << "pvoc-load: " << socketPath << " gives no target power" << std::endl;
        return 1;
    }
    if (stalledPort > 0) return DriveHeld(socketPath, stalledPort, 3, 100, count) ? 0 : 1;
    FloorServer floor("/tmp/pvoc-load-floor.sock");
    HandOffServer handOff("/tmp/pvoc-load-handoff.sock");
    int failures = 0;
    for (int clients : {1, 4, 16}) {
        const Result daemon = Drive(socketPath, clients, count);
        const Result minimal = Drive("/tmp/pvoc-load-floor.sock", clients, count);
        const Result handedOff = Drive("/tmp/pvoc-load-handoff.sock", clients, count);
        Print("pvocd", clients, daemon);
        Print("floor", clients, minimal);
        Print("handoff", clients, handedOff);
        std::printf("ratio  %2d clients: median latency %.1fx the floor, throughput %.2f of the floor\n", clients,
                    minimal.p50 > 0 ? daemon.p50 / minimal.p50 : 0.0,
                    minimal.perSecond > 0 ? daemon.perSecond / minimal.perSecond : 0.0);
        std::printf("       %2d clients: median latency %.1fx the hand-off floor, throughput %.2f of it\n\n", clients,
                    handedOff.p50 > 0 ? daemon.p50 / handedOff.p50 : 0.0,
                    handedOff.perSecond > 0 ? daemon.perSecond / handedOff.perSecond : 0.0);
        failures += daemon.failures;
    }
    if (pid > 0) {
        std::printf("resident memory after %d requests: %lld KiB\n", 3 * count, ResidentKiB(pid));
        std::fflush(stdout);
    }
    if (pid > 0 && idleSeconds > 0) {
        std::printf("idle CPU over the next %d s: %.3f %% of one core\n", idleSeconds,
                    IdleCpuPercent(pid, idleSeconds));
        std::printf("resident memory after those %d idle seconds: %lld KiB\n", idleSeconds, ResidentKiB(pid));
    }
    return failures == 0 ? 0 : 1;
}
