#include "server/OutSocketWork.h"

#include "database/ScheduleDatabase.h"
#include "schedule/RateControl.h"
#include "schedule/ScheduleModel.h"
#include "schedule/ScheduleUpdateManager.h"
#include "schedule/TargetPowerResult.h"
#include "schedule/UpdateResult.h"
#include "settings/LoggerSettingManager.h"
#include "util/FileUtil.h"
#include "util/GuardedCall.h"
#include "util/LoggerLog.h"
#include "util/StringUtil.h"
#include "util/SystemClock.h"

#include <Poco/Clock.h>
#include <Poco/Exception.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace brvo {

namespace {

const char kTag[] = "OutputcontrolServer";
// Room for the capacity formatted with "%f" in its log line; a wider value
// is cut to it.
const std::size_t kCapacityTextSize = RateControl::kDoubleTextSize;
// Room for one line of this class formatted on the accepting thread.
const std::size_t kLineSize = 256;
// Largest fixed-schedule file read, in bytes: a year of half-hour slots
// takes about 35 KB as hexadecimal text.
const std::size_t kMaxFixedScheduleBytes = 4 * 1024 * 1024;

const std::string& kNoMessage() {
    static const std::string* const empty = new std::string();
    return *empty;
}

// Formats a line into a fixed buffer and logs it at `level`; without a
// temporary string. The caller checks the level first when its arguments
// cost something to make.
// The lines of one answer from the snapshot, queued together when it ends.
struct LineBatch {
    LineBatch() { LoggerLog::BeginBatch(); }
    ~LineBatch() { LoggerLog::EndBatch(); }
    LineBatch(const LineBatch&) = delete;
    LineBatch& operator=(const LineBatch&) = delete;
};

void LogLine(LoggerLog::Level level, const char* format, ...) __attribute__((format(printf, 2, 3)));
void LogLine(LoggerLog::Level level, const char* format, ...) {
    if (!LoggerLog::Writes(level)) return;
    char line[kLineSize];
    va_list arguments;
    va_start(arguments, format);
    const int length = std::vsnprintf(line, sizeof line, format, arguments);
    va_end(arguments);
    if (length < 0) return;
    LoggerLog::WriteText(level, kTag, line, std::min(static_cast<std::size_t>(length), sizeof line - 1));
}

std::shared_ptr<UpdateResult> NotRunning() {
    return UpdateResult::Failure(FailureReason::kException, 0, "Schedule update manager is not running.");
}

} // namespace

std::atomic<int> OutSocketWork::openCount_(0);

namespace {

// The freed work item blocks one thread keeps. Trivially destructible, so
// that it stays usable while the thread's other objects are destroyed;
// `count` is kGone once the thread has given its blocks back.
struct SpareBlocks {
    static constexpr int kKept = 8;
    static constexpr int kGone = -1;
    void* blocks[kKept];
    int count;
};

thread_local SpareBlocks spareBlocks = {{}, 0};

// Gives a thread's kept blocks back when the thread ends; made in a thread
// when it first keeps a block.
struct SpareBlocksRelease {
    ~SpareBlocksRelease() {
        while (spareBlocks.count > 0) ::operator delete(spareBlocks.blocks[--spareBlocks.count]);
        spareBlocks.count = SpareBlocks::kGone;
    }
};

thread_local SpareBlocksRelease spareBlocksRelease;

} // namespace

void* OutSocketWork::operator new(std::size_t size) {
    if (size == sizeof(OutSocketWork) && spareBlocks.count > 0) return spareBlocks.blocks[--spareBlocks.count];
    return ::operator new(size);
}

void OutSocketWork::operator delete(void* block, std::size_t size) noexcept {
    if (size == sizeof(OutSocketWork) && spareBlocks.count >= 0 && spareBlocks.count < SpareBlocks::kKept) {
        // Naming the release object makes it in this thread, so that the
        // thread's end gives the kept blocks back.
        if (spareBlocks.count == 0) static_cast<void>(&spareBlocksRelease);
        spareBlocks.blocks[spareBlocks.count++] = block;
        return;
    }
    ::operator delete(block);
}

OutSocketWork::OutSocketWork(int socket) : socket_(socket), received_(0), ended_(false), started_(false) {
    std::memset(request_, 0, sizeof request_);
    if (socket_ >= 0) ++openCount_;
}

// A work item that never ran (the daemon stopped first) still owns its
// descriptor.
OutSocketWork::~OutSocketWork() {
    Close();
}

void OutSocketWork::Close() {
    if (socket_ < 0) return;
    close(socket_);
    socket_ = -1;
    --openCount_;
}

int OutSocketWork::TimeoutSeconds() {
    return LoggerSettingManager::Current().GetBoundedSocketTimeout();
}

