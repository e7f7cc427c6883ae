#include "fuzz/FuzzPayload.h"

#include <cstdio>
#include <string>

namespace brvo {
namespace fuzz {

std::uint8_t FuzzInput::Byte() {
    return next_ < size_ ? data_[next_++] : 0;
}

std::uint16_t FuzzInput::Word() {
    const std::uint16_t high = Byte();
    return static_cast<std::uint16_t>(high << 8 | Byte());
}

namespace {

test::ScheduleRecord Record(FuzzInput& input) {
    char start[16];
    std::snprintf(start, sizeof start, "%04d%02d%02d%02d%s", 2000 + input.Byte() % 100, 1 + input.Byte() % 12,
                  1 + input.Byte() % 28, input.Byte() % 24, input.Byte() % 2 == 0 ? "00" : "30");
    test::ScheduleRecord record;
    record.plantId = std::to_string(input.Word());
    record.start = start;
    record.rates.resize(input.Word() % 1024);
    for (int& rate : record.rates) rate = input.Byte();
    record.fixedFlag = input.Byte() % 10;
    // The last second of the start's day: never before the first slot.
    record.nextUpdate = record.start.substr(0, 8) + "235959";
    return record;
}

std::size_t RecordBytes(const test::ScheduleRecord& record, int kind) {
    std::size_t bytes = test::kReservedBytes + test::kPlantIdBytes + test::kStartBytes + test::kSlotCountBytes +
                        record.rates.size() + test::kChecksumBytes;
    if (kind == test::kUpdateSchedule) bytes += test::kFixedFlagBytes + test::kNextUpdateBytes;
    return bytes;
}

} // namespace

FuzzPayload ValidPayload(FuzzInput& input, int kind) {
    FuzzPayload built;
    std::vector<test::ScheduleRecord> records(1 + input.Byte() % 3);
    std::size_t offset = test::kRecordCountBytes;
    for (test::ScheduleRecord& record : records) {
        record = Record(input);
        built.slotCountAt.push_back(offset + test::kReservedBytes + test::kPlantIdBytes + test::kStartBytes);
        built.slots += record.rates.size();
        offset += RecordBytes(record, kind);
    }
    built.payload = test::BuildSchedulePayload(records, kind);
    return built;
}

} // namespace fuzz
} // namespace brvo
