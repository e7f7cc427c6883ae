#include "settings/XmlDataLoggerAttribute.h"

#include "settings/SettingKeys.h"
#include "settings/XmlNode.h"
#include "util/LoggerLog.h"

namespace brvo {

namespace {
const std::string kTag = "XmlDataLoggerAttribute";
}

XmlDataLoggerAttribute::XmlDataLoggerAttribute(const XmlNode& node)
    : timestamp_(XmlNode::GetAttribute(&node, kAttrTimestamp)), serial_(XmlNode::GetAttribute(&node, kAttrSerial)),
      version_(XmlNode::GetAttribute(&node, kAttrVersion)), appversion_(XmlNode::GetAttribute(&node, kAttrAppVersion)),
      loggerId_(XmlNode::GetAttribute(&node, kAttrLoggerId)), plantId_(XmlNode::GetAttribute(&node, kAttrPlantId)),
      planeName_(XmlNode::GetAttribute(&node, kAttrPlaneName)) {
    if (planeName_.length() > kMaxPlaneNameLength) {
        LoggerLog::Debug(kTag, "plant_name has a length greater than " + std::to_string(kMaxPlaneNameLength) + ".");
        planeName_.clear();
    }
}

XmlDataLoggerAttribute::~XmlDataLoggerAttribute() {}

} // namespace brvo
