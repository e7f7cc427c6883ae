#include "database/ScheduleDatabase.h"

#include <atomic>

#include "database/TableNames.h"
#include "settings/LoggerSettingManager.h"
#include "util/GuardedCall.h"
#include "util/LoggerLog.h"
#include "util/TimeStamp.h"

#include <Poco/Data/Statement.h>
#include <Poco/Exception.h>

#include <algorithm>
#include <sstream>

namespace brvo {

namespace {

const std::string kTag = "ScheduleDatabase";
// Every target power request selects: a broken database gives one line a
// period, not one per request.
const std::string kSelectErrorKind = "ScheduleDatabase Select error.";
const std::int64_t kSecondsPerDay = 86400;
const std::int64_t kFixedScheduleGraceSeconds = 30 * 60;

// Read from every thread; created and deleted on the main thread.
std::atomic<ScheduleDatabase*> instance(nullptr);
std::atomic<ScheduleDatabase::WriteObserver> writeObserver(nullptr);
// The number of the last write operation begun in this process, by any
// instance: a later write always has a higher number.
std::atomic<std::uint64_t> lastWrite(0);

int RetentionDays() {
    return LoggerSettingManager::Current().GetOutputControlScheduleRetensionCycle();
}

std::int64_t NowSeconds() {
    return TimeStamp().EpochSeconds();
}

// Ends an open transaction without its changes. A rollback that fails
// (the connection is gone) leaves SQLite to roll back when it closes.
void RollBack(Poco::Data::Session& session) {
    try {
        session.rollback();
    } catch (const Poco::Exception& e) {
        LoggerLog::Debug(kTag, "Rollback failed. [" + e.displayText() + "]");
    }
}

} // namespace

void ScheduleDatabase::CreateInstance() {
    if (instance == nullptr) instance = new ScheduleDatabase();
}

ScheduleDatabase* ScheduleDatabase::GetInstance() {
    return instance;
}

void ScheduleDatabase::DeleteInstance() {
    delete instance.exchange(nullptr);
}

ScheduleDatabase::ScheduleDatabase() : DatabaseManager(kTag, kTableSchedule), writes_(lastWrite.load()) {
    DeleteOldData();
}

ScheduleDatabase::~ScheduleDatabase() {}

void ScheduleDatabase::SetWriteObserver(WriteObserver observer) {
    writeObserver = observer;
}

void ScheduleDatabase::BeginWrite() {
    writes_.store(lastWrite.fetch_add(1) + 1, std::memory_order_release);
}

void ScheduleDatabase::NotifyWritten(bool renewed) {
    const WriteObserver observer = writeObserver;
    if (observer != nullptr) observer(*this, renewed);
}

void ScheduleDatabase::SetForwarder(const Forwarder& forwarder) {
    ScopedLock lock(forwardMutex_);
    forwarder_ = forwarder;
}

std::string ScheduleDatabase::CreateTableStatement() const {
    std::ostringstream sql;
    sql << "CREATE TABLE IF NOT EXISTS " << kTableSchedule << " (" << kColumnTime << " INTEGER PRIMARY KEY ,"
        << kColumnControlRate << " INTEGER," << kColumnSent << " BOOLEAN DEFAULT 0 "
        << ")";
    return sql.str();
}

std::string ScheduleDatabase::ColumnList() const {
    return kColumnTime + ", " + kColumnControlRate + ", " + kColumnSent;
}

void ScheduleDatabase::OnSessionClosed() {
    slots_.valid = false;
    BeginWrite();
    NotifyWritten(true);
}

bool ScheduleDatabase::DeleteAll() {
    ScopedLock lock(mutex_);
    BeginWrite();
    bool deleted = false;
    const bool ran = Operate("Delete error. ", [&] {
        std::ostringstream sql;
        sql << "DELETE FROM " << kTableSchedule << " ";
        deleted = Execute(sql.str()) > 0;
    });
    if (ran) NotifyWritten(false);
    return deleted;
}

void ScheduleDatabase::DeleteOldData() {
    ScopedLock lock(mutex_);
    BeginWrite();
    const bool ran = Operate("Delete old data error. ", [&] {
        const std::int64_t cutoff = NowSeconds() - static_cast<std::int64_t>(RetentionDays()) * kSecondsPerDay;
        std::ostringstream sql;
        sql << "DELETE FROM " << kTableSchedule << " "
            << "WHERE " << kColumnTime << " < " << cutoff;
        Execute(sql.str());
    });
    if (ran) NotifyWritten(false);
}

// Clients ask for the target power many times per slot, and a statement
// costs a file lock and a header read each time; the slots found are kept
// for as long as they are the answer and the file has not changed (its
// change counter moves with every commit, the daemon's own or another
// process's).
ScheduleRow ScheduleDatabase::SelectSchedule(std::int64_t time, bool current) {
    ScopedLock lock(mutex_);
    const LockWaitLimit limit(*this, kTargetPowerLockWaitMs);
    ScheduleRow row;
    row.time = -1;
    if (!Open()) return row;
    std::uint32_t counter = 0;
    const bool counted = ReadChangeCounter(counter);
    if (counted && CacheCovers(time, counter)) return current ? slots_.current : slots_.next;
    slots_.valid = false;
    bool ok = false;
    row = RunSelect(time, current, true, ok);
    if (!ok || !counted) return row;
    const ScheduleRow other = RunSelect(time, !current, false, ok);
    if (!ok) return row;
    slots_.valid = true;
    slots_.counter = counter;
    slots_.from = time;
    slots_.current = current ? row : other;
    slots_.next = current ? other : row;
    return row;
}

bool ScheduleDatabase::SelectSlots(std::int64_t time, ScheduleRow& current, ScheduleRow& next, ScheduleRow& after,
                                   std::uint64_t& version) {
    ScopedLock lock(mutex_);
    const LockWaitLimit limit(*this, kTargetPowerLockWaitMs);
    version = WriteCount();
    current.time = next.time = after.time = -1;
    if (!Open()) return false;
    bool ok = true;
    std::uint32_t counter = 0;
    if (ReadChangeCounter(counter) && CacheCovers(time, counter)) {
        current = slots_.current;
        next = slots_.next;
    } else {
        current = RunSelect(time, true, true, ok);
        if (ok) next = RunSelect(time, false, true, ok);
    }
    if (ok && next.time >= 0) after = RunSelect(next.time, false, true, ok);
    if (!ok) current.time = next.time = after.time = -1;
    return ok;
}

bool ScheduleDatabase::CacheCovers(std::int64_t time, std::uint32_t counter) const {
    return slots_.valid && slots_.counter == counter && time >= slots_.from &&
           (slots_.next.time < 0 || time < slots_.next.time);
}

// Runs the select statement; `ok` tells whether it ran. Errors are logged
// only when `logErrors` is set.
ScheduleRow ScheduleDatabase::RunSelect(std::int64_t time, bool current, bool logErrors, bool& ok) {
    ScheduleRow row;
    row.time = -1;
    const Outcome outcome = RunGuarded([&] {
        std::ostringstream sql;
        sql << "SELECT "
            << " " << kColumnTime << " "
            << ", " << kColumnControlRate << " "
            << ", " << kColumnSent << " "
            << " FROM " << kTableSchedule << " "
            << " WHERE "
            << " " << kColumnTime << " ";
        if (current) {
            sql << " "
                << " <= " << time << " "
                << " ORDER BY " << kColumnTime << " DESC LIMIT 1 ";
        } else {
            sql << " "
                << " > " << time << " "
                << " ORDER BY " << kColumnTime << " ASC LIMIT 1 ";
        }
        const std::string text = sql.str();
        CheckSingleStatement(text);
        Poco::Int64 slotTime = -1;
        Poco::Int32 rate = 0;
        bool sent = false;
        Poco::Data::Statement select(GetSession());
        select << text, Poco::Data::Keywords::into(slotTime), Poco::Data::Keywords::into(rate),
            Poco::Data::Keywords::into(sent), Poco::Data::Keywords::limit(1);
        if (select.execute() > 0) {
            row.time = slotTime;
            row.controlRate = rate;
            row.sent = sent;
        }
    });
    ok = !outcome.caught;
    if (outcome.caught) {
        row.time = -1;
        if (logErrors) {
            LoggerLog::Limited(LoggerLog::kError, kTag, kSelectErrorKind, outcome.caught.Describe("Select error. "));
        }
        AfterFailure(outcome);
    }
    return row;
}

std::string ScheduleDatabase::ValuesGroup(const ScheduleRow& row) const {
    std::ostringstream group;
    group << " ( "
          << " '" << row.time << "'"
          << ",'" << row.controlRate << "'"
          << ",'" << (row.sent ? 1 : 0) << "'"
          << " ) ";
    return group.str();
}

// A schedule of up to kRowsPerStatement rows (a day is 48) is one
// statement. A larger one is cut into statements of that many rows inside
// one transaction: SQLite compiles a statement of tens of thousands of
// value groups into tens of megabytes, while the transaction still lands
// the whole schedule or none of it. Returns the rows changed.
std::size_t ScheduleDatabase::InsertRows(const std::string& header, const std::vector<ScheduleRow>& rows) {
    if (rows.size() <= kRowsPerStatement) return RunInsert(header, rows, 0, rows.size());
    Poco::Data::Session& session = GetSession();
    session.begin();
    try {
        std::size_t changed = 0;
        for (std::size_t begin = 0; begin < rows.size(); begin += kRowsPerStatement) {
            changed += RunInsert(header, rows, begin, std::min(rows.size(), begin + kRowsPerStatement));
        }
        session.commit();
        return changed;
    } catch (...) {
        RollBack(session);
        throw;
    }
}

// Runs `header` followed by the value groups of rows [begin, end).
std::size_t ScheduleDatabase::RunInsert(const std::string& header, const std::vector<ScheduleRow>& rows,
                                        std::size_t begin, std::size_t end) {
    std::ostringstream sql;
    sql << header;
    for (std::size_t i = begin; i < end; ++i) {
        if (i > begin) sql << ",";
        sql << ValuesGroup(rows[i]);
    }
    return Execute(sql.str());
}

bool ScheduleDatabase::InsertUpdateSchedule(const std::vector<ScheduleRow>& rows) {
    ScopedLock lock(mutex_);
    BeginWrite();
    if (rows.empty()) return true;
    bool inserted = false;
    Operate("Insert Update Schedule error. ", [&] {
        std::ostringstream header;
        header << "INSERT OR REPLACE INTO " << kTableSchedule << " "
               << " ( "
               << " " << kColumnTime << " "
               << ", " << kColumnControlRate << " "
               << ", " << kColumnSent << " "
               << " )"
               << " VALUES ";
        inserted = InsertRows(header.str(), rows) > 0;
    });
    if (inserted) NotifyWritten(false);
    return inserted;
}

bool ScheduleDatabase::InsertFixedSchedule(const std::vector<ScheduleRow>& rows) {
    ScopedLock lock(mutex_);
    BeginWrite();
    const bool ran = Operate("Insert Fixed Schedule error. ", [&] {
        const std::int64_t cutoff = NowSeconds() - kFixedScheduleGraceSeconds;
        std::vector<ScheduleRow> later;
        for (const ScheduleRow& row : rows) {
            if (row.time > cutoff) later.push_back(row);
        }
        std::ostringstream header;
        header << "INSERT OR IGNORE INTO " << kTableSchedule << " "
               << " VALUES ";
        if (!later.empty()) InsertRows(header.str(), later);
    });
    if (ran) NotifyWritten(false);
    return ran;
}

void ScheduleDatabase::UpdateSentFlag() {
    ScopedLock forwarding(forwardMutex_);
    std::uint64_t before = 0;
    {
        ScopedLock lock(mutex_);
        before = writes_;
    }
    const int forwarded = forwarder_ ? forwarder_() : -1;
    if (forwarded != 0) {
        LoggerLog::Warning(kTag, "Cloud Send error.");
        return;
    }
    ScopedLock lock(mutex_);
    if (writes_ != before) {
        // Rows written while the logger daemon was told may not be in what
        // it read: they stay unsent, and the run that wrote them forwards.
        LoggerLog::Debug(kTag, "Schedule changed while it was forwarded; sent flags left as they are.");
        return;
    }
    Operate("Update Sent Flag error. ", [&] {
        std::ostringstream sql;
        sql << "UPDATE " << kTableSchedule << " "
            << " SET " << kColumnSent << " = "
            << " 1 "
            << " WHERE " << kColumnSent << " = "
            << " 0 ";
        Execute(sql.str());
    });
}

} // namespace brvo
