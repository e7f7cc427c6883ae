#include "database/StorageNote.h"

#include "util/Clock.h"
#include "util/FileUtil.h"
#include "util/TimeStamp.h"

#include <algorithm>
#include <cerrno>
#include <dirent.h>
#include <fcntl.h>
#include <mutex>
#include <unistd.h>

namespace brvo {

namespace {

const std::string kStampFormat = "%Y-%m-%dT%H:%M:%SZ";
// "YYYY-MM-DDTHH:MM:SSZ".
const std::size_t kStampLength = 20;
const std::int64_t kMicrosPerSecond = 1000000;
// More than a note can hold: a longer file is not a note.
const std::size_t kMaxNoteBytes = 16384;

// The last note recorded, so that a repeat of it is skipped. Never
// destroyed: a worker that records while the process exits still finds it.
struct LastNote {
    std::mutex mutex;
    // The clock Record reads; the system's when null.
    const Clock* clock = nullptr;
    bool recorded = false;
    std::string file;
    std::string error;
    std::int64_t monotonicMicros = 0;
};

LastNote& Last() {
    static LastNote* const last = new LastNote();
    return *last;
}

bool IsControl(unsigned char byte) {
    return byte < 0x20 || byte == 0x7f;
}

bool IsUtf8Continuation(unsigned char byte) {
    return (byte & 0xc0) == 0x80;
}

// `text` with control bytes as spaces, cut to at most `maxBytes` without
// leaving half a UTF-8 character at the end.
std::string Clean(const std::string& text, std::size_t maxBytes) {
    std::size_t length = std::min(text.size(), maxBytes);
    if (length < text.size()) {
        while (length > 0 && IsUtf8Continuation(static_cast<unsigned char>(text[length]))) --length;
    }
    std::string clean = text.substr(0, length);
    for (char& c : clean) {
        if (IsControl(static_cast<unsigned char>(c))) c = ' ';
    }
    return clean;
}

// Whether the same note was recorded less than kRepeatSeconds ago; if not,
// this one becomes the last note. Called under the last note's mutex.
bool IsRepeat(LastNote& last, const std::string& file, const std::string& error, std::int64_t monotonicMicros) {
    if (last.recorded && last.file == file && last.error == error &&
        monotonicMicros - last.monotonicMicros < StorageNote::kRepeatSeconds * kMicrosPerSecond) {
        return true;
    }
    last.recorded = true;
    last.file = file;
    last.error = error;
    last.monotonicMicros = monotonicMicros;
    return false;
}

// The wall time `micros` as "YYYY-MM-DDTHH:MM:SSZ"; empty when it cannot
// be shown.
std::string Stamp(std::int64_t micros) {
    const std::int64_t seconds = micros / kMicrosPerSecond - (micros % kMicrosPerSecond < 0 ? 1 : 0);
    const std::shared_ptr<TimeStamp> time = TimeStamp::FromEpochSeconds(seconds);
    return time ? time->Format(kStampFormat) : std::string();
}

// Seconds since the epoch of a stamp as Stamp writes it; -1 when `text`
// is not one. Read through the strict display form, in 64 bits.
std::int64_t ParseStamp(const std::string& text) {
    if (text.size() != kStampLength || text[10] != 'T' || text[19] != 'Z') return -1;
    const std::shared_ptr<TimeStamp> time = TimeStamp::ParseDisplay(text.substr(0, 10) + " " + text.substr(11, 8));
    return time ? time->EpochSeconds() : -1;
}

bool WriteAll(int fd, const std::string& text) {
    std::size_t written = 0;
    while (written < text.size()) {
        const ssize_t n = ::write(fd, text.data() + written, text.size() - written);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        written += static_cast<std::size_t>(n);
    }
    return true;
}

// Writes `line` beside the note and renames it over the note.
void WriteNote(const std::string& line) {
    const std::string path = StorageNote::Path();
    const std::string temporary = path + ".new";
    const int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0644);
    if (fd < 0) return;
    const bool written = WriteAll(fd, line);
    const bool closed = ::close(fd) == 0;
    if (!written || !closed || ::rename(temporary.c_str(), path.c_str()) != 0) ::unlink(temporary.c_str());
}

} // namespace

const std::string StorageNote::kPath = "/tmp/pvocd_storage_error";
const std::string StorageNote::kDamagedMark = ".damaged-";

std::string StorageNote::Path() {
    return FileUtil::UnderRoot(kPath);
}

void StorageNote::Record(const std::string& file, const std::string& error) {
    try {
        const std::string cleanFile = Clean(file, std::string::npos);
        const std::string cleanError = Clean(error, kMaxErrorBytes);
        LastNote& last = Last();
        std::lock_guard<std::mutex> lock(last.mutex);
        const Clock& clock = last.clock != nullptr ? *last.clock : Clock::System();
        if (IsRepeat(last, cleanFile, cleanError, clock.MonotonicMicroseconds())) return;
        const std::string stamp = Stamp(clock.WallMicroseconds());
        if (stamp.empty()) return;
        WriteNote(stamp + " " + cleanFile + ": " + cleanError + "\n");
    } catch (...) {
        // Nowhere to report it: the note is lost.
    }
}

bool StorageNote::Read(Entry& entry) {
    try {
        const FileUtil::ReadResult note = FileUtil::ReadFile(Path(), kMaxNoteBytes);
        if (!note.ok) return false;
        const std::string line = note.text.substr(0, note.text.find('\n'));
        if (line.size() <= kStampLength || line[kStampLength] != ' ') return false;
        const std::int64_t time = ParseStamp(line.substr(0, kStampLength));
        const std::size_t colon = line.find(": ", kStampLength + 1);
        if (time < 0 || colon == std::string::npos) return false;
        // Cleaned again: the file may have been written by hand.
        entry.time = time;
        entry.file = Clean(line.substr(kStampLength + 1, colon - kStampLength - 1), std::string::npos);
        entry.error = Clean(line.substr(colon + 2), std::string::npos);
        return true;
    } catch (...) {
        return false;
    }
}

std::vector<std::string> StorageNote::DamagedFiles(const std::string& directory) {
    std::vector<std::string> names;
    DIR* const dir = ::opendir(directory.c_str());
    if (dir == nullptr) return names;
    try {
        while (const dirent* entry = ::readdir(dir)) {
            const std::string name = entry->d_name;
            if (name.find(kDamagedMark) != std::string::npos) names.push_back(name);
        }
        std::sort(names.begin(), names.end());
    } catch (...) {
        names.clear();
    }
    ::closedir(dir);
    return names;
}

void StorageNote::SetClock(const Clock* clock) {
    LastNote& last = Last();
    std::lock_guard<std::mutex> lock(last.mutex);
    last.clock = clock;
    last.recorded = false;
}

} // namespace brvo
