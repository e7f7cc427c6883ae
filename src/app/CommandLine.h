// The daemon's command line: it normally takes no argument; "--help" and
// "--version" answer and end the process before anything of the daemon
// (settings, log, socket) is touched.
#ifndef BRVO_APP_COMMANDLINE_H
#define BRVO_APP_COMMANDLINE_H

#include <cstdio>
#include <string>

namespace brvo {

class CommandLine {
public:
    // What the arguments ask for.
    enum Action { kRun, kHelp, kVersion, kBadArgument };

    // Exit status of an argument that is not understood.
    static constexpr int kUsageExitStatus = 2;

    // Reads `argc` and `argv` as main receives them.
    CommandLine(int argc, const char* const argv[]);

    // What the arguments ask for.
    Action GetAction() const { return action_; }
    // Prints the answer of a help, version or bad-argument request (the
    // first two to `out`, the last to `err`) and returns the process's exit
    // status for it; does nothing and returns 0 for kRun.
    int Answer(std::FILE* out, std::FILE* err) const;

    // The usage text.
    static std::string Usage();
    // "pvocd " and the application version.
    static std::string Version();

private:
    Action action_;
    // The first argument that was not understood.
    std::string bad_;
};

} // namespace brvo

#endif
