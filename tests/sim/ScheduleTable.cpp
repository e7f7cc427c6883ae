#include "sim/ScheduleTable.h"

#include <sqlite3.h>

#include <sys/stat.h>

namespace brvo {
namespace sim {

namespace {

const char kSlotAt[] = "SELECT time, controlRate FROM output_control_schedule WHERE time <= ?1 "
                       "ORDER BY time DESC LIMIT 1";
const char kBetween[] = "SELECT time, controlRate FROM output_control_schedule WHERE time BETWEEN ?1 AND ?2 "
                        "ORDER BY time";
// A write of the manager never overlaps a read (one thread), so a busy
// table is an error, reported at once.
const int kBusyMs = 0;

ScheduleRow RowOf(sqlite3_stmt* statement) {
    ScheduleRow row;
    row.time = sqlite3_column_int64(statement, 0);
    row.controlRate = sqlite3_column_int(statement, 1);
    return row;
}

} // namespace

ScheduleTable::ScheduleTable(const std::string& path)
    : path_(path), db_(nullptr), slotAt_(nullptr), between_(nullptr) {}

ScheduleTable::~ScheduleTable() {
    Close();
}

void ScheduleTable::Close() {
    sqlite3_finalize(slotAt_);
    sqlite3_finalize(between_);
    slotAt_ = nullptr;
    between_ = nullptr;
    if (db_ != nullptr) sqlite3_close(db_);
    db_ = nullptr;
}

bool ScheduleTable::Open() {
    if (slotAt_ != nullptr) return true;
    struct stat info;
    if (::stat(path_.c_str(), &info) != 0) return false;
    if (db_ == nullptr && sqlite3_open_v2(path_.c_str(), &db_, SQLITE_OPEN_READONLY, nullptr) != SQLITE_OK) {
        error_ = db_ != nullptr ? sqlite3_errmsg(db_) : "cannot open " + path_;
        Close();
        return false;
    }
    sqlite3_busy_timeout(db_, kBusyMs);
    slotAt_ = Prepare(kSlotAt);
    between_ = Prepare(kBetween);
    if (slotAt_ != nullptr && between_ != nullptr) return true;
    // The manager has not created the table yet.
    sqlite3_finalize(slotAt_);
    sqlite3_finalize(between_);
    slotAt_ = nullptr;
    between_ = nullptr;
    return false;
}

sqlite3_stmt* ScheduleTable::Prepare(const char* sql) {
    sqlite3_stmt* statement = nullptr;
    if (sqlite3_prepare_v2(db_, sql, -1, &statement, nullptr) != SQLITE_OK) {
        error_ = sqlite3_errmsg(db_);
        return nullptr;
    }
    return statement;
}

ScheduleRow ScheduleTable::SlotAt(std::int64_t t) {
    ScheduleRow row;
    row.time = -1;
    if (!Open()) return row;
    sqlite3_bind_int64(slotAt_, 1, t);
    const int step = sqlite3_step(slotAt_);
    if (step == SQLITE_ROW) row = RowOf(slotAt_);
    if (step != SQLITE_ROW && step != SQLITE_DONE) error_ = sqlite3_errmsg(db_);
    sqlite3_reset(slotAt_);
    return row;
}

std::vector<ScheduleRow> ScheduleTable::RowsBetween(std::int64_t first, std::int64_t last) {
    std::vector<ScheduleRow> rows;
    if (!Open()) return rows;
    sqlite3_bind_int64(between_, 1, first);
    sqlite3_bind_int64(between_, 2, last);
    int step = SQLITE_DONE;
    while ((step = sqlite3_step(between_)) == SQLITE_ROW) rows.push_back(RowOf(between_));
    if (step != SQLITE_DONE) error_ = sqlite3_errmsg(db_);
    sqlite3_reset(between_);
    return rows;
}

} // namespace sim
} // namespace brvo