std::int64_t OutSocketWork::TimeoutMicroseconds() {
    return static_cast<std::int64_t>(TimeoutSeconds()) * 1000000;
}

bool OutSocketWork::IsFlow(std::int32_t type) {
    return type == CommandWire::kUpdateSchedule || type == CommandWire::kCheckPlantId ||
           type == CommandWire::kUpdateFixedSchedule || type == CommandWire::kChangeSettingNotify;
}

bool OutSocketWork::IsAnswer(std::int32_t type) {
    return type == CommandWire::kCurrentTargetPower || type == CommandWire::kNextTargetPower ||
           type == CommandWire::kFlushLog;
}

std::int32_t OutSocketWork::GetType() const {
    return CommandWire::DecodeType(request_);
}

// The header, then the parameter block of the header's type.
std::size_t OutSocketWork::ExpectedSize() const {
    return HasHeader() ? CommandWire::kHeaderSize + CommandWire::ParameterSize(GetType()) : CommandWire::kHeaderSize;
}

OutSocketWork::ReadState OutSocketWork::ReadAvailable() {
    while (!ended_ && received_ < ExpectedSize()) {
        // One read takes header and parameters together when both are there
        // (bytes past the request are dropped, as they would stay unread).
        const std::size_t room = sizeof request_ - received_;
        const ssize_t got = recv(socket_, request_ + received_, room, MSG_DONTWAIT);
        if (got > 0) {
            received_ += static_cast<std::size_t>(got);
            if (HasHeader() && received_ > ExpectedSize()) {
                std::memset(request_ + ExpectedSize(), 0, received_ - ExpectedSize());
                received_ = ExpectedSize();
            }
        } else if (got == 0) {
            ended_ = true;
        } else if (errno == EAGAIN || errno == EWOULDBLOCK) {
            return kReading;
        } else if (errno != EINTR) {
            // A header that cannot be read gets no answer; a parameter block
            // cut by a failed read is taken as far as it came, as one cut
            // by the end of the connection.
            if (!HasHeader()) return kReadFailed;
            ended_ = true;
        }
    }
    return kRead;
}

// Reads until the request is in, the client ends its side or the socket
// time-out passes; false (with its log line and the connection closed)
// when no request can be served.
bool OutSocketWork::ReadUntilDeadline() {
    const Poco::Clock start;
    const Poco::Clock::ClockDiff limit = TimeoutMicroseconds();
    for (;;) {
        const ReadState state = ReadAvailable();
        if (state == kRead) return true;
        if (state == kReadFailed) {
            Abandon();
            return false;
        }
        const Poco::Clock::ClockDiff left = limit - start.elapsed();
        if (left <= 0) {
            Expire();
            return false;
        }
        pollfd wait = {socket_, POLLIN, 0};
        poll(&wait, 1, static_cast<int>((left + 999) / 1000));
    }
}

void OutSocketWork::Expire() {
    if (!HasHeader()) {
        Abandon();
        return;
    }
    StartUnserved();
    LoggerLog::Limited(LoggerLog::kWarning, kTag, "Request parameters not received in time",
                       "Request data type " + std::to_string(GetType()) + ", parameters not received in time. socket[" +
                           std::to_string(socket_) + "]");
    Close();
}

void OutSocketWork::Abandon() {
    StartUnserved();
    LoggerLog::Limited(LoggerLog::kDebug, kTag, "Execute read error...", "Execute read error...");
    Close();
}

std::string OutSocketWork::Tag(const std::string& text) const {
    return text + " [" + std::to_string(socket_) + "]";
}

std::vector<unsigned char> OutSocketWork::UpdateAnswer(std::int32_t type, const UpdateResult& result) {
    return CommandWire::EncodeUpdateAnswer(type, ToWire(result.GetFailureReason()), result.GetStatusCode(),
                                           result.GetMessage());
}

// The plant ID goes out only with changed settings.
std::vector<unsigned char> OutSocketWork::FixedScheduleAnswer(const UpdateResult& result) {
    return CommandWire::EncodeFixedScheduleAnswer(result.IsSettingChanged() ? result.GetPlantId() : std::string(),
                                                  ToWire(result.GetFailureReason()), result.GetStatusCode(),
                                                  result.GetMessage());
}

std::vector<unsigned char> OutSocketWork::TargetPowerAnswer(std::int32_t type, const TargetPowerResult& result) {
    return CommandWire::EncodeTargetPowerAnswer(type, result.GetTargetPower(), result.GetTimeText(),
                                                ToWire(result.GetCode()), result.GetMessage());
}

void OutSocketWork::Start() {
    if (started_) return;
    started_ = true;
    LoggerLog::Debug(kTag, "Execute");
}

