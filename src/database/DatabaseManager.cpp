#include "database/DatabaseManager.h"

#include "util/FileUtil.h"
#include "util/LoggerLog.h"

#include <Poco/Data/DataException.h>
#include <Poco/Data/SQLite/Connector.h>
#include <Poco/Data/SQLite/Utility.h>
#include <Poco/Data/Statement.h>
#include <Poco/Exception.h>

#include <sqlite3.h>

#include <cstring>

namespace brvo {

namespace {

const std::size_t kLoginTimeoutSeconds = 60;

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

DatabaseManager::DatabaseManager(const std::string& tag, const std::string& table)
    : tag_(tag), table_(table) {
    Poco::Data::SQLite::Connector::registerConnector();
}

DatabaseManager::~DatabaseManager() {
    Poco::Mutex::ScopedLock lock(mutex_);
    if (session_) {
        try {
            session_->close();
        } catch (const Poco::Exception&) {
        }
        session_.reset();
    }
    Poco::Data::SQLite::Connector::unregisterConnector();
}

std::string DatabaseManager::GetDatabaseFilePath() const {
    return FileUtil::GetOutputControlDirectory() + "/" + table_ + ".db";
}

bool DatabaseManager::InitDataBaseFile(const std::string& path) {
    Poco::Mutex::ScopedLock lock(mutex_);
    if (session_) return true;
    try {
        session_.reset(new Poco::Data::Session("SQLite", path, kLoginTimeoutSeconds));
        Execute(CreateTableStatement());
        return true;
    } catch (const Poco::Exception& e) {
        LoggerLog::Error(tag_, "InitDataBaseFile error. [" + e.displayText() + "]");
    } catch (const std::exception& e) {
        LoggerLog::Error(tag_, "InitDataBaseFile error. [" + std::string(e.what()) + "]");
    }
    return false;
}

bool DatabaseManager::Open() {
    if (session_) return true;
    if (InitDataBaseFile(GetDatabaseFilePath())) return true;
    LoggerLog::Error(tag_, "Database Open error.");
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

std::string DatabaseManager::Quoted(const std::string& value) {
    if (value.find('\'') != std::string::npos) {
        throw Poco::Data::ExecutionException("quote in a value", value.substr(0, 200));
    }
    return "'" + value + "'";
}

} // namespace brvo
