// Builds the target power snapshot anew on an answer worker, for the
// command server's event loop, which must not read files itself.
#ifndef BRVO_SERVER_SNAPSHOTREBUILD_H
#define BRVO_SERVER_SNAPSHOTREBUILD_H

#include "client/Request.h"

#include <atomic>

namespace brvo {

class SnapshotRebuild : public Request {
public:
    // `pending` is set by whoever queued this rebuild and is cleared once
    // the new view is published (or when the rebuild is released unrun);
    // it must outlive the worker pool the rebuild is queued to.
    explicit SnapshotRebuild(std::atomic<bool>& pending);

    // Rebuilds the snapshot (TargetPowerSnapshot::Rebuild), then clears
    // the pending flag.
    void Execute() override;

protected:
    ~SnapshotRebuild() override;

private:
    std::atomic<bool>& pending_;
    // Whether Execute ran (it then cleared the flag itself).
    bool ran_;
};

} // namespace brvo

#endif
