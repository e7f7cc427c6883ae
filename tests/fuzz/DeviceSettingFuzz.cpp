// Fuzz target of the device settings reader. The first input byte picks
// which file the rest is: even, the device description of the household
// solar unit (the system settings name it); odd, the system settings that
// list the devices (the description they name is a valid one).
#include "fuzz/FuzzEnvironment.h"

#include "settings/DeviceSettingXmlManager.h"
#include "settings/SettingKeys.h"
#include "settings/SystemSettingXmlManager.h"
#include "util/FileUtil.h"

#include <cstdint>
#include <string>

using brvo::fuzz::FuzzEnvironment;

namespace {

std::string DeviceFilePath() {
    return brvo::FileUtil::GetDeviceDirectory() + "/" + FuzzEnvironment::kDeviceFile + ".xml";
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    FuzzEnvironment::RequireSandbox("DeviceSettingFuzz");
    // No log: its buffer keeps lines across inputs, which makes libFuzzer
    // check for leaks after every input and slows the run many times over.
    // The messages are built all the same.
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) return 0;
    const std::string rest = FuzzEnvironment::Text(data + 1, size - 1);
    const bool systemSettingsFuzzed = (data[0] & 1) != 0;
    FuzzEnvironment::WriteFile(brvo::FileUtil::GetSystemSettingFile(),
                               systemSettingsFuzzed ? rest : FuzzEnvironment::SystemSettingText());
    FuzzEnvironment::WriteFile(DeviceFilePath(), systemSettingsFuzzed ? FuzzEnvironment::DeviceText() : rest);

    brvo::SystemSettingXmlManager systemSettings;
    brvo::DeviceSettingXmlManager devices(systemSettings);
    const std::string file = devices.GetDeviceSettingFile(brvo::kHouseHoldSolarPowerGeneration);
    devices.GetDeviceSettingFile("NoSuchDeviceType");
    brvo::DeviceSettingXmlManager::Limit limit;
    const bool read = devices.GetLimit(limit);
    FuzzEnvironment::Check(!read || !file.empty(), "limit read without a device file");
    if (!systemSettingsFuzzed) {
        FuzzEnvironment::Check(file == FuzzEnvironment::kDeviceFile, "fixed system settings misread");
    } else if (read && file == FuzzEnvironment::kDeviceFile) {
        FuzzEnvironment::Check(limit.value0 == 0 && limit.value100 == 100 && limit.valueMin == 16,
                               "fixed device description misread");
    }
    if (!read) {
        const brvo::DeviceSettingXmlManager::Limit untouched;
        FuzzEnvironment::Check(limit.value0 == untouched.value0 && limit.value100 == untouched.value100 &&
                                   limit.valueMin == untouched.valueMin,
                               "limit changed by a failed read");
    }
    return 0;
}
