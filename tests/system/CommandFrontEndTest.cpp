// The command socket's front end under clients that are slow, silent, late
// or too many, with the real pvocd: target power and log flushes are
// answered at once while schedule flows wait on a stalled server; a
// connection gets its request in within the socket time-out of its accept or
// is closed unanswered, whatever arrives later; a flood of idle connections
// beyond the descriptor limit never stops the socket from answering; a stop
// request is not held up by a client; and a fixed-schedule file is read even
// where nothing can be written.
#include "server/CommandWire.h"
#include "support/ChildProcess.h"
#include "support/CommandClient.h"
#include "support/DaemonClient.h"
#include "support/HttpTestServer.h"
#include "support/Mounts.h"
#include "support/SchedulePayload.h"
#include "support/SqliteFile.h"
#include "support/StoredSchedule.h"
#include "support/TestFiles.h"
#include "support/UnixPeer.h"
#include "util/TimeStamp.h"

#include <gtest/gtest.h>

#include <Poco/String.h>
#include <Poco/Thread.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <memory>
#include <poll.h>
#include <sstream>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace brvo {
namespace {

using test::Capacity;
using test::Field;
using test::HttpTestServer;
using test::PowerOf;
using test::Request;
using test::Word;
using test::WordAt;

using Clock = std::chrono::steady_clock;

const std::string kPlant = "00000000000000000000000777";
const std::int64_t kSlotSeconds = 1800;
const int kRate = 60;
const double kCapacity = 10.0;
// What a client may take to be answered "at once", before TimeScale.
const int kPromptMs = 3000;
// The descriptor limit the daemon gets in the exhaustion test, and the idle
// connections thrown at it there.
const int kDescriptorLimit = 64;
const int kIdleClients = 200;

int Scaled(int ms) {
    return ms * static_cast<int>(test::TimeScale());
}

long long MsSince(Clock::time_point start) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
}

// A client's end of one connection to the command socket, never blocking:
// every wait on it is bounded. Closed when it goes out of scope.
class Connection {
public:
    explicit Connection(int fd = -1) : fd_(fd) {}
    Connection(Connection&& other) noexcept : fd_(other.fd_) { other.fd_ = -1; }
    Connection& operator=(Connection&& other) noexcept {
        std::swap(fd_, other.fd_);
        return *this;
    }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;
    ~Connection() {
        if (fd_ >= 0) ::close(fd_);
    }

    bool Open() const { return fd_ >= 0; }
    int Fd() const { return fd_; }

    // Writes `bytes` whole; false when the daemon already closed its end.
    bool Send(const std::string& bytes) const {
        return fd_ >= 0 && ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
    }

    // Everything that arrives until the daemon closes its end or `ms`
    // passed; `closed` tells which.
    std::string ReadUntilClosed(int ms, bool& closed) const {
        closed = false;
        std::string received;
        const Clock::time_point start = Clock::now();
        while (fd_ >= 0) {
            const long long left = ms - MsSince(start);
            if (left <= 0) break;
            pollfd in = {fd_, POLLIN, 0};
            if (::poll(&in, 1, static_cast<int>(left)) <= 0) continue;
            char buffer[512];
            const ssize_t n = ::read(fd_, buffer, sizeof buffer);
            if (n > 0) {
                received.append(buffer, static_cast<std::size_t>(n));
            } else if (n == 0 || errno == ECONNRESET) {
                closed = true;
                break;
            }
        }
        return received;
    }

    std::string ReadUntilClosed(int ms) const {
        bool closed = false;
        return ReadUntilClosed(ms, closed);
    }

    // Whether a byte or the end already arrived.
    bool HasNews() const {
        pollfd in = {fd_, POLLIN, 0};
        return fd_ >= 0 && ::poll(&in, 1, 0) > 0;
    }

private:
    int fd_;
};

