// Direct reads and writes of an SQLite file, beside the daemon's own
// access, for checking what the daemon stored.
#ifndef BRVO_TESTS_SUPPORT_SQLITEFILE_H
#define BRVO_TESTS_SUPPORT_SQLITEFILE_H

#include <string>
#include <vector>

namespace brvo {
namespace test {

// Runs `sql` on the file at `path` and returns every row, each column as
// text ("NULL" for a null). Fails the test when the statement fails.
std::vector<std::vector<std::string>> QueryFile(const std::string& path, const std::string& sql);
// Creates the file at `path` (with its directories) when it is missing and
// runs `sql` on it, for tests that start the daemon on stored data. Fails
// the test when the statement fails.
void CreateDatabase(const std::string& path, const std::string& sql);
// The single value of a one-row, one-column query; empty text when there is
// no row.
std::string QueryValue(const std::string& path, const std::string& sql);

} // namespace test
} // namespace brvo

#endif
