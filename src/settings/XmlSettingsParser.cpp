#include "settings/XmlSettingsParser.h"

#include "util/FileUtil.h"

#include <Poco/DOM/DOMBuilder.h>
#include <Poco/Exception.h>
#include <Poco/SAX/InputSource.h>
#include <Poco/SAX/SAXParser.h>
#include <Poco/SAX/XMLFilterImpl.h>
#include <Poco/XML/XMLException.h>

#include <sstream>

namespace brvo {

namespace {

// Sits between the parser and the DOM builder and stops the parse at the
// first element nested deeper than the cap. The DOM releases its nodes
// recursively, so a deep document must not become a DOM at all.
class DepthLimitFilter : public Poco::XML::XMLFilterImpl {
public:
    explicit DepthLimitFilter(Poco::XML::XMLReader* parser) : XMLFilterImpl(parser), depth_(0) {}

    void startElement(const Poco::XML::XMLString& uri, const Poco::XML::XMLString& localName,
                      const Poco::XML::XMLString& qname, const Poco::XML::Attributes& attributes) override {
        if (++depth_ > XmlSettingsParser::kMaxDepth) {
            throw Poco::XML::XMLException("elements nested deeper than " +
                                          std::to_string(XmlSettingsParser::kMaxDepth) + " levels");
        }
        XMLFilterImpl::startElement(uri, localName, qname, attributes);
    }

    void endElement(const Poco::XML::XMLString& uri, const Poco::XML::XMLString& localName,
                    const Poco::XML::XMLString& qname) override {
        --depth_;
        XMLFilterImpl::endElement(uri, localName, qname);
    }

private:
    int depth_;
};

} // namespace

bool XmlSettingsParser::ReadFile(const std::string& path, std::string& text, std::string& reason) {
    FileUtil::ReadResult file = FileUtil::ReadFile(path, kMaxFileBytes);
    if (file.missing) throw Poco::FileNotFoundException(path);
    if (!file.ok) {
        reason = file.reason;
        return false;
    }
    text.swap(file.text);
    return true;
}

Poco::AutoPtr<Poco::XML::Document> XmlSettingsParser::Parse(const std::string& path, const std::string& text,
                                                            bool namespaces) {
    Poco::XML::SAXParser parser;
    parser.setEncoding("UTF-8");
    parser.setFeature(Poco::XML::XMLReader::FEATURE_NAMESPACES, namespaces);
    parser.setFeature(Poco::XML::XMLReader::FEATURE_NAMESPACE_PREFIXES, namespaces);
    DepthLimitFilter filter(&parser);
    Poco::XML::DOMBuilder builder(filter);
    std::istringstream stream(text);
    Poco::XML::InputSource source(stream);
    source.setSystemId(path);
    return builder.parse(&source);
}

} // namespace brvo
