// pvocd: the output-control daemon of the PV data logger. It takes no
// arguments; its settings come from LoggerSetting.xml and SystemSetting.xml.
#include "app/BrevantaOutputControlManager.h"
#include "schedule/ScheduleUpdateManager.h"
#include "settings/LoggerSettingManager.h"
#include "util/LoggerLog.h"

#include <clocale>
#include <csignal>

namespace {

void OnStopSignal(int) {
    brvo::BrevantaOutputControlManager::RequestKill();
}

} // namespace

int main() {
    std::setlocale(LC_CTYPE, "");
    std::signal(SIGUSR1, OnStopSignal);
    std::signal(SIGTERM, OnStopSignal);
    // A client or the logger daemon hanging up mid-write must cost a log
    // line, not the daemon.
    std::signal(SIGPIPE, SIG_IGN);

    brvo::LoggerSettingManager::CreateInstance();
    brvo::LoggerLog::CreateInstance();
    brvo::LoggerSettingManager::GetInstance()->Dump();
    brvo::BrevantaOutputControlManager::CreateInstance();
    brvo::ScheduleUpdateManager::CreateInstance();

    brvo::BrevantaOutputControlManager::GetInstance()->Start();

    brvo::LoggerLog::DeleteInstance();
    return 0;
}
