// Common base of the daemon's two SQLite tables: each lives in a file of its
// own in the output-control database directory and is reached through one
// lazily opened session, guarded by the table's own recursive mutex.
#ifndef BRVO_DATABASE_DATABASEMANAGER_H
#define BRVO_DATABASE_DATABASEMANAGER_H

#include "util/GuardedCall.h"
#include "util/LoggerLog.h"

#include <Poco/Data/Session.h>
#include <Poco/Mutex.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>

namespace brvo {

class DatabaseManager {
public:
    // Registers the SQLite connector. `tag` names the table's class in the
    // log; `table` is the table name, which also names its file.
    DatabaseManager(const std::string& tag, const std::string& table);
    // Closes the session and unregisters the connector.
    virtual ~DatabaseManager();

    // Opens the session on `path` (60 s busy time-out), sets the rollback
    // journal and fully synced commits, and creates the table if needed.
    // True when a session exists afterwards; false with the log line
    // "InitDataBaseFile error. [...]" when opening failed. A session
    // opened before a failed CREATE TABLE is kept, so later calls return
    // true without trying again.
    bool InitDataBaseFile(const std::string& path);

    // The table's file: the output-control database directory (created
    // when missing) + "/" + table + ".db".
    std::string GetDatabaseFilePath() const;

protected:
    // The CREATE TABLE statement of the table.
    virtual std::string CreateTableStatement() const = 0;

    // Opens the session when there is none yet. False (with the log line
    // "Database Open error.") when it cannot be opened.
    bool Open();

    // The frame of every table operation: holds the table's lock, opens the
    // session when there is none yet, and runs `body` guarded. Whatever
    // `body` throws is logged at error level as `failure` + "[" + text + "]"
    // (library exceptions) or `failure` + "exception" (any other). True
    // when the session was open and `body` returned.
    template <typename Body>
    bool Operate(const std::string& failure, Body&& body) {
        Poco::Mutex::ScopedLock lock(mutex_);
        if (!Open()) return false;
        const Caught caught = GuardedCall(std::forward<Body>(body));
        if (!caught) return true;
        LoggerLog::Error(tag_, caught.Describe(failure));
        // A session that SQLite opened read-only (the card was read-only
        // then) stays so even once the card takes writes again: the next
        // operation opens the file afresh. Any other session is kept.
        if (SessionIsReadOnly()) CloseSession();
        return false;
    }

    // Runs one statement and returns the number of rows it changed. Throws
    // a Poco::Data exception when the text holds more than one statement
    // (a value with quotes in it could otherwise smuggle in a second one)
    // or when SQLite refuses it.
    std::size_t Execute(const std::string& sql);

    // Throws when `sql` holds anything but one statement.
    void CheckSingleStatement(const std::string& sql);

    // Reads the file change counter from the open table file's header:
    // every committed change of the file, by any connection, moves it on.
    // False when there is no session, the header cannot be read, or the
    // file is not in rollback-journal mode (in WAL mode the counter stays).
    bool ReadChangeCounter(std::uint32_t& counter);
    // `value` between single quotes, as the statements carry their texts.
    // Throws a Poco::Data exception when the value holds a quote itself:
    // that quote would end the text early and make the rest of the value
    // part of the statement, which may still be one valid statement.
    static std::string Quoted(const std::string& value);

    Poco::Data::Session& GetSession() { return *session_; }
    const std::string& GetTag() const { return tag_; }
    const std::string& GetTable() const { return table_; }

    // Held by every public operation for its whole run.
    Poco::Mutex mutex_;

private:
    DatabaseManager(const DatabaseManager&) = delete;
    DatabaseManager& operator=(const DatabaseManager&) = delete;

    // Sets the rollback journal (deleted at commit) and fully synced
    // commits on the new session. A setting that fails is logged at debug
    // level and changes nothing else; nothing is returned.
    void ApplyDurabilitySettings();
    // Closes and drops the session, if any (mutex_ held).
    void CloseSession();
    // Whether the open session can only read its file (mutex_ held).
    bool SessionIsReadOnly();

    std::string tag_;
    std::string table_;
    std::unique_ptr<Poco::Data::Session> session_;
};

} // namespace brvo

#endif
