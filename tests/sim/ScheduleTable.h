// The schedule table read beside the daemon's own access, through a
// read-only connection of the sim's: the slot in force at a time and the
// rows of a span. Every statement is reset after use, so the sim never
// holds a lock that a write of the manager would wait for.
#ifndef BRVO_TESTS_SIM_SCHEDULETABLE_H
#define BRVO_TESTS_SIM_SCHEDULETABLE_H

#include "database/ScheduleRow.h"

#include <cstdint>
#include <string>
#include <vector>

struct sqlite3;
struct sqlite3_stmt;

namespace brvo {
namespace sim {

class ScheduleTable {
public:
    // The table in the file at `path`; opened at the first read that finds
    // the file.
    explicit ScheduleTable(const std::string& path);
    ~ScheduleTable();

    // The slot in force at `t` (the latest starting at or before it), as
    // the target power reads it; time -1 when there is none.
    ScheduleRow SlotAt(std::int64_t t);
    // The rows starting in [first, last], in time order.
    std::vector<ScheduleRow> RowsBetween(std::int64_t first, std::int64_t last);
    // Closes the connection (before the card is unmounted).
    void Close();
    // The last SQLite error, for reports; empty when none.
    const std::string& Error() const { return error_; }

private:
    ScheduleTable(const ScheduleTable&) = delete;
    ScheduleTable& operator=(const ScheduleTable&) = delete;

    bool Open();
    sqlite3_stmt* Prepare(const char* sql);

    std::string path_;
    sqlite3* db_;
    sqlite3_stmt* slotAt_;
    sqlite3_stmt* between_;
    std::string error_;
};

} // namespace sim
} // namespace brvo

#endif
