#include "server/OutSocketWork.h"

#include <unistd.h>

namespace brvo {

OutSocketWork::OutSocketWork(int socket) : socket_(socket) {}

// A work item that never ran (the daemon stopped first) still owns its
// descriptor.
OutSocketWork::~OutSocketWork() {
    Close();
}

void OutSocketWork::Execute() {
    // The request dispatcher reads the client's request and answers it here
    // once the request protocol is wired in; until then the connection is
    // closed unanswered.
    Close();
}

void OutSocketWork::Close() {
    if (socket_ < 0) return;
    close(socket_);
    socket_ = -1;
}

} // namespace brvo
