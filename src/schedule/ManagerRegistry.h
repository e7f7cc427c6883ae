// The process-wide schedule update manager: who may reach it, and when it
// may be freed. Created and deleted on the main thread; any thread pins it
// (ScheduleUpdateManager::Pin) for the length of a use. Delete waits
// briefly for the pins and ticks to go; a manager whose flow does not end
// in time is parked (kept, never freed) until the process exits.
//
// Lock rules: one leaf mutex guards the instance and the parked list; a pin
// is counted under it, so none is taken once Delete has begun.
#ifndef BRVO_SCHEDULE_MANAGERREGISTRY_H
#define BRVO_SCHEDULE_MANAGERREGISTRY_H

#include "schedule/ScheduleUpdateManager.h"

namespace brvo {

class ManagerRegistry {
public:
    // Creates the instance on `environment` if there is none.
    static void Create(const ScheduleUpdateManager::Environment& environment);
    // The instance, or null (no pin taken).
    static ScheduleUpdateManager* Get();
    // The instance with one more user counted, or null.
    static ScheduleUpdateManager* Acquire();
    // Shuts the instance down and frees it once unused within `waitMs`;
    // parks it otherwise.
    static void Delete(long waitMs);
    // Whether a manager was parked.
    static bool HasParked();

private:
    ManagerRegistry() = delete;
};

} // namespace brvo

#endif
