// A connection of another process to a table file (a tool inside a
// transaction), holding the file's exclusive lock until released: neither
// the daemon's reads nor its writes get through meanwhile.
#ifndef BRVO_TESTS_SUPPORT_TABLELOCK_H
#define BRVO_TESTS_SUPPORT_TABLELOCK_H

#include <string>

struct sqlite3;

namespace brvo {
namespace test {

class TableLock {
public:
    // Opens the file at `path` and takes its exclusive lock; fails the test
    // when either fails.
    explicit TableLock(const std::string& path);
    // Releases the lock if it is still held.
    ~TableLock();

    // Ends the transaction and closes the connection; once only.
    void Release();

    TableLock(const TableLock&) = delete;
    TableLock& operator=(const TableLock&) = delete;

private:
    sqlite3* db_;
};

} // namespace test
} // namespace brvo

#endif
