// The attributes of the logger element of the system settings: the logger's
// identity and the plant it belongs to.
#ifndef BRVO_SETTINGS_XMLDATALOGGERATTRIBUTE_H
#define BRVO_SETTINGS_XMLDATALOGGERATTRIBUTE_H

#include <string>

namespace brvo {

class XmlNode;

class XmlDataLoggerAttribute {
public:
    // Longest plant name kept; a longer one is emptied.
    static constexpr std::size_t kMaxPlaneNameLength = 256;

    // Reads the attributes of `node` (the logger element); a missing
    // attribute gives an empty string.
    explicit XmlDataLoggerAttribute(const XmlNode& node);
    virtual ~XmlDataLoggerAttribute();

    const std::string& GetTimestamp() const { return timestamp_; }
    const std::string& GetSerial() const { return serial_; }
    const std::string& GetVersion() const { return version_; }
    const std::string& GetAppversion() const { return appversion_; }
    const std::string& GetLoggerId() const { return loggerId_; }
    const std::string& GetPlantId() const { return plantId_; }
    const std::string& GetPlaneName() const { return planeName_; }

private:
    std::string timestamp_;
    std::string serial_;
    std::string version_;
    std::string appversion_;
    std::string loggerId_;
    std::string plantId_;
    std::string planeName_;
};

} // namespace brvo

#endif
