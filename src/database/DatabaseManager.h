// Common base of the daemon's two SQLite tables: each lives in a file of its
// own in the output-control database directory and is reached through one
// lazily opened session, guarded by the table's own recursive mutex.
//
// Storage on an SD card. The card fills up, turns read-only, drops out, or
// is left with a damaged file when the power is cut, and none of that may
// hold up target power, the start or the stop:
// - Only a lock is waited for. A session waits up to 60 s when another
//   connection holds the file's lock (SQLITE_BUSY); every other failure to
//   open or run a statement (cannot open, I/O error, read-only, full,
//   corrupt) fails the operation at once with its log line.
// - Durability: a rollback journal deleted at commit (journal_mode=DELETE)
//   with synchronous=FULL, so that a commit is on the medium before it
//   counts and a cut at any moment leaves the old table or the new one.
//   A write-ahead log with synchronous=NORMAL may lose the last commit at a
//   power cut; it would also need a second file and write access even to
//   read, which the read-only diagnosis tools do not have.
// - Damage heals. A file that SQLite finds corrupt or not a database, or
//   whose table lacks the defined columns, is moved aside with its journal
//   as "<file>.damaged-<UTC time>" (the three newest are kept) and a fresh
//   table is made in its place; TakeRenewed then tells the schedule flows
//   to fetch everything again, as for a new plant. After a stop that was
//   not clean (see CleanStopMark), SetCheckOnOpen has each table's first
//   opening run SQLite's quick check, and a file failing it is damaged.
#ifndef BRVO_DATABASE_DATABASEMANAGER_H
#define BRVO_DATABASE_DATABASEMANAGER_H

#include "util/GuardedCall.h"
#include "util/LoggerLog.h"
#include "util/RecursiveMutex.h"
#include "util/ScopedLock.h"
#include "util/ThreadAnnotations.h"

#include <Poco/Data/SQLite/SQLiteException.h>
#include <Poco/Data/Session.h>

#include <atomic>
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

    // Opens the session on `path` (one attempt; a 60 s busy time-out for
    // its statements), sets the rollback journal and fully synced commits,
    // and creates the table if needed. True when a session exists
    // afterwards; false with the log line "InitDataBaseFile error. [...]"
    // when opening failed. A session opened before a failed CREATE TABLE is
    // kept, so later calls return true without trying again, unless the
    // file was found damaged: then it is moved aside and made anew.
    bool InitDataBaseFile(const std::string& path);

    // Damaged files kept beside a table; the oldest beyond go.
    static constexpr int kKeptDamaged = 3;

    // Whether the first opening of each table checks its file with SQLite's
    // quick check (set at the start after a stop that was not clean).
    static void SetCheckOnOpen(bool check);
    // True (once) when a table was made anew since the last call: its rows,
    // and the bookkeeping that went with them, are gone.
    static bool TakeRenewed();

    // The table's file: the output-control database directory (created
    // when missing) + "/" + table + ".db".
    std::string GetDatabaseFilePath() const;

