#include "settings/XmlSettingsParser.h"

#include "util/FileUtil.h"

#include <Poco/DOM/DOMBuilder.h>
#include <Poco/Exception.h>
#include <Poco/SAX/InputSource.h>
#include <Poco/SAX/Locator.h>
#include <Poco/SAX/SAXException.h>
#include <Poco/SAX/SAXParser.h>
#include <Poco/SAX/XMLFilterImpl.h>
#include <Poco/XML/XMLException.h>

#include <algorithm>
#include <istream>
#include <streambuf>

namespace brvo {

namespace {

// Sits between the parser and the DOM builder and keeps every element
// nested deeper than the cap out of the DOM: the DOM releases its nodes
// recursively, so a deep document must not become a DOM at all. It throws
// nothing itself (an exception would have to unwind through the C parser);
// the caller asks TooDeep once the parse is over.
class DepthLimitFilter : public Poco::XML::XMLFilterImpl {
public:
    explicit DepthLimitFilter(Poco::XML::XMLReader* parser)
        : XMLFilterImpl(parser), locator_(nullptr), depth_(0), line_(0), column_(0) {}

    void setDocumentLocator(const Poco::XML::Locator* locator) override {
        locator_ = locator;
        XMLFilterImpl::setDocumentLocator(locator);
    }

    void startElement(const Poco::XML::XMLString& uri, const Poco::XML::XMLString& localName,
                      const Poco::XML::XMLString& qname, const Poco::XML::Attributes& attributes) override {
        if (++depth_ > XmlSettingsParser::kMaxDepth) {
            NoteTooDeep();
            return;
        }
        XMLFilterImpl::startElement(uri, localName, qname, attributes);
    }

    void endElement(const Poco::XML::XMLString& uri, const Poco::XML::XMLString& localName,
                    const Poco::XML::XMLString& qname) override {
        if (depth_-- > XmlSettingsParser::kMaxDepth) return;
        XMLFilterImpl::endElement(uri, localName, qname);
    }

    // Whether an element lay deeper than the cap; `line` and `column` are
    // where the first one started.
    bool TooDeep(int& line, int& column) const {
        line = line_;
        column = column_;
        return line_ > 0;
    }

private:
    void NoteTooDeep() {
        if (line_ > 0) return;
        line_ = locator_ != nullptr ? locator_->getLineNumber() : 1;
        column_ = locator_ != nullptr ? locator_->getColumnNumber() : 0;
        if (line_ <= 0) line_ = 1;
    }

    const Poco::XML::Locator* locator_;
    int depth_;
    int line_;
    int column_;
};

// The text handed to the parser a chunk at a time, so that the parse can be
// cut short between chunks: once the filter has seen an element too deep,
// the rest of a large document is not worth the parser's memory. The
// parser then fails at the early end, outside its callbacks.
class ChunkedText : public std::streambuf {
public:
    ChunkedText(const std::string& text, const DepthLimitFilter& filter) : text_(text), filter_(filter), offset_(0) {}

protected:
    int_type underflow() override {
        if (gptr() < egptr()) return traits_type::to_int_type(*gptr());
        int line = 0;
        int column = 0;
        if (offset_ >= text_.size() || filter_.TooDeep(line, column)) return traits_type::eof();
        char* begin = const_cast<char*>(text_.data()) + offset_;
        const std::size_t size = std::min(kChunkBytes, text_.size() - offset_);
        offset_ += size;
        setg(begin, begin, begin + size);
        return traits_type::to_int_type(*gptr());
    }

private:
    static constexpr std::size_t kChunkBytes = 4096;
    const std::string& text_;
    const DepthLimitFilter& filter_;
    std::size_t offset_;
};

} // namespace

namespace {

// Reports a document with elements deeper than the cap as a parse error at
// the first of them.
void ThrowIfTooDeep(const DepthLimitFilter& filter, const std::string& path) {
    int line = 0;
    int column = 0;
    if (!filter.TooDeep(line, column)) return;
    throw Poco::XML::SAXParseException("elements nested deeper than " + std::to_string(XmlSettingsParser::kMaxDepth) +
                                           " levels",
                                       "", path, line, column);
}

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
    ChunkedText chunks(text, filter);
    std::istream stream(&chunks);
    Poco::XML::InputSource source(stream);
    source.setSystemId(path);
    Poco::AutoPtr<Poco::XML::Document> document;
    try {
        document = builder.parse(&source);
    } catch (const Poco::Exception&) {
        ThrowIfTooDeep(filter, path);
        throw;
    }
    ThrowIfTooDeep(filter, path);
    return document;
}

} // namespace brvo
