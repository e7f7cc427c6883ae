// One schedule payload, decoded and checked: the 30-minute output-rate slots
// it holds and, for an update schedule, the update information that comes
// with it. The payload arrives as lower-case hex text, two digits a byte;
// every field is a run of digit bytes whose decimal values, written one after
// another, form the field's text. The first failure found is kept as the
// model's message and logged (tag "ScheduleUpdateManager").
#ifndef BRVO_SCHEDULE_SCHEDULEMODEL_H
#define BRVO_SCHEDULE_SCHEDULEMODEL_H

#include "database/ScheduleRow.h"
#include "database/ScheduleUpdateInfo.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace brvo {

class ScheduleModel {
public:
    // Kind of an update schedule; its records carry the fixed schedule update
    // flag and the next update time. Any other kind is a fixed schedule.
    static constexpr int kUpdateScheduleKind = 1;
    // The most slots one payload may hold: two years of half hours. A
    // payload announcing more is refused before its slots are read.
    static constexpr std::size_t kMaxSlots = 2 * 366 * 48;

    // Decodes `hexData` at once. Never throws; see IsResult and GetMessage.
    ScheduleModel(const std::string& hexData, int kind);
    virtual ~ScheduleModel();

    // True when the payload was accepted: every record it announces was
    // there whole and valid (records starting off the half hour are skipped).
    bool IsResult() const { return result_; }
    // The text of the last failure; empty when there was none.
    std::string GetMessage() const { return message_; }
    // The slots in payload order (a copy); empty when none were read.
    std::vector<ScheduleRow> GetSlots() const { return slots_; }
    // The update information read (a copy): plant ID, and for an update
    // schedule the next update time and the fixed schedule update flag.
    ScheduleUpdateInfo GetUpdateInfo() const { return updateInfo_; }
    // The plant ID of the last accepted record; empty when none.
    std::string GetPlantId() const;

private:
    void Parse(const std::string& hex);
    bool ParseRecord(const std::string& hex, std::size_t& position);
    void CheckSlotCount(const std::string& hex, std::size_t position, std::int32_t count) const;
    std::int64_t ReadSlots(const std::string& hex, std::size_t& position, std::int32_t count, std::int64_t firstTime);
    void ReadNextUpdateTime(const std::string& hex, std::size_t position);
    std::int32_t SkipRepeats(const std::string& hex, std::size_t begin, std::size_t& position, std::int32_t left);
    void Refuse(const std::string& message);
    void Fail(int level, const std::string& message);

    bool result_;
    std::string message_;
    ScheduleUpdateInfo updateInfo_;
    std::vector<ScheduleRow> slots_;
    int kind_;
    // The first slot's time of the earliest record read (UTC seconds).
    std::int64_t earliestSlot_;
};

} // namespace brvo

#endif
