#include "support/SqliteFile.h"

#include <gtest/gtest.h>

#include <Poco/File.h>
#include <Poco/Path.h>

#include <sqlite3.h>

namespace brvo {
namespace test {

namespace {

int CollectRow(void* rows, int count, char** values, char**) {
    std::vector<std::string> row;
    for (int i = 0; i < count; ++i) row.push_back(values[i] != nullptr ? values[i] : "NULL");
    static_cast<std::vector<std::vector<std::string>>*>(rows)->push_back(row);
    return 0;
}

} // namespace

std::vector<std::vector<std::string>> QueryFile(const std::string& path, const std::string& sql) {
    std::vector<std::vector<std::string>> rows;
    sqlite3* db = nullptr;
    if (sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READWRITE, nullptr) != SQLITE_OK) {
        ADD_FAILURE() << "cannot open " << path;
        sqlite3_close(db);
        return rows;
    }
    sqlite3_busy_timeout(db, 5000);
    char* error = nullptr;
    if (sqlite3_exec(db, sql.c_str(), CollectRow, &rows, &error) != SQLITE_OK) {
        ADD_FAILURE() << sql << ": " << (error != nullptr ? error : "?");
    }
    sqlite3_free(error);
    sqlite3_close(db);
    return rows;
}

void CreateDatabase(const std::string& path, const std::string& sql) {
    Poco::File(Poco::Path(path).parent()).createDirectories();
    sqlite3* db = nullptr;
    if (sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr) != SQLITE_OK) {
        ADD_FAILURE() << "cannot create " << path;
        sqlite3_close(db);
        return;
    }
    char* error = nullptr;
    if (sqlite3_exec(db, sql.c_str(), nullptr, nullptr, &error) != SQLITE_OK) {
        ADD_FAILURE() << sql << ": " << (error != nullptr ? error : "?");
    }
    sqlite3_free(error);
    sqlite3_close(db);
}

std::string QueryValue(const std::string& path, const std::string& sql) {
    const std::vector<std::vector<std::string>> rows = QueryFile(path, sql);
    if (rows.empty() || rows[0].empty()) return std::string();
    return rows[0][0];
}

} // namespace test
} // namespace brvo
