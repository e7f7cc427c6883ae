// Writer of the daemon's log file. Callers only format a line and append it
// to an in-memory buffer; the writer's thread, every 500 ms, swaps the
// double buffer and writes the full one to the file, rolling the file into
// ".1" to ".n" when it would grow past the size limit. Its own write
// failures are noted once per failure period in
// "/tmp/logger_io_file_error".
//
// A burst of lines (thousands of answers a second) wakes the writer before
// its next tick, once kPressureBytes wait: the buffers then keep the room
// they have, instead of growing to half a second of lines and being given
// back after each write, which would cost every caller copies and fresh
// pages under the lock. Only after a write that reached the file: a file
// that cannot be written is tried on the ticks alone.
//
// While the file cannot be written (no card, a read-only or full card),
// every line also goes to standard error, once, with its level as a syslog
// priority ("<3>" for E; the journal reads it), from the writer's thread
// so that no caller waits on it; once a write succeeds, that stops. The
// lines kept in memory for a later write are capped at kMaxUnwrittenBytes,
// the oldest going first: they reached standard error already.
//
// Control characters in a line's prefix and message are written as "\xNN",
// so that one call is always exactly one line, whatever text a value holds.
//
// Memory: each buffer is one run of bytes holding whole lines, each ended
// by its only line feed, and keeps its room between ticks; a line is
// formatted in a per-thread buffer that keeps its room too. A line thus
// costs no heap allocation once the buffers have grown to the traffic; a
// buffer that a burst grew past kKeptBufferBytes is given back after it
// was written.
//
// Lock rules: mutex_ guards the active buffer and the byte counts; the
// buffer being written is the writer's alone. timeMutex_ guards the time
// format and the text of the second last formatted; it is taken after the
// process-wide file lock (an error note carries the time), never before.
#ifndef BRVO_UTIL_LOGFILEOUTPUT_H
#define BRVO_UTIL_LOGFILEOUTPUT_H

#include "util/LogLimiter.h"
#include "util/Mutex.h"
#include "util/RecursiveMutex.h"
#include "util/ThreadAnnotations.h"

#include <Poco/Event.h>
#include <Poco/RunnableAdapter.h>
#include <Poco/Thread.h>
#include <Poco/Types.h>

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

namespace brvo {

class LogFileOutput {
public:
    // Path of the file that records the log's own write failures.
    static const std::string kErrorFilePath;
    // kErrorFilePath under the root prefix (FileUtil::UnderRoot): the file
    // this process records its write failures in.
    static std::string ErrorFilePath();

    // What drives the writer: its own thread, every 500 ms and at a pile
    // of lines; the same thread at a pile of lines only (tests, which so
    // prove that wake alone); or the owner calling Tick() (tests, which so
    // decide when a write may happen).
    enum class Ticks { kTimer, kPileOnly, kByCaller };

    // `repeatClock` times the periods of repeated lines (the steady clock
    // when empty). `wallClock` gives the time written on each line, in
    // microseconds since 1970-01-01 00:00:00 UTC (the system clock when
    // empty). Tests pass their own clocks and ticks.
    explicit LogFileOutput(const LogLimiter::Clock& repeatClock = LogLimiter::Clock(),
                           const LogLimiter::Clock& wallClock = LogLimiter::Clock(), Ticks ticks = Ticks::kTimer);
    // Close(), if nobody called it.
    virtual ~LogFileOutput();

    // Stops the timer and writes, on the calling thread, what the active
    // buffer still holds, together with the counts of repeated lines still
    // pending. Only the first call writes; a line another thread appends
    // afterwards is never written. For the log's final write while other
    // threads may still hold the writer.
    void Close();

    LogFileOutput(const LogFileOutput&) = delete;
    LogFileOutput& operator=(const LogFileOutput&) = delete;

    // Size at which the file is rolled; 0 is ignored.
    void SetMaxFileSize(Poco::UInt32 size);
    // Number of rolled files kept; 0 is ignored.
    void SetMaxRollIndex(int index);
    // Buffered bytes that trigger a write; 0 is ignored.
    void SetMaxBufferedSize(int size);
    // Lowest level written; values outside 0..5 are ignored.
    void SetLogLevel(int level);
    // Whether lines wait for the buffer threshold or a flush request.
    void SetBufferedIO(bool buffered);
    // Time-stamp pattern; an empty pattern is ignored.
    void SetTimeFormat(const std::string& format) EXCLUDES(timeMutex_);
    // Sets the log file and, unless Ticks::kByCaller, starts the writer's
    // thread (once).
    void SetFilePath(const std::string& path) EXCLUDES(mutex_);

    // Formats one line "[time UTC] [mark] prefix message", echoes it to
    // standard output and queues it. Lines below the level are dropped.
    void Output(int level, const std::string& mark, const std::string& prefix, const std::string& message);
    // As Output, for a line given as pieces of bytes: `mark` (one
    // letter), `thread` (the thread's text), `tag` and the `length` bytes
    // of `message`. The line is "[time UTC] [mark] [thread] tag message".
    // Formats without a temporary string. Lines below the level are
    // dropped.
    void OutputText(int level, const char* mark, const std::string& thread, const char* tag, const char* message,
                    std::size_t length);
    // As Output, for a line that a peer may repeat without end: the first
    // line of `kind` in a period is written, later ones only counted, and
    // one line reports the count when the period is over.
    void OutputLimited(int level, const std::string& mark, const std::string& prefix, const std::string& kind,
                       const std::string& message);
    // Gathers the lines the calling thread queues from now on, until
    // EndBatch queues them all with one echo and one append: the lines of
    // one answer stay together and take the locks once. One batch per
    // thread at a time.
    void BeginBatch();
    // Queues the lines gathered since BeginBatch on this thread.
    void EndBatch();
    // Asks the next timer tick to write the buffer.
    void RequestFlush();
    // Whether lines are echoed to standard output (by default they are).
    void SetEcho(bool echo) { echo_ = echo; }
    // Whether the log is written through the buffer.
    bool IsBufferedIO() const;

