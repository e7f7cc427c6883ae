// pvoctl check-config: reads the settings the daemon reads and reports,
// one "FILE:LINE:COLUMN: message" per finding, what the daemon would
// silently ignore, fall back from or fail on.
#ifndef BRVO_TOOLS_PVOCTL_CONFIGCHECK_H
#define BRVO_TOOLS_PVOCTL_CONFIGCHECK_H

#include "SettingsScan.h"

#include <map>
#include <string>
#include <vector>

namespace brvo {

class ConfigCheck {
public:
    // Checks the settings directory `dir`; the device descriptions are
    // looked for in its sibling "DeviceXML", as the daemon's are.
    explicit ConfigCheck(const std::string& dir);

    // Runs every check; false with `error` set when `dir` is no directory.
    bool Run(std::string& error);
    // The findings, in file order.
    const std::vector<std::string>& Findings() const { return findings_; }

    // The edit distance between two names (insertions, deletions and
    // substitutions of one character each).
    static std::size_t Distance(const std::string& a, const std::string& b);
    // The known name nearest to `name` when it is near enough to be a slip
    // of the keyboard; empty otherwise.
    static std::string Nearest(const std::string& name, const std::vector<std::string>& known);

private:
    using Element = SettingsScan::Element;

    void CheckLoggerSetting();
    void CheckLoggerElement(const std::string& file, const Element& element);
    void CheckSystemSetting();
    void CheckSystemElement(const std::string& file, const Element& element);
    static const Element* DeviceFileElement(const std::vector<Element>& elements);
    void CheckDevice(const std::string& file, const Element& deviceFile);
    void CheckSdcardPath(const std::string& file, const Element* at);
    void CheckCertificates();
    bool Usable(const std::string& file, const SettingsScan& scan, bool missingIsFinding);
    void Add(const std::string& file, int line, int column, const std::string& message);
    void Add(const std::string& file, const Element& at, const std::string& message);

    std::string dir_;
    std::string sdcardPath_;
    std::vector<std::string> findings_;
};

} // namespace brvo

#endif