// A connection to the command socket. A full backlog is retried until `ms`
// passed, so that a daemon that stopped accepting cannot hang the test; not
// open then.
Connection ConnectWithin(int ms) {
    const sockaddr_un address = test::UnixAddress(test::kCommandSocket);
    const Clock::time_point start = Clock::now();
    for (;;) {
        Connection connection(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
        if (!connection.Open()) return connection;
        if (::connect(connection.Fd(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) {
            return connection;
        }
        if (errno != EAGAIN || MsSince(start) >= ms) return Connection();
        Poco::Thread::sleep(5);
    }
}

// Opens `count` connections that send nothing, within `ms` for all of them;
// fewer when the daemon stopped taking them.
std::vector<Connection> OpenIdle(int count, int ms) {
    const Clock::time_point start = Clock::now();
    std::vector<Connection> idle;
    for (int i = 0; i < count; ++i) {
        Connection connection = ConnectWithin(static_cast<int>(std::max<long long>(0, ms - MsSince(start))));
        if (!connection.Open()) break;
        idle.push_back(std::move(connection));
    }
    return idle;
}

// Sends one request and returns what came back within `ms` (empty when the
// daemon could not be reached or did not answer in time).
std::string AskWithin(std::int32_t type, const std::string& params, int ms) {
    const Clock::time_point start = Clock::now();
    Connection connection = ConnectWithin(ms);
    if (!connection.Send(Request(type, params))) return std::string();
    return connection.ReadUntilClosed(static_cast<int>(std::max<long long>(0, ms - MsSince(start))));
}

std::string AskPromptly(std::int32_t type, const std::string& params = "") {
    return AskWithin(type, params, Scaled(kPromptMs));
}

// When the daemon closed each of `connections`, in ms after `start`.
struct HangUps {
    std::vector<long long> closedAtMs; // -1: still open
    std::size_t bytes = 0;             // whatever they got before their end
    std::size_t Count() const {
        return static_cast<std::size_t>(
            std::count_if(closedAtMs.begin(), closedAtMs.end(), [](long long at) { return at >= 0; }));
    }
};

// Watches `connections` until `enough` of them were closed by the daemon or
// `ms` after `start` passed.
HangUps WatchHangUps(const std::vector<Connection>& connections, Clock::time_point start, int ms, std::size_t enough) {
    HangUps seen;
    seen.closedAtMs.assign(connections.size(), -1);
    while (seen.Count() < enough && MsSince(start) < ms) {
        std::vector<pollfd> waiting;
        std::vector<std::size_t> which;
        for (std::size_t i = 0; i < connections.size(); ++i) {
            if (seen.closedAtMs[i] >= 0) continue;
            waiting.push_back({connections[i].Fd(), POLLIN, 0});
            which.push_back(i);
        }
        const int left = static_cast<int>(std::max<long long>(1, ms - MsSince(start)));
        if (::poll(waiting.data(), waiting.size(), std::min(left, 50)) <= 0) continue;
        for (std::size_t k = 0; k < waiting.size(); ++k) {
            if (waiting[k].revents == 0) continue;
            char buffer[512];
            const ssize_t n = ::read(waiting[k].fd, buffer, sizeof buffer);
            if (n > 0) seen.bytes += static_cast<std::size_t>(n);
            if (n == 0 || (n < 0 && errno == ECONNRESET)) seen.closedAtMs[which[k]] = MsSince(start);
        }
    }
    return seen;
}

// A computed target power of the stored rate for kCapacity.
void ExpectTargetPower(std::int32_t type, const std::string& answer) {
    ASSERT_EQ(test::kTargetPowerAnswerSize, answer.size()) << "type " << type << " was not answered in time";
    EXPECT_EQ(type, WordAt(answer, CommandWire::kAnswerTypeOffset));
    EXPECT_EQ(0, WordAt(answer, CommandWire::kTargetCodeOffset)) << answer.substr(CommandWire::kTargetMessageOffset);
    EXPECT_DOUBLE_EQ(kCapacity * kRate / 100.0, PowerOf(answer));
}

void ExpectTargetPowersPromptly() {
    ExpectTargetPower(test::kCurrentTargetPowerRequest,
                      AskPromptly(test::kCurrentTargetPowerRequest, Capacity(kCapacity)));
    ExpectTargetPower(test::kNextTargetPowerRequest, AskPromptly(test::kNextTargetPowerRequest, Capacity(kCapacity)));
}

// The parameter block of an UpdateFixedSchedule request for `path`,
// without force.
std::string FixedScheduleParams(const std::string& path) {
    return CommandWire::EncodeFixedScheduleBlock(path, 0);
}

// Writes a fixed schedule of `rate` for the stored plant, one day starting
// `daysAhead` days after today (UTC), to `path`.
void WriteFixedSchedule(const std::string& path, int rate, int daysAhead) {
    test::WriteFile(path,
                    test::BuildSchedulePayload({test::FixedRecordAhead(rate, daysAhead)}, test::kFixedSchedule).hex);
}

std::string RowsOfRate(int rate) {
    return test::QueryValue(test::kScheduleDbFile,
                            "SELECT COUNT(*) FROM output_control_schedule WHERE controlRate = " + std::to_string(rate));
}

// Log lines that say connections were closed or shed, in whatever words.
std::size_t ClosedConnectionLines() {
    std::size_t count = 0;
    for (const std::string& line : test::ReadLines(test::LogFilePath())) {
        const std::string lower = Poco::toLower(line);
        if (lower.find("connection") == std::string::npos) continue;
        if (lower.find("clos") != std::string::npos || lower.find("shed") != std::string::npos ||
            lower.find("drop") != std::string::npos) {
            ++count;
        }
    }
    return count;
}

// The soft and hard limit of open files of process `pid`, as /proc shows
// them ("64 64"); empty when unreadable.
std::string OpenFileLimits(pid_t pid) {
    for (const std::string& line : test::ReadLines("/proc/" + std::to_string(pid) + "/limits")) {
        if (line.compare(0, 14, "Max open files") != 0) continue;
        std::istringstream words(line.substr(14));
        std::string soft;
        std::string hard;
        if (words >> soft >> hard) return soft + " " + hard;
    }
    return std::string();
}

// Makes room for at least `descriptors` open files in this process.
bool RaiseOwnDescriptorLimit(rlim_t descriptors) {
    rlimit limit;
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) return false;
    if (limit.rlim_cur >= descriptors) return true;
    limit.rlim_cur = descriptors;
    limit.rlim_max = std::max(limit.rlim_max, descriptors);
    return ::setrlimit(RLIMIT_NOFILE, &limit) == 0;
}

// The daemon's warnings and errors, for failure messages.
std::string LoggedProblems() {
    std::string problems;
    for (const std::string& line : test::ReadLines(test::LogFilePath())) {
        if (line.find("] [W] [") != std::string::npos || line.find("] [E] [") != std::string::npos) {
            problems += line + "\n";
        }
    }
    return problems;
}

class CommandFrontEndTest : public ::testing::Test {
protected:
    void SetUp() override {
        UseSocketTimeout(5);
        test::WriteFile("/sys/class/net/eth0/address", "00:1a:2b:3c:4d:5e\n");
        test::WriteFile(test::kLoggerSocket + ".keep", "");
        logger_.reset(new test::UnixPeer(test::kLoggerSocket, test::UnixPeer::kReply, std::string(12, '\0'), 8));
        StoreCurrentSchedule();
    }

    void TearDown() override {
        if (server_) server_->Release();
        if (daemon_.Running()) {
            daemon_.Signal(SIGTERM);
            daemon_.WaitExit(Scaled(5000));
        }
        for (auto mount = mounts_.rbegin(); mount != mounts_.rend(); ++mount) test::Unmount(*mount);
    }

    static void UseSocketTimeout(int seconds) {
        test::WriteLoggerSetting("<OutputScheduleEnableLogBufferedIO>0</OutputScheduleEnableLogBufferedIO>"
                                 "<OutputControlSocketTimeout>" +
                                 std::to_string(seconds) + "</OutputControlSocketTimeout>");
    }

    // kRate in every slot from two hours ago to a day ahead, for kPlant,
    // with the next update far away: the daemon keeps them and fetches
    // nothing by itself.
    static void StoreCurrentSchedule() {
        const std::int64_t first = (TimeStamp().EpochSeconds() / kSlotSeconds - 4) * kSlotSeconds;
        std::vector<std::pair<std::int64_t, int>> slots;
        for (int i = 0; i < 52; ++i) slots.emplace_back(first + i * kSlotSeconds, kRate);
        test::StoreSchedule(kPlant, slots);
    }

    // Starts the daemon for kPlant: with `serverUrl` as its schedule
    // server, or stand-alone without one.
    void StartDaemon(const std::string& serverUrl = "", std::vector<std::string> command = {}) {
        test::WriteSystemSetting(kPlant, serverUrl, serverUrl.empty());
        if (command.empty()) command = test::ChildProcess::DaemonCommand();
        ASSERT_TRUE(test::StartDaemon(daemon_, command, test::kDaemonOutput));
    }

    // A schedule server that takes every request and holds its answer until
    // released (then hangs up without one).
    std::string StalledServerUrl() {
        server_.reset(new HttpTestServer(std::string(), Scaled(30000)));
        return server_->Url("/schedule");
    }

    // Sends `count` update requests and waits until the stalled server holds
    // the first of their fetches.
    std::vector<Connection> UpdatesHeldByTheServer(int count) {
        std::vector<Connection> updates;
        for (int i = 0; i < count; ++i) {
            updates.push_back(ConnectWithin(Scaled(kPromptMs)));
            EXPECT_TRUE(updates.back().Send(Request(test::kUpdateScheduleRequest)));
        }
        EXPECT_TRUE(test::WaitFor([&] { return !server_->Requests().empty(); }, 5000))
            << "no update reached the schedule server";
        return updates;
    }

    static bool AnyAnswered(const std::vector<Connection>& connections) {
        return std::any_of(connections.begin(), connections.end(),
                           [](const Connection& connection) { return connection.HasNews(); });
    }

    // Releases the stalled server and expects every held update to end in
    // its access failure.
    void ExpectUpdatesFailOnceReleased(const std::vector<Connection>& updates) {
        server_->Release();
        for (const Connection& update : updates) {
            const std::string reply = update.ReadUntilClosed(Scaled(10000));
            ASSERT_EQ(test::kUpdateAnswerSize, reply.size());
            EXPECT_EQ(test::kUpdateScheduleRequest, WordAt(reply, CommandWire::kAnswerTypeOffset));
            EXPECT_EQ(1, WordAt(reply, CommandWire::kUpdateReasonOffset))
                << reply.substr(CommandWire::kUpdateMessageOffset);
        }
    }

    test::ChildProcess daemon_;
    std::unique_ptr<test::UnixPeer> logger_;
    std::unique_ptr<HttpTestServer> server_;
    std::vector<std::string> mounts_;
};

TEST_F(CommandFrontEndTest, TargetPowerAndFlushLogAreAnsweredWhileUpdatesWaitOnAStalledServer) {
    StartDaemon(StalledServerUrl());
    if (HasFatalFailure()) return;
    const auto stored = test::ScheduleRows();
    const std::vector<Connection> updates = UpdatesHeldByTheServer(5);

    ExpectTargetPowersPromptly();
    EXPECT_EQ(test::FlushAnswer(), AskPromptly(test::kFlushLogRequest));
    EXPECT_FALSE(AnyAnswered(updates)) << "an update did not wait for the stalled server";

    ExpectUpdatesFailOnceReleased(updates);
    EXPECT_EQ(stored, test::ScheduleRows());
    ExpectTargetPowersPromptly();
}

TEST_F(CommandFrontEndTest, SettingNotifyAndFixedScheduleAreAnsweredWhileAnUpdateWaits) {
    StartDaemon(StalledServerUrl());
    if (HasFatalFailure()) return;
    const std::vector<Connection> update = UpdatesHeldByTheServer(1);

    // The plant is the stored one: nothing to fetch, nothing to wait for.
    EXPECT_EQ(test::UpdateAnswer(test::kChangeSettingRequest), AskPromptly(test::kChangeSettingRequest));
    EXPECT_FALSE(AnyAnswered(update)) << "the update did not wait for the stalled server";

    WriteFixedSchedule("/tmp/fixed.hex", 30, 3);
    const std::string fixed = AskPromptly(test::kUpdateFixedScheduleRequest, FixedScheduleParams("/tmp/fixed.hex"));
    ASSERT_EQ(171u, fixed.size()) << "the fixed schedule was not answered in time";
    EXPECT_EQ(0, WordAt(fixed, CommandWire::kFixedReasonOffset)) << fixed.substr(CommandWire::kFixedMessageOffset);
    EXPECT_EQ("48", RowsOfRate(30));

    server_->Release();
    const std::string reply = update.front().ReadUntilClosed(Scaled(10000));
    ASSERT_EQ(test::kUpdateAnswerSize, reply.size());
    EXPECT_EQ(test::kUpdateScheduleRequest, WordAt(reply, CommandWire::kAnswerTypeOffset));
    ExpectTargetPowersPromptly();
}

TEST_F(CommandFrontEndTest, SilentClientsDelayNoOneAndAreClosedUnansweredAtTheirDeadline) {
    const int timeoutMs = 2000;
    UseSocketTimeout(timeoutMs / 1000);
    StartDaemon();
    if (HasFatalFailure()) return;

    // Thirty send nothing; five more send the header of a target-power
    // request and then nothing.
    const Clock::time_point opening = Clock::now();
    std::vector<Connection> stalled;
    std::vector<long long> openedAtMs;
    for (int i = 0; i < 35; ++i) {
        openedAtMs.push_back(MsSince(opening));
        stalled.push_back(ConnectWithin(Scaled(kPromptMs)));
        ASSERT_TRUE(stalled.back().Open());
        if (i >= 30) {
            EXPECT_TRUE(stalled.back().Send(Request(test::kCurrentTargetPowerRequest)));
        }
    }

    ExpectTargetPowersPromptly();

    // Each is closed once its time-out from accept is over: not before (the
    // accept follows the connect), and not much later.
    const HangUps hangUps = WatchHangUps(stalled, opening, timeoutMs + Scaled(2000), stalled.size());
    EXPECT_EQ(stalled.size(), hangUps.Count()) << "silent connections still open after their time-out";
    EXPECT_EQ(0u, hangUps.bytes) << "a silent connection got an answer";
    for (std::size_t i = 0; i < stalled.size(); ++i) {
        if (hangUps.closedAtMs[i] < 0) continue;
        EXPECT_GE(hangUps.closedAtMs[i], openedAtMs[i] + timeoutMs - 100) << "connection " << i << " closed early";
    }
    ExpectTargetPowersPromptly();
}

TEST_F(CommandFrontEndTest, ParametersAfterTheDeadlineAreNeverAnswered) {
    UseSocketTimeout(2);
    StartDaemon();
    if (HasFatalFailure()) return;
    const Connection late = ConnectWithin(Scaled(kPromptMs));
    ASSERT_TRUE(late.Send(Request(test::kCurrentTargetPowerRequest)));
    Poco::Thread::sleep(3000);
    // The daemon may have closed its end already; the capacity is then lost.
    late.Send(Capacity(kCapacity));

    bool closed = false;
    const std::string answer = late.ReadUntilClosed(Scaled(3000), closed);
    EXPECT_EQ("", answer) << "answered after the deadline with power " << PowerOf(answer);
    EXPECT_TRUE(closed);
    ExpectTargetPowersPromptly();
}

TEST_F(CommandFrontEndTest, RequestAfterTheDeadlineIsNeverAnswered) {
    UseSocketTimeout(2);
    StartDaemon();
    if (HasFatalFailure()) return;
    const Connection late = ConnectWithin(Scaled(kPromptMs));
    ASSERT_TRUE(late.Open());
    Poco::Thread::sleep(3000);
    late.Send(Request(test::kCurrentTargetPowerRequest, Capacity(kCapacity)));

    bool closed = false;
    const std::string answer = late.ReadUntilClosed(Scaled(3000), closed);
    EXPECT_EQ("", answer) << "answered after the deadline with power " << PowerOf(answer);
    EXPECT_TRUE(closed);
    ExpectTargetPowersPromptly();
}

TEST_F(CommandFrontEndTest, IdleClientsBeyondTheDescriptorLimitLeaveTheSocketAnswering) {
    // Long enough that the time-out closes none of the idle clients here.
    UseSocketTimeout(10);
    ASSERT_TRUE(RaiseOwnDescriptorLimit(kIdleClients + 100));
    std::vector<std::string> command = {
        "/usr/bin/prlimit", "--nofile=" + std::to_string(kDescriptorLimit) + ":" + std::to_string(kDescriptorLimit),
        "--"};
    for (const std::string& word : test::ChildProcess::DaemonCommand()) command.push_back(word);
    StartDaemon("", command);
    if (HasFatalFailure()) return;
    const std::string limit = std::to_string(kDescriptorLimit);
    ASSERT_EQ(limit + " " + limit, OpenFileLimits(daemon_.Pid()));

    const Clock::time_point opening = Clock::now();
    std::vector<Connection> idle = OpenIdle(kIdleClients, Scaled(3000));
    EXPECT_EQ(static_cast<std::size_t>(kIdleClients), idle.size()) << "the daemon stopped taking connections";
    ExpectTargetPower(test::kCurrentTargetPowerRequest,
                      AskPromptly(test::kCurrentTargetPowerRequest, Capacity(kCapacity)));

    // It cannot hold them all: the oldest were closed, unanswered.
    const std::size_t beyond = idle.size() > static_cast<std::size_t>(kDescriptorLimit)
                                   ? idle.size() - static_cast<std::size_t>(kDescriptorLimit)
                                   : 0;
    const HangUps hangUps = WatchHangUps(idle, opening, Scaled(5000), std::max<std::size_t>(beyond, 1));
    EXPECT_GE(hangUps.Count(), beyond);
    EXPECT_EQ(0u, hangUps.bytes) << "an idle connection got an answer";
    if (!idle.empty()) {
        EXPECT_GE(hangUps.closedAtMs.front(), 0) << "the oldest idle connection was kept";
    }

    idle.clear();
    ExpectTargetPower(test::kNextTargetPowerRequest, AskPromptly(test::kNextTargetPowerRequest, Capacity(kCapacity)));
    EXPECT_EQ(test::FlushAnswer(), AskPromptly(test::kFlushLogRequest));
    EXPECT_TRUE(daemon_.Running());
    // Told in the log, but not once per connection.
    EXPECT_TRUE(test::WaitFor([] { return ClosedConnectionLines() > 0; }, 3000)) << LoggedProblems();
    EXPECT_LE(ClosedConnectionLines(), 3u) << LoggedProblems();
}

TEST_F(CommandFrontEndTest, FixedScheduleOnAReadOnlyFileSystemIsStored) {
    StartDaemon();
    if (HasFatalFailure()) return;
    const std::string directory = "/tmp/read-only";
    const std::string path = directory + "/fixed.hex";
    ASSERT_TRUE(test::MountTmpfs(directory, "size=256k"));
    mounts_.push_back(directory);
    const std::int64_t day = TimeStamp().EpochSeconds() / 86400 * 86400 + 3 * 86400;
    WriteFixedSchedule(path, 30, 3);
    ASSERT_TRUE(test::MakeReadOnly(directory));
    mounts_.push_back(directory);
    ASSERT_NE(0, ::access(path.c_str(), W_OK)) << "the file can still be written";

    const std::string answer = AskPromptly(test::kUpdateFixedScheduleRequest, FixedScheduleParams(path));
    ASSERT_EQ(171u, answer.size());
    EXPECT_EQ(0, WordAt(answer, CommandWire::kFixedReasonOffset)) << answer.substr(CommandWire::kFixedMessageOffset);
    std::vector<std::vector<std::string>> fixedRows;
    for (const auto& row : test::ScheduleRows()) {
        if (row.at(1) == "30") fixedRows.push_back(row);
    }
    ASSERT_EQ(48u, fixedRows.size());
    for (std::size_t i = 0; i < fixedRows.size(); ++i) {
        EXPECT_EQ(std::to_string(day + static_cast<std::int64_t>(i) * kSlotSeconds), fixedRows[i][0]) << i;
    }
}

TEST_F(CommandFrontEndTest, StopEndsTheDaemonPromptlyWhileAClientHoldsAConnection) {
    UseSocketTimeout(10);
    StartDaemon();
    if (HasFatalFailure()) return;
    const Connection silent = ConnectWithin(Scaled(kPromptMs));
    ASSERT_TRUE(silent.Open());
    const Connection headerOnly = ConnectWithin(Scaled(kPromptMs));
    ASSERT_TRUE(headerOnly.Send(Request(test::kCurrentTargetPowerRequest)));
    // Served after both: they are in the daemon's hands by now.
    ExpectTargetPowersPromptly();

    const Clock::time_point stopping = Clock::now();
    ASSERT_TRUE(daemon_.Signal(SIGTERM));
    ASSERT_TRUE(daemon_.WaitExit(Scaled(1000))) << "still running " << MsSince(stopping) << " ms after SIGTERM";
    EXPECT_TRUE(daemon_.ExitedNormally());
    EXPECT_EQ(0, daemon_.ExitCode());
    EXPECT_TRUE(
        test::HasLogLine(test::ReadLines(test::LogFilePath()), "I", "BrevantaOutputControlManager", "Kill complete."));
}

} // namespace
} // namespace brvo
