#include "schedule/ManagerRegistry.h"

#include "util/LoggerLog.h"
#include "util/Mutex.h"
#include "util/ScopedLock.h"
#include "util/ThreadAnnotations.h"

#include <atomic>
#include <vector>

namespace brvo {

namespace {

// A leaf lock: guards the instance's replacement, the pins counted on it
// and the parked list.
Mutex instanceMutex;
std::atomic<ScheduleUpdateManager*> instance(nullptr);

// Managers whose flows outlived Delete's wait: kept (and reachable) until
// the process exits.
std::vector<ScheduleUpdateManager*>& Parked() REQUIRES(instanceMutex) {
    static std::vector<ScheduleUpdateManager*>* parked = new std::vector<ScheduleUpdateManager*>();
    return *parked;
}

} // namespace

void ManagerRegistry::Create(const ScheduleUpdateManager::Environment& environment) {
    ScopedLock lock(instanceMutex);
    if (instance == nullptr) instance = new ScheduleUpdateManager(environment);
}

ScheduleUpdateManager* ManagerRegistry::Get() {
    return instance;
}

ScheduleUpdateManager* ManagerRegistry::Acquire() {
    ScopedLock lock(instanceMutex);
    ScheduleUpdateManager* manager = instance;
    if (manager != nullptr) manager->EnterUse();
    return manager;
}

void ManagerRegistry::Delete(long waitMs) {
    ScheduleUpdateManager* doomed = nullptr;
    {
        ScopedLock lock(instanceMutex);
        doomed = instance.exchange(nullptr);
    }
    if (doomed == nullptr) return;
    doomed->Shutdown();
    if (doomed->WaitUnused(waitMs)) {
        delete doomed;
        return;
    }
    LoggerLog::Warning("ScheduleUpdateManager", "A schedule flow did not end in time; it is left to the exit.");
    ScopedLock lock(instanceMutex);
    Parked().push_back(doomed);
}

bool ManagerRegistry::HasParked() {
    ScopedLock lock(instanceMutex);
    return !Parked().empty();
}

} // namespace brvo
