#include "SettingsScan.h"

#include "settings/XmlSettingsParser.h"
#include "util/FileUtil.h"

#include <Poco/SAX/Attributes.h>
#include <Poco/SAX/DefaultHandler.h>
#include <Poco/SAX/Locator.h>
#include <Poco/SAX/SAXException.h>
#include <Poco/SAX/SAXParser.h>
#include <Poco/SAX/XMLReader.h>

#include <cstddef>

namespace brvo {

namespace {

// Collects the elements with their positions. Elements nested deeper than
// the daemon's parser accepts are not recorded; the first one's position is
// kept, as the daemon refuses such a file. Nothing is thrown back through
// the C parser.
class Collector : public Poco::XML::DefaultHandler {
public:
    static constexpr std::size_t kUnrecorded = static_cast<std::size_t>(-1);

    explicit Collector(std::vector<SettingsScan::Element>& elements) : elements_(elements) {}

    void setDocumentLocator(const Poco::XML::Locator* locator) override { locator_ = locator; }

    void startElement(const Poco::XML::XMLString&, const Poco::XML::XMLString&, const Poco::XML::XMLString& qname,
                      const Poco::XML::Attributes& attributes) override {
        if (open_.size() >= static_cast<std::size_t>(XmlSettingsParser::kMaxDepth) || tooDeepLine_ > 0) {
            if (tooDeepLine_ == 0) {
                tooDeepLine_ = Line();
                tooDeepColumn_ = Column();
            }
            open_.push_back(kUnrecorded);
            return;
        }
        SettingsScan::Element element;
        element.name = qname;
        element.path = open_.empty() ? qname : elements_[open_.back()].path + "/" + qname;
        for (int i = 0; i < attributes.getLength(); ++i) {
            element.attributes[attributes.getQName(i)] = attributes.getValue(i);
        }
        element.line = Line();
        element.column = Column();
        open_.push_back(elements_.size());
        elements_.push_back(element);
    }

    void endElement(const Poco::XML::XMLString&, const Poco::XML::XMLString&, const Poco::XML::XMLString&) override {
        open_.pop_back();
    }

    void characters(const Poco::XML::XMLChar ch[], int start, int length) override {
        if (!open_.empty() && open_.back() != kUnrecorded) {
            elements_[open_.back()].text.append(ch + start, static_cast<std::size_t>(length));
        }
    }

    // Position of the first element nested too deep; line 0 when none.
    int TooDeepLine() const { return tooDeepLine_; }
    int TooDeepColumn() const { return tooDeepColumn_; }

private:
    int Line() const { return locator_ != nullptr ? locator_->getLineNumber() : 1; }
    int Column() const { return locator_ != nullptr ? locator_->getColumnNumber() + 1 : 1; }

    std::vector<SettingsScan::Element>& elements_;
    std::vector<std::size_t> open_;
    const Poco::XML::Locator* locator_ = nullptr;
    int tooDeepLine_ = 0;
    int tooDeepColumn_ = 0;
};

} // namespace

SettingsScan::SettingsScan(const std::string& path) {
    const FileUtil::ReadResult file = FileUtil::ReadFile(path, XmlSettingsParser::kMaxFileBytes);
    if (!file.ok) {
        missing_ = file.missing;
        error_ = file.missing ? "file missing" : "cannot read the file: " + file.reason;
        return;
    }
    Collector collector(elements_);
    Poco::XML::SAXParser parser;
    parser.setFeature(Poco::XML::XMLReader::FEATURE_NAMESPACES, false);
    parser.setContentHandler(&collector);
    try {
        parser.parseMemoryNP(file.text.data(), file.text.size());
    } catch (const Poco::XML::SAXParseException& e) {
        // The position is printed in front of the finding, 1-based.
        const std::string message = e.message();
        error_ = "XML error: " + message.substr(0, message.find(" in line "));
        errorLine_ = e.getLineNumber();
        errorColumn_ = e.getColumnNumber() + 1;
    } catch (const Poco::Exception& e) {
        error_ = "XML error: " + e.displayText();
    }
    if (error_.empty() && collector.TooDeepLine() > 0) {
        error_ = "elements nested deeper than " + std::to_string(XmlSettingsParser::kMaxDepth) +
                 "; pvocd does not read the file";
        errorLine_ = collector.TooDeepLine();
        errorColumn_ = collector.TooDeepColumn();
    }
    if (error_.empty() && elements_.empty()) error_ = "XML error: no document element";
}

} // namespace brvo
