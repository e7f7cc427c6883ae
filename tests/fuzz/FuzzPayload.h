// Structure-aware fuzzing of the schedule payload: a valid payload derived
// from the fuzzer's bytes, which the targets then damage on purpose, so that
// the fuzzer spends its time near the payloads the server really sends.
#ifndef BRVO_TESTS_FUZZ_FUZZPAYLOAD_H
#define BRVO_TESTS_FUZZ_FUZZPAYLOAD_H

#include "support/SchedulePayload.h"

#include <cstddef>
#include <cstdint>
#include <vector>

namespace brvo {
namespace fuzz {

// Hands out the bytes of a fuzz input in order; zeros once they run out.
class FuzzInput {
public:
    FuzzInput(const std::uint8_t* data, std::size_t size) : data_(data), size_(size), next_(0) {}
    // The next byte.
    std::uint8_t Byte();
    // The next two bytes as one number.
    std::uint16_t Word();

private:
    const std::uint8_t* data_;
    std::size_t size_;
    std::size_t next_;
};

// A valid payload and where its count fields stand.
struct FuzzPayload {
    test::SchedulePayload payload;
    // Byte offset of each record's slot count field.
    std::vector<std::size_t> slotCountAt;
    // The slots of all records together.
    std::size_t slots = 0;
};

// One to three records of `kind` with starts on the half hour of the years
// 2000 to 2099, up to 1023 slots each, and a next update after the start:
// a payload the model must accept whole.
FuzzPayload ValidPayload(FuzzInput& input, int kind);

} // namespace fuzz
} // namespace brvo

#endif
