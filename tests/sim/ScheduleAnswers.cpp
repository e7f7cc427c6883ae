#include "sim/ScheduleAnswers.h"

#include "client/ServerAccessResult.h"
#include "client/ServerResponseParser.h"
#include "sim/ServerDay.h"
#include "support/SchedulePayload.h"

namespace brvo {
namespace sim {

namespace {

const std::string kBoundary = "simboundary";
const int kHttpOk = 200;

} // namespace

std::vector<unsigned char> ScheduleAnswers::Bytes(const Record& record, const Rates& rates, bool corrupt) {
    test::ScheduleRecord payload;
    payload.plantId = record.plantId;
    payload.start = ServerDay::MinuteText(record.first);
    payload.rates.clear();
    payload.rates.reserve(static_cast<std::size_t>(record.slots));
    for (int slot = 0; slot < record.slots; ++slot) {
        payload.rates.push_back(rates(record.first + slot * ServerDay::kSlotSeconds));
    }
    payload.fixedFlag = record.flag;
    payload.nextUpdate = ServerDay::SecondText(record.next);
    payload.corruptChecksum = corrupt;
    return test::BuildSchedulePayload({payload}, record.fixed ? test::kFixedSchedule : test::kUpdateSchedule).bytes;
}

std::shared_ptr<ServerAccessResult> ScheduleAnswers::Carrying(const std::string& content) {
    const std::string body = test::BinaryPartBody(kBoundary, content);
    auto result = std::make_shared<ServerAccessResult>(true, kHttpOk, std::string());
    result->SetResponseParser(std::make_shared<ServerResponseParser>(test::MultipartContentType(kBoundary), body.data(),
                                                                     static_cast<std::int64_t>(body.size())));
    return result;
}

std::shared_ptr<ServerAccessResult> ScheduleAnswers::Payload(const Record& record, const Rates& rates) {
    return Carrying(test::BytesText(Bytes(record, rates, false)));
}

std::shared_ptr<ServerAccessResult> ScheduleAnswers::BadChecksum(const Record& record, const Rates& rates) {
    return Carrying(test::BytesText(Bytes(record, rates, true)));
}

std::shared_ptr<ServerAccessResult> ScheduleAnswers::Truncated(const Record& record, const Rates& rates, int cut) {
    std::string content = test::BytesText(Bytes(record, rates, false));
    content.resize(content.size() > static_cast<std::size_t>(cut) ? content.size() - static_cast<std::size_t>(cut) : 0);
    return Carrying(content);
}

std::shared_ptr<ServerAccessResult> ScheduleAnswers::Registered() {
    return Carrying(std::string(40, '\0'));
}

std::shared_ptr<ServerAccessResult> ScheduleAnswers::Status(int status, std::int64_t retryAfter) {
    auto result = std::make_shared<ServerAccessResult>(false, status, "Data is not found.");
    if (retryAfter >= 0) result->SetRetryAfterSeconds(retryAfter);
    return result;
}

std::shared_ptr<ServerAccessResult> ScheduleAnswers::NoAnswer(const std::string& text) {
    return std::make_shared<ServerAccessResult>(false, 0, text);
}

} // namespace sim
} // namespace brvo