    // One pass of the writer: queues the counts of ended repeat periods,
    // then swaps and writes the buffer when a write is due. Called from one
    // thread at a time: the writer's, or the owner's with Ticks::kByCaller.
    void Tick();

    // Accessors for tests and diagnostics.
    const std::string& GetFilePath() const { return filePath_; }
    Poco::UInt32 GetMaxFileSize() const { return maxFileSize_; }
    int GetMaxRollIndex() const { return maxRollIndex_; }
    int GetMaxBufferedSize() const { return maxBufferedSize_; }
    int GetLogLevel() const { return logLevel_; }
    bool IsFlushRequested() const { return flushRequested_; }

    // Room a buffer keeps after it was written; a buffer that grew past it
    // in a burst is given back.
    static constexpr std::size_t kKeptBufferBytes = 256 * 1024;
    // Bytes of lines in the active buffer that wake the writer before its
    // tick (or the buffered size, when that is larger).
    static constexpr std::size_t kPressureBytes = kKeptBufferBytes / 2;
    // Most bytes of lines kept for a file that cannot be written.
    static constexpr std::size_t kMaxUnwrittenBytes = 1024 * 1024;
    // The syslog priority of a formatted line, by its level mark: 7 for V
    // and D, 6 for I (and a line without a mark), 4 for W, 3 for E, 2 for F.
    static int SyslogPriority(const char* line, std::size_t length);

private:
    // Whole lines, each ended by its line feed.
    typedef std::string LineBuffer;

    void WriteReports(const std::vector<LogLimiter::Report>& reports);
    void WriteCounts(bool all);
    bool NeedsFlush() REQUIRES(mutex_);
    LineBuffer* SwapBuffers() EXCLUDES(mutex_);
    bool PrepareTarget();
    bool WriteBuffer(LineBuffer& lines);
    void SendUnwritten(const LineBuffer& lines);
    void RestoreUnwritten(LineBuffer& lines) EXCLUDES(mutex_);
    void ClearWritten(LineBuffer& lines);
    bool WriteToFile(const char* text, std::size_t length);
    void RollFiles();
    void Queue(const std::string& lines) EXCLUDES(mutex_);
    bool PileUp() REQUIRES(mutex_);
    void RunWriter();
    void StopWriter();
    std::size_t FormatNowInto(char* text, std::size_t size) EXCLUDES(timeMutex_);
    void AppendTime(std::string& line);
    void ReportFileError();
    std::string FormatNow();
    static bool WholeSecondsOnly(const std::string& format);

    RecursiveMutex mutex_;
    LineBuffer* active_ GUARDED_BY(mutex_) PT_GUARDED_BY(mutex_);
    int activeIndex_ GUARDED_BY(mutex_);
    LineBuffer buffers_[2];
    std::string timeFormat_ GUARDED_BY(timeMutex_);
    Mutex timeMutex_;
    std::int64_t formattedSecond_ GUARDED_BY(timeMutex_) = -1;
    // Whether timeFormat_ shows nothing finer than seconds.
    bool wholeSeconds_ GUARDED_BY(timeMutex_) = true;
    // A thread's text of one whole second (see FormatNowInto).
    struct TimeText {
        std::uint64_t version = 0;
        std::int64_t second = 0;
        std::size_t length = 0;
        char text[64] = {};
    };
    static std::uint64_t NextTimeVersion();
    std::string formattedTime_ GUARDED_BY(timeMutex_);
    std::string directory_;
    std::string filePath_;
    std::string fileName_;
    std::atomic<int> logLevel_;
    std::atomic<bool> bufferedIO_;
    int maxBufferedSize_;
    int maxRollIndex_;
    Poco::UInt32 maxFileSize_;
    LogLimiter::Clock wallClock_;
    Ticks ticks_;
    bool started_;
    std::atomic<bool> closed_;
    // The writer's thread (null with Ticks::kByCaller and before the
    // path is set), its wake-up and its end.
    Poco::Thread* writer_;
    Poco::RunnableAdapter<LogFileOutput> writerRunner_;
    Poco::Event wake_;
    std::atomic<bool> stopping_;
    // Whether a pile of lines may wake the writer: set by a write that
    // reached the file, cleared by the wake it sends.
    std::atomic<bool> pileArmed_;
    std::atomic<bool> flushRequested_;
    std::atomic<bool> echo_{true};
    bool errorRecorded_;
    // Bytes at the front of the lines waiting for the file that went to
    // standard error already; the writer's thread alone.
    std::size_t sentToStderr_;
    int bufferedBytes_ GUARDED_BY(mutex_);
    // Bytes of the active buffer already added to bufferedBytes_.
    std::size_t countedBytes_ GUARDED_BY(mutex_);
    LogLimiter limiter_;
    // This writer's time format's number (NextTimeVersion).
    std::atomic<std::uint64_t> timeVersion_;
};

} // namespace brvo

#endif
