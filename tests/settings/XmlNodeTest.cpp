#include "settings/XmlNode.h"

#include "settings/LoggerSettingManager.h"
#include "support/SingletonTest.h"
#include "support/TestFiles.h"
#include "util/LoggerLog.h"

#include <gtest/gtest.h>

#include <Poco/AutoPtr.h>
#include <Poco/DOM/DOMParser.h>
#include <Poco/DOM/Document.h>
#include <Poco/DOM/Element.h>
#include <Poco/DOM/Text.h>
#include <Poco/SAX/XMLReader.h>

#include <memory>
#include <string>
#include <vector>

namespace brvo {
namespace {

// Parses `xml` and builds the tree from its document element.
std::unique_ptr<XmlNode> Tree(const std::string& xml, bool namespaces = true) {
    Poco::XML::DOMParser parser;
    parser.setFeature(Poco::XML::XMLReader::FEATURE_NAMESPACES, namespaces);
    parser.setFeature(Poco::XML::XMLReader::FEATURE_NAMESPACE_PREFIXES, namespaces);
    Poco::AutoPtr<Poco::XML::Document> document = parser.parseString(xml);
    return std::unique_ptr<XmlNode>(new XmlNode(nullptr, document->documentElement()));
}

// The tests that log leave no process-wide instance behind, even when one
// fails before it deletes them itself.
class XmlNodeTest : public test::SingletonTest {};

TEST_F(XmlNodeTest, FindNodeTakesLastMatchFindNodesTakesAll) {
    std::unique_ptr<XmlNode> root = Tree("<r><a><b>1</b></a><a><b>2</b></a></r>");
    XmlNode* found = root->FindNode("a/b");
    ASSERT_NE(nullptr, found);
    EXPECT_EQ("2", found->GetValue());
    std::shared_ptr<XmlNode::NodeList> all = root->FindNodes("a/b");
    ASSERT_EQ(2u, all->size());
    EXPECT_EQ("1", (*all)[0]->GetValue());
    EXPECT_EQ("2", (*all)[1]->GetValue());
}

TEST_F(XmlNodeTest, FindNodeFollowsOnlyTheLastMatchAtEachLevel) {
    // The b exists only under the first a: FindNode follows the last a and
    // finds nothing, FindNodes follows both.
    std::unique_ptr<XmlNode> root = Tree("<r><a><b>1</b></a><a/></r>");
    EXPECT_EQ(nullptr, root->FindNode("a/b"));
    EXPECT_EQ(1u, root->FindNodes("a/b")->size());
}

TEST_F(XmlNodeTest, SelectorMatchesExactAttributeValue) {
    std::unique_ptr<XmlNode> root = Tree("<r><item id=\"7\">seven</item><item>none</item><item id=\"70\">seventy</item>"
                                         "<other id=\"7\">other</other></r>");
    std::shared_ptr<XmlNode::NodeList> found = root->FindNodes("item[id:7]");
    ASSERT_EQ(1u, found->size());
    EXPECT_EQ("seven", (*found)[0]->GetValue());
    XmlNode* single = root->FindNode("item[id:7]");
    ASSERT_NE(nullptr, single);
    EXPECT_EQ("seven", single->GetValue());
    EXPECT_EQ(nullptr, root->FindNode("item[id:8]"));
    EXPECT_TRUE(root->FindNodes("item[name:7]")->empty());
}

TEST_F(XmlNodeTest, PathWithLeadingSlashFindsNothing) {
    std::unique_ptr<XmlNode> root = Tree("<r><a><b/></a></r>");
    EXPECT_EQ(nullptr, root->FindNode("/a/b"));
    EXPECT_TRUE(root->FindNodes("/a/b")->empty());
    EXPECT_EQ(nullptr, root->FindNode("a//b"));
    EXPECT_NE(nullptr, root->FindNode("a/b"));
}

TEST_F(XmlNodeTest, LookupStartsBelowTheNode) {
    std::unique_ptr<XmlNode> root = Tree("<r><a/></r>");
    EXPECT_EQ(nullptr, root->FindNode("r/a"));
    EXPECT_NE(nullptr, root->FindNode("a"));
}

TEST_F(XmlNodeTest, TextOnlyElementGetsItsText) {
    std::unique_ptr<XmlNode> root = Tree("<x>abc</x>");
    EXPECT_EQ("abc", root->GetValue());
    EXPECT_TRUE(root->GetChildren().empty());
}

TEST_F(XmlNodeTest, LastTextPieceWins) {
    std::unique_ptr<XmlNode> root = Tree("<x> <y/>  </x>");
    EXPECT_EQ("  ", root->GetValue());
    ASSERT_EQ(1u, root->GetChildren().size());
    EXPECT_EQ("y", root->GetChildren()[0]->GetName());
    EXPECT_EQ("", root->GetChildren()[0]->GetValue());
}

TEST_F(XmlNodeTest, CommentsAreSkipped) {
    std::unique_ptr<XmlNode> root = Tree("<x><!-- c --><y>1</y><?pi data?></x>");
    ASSERT_EQ(1u, root->GetChildren().size());
    EXPECT_EQ("1", root->GetChildValue("y"));
}

TEST_F(XmlNodeTest, TopNodeRecordsDefaultNamespace) {
    std::unique_ptr<XmlNode> root = Tree("<r xmlns=\"urn:example:devices\"><a><b/></a></r>");
    EXPECT_EQ("urn:example:devices", XmlNode::GetAttribute(root.get(), "xmlns"));
    const XmlNode* inner = root->FindNode("a");
    ASSERT_NE(nullptr, inner);
    EXPECT_EQ("", XmlNode::GetAttribute(inner, "xmlns"));
    EXPECT_EQ("", XmlNode::GetAttribute(root->FindNode("a/b"), "xmlns"));
}

TEST_F(XmlNodeTest, InnerNodeKeepsExplicitXmlnsAttribute) {
    // Without namespace processing the attribute is an ordinary one.
    std::unique_ptr<XmlNode> root = Tree("<r><a xmlns=\"urn:x\"/></r>", false);
    EXPECT_EQ("urn:x", XmlNode::GetAttribute(root->FindNode("a"), "xmlns"));
}

TEST_F(XmlNodeTest, PrefixedNamesKeepTheirPrefix) {
    std::unique_ptr<XmlNode> root = Tree("<lggrdev:Devices><lggrdev:VariableInfo Name=\"Other\" ValueMin=\"1\"/>"
                                         "<lggrdev:VariableInfo Name=\"Limit\" ValueMin=\"5\"/></lggrdev:Devices>",
                                         false);
    EXPECT_EQ("lggrdev:Devices", root->GetName());
    std::shared_ptr<XmlNode::NodeList> found = root->FindNodes("lggrdev:VariableInfo[Name:Limit]");
    ASSERT_EQ(1u, found->size());
    EXPECT_EQ("5", XmlNode::GetAttribute((*found)[0], "ValueMin"));
    // The single-node expression does not admit the prefix, so it matches
    // only "VariableInfo[Name:Limit]": the name keeps its prefix, but the
    // prefix also stays in front of the attribute name and value taken from
    // the same step, and no node carries an attribute "lggrdev:Name".
    EXPECT_EQ(nullptr, root->FindNode("lggrdev:VariableInfo[Name:Limit]"));
    XmlNode* plain = root->FindNode("lggrdev:VariableInfo");
    ASSERT_NE(nullptr, plain);
    EXPECT_EQ("5", XmlNode::GetAttribute(plain, "ValueMin"));
}

TEST_F(XmlNodeTest, AttributeAndChildValueLookups) {
    std::unique_ptr<XmlNode> root = Tree("<r k=\"v\"><a>1</a><a>2</a></r>");
    EXPECT_EQ("v", XmlNode::GetAttribute(root.get(), "k"));
    EXPECT_EQ("", XmlNode::GetAttribute(root.get(), "missing"));
    EXPECT_EQ("", XmlNode::GetAttribute(nullptr, "k"));
    EXPECT_EQ("1", root->GetChildValue("a"));
    EXPECT_EQ("", root->GetChildValue("b"));
    EXPECT_EQ("", XmlNode("empty").GetChildValue("a"));
}

TEST_F(XmlNodeTest, ToStringFixedForm) {
    std::unique_ptr<XmlNode> root = Tree("<r k=\"v\"><a>1</a><b/></r>");
    EXPECT_EQ("<r k=\"v\">\n<a>1<a/>\n<b><b/>\n<r/>\n", root->ToString());
}

TEST_F(XmlNodeTest, WriteProducesParsableXml) {
    std::unique_ptr<XmlNode> root = Tree("<r k=\"v\"><a>1</a><b x=\"y\"/></r>");
    ASSERT_TRUE(root->Write(test::FixedPath("/tmp/written.xml")));
    const std::string text = test::ReadFile(test::FixedPath("/tmp/written.xml"));
    EXPECT_EQ(0u, text.find("<?xml")) << text;
    std::unique_ptr<XmlNode> again = Tree(text);
    EXPECT_EQ("v", XmlNode::GetAttribute(again.get(), "k"));
    EXPECT_EQ("1", again->GetChildValue("a"));
    EXPECT_EQ("y", XmlNode::GetAttribute(again->FindNode("b"), "x"));
}

TEST_F(XmlNodeTest, WriteFailureIsLoggedAndFalse) {
    test::WriteLoggerSetting("<OutputScheduleEnableLogBufferedIO>0</OutputScheduleEnableLogBufferedIO>");
    LoggerSettingManager::CreateInstance();
    LoggerLog::CreateInstance();
    XmlNode node("r");
    EXPECT_FALSE(node.Write(test::FixedPath("/tmp/no/such/dir/out.xml")));
    LoggerLog::DeleteInstance();
    LoggerSettingManager::DeleteInstance();
    const std::string log =
        test::ReadFile(test::FixedPath("/media/sdcard/kestrovanyx/Log/OutputScheduleLog/OutputSchedule_pvocd.log"));
    const std::string text =
        "] XmlNode Write xml failed (Exception). path[" + test::FixedPath("/tmp/no/such/dir/out.xml") + "] message[";
    const std::size_t at = log.find(text);
    ASSERT_NE(std::string::npos, at) << log;
    const std::size_t lineStart = log.rfind('\n', at) == std::string::npos ? 0 : log.rfind('\n', at) + 1;
    EXPECT_NE(std::string::npos, log.substr(lineStart, at - lineStart).find(" UTC] [E] [")) << log;
}

TEST_F(XmlNodeTest, NullDomNodeGivesEmptyNode) {
    XmlNode node(nullptr, nullptr);
    EXPECT_EQ("", node.GetName());
    EXPECT_TRUE(node.GetChildren().empty());
    EXPECT_EQ(nullptr, node.FindNode("a"));
}

// --- Deep trees ----------------------------------------------------------------

// A DOM of `depth` elements named d, each inside the one before, the
// innermost holding `text`. Built from the innermost outwards with events
// suspended, since POCO checks a new child's ancestors and announces every
// insertion. The chain keeps a reference to every element: released from
// the top down, each element frees no more than itself, where the DOM's own
// release would recurse through all levels.
class DeepDom {
public:
    DeepDom(std::size_t depth, const std::string& text) : document_(new Poco::XML::Document()), chain_(depth) {
        document_->suspendEvents();
        for (std::size_t i = depth; i-- > 0;) {
            chain_[i] = document_->createElement("d");
            if (i + 1 < depth) chain_[i]->appendChild(chain_[i + 1]);
        }
        Poco::AutoPtr<Poco::XML::Text> leaf = document_->createTextNode(text);
        chain_.back()->appendChild(leaf);
        document_->appendChild(chain_.front());
    }

