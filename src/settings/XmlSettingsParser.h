// Reads a settings file into memory and parses it into a POCO DOM, with a
// cap on the file's size and on the nesting of its elements: a huge or
// deeply nested file is refused before it costs more than a valid one.
#ifndef BRVO_SETTINGS_XMLSETTINGSPARSER_H
#define BRVO_SETTINGS_XMLSETTINGSPARSER_H

#include <Poco/AutoPtr.h>
#include <Poco/DOM/Document.h>

#include <cstddef>
#include <string>

namespace brvo {

class XmlSettingsParser {
public:
    // Largest settings file or device description read, in bytes. The
    // files the device ships with are a few KiB.
    static constexpr std::size_t kMaxFileBytes = 1024 * 1024;
    // Deepest element nesting parsed, the document element being level 1.
    // The files the daemon reads are about six levels deep.
    static constexpr int kMaxDepth = 64;

    // Reads the file `path` into `text`. Throws Poco::FileNotFoundException
    // when nothing is at the path, as the parser reports a missing file.
    // False, with the reason in `reason`, for a file that is no regular file
    // (a FIFO, a device, a directory), is larger than kMaxFileBytes or cannot
    // be read.
    static bool ReadFile(const std::string& path, std::string& text, std::string& reason);

    // Parses `text`, the content of the file `path` (which the parser's
    // messages name), as "UTF-8" unless the document says otherwise, with
    // namespace processing and prefixes both on or both off. Throws what
    // the parser throws; an element nested deeper than kMaxDepth stops the
    // parse with a Poco::XML::SAXParseException.
    static Poco::AutoPtr<Poco::XML::Document> Parse(const std::string& path, const std::string& text, bool namespaces);
};

} // namespace brvo

#endif