// A connection that brings no request to serve may be repeated by its
// client without end: its "Execute" is held to one line per period.
void OutSocketWork::StartUnserved() {
    if (started_) return;
    started_ = true;
    LoggerLog::Limited(LoggerLog::kDebug, kTag, "Execute of a connection not served", "Execute");
}

void OutSocketWork::Refuse() {
    StartUnserved();
    Serve();
}

void OutSocketWork::Execute() {
    Start();
    if (ReadUntilDeadline()) Serve();
}

void OutSocketWork::Serve() {
    const std::int32_t type = GetType();
    bool sendAfter = false;
    std::vector<unsigned char> answer;
    const Caught caught = GuardedCall([&] { answer = Dispatch(type, sendAfter); });
    if (caught) {
        LoggerLog::Limited(LoggerLog::kError, kTag, "Request failed",
                           caught.Describe("Request data type " + std::to_string(type) + " failed. "));
        answer.clear();
    }
    if (answer.empty()) {
        Close();
        return;
    }
    // The answer is small and the connection's buffer empty, so it never
    // has to wait; a client that is gone costs the log line.
    const ssize_t sent = send(socket_, answer.data(), answer.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    LogServed(sent, type, errno);
    Close();
    if (sent < 1) return;
    ScheduleDatabase* database = ScheduleDatabase::GetInstance();
    if (sendAfter && database != nullptr) database->UpdateSentFlag();
}

std::vector<unsigned char> OutSocketWork::Dispatch(std::int32_t type, bool& sendAfter) {
    switch (type) {
    case CommandWire::kCheckPlantId:
        LoggerLog::Debug(kTag, Tag("RequestDataType CheckPlantId"));
        return ServeCheckPlantId();
    case CommandWire::kUpdateSchedule: {
        LoggerLog::Debug(kTag, Tag("RequestDataType UpdateSchedule"));
        const ScheduleUpdateManager::Pin updates;
        std::shared_ptr<UpdateResult> result = updates ? updates->UpdateOutputControlSchedule() : NotRunning();
        sendAfter = result->IsResult();
        return UpdateAnswer(type, *result);
    }
    case CommandWire::kUpdateFixedSchedule:
        LoggerLog::Debug(kTag, Tag("RequestDataType UpdateFixedSchedule"));
        return ServeFixedSchedule(sendAfter);
    case CommandWire::kChangeSettingNotify: {
        LoggerLog::Debug(kTag, Tag("RequestDataType ChangeSettingNotify"));
        const ScheduleUpdateManager::Pin updates;
        bool started = false;
        std::shared_ptr<UpdateResult> result =
            updates ? updates->CheckAndUpdateWithSystemSetting(started, false) : NotRunning();
        sendAfter = started;
        return UpdateAnswer(type, *result);
    }
    case CommandWire::kCurrentTargetPower:
        LoggerLog::Debug(kTag, Tag("RequestDataType CurrentTargetPower"));
        return ServeTargetPower(type);
    case CommandWire::kNextTargetPower:
        LoggerLog::Debug(kTag, Tag("RequestDataType NextTargetPower"));
        return ServeTargetPower(type);
    case CommandWire::kFlushLog:
        LoggerLog::Debug(kTag, Tag("RequestDataType FlushLog"));
        LoggerLog::Flush();
        return CommandWire::EncodeFlushAnswer();
    default:
        LoggerLog::Limited(LoggerLog::kDebug, kTag, "unknown data...", "unknown data...");
        return std::vector<unsigned char>();
    }
}

// A plant id that fills its 27 bytes without a NUL runs on into the URL
// when taken as text (CommandWire::DecodeCheckPlantId).
std::vector<unsigned char> OutSocketWork::ServeCheckPlantId() {
    const CommandWire::CheckPlantIdRequest request = CommandWire::DecodeCheckPlantId(Parameters());
    LoggerLog::Debug(kTag, "CheckPlantId Param plant_id [" + request.plantId + "]  plant_url [" + request.url + "]");
    const ScheduleUpdateManager::Pin updates;
    std::shared_ptr<UpdateResult> result = updates ? updates->CheckPlantId(request.plantId, request.url) : NotRunning();
    return UpdateAnswer(CommandWire::kCheckPlantId, *result);
}

std::vector<unsigned char> OutSocketWork::ServeFixedSchedule(bool& sendAfter) {
    // A path of 256 bytes without NUL is cut at the field's end, not run on
    // into the flag byte.
    const CommandWire::FixedScheduleRequest request = CommandWire::DecodeFixedSchedule(Parameters());
    const std::string& path = request.path;
    const bool force = request.force;
    LoggerLog::Debug(kTag,
                     "UpdateFixedSchedule Param file_path [" + path + "]  update_flg [" + (force ? "1" : "0") + "]");
    if (!FileUtil::Exists(path)) {
        return FixedScheduleAnswer(*UpdateResult::Failure(FailureReason::kFileNotFound, 0, "file not found."));
    }
    // Only a regular file of a schedule's size is read: a FIFO or a device
    // named here must not hold the worker, nor an endless file its memory.
    FileUtil::ReadResult file = FileUtil::ReadFile(path, kMaxFixedScheduleBytes);
    if (file.missing)
        return FixedScheduleAnswer(*UpdateResult::Failure(FailureReason::kFileNotFound, 0, "file not found."));
    if (!file.ok) {
        LoggerLog::Limited(LoggerLog::kWarning, kTag, "UpdateFixedSchedule file not usable",
                           "UpdateFixedSchedule file not usable. [" + path + "] [" + file.reason + "]");
        return FixedScheduleAnswer(
            *UpdateResult::Failure(FailureReason::kFileNotFound, 0, "file not usable. [" + file.reason + "]"));
    }
    std::shared_ptr<ScheduleModel> model = std::make_shared<ScheduleModel>(file.text, 0);
    const ScheduleUpdateManager::Pin updates;
    std::shared_ptr<UpdateResult> result = updates ? updates->UpdateWithFixedData(model, force) : NotRunning();
    sendAfter = result->IsResult();
    return FixedScheduleAnswer(*result);
}

// The request's type line of the log, for target power.
const char* OutSocketWork::TypeLine(std::int32_t type) {
    return type == CommandWire::kCurrentTargetPower ? "RequestDataType CurrentTargetPower ["
                                                    : "RequestDataType NextTargetPower [";
}

TargetPowerSnapshot::Miss OutSocketWork::ServeFromSnapshot(const TargetPowerSnapshot::View* view) {
    const std::int64_t now = SystemClock::NowMicroseconds();
    const TargetPowerSnapshot::Miss miss = TargetPowerSnapshot::Covers(view, now);
    if (miss != TargetPowerSnapshot::Miss::kNone) return miss;
    const std::int32_t type = GetType();
    const double capacity = CommandWire::DecodeCapacity(Parameters());
    const TargetPowerSnapshot::Answer result = TargetPowerSnapshot::Compute(*view, now, type, capacity);
    unsigned char answer[CommandWire::kTargetAnswerSize];
    CommandWire::FillTargetPowerAnswer(
        answer, type, result.power, result.timeText, ToWire(result.code),
        result.code == TargetPowerResult::Code::kSuccess ? kNoMessage() : RateControl::FailureMessage(result.code));
    const ssize_t sent = send(socket_, answer, sizeof answer, MSG_NOSIGNAL | MSG_DONTWAIT);
    const int sendError = errno;
    // The request's lines are queued together after its answer in any
    // case: formatted only now, they do not hold the answer up.
    {
        const LineBatch batch;
        if (!started_) {
            started_ = true;
            LogLine(LoggerLog::kDebug, "Execute");
        }
        if (LoggerLog::Writes(LoggerLog::kDebug)) LogLine(LoggerLog::kDebug, "%s%d]", TypeLine(type), socket_);
        if (LoggerLog::Writes(LoggerLog::kDebug)) {
            char text[kCapacityTextSize];
            StringUtil::FormatFixed(capacity, text, sizeof text);
            LogLine(LoggerLog::kDebug, "TargetPower Param capacity [%s]", text);
        }
        TargetPowerSnapshot::LogAnswer(result, capacity);
        LogServed(sent, type, sendError);
    }
    Close();
    return miss;
}

// The line after an answer was written, or the failure to write it (with
// `error`, the errno of the write).
void OutSocketWork::LogServed(ssize_t sent, std::int32_t type, int error) {
    if (sent < 1) {
        LoggerLog::Limited(LoggerLog::kError, kTag, "Request answer not written",
                           "Request data type " + std::to_string(type) + ", write socket failed. [" +
                               std::to_string(error) + "] socket[" + std::to_string(socket_) + "]");
        return;
    }
    if (LoggerLog::Writes(LoggerLog::kDebug)) LogLine(LoggerLog::kDebug, "sent [%zd]", sent);
}

std::vector<unsigned char> OutSocketWork::ServeTargetPower(std::int32_t type) {
    const double capacity = CommandWire::DecodeCapacity(Parameters());
    char text[kCapacityTextSize];
    StringUtil::FormatFixed(capacity, text, sizeof text);
    LoggerLog::Debug(kTag, std::string("TargetPower Param capacity [") + text + "]");
    RateControl control;
    std::shared_ptr<TargetPowerResult> result =
        control.GetTargetPower(capacity, type == CommandWire::kCurrentTargetPower ? RateControl::kCurrentTargetPower
                                                                                  : RateControl::kNextTargetPower);
    return TargetPowerAnswer(type, *result);
}

} // namespace brvo
