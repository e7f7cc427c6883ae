#include "settings/XmlNode.h"

#include "settings/LoggerSettingManager.h"
#include "support/TestFiles.h"
#include "util/LoggerLog.h"

#include <gtest/gtest.h>

#include <Poco/AutoPtr.h>
#include <Poco/DOM/DOMParser.h>
#include <Poco/DOM/Document.h>
#include <Poco/DOM/Element.h>
#include <Poco/SAX/XMLReader.h>

#include <memory>

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

TEST(XmlNodeTest, FindNodeTakesLastMatchFindNodesTakesAll) {
    std::unique_ptr<XmlNode> root =
        Tree("<r><a><b>1</b></a><a><b>2</b></a></r>");
    XmlNode* found = root->FindNode("a/b");
    ASSERT_NE(nullptr, found);
    EXPECT_EQ("2", found->GetValue());
    std::shared_ptr<XmlNode::NodeList> all = root->FindNodes("a/b");
    ASSERT_EQ(2u, all->size());
    EXPECT_EQ("1", (*all)[0]->GetValue());
    EXPECT_EQ("2", (*all)[1]->GetValue());
}

TEST(XmlNodeTest, FindNodeFollowsOnlyTheLastMatchAtEachLevel) {
    // The b exists only under the first a: FindNode follows the last a and
    // finds nothing, FindNodes follows both.
    std::unique_ptr<XmlNode> root = Tree("<r><a><b>1</b></a><a/></r>");
    EXPECT_EQ(nullptr, root->FindNode("a/b"));
    EXPECT_EQ(1u, root->FindNodes("a/b")->size());
}

