#include "database/DatabaseManager.h"

#include "util/FileUtil.h"
#include "util/LoggerLog.h"

#include <Poco/Data/DataException.h>
#include <Poco/Data/SQLite/Connector.h>
#include <Poco/Data/SQLite/Utility.h>
#include <Poco/Data/Statement.h>
#include <Poco/Exception.h>
#include <Poco/String.h>

#include <sqlite3.h>

#include <cstring>

namespace brvo {

namespace {

const std::size_t kLoginTimeoutSeconds = 60;
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

} // namespace

DatabaseManager::DatabaseManager(const std::string& tag, const std::string& table) : tag_(tag), table_(table) {
    Poco::Data::SQLite::Connector::registerConnector();
}

DatabaseManager::~DatabaseManager() {
    {
        Poco::Mutex::ScopedLock lock(mutex_);
        CloseSession();
    }
    Poco::Data::SQLite::Connector::unregisterConnector();
}

bool DatabaseManager::SessionIsReadOnly() {
    if (!session_) return false;
    sqlite3* db = Poco::Data::SQLite::Utility::dbHandle(*session_);
    return db != nullptr && sqlite3_db_readonly(db, "main") == 1;
}

void DatabaseManager::CloseSession() {
    if (!session_) return;
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
    Poco::Mutex::ScopedLock lock(mutex_);
    if (session_) return true;
    const Caught caught = GuardedCall([&] {
        session_.reset(new Poco::Data::Session("SQLite", path, kLoginTimeoutSeconds));
        ApplyDurabilitySettings();
        Execute(CreateTableStatement());
    });
    if (caught) LoggerLog::Error(tag_, "InitDataBaseFile error. [" + caught.GetText() + "]");
    return !caught;
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
