// A settings file read element by element with the position of each start
// tag, for findings that point at a line and column. Element names are
// taken as written, prefixes included, as the daemon's readers see them.
#ifndef BRVO_TOOLS_PVOCTL_SETTINGSSCAN_H
#define BRVO_TOOLS_PVOCTL_SETTINGSSCAN_H

#include <map>
#include <string>
#include <vector>

namespace brvo {

class SettingsScan {
public:
    // One element of the file.
    struct Element {
        // Names from the document element down to this one, joined by '/'.
        std::string path;
        // The element's own name.
        std::string name;
        // Text directly inside the element.
        std::string text;
        // Attributes by name.
        std::map<std::string, std::string> attributes;
        // 1-based position of the start tag.
        int line = 0;
        int column = 0;
    };

    // Reads and parses `path`. Missing() tells a missing file apart;
    // Error() holds the reason when the file could not be read or parsed.
    explicit SettingsScan(const std::string& path);

    // Whether nothing is at the path.
    bool Missing() const { return missing_; }
    // Why the file is unusable (an XML error included); empty when usable.
    const std::string& Error() const { return error_; }
    // Position of the XML error, or 1:1 for a file that could not be read.
    int ErrorLine() const { return errorLine_; }
    int ErrorColumn() const { return errorColumn_; }
    // The elements in document order; the first is the document element.
    const std::vector<Element>& Elements() const { return elements_; }

private:
    bool missing_ = false;
    std::string error_;
    int errorLine_ = 1;
    int errorColumn_ = 1;
    std::vector<Element> elements_;
};

} // namespace brvo

#endif
