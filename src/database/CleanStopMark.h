// The mark a clean stop leaves beside the tables: the next start finds it
// and knows that no write was cut off, so the tables need no check. Any
// other end (a kill, a crash, a power cut) leaves no mark, and the next
// start has SQLite check both files before they are used.
#ifndef BRVO_DATABASE_CLEANSTOPMARK_H
#define BRVO_DATABASE_CLEANSTOPMARK_H

#include <string>

namespace brvo {

class CleanStopMark {
public:
    // The mark's name in the output-control database directory.
    static const std::string kFileName;

    // Whether the last stop left its mark; removes the mark, so that a
    // stop that is not clean from now on leaves none. Call once at the
    // start, before the tables are opened.
    static bool Take();
    // Leaves the mark. Call at the end of a clean stop, once nothing
    // writes to the tables any more. A mark that cannot be written only
    // costs a check at the next start.
    static void Leave();

private:
    static std::string Path();
};

} // namespace brvo

#endif
