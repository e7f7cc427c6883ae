#include "support/TableLock.h"

#include <gtest/gtest.h>

#include <sqlite3.h>

namespace brvo {
namespace test {

TableLock::TableLock(const std::string& path) : db_(nullptr) {
    if (sqlite3_open_v2(path.c_str(), &db_, SQLITE_OPEN_READWRITE, nullptr) != SQLITE_OK ||
        sqlite3_exec(db_, "BEGIN EXCLUSIVE", nullptr, nullptr, nullptr) != SQLITE_OK) {
        ADD_FAILURE() << "cannot lock " << path << ": " << sqlite3_errmsg(db_);
    }
}

TableLock::~TableLock() {
    Release();
}

void TableLock::Release() {
    if (db_ == nullptr) return;
    EXPECT_EQ(SQLITE_OK, sqlite3_exec(db_, "COMMIT", nullptr, nullptr, nullptr));
    sqlite3_close(db_);
    db_ = nullptr;
}

} // namespace test
} // namespace brvo