TEST(XmlNodeTest, SelectorMatchesExactAttributeValue) {
    std::unique_ptr<XmlNode> root = Tree(
        "<r><item id=\"7\">seven</item><item>none</item><item id=\"70\">seventy</item>"
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

TEST(XmlNodeTest, PathWithLeadingSlashFindsNothing) {
    std::unique_ptr<XmlNode> root = Tree("<r><a><b/></a></r>");
    EXPECT_EQ(nullptr, root->FindNode("/a/b"));
    EXPECT_TRUE(root->FindNodes("/a/b")->empty());
    EXPECT_EQ(nullptr, root->FindNode("a//b"));
    EXPECT_NE(nullptr, root->FindNode("a/b"));
}

TEST(XmlNodeTest, LookupStartsBelowTheNode) {
    std::unique_ptr<XmlNode> root = Tree("<r><a/></r>");
    EXPECT_EQ(nullptr, root->FindNode("r/a"));
    EXPECT_NE(nullptr, root->FindNode("a"));
}

TEST(XmlNodeTest, TextOnlyElementGetsItsText) {
    std::unique_ptr<XmlNode> root = Tree("<x>abc</x>");
    EXPECT_EQ("abc", root->GetValue());
    EXPECT_TRUE(root->GetChildren().empty());
}

TEST(XmlNodeTest, LastTextPieceWins) {
    std::unique_ptr<XmlNode> root = Tree("<x> <y/>  </x>");
    EXPECT_EQ("  ", root->GetValue());
    ASSERT_EQ(1u, root->GetChildren().size());
    EXPECT_EQ("y", root->GetChildren()[0]->GetName());
    EXPECT_EQ("", root->GetChildren()[0]->GetValue());
}

TEST(XmlNodeTest, CommentsAreSkipped) {
    std::unique_ptr<XmlNode> root = Tree("<x><!-- c --><y>1</y><?pi data?></x>");
    ASSERT_EQ(1u, root->GetChildren().size());
    EXPECT_EQ("1", root->GetChildValue("y"));
}

TEST(XmlNodeTest, TopNodeRecordsDefaultNamespace) {
    std::unique_ptr<XmlNode> root =
        Tree("<r xmlns=\"urn:example:devices\"><a><b/></a></r>");
    EXPECT_EQ("urn:example:devices", XmlNode::GetAttribute(root.get(), "xmlns"));
    const XmlNode* inner = root->FindNode("a");
    ASSERT_NE(nullptr, inner);
    EXPECT_EQ("", XmlNode::GetAttribute(inner, "xmlns"));
    EXPECT_EQ("", XmlNode::GetAttribute(root->FindNode("a/b"), "xmlns"));
}

TEST(XmlNodeTest, InnerNodeKeepsExplicitXmlnsAttribute) {
    // Without namespace processing the attribute is an ordinary one.
    std::unique_ptr<XmlNode> root = Tree("<r><a xmlns=\"urn:x\"/></r>", false);
    EXPECT_EQ("urn:x", XmlNode::GetAttribute(root->FindNode("a"), "xmlns"));
}

TEST(XmlNodeTest, PrefixedNamesKeepTheirPrefix) {
    std::unique_ptr<XmlNode> root = Tree(
        "<lggrdev:Devices><lggrdev:VariableInfo Name=\"Other\" ValueMin=\"1\"/>"
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

TEST(XmlNodeTest, AttributeAndChildValueLookups) {
    std::unique_ptr<XmlNode> root = Tree("<r k=\"v\"><a>1</a><a>2</a></r>");
    EXPECT_EQ("v", XmlNode::GetAttribute(root.get(), "k"));
    EXPECT_EQ("", XmlNode::GetAttribute(root.get(), "missing"));
    EXPECT_EQ("", XmlNode::GetAttribute(nullptr, "k"));
    EXPECT_EQ("1", root->GetChildValue("a"));
    EXPECT_EQ("", root->GetChildValue("b"));
    EXPECT_EQ("", XmlNode("empty").GetChildValue("a"));
}

TEST(XmlNodeTest, ToStringFixedForm) {
    std::unique_ptr<XmlNode> root = Tree("<r k=\"v\"><a>1</a><b/></r>");
    EXPECT_EQ("<r k=\"v\">\n<a>1<a/>\n<b><b/>\n<r/>\n", root->ToString());
}

TEST(XmlNodeTest, WriteProducesParsableXml) {
    std::unique_ptr<XmlNode> root = Tree("<r k=\"v\"><a>1</a><b x=\"y\"/></r>");
    ASSERT_TRUE(root->Write("/tmp/written.xml"));
    const std::string text = test::ReadFile("/tmp/written.xml");
    EXPECT_EQ(0u, text.find("<?xml")) << text;
    std::unique_ptr<XmlNode> again = Tree(text);
    EXPECT_EQ("v", XmlNode::GetAttribute(again.get(), "k"));
    EXPECT_EQ("1", again->GetChildValue("a"));
    EXPECT_EQ("y", XmlNode::GetAttribute(again->FindNode("b"), "x"));
}

TEST(XmlNodeTest, WriteFailureIsLoggedAndFalse) {
    test::WriteLoggerSetting("<OutputScheduleEnableLogBufferedIO>0</OutputScheduleEnableLogBufferedIO>");
    LoggerSettingManager::CreateInstance();
    LoggerLog::CreateInstance();
    XmlNode node("r");
    EXPECT_FALSE(node.Write("/tmp/no/such/dir/out.xml"));
    LoggerLog::DeleteInstance();
    LoggerSettingManager::DeleteInstance();
    const std::string log =
        test::ReadFile("/media/sdcard/kestrovanyx/Log/OutputScheduleLog/OutputSchedule_pvocd.log");
    const std::string text =
        "] XmlNode Write xml failed (Exception). path[/tmp/no/such/dir/out.xml] message[";
    const std::size_t at = log.find(text);
    ASSERT_NE(std::string::npos, at) << log;
    const std::size_t lineStart = log.rfind('\n', at) == std::string::npos ? 0 : log.rfind('\n', at) + 1;
    EXPECT_NE(std::string::npos, log.substr(lineStart, at - lineStart).find(" UTC] [E] [")) << log;
}

TEST(XmlNodeTest, NullDomNodeGivesEmptyNode) {
    XmlNode node(nullptr, nullptr);
    EXPECT_EQ("", node.GetName());
    EXPECT_TRUE(node.GetChildren().empty());
    EXPECT_EQ(nullptr, node.FindNode("a"));
}

} // namespace
} // namespace brvo