    ~DeepDom() {
        document_ = nullptr;
        for (Poco::AutoPtr<Poco::XML::Element>& element : chain_) element = nullptr;
    }

    const Poco::XML::Element* Top() const { return chain_.front(); }

private:
    Poco::AutoPtr<Poco::XML::Document> document_;
    std::vector<Poco::AutoPtr<Poco::XML::Element>> chain_;
};

const std::size_t kDeep = 100000;

// "d/d/.../d" of `steps` steps.
std::string ChainPath(std::size_t steps) {
    std::string path = "d";
    for (std::size_t i = 1; i < steps; ++i) path += "/d";
    return path;
}

TEST_F(XmlNodeTest, DeepTreeIsBuiltSearchedAndFreed) {
    DeepDom dom(kDeep, "bottom");
    std::unique_ptr<XmlNode> root(new XmlNode(nullptr, dom.Top()));
    const XmlNode* node = root.get();
    std::size_t levels = 1;
    while (!node->GetChildren().empty()) {
        ASSERT_EQ(1u, node->GetChildren().size());
        node = node->GetChildren().front();
        ++levels;
    }
    EXPECT_EQ(kDeep, levels);
    EXPECT_EQ("bottom", node->GetValue());

    const std::string path = ChainPath(kDeep - 1);
    std::shared_ptr<XmlNode::NodeList> found = root->FindNodes(path);
    ASSERT_EQ(1u, found->size());
    EXPECT_EQ(node, found->front());
    EXPECT_EQ(node, root->FindNode(path));
    EXPECT_TRUE(root->FindNodes(path + "/d")->empty());
    EXPECT_EQ(nullptr, root->FindNode(path + "/d"));
    root.reset();
}

TEST_F(XmlNodeTest, DeepTreeToStringKeepsTheFixedForm) {
    DeepDom dom(kDeep, "v");
    const XmlNode root(nullptr, dom.Top());
    std::string expected;
    for (std::size_t i = 1; i < kDeep; ++i) expected += "<d>\n";
    expected += "<d>v<d/>\n";
    for (std::size_t i = 1; i < kDeep; ++i) expected += "<d/>\n";
    EXPECT_TRUE(expected == root.ToString());
}

// FindNodes goes depth first: what lies under an earlier match comes
// before a later sibling, at every level.
TEST_F(XmlNodeTest, FindNodesKeepsDocumentOrderAcrossLevels) {
    std::unique_ptr<XmlNode> root =
        Tree("<r><a><b><c>1</c><c>2</c></b><b><c>3</c></b></a><x/><a><b><c>4</c></b></a></r>");
    std::shared_ptr<XmlNode::NodeList> found = root->FindNodes("a/b/c");
    ASSERT_EQ(4u, found->size());
    for (std::size_t i = 0; i < 4; ++i) EXPECT_EQ(std::to_string(i + 1), (*found)[i]->GetValue());
    EXPECT_EQ("4", root->FindNode("a/b/c")->GetValue());
}

TEST_F(XmlNodeTest, WriteTakesTreesUpToTheParserCapOnly) {
    test::WriteLoggerSetting("<OutputScheduleEnableLogBufferedIO>0</OutputScheduleEnableLogBufferedIO>");
    LoggerSettingManager::CreateInstance();
    LoggerLog::CreateInstance();
    {
        DeepDom dom(64, "v");
        ASSERT_TRUE(XmlNode(nullptr, dom.Top()).Write(test::FixedPath("/tmp/deep64.xml")));
        const std::unique_ptr<XmlNode> again = Tree(test::ReadFile(test::FixedPath("/tmp/deep64.xml")));
        EXPECT_EQ("v", again->FindNode(ChainPath(63))->GetValue());
    }
    DeepDom dom(65, "v");
    EXPECT_FALSE(XmlNode(nullptr, dom.Top()).Write(test::FixedPath("/tmp/deep65.xml")));
    EXPECT_FALSE(test::FileExists(test::FixedPath("/tmp/deep65.xml")));
    LoggerLog::DeleteInstance();
    LoggerSettingManager::DeleteInstance();
    const std::string log =
        test::ReadFile(test::FixedPath("/media/sdcard/kestrovanyx/Log/OutputScheduleLog/OutputSchedule_pvocd.log"));
    EXPECT_NE(std::string::npos,
              log.find("] XmlNode Write xml failed (Exception). path[" + test::FixedPath("/tmp/deep65.xml") +
                       "] "
                       "message[elements nested deeper than 64 levels]"))
        << log;
}

} // namespace
} // namespace brvo
