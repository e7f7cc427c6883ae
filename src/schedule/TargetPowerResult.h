// The outcome of one target power computation: the power limit of a slot
// and the slot's start, or a result code with its message.
#ifndef BRVO_SCHEDULE_TARGETPOWERRESULT_H
#define BRVO_SCHEDULE_TARGETPOWERRESULT_H

#include <cstdint>
#include <string>

namespace brvo {

class TargetPowerResult {
public:
    // Result codes.
    static constexpr std::int32_t kSuccess = 0;
    static constexpr std::int32_t kNoSchedule = 5;
    static constexpr std::int32_t kDateError = 10;
    static constexpr std::int32_t kPlantIdNotFound = 11;

    // Success: `targetPower` for the slot starting at `timeText`
    // ("%Y%m%d%H%M%S", UTC); code 0, empty message.
    TargetPowerResult(double targetPower, const std::string& timeText);
    // Failure with `code` and `message`; `targetPower` is the fallback the
    // client receives; empty time text.
    TargetPowerResult(double targetPower, std::int32_t code, const std::string& message);
    virtual ~TargetPowerResult();

    bool IsSuccess() const { return success_; }
    std::int32_t GetCode() const { return code_; }
    const std::string& GetTimeText() const { return timeText_; }
    double GetTargetPower() const { return targetPower_; }
    const std::string& GetMessage() const { return message_; }

private:
    bool success_;
    std::int32_t code_;
    std::string timeText_;
    double targetPower_;
    std::string message_;
};

} // namespace brvo

#endif
