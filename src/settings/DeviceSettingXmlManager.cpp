#include "settings/DeviceSettingXmlManager.h"

#include <atomic>

#include "settings/SettingKeys.h"
#include "settings/SystemSettingXmlManager.h"
#include "settings/XmlNode.h"
#include "settings/XmlSettingsParser.h"
#include "util/FileChangeWatch.h"
#include "util/FileUtil.h"
#include "util/GuardedCall.h"
#include "util/LoggerLog.h"
#include "util/ScopedLock.h"

#include <Poco/AutoPtr.h>
#include <Poco/DOM/Document.h>
#include <Poco/Exception.h>

#include <cerrno>
#include <cstdlib>
#include <limits>

namespace brvo {

namespace {

const std::string kTag = "DeviceSettingXmlManager";
const std::string kAddressPath = "channelList/channel/addressList/address";
const std::string kLimitPath = "lggrdev:Device/lggrdev:Properties/lggrdev:Property/lggrdev:Variables/"
                               "lggrdev:VariableInfo[Name:Limit]";

// Replaces `value` with the number in `text` when the whole text is one
// (decimal, 0x hex or leading-0 octal) that fits an int; else leaves it.
void ConvertInto(const std::string& text, int& value) {
    if (text.empty()) return;
    errno = 0;
    char* end = nullptr;
    const long long parsed = std::strtoll(text.c_str(), &end, 0);
    if (errno != 0 || end == text.c_str() || *end != '\0') return;
    if (parsed < std::numeric_limits<int>::min() || parsed > std::numeric_limits<int>::max()) return;
    value = static_cast<int>(parsed);
}

// Read from every thread; created by whichever thread first needs it.
std::atomic<DeviceSettingXmlManager*> instance(nullptr);

} // namespace

const std::string& DeviceSettingXmlManager::AddressPath() {
    return kAddressPath;
}

void DeviceSettingXmlManager::CreateInstance() {
    if (instance.load() != nullptr) return;
    SystemSettingXmlManager::CreateInstance();
    DeviceSettingXmlManager* created = new DeviceSettingXmlManager(*SystemSettingXmlManager::GetInstance());
    DeviceSettingXmlManager* expected = nullptr;
    // A thread that lost the race frees its own and uses the winner's.
    if (!instance.compare_exchange_strong(expected, created)) delete created;
}

DeviceSettingXmlManager* DeviceSettingXmlManager::GetInstance() {
    return instance;
}

DeviceSettingXmlManager& DeviceSettingXmlManager::Shared() {
    CreateInstance();
    return *GetInstance();
}

void DeviceSettingXmlManager::DeleteInstance() {
    delete instance.exchange(nullptr);
}

DeviceSettingXmlManager::DeviceSettingXmlManager(SystemSettingXmlManager& systemSettings)
    : systemSettings_(systemSettings) {}

DeviceSettingXmlManager::~DeviceSettingXmlManager() {}

std::string DeviceSettingXmlManager::GetDeviceSettingFile(const std::string& deviceType) {
    // The settings are loaded and their raw tree taken. A successful load
    // already holds the tree of the file's bytes, which a second parse of
    // the same bytes would give again; only a failed load reads again, so
    // that the failure is reported as the raw read reports it.
    std::shared_ptr<XmlNode> tree = systemSettings_.LoadAndGetTree();
    if (!tree) tree = systemSettings_.LoadSystemSettingXmlNode();
    if (!tree) return std::string();
    {
        ScopedLock lock(cacheMutex_);
        if (tree == deviceTree_ && deviceType == deviceType_) return deviceFile_;
    }
    std::string found;
    std::shared_ptr<XmlNode::NodeList> addresses = tree->FindNodes(kAddressPath);
    for (const XmlNode* address : *addresses) {
        std::string type;
        std::string file;
        for (const XmlNode* child : address->GetChildren()) {
            if (child->GetName() == kDeviceType) type = child->GetValue();
            if (child->GetName() == kDeviceSettingFile) file = child->GetValue();
        }
        if (type == deviceType) {
            found = file;
            break;
        }
    }
    ScopedLock lock(cacheMutex_);
    deviceTree_ = tree;
    deviceType_ = deviceType;
    deviceFile_ = found;
    return found;
}

std::string DeviceSettingXmlManager::GetLimitFilePath() {
    return DescriptionPath(GetDeviceSettingFile(kHouseHoldSolarPowerGeneration));
}

// The description file of base name `file`; empty for none.
std::string DeviceSettingXmlManager::DescriptionPath(const std::string& file) {
    return file.empty() ? std::string() : FileUtil::GetDeviceDirectory() + "/" + file + ".xml";
}

bool DeviceSettingXmlManager::GetLimit(Limit& limit) {
    const std::string file = GetDeviceSettingFile(kHouseHoldSolarPowerGeneration);
    if (file.empty()) {
        LoggerLog::Limited(LoggerLog::kWarning, kTag, "Device type not found in SystemSetting",
                           " Device type not found in SystemSetting. [" + kHouseHoldSolarPowerGeneration + "]");
        return false;
    }
    const std::string path = DescriptionPath(file);
    // A file read while the change watch still vouches for it exists and
    // says what it said then: neither looked up nor read again.
    LimitFile cached;
    if (CachedLimitFile(path, cached)) return ApplyLimitFile(cached, limit);
    if (!FileUtil::Exists(path)) {
        LoggerLog::Limited(LoggerLog::kWarning, kTag, "missing device xml file",
                           " missing device xml file. [" + path + "]");
        return false;
    }
    bool read = false;
    const Caught caught = GuardedCall([&] { read = ReadLimitFile(path, limit); });
    if (caught) {
        LoggerLog::Limited(LoggerLog::kError, kTag, "Device setting xml error",
                           caught.DescribeTagged("Device setting xml error. "));
    }
    return read;
}

bool DeviceSettingXmlManager::CachedLimitFile(const std::string& path, LimitFile& file) {
    ScopedLock lock(cacheMutex_);
    if (!limitCached_ || path != limitPath_ || !FileChangeWatch::Instance().Unchanged(limitGeneration_)) {
        return false;
    }
    file = limitFile_;
    return true;
}

bool DeviceSettingXmlManager::ReadLimitFile(const std::string& path, Limit& limit) {
    const std::int64_t generation = FileChangeWatch::Instance().Arm(path);
    std::string text;
    std::string unusable;
    if (!XmlSettingsParser::ReadFile(path, text, unusable)) {
        LoggerLog::Limited(LoggerLog::kError, kTag, "Device setting xml error",
                           "Device setting xml error. EXCEPTION[" + unusable + "]");
        return false;
    }
    {
        ScopedLock lock(cacheMutex_);
        if (limitCached_ && path == limitPath_ && text == limitText_) {
            limitGeneration_ = generation;
            return ApplyLimitFile(limitFile_, limit);
        }
    }
    const LimitFile file = ParseLimitFile(path, text);
    {
        ScopedLock lock(cacheMutex_);
        limitPath_ = path;
        limitText_.swap(text);
        limitFile_ = file;
        limitCached_ = true;
        limitGeneration_ = generation;
    }
    return ApplyLimitFile(file, limit);
}

// Parses `text`, read from `path`. Element names keep their "lggrdev:"
// prefix: namespace processing is off. Throws what the parser throws.
DeviceSettingXmlManager::LimitFile DeviceSettingXmlManager::ParseLimitFile(const std::string& path,
                                                                           const std::string& text) {
    Poco::AutoPtr<Poco::XML::Document> document = XmlSettingsParser::Parse(path, text, false);
    LimitFile file;
    const Poco::XML::Node* root = document->getNodeByPath(kEchonetLiteDevicesPath);
    if (root == nullptr) return file;
    file.hasRoot = true;
    const XmlNode tree(nullptr, root);
    std::shared_ptr<XmlNode::NodeList> found = tree.FindNodes(kLimitPath);
    if (found->empty()) return file;
    const XmlNode* variable = found->front();
    file.hasLimit = true;
    file.value0 = XmlNode::GetAttribute(variable, kEchonetValue0);
    file.value100 = XmlNode::GetAttribute(variable, kEchonetValue100);
    file.valueMin = XmlNode::GetAttribute(variable, kEchonetValueMin);
    return file;
}

bool DeviceSettingXmlManager::ApplyLimitFile(const LimitFile& file, Limit& limit) {
    if (!file.hasRoot) {
        LoggerLog::Debug(kTag, " EchonetLiteDevices root not found. ");
        return false;
    }
    if (!file.hasLimit) {
        LoggerLog::Debug(kTag, " Set initial value to Limit. ");
        return true;
    }
    ConvertInto(file.value0, limit.value0);
    ConvertInto(file.value100, limit.value100);
    ConvertInto(file.valueMin, limit.valueMin);
    return true;
}

} // namespace brvo