protected:
    // The CREATE TABLE statement of the table.
    virtual std::string CreateTableStatement() const = 0;
    // The defined columns, comma-separated: a table without one of them is
    // of another schema.
    virtual std::string ColumnList() const = 0;

    // Called whenever the session is closed (mutex_ held): the next one may
    // be on another file (a table made anew, a card put in), so whatever
    // the class keeps of the old file's rows is forgotten.
    virtual void OnSessionClosed() REQUIRES(mutex_) {}

    // What a table operation's body ended with.
    struct Outcome {
        Caught caught;
        // SQLite found the file corrupt or not a database.
        bool damaged = false;
    };

    // Runs a table operation's `body` guarded, telling damage apart.
    template <typename Body>
    static Outcome RunGuarded(Body&& body) {
        Outcome outcome;
        outcome.caught = GuardedCall([&] {
            try {
                std::forward<Body>(body)();
            } catch (const Poco::Data::SQLite::CorruptImageException&) {
                outcome.damaged = true;
                throw;
            }
        });
        return outcome;
    }

    // After a failed operation (mutex_ held): the failure goes into the
    // storage note; a damaged file is moved aside and made anew; a session
    // that SQLite opened read-only (the card was read-only then) stays so
    // even once the card takes writes again, and one whose file is no
    // longer at its path (a card pulled, another mounted) refuses every
    // write, so either is dropped and the next operation opens the file
    // afresh. Any other session is kept.
    void AfterFailure(const Outcome& outcome) REQUIRES(mutex_);

    // Opens the session when there is none yet. False (with the log line
    // "Database Open error.") when it cannot be opened.
    bool Open() REQUIRES(mutex_);

    // For the life of one, the table's statements, and an opening of its
    // session, wait at most `milliseconds` while another connection holds
    // the file's lock, instead of 60 s; then the operation fails as on any
    // other error. For reads that a request is waiting for and that may
    // fail rather than wait. Made and destroyed on the stack of one
    // operation, with the table's mutex held throughout.
    class LockWaitLimit {
    public:
        LockWaitLimit(DatabaseManager& table, int milliseconds) REQUIRES(table.mutex_);
        ~LockWaitLimit() NO_THREAD_SAFETY_ANALYSIS;

        LockWaitLimit(const LockWaitLimit&) = delete;
        LockWaitLimit& operator=(const LockWaitLimit&) = delete;

    private:
        DatabaseManager& table_;
    };

    // The frame of every table operation: holds the table's lock, opens the
    // session when there is none yet, and runs `body` guarded. Whatever
    // `body` throws is logged at error level as `failure` + "[" + text + "]"
    // (library exceptions) or `failure` + "exception" (any other). True
    // when the session was open and `body` returned.
    template <typename Body>
    bool Operate(const std::string& failure, Body&& body) {
        ScopedLock lock(mutex_);
        if (!Open()) return false;
        const Outcome outcome = RunGuarded(std::forward<Body>(body));
        if (!outcome.caught) return true;
        LoggerLog::Error(tag_, outcome.caught.Describe(failure));
        AfterFailure(outcome);
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

    // Held by every public operation for its whole run. Recursive: a
    // public operation of a table holds it around Operate, which takes it
    // again, and a renewal opens the table anew while it holds it.
    RecursiveMutex mutex_;

private:
    DatabaseManager(const DatabaseManager&) = delete;
    DatabaseManager& operator=(const DatabaseManager&) = delete;

    // Sets the rollback journal (deleted at commit) and fully synced
    // commits on the new session. A setting that fails is logged at debug
    // level and changes nothing else; nothing is returned.
    void ApplyDurabilitySettings();
    // Opens the session and creates the table; whether the file is damaged
    // (mutex_ held).
    Caught OpenAndCreate(const std::string& path, bool& damaged) REQUIRES(mutex_);
    // Whether the open file fails the checks of a first opening: the
    // defined columns, and the quick check when asked for; `why` says how.
    bool FailsChecks(std::string& why);
    // Moves the damaged file at path_ aside with its journal, keeps the
    // newest kKeptDamaged such sets, opens a fresh table, and logs where
    // the file went. False when the file could not be moved (mutex_ held).
    bool MoveAsideAndRenew(const std::string& why) REQUIRES(mutex_);
    // Whether the session's last error says its file is no longer at its
    // path (mutex_ held).
    bool FileWasMoved() REQUIRES(mutex_);
    // Whether the session's last error says the file is damaged (mutex_
    // held).
    bool LastErrorIsDamage() REQUIRES(mutex_);
    // Closes and drops the session, if any (mutex_ held).
    void CloseSession() REQUIRES(mutex_);
    // Whether the open session can only read its file (mutex_ held).
    bool SessionIsReadOnly() REQUIRES(mutex_);
    // Sets lockWaitMs_ on the open session, if any (mutex_ held).
    void ApplyLockWait() REQUIRES(mutex_);

    std::string tag_;
    std::string table_;
    std::unique_ptr<Poco::Data::Session> session_;
    // The file of the session (mutex_).
    std::string path_ GUARDED_BY(mutex_);
    // Whether this table's first opening has been checked (mutex_).
    bool checked_ GUARDED_BY(mutex_);
    // Whether a renewal is under way: a fresh file is never moved aside
    // (mutex_).
    bool renewing_ GUARDED_BY(mutex_);
    // How long a statement waits while another connection holds the
    // file's lock, in milliseconds: 60 s but within a LockWaitLimit.
    int lockWaitMs_ GUARDED_BY(mutex_);

    static std::atomic<bool> checkOnOpen_;
    static std::atomic<bool> renewed_;
};

} // namespace brvo

#endif
