#include "server/CommandWire.h"

#include <algorithm>
#include <cstring>

namespace brvo {

namespace {

// Where each header word lies: the same in requests and answers.
static_assert(CommandWire::kLengthOffset == CommandWire::kAnswerLengthOffset, "length word");
static_assert(CommandWire::kTypeOffset == CommandWire::kAnswerTypeOffset, "type word");
static_assert(sizeof(double) == CommandWire::kCapacitySize, "the capacity is an 8-byte double");

void PutWord(unsigned char* bytes, std::size_t offset, std::uint32_t value) {
    std::memcpy(bytes + offset, &value, sizeof value);
}

void PutWord(unsigned char* bytes, std::size_t offset, std::int32_t value) {
    std::memcpy(bytes + offset, &value, sizeof value);
}

// Copies at most `size` - 1 bytes of `text`, so that at least one NUL is
// left in a zeroed field.
void PutText(unsigned char* bytes, std::size_t offset, std::size_t size, const std::string& text) {
    std::memcpy(bytes + offset, text.data(), std::min(text.size(), size - 1));
}

std::int32_t WordAt(const unsigned char* bytes, std::size_t offset) {
    std::int32_t value = 0;
    std::memcpy(&value, bytes + offset, sizeof value);
    return value;
}

// The text at `offset` up to its first NUL, at most up to `end`.
std::string TextAt(const unsigned char* bytes, std::size_t offset, std::size_t end) {
    const unsigned char* start = bytes + offset;
    const unsigned char* stop = std::find(start, bytes + end, static_cast<unsigned char>(0));
    return std::string(start, stop);
}

// A zeroed answer of `size` bytes with its length and type.
std::vector<unsigned char> Answer(std::size_t size, std::int32_t type) {
    std::vector<unsigned char> answer(size, 0);
    PutWord(answer.data(), CommandWire::kAnswerLengthOffset, static_cast<std::uint32_t>(size));
    PutWord(answer.data(), CommandWire::kAnswerTypeOffset, type);
    return answer;
}

const unsigned char* Bytes(const std::string& data) {
    return reinterpret_cast<const unsigned char*>(data.data());
}

// The words and message of an update or fixed-schedule answer.
void ReadUpdateFields(const std::string& answer, std::size_t reasonOffset, std::size_t statusOffset,
                      std::size_t messageOffset, CommandWire::UpdateReply& reply) {
    const unsigned char* bytes = Bytes(answer);
    reply.type = WordAt(bytes, CommandWire::kAnswerTypeOffset);
    reply.reason = WordAt(bytes, reasonOffset);
    reply.status = WordAt(bytes, statusOffset);
    reply.message = TextAt(bytes, messageOffset, messageOffset + CommandWire::kMessageSize);
}

} // namespace

std::size_t CommandWire::ParameterSize(std::int32_t type) {
    switch (type) {
    case kCheckPlantId:
        return kCheckPlantIdSize;
    case kUpdateFixedSchedule:
        return kFixedScheduleSize;
    case kCurrentTargetPower:
    case kNextTargetPower:
        return kCapacitySize;
    default:
        return 0;
    }
}

std::string CommandWire::EncodeRequest(std::int32_t type, const std::string& parameters) {
    std::string request(kHeaderSize, '\0');
    unsigned char* header = reinterpret_cast<unsigned char*>(&request[0]);
    PutWord(header, kLengthOffset, static_cast<std::uint32_t>(kHeaderSize + parameters.size()));
    PutWord(header, kTypeOffset, type);
    return request + parameters;
}

std::string CommandWire::EncodeCheckPlantIdBlock(const std::string& plantId, const std::string& url) {
    std::string block(kCheckPlantIdSize, '\0');
    unsigned char* bytes = reinterpret_cast<unsigned char*>(&block[0]);
    PutText(bytes, kPlantIdOffset, kPlantIdSize, plantId);
    PutText(bytes, kPlantUrlOffset, kPlantUrlSize, url);
    return block;
}

std::string CommandWire::EncodeFixedScheduleBlock(const std::string& path, std::uint8_t force) {
    std::string block(kFixedScheduleSize, '\0');
    unsigned char* bytes = reinterpret_cast<unsigned char*>(&block[0]);
    PutText(bytes, kFilePathOffset, kFilePathSize, path);
    bytes[kForceOffset] = force;
    return block;
}

std::string CommandWire::EncodeCapacityBlock(double capacity) {
    std::string block(kCapacitySize, '\0');
    std::memcpy(&block[kCapacityOffset], &capacity, sizeof capacity);
    return block;
}

std::int32_t CommandWire::DecodeType(const unsigned char* header) {
    return WordAt(header, kTypeOffset);
}

CommandWire::CheckPlantIdRequest CommandWire::DecodeCheckPlantId(const unsigned char* block) {
    CheckPlantIdRequest request;
    request.plantId = TextAt(block, kPlantIdOffset, kCheckPlantIdSize);
    request.url = TextAt(block, kPlantUrlOffset, kCheckPlantIdSize);
    return request;
}

CommandWire::FixedScheduleRequest CommandWire::DecodeFixedSchedule(const unsigned char* block) {
    FixedScheduleRequest request;
    request.path = TextAt(block, kFilePathOffset, kFilePathOffset + kFilePathSize);
    request.force = block[kForceOffset] == 1;
    return request;
}

double CommandWire::DecodeCapacity(const unsigned char* block) {
    double capacity = 0.0;
    std::memcpy(&capacity, block + kCapacityOffset, sizeof capacity);
    return capacity;
}

std::vector<unsigned char> CommandWire::EncodeUpdateAnswer(std::int32_t type, std::int32_t reason, std::int32_t status,
                                                           const std::string& message) {
    std::vector<unsigned char> answer = Answer(kUpdateAnswerSize, type);
    PutWord(answer.data(), kUpdateReasonOffset, reason);
    PutWord(answer.data(), kUpdateStatusOffset, status);
    PutText(answer.data(), kUpdateMessageOffset, kMessageSize, message);
    return answer;
}

std::vector<unsigned char> CommandWire::EncodeFixedScheduleAnswer(const std::string& plantId, std::int32_t reason,
                                                                  std::int32_t status, const std::string& message) {
    std::vector<unsigned char> answer = Answer(kFixedAnswerSize, kUpdateFixedSchedule);
    PutText(answer.data(), kFixedPlantIdOffset, kFixedPlantIdSize, plantId);
    PutWord(answer.data(), kFixedReasonOffset, reason);
    PutWord(answer.data(), kFixedStatusOffset, status);
    PutText(answer.data(), kFixedMessageOffset, kMessageSize, message);
    return answer;
}

void CommandWire::FillTargetPowerAnswer(unsigned char* answer, std::int32_t type, double power, const char* timeText,
                                        std::int32_t code, const std::string& message) {
    std::memset(answer, 0, kTargetAnswerSize);
    PutWord(answer, kAnswerLengthOffset, static_cast<std::uint32_t>(kTargetAnswerSize));
    PutWord(answer, kAnswerTypeOffset, type);
    std::memcpy(answer + kTargetPowerOffset, &power, sizeof power);
    std::memcpy(answer + kTargetTimeOffset, timeText, strnlen(timeText, kTargetTimeSize - 1));
    PutWord(answer, kTargetCodeOffset, code);
    PutText(answer, kTargetMessageOffset, kMessageSize, message);
}

std::vector<unsigned char> CommandWire::EncodeTargetPowerAnswer(std::int32_t type, double power,
                                                                const std::string& timeText, std::int32_t code,
                                                                const std::string& message) {
    std::vector<unsigned char> answer(kTargetAnswerSize, 0);
    FillTargetPowerAnswer(answer.data(), type, power, timeText.c_str(), code, message);
    return answer;
}

// Only length and type carry meaning; the rest is zero, never stale memory.
std::vector<unsigned char> CommandWire::EncodeFlushAnswer() {
    return Answer(kFlushAnswerSize, kFlushLog);
}

bool CommandWire::DecodeUpdateAnswer(const std::string& answer, UpdateReply& reply) {
    if (answer.size() < kUpdateAnswerSize) return false;
    ReadUpdateFields(answer, kUpdateReasonOffset, kUpdateStatusOffset, kUpdateMessageOffset, reply);
    reply.plantId.clear();
    return true;
}

bool CommandWire::DecodeFixedScheduleAnswer(const std::string& answer, UpdateReply& reply) {
    if (answer.size() < kFixedAnswerSize) return false;
    ReadUpdateFields(answer, kFixedReasonOffset, kFixedStatusOffset, kFixedMessageOffset, reply);
    reply.plantId = TextAt(Bytes(answer), kFixedPlantIdOffset, kFixedPlantIdOffset + kFixedPlantIdSize);
    return true;
}

bool CommandWire::DecodeTargetPowerAnswer(const std::string& answer, TargetPowerReply& reply) {
    if (answer.size() < kTargetAnswerSize) return false;
    const unsigned char* bytes = Bytes(answer);
    reply.type = WordAt(bytes, kAnswerTypeOffset);
    std::memcpy(&reply.power, bytes + kTargetPowerOffset, sizeof reply.power);
    reply.timeText = TextAt(bytes, kTargetTimeOffset, kTargetTimeOffset + kTargetTimeSize);
    reply.code = WordAt(bytes, kTargetCodeOffset);
    reply.message = TextAt(bytes, kTargetMessageOffset, kTargetMessageOffset + kMessageSize);
    return true;
}

} // namespace brvo
