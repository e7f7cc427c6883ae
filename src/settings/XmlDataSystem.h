// The system element nested in the general section of the system settings.
#ifndef BRVO_SETTINGS_XMLDATASYSTEM_H
#define BRVO_SETTINGS_XMLDATASYSTEM_H

#include <cstdint>
#include <string>

namespace brvo {

class XmlNode;

class XmlDataSystem {
public:
    // Highest retry count accepted; a larger one becomes 0.
    static const std::uint16_t kMaxCommunicationErrorRetry = 99;

    // Reads the children of `node` (the system element); unknown elements
    // are ignored and a repeated element's later value wins.
    explicit XmlDataSystem(const XmlNode& node);
    virtual ~XmlDataSystem();

    const std::string& GetLocale() const { return locale_; }
    const std::string& GetLocaleList() const { return localelist_; }
    const std::string& GetTimezone() const { return timezone_; }
    std::uint16_t GetCommunicationErrorRetry() const { return communicationErrorRetry_; }

private:
    void SetCommunicationErrorRetry(const std::string& text);

    std::string locale_;
    std::string localelist_;
    std::string timezone_;
    std::uint16_t communicationErrorRetry_;
};

} // namespace brvo

#endif
