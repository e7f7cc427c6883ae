// The general section of the system settings, with its nested system record.
#ifndef BRVO_SETTINGS_XMLDATAGENERAL_H
#define BRVO_SETTINGS_XMLDATAGENERAL_H

#include "settings/XmlDataSystem.h"

#include <memory>
#include <string>

namespace brvo {

class XmlNode;

class XmlDataGeneral {
public:
    // Reads the children of `node` (the general element). Unknown elements
    // are ignored and a repeated element's later value wins. Cloud
    // cooperation is on unless the text is "0"; stand-alone operation is
    // off unless the text is "1"; both are false when the element is absent.
    explicit XmlDataGeneral(const XmlNode& node);
    virtual ~XmlDataGeneral();

    const std::string& GetLoggerIp() const { return loggerIp_; }
    const std::string& GetLoggerDefaultGw() const { return loggerDefaultGw_; }
    const std::string& GetServerUrl() const { return serverUrl_; }
    bool GetCloudCooperation() const { return cloudCooperation_; }
    // The system record, or null when the section has no system element.
    const XmlDataSystem* GetSystem() const { return system_.get(); }
    const std::string& GetPvStartupDate() const { return pvStartupDate_; }
    const std::string& GetOutputControlPlantId() const { return outputControlPlantId_; }
    bool GetOutputControlStandAlone() const { return outputControlStandAlone_; }
    const std::string& GetOutputScheduleInformationServerUrl() const { return outputScheduleInformationServerUrl_; }
    const std::string& GetFacilityCertifiedCapacity() const { return facilityCertifiedCapacity_; }

    // Change the loaded values in memory only.
    void SetOutputControlPlantId(const std::string& plantId) { outputControlPlantId_ = plantId; }
    void SetOutputControlStandAlone(bool standAlone) { outputControlStandAlone_ = standAlone; }

private:
    std::string loggerIp_;
    std::string loggerDefaultGw_;
    std::string serverUrl_;
    bool cloudCooperation_;
    std::unique_ptr<XmlDataSystem> system_;
    std::string pvStartupDate_;
    std::string outputControlPlantId_;
    bool outputControlStandAlone_;
    std::string outputScheduleInformationServerUrl_;
    std::string facilityCertifiedCapacity_;
};

} // namespace brvo

#endif
