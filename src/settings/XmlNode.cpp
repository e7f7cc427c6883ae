#include "settings/XmlNode.h"

#include "settings/XmlSettingsParser.h"
#include "util/LoggerLog.h"

#include <Poco/AutoPtr.h>
#include <Poco/DOM/DOMWriter.h>
#include <Poco/DOM/Document.h>
#include <Poco/DOM/Element.h>
#include <Poco/DOM/NamedNodeMap.h>
#include <Poco/DOM/Node.h>
#include <Poco/DOM/NodeList.h>
#include <Poco/DOM/Text.h>
#include <Poco/Exception.h>
#include <Poco/FileStream.h>
#include <Poco/StringTokenizer.h>
#include <Poco/XML/XMLWriter.h>

#include <algorithm>
#include <regex>

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

// One level of a FindNodes walk: the node whose children are scanned for
// path step `step`, and the next child to look at.
struct Walk {
    const XmlNode* node;
    std::size_t step;
    std::size_t next;
};

// One level of a ToString or Depth walk: a node and its next child.
typedef std::vector<std::pair<const XmlNode*, std::size_t>> Descent;

// "<" + name, the attributes, and ">" with the value or a line feed.
void AppendStart(const XmlNode& node, std::string& text) {
    text += "<" + node.GetName();
    for (const auto& attribute : node.GetAttributes()) {
        text += " " + attribute.first + "=\"" + attribute.second + "\"";
    }
    if (node.GetChildren().empty()) {
        text += ">";
        text += node.GetValue();
    } else {
        text += ">\n";
    }
}

// The closing mark, an empty-element mark carrying the name.
void AppendEnd(const XmlNode& node, std::string& text) {
    text += "<" + node.GetName() + "/>\n";
}

// An element with the node's name and attributes, holding its value as
// text when it has no children.
Poco::AutoPtr<Poco::XML::Element> CreateElement(Poco::XML::Document* document, const XmlNode& node) {
    Poco::AutoPtr<Poco::XML::Element> element = document->createElement(node.GetName());
    for (const auto& attribute : node.GetAttributes()) element->setAttribute(attribute.first, attribute.second);
    if (node.GetChildren().empty() && !node.GetValue().empty()) {
        Poco::AutoPtr<Poco::XML::Text> text = document->createTextNode(node.GetValue());
        element->appendChild(text);
    }
    return element;
}

} // namespace

XmlNode::XmlNode(XmlNode* parent, const Poco::XML::Node* domNode)
    : attributes_(new AttributeMap(10)), children_(new std::vector<XmlNode*>()) {
    if (domNode == nullptr) return;
    try {
        PendingCopies pending;
        CopyElement(domNode, parent == nullptr, pending);
        while (!pending.empty()) {
            const PendingCopies::value_type copy = pending.back();
            pending.pop_back();
            copy.first->CopyElement(copy.second, false, pending);
        }
    } catch (...) {
        Release();
        throw;
    }
}

XmlNode::XmlNode(const std::string& name)
    : name_(name), attributes_(new AttributeMap(10)), children_(new std::vector<XmlNode*>()) {}

XmlNode::~XmlNode() {
    Release();
}

void XmlNode::CopyElement(const Poco::XML::Node* domNode, bool top, PendingCopies& pending) {
    name_ = domNode->nodeName();
    Poco::AutoPtr<Poco::XML::NamedNodeMap> attributes = domNode->attributes();
    if (attributes) {
        for (unsigned long i = 0; i < attributes->length(); ++i) {
            Poco::XML::Node* attribute = attributes->item(i);
            (*attributes_)[attribute->nodeName()] = attribute->nodeValue();
        }
    }
    if (top && !domNode->namespaceURI().empty()) (*attributes_)[kNamespaceKey] = domNode->namespaceURI();
    for (Poco::XML::Node* child = domNode->firstChild(); child != nullptr; child = child->nextSibling()) {
        if (child->nodeType() == Poco::XML::Node::TEXT_NODE) {
            value_ = child->nodeValue();
        } else if (child->nodeType() == Poco::XML::Node::ELEMENT_NODE) {
            std::unique_ptr<XmlNode> node(new XmlNode(std::string()));
            children_->push_back(node.get());
            XmlNode* added = node.release();
            pending.emplace_back(added, child);
        }
    }
}

