// The real pvocd under many clients at once on its command socket: every
// client gets exactly the answer a lone request gets, and once the load is
// over the daemon is back to the descriptors, threads and memory it had.
#include "server/CommandWire.h"
#include "support/ChildProcess.h"
#include "support/CommandClient.h"
#include "support/ProcessStatus.h"
#include "support/StoredSchedule.h"
#include "support/TestFiles.h"
#include "util/TimeStamp.h"

#include <gtest/gtest.h>

#include <Poco/Thread.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <thread>

namespace brvo {
namespace {

const std::string kPlant = "00000000000000000000000555";
const std::int64_t kSlotSeconds = 1800;
// Slots stored on either side of the current one: the test stays well
// inside them however long it runs.
const int kSlotsAround = 4;

const int kClients = 2048;
const int kAtOnce = 64;

// The allocator keeps some of the pages it was given under load (glibc
// keeps freed chunks in the arenas of the worker and server threads and
// trims only from the top of each heap), and SQLite's page cache and the
// log's two buffers may settle a little higher than after the warm-up.
// Together that stays within a few MiB: about 2 MiB here, about 5 MiB in the
// sanitizer builds (the address sanitizer's quarantine made small below). A
// leak that matters shows more: 2,048 requests losing one 4 KiB page each
// come to 8 MiB, and a leaked answer, statement or parsed settings tree per
// request grows without bound. Under ThreadSanitizer the runtime's own
// shadow and history memory, which is not the daemon's, grows with the
// number of threads and accesses (about 10 MiB over this load), so the
// bound there is wider; the native and address-sanitizer runs keep 8 MiB.
#if defined(__SANITIZE_THREAD__)
const std::int64_t kRssToleranceKiB = 24 * 1024;
#else
const std::int64_t kRssToleranceKiB = 8 * 1024;
#endif

// The rate stored for the slot `k` slots away from the current one.
int RateOf(int k) {
    return 20 + 9 * (k + kSlotsAround);
}

class LoadTest : public ::testing::Test {
protected:
    void SetUp() override {
        test::WriteLoggerSetting("<OutputControlSocketTimeout>10</OutputControlSocketTimeout>");
        // Stand-alone with a stored schedule of the same plant: nothing is
        // fetched, and start-up keeps the rows.
        test::WriteSystemSetting(kPlant, "", true);
        slot0_ = TimeStamp().EpochSeconds() / kSlotSeconds * kSlotSeconds;
        std::vector<std::pair<std::int64_t, int>> slots;
        for (int k = -kSlotsAround; k <= kSlotsAround; ++k) slots.emplace_back(slot0_ + k * kSlotSeconds, RateOf(k));
        test::StoreSchedule(kPlant, slots);
    }

    void TearDown() override {
        if (daemon_.Running()) {
            daemon_.Signal(SIGTERM);
            daemon_.WaitExit(5000 * static_cast<int>(test::TimeScale()));
        }
    }

    void StartDaemon() {
        // A sanitizer build holds freed memory back in a quarantine (256 MiB
        // by default, and 1 MiB more per thread) to catch late uses; small
        // ones keep the resident memory meaningful with the daemon's seven
        // serving threads. Other builds ignore the setting.
        const char* inherited = std::getenv("ASAN_OPTIONS");
        std::string asan = inherited != nullptr ? std::string(inherited) + ":" : std::string();
        asan += "quarantine_size_mb=1:thread_local_quarantine_size_kb=64";
        ASSERT_TRUE(daemon_.Start(test::ChildProcess::DaemonCommand(), test::kDaemonOutput, {{"ASAN_OPTIONS", asan}}));
        ASSERT_TRUE(test::WaitForSocket(test::kCommandSocket, 10000)) << test::ReadFile(test::kDaemonOutput);
    }

    // The answer a lone request of `type` (6, 7 or 8) with `capacity` gets
    // when it is served at epoch second `now`.
    std::string Expected(std::int32_t type, double capacity, std::int64_t now) const {
        if (type == 8) return test::FlushAnswer();
        std::int64_t slot = now / kSlotSeconds * kSlotSeconds;
        if (type == 7) slot += kSlotSeconds;
        const int rate = RateOf(static_cast<int>((slot - slot0_) / kSlotSeconds));
        const double power = static_cast<double>(rate) * capacity / 100.0;
        return test::TargetPowerAnswer(type, power, TimeStamp::FromEpochSeconds(slot)->FormatCompact());
    }

    // Request `index` of a run: five of eight ask for the current target
    // power, two for the next one, one flushes the log; the capacity varies
    // so that an answer meant for another client would show.
    static std::int32_t TypeOf(int index) {
        const int kind = index % 8;
        return kind == 7 ? 8 : kind >= 5 ? 7 : 6;
    }

    static double CapacityOf(int index) { return 0.5 * (1 + index % 97); }

