#include "util/LoggerLog.h"

#include <atomic>

#include "util/FileUtil.h"
#include "util/LogFileOutput.h"
#include "util/StringUtil.h"

#include <sstream>
#include <thread>

namespace brvo {

const char LoggerLog::kLogFileName[] = "OutputSchedule_pvocd.log";

namespace {

// One-letter marks of the six levels, indexed by level.
const std::string kMarks[] = {"V", "D", "I", "W", "E", "F"};
const char* const kMarkTexts[] = {"V", "D", "I", "W", "E", "F"};

// Read from every thread; created and deleted on the main thread.
std::atomic<LoggerLog*> instance(nullptr);

// The process-wide output. Readers take a shared reference atomically, so a
// line logged while the output is being replaced or finalised never touches
// a deleted writer.
std::shared_ptr<LogFileOutput> output;

// The lowest level the output writes (kNoOutput without one), kept beside
// it so that asking whether a line would be written takes no lock: it is
// asked before every line is formatted.
const int kNoOutput = LoggerLog::kFatal + 1;
std::atomic<int> lowestWritten(kNoOutput);

// The output held by the calling thread's batch; null outside one.
thread_local std::shared_ptr<LogFileOutput> batchOutput;

// The file settings handed down by the logger settings; null while there
// are none. Replaced and read atomically, like the output.
std::shared_ptr<const LoggerLog::FileSettings> fileSettings;

// The calling thread's ID as the log shows it; formatted once per thread,
// since every log line carries it.
const std::string& ThreadText() {
    thread_local const std::string text = [] {
        std::ostringstream stream;
        stream << std::this_thread::get_id();
        return stream.str();
    }();
    return text;
}

} // namespace

void LoggerLog::CreateInstance() {
    if (instance != nullptr) return;
    instance = new LoggerLog();
    Initialize();
}

LoggerLog* LoggerLog::GetInstance() {
    return instance;
}

void LoggerLog::DeleteInstance() {
    delete instance.exchange(nullptr);
}

LoggerLog::~LoggerLog() {
    Finalize();
}

void LoggerLog::SetFileSettings(const FileSettings& settings) {
    std::atomic_store(&fileSettings, std::shared_ptr<const FileSettings>(std::make_shared<FileSettings>(settings)));
}

void LoggerLog::ClearFileSettings() {
    std::atomic_store(&fileSettings, std::shared_ptr<const FileSettings>());
}

void LoggerLog::Initialize() {
    const std::shared_ptr<const FileSettings> settings = std::atomic_load(&fileSettings);
    if (!settings) return;
    const std::string directory = settings->directory;
    if (!FileUtil::Exists(directory)) {
        FileUtil::CreateDirectory(directory, true);
    }
    std::shared_ptr<LogFileOutput> created = std::make_shared<LogFileOutput>();
    created->SetMaxFileSize(static_cast<Poco::UInt32>(StringUtil::SizeTextToBytes(settings->maxFileSize)));
    created->SetMaxRollIndex(settings->maxRollIndex);
    created->SetLogLevel(settings->logLevel);
    created->SetBufferedIO(settings->bufferedIO);
    created->SetMaxBufferedSize(settings->maxBufferedSize);
    created->SetFilePath(directory + "/" + kLogFileName);
    std::atomic_store(&output, created);
    lowestWritten.store(created->GetLogLevel(), std::memory_order_relaxed);
}

void LoggerLog::Finalize() {
    lowestWritten.store(kNoOutput, std::memory_order_relaxed);
    std::shared_ptr<LogFileOutput> previous = std::atomic_exchange(&output, std::shared_ptr<LogFileOutput>());
    // What is still buffered is written here, even while another thread is
    // in the middle of a line (the daemon ends right after, and the line
    // that thread finishes is not written).
    if (previous) previous->Close();
    previous.reset();
}

std::shared_ptr<LogFileOutput> LoggerLog::Output() {
    return std::atomic_load(&output);
}

void LoggerLog::Write(int level, const std::string& tag, const std::string& message) {
    std::shared_ptr<LogFileOutput> current = std::atomic_load(&output);
    if (!current || level < current->GetLogLevel()) return;
    try {
        current->Output(level, kMarks[level], "[" + ThreadText() + "] " + tag, message);
    } catch (...) {
        // Logging never throws to its caller.
    }
}

bool LoggerLog::Writes(Level level) {
    return level >= lowestWritten.load(std::memory_order_relaxed);
}

void LoggerLog::WriteText(Level level, const char* tag, const char* message, std::size_t length) {
    LogFileOutput* current = batchOutput.get();
    std::shared_ptr<LogFileOutput> loaded;
    if (current == nullptr) {
        loaded = std::atomic_load(&output);
        current = loaded.get();
    }
    if (current == nullptr || level < current->GetLogLevel()) return;
    current->OutputText(level, kMarkTexts[level], ThreadText(), tag, message, length);
}

void LoggerLog::BeginBatch() {
    batchOutput = std::atomic_load(&output);
    if (batchOutput) batchOutput->BeginBatch();
}

void LoggerLog::EndBatch() {
    if (!batchOutput) return;
    batchOutput->EndBatch();
    // The writer's destructor runs here when the output was finalised
    // meanwhile.
    batchOutput.reset();
}

void LoggerLog::Limited(Level level, const std::string& tag, const std::string& kind, const std::string& message) {
    std::shared_ptr<LogFileOutput> current = std::atomic_load(&output);
    if (!current || level < current->GetLogLevel()) return;
    try {
        current->OutputLimited(level, kMarks[level], "[" + ThreadText() + "] " + tag, kind, message);
    } catch (...) {
        // Logging never throws to its caller.
    }
}

void LoggerLog::Verbose(const std::string& tag, const std::string& message) {
    Write(kVerbose, tag, message);
}

void LoggerLog::Debug(const std::string& tag, const std::string& message) {
    Write(kDebug, tag, message);
}

void LoggerLog::Info(const std::string& tag, const std::string& message) {
    Write(kInfo, tag, message);
}

void LoggerLog::Warning(const std::string& tag, const std::string& message) {
    Write(kWarning, tag, message);
}

void LoggerLog::Error(const std::string& tag, const std::string& message) {
    Write(kError, tag, message);
}

void LoggerLog::Fatal(const std::string& tag, const std::string& message) {
    Write(kFatal, tag, message);
}

void LoggerLog::Flush() {
    std::shared_ptr<LogFileOutput> current = std::atomic_load(&output);
    if (current && current->IsBufferedIO()) current->RequestFlush();
}

void LoggerLog::SetEcho(bool echo) {
    std::shared_ptr<LogFileOutput> current = std::atomic_load(&output);
    if (current) current->SetEcho(echo);
}

} // namespace brvo
