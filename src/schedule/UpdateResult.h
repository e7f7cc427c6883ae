// Outcome of one schedule flow: success, or a failure reason with the
// HTTP status of the server access the flow made and a failure text.
#ifndef BRVO_SCHEDULE_UPDATERESULT_H
#define BRVO_SCHEDULE_UPDATERESULT_H

#include "schedule/FailureReason.h"

#include <cstdint>
#include <memory>
#include <string>

namespace brvo {

class Caught;

class UpdateResult {
public:
    // The shared results the flows return, one per kind of outcome.
    // Success: result true, reason 0, status 0, empty message.
    static std::shared_ptr<UpdateResult> Success();
    // Failure with `reason`, the HTTP status (0 when no access was made,
    // -1 when the flow stopped before any access) and `message`.
    static std::shared_ptr<UpdateResult> Failure(FailureReason reason, std::int32_t statusCode,
                                                 const std::string& message);
    // Success of a fixed-data update, with whether the settings changed
    // and the plant ID the data belongs to.
    static std::shared_ptr<UpdateResult> FixedDataApplied(bool settingChanged, const std::string& plantId);
    // Failure of a flow that threw: reason 12, status 0, and the text of
    // what `caught` holds.
    static std::shared_ptr<UpdateResult> FromCaught(const Caught& caught);

    // Success: result true, reason 0, status 0, empty message.
    UpdateResult();
    // Failure with the given reason, HTTP status (0 when no access was made,
    // -1 when the flow stopped before any access) and message.
    UpdateResult(FailureReason failureReason, std::int32_t statusCode, const std::string& message);
    // Success of a fixed-data update: whether the settings changed and the
    // plant ID the data belongs to.
    UpdateResult(bool settingChanged, const std::string& plantId);
    virtual ~UpdateResult();

    // True on success.
    bool IsResult() const { return result_; }
    // The failure reason; FailureReason::kNone on success.
    FailureReason GetFailureReason() const { return failureReason_; }
    // The HTTP status of the flow's server access (0 none, -1 not reached).
    std::int32_t GetStatusCode() const { return statusCode_; }
    // The failure text; empty on success.
    const std::string& GetMessage() const { return message_; }
    // Whether a fixed-data update changed the settings.
    bool IsSettingChanged() const { return settingChanged_; }
    // The plant ID of a fixed-data update; empty otherwise.
    const std::string& GetPlantId() const { return plantId_; }
    // The server's Retry-After of a failed exchange, in seconds; -1 when it
    // named none. Not part of the printed form.
    std::int64_t GetRetryAfterSeconds() const { return retryAfterSeconds_; }
    // Sets what GetRetryAfterSeconds returns.
    void SetRetryAfterSeconds(std::int64_t seconds) { retryAfterSeconds_ = seconds; }

    // Printed form for log lines, for example
    // "UpdateResult [true]  FailureReason:0 StatusCode:0 Message:".
    std::string ToString() const;

private:
    bool result_;
    FailureReason failureReason_;
    std::int32_t statusCode_;
    std::string message_;
    bool settingChanged_;
    std::string plantId_;
    std::int64_t retryAfterSeconds_ = -1;
};

} // namespace brvo

#endif
