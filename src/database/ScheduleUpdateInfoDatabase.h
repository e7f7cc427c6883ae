// The schedule update bookkeeping kept across restarts: for which plant the
// schedule was fetched, when, when the next update is due, and the state of
// the fixed-schedule handling. Owned by the schedule update manager; every
// operation holds this table's own mutex.
#ifndef BRVO_DATABASE_SCHEDULEUPDATEINFODATABASE_H
#define BRVO_DATABASE_SCHEDULEUPDATEINFODATABASE_H

#include "database/DatabaseManager.h"
#include "database/ScheduleUpdateInfo.h"

#include <string>

namespace brvo {

class ScheduleUpdateInfoDatabase : public DatabaseManager {
public:
    // Registers the connector; the file is opened by the first operation.
    ScheduleUpdateInfoDatabase();
    ~ScheduleUpdateInfoDatabase() override;

    // Writes `info`, replacing the row of the same plant id. True when a row
    // was written; false (logged) when the statement fails, for example
    // because a value holds a single quote.
    bool InsertUpdateInfo(const ScheduleUpdateInfo& info);
    // The first row of the table; a record with an empty plant id when the
    // table is empty or cannot be read.
    ScheduleUpdateInfo SelectUpdateInfo();
    // Deletes every row. True when at least one row was deleted.
    bool DeleteUpdateInfo();

protected:
    std::string CreateTableStatement() const override;
    std::string ColumnList() const override;
};

} // namespace brvo

#endif
