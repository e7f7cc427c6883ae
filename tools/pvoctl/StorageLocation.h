// Where pvocd keeps its databases, worked out without writing anything:
// the one (card or /tmp fall-back) whose update information was written
// last; with neither, the card's data root when the daemon's write probe
// would succeed there, else the /tmp fall-back.
#ifndef BRVO_TOOLS_PVOCTL_STORAGELOCATION_H
#define BRVO_TOOLS_PVOCTL_STORAGELOCATION_H

#include <string>

namespace brvo {

class StorageLocation {
public:
    // Decides for the card mounted at `sdcardPath`.
    explicit StorageLocation(const std::string& sdcardPath);

    // The data root in use.
    const std::string& Root() const { return root_; }
    // True when the card cannot be written and /tmp is used.
    bool Fallback() const { return fallback_; }
    // The schedule database file.
    std::string ScheduleDatabase() const;
    // The update information database file.
    std::string UpdateInfoDatabase() const;

    // Whether the daemon could create `dir` with its parents and write in
    // it: the nearest existing ancestor is a directory that may be written.
    static bool WritableDirectory(const std::string& dir);
    // The update information database file under data root `root`.
    static std::string UpdateInfoDatabaseUnder(const std::string& root);

private:
    std::string root_;
    bool fallback_;
};

} // namespace brvo

#endif
