// Front end of the daemon's log: one entry point per level, callable from
// any thread. Lines go to the single LogFileOutput, which writes them to
// "OutputSchedule_pvocd.log" under the log directory the logger settings
// hand down.
#ifndef BRVO_UTIL_LOGGERLOG_H
#define BRVO_UTIL_LOGGERLOG_H

#include <cstddef>
#include <memory>
#include <string>

namespace brvo {

class LogFileOutput;

class LoggerLog {
public:
    // Log levels and their marks.
    enum Level { kVerbose = 0, kDebug = 1, kInfo = 2, kWarning = 3, kError = 4, kFatal = 5 };
    // The log file's name, below the log directory.
    static const char kLogFileName[];

    // Creates the process-wide instance if absent and initialises the output.
    static void CreateInstance();
    // The instance, or null before CreateInstance.
    static LoggerLog* GetInstance();
    // Deletes the instance; its destructor finalises the output.
    static void DeleteInstance();

    // The log file's part of the logger settings, as they hand it down.
    struct FileSettings {
        // Directory of the log file; created if missing.
        std::string directory;
        // Size at which the log is rolled, as text ("500KB").
        std::string maxFileSize;
        // Number of rolled log files kept.
        int maxRollIndex = 0;
        // Lowest level written.
        int logLevel = 0;
        // Whether lines are written through a buffer.
        bool bufferedIO = false;
        // Bytes buffered before the log is written.
        int maxBufferedSize = 0;
    };
    // Sets the file settings that Initialize builds the output from. The
    // logger settings set theirs when they are created.
    static void SetFileSettings(const FileSettings& settings);
    // Forgets the file settings, so that Initialize builds no output, as
    // before any were set. The logger settings do this when deleted.
    static void ClearFileSettings();

    // Builds the output from the file settings: log directory (created if
    // missing), size limit, roll count, level, buffering. Replaces an output
    // that already exists. Does nothing while no file settings are set.
    static void Initialize();
    // Writes what is still buffered and drops the output; later lines are
    // dropped.
    static void Finalize();

    // Queue one line "[time UTC] [mark] [thread id] tag message" at the
    // given level. Do nothing without an output. Never throw.
    static void Verbose(const std::string& tag, const std::string& message);
    static void Debug(const std::string& tag, const std::string& message);
    static void Info(const std::string& tag, const std::string& message);
    static void Warning(const std::string& tag, const std::string& message);
    static void Error(const std::string& tag, const std::string& message);
    static void Fatal(const std::string& tag, const std::string& message);

    // Gathers the calling thread's lines until EndBatch, which queues them
    // at once (LogFileOutput::BeginBatch): for the lines of one answer. The
    // output is held meanwhile, so its lines take no lock to find it.
    static void BeginBatch();
    static void EndBatch();

    // Whether a line at `level` would be written now (an output exists and
    // its level admits the line): lets a caller skip formatting a line that
    // would be dropped.
    static bool Writes(Level level);
    // Queue one line at `level` as the entry points do, its message the
    // `length` bytes at `message`, without building a temporary string:
    // for callers that format into a buffer of their own. `tag` is a fixed
    // NUL-terminated text. Never throws.
    static void WriteText(Level level, const char* tag, const char* message, std::size_t length);

    // Queue a line at `level` that a peer or client may repeat without end:
    // the first line of `kind` in a period (60 s) is written as it is, the
    // others of that period are counted, and one line "[kind] repeated N
    // more time(s) in the last 60 s." follows when the period is over or the
    // log is finalised. `kind` is a fixed text naming the failure, unique
    // across the daemon, never a value taken from the input.
    static void Limited(Level level, const std::string& tag, const std::string& kind, const std::string& message);

    // Asks the writer to write its buffer at the next tick; does nothing
    // when there is no output or it writes unbuffered.
    static void Flush();
    // Whether lines are also echoed to standard output (they are, unless
    // a caller that writes the same text elsewhere turns it off); does
    // nothing when there is no output.
    static void SetEcho(bool echo);

    // The current output (shared, may be null). For the writer's own tests.
    static std::shared_ptr<LogFileOutput> Output();

    virtual ~LoggerLog();

private:
    LoggerLog() = default;
    static void Write(int level, const std::string& tag, const std::string& message);
};

} // namespace brvo

#endif
