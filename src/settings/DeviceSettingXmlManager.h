// Reads the lower limit of the output-control value from the device
// description of the plant's household solar power generation unit. The
// system settings name the description file of each device by type; the
// files are ECHONET Lite device descriptions in the device directory.
//
// Lock rules: cacheMutex_ guards what was found in the bytes last read; a
// leaf lock but for the change watch's, which it may take while held.
#ifndef BRVO_SETTINGS_DEVICESETTINGXMLMANAGER_H
#define BRVO_SETTINGS_DEVICESETTINGXMLMANAGER_H

#include "util/FileChangeWatch.h"
#include "util/Mutex.h"
#include "util/ThreadAnnotations.h"

#include <cstdint>
#include <memory>
#include <string>

namespace brvo {

class SystemSettingXmlManager;
class XmlNode;

class DeviceSettingXmlManager {
public:
    // "channelList/channel/addressList/address": where SystemSetting.xml
    // lists the logger's devices.
    static const std::string& AddressPath();
    // The rate scale of the unit: the values at 0 % and at 100 %, and the
    // lowest value the unit accepts. The caller presets the defaults; each
    // stays as it was unless the file gives a number for it.
    struct Limit {
        int value0 = 0;
        int value100 = 100;
        int valueMin = 0;
    };

    // Creates the process-wide instance if absent, reading devices through
    // the process-wide system settings (created if absent). Safe from any
    // thread: racing callers end up with one instance.
    static void CreateInstance();
    // The instance, or null before CreateInstance.
    static DeviceSettingXmlManager* GetInstance();
    // Deletes the instance.
    static void DeleteInstance();
    // The instance, created first (with the system settings) if absent.
    static DeviceSettingXmlManager& Shared();

    // Reads devices through `systemSettings`, which must outlive this object.
    explicit DeviceSettingXmlManager(SystemSettingXmlManager& systemSettings);
    virtual ~DeviceSettingXmlManager();

    // Reloads the system settings and returns the description file base
    // name of the first device of type `deviceType`; empty when there is
    // none or the settings cannot be read.
    std::string GetDeviceSettingFile(const std::string& deviceType);

    // Reads Value0, Value100 and ValueMin of the unit's Limit variable into
    // `limit`, each replaced only by a readable number (decimal, 0x hex or
    // leading-0 octal). True when the description file was read, even when
    // it holds no Limit variable; false (with a log line) when the device,
    // its file or the file's root is missing, or the file is no regular
    // file, is larger than the settings cap or cannot be parsed.
    bool GetLimit(Limit& limit);
    // The description file GetLimit reads (reloading the system settings
    // as it does); empty when the settings name no such device.
    std::string GetLimitFilePath();

private:
    // What a description file says about the Limit variable.
    struct LimitFile {
        bool hasRoot = false;
        bool hasLimit = false;
        std::string value0;
        std::string value100;
        std::string valueMin;
    };

    // True when `path` was last read under a generation the change watch
    // still vouches for; `file` then holds what it said.
    static std::string DescriptionPath(const std::string& file);
    bool CachedLimitFile(const std::string& path, LimitFile& file) EXCLUDES(cacheMutex_);
    // Reads and parses `path` (unless its bytes are the ones last parsed)
    // and applies what it says to `limit`. Throws what the parser throws.
    bool ReadLimitFile(const std::string& path, Limit& limit) EXCLUDES(cacheMutex_);
    static LimitFile ParseLimitFile(const std::string& path, const std::string& text);
    static bool ApplyLimitFile(const LimitFile& file, Limit& limit);

    SystemSettingXmlManager& systemSettings_;

    // Both files are read for every target-power request; what was found in
    // the bytes last read is kept and used again while the bytes are the
    // same (the settings tree is kept by the system settings while its file
    // is unchanged, so the same tree means the same answer).
    Mutex cacheMutex_;
    std::shared_ptr<XmlNode> deviceTree_ GUARDED_BY(cacheMutex_);
    std::string deviceType_ GUARDED_BY(cacheMutex_);
    std::string deviceFile_ GUARDED_BY(cacheMutex_);
    std::string limitPath_ GUARDED_BY(cacheMutex_);
    std::string limitText_ GUARDED_BY(cacheMutex_);
    LimitFile limitFile_ GUARDED_BY(cacheMutex_);
    bool limitCached_ GUARDED_BY(cacheMutex_) = false;
    // The change watch's generation of the last read that found limitText_.
    std::int64_t limitGeneration_ GUARDED_BY(cacheMutex_) = FileChangeWatch::kNotWatched;
};

} // namespace brvo

#endif
