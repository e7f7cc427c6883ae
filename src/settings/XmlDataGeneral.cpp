#include "settings/XmlDataGeneral.h"

#include "settings/SettingKeys.h"
#include "settings/XmlNode.h"

namespace brvo {

XmlDataGeneral::XmlDataGeneral(const XmlNode& node) : cloudCooperation_(false), outputControlStandAlone_(false) {
    for (const XmlNode* child : node.GetChildren()) {
        const std::string& name = child->GetName();
        const std::string& value = child->GetValue();
        if (name == kLoggerIp) {
            loggerIp_ = value;
        } else if (name == kLoggerDefaultGw) {
            loggerDefaultGw_ = value;
        } else if (name == kServerUrl) {
            serverUrl_ = value;
        } else if (name == kCloudCooperation) {
            cloudCooperation_ = value != "0";
        } else if (name == kSystem) {
            system_.reset(new XmlDataSystem(*child));
        } else if (name == kPvStartupDate) {
            pvStartupDate_ = value;
        } else if (name == kOutputControlPlantId) {
            outputControlPlantId_ = value;
        } else if (name == kOutputControlStandAlone) {
            outputControlStandAlone_ = value == "1";
        } else if (name == kOutputScheduleInformationServerUrl) {
            outputScheduleInformationServerUrl_ = value;
        } else if (name == kFacilityCertifiedCapacity) {
            facilityCertifiedCapacity_ = value;
        }
    }
}

XmlDataGeneral::~XmlDataGeneral() {}

} // namespace brvo
