// A small in-memory element tree copied from a POCO DOM, with a path lookup
// that understands the selector syntax element[attribute:value].
#ifndef BRVO_SETTINGS_XMLNODE_H
#define BRVO_SETTINGS_XMLNODE_H

#include <cstddef>
#include <memory>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

namespace Poco {
template <class C>
class AutoPtr;
namespace XML {
class Node;
class Element;
class Document;
} // namespace XML
} // namespace Poco

namespace brvo {

class XmlNode {
public:
    typedef std::unordered_map<std::string, std::string> AttributeMap;
    typedef std::vector<XmlNode*> NodeList;

    // Copies `domNode` and its element subtree. `parent` is the node this
    // one hangs under, null for the top node of a tree; only the top node
    // records the DOM node's namespace URI, under the attribute key "xmlns".
    // Like every operation of the class it uses no recursion, so a tree of
    // any depth is built, searched, printed and freed alike.
    XmlNode(XmlNode* parent, const Poco::XML::Node* domNode);
    // An empty node with the given name.
    explicit XmlNode(const std::string& name);
    virtual ~XmlNode();

    XmlNode(const XmlNode&) = delete;
    XmlNode& operator=(const XmlNode&) = delete;

    const std::string& GetName() const { return name_; }
    const std::string& GetValue() const { return value_; }
    const AttributeMap& GetAttributes() const { return *attributes_; }
    const std::vector<XmlNode*>& GetChildren() const { return *children_; }

    // The value of attribute `name` of `node`; empty when it has none or
    // `node` is null.
    static std::string GetAttribute(const XmlNode* node, const std::string& name);
    // The value of the first direct child named `name`; empty if none.
    std::string GetChildValue(const std::string& name) const;

    // Follows `path` ("a/b[attr:value]/c") below this node, taking the last
    // matching child at each step. Null when a step matches nothing; a path
    // beginning with "/" finds nothing.
    XmlNode* FindNode(const std::string& path) const;
    // Every node that `path` reaches below this node, in document order.
    // Never null; empty when nothing matches.
    std::shared_ptr<NodeList> FindNodes(const std::string& path) const;

    // The subtree as the class's fixed XML-like text form.
    std::string ToString() const;
    // Writes the subtree as an XML file; false (and a log line) on failure,
    // also for a tree nested deeper than the settings parser admits, which
    // the POCO DOM writer could not take.
    bool Write(const std::string& path) const;

private:
    // Pending copies of the constructor: a node and the DOM node it takes.
    typedef std::vector<std::pair<XmlNode*, const Poco::XML::Node*>> PendingCopies;

    // Fills this node from `domNode` and adds an empty child for each of its
    // elements, queued in `pending` to be filled in turn.
    void CopyElement(const Poco::XML::Node* domNode, bool top, PendingCopies& pending);
    // Frees the children, node by node, then the node's own tables.
    void Release();
    // Levels of the subtree, this node being level 1.
    std::size_t Depth() const;
    Poco::XML::Element* BuildElement(Poco::XML::Document* document) const;

    std::string name_;
    AttributeMap* attributes_;
    std::string value_;
    std::vector<XmlNode*>* children_;
};

} // namespace brvo

#endif
