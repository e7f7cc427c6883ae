#include "settings/XmlDataSystem.h"

#include "settings/SettingKeys.h"
#include "settings/XmlNode.h"
#include "util/LoggerLog.h"

#include <cstdlib>

namespace brvo {

namespace {
const std::string kTag = "XmlDataGeneral";
}

XmlDataSystem::XmlDataSystem(const XmlNode& node) : communicationErrorRetry_(0) {
    for (const XmlNode* child : node.GetChildren()) {
        const std::string& name = child->GetName();
        if (name == kLocale) {
            locale_ = child->GetValue();
        } else if (name == kLocaleList) {
            localelist_ = child->GetValue();
        } else if (name == kTimezone) {
            timezone_ = child->GetValue();
        } else if (name == kCommunicationErrorRetry) {
            SetCommunicationErrorRetry(child->GetValue());
        }
    }
}

XmlDataSystem::~XmlDataSystem() {}

// Read with base detection (0x hex, leading-0 octal) and kept in 16 bits
// before the range check, so 65536 wraps to 0 without a message.
void XmlDataSystem::SetCommunicationErrorRetry(const std::string& text) {
    const long long parsed = std::strtoll(text.c_str(), nullptr, 0);
    communicationErrorRetry_ = static_cast<std::uint16_t>(static_cast<unsigned long long>(parsed));
    if (communicationErrorRetry_ > kMaxCommunicationErrorRetry) {
        LoggerLog::Debug(kTag, "communication_error_retry_ value is out of range.");
        communicationErrorRetry_ = 0;
    }
}

} // namespace brvo
