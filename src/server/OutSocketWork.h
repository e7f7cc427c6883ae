// One accepted connection of a local client, queued to the worker pool.
#ifndef BRVO_SERVER_OUTSOCKETWORK_H
#define BRVO_SERVER_OUTSOCKETWORK_H

#include "server/Request.h"

namespace brvo {

class OutSocketWork : public Request {
public:
    // Takes over the accepted client descriptor `socket`.
    explicit OutSocketWork(int socket);

    // Serves the client's request and closes the connection.
    void Execute() override;
    // Closes the client descriptor (once; later calls do nothing).
    void Close();
    // The client descriptor; -1 once closed.
    int GetSocket() const { return socket_; }

protected:
    ~OutSocketWork() override;

private:
    int socket_;
};

} // namespace brvo

#endif