// A node's children are moved onto the list before it is deleted, so
// that its own destructor finds none: the tree is freed without recursion.
void XmlNode::Release() {
    std::vector<XmlNode*> pending;
    pending.swap(*children_);
    while (!pending.empty()) {
        XmlNode* node = pending.back();
        pending.pop_back();
        pending.insert(pending.end(), node->children_->begin(), node->children_->end());
        node->children_->clear();
        delete node;
    }
    delete attributes_;
    delete children_;
    attributes_ = nullptr;
    children_ = nullptr;
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

// Depth-first over the matching children, in document order: a child that
// matches the last step is a result, one that matches an earlier step is
// searched for the next step before its later siblings are looked at.
std::shared_ptr<XmlNode::NodeList> XmlNode::FindNodes(const std::string& path) const {
    std::shared_ptr<NodeList> result = std::make_shared<NodeList>();
    const std::vector<Step> steps = ParsePath(path, MultiSelector());
    std::vector<Walk> walks{{this, 0, 0}};
    while (!walks.empty()) {
        Walk& walk = walks.back();
        if (walk.next == walk.node->children_->size()) {
            walks.pop_back();
            continue;
        }
        XmlNode* child = (*walk.node->children_)[walk.next++];
        const std::size_t step = walk.step;
        if (!Matches(*child, steps[step])) continue;
        if (step + 1 < steps.size()) {
            walks.push_back(Walk{child, step + 1, 0});
        } else {
            result->push_back(child);
        }
    }
    return result;
}

std::string XmlNode::ToString() const {
    std::string text;
    AppendStart(*this, text);
    Descent descent{{this, 0}};
    while (!descent.empty()) {
        const XmlNode* node = descent.back().first;
        const std::size_t next = descent.back().second++;
        if (next < node->children_->size()) {
            const XmlNode* child = (*node->children_)[next];
            AppendStart(*child, text);
            descent.emplace_back(child, 0);
        } else {
            AppendEnd(*node, text);
            descent.pop_back();
        }
    }
    return text;
}

std::size_t XmlNode::Depth() const {
    std::size_t deepest = 0;
    Descent descent{{this, 0}};
    while (!descent.empty()) {
        deepest = std::max(deepest, descent.size());
        const XmlNode* node = descent.back().first;
        const std::size_t next = descent.back().second++;
        if (next < node->children_->size()) {
            descent.emplace_back((*node->children_)[next], 0);
        } else {
            descent.pop_back();
        }
    }
    return deepest;
}

// The element of this node with the elements of its subtree, built level
// by level from a list of elements still to be filled with children.
Poco::XML::Element* XmlNode::BuildElement(Poco::XML::Document* document) const {
    Poco::AutoPtr<Poco::XML::Element> root = CreateElement(document, *this);
    std::vector<std::pair<const XmlNode*, Poco::XML::Element*>> pending{{this, root.get()}};
    while (!pending.empty()) {
        const XmlNode* node = pending.back().first;
        Poco::XML::Element* element = pending.back().second;
        pending.pop_back();
        for (const XmlNode* child : *node->children_) {
            Poco::AutoPtr<Poco::XML::Element> childElement = CreateElement(document, *child);
            element->appendChild(childElement);
            pending.emplace_back(child, childElement.get());
        }
    }
    return root.duplicate();
}

bool XmlNode::Write(const std::string& path) const {
    // The POCO DOM is written and released recursively: no deeper tree
    // than a settings file may hold goes into it.
    if (Depth() > static_cast<std::size_t>(XmlSettingsParser::kMaxDepth)) {
        LoggerLog::Error(kTag, "Write xml failed (Exception). path[" + path + "] message[elements nested deeper than " +
                                   std::to_string(XmlSettingsParser::kMaxDepth) + " levels]");
        return false;
    }
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
        LoggerLog::Error(kTag, "Write xml failed (Exception). path[" + path + "] message[" + e.displayText() + "]");
        return false;
    }
}

} // namespace brvo
