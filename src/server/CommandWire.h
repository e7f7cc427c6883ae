// The byte layout of the command socket, in one place: the request header
// and parameter blocks, every answer, and how each is written and read.
// The daemon decodes requests and encodes answers; its clients (pvoctl,
// the load tool, the tests) encode requests and decode answers.
//
// All integers are 32-bit in the device's byte order; text fields are
// fixed-size byte arrays, NUL-padded. Some answer words lie unaligned on
// purpose, so every field is copied with memcpy, never cast in place, and
// bytes are handled as unsigned char, so that nothing depends on whether
// plain char is signed (it is not on the device).
//
// Depends on the standard library only, so that a client may compile it in
// without the daemon's other layers. Thread-safe: no state.
#ifndef BRVO_SERVER_COMMANDWIRE_H
#define BRVO_SERVER_COMMANDWIRE_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace brvo {

class CommandWire {
public:
    // --- request types ---
    // Fetch the update and fixed schedules now; no parameters.
    static constexpr std::int32_t kUpdateSchedule = 2;
    // Ask the schedule server whether a plant ID is registered.
    static constexpr std::int32_t kCheckPlantId = 3;
    // Store a fixed schedule from a file.
    static constexpr std::int32_t kUpdateFixedSchedule = 4;
    // Reread the system settings; no parameters.
    static constexpr std::int32_t kChangeSettingNotify = 5;
    // Target power of the slot in force now.
    static constexpr std::int32_t kCurrentTargetPower = 6;
    // Target power of the next slot.
    static constexpr std::int32_t kNextTargetPower = 7;
    // Write the buffered log lines; no parameters.
    static constexpr std::int32_t kFlushLog = 8;

    // --- request header: read first, always 8 bytes ---
    // Size of the request header.
    static constexpr std::size_t kHeaderSize = 8;
    // First header word: never read by the daemon; clients put the
    // request's total length there, as the answers do.
    static constexpr std::size_t kLengthOffset = 0;
    // Second header word: the request type (signed).
    static constexpr std::size_t kTypeOffset = 4;

    // --- CheckPlantId parameters ---
    // Size of the block.
    static constexpr std::size_t kCheckPlantIdSize = 283;
    // Where the plant ID lies in the block.
    static constexpr std::size_t kPlantIdOffset = 0;
    // Size of the plant ID field.
    static constexpr std::size_t kPlantIdSize = 27;
    // Where the schedule server's URL lies in the block.
    static constexpr std::size_t kPlantUrlOffset = 27;
    // Size of the URL field.
    static constexpr std::size_t kPlantUrlSize = 256;

    // --- UpdateFixedSchedule parameters ---
    // Size of the block.
    static constexpr std::size_t kFixedScheduleSize = 257;
    // Where the file path lies in the block.
    static constexpr std::size_t kFilePathOffset = 0;
    // Size of the file path field.
    static constexpr std::size_t kFilePathSize = 256;
    // The force byte: only the value 1 forces.
    static constexpr std::size_t kForceOffset = 256;

    // --- CurrentTargetPower and NextTargetPower parameters ---
    // Size of the block: the capacity, an IEEE-754 double.
    static constexpr std::size_t kCapacitySize = 8;
    // Where the capacity lies in the block.
    static constexpr std::size_t kCapacityOffset = 0;

    // The largest parameter block of any type.
    static constexpr std::size_t kLargestParameterSize = kCheckPlantIdSize;

    // --- every answer starts with its length and the type it answers ---
    // Where the answer's total length lies (unsigned).
    static constexpr std::size_t kAnswerLengthOffset = 0;
    // Where the answered request type lies (signed).
    static constexpr std::size_t kAnswerTypeOffset = 4;
    // Size of every message field; at most one byte less is used.
    static constexpr std::size_t kMessageSize = 128;

    // --- update answer (UpdateSchedule, CheckPlantId, ChangeSettingNotify) ---
    // Size of the answer.
    static constexpr std::size_t kUpdateAnswerSize = 144;
    // Where the failure reason lies.
    static constexpr std::size_t kUpdateReasonOffset = 8;
    // Where the schedule server's HTTP status lies.
    static constexpr std::size_t kUpdateStatusOffset = 12;
    // Where the message lies.
    static constexpr std::size_t kUpdateMessageOffset = 16;

    // --- fixed-schedule answer (UpdateFixedSchedule); words unaligned ---
    // Size of the answer.
    static constexpr std::size_t kFixedAnswerSize = 171;
    // Where the plant ID of changed settings lies.
    static constexpr std::size_t kFixedPlantIdOffset = 8;
    // Size of the plant ID field.
    static constexpr std::size_t kFixedPlantIdSize = 27;
    // Where the failure reason lies.
    static constexpr std::size_t kFixedReasonOffset = 35;
    // Where the schedule server's HTTP status lies.
    static constexpr std::size_t kFixedStatusOffset = 39;
    // Where the message lies.
    static constexpr std::size_t kFixedMessageOffset = 43;

