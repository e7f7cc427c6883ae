#include "settings/XmlNode.h"

#include "util/LoggerLog.h"

#include <Poco/AutoPtr.h>
#include <Poco/DOM/DOMParser.h>
#include <Poco/DOM/Document.h>
#include <Poco/DOM/DOMWriter.h>
#include <Poco/DOM/Element.h>
#include <Poco/DOM/NamedNodeMap.h>
#include <Poco/DOM/Node.h>
#include <Poco/DOM/NodeList.h>
#include <Poco/DOM/Text.h>
#include <Poco/Exception.h>
#include <Poco/FileStream.h>
#include <Poco/SAX/InputSource.h>
#include <Poco/StringTokenizer.h>
#include <Poco/XML/XMLWriter.h>

#include <regex>
#include <sstream>

namespace brvo {

namespace {

const std::string kTag = "XmlNode";
const std::string kNamespaceKey = "xmlns";

// One step of a path: element name and an optional attribute selector.
struct Step {
    std::string name;
    std::string attribute;
    std::string value;
};

// Takes a step apart by replacing the selector match with each of its
// groups; a step without a selector is its own element name. Only the
// matched part is replaced, so a prefix before it stays part of the name.
Step ParseStep(const std::string& text, const std::regex& selector) {
    Step step;
    const auto first = std::regex_constants::format_first_only;
    step.name = std::regex_replace(text, selector, "$1", first);
    if (std::regex_search(text, selector)) {
        step.attribute = std::regex_replace(text, selector, "$2", first);
        step.value = std::regex_replace(text, selector, "$3", first);
    }
    return step;
}

const std::regex& SingleSelector() {
    static const std::regex pattern(R"(([a-zA-Z0-9]+)\[([a-zA-Z0-9]+):([a-zA-Z0-9]+)\])");
    return pattern;
}

const std::regex& MultiSelector() {
    static const std::regex pattern(R"(([a-zA-Z0-9:]+)\[([a-zA-Z0-9]+):([a-zA-Z0-9]+)\])");
    return pattern;
}

// Splits at every "/", keeping empty steps.
std::vector<Step> ParsePath(const std::string& path, const std::regex& selector) {
    std::vector<Step> steps;
    std::size_t begin = 0;
    for (;;) {
        const std::size_t slash = path.find('/', begin);
        steps.push_back(ParseStep(path.substr(begin, slash - begin), selector));
        if (slash == std::string::npos) break;
        begin = slash + 1;
    }
    return steps;
}

bool Matches(const XmlNode& node, const Step& step) {
    if (node.GetName() != step.name) return false;
    if (step.attribute.empty()) return true;
    return XmlNode::GetAttribute(&node, step.attribute) == step.value;
}

void CollectNodes(const XmlNode& node, const std::vector<Step>& steps, std::size_t index,
                  XmlNode::NodeList& result) {
    for (XmlNode* child : node.GetChildren()) {
        if (!Matches(*child, steps[index])) continue;
        if (index + 1 < steps.size()) {
            CollectNodes(*child, steps, index + 1, result);
        } else {
            result.push_back(child);
        }
    }
}

} // namespace

XmlNode::XmlNode(XmlNode* parent, const Poco::XML::Node* domNode)
    : attributes_(new AttributeMap(10)), children_(new std::vector<XmlNode*>()) {
    if (domNode == nullptr) return;
    name_ = domNode->nodeName();
    Poco::AutoPtr<Poco::XML::NamedNodeMap> attributes = domNode->attributes();
    if (attributes) {
        for (unsigned long i = 0; i < attributes->length(); ++i) {
            Poco::XML::Node* attribute = attributes->item(i);
            (*attributes_)[attribute->nodeName()] = attribute->nodeValue();
        }
    }
    if (parent == nullptr && !domNode->namespaceURI().empty()) {
        (*attributes_)[kNamespaceKey] = domNode->namespaceURI();
    }
    for (Poco::XML::Node* child = domNode->firstChild(); child != nullptr; child = child->nextSibling()) {
        if (child->nodeType() == Poco::XML::Node::TEXT_NODE) {
            value_ = child->nodeValue();
        } else if (child->nodeType() == Poco::XML::Node::ELEMENT_NODE) {
            children_->push_back(new XmlNode(this, child));
        }
    }
}

XmlNode::XmlNode(const std::string& name)
    : name_(name), attributes_(new AttributeMap(10)), children_(new std::vector<XmlNode*>()) {}

XmlNode::~XmlNode() {
    delete attributes_;
    for (XmlNode* child : *children_) delete child;
    delete children_;
}

std::string XmlNode::GetAttribute(const XmlNode* node, const std::string& name) {
    if (node == nullptr) return std::string();
    auto found = node->attributes_->find(name);
    return found == node->attributes_->end() ? std::string() : found->second;
}

std::string XmlNode::GetChildValue(const std::string& name) const {
    for (const XmlNode* child : *children_) {
        if (child->name_ == name) return child->value_;
    }
    return std::string();
}

XmlNode* XmlNode::FindNode(const std::string& path) const {
    const std::vector<Step> steps = ParsePath(path, SingleSelector());
    const XmlNode* current = this;
    XmlNode* result = nullptr;
    for (const Step& step : steps) {
        bool matched = false;
        for (XmlNode* child : *current->children_) {
            if (!Matches(*child, step)) continue;
            // Every match becomes the result, so the last matching child wins.
            result = child;
            matched = true;
        }
        if (!matched) return nullptr;
        current = result;
    }
    return result;
}

std::shared_ptr<XmlNode::NodeList> XmlNode::FindNodes(const std::string& path) const {
    std::shared_ptr<NodeList> result = std::make_shared<NodeList>();
    const std::vector<Step> steps = ParsePath(path, MultiSelector());
    CollectNodes(*this, steps, 0, *result);
    return result;
}

std::string XmlNode::ToString() const {
    std::string text = "<" + name_;
    for (const auto& attribute : *attributes_) {
        text += " " + attribute.first + "=\"" + attribute.second + "\"";
    }
    if (children_->empty()) {
        text += ">";
        text += value_;
    } else {
        text += ">\n";
        for (const XmlNode* child : *children_) text += child->ToString();
    }
    text += "<" + name_ + "/>\n";
    return text;
}

Poco::XML::Element* XmlNode::BuildElement(Poco::XML::Document* document) const {
    Poco::XML::Element* element = document->createElement(name_);
    for (const auto& attribute : *attributes_) element->setAttribute(attribute.first, attribute.second);
    if (children_->empty()) {
        if (!value_.empty()) {
            Poco::AutoPtr<Poco::XML::Text> text = document->createTextNode(value_);
            element->appendChild(text);
        }
    } else {
        for (const XmlNode* child : *children_) {
            Poco::AutoPtr<Poco::XML::Element> childElement = child->BuildElement(document);
            element->appendChild(childElement);
        }
    }
    return element;
}

bool XmlNode::Write(const std::string& path) const {
    try {
        Poco::AutoPtr<Poco::XML::Document> document = new Poco::XML::Document();
        Poco::AutoPtr<Poco::XML::Element> root = BuildElement(document);
        document->appendChild(root);
        Poco::FileOutputStream out(path, std::ios::out | std::ios::trunc);
        Poco::XML::DOMWriter writer;
        writer.setNewLine("\n");
        // Options 6: XML declaration and pretty printing, as files written by
        // this class have always had.
        writer.setOptions(Poco::XML::XMLWriter::WRITE_XML_DECLARATION | Poco::XML::XMLWriter::PRETTY_PRINT);
        writer.writeNode(out, document);
        out.close();
        return true;
    } catch (const Poco::Exception& e) {
        LoggerLog::Error(kTag, "Write xml failed (Exception). path[" + path + "] message[" +
                                   e.displayText() + "]");
        return false;
    }
}

Poco::AutoPtr<Poco::XML::Document> XmlNode::ParseDocument(Poco::XML::DOMParser& parser, const std::string& path,
                                                         const std::string* text) {
    if (text == nullptr) return parser.parse(path);
    std::istringstream stream(*text);
    Poco::XML::InputSource source(stream);
    source.setSystemId(path);
    return parser.parse(&source);
}

} // namespace brvo
