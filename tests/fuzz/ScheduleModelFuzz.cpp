// Fuzz target of the schedule payload parser. The first input byte picks
// the kind (low three bits: the update and fixed kinds and values no caller
// passes) and how the rest is handed over: as it stands, as the payload's
// hex text with any byte at all in it (high bit clear), or as the payload's
// bytes, turned into hex text first the way the response parser does (high
// bit set), which lets the fuzzer work on the fields rather than on digits.
#include "fuzz/FuzzEnvironment.h"

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
    const int kind = kKinds[data[0] & 0x07];
    std::string hex;
    if ((data[0] & kBytesMode) != 0) {
        hex = brvo::StringUtil::BytesToHex(data + 1, size - 1);
    } else {
        hex = FuzzEnvironment::Text(data + 1, size - 1);
    }
    const brvo::ScheduleModel model(hex, kind);

    const std::vector<brvo::ScheduleRow> slots = model.GetSlots();
    const brvo::ScheduleUpdateInfo info = model.GetUpdateInfo();
    FuzzEnvironment::Check(model.GetPlantId() == info.plantId, "plant id accessors differ");
    FuzzEnvironment::Check(model.IsResult() || !model.GetMessage().empty(), "refused without a message");
    // Every slot takes two hex characters of the text.
    FuzzEnvironment::Check(slots.size() <= hex.size() / 2, "more slots than the text holds");
    for (const brvo::ScheduleRow& slot : slots) {
        // A rate is one byte's value.
        FuzzEnvironment::Check(slot.controlRate >= 0 && slot.controlRate <= 255, "rate beyond a byte");
        FuzzEnvironment::Check(!slot.sent, "parsed slot marked sent");
    }
    if (kind != brvo::ScheduleModel::kUpdateScheduleKind) {
        FuzzEnvironment::Check(info.nextUpdateTime.empty(), "fixed schedule with a next update time");
    }
    return 0;
}
