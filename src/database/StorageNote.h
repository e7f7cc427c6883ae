// The daemon's note of its last storage error: one line in a file of its
// own, outside the card, that `pvoctl status` (another process) reads.
// Together with the table files moved aside as damaged, it tells an
// operator why the schedule tables are not what they should be.
//
// Every member is safe to call from any thread and never throws.
#ifndef BRVO_DATABASE_STORAGENOTE_H
#define BRVO_DATABASE_STORAGENOTE_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace brvo {

class Clock;

class StorageNote {
public:
    // Path of the note.
    static const std::string kPath;
    // kPath under the root prefix (FileUtil::UnderRoot): the file this
    // process writes and reads.
    static std::string Path();
    // Longest error text kept, in bytes.
    static constexpr std::size_t kMaxErrorBytes = 512;
    // An identical note is not written again within this many seconds.
    static constexpr std::int64_t kRepeatSeconds = 60;
    // What marks a table file moved aside as damaged, as in
    // "output_control_schedule.db.damaged-20261126T013800Z".
    static const std::string kDamagedMark;

    // One note as read back.
    struct Entry {
        // When it was recorded, in seconds since 1970-01-01 00:00:00 UTC.
        std::int64_t time = -1;
        // The file the error was about.
        std::string file;
        // What went wrong.
        std::string error;
    };

    // Replaces the note with "<YYYY-MM-DDTHH:MM:SSZ> <file>: <error>\n"
    // (UTC). Control bytes (below 0x20, and 0x7f) in `file` and `error`
    // become spaces, and `error` is cut to kMaxErrorBytes, never inside a
    // UTF-8 character. The line is written beside the note and renamed
    // over it, so a reader sees the old note or the new one, never a part.
    // Nothing is written when the same file and error were recorded less
    // than kRepeatSeconds ago (by the monotonic clock): a failing card fails
    // every operation, and the note must not cost a write for each. A
    // failed write is dropped, and still counts as the last note: the log,
    // the only place to tell, may be on the failing card itself.
    static void Record(const std::string& file, const std::string& error);
    // Reads the note into `entry`; false when it is missing or its line
    // cannot be read (`entry` is then left as it was). The file is taken
    // to end at the first ": " after the time.
    static bool Read(Entry& entry);
    // The names (not paths), sorted, of the entries of `directory` whose
    // name holds kDamagedMark: the moved-aside table files and their
    // "-journal" and "-wal" companions. Empty when the directory cannot be
    // read.
    static std::vector<std::string> DamagedFiles(const std::string& directory);

    // Tests only: the clock Record reads (the system's when null). Setting
    // it also forgets the last note recorded, so that no skip carries over.
    static void SetClock(const Clock* clock);

private:
    StorageNote() = delete;
};

} // namespace brvo

#endif