    // Sends request `index` and returns an empty text when its answer was
    // the expected one, else what went wrong.
    std::string Check(int index, int timeoutMs) const {
        const std::int32_t type = TypeOf(index);
        const double capacity = CapacityOf(index);
        const std::string params = type == 8 ? std::string() : test::Capacity(capacity);
        const std::int64_t before = TimeStamp().EpochSeconds();
        std::string answer;
        const bool complete = test::Exchange(test::kCommandSocket, test::Request(type, params), answer, timeoutMs);
        const std::int64_t after = TimeStamp().EpochSeconds();
        if (!complete) return "request " + std::to_string(index) + ": no complete answer";
        // A slot may begin while the request travels: either side is right.
        if (answer == Expected(type, capacity, before) || answer == Expected(type, capacity, after)) {
            return std::string();
        }
        return "request " + std::to_string(index) + " (type " + std::to_string(type) + "): answer of " +
               std::to_string(answer.size()) + " bytes differs";
    }

    // Runs requests `first` .. `first` + `count` - 1 from `kAtOnce` client
    // threads; returns the failures (at most ten are kept) and counts all.
    std::vector<std::string> RunClients(int first, int count, int& failures) const {
        const int timeoutMs = 30000 * static_cast<int>(test::TimeScale());
        std::atomic<int> next(first);
        std::atomic<int> failed(0);
        std::mutex mutex;
        std::vector<std::string> kept;
        std::vector<std::thread> clients;
        for (int t = 0; t < kAtOnce; ++t) {
            clients.emplace_back([&] {
                for (int index = next++; index < first + count; index = next++) {
                    const std::string problem = Check(index, timeoutMs);
                    if (problem.empty()) continue;
                    ++failed;
                    std::lock_guard<std::mutex> lock(mutex);
                    if (kept.size() < 10) kept.push_back(problem);
                }
            });
        }
        for (std::thread& client : clients) client.join();
        failures = failed;
        return kept;
    }

    struct Usage {
        int descriptors;
        int threads;
        std::int64_t residentKiB;
    };

    // The lowest of five readings 100 ms apart: a descriptor the log writer
    // holds open for a moment does not count.
    Usage Quiet() const {
        Usage usage = {1 << 30, 1 << 30, std::int64_t(1) << 40};
        for (int i = 0; i < 5; ++i) {
            usage.descriptors = std::min(usage.descriptors, test::OpenDescriptorCount(daemon_.Pid()));
            usage.threads = std::min(usage.threads, test::ThreadCount(daemon_.Pid()));
            usage.residentKiB = std::min(usage.residentKiB, test::ResidentKiB(daemon_.Pid()));
            Poco::Thread::sleep(100);
        }
        return usage;
    }

    test::ChildProcess daemon_;
    std::int64_t slot0_ = 0;
};

TEST_F(LoadTest, ThousandsOfClientsGetTheirOwnAnswersAndLeaveNothingBehind) {
    StartDaemon();
    // Lone requests first: the answers the load must reproduce.
    for (int index = 0; index < 8; ++index) EXPECT_EQ("", Check(index, 30000)) << index;
    // Warm-up: every worker thread serves a few requests, so that their
    // allocator arenas, the database session and the settings readers exist
    // before the first reading.
    int failures = 0;
    std::vector<std::string> problems = RunClients(0, 4 * kAtOnce, failures);
    ASSERT_EQ(0, failures) << problems.front();
    const Usage before = Quiet();
    ASSERT_GT(before.descriptors, 0);
    ASSERT_GT(before.threads, 0);
    ASSERT_GT(before.residentKiB, 0);

    problems = RunClients(0, kClients, failures);
    EXPECT_EQ(0, failures) << (problems.empty() ? std::string() : problems.front());
    for (const std::string& problem : problems) ADD_FAILURE() << problem;
    ASSERT_TRUE(daemon_.Running()) << test::ReadFile(test::kDaemonOutput).substr(0, 2000);

    // Whatever a request held is given back within a short settle.
    Usage after = Quiet();
    test::WaitFor(
        [&] {
            after = Quiet();
            return after.descriptors <= before.descriptors && after.threads <= before.threads;
        },
        5000);
    std::printf("descriptors %d -> %d, threads %d -> %d, resident %lld -> %lld KiB\n", before.descriptors,
                after.descriptors, before.threads, after.threads, static_cast<long long>(before.residentKiB),
                static_cast<long long>(after.residentKiB));
    EXPECT_LE(after.descriptors, before.descriptors);
    EXPECT_LE(after.threads, before.threads);
    EXPECT_LE(after.residentKiB, before.residentKiB + kRssToleranceKiB)
        << "before " << before.residentKiB << " KiB, after " << after.residentKiB << " KiB";
    // The daemon still serves, and still answers exactly.
    EXPECT_EQ("", Check(kClients, 30000));
}

} // namespace
} // namespace brvo
