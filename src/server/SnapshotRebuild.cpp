#include "server/SnapshotRebuild.h"

#include "schedule/TargetPowerSnapshot.h"

namespace brvo {

SnapshotRebuild::SnapshotRebuild(std::atomic<bool>& pending) : pending_(pending), ran_(false) {}

// A rebuild released unrun (the pool stopped) leaves no flag set.
SnapshotRebuild::~SnapshotRebuild() {
    if (!ran_) pending_.store(false, std::memory_order_release);
}

void SnapshotRebuild::Execute() {
    ran_ = true;
    TargetPowerSnapshot::Instance().Rebuild();
    pending_.store(false, std::memory_order_release);
}

} // namespace brvo
