#include "server/OutSocketWork.h"

#include "database/ScheduleDatabase.h"
#include "schedule/RateControl.h"
#include "schedule/ScheduleModel.h"
#include "schedule/ScheduleUpdateManager.h"
#include "schedule/TargetPowerResult.h"
#include "schedule/UpdateResult.h"
#include "settings/LoggerSettingManager.h"
#include "util/FileUtil.h"
#include "util/LoggerLog.h"

#include <Poco/Exception.h>
#include <Poco/FileStream.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

namespace brvo {

namespace {

const char kTag[] = "OutputcontrolServer";
const std::size_t kMessageSize = 128;
const std::size_t kTimeTextSize = 15;
const std::size_t kFixedPlantIdSize = 27;
const std::size_t kFileBlock = 1024;
const int kDefaultTimeoutSeconds = 60;

void PutU32(std::vector<unsigned char>& answer, std::size_t offset, std::uint32_t value) {
    std::memcpy(answer.data() + offset, &value, sizeof value);
}

void PutI32(std::vector<unsigned char>& answer, std::size_t offset, std::int32_t value) {
    std::memcpy(answer.data() + offset, &value, sizeof value);
}

// Copies at most `size` - 1 bytes of `text`, leaving at least one NUL.
void PutText(std::vector<unsigned char>& answer, std::size_t offset, std::size_t size, const std::string& text) {
    std::memcpy(answer.data() + offset, text.data(), std::min(text.size(), size - 1));
}

// A zeroed answer of `size` bytes with its length and type.
std::vector<unsigned char> Answer(std::size_t size, std::int32_t type) {
    std::vector<unsigned char> answer(size, 0);
    PutU32(answer, 0, static_cast<std::uint32_t>(size));
    PutI32(answer, 4, type);
    return answer;
}

// A request arrives right after connecting; a client that never sends
// must not hold a worker for ever.
void SetReceiveTimeout(int fd) {
    LoggerSettingManager* settings = LoggerSettingManager::GetInstance();
    timeval timeout;
    timeout.tv_sec = settings != nullptr ? settings->GetOutputControlSocketTimeout() : kDefaultTimeoutSeconds;
    timeout.tv_usec = 0;
    if (timeout.tv_sec > 0) setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
}

std::shared_ptr<UpdateResult> NotRunning() {
    return std::make_shared<UpdateResult>(12, 0, "Schedule update manager is not running.");
}

} // namespace

OutSocketWork::OutSocketWork(int socket) : socket_(socket) {}

// A work item that never ran (the daemon stopped first) still owns its
// descriptor.
OutSocketWork::~OutSocketWork() {
    Close();
}

void OutSocketWork::Close() {
    if (socket_ < 0) return;
    close(socket_);
    socket_ = -1;
}

std::string OutSocketWork::Tag(const std::string& text) const {
    return text + " [" + std::to_string(socket_) + "]";
}

std::vector<unsigned char> OutSocketWork::UpdateAnswer(std::int32_t type, const UpdateResult& result) {
    std::vector<unsigned char> answer = Answer(kUpdateAnswerSize, type);
    PutI32(answer, 8, result.GetFailureReason());
    PutI32(answer, 12, result.GetStatusCode());
    PutText(answer, 16, kMessageSize, result.GetMessage());
    return answer;
}

// The words lie unaligned on purpose: clients read this layout.
std::vector<unsigned char> OutSocketWork::FixedScheduleAnswer(const UpdateResult& result) {
    std::vector<unsigned char> answer = Answer(kFixedAnswerSize, kUpdateFixedSchedule);
    if (result.IsSettingChanged()) PutText(answer, 8, kFixedPlantIdSize, result.GetPlantId());
    PutI32(answer, 35, result.GetFailureReason());
    PutI32(answer, 39, result.GetStatusCode());
    PutText(answer, 43, kMessageSize, result.GetMessage());
    return answer;
}

std::vector<unsigned char> OutSocketWork::TargetPowerAnswer(std::int32_t type, const TargetPowerResult& result) {
    std::vector<unsigned char> answer = Answer(kTargetAnswerSize, type);
    const double power = result.GetTargetPower();
    std::memcpy(answer.data() + 8, &power, sizeof power);
    PutText(answer, 16, kTimeTextSize, result.GetTimeText());
    PutI32(answer, 31, result.GetCode());
    PutText(answer, 39, kMessageSize, result.GetMessage());
    return answer;
}

// Only length and type carry meaning; the rest is zero, never stale memory.
std::vector<unsigned char> OutSocketWork::FlushAnswer() {
    return Answer(kUpdateAnswerSize, kFlushLog);
}

// Reads one parameter block in one call; bytes that did not come stay zero.
// `padding` zero bytes after the block end every text field taken from it.
std::vector<unsigned char> OutSocketWork::ReadBlock(std::size_t size, std::size_t padding) {
    std::vector<unsigned char> block(size + padding, 0);
    ssize_t ignored = read(socket_, block.data(), size);
    (void)ignored;
    return block;
}

void OutSocketWork::Execute() {
    LoggerLog::Debug(kTag, "Execute");
    SetReceiveTimeout(socket_);
    unsigned char header[kHeaderSize] = {0};
    if (read(socket_, header, kHeaderSize) < 0) {
        LoggerLog::Debug(kTag, "Execute read error...");
        Close();
        return;
    }
    std::int32_t type = 0;
    std::memcpy(&type, header + 4, sizeof type);
    bool sendAfter = false;
    std::vector<unsigned char> answer;
    try {
        answer = Dispatch(type, sendAfter);
    } catch (const std::exception& e) {
        LoggerLog::Error(kTag, "Request data type " + std::to_string(type) + " failed. [" + e.what() + "]");
        answer.clear();
    }
    if (answer.empty()) {
        Close();
        return;
    }
    const ssize_t sent = send(socket_, answer.data(), answer.size(), MSG_NOSIGNAL);
    if (sent < 1) {
        LoggerLog::Error(kTag, "Request data type " + std::to_string(type) + ", write socket failed. [" +
                                   std::to_string(errno) + "] socket[" + std::to_string(socket_) + "]");
        Close();
        return;
    }
    LoggerLog::Debug(kTag, "sent [" + std::to_string(sent) + "]");
    Close();
    ScheduleDatabase* database = ScheduleDatabase::GetInstance();
    if (sendAfter && database != nullptr) database->UpdateSentFlag();
}

std::vector<unsigned char> OutSocketWork::Dispatch(std::int32_t type, bool& sendAfter) {
    ScheduleUpdateManager* updates = ScheduleUpdateManager::GetInstance();
    switch (type) {
    case kCheckPlantId:
        LoggerLog::Debug(kTag, Tag("RequestDataType CheckPlantId"));
        return ServeCheckPlantId();
    case kUpdateSchedule: {
        LoggerLog::Debug(kTag, Tag("RequestDataType UpdateSchedule"));
        std::shared_ptr<UpdateResult> result = updates ? updates->UpdateOutputControlSchedule() : NotRunning();
        sendAfter = result->IsResult();
        return UpdateAnswer(type, *result);
    }
    case kUpdateFixedSchedule:
        LoggerLog::Debug(kTag, Tag("RequestDataType UpdateFixedSchedule"));
        return ServeFixedSchedule(sendAfter);
    case kChangeSettingNotify: {
        LoggerLog::Debug(kTag, Tag("RequestDataType ChangeSettingNotify"));
        bool started = false;
        std::shared_ptr<UpdateResult> result =
            updates ? updates->CheckAndUpdateWithSystemSetting(started, false) : NotRunning();
        sendAfter = started;
        return UpdateAnswer(type, *result);
    }
    case kCurrentTargetPower:
        LoggerLog::Debug(kTag, Tag("RequestDataType CurrentTargetPower"));
        return ServeTargetPower(type);
    case kNextTargetPower:
        LoggerLog::Debug(kTag, Tag("RequestDataType NextTargetPower"));
        return ServeTargetPower(type);
    case kFlushLog:
        LoggerLog::Debug(kTag, Tag("RequestDataType FlushLog"));
        LoggerLog::Flush();
        return FlushAnswer();
    default:
        LoggerLog::Debug(kTag, "unknown data...");
        return std::vector<unsigned char>();
    }
}

// A plant id that fills its 27 bytes without a NUL runs on into the URL
// when taken as text; the zero byte after the block ends both.
std::vector<unsigned char> OutSocketWork::ServeCheckPlantId() {
    const std::vector<unsigned char> block = ReadBlock(kCheckPlantIdSize);
    const std::string plantId(reinterpret_cast<const char*>(block.data()));
    const std::string url(reinterpret_cast<const char*>(block.data() + kPlantIdSize));
    LoggerLog::Debug(kTag, "CheckPlantId Param plant_id [" + plantId + "]  plant_url [" + url + "]");
    ScheduleUpdateManager* updates = ScheduleUpdateManager::GetInstance();
    std::shared_ptr<UpdateResult> result = updates ? updates->CheckPlantId(plantId, url) : NotRunning();
    return UpdateAnswer(kCheckPlantId, *result);
}

std::vector<unsigned char> OutSocketWork::ServeFixedSchedule(bool& sendAfter) {
    const std::vector<unsigned char> block = ReadBlock(kFixedScheduleSize);
    // The path field is followed by the flag byte: a path of 256 bytes
    // without NUL is cut at the field's end, not run on into the flag.
    const char* start = reinterpret_cast<const char*>(block.data());
    const std::string path(start, std::find(start, start + kFilePathSize, '\0'));
    const bool force = block[kFilePathSize] == 1;
    LoggerLog::Debug(kTag, "UpdateFixedSchedule Param file_path [" + path + "]  update_flg [" +
                               (force ? "1" : "0") + "]");
    if (!FileUtil::Exists(path)) {
        return FixedScheduleAnswer(UpdateResult(kFileNotFound, 0, "file not found."));
    }
    std::string text;
    try {
        Poco::FileStream file(path, std::ios::in | std::ios::out);
        char buffer[kFileBlock];
        for (;;) {
            file.read(buffer, kFileBlock);
            const std::streamsize got = file.gcount();
            if (got <= 0) break;
            text.append(buffer, static_cast<std::size_t>(got));
        }
    } catch (const Poco::Exception& e) {
        LoggerLog::Error(kTag, "UpdateFixedSchedule read failed. [" + e.displayText() + "]");
    }
    std::shared_ptr<ScheduleModel> model = std::make_shared<ScheduleModel>(text, 0);
    ScheduleUpdateManager* updates = ScheduleUpdateManager::GetInstance();
    std::shared_ptr<UpdateResult> result = updates ? updates->UpdateWithFixedData(model, force) : NotRunning();
    sendAfter = result->IsResult();
    return FixedScheduleAnswer(*result);
}

std::vector<unsigned char> OutSocketWork::ServeTargetPower(std::int32_t type) {
    const std::vector<unsigned char> block = ReadBlock(kCapacitySize, 0);
    double capacity = 0.0;
    std::memcpy(&capacity, block.data(), sizeof capacity);
    char text[64];
    std::snprintf(text, sizeof text, "%f", capacity);
    LoggerLog::Debug(kTag, std::string("TargetPower Param capacity [") + text + "]");
    RateControl control;
    std::shared_ptr<TargetPowerResult> result =
        control.GetTargetPower(capacity, type == kCurrentTargetPower ? RateControl::kCurrentTargetPower
                                                                     : RateControl::kNextTargetPower);
    return TargetPowerAnswer(type, *result);
}

} // namespace brvo
