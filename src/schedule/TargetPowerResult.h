// The outcome of one target power computation: the power limit of a slot
// and the slot's start, or a result code with its message.
#ifndef BRVO_SCHEDULE_TARGETPOWERRESULT_H
#define BRVO_SCHEDULE_TARGETPOWERRESULT_H

#include <cstdint>
#include <string>

namespace brvo {

class TargetPowerResult {
public:
    // Result codes; the numbers travel to clients in the target power answer.
    enum class Code : std::int32_t {
        kSuccess = 0,          // the slot's power limit
        kNoSchedule = 5,       // no slot stored for the time asked
        kDateError = 10,       // the clock stands before any plausible date
        kPlantIdNotFound = 11, // the settings hold no plant ID
    };

    // Success: `targetPower` for the slot starting at `timeText`
    // ("%Y%m%d%H%M%S", UTC); code 0, empty message.
    TargetPowerResult(double targetPower, const std::string& timeText);
    // Failure with `code` and `message`; `targetPower` is the fallback the
    // client receives; empty time text.
    TargetPowerResult(double targetPower, Code code, const std::string& message);
    virtual ~TargetPowerResult();

    // True for a slot's power limit.
    bool IsSuccess() const { return success_; }
    // The result code; Code::kSuccess on success.
    Code GetCode() const { return code_; }
    // The slot's start ("%Y%m%d%H%M%S", UTC); empty on failure.
    const std::string& GetTimeText() const { return timeText_; }
    // The power the client receives: the limit, or the failure's fallback.
    double GetTargetPower() const { return targetPower_; }
    // Why it failed; empty on success.
    const std::string& GetMessage() const { return message_; }

private:
    bool success_;
    Code code_;
    std::string timeText_;
    double targetPower_;
    std::string message_;
};

// The code's number as clients see it.
inline std::int32_t ToWire(TargetPowerResult::Code code) {
    return static_cast<std::int32_t>(code);
}

} // namespace brvo

#endif
