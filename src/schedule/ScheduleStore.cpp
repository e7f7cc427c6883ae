#include "schedule/ScheduleStore.h"

#include "database/ScheduleDatabase.h"
#include "database/ScheduleUpdateInfoDatabase.h"

namespace brvo {

ScheduleStore::ScheduleStore() : infoDatabase_(new ScheduleUpdateInfoDatabase()), resets_(0) {
    ScheduleDatabase::CreateInstance();
}

ScheduleStore::~ScheduleStore() {
    delete infoDatabase_;
}

ScheduleUpdateInfo ScheduleStore::SelectUpdateInfo() {
    Lock lock(flowMutex_);
    return SelectUpdateInfoLocked();
}

ScheduleUpdateInfo ScheduleStore::SelectUpdateInfoLocked() {
    return infoDatabase_->SelectUpdateInfo();
}

ScheduleUpdateInfo ScheduleStore::PeekUpdateInfo() {
    return infoDatabase_->SelectUpdateInfo();
}

bool ScheduleStore::InsertUpdateInfoLocked(const ScheduleUpdateInfo& info) {
    return infoDatabase_->InsertUpdateInfo(info);
}

bool ScheduleStore::InsertUpdateScheduleLocked(const std::vector<ScheduleRow>& slots) {
    ScheduleDatabase* database = ScheduleDatabase::GetInstance();
    return database != nullptr && database->InsertUpdateSchedule(slots);
}

bool ScheduleStore::InsertFixedScheduleLocked(const std::vector<ScheduleRow>& slots) {
    ScheduleDatabase* database = ScheduleDatabase::GetInstance();
    return database != nullptr && database->InsertFixedSchedule(slots);
}

void ScheduleStore::DeleteAllLocked() {
    ++resets_;
    infoDatabase_->DeleteUpdateInfo();
    ScheduleDatabase* database = ScheduleDatabase::GetInstance();
    if (database != nullptr) database->DeleteAll();
}

std::uint64_t ScheduleStore::Resets() {
    Lock lock(flowMutex_);
    return resets_;
}

} // namespace brvo
