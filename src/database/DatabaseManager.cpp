#include "database/DatabaseManager.h"

#include "database/StorageNote.h"
#include "util/FileUtil.h"
#include "util/LoggerLog.h"

#include <Poco/Data/DataException.h>
#include <Poco/Data/SQLite/Connector.h>
#include <Poco/Data/SQLite/Utility.h>
#include <Poco/Data/Statement.h>
#include <Poco/DateTimeFormatter.h>
#include <Poco/Exception.h>
#include <Poco/String.h>
#include <Poco/Timestamp.h>

#include <sqlite3.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <set>
#include <sys/stat.h>

namespace brvo {

namespace {

// One attempt to open the file: a file that cannot be opened now (a
// directory at its path, a card gone) will not open by trying for longer,
// and every operation would wait the whole time.
const std::size_t kOpenAttemptSeconds = 0;
// How long a statement waits while another connection holds the lock.
const std::size_t kBusyTimeoutSeconds = 60;
const int kBusyTimeoutMs = static_cast<int>(kBusyTimeoutSeconds * 1000);
// How long the statements of `session` wait while another connection
// holds the file's lock.
void SetLockWait(Poco::Data::Session& session, int milliseconds) {
    sqlite3* db = Poco::Data::SQLite::Utility::dbHandle(session);
    if (db != nullptr) sqlite3_busy_timeout(db, milliseconds);
}

// The files that belong to a table file, by their endings.
const char* const kCompanions[] = {"-journal", "-wal", "-shm"};
const std::string kJournalMode = "DELETE";
const std::string kSynchronous = "FULL";

// Whether `text` is only blanks and SQL comments.
bool OnlyBlanksAndComments(const char* text) {
    while (*text != '\0') {
        const unsigned char ch = static_cast<unsigned char>(*text);
        if (ch == ' ' || ch == '\t' || ch == '\n' || ch == '\r' || ch == '\f' || ch == '\v') {
            ++text;
        } else if (text[0] == '-' && text[1] == '-') {
            while (*text != '\0' && *text != '\n') ++text;
        } else if (text[0] == '/' && text[1] == '*') {
            const char* end = std::strstr(text + 2, "*/");
            if (end == nullptr) return true;
            text = end + 2;
        } else {
            return false;
        }
    }
    return true;
}

bool Exists(const std::string& path) {
    struct stat info;
    return ::lstat(path.c_str(), &info) == 0;
}

// `name` without the ending of a companion file, if it has one.
std::string WithoutCompanionEnding(const std::string& name) {
    for (const char* ending : kCompanions) {
        const std::size_t length = std::strlen(ending);
        if (name.size() > length && name.compare(name.size() - length, length, ending) == 0) {
            return name.substr(0, name.size() - length);
        }
    }
    return name;
}

// The directory part of `path` ("." when there is none).
std::string DirectoryOf(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    if (slash == std::string::npos) return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

// The moved-aside sets of the table file `path` (their main files' paths),
// oldest first: their names end in a UTC time that sorts as it counts.
std::set<std::string> DamagedSets(const std::string& path) {
    std::set<std::string> sets;
    const std::string directory = DirectoryOf(path);
    const std::string prefix = path.substr(path.rfind('/') + 1) + StorageNote::kDamagedMark;
    for (const std::string& name : StorageNote::DamagedFiles(directory)) {
        if (name.compare(0, prefix.size(), prefix) == 0) sets.insert(directory + "/" + WithoutCompanionEnding(name));
    }
    return sets;
}

// Removes the oldest moved-aside sets of `path` beyond the newest `kept`.
void RemoveOldDamaged(const std::string& path, int kept) {
    std::set<std::string> sets = DamagedSets(path);
    while (sets.size() > static_cast<std::size_t>(kept)) {
        const std::string oldest = *sets.begin();
        std::remove(oldest.c_str());
        for (const char* ending : kCompanions) std::remove((oldest + ending).c_str());
        sets.erase(sets.begin());
    }
}

// The name to move `path` aside to: its name, the infix and the UTC time
// to the millisecond. A name taken already (several moves in one
// millisecond) gets a count after it, higher than any before, so that the
// names still sort in the order of the moves.
std::string AsideName(const std::string& path) {
    const std::string base =
        path + StorageNote::kDamagedMark + Poco::DateTimeFormatter::format(Poco::Timestamp(), "%Y%m%dT%H%M%S.%iZ");
    bool taken = false;
    long highest = 0;
    for (const std::string& set : DamagedSets(path)) {
        if (set.compare(0, base.size(), base) != 0) continue;
        taken = true;
        if (set.size() > base.size() + 1)
            highest = std::max(highest, std::strtol(set.c_str() + base.size() + 1, nullptr, 10));
    }
    if (!taken) return base;
    char count[32];
    std::snprintf(count, sizeof count, "-%03ld", highest + 1);
    return base + count;
}

bool IsDamageCode(int rc) {
    return (rc & 0xff) == SQLITE_CORRUPT || (rc & 0xff) == SQLITE_NOTADB;
}

} // namespace

std::atomic<bool> DatabaseManager::checkOnOpen_(false);
std::atomic<bool> DatabaseManager::renewed_(false);

DatabaseManager::DatabaseManager(const std::string& tag, const std::string& table)
    : tag_(tag), table_(table), checked_(false), renewing_(false), lockWaitMs_(kBusyTimeoutMs) {
    Poco::Data::SQLite::Connector::registerConnector();
}

void DatabaseManager::SetCheckOnOpen(bool check) {
    checkOnOpen_ = check;
}

bool DatabaseManager::TakeRenewed() {
    return renewed_.exchange(false);
}

DatabaseManager::~DatabaseManager() {
    {
        ScopedLock lock(mutex_);
        CloseSession();
    }
    Poco::Data::SQLite::Connector::unregisterConnector();
}

bool DatabaseManager::SessionIsReadOnly() {
    if (!session_) return false;
    sqlite3* db = Poco::Data::SQLite::Utility::dbHandle(*session_);
    return db != nullptr && sqlite3_db_readonly(db, "main") == 1;
}

void DatabaseManager::ApplyLockWait() {
    if (session_) SetLockWait(*session_, lockWaitMs_);
}

DatabaseManager::LockWaitLimit::LockWaitLimit(DatabaseManager& table, int milliseconds) : table_(table) {
    table_.lockWaitMs_ = milliseconds;
    table_.ApplyLockWait();
}

// The table's mutex is still held here (see the class's contract); the
// analysis cannot follow a lock held by the caller into a destructor.
DatabaseManager::LockWaitLimit::~LockWaitLimit() {
    table_.lockWaitMs_ = kBusyTimeoutMs;
    table_.ApplyLockWait();
}

void DatabaseManager::CloseSession() {
    if (!session_) return;
    OnSessionClosed();
    try {
        session_->close();
    } catch (const Poco::Exception&) {
    }
    session_.reset();
}

std::string DatabaseManager::GetDatabaseFilePath() const {
    return FileUtil::GetOutputControlDirectory() + "/" + table_ + ".db";
}

bool DatabaseManager::InitDataBaseFile(const std::string& path) {
    ScopedLock lock(mutex_);
    if (session_) return true;
    path_ = path;
    bool damaged = false;
    const Caught caught = OpenAndCreate(path, damaged);
    if (caught) {
        LoggerLog::Error(tag_, "InitDataBaseFile error. [" + caught.GetText() + "]");
        StorageNote::Record(path, caught.Describe("InitDataBaseFile error. "));
    }
    if (caught && !damaged) damaged = LastErrorIsDamage();
    std::string why = caught.GetText();
    if (!caught && !checked_) {
        checked_ = true;
        damaged = FailsChecks(why);
    }
    if (damaged && !renewing_) return MoveAsideAndRenew(why);
    return !caught;
}

Caught DatabaseManager::OpenAndCreate(const std::string& path, bool& damaged) {
    const int lockWaitMs = lockWaitMs_;
    const Outcome outcome = RunGuarded([&] {
        session_.reset(new Poco::Data::Session("SQLite", path, kOpenAttemptSeconds));
        session_->setConnectionTimeout(kBusyTimeoutSeconds);
        SetLockWait(*session_, lockWaitMs);
        ApplyDurabilitySettings();
        Execute(CreateTableStatement());
    });
    damaged = outcome.damaged;
    return outcome.caught;
}

// A file left by an older or foreign program may hold a table of the same
// name with other columns; CREATE TABLE IF NOT EXISTS leaves it, and every
// statement would fail on it for ever. A failure of a check that is not
// the file's (a lock held too long, an I/O error) is no damage.
bool DatabaseManager::FailsChecks(std::string& why) {
    sqlite3* db = Poco::Data::SQLite::Utility::dbHandle(*session_);
    const std::string probe = "SELECT " + ColumnList() + " FROM " + table_ + " LIMIT 0";
    sqlite3_stmt* statement = nullptr;
    int rc = sqlite3_prepare_v2(db, probe.c_str(), -1, &statement, nullptr);
    const bool otherSchema = rc == SQLITE_ERROR || IsDamageCode(rc);
    if (otherSchema) why = sqlite3_errmsg(db);
    sqlite3_finalize(statement);
    if (otherSchema) return true;
    if (!checkOnOpen_) return false;
    statement = nullptr;
    rc = sqlite3_prepare_v2(db, "PRAGMA quick_check", -1, &statement, nullptr);
    if (rc == SQLITE_OK) rc = sqlite3_step(statement);
    const unsigned char* verdict = rc == SQLITE_ROW ? sqlite3_column_text(statement, 0) : nullptr;
    bool failed = IsDamageCode(rc);
    if (failed) why = sqlite3_errmsg(db);
    if (verdict != nullptr && std::strcmp(reinterpret_cast<const char*>(verdict), "ok") != 0) {
        failed = true;
        why = std::string("quick_check: ") + reinterpret_cast<const char*>(verdict);
    }
    sqlite3_finalize(statement);
    return failed;
}

// The damaged file, its journal and any write-ahead files go aside
// together, so that the set still opens as it was for a later look.
bool DatabaseManager::MoveAsideAndRenew(const std::string& why) {
    CloseSession();
    const std::string aside = AsideName(path_);
    if (std::rename(path_.c_str(), aside.c_str()) != 0) {
        const std::string reason = std::strerror(errno);
        LoggerLog::Limited(LoggerLog::kError, tag_, tag_ + " Damaged table not moved.",
                           "Damaged table could not be moved aside. [" + path_ + "] " + reason);
        return false;
    }
    for (const char* ending : kCompanions) {
        if (Exists(path_ + ending)) std::rename((path_ + ending).c_str(), (aside + ending).c_str());
    }
    LoggerLog::Error(tag_, "Damaged table moved aside. [" + path_ + "] to [" + aside + "] " + why);
    StorageNote::Record(path_, "moved aside to [" + aside + "] " + why);
    RemoveOldDamaged(path_, kKeptDamaged);
    renewed_ = true;
    renewing_ = true;
    const bool opened = InitDataBaseFile(path_);
    renewing_ = false;
    return opened;
}

// The connector names most damage by its own exception; the session's last
// error code tells it also where a library maps the code otherwise.
bool DatabaseManager::LastErrorIsDamage() {
    if (!session_) return false;
    sqlite3* db = Poco::Data::SQLite::Utility::dbHandle(*session_);
    return db != nullptr && IsDamageCode(sqlite3_extended_errcode(db));
}

void DatabaseManager::AfterFailure(const Outcome& outcome) {
    StorageNote::Record(path_.empty() ? GetDatabaseFilePath() : path_, outcome.caught.Describe(""));
    if ((outcome.damaged || LastErrorIsDamage()) && !renewing_ && !path_.empty()) {
        MoveAsideAndRenew(outcome.caught.GetText());
        return;
    }
    if (SessionIsReadOnly() || FileWasMoved()) CloseSession();
}

// A card pulled and another mounted in its place leaves the session on a
// file that is no longer at its path; SQLite then refuses every write.
bool DatabaseManager::FileWasMoved() {
    if (!session_) return false;
    sqlite3* db = Poco::Data::SQLite::Utility::dbHandle(*session_);
    return db != nullptr && sqlite3_extended_errcode(db) == SQLITE_READONLY_DBMOVED;
}

// The device loses power without warning and keeps its tables on flash. A
// rollback journal that is deleted at commit, with every commit synced to
// the medium before it counts, leaves after any cut either the old or the
// new table. It also keeps each table in exactly one file, which read-only
// tools can open (a write-ahead log needs a second file and write access
// even to read). Settings that do not take only cost durability, not
// service: they are noted at debug level and the table is opened anyway.
void DatabaseManager::ApplyDurabilitySettings() {
    const Caught caught = GuardedCall([this] {
        std::string mode;
        Poco::Data::Statement journal(*session_);
        journal << "PRAGMA journal_mode=" << kJournalMode, Poco::Data::Keywords::into(mode);
        journal.execute();
        if (Poco::toLower(mode) != Poco::toLower(kJournalMode)) {
            LoggerLog::Debug(tag_, "Journal mode not set. [" + mode + "]");
        }
        Execute("PRAGMA synchronous=" + kSynchronous);
    });
    if (caught) LoggerLog::Debug(tag_, "Durability settings not applied. [" + caught.GetText() + "]");
}

bool DatabaseManager::Open() {
    if (session_) return true;
    if (InitDataBaseFile(GetDatabaseFilePath())) return true;
    // Tried again by every operation: held to one line a period.
    LoggerLog::Limited(LoggerLog::kError, tag_, tag_ + " Database Open error.", "Database Open error.");
    return false;
}

std::size_t DatabaseManager::Execute(const std::string& sql) {
    CheckSingleStatement(sql);
    Poco::Data::Statement statement(*session_);
    statement << sql;
    return statement.execute();
}

// SQLite compiles the first statement of a text and leaves the rest; the
// connector would go on to run that rest as well. Every statement of the
// daemon is one statement, so anything left over can only have come from
// a value and is refused before anything runs.
void DatabaseManager::CheckSingleStatement(const std::string& sql) {
    // Statements are separated by ";": without one there is only one.
    if (sql.find(';') == std::string::npos) return;
    sqlite3* db = Poco::Data::SQLite::Utility::dbHandle(*session_);
    sqlite3_stmt* compiled = nullptr;
    const char* rest = nullptr;
    const int rc = sqlite3_prepare_v2(db, sql.c_str(), static_cast<int>(sql.size()) + 1, &compiled, &rest);
    sqlite3_finalize(compiled);
    if (rc != SQLITE_OK) {
        throw Poco::Data::ExecutionException(sqlite3_errmsg(db), sql.substr(0, 200));
    }
    if (rest != nullptr && !OnlyBlanksAndComments(rest)) {
        throw Poco::Data::ExecutionException("more than one statement", sql.substr(0, 200));
    }
}

bool DatabaseManager::ReadChangeCounter(std::uint32_t& counter) {
    if (!session_) return false;
    sqlite3* db = Poco::Data::SQLite::Utility::dbHandle(*session_);
    sqlite3_file* file = nullptr;
    if (sqlite3_file_control(db, "main", SQLITE_FCNTL_FILE_POINTER, &file) != SQLITE_OK || file == nullptr ||
        file->pMethods == nullptr) {
        return false;
    }
    // Bytes 18 and 19 are the write and read versions (1: rollback journal,
    // 2: WAL); bytes 24 to 27 the change counter, big-endian.
    unsigned char header[28];
    if (file->pMethods->xRead(file, header, sizeof header, 0) != SQLITE_OK) return false;
    if (header[18] != 1 || header[19] != 1) return false;
    counter = (static_cast<std::uint32_t>(header[24]) << 24) | (static_cast<std::uint32_t>(header[25]) << 16) |
              (static_cast<std::uint32_t>(header[26]) << 8) | static_cast<std::uint32_t>(header[27]);
    return true;
}

std::string DatabaseManager::Quoted(const std::string& value) {
    if (value.find('\'') != std::string::npos) {
        throw Poco::Data::ExecutionException("quote in a value", value.substr(0, 200));
    }
    return "'" + value + "'";
}

} // namespace brvo
