// One request to pvocd's command socket and its answer, as bytes
// (CommandWire writes and reads them).
#ifndef BRVO_TOOLS_PVOCTL_COMMANDSOCKET_H
#define BRVO_TOOLS_PVOCTL_COMMANDSOCKET_H

#include <string>

namespace brvo {

class CommandSocket {
public:
    // Sends `request` to the socket at `path` and returns everything read
    // until the daemon closes; `error` is set when there is no answer
    // within `timeoutMs` (waited for each read).
    static std::string Exchange(const std::string& path, const std::string& request, int timeoutMs, std::string& error);
};

} // namespace brvo

#endif
