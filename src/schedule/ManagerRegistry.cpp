#include "schedule/ManagerRegistry.h"

#include "util/LoggerLog.h"

#include <Poco/Mutex.h>

#include <atomic>
#include <vector>

namespace brvo {

namespace {

Poco::FastMutex instanceMutex;
std::atomic<ScheduleUpdateManager*> instance(nullptr);

// Managers whose flows outlived Delete's wait: kept (and reachable) until
// the process exits.
std::vector<ScheduleUpdateManager*>& Parked() {
    static std::vector<ScheduleUpdateManager*>* parked = new std::vector<ScheduleUpdateManager*>();
    return *parked;
}

} // namespace

void ManagerRegistry::Create(const ScheduleUpdateManager::Environment& environment) {
    Poco::FastMutex::ScopedLock lock(instanceMutex);
    if (instance == nullptr) instance = new ScheduleUpdateManager(environment);
}

ScheduleUpdateManager* ManagerRegistry::Get() {
    return instance;
}

ScheduleUpdateManager* ManagerRegistry::Acquire() {
    Poco::FastMutex::ScopedLock lock(instanceMutex);
    ScheduleUpdateManager* manager = instance;
    if (manager != nullptr) manager->EnterUse();
    return manager;
}

void ManagerRegistry::Delete(long waitMs) {
    ScheduleUpdateManager* doomed = nullptr;
    {
        Poco::FastMutex::ScopedLock lock(instanceMutex);
        doomed = instance.exchange(nullptr);
    }
    if (doomed == nullptr) return;
    doomed->Shutdown();
    if (doomed->WaitUnused(waitMs)) {
        delete doomed;
        return;
    }
    LoggerLog::Warning("ScheduleUpdateManager", "A schedule flow did not end in time; it is left to the exit.");
    Poco::FastMutex::ScopedLock lock(instanceMutex);
    Parked().push_back(doomed);
}

bool ManagerRegistry::HasParked() {
    Poco::FastMutex::ScopedLock lock(instanceMutex);
    return !Parked().empty();
}

} // namespace brvo
