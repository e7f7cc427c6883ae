// Why a schedule flow failed. The values travel to local clients inside the
// update answers and appear in log lines, so each keeps its number; 8, 10
// and 11 are not reasons of a flow (the target power codes use 10 and 11).
#ifndef BRVO_SCHEDULE_FAILUREREASON_H
#define BRVO_SCHEDULE_FAILUREREASON_H

#include <cstdint>

namespace brvo {

enum class FailureReason : std::int32_t {
    kNone = 0,                 // success
    kAccessFailed = 1,         // server access failed, or no update information exists
    kResponseUnparsable = 2,   // the server's response could not be parsed
    kPayloadInvalid = 3,       // the schedule payload is not valid
    kNoSlots = 4,              // the payload holds no slots
    kDatabaseWriteFailed = 5,  // the database write failed
    kPlantIdNotRegistered = 6, // the server does not know the plant ID
    kPlantIdMismatch = 7,      // fixed data of another plant ID, not forced
    kFileNotFound = 9,         // a fixed-schedule file handed in locally is missing or unusable
    kException = 12,           // an exception inside the flow
};

// The reason's number as clients and log lines see it.
inline std::int32_t ToWire(FailureReason reason) {
    return static_cast<std::int32_t>(reason);
}

} // namespace brvo

#endif
