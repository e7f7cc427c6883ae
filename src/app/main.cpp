// pvocd: the output-control daemon of the PV data logger. It takes no
// arguments; its settings come from LoggerSetting.xml and SystemSetting.xml.
#include "app/BrevantaOutputControlManager.h"
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

    brvo::LoggerSettingManager::CreateInstance();
    brvo::LoggerLog::CreateInstance();
    brvo::LoggerSettingManager::GetInstance()->Dump();
    brvo::BrevantaOutputControlManager::CreateInstance();
    // The schedule update manager is created here once it exists.

    brvo::BrevantaOutputControlManager::GetInstance()->Start();

    brvo::LoggerLog::DeleteInstance();
    return 0;
}
