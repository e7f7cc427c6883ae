#include "util/LogFileOutput.h"

#include "util/FileUtil.h"
#include "util/ScopedLock.h"
#include "util/SystemClock.h"

#include <Poco/Clock.h>
#include <Poco/DateTimeFormatter.h>
#include <Poco/Exception.h>
#include <Poco/Format.h>
#include <Poco/Path.h>
#include <Poco/Timestamp.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string_view>

namespace brvo {

namespace {

const std::string kDefaultTimeFormat = "%Y-%m-%d %H:%M:%S";
// The writer's regular tick.
const long kTickIntervalMs = 500;
// Room for a line's time text; a longer one is cut.
const std::size_t kTimeTextSize = 128;
// Room a line buffer starts with.
const std::size_t kBufferStartBytes = 64 * 1024;

// Serialises writing of the fall-back file and the clearing of written
// buffers across every output of the process. Never destroyed: an output
// still open when the process exits writes its last lines during static
// destruction, after a function-local static would already be gone.
RecursiveMutex& FileMutex() {
    static RecursiveMutex* mutex = new RecursiveMutex();
    return *mutex;
}

void PrintLine(const std::string& text) {
    std::fwrite(text.data(), 1, text.size(), stdout);
}

// The lines as they are echoed: each as the log file's name, a blank, the
// line; under one lock of the stream so that lines of several threads
// never interleave.
void EchoLines(const std::string& fileName, const std::string& lines) {
    flockfile(stdout);
    std::size_t start = 0;
    while (start < lines.size()) {
        const std::size_t feed = lines.find('\n', start);
        const std::size_t end = feed == std::string::npos ? lines.size() : feed + 1;
        fwrite_unlocked(fileName.data(), 1, fileName.size(), stdout);
        fputc_unlocked(' ', stdout);
        fwrite_unlocked(lines.data() + start, 1, end - start, stdout);
        start = end;
    }
    funlockfile(stdout);
}

// The lines a thread gathers in a batch, and the writer they are for.
thread_local std::string batchLines;
thread_local const LogFileOutput* batchOwner = nullptr;

// The calling thread's line under construction; it keeps its room, so a
// line costs no allocation once the thread has logged a long one.
std::string& ThreadLine() {
    thread_local std::string line;
    line.clear();
    return line;
}

// A byte that would break the line or steer a terminal: C0 controls and DEL.
// Bytes from 0x80 up (UTF-8) pass as they are.
bool IsControl(unsigned char byte) {
    return byte < 0x20 || byte == 0x7f;
}

// Appends `text` with every control byte written as "\xNN" (lowercase hex),
// so that no value can end the line early or forge a line of its own. The
// backslash itself is kept as it is: an escape only tells where a control
// byte was, it is not meant to be read back.
// Whether any of the eight bytes of `word` is a control byte: below 0x20
// (a borrow into a byte's top bit that the byte itself did not have) or
// 0x7f (a zero byte after the XOR). Both tests are exact for "any".
bool HasControl(std::uint64_t word) {
    const std::uint64_t ones = 0x0101010101010101ULL;
    const std::uint64_t highs = 0x8080808080808080ULL;
    const std::uint64_t below = (word - ones * 0x20) & ~word & highs;
    const std::uint64_t del = word ^ (ones * 0x7f);
    return (below | ((del - ones) & ~del & highs)) != 0;
}

void AppendEscaped(std::string& line, const char* text, std::size_t length) {
    static const char kHex[] = "0123456789abcdef";
    std::size_t plain = 0;
    std::size_t i = 0;
    while (i < length) {
        std::uint64_t word = 0;
        if (length - i >= sizeof word) {
            std::memcpy(&word, text + i, sizeof word);
            if (!HasControl(word)) {
                i += sizeof word;
                continue;
            }
        }
        const unsigned char byte = static_cast<unsigned char>(text[i]);
        if (IsControl(byte)) {
            line.append(text + plain, i - plain);
            const char escape[] = {'\\', 'x', kHex[byte >> 4], kHex[byte & 0x0f]};
            line.append(escape, sizeof escape);
            plain = i + 1;
        }
        ++i;
    }
    line.append(text + plain, length - plain);
}

void AppendEscaped(std::string& line, const std::string& text) {
    AppendEscaped(line, text.data(), text.size());
}

// Gives back a buffer's room when a burst grew it past what it keeps.
void KeepRoom(std::string& buffer) {
    if (buffer.capacity() <= LogFileOutput::kKeptBufferBytes) return;
    std::string().swap(buffer);
    buffer.reserve(kBufferStartBytes);
}

} // namespace

const std::string LogFileOutput::kErrorFilePath = "/tmp/logger_io_file_error";

std::string LogFileOutput::ErrorFilePath() {
    return FileUtil::UnderRoot(kErrorFilePath);
}

LogFileOutput::LogFileOutput(const LogLimiter::Clock& repeatClock, const LogLimiter::Clock& wallClock, Ticks ticks)
    : active_(&buffers_[0]), activeIndex_(0), timeFormat_(kDefaultTimeFormat), logLevel_(1), bufferedIO_(true),
      maxBufferedSize_(8192), maxRollIndex_(1), maxFileSize_(10485760),
      wallClock_(wallClock ? wallClock : LogLimiter::Clock(&SystemClock::NowMicroseconds)), ticks_(ticks),
      started_(false), closed_(false), writer_(nullptr), writerRunner_(*this, &LogFileOutput::RunWriter),
      wake_(Poco::Event::EVENT_AUTORESET), stopping_(false), pileArmed_(true), flushRequested_(false),
      errorRecorded_(false), sentToStderr_(0), bufferedBytes_(0), countedBytes_(0),
      limiter_(LogLimiter::kPeriodMicroseconds, repeatClock), timeVersion_(NextTimeVersion()) {}

// A number no writer's time format had before: a thread's kept time text
// is of this writer and format only while the number is the same.
std::uint64_t LogFileOutput::NextTimeVersion() {
    static std::atomic<std::uint64_t> versions(0);
    return ++versions;
}

LogFileOutput::~LogFileOutput() {
    Close();
}

void LogFileOutput::Close() {
    if (!started_ || closed_.exchange(true)) return;
    StopWriter();
    WriteCounts(true);
    flushRequested_ = true;
    Tick();
}

// Ends the writer's thread after the pass it may be in.
void LogFileOutput::StopWriter() {
    if (writer_ == nullptr) return;
    stopping_ = true;
    wake_.set();
    writer_->join();
    delete writer_;
    writer_ = nullptr;
}

// The writer's thread: a tick every kTickIntervalMs after the one before,
// and one whenever a pile of lines wakes it. The wait is never longer than
// the interval, so that a clock set back cannot hold the ticks up.
void LogFileOutput::RunWriter() {
    const Poco::Clock::ClockDiff interval = kTickIntervalMs * 1000;
    Poco::Clock due;
    due += interval;
    while (!stopping_) {
        if (ticks_ == Ticks::kPileOnly) {
            wake_.wait();
        } else {
            const Poco::Clock::ClockDiff left = std::min(interval, -due.elapsed());
            if (left <= 0 || !wake_.tryWait(static_cast<long>((left + 999) / 1000))) {
                due.update();
                due += interval;
            }
        }
        if (stopping_) return;
        Tick();
    }
}

void LogFileOutput::SetMaxFileSize(Poco::UInt32 size) {
    if (size != 0) maxFileSize_ = size;
}

void LogFileOutput::SetMaxRollIndex(int index) {
    if (index != 0) maxRollIndex_ = index;
}

void LogFileOutput::SetMaxBufferedSize(int size) {
    if (size != 0) maxBufferedSize_ = size;
}

void LogFileOutput::SetLogLevel(int level) {
    if (level >= 0 && level <= 5) logLevel_ = level;
}

void LogFileOutput::SetBufferedIO(bool buffered) {
    bufferedIO_ = buffered;
}

void LogFileOutput::SetTimeFormat(const std::string& format) {
    if (format.empty()) return;
    ScopedLock lock(timeMutex_);
    timeFormat_ = format;
    wholeSeconds_ = WholeSecondsOnly(format);
    formattedTime_.clear();
    timeVersion_.store(NextTimeVersion(), std::memory_order_release);
}

void LogFileOutput::SetFilePath(const std::string& path) {
    if (path.empty()) {
        // Carries on regardless: the writer then reports a file error.
        PrintLine("file_path error not set\n");
    }
    Poco::Path parsed(path);
    directory_ = parsed.parent().toString();
    fileName_ = parsed.getFileName();
    filePath_ = path;
    if (!FileUtil::Exists(directory_) && !FileUtil::CreateDirectory(directory_, true)) {
        ReportFileError();
    }
    {
        ScopedLock lock(mutex_);
        for (LineBuffer& buffer : buffers_) {
            buffer.clear();
            buffer.reserve(kBufferStartBytes);
        }
        active_ = &buffers_[activeIndex_];
    }
    if (started_) return;
    started_ = true;
    if (ticks_ != Ticks::kByCaller) {
        writer_ = new Poco::Thread("LogWriter");
        writer_->start(writerRunner_);
    }
}

std::string LogFileOutput::FormatNow() {
    char time[kTimeTextSize];
    return std::string(time, FormatNowInto(time, sizeof time));
}

// The time text into `text` (at most `size` bytes, cut if longer); its
// length. Every line carries the time; a format without fractions of a
// second gives the same text for a whole second, which is formatted only
// once, so that a line needs no temporary string for it.
std::size_t LogFileOutput::FormatNowInto(char* text, std::size_t size) {
    const std::int64_t micros = wallClock_();
    const std::int64_t second = micros / 1000000 - (micros % 1000000 < 0 ? 1 : 0);
    // Each thread keeps the text of the second it last formatted, for this
    // writer and its time format: most lines then take no lock for it.
    thread_local TimeText mine;
    const std::uint64_t version = timeVersion_.load(std::memory_order_acquire);
    if (mine.version == version && mine.second == second) {
        const std::size_t length = std::min(size, mine.length);
        std::memcpy(text, mine.text, length);
        return length;
    }
    ScopedLock lock(timeMutex_);
    if (!wholeSeconds_) {
        const std::string formatted = Poco::DateTimeFormatter::format(Poco::Timestamp(micros), timeFormat_);
        const std::size_t length = std::min(size, formatted.size());
        std::memcpy(text, formatted.data(), length);
        return length;
    }
    if (second != formattedSecond_ || formattedTime_.empty()) {
        formattedTime_ = Poco::DateTimeFormatter::format(Poco::Timestamp(micros), timeFormat_);
        formattedSecond_ = second;
    }
    const std::size_t length = std::min(size, formattedTime_.size());
    std::memcpy(text, formattedTime_.data(), length);
    if (formattedTime_.size() <= sizeof mine.text) {
        mine.version = timeVersion_.load(std::memory_order_relaxed);
        mine.second = second;
        mine.length = formattedTime_.size();
        std::memcpy(mine.text, formattedTime_.data(), mine.length);
    }
    return length;
}

// The time part of a line: "[" time " UTC] ", or nothing when the time
// text is empty.
void LogFileOutput::AppendTime(std::string& line) {
    char time[kTimeTextSize];
    const std::size_t length = FormatNowInto(time, sizeof time);
    if (length > 0) line.append("[").append(time, length).append(" UTC] ");
}

// Whether `format` shows nothing finer than seconds (no %i, %c, %F).
bool LogFileOutput::WholeSecondsOnly(const std::string& format) {
    for (std::size_t i = 0; i + 1 < format.size(); ++i) {
        if (format[i] != '%') continue;
        const char spec = format[i + 1];
        if (spec == 'i' || spec == 'c' || spec == 'F') return false;
        ++i;
    }
    return true;
}

void LogFileOutput::Output(int level, const std::string& mark, const std::string& prefix, const std::string& message) {
    if (level < logLevel_) return;
    try {
        std::string& line = ThreadLine();
        AppendTime(line);
        if (!mark.empty()) line.append("[").append(mark).append("] ");
        if (!prefix.empty()) {
            AppendEscaped(line, prefix);
            line.append(" ");
        }
        AppendEscaped(line, message);
        line.append("\n");
        Queue(line);
    } catch (const Poco::Exception& e) {
        PrintLine("LogOutput error " + e.displayText() + "\n");
    } catch (...) {
        // Logging never throws to its caller; the line is lost.
    }
}

void LogFileOutput::OutputText(int level, const char* mark, const std::string& thread, const char* tag,
                               const char* message, std::size_t length) {
    if (level < logLevel_) return;
    try {
        std::string& line = ThreadLine();
        AppendTime(line);
        line.append("[").append(mark).append("] [");
        AppendEscaped(line, thread);
        line.append("] ");
        AppendEscaped(line, tag, std::strlen(tag));
        line.append(" ");
        AppendEscaped(line, message, length);
        line.append("\n");
        Queue(line);
    } catch (...) {
        // Logging never throws to its caller; the line is lost.
    }
}

// Echoes formatted lines and appends them to the active buffer; within a
// batch of this thread, gathers them instead.
void LogFileOutput::Queue(const std::string& lines) {
    if (batchOwner == this) {
        batchLines.append(lines);
        return;
    }
    if (echo_) EchoLines(fileName_, lines);
    bool wake = false;
    {
        ScopedLock lock(mutex_);
        active_->append(lines);
        wake = PileUp();
    }
    if (wake) wake_.set();
}

// Whether the writer is to be woken now for the lines that wait: they
// passed the pile size, and no wake was sent since the last write.
bool LogFileOutput::PileUp() {
    const std::size_t pile = std::max(kPressureBytes, static_cast<std::size_t>(std::max(maxBufferedSize_, 0)));
    return active_->size() >= pile && pileArmed_.exchange(false);
}

void LogFileOutput::BeginBatch() {
    batchLines.clear();
    batchOwner = this;
}

void LogFileOutput::EndBatch() {
    if (batchOwner != this) return;
    batchOwner = nullptr;
    if (!batchLines.empty()) Queue(batchLines);
    batchLines.clear();
}

void LogFileOutput::OutputLimited(int level, const std::string& mark, const std::string& prefix,
                                  const std::string& kind, const std::string& message) {
    if (level < logLevel_) return;
    try {
        std::vector<LogLimiter::Report> due;
        const bool admitted = limiter_.Admit(LogLimiter::Line{level, mark, prefix, kind}, due);
        WriteReports(due);
        if (admitted) Output(level, mark, prefix, message);
    } catch (...) {
        // Logging never throws to its caller; the line is lost.
    }
}

// Count lines go out as lines of the level, thread and tag they count.
void LogFileOutput::WriteReports(const std::vector<LogLimiter::Report>& reports) {
    for (const LogLimiter::Report& report : reports) {
        Output(report.line.level, report.line.mark, report.line.prefix, report.message);
    }
}

// The counts of the periods that are over (of all, at the end of the log),
// queued before the buffer is swapped so that this tick writes them.
void LogFileOutput::WriteCounts(bool all) {
    try {
        WriteReports(all ? limiter_.TakeAll() : limiter_.TakeEnded());
    } catch (...) {
        // Logging never throws; the counts are lost.
    }
}

void LogFileOutput::RequestFlush() {
    flushRequested_ = true;
}

bool LogFileOutput::IsBufferedIO() const {
    return bufferedIO_;
}

bool LogFileOutput::NeedsFlush() {
    if (flushRequested_.exchange(false)) {
        // The byte counters are deliberately left as they are.
        return true;
    }
    if (!bufferedIO_) return true;
    if (countedBytes_ != active_->size()) {
        bufferedBytes_ += static_cast<int>(active_->size() - countedBytes_);
        countedBytes_ = active_->size();
    }
    if (bufferedBytes_ < maxBufferedSize_) return false;
    bufferedBytes_ = 0;
    countedBytes_ = 0;
    return true;
}

LogFileOutput::LineBuffer* LogFileOutput::SwapBuffers() {
    ScopedLock lock(mutex_);
    if (!NeedsFlush()) return nullptr;
    LineBuffer* toWrite = active_;
    activeIndex_ = activeIndex_ == 0 ? 1 : 0;
    active_ = &buffers_[activeIndex_];
    return toWrite;
}

void LogFileOutput::Tick() {
    WriteCounts(false);
    LineBuffer* toWrite = SwapBuffers();
    if (toWrite == nullptr || toWrite->empty()) return;
    if (!PrepareTarget()) {
        SendUnwritten(*toWrite);
        RestoreUnwritten(*toWrite);
        return;
    }
    if (WriteBuffer(*toWrite)) {
        pileArmed_ = true;
    } else {
        SendUnwritten(*toWrite);
    }
    sentToStderr_ = 0;
    ClearWritten(*toWrite);
}

int LogFileOutput::SyslogPriority(const char* line, std::size_t length) {
    // "[time UTC] [M] ...": the mark follows the first "] [".
    const std::string_view text(line, length);
    const std::size_t at = text.find("] [");
    const char mark = at != std::string_view::npos && at + 4 < length && line[at + 4] == ']' ? line[at + 3] : 'I';
    switch (mark) {
    case 'V':
    case 'D':
        return 7;
    case 'W':
        return 4;
    case 'E':
        return 3;
    case 'F':
        return 2;
    default:
        return 6;
    }
}

// The lines not yet sent, each with its priority, in one write per line
// under one lock of the stream.
void LogFileOutput::SendUnwritten(const LineBuffer& lines) {
    flockfile(stderr);
    std::size_t start = std::min(sentToStderr_, lines.size());
    while (start < lines.size()) {
        const std::size_t feed = lines.find('\n', start);
        const std::size_t end = feed == std::string::npos ? lines.size() : feed + 1;
        const char priority[] = {'<', static_cast<char>('0' + SyslogPriority(lines.data() + start, end - start)), '>'};
        fwrite_unlocked(priority, 1, sizeof priority, stderr);
        fwrite_unlocked(lines.data() + start, 1, end - start, stderr);
        start = end;
    }
    fflush_unlocked(stderr);
    funlockfile(stderr);
    sentToStderr_ = lines.size();
}

bool LogFileOutput::PrepareTarget() {
    const bool usable = (FileUtil::Exists(directory_) || FileUtil::CreateDirectory(directory_, true)) &&
                        (FileUtil::CanWrite(directory_) || FileUtil::SetWritable(directory_, true)) &&
                        (FileUtil::Exists(filePath_) || FileUtil::CreateFile(filePath_));
    if (!usable) ReportFileError();
    return usable;
}

// Lines that could not be written go back in front of the newer ones, so a
// later tick writes them all in the order they were logged.
void LogFileOutput::RestoreUnwritten(LineBuffer& lines) {
    if (lines.size() > kMaxUnwrittenBytes) {
        // Whole lines only: from the first line start within the cap.
        std::size_t cut = lines.find('\n', lines.size() - kMaxUnwrittenBytes - 1);
        cut = cut == std::string::npos ? lines.size() : cut + 1;
        lines.erase(0, cut);
        sentToStderr_ = sentToStderr_ > cut ? sentToStderr_ - cut : 0;
    }
    ScopedLock lock(mutex_);
    active_->insert(0, lines);
    countedBytes_ += lines.size();
    bufferedBytes_ += static_cast<int>(lines.size());
    lines.clear();
}

bool LogFileOutput::WriteBuffer(LineBuffer& lines) {
    // The chunk is the run of lines from `begin` to `end`; it is written
    // before a line that would take the file past its limit.
    Poco::UInt64 fileSize = FileUtil::GetSize(filePath_);
    bool written = true;
    std::size_t begin = 0;
    std::size_t end = 0;
    while (end < lines.size()) {
        const std::size_t feed = lines.find('\n', end);
        const std::size_t next = feed == std::string::npos ? lines.size() : feed + 1;
        if ((next - end) + fileSize + (end - begin) > maxFileSize_) {
            written = WriteToFile(lines.data() + begin, end - begin) && written;
            begin = end;
            RollFiles();
            fileSize = FileUtil::GetSize(filePath_);
        }
        end = next;
    }
    return WriteToFile(lines.data() + begin, lines.size() - begin) && written;
}

void LogFileOutput::ClearWritten(LineBuffer& lines) {
    ScopedLock lock(FileMutex());
    lines.clear();
    KeepRoom(lines);
}

bool LogFileOutput::WriteToFile(const char* text, std::size_t length) {
    try {
        std::ofstream file(filePath_, std::ios::out | std::ios::app | std::ios::binary);
        if (!file.is_open()) {
            ReportFileError();
            return false;
        }
        file.write(text, static_cast<std::streamsize>(length));
        file.flush();
        bool written = false;
        if (file.fail()) {
            PrintLine("log_file error " + filePath_ + "\n");
            ReportFileError();
        } else if (file.bad()) {
            PrintLine("log_file bad error " + filePath_ + "\n");
            ReportFileError();
        } else {
            errorRecorded_ = false;
            written = true;
        }
        file.close();
        return written;
    } catch (const Poco::Exception& e) {
        PrintLine("log_file write error " + e.displayText() + "\n");
    } catch (...) {
        PrintLine("log_file write error\n");
    }
    return false;
}

void LogFileOutput::RollFiles() {
    for (int i = maxRollIndex_; i >= 1; --i) {
        const std::string source = i == 1 ? fileName_ : Poco::format("%s.%d", fileName_, i - 1);
        if (!FileUtil::Exists(directory_ + "/" + source)) continue;
        const std::string target = Poco::format("%s.%d", fileName_, i);
        FileUtil::Rename(directory_ + source, directory_ + target);
        if (i == 1 && !FileUtil::CreateFile(filePath_)) ReportFileError();
    }
}

void LogFileOutput::ReportFileError() {
    if (errorRecorded_) return;
    try {
        ScopedLock lock(FileMutex());
        const std::string errorFile = ErrorFilePath();
        std::ofstream file(errorFile, std::ios::out | std::ios::app | std::ios::binary);
        if (!file.is_open()) return;
        const std::string time = FormatNow();
        if (!time.empty()) file << "[" << time << " UTC] ";
        file << filePath_ << "\n";
        file.flush();
        if (file.fail()) {
            PrintLine("log_file error " + errorFile + "\n");
        } else if (file.bad()) {
            PrintLine("log_file bad error " + errorFile + "\n");
        } else {
            errorRecorded_ = true;
        }
    } catch (const Poco::Exception& e) {
        PrintLine("log_file write error " + e.displayText() + "\n");
    } catch (...) {
        PrintLine("log_file write error\n");
    }
}

} // namespace brvo