    // --- target power answer (CurrentTargetPower, NextTargetPower) ---
    // Size of the answer.
    static constexpr std::size_t kTargetAnswerSize = 167;
    // Where the target power (double) lies.
    static constexpr std::size_t kTargetPowerOffset = 8;
    // Where the slot start text ("%Y%m%d%H%M%S") lies.
    static constexpr std::size_t kTargetTimeOffset = 16;
    // Size of the slot start field.
    static constexpr std::size_t kTargetTimeSize = 15;
    // Where the result code (0 success) lies; unaligned.
    static constexpr std::size_t kTargetCodeOffset = 31;
    // Where the message lies; the 4 bytes before it stay zero.
    static constexpr std::size_t kTargetMessageOffset = 39;

    // --- flush answer (FlushLog): length and type only, the rest zero ---
    // Size of the answer, that of the update answer, so that clients that
    // read 144 bytes do not block.
    static constexpr std::size_t kFlushAnswerSize = 144;

    // The parameter block's size for requests of `type`; 0 for the types
    // without parameters and for unknown types.
    static std::size_t ParameterSize(std::int32_t type);

    // --- requests: written by clients ---
    // A whole request: the total length, `type`, then `parameters` as they
    // are (a test may send any block).
    static std::string EncodeRequest(std::int32_t type, const std::string& parameters = std::string());
    // The CheckPlantId block: each text cut to leave at least one NUL in
    // its field.
    static std::string EncodeCheckPlantIdBlock(const std::string& plantId, const std::string& url);
    // The UpdateFixedSchedule block: `path` cut to leave at least one NUL,
    // then the force byte `force` as given (1 forces, any other does not).
    static std::string EncodeFixedScheduleBlock(const std::string& path, std::uint8_t force);
    // The target power block: `capacity` as its 8 bytes.
    static std::string EncodeCapacityBlock(double capacity);

    // --- requests: read by the daemon ---
    // The CheckPlantId parameters as text.
    struct CheckPlantIdRequest {
        std::string plantId; // the plant to check
        std::string url;     // the schedule server to ask
    };
    // The UpdateFixedSchedule parameters.
    struct FixedScheduleRequest {
        std::string path; // the schedule file
        bool force;       // whether another plant's schedule replaces ours
    };
    // The type in the kHeaderSize bytes at `header`.
    static std::int32_t DecodeType(const unsigned char* header);
    // The kCheckPlantIdSize bytes at `block`. Each text ends at its first
    // NUL: a plant ID that fills its field without one runs on into the
    // URL, as clients are told; neither runs past the block.
    static CheckPlantIdRequest DecodeCheckPlantId(const unsigned char* block);
    // The kFixedScheduleSize bytes at `block`: a path without NUL ends at
    // its field's end, never in the force byte.
    static FixedScheduleRequest DecodeFixedSchedule(const unsigned char* block);
    // The capacity in the kCapacitySize bytes at `block`.
    static double DecodeCapacity(const unsigned char* block);

    // --- answers: written by the daemon ---
    // The update answer to a request of `type`.
    static std::vector<unsigned char> EncodeUpdateAnswer(std::int32_t type, std::int32_t reason, std::int32_t status,
                                                         const std::string& message);
    // The fixed-schedule answer; `plantId` is left empty (all zero) unless
    // the settings changed.
    static std::vector<unsigned char> EncodeFixedScheduleAnswer(const std::string& plantId, std::int32_t reason,
                                                                std::int32_t status, const std::string& message);
    // Writes the target power answer into the kTargetAnswerSize bytes at
    // `answer` without allocating: `power`, slot start `timeText` (at most
    // 14 bytes taken), result `code` and `message`, the rest zero.
    static void FillTargetPowerAnswer(unsigned char* answer, std::int32_t type, double power, const char* timeText,
                                      std::int32_t code, const std::string& message);
    // The same as a new buffer.
    static std::vector<unsigned char> EncodeTargetPowerAnswer(std::int32_t type, double power,
                                                              const std::string& timeText, std::int32_t code,
                                                              const std::string& message);
    // The flush answer.
    static std::vector<unsigned char> EncodeFlushAnswer();

    // --- answers: read by clients ---
    // An update or fixed-schedule answer taken apart.
    struct UpdateReply {
        std::int32_t type = 0;   // the request type answered
        std::int32_t reason = 0; // failure reason, 0 on success
        std::int32_t status = 0; // the schedule server's HTTP status
        std::string plantId;     // of changed settings; empty in the update answer
        std::string message;     // why it failed, or empty
    };
    // A target power answer taken apart.
    struct TargetPowerReply {
        std::int32_t type = 0; // the request type answered
        double power = 0.0;    // the target power, or the fall-back power
        std::string timeText;  // slot start, "%Y%m%d%H%M%S"
        std::int32_t code = 0; // result code, 0 on success
        std::string message;   // why it failed, or empty
    };
    // The update answer in `answer`; false when it is shorter than one.
    static bool DecodeUpdateAnswer(const std::string& answer, UpdateReply& reply);
    // The fixed-schedule answer in `answer`; false when it is shorter than one.
    static bool DecodeFixedScheduleAnswer(const std::string& answer, UpdateReply& reply);
    // The target power answer in `answer`; false when it is shorter than one.
    static bool DecodeTargetPowerAnswer(const std::string& answer, TargetPowerReply& reply);
};

} // namespace brvo

#endif
