// Fuzz target of the schedule payload parser. The first input byte picks
// the kind (low three bits: the update and fixed kinds and values no caller
// passes) and how the rest is handed over: as it stands, as the payload's
// hex text with any byte at all in it (high bit clear), or as the payload's
// bytes, turned into hex text first the way the response parser does (high
// bit set), which lets the fuzzer work on the fields rather than on digits.
// With bit 0x40 set instead, the rest describes a valid payload (the update
// kind when bit 0 is set, else the fixed one) and one way of damaging it:
// none, cut short at a chosen length, a count field overflowed with 0xff
// bytes, or a slot count far beyond the cap; the model must accept the
// payload whole and refuse every damaged one.
#include "fuzz/FuzzEnvironment.h"
#include "fuzz/FuzzPayload.h"

#include "schedule/ScheduleModel.h"
#include "util/StringUtil.h"

#include <climits>
#include <cstdint>
#include <string>
#include <vector>

using brvo::fuzz::FuzzEnvironment;

namespace {

const int kKinds[8] = {0, 1, 2, -1, 255, INT_MIN, INT_MAX, 1000};
const std::uint8_t kBytesMode = 0x80;
const std::uint8_t kStructuredMode = 0x40;

// How a valid payload is damaged.
enum Damage { kNone, kCut, kOverflow, kHugeSlotCount, kDamages };

// Invariants of every model, whatever its text.
void CheckModel(const brvo::ScheduleModel& model, const std::string& hex, int kind) {
    const std::vector<brvo::ScheduleRow> slots = model.GetSlots();
    const brvo::ScheduleUpdateInfo info = model.GetUpdateInfo();
    FuzzEnvironment::Check(model.GetPlantId() == info.plantId, "plant id accessors differ");
    FuzzEnvironment::Check(model.IsResult() || !model.GetMessage().empty(), "refused without a message");
    // Every slot takes two hex characters of the text.
    FuzzEnvironment::Check(slots.size() <= hex.size() / 2, "more slots than the text holds");
    FuzzEnvironment::Check(slots.size() <= brvo::ScheduleModel::kMaxSlots, "more slots than the cap");
    for (const brvo::ScheduleRow& slot : slots) {
        // A rate is one byte's value.
        FuzzEnvironment::Check(slot.controlRate >= 0 && slot.controlRate <= 255, "rate beyond a byte");
        FuzzEnvironment::Check(!slot.sent, "parsed slot marked sent");
    }
    if (kind != brvo::ScheduleModel::kUpdateScheduleKind) {
        FuzzEnvironment::Check(info.nextUpdateTime.empty(), "fixed schedule with a next update time");
    }
}

void DamagedPayload(const std::uint8_t* data, std::size_t size) {
    const int kind = (data[0] & 1) != 0 ? brvo::ScheduleModel::kUpdateScheduleKind : 0;
    brvo::fuzz::FuzzInput input(data + 1, size - 1);
    const Damage damage = static_cast<Damage>(input.Byte() % kDamages);
    const std::uint16_t where = input.Word();
    const brvo::fuzz::FuzzPayload built = brvo::fuzz::ValidPayload(input, kind);
    std::vector<unsigned char> bytes = built.payload.bytes;
    std::string hex = built.payload.hex;
    if (damage == kCut) {
        hex.resize(where % hex.size());
    } else if (damage == kOverflow || damage == kHugeSlotCount) {
        const std::size_t field = where % (built.slotCountAt.size() + 1);
        const std::size_t at = field == 0 ? 0 : built.slotCountAt[field - 1];
        const std::size_t width = field == 0 ? brvo::test::kRecordCountBytes : brvo::test::kSlotCountBytes;
        for (std::size_t i = 0; i < width; ++i) bytes[at + i] = damage == kOverflow ? 0xff : 0;
        // The bytes 100, 0, 0, 0, 0 read "1000000".
        if (damage == kHugeSlotCount) bytes[at] = 100;
        hex = brvo::test::HexOf(bytes);
    }
    const brvo::ScheduleModel model(hex, kind);
    CheckModel(model, hex, kind);
    if (damage == kNone) {
        FuzzEnvironment::Check(model.IsResult(), "valid payload refused");
        FuzzEnvironment::Check(model.GetMessage().empty(), "valid payload with a message");
        FuzzEnvironment::Check(model.GetSlots().size() == built.slots, "slots differ from the records' counts");
    } else {
        FuzzEnvironment::Check(!model.IsResult(), "damaged payload accepted");
    }
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    FuzzEnvironment::RequireSandbox("ScheduleModelFuzz");
    // No log: its buffer keeps lines across inputs, which makes libFuzzer
    // check for leaks after every input and slows the run many times over.
    // The messages are built all the same.
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) return 0;
    if ((data[0] & (kBytesMode | kStructuredMode)) == kStructuredMode) {
        DamagedPayload(data, size);
        return 0;
    }
    const int kind = kKinds[data[0] & 0x07];
    std::string hex;
    if ((data[0] & kBytesMode) != 0) {
        hex = brvo::StringUtil::BytesToHex(data + 1, size - 1);
    } else {
        hex = FuzzEnvironment::Text(data + 1, size - 1);
    }
    const brvo::ScheduleModel model(hex, kind);
    CheckModel(model, hex, kind);
    return 0;
}
