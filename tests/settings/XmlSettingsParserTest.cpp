#include "settings/XmlSettingsParser.h"

#include "support/TestFiles.h"

#include <gtest/gtest.h>

#include <Poco/Clock.h>
#include <Poco/DOM/DOMParser.h>
#include <Poco/DOM/Element.h>
#include <Poco/Exception.h>
#include <Poco/SAX/InputSource.h>
#include <Poco/SAX/SAXException.h>

#include <sstream>
#include <string>

namespace brvo {
namespace {

const std::string kPath = test::FixedPath("/tmp/settings/Test.xml");

// The display text of what parsing `text` throws; empty when it parses.
std::string ParseFailure(const std::string& text, bool namespaces = true) {
    try {
        XmlSettingsParser::Parse(kPath, text, namespaces);
    } catch (const Poco::XML::SAXParseException& e) {
        return e.displayText();
    }
    return std::string();
}

TEST(XmlSettingsParserTest, NestingUpToTheCapIsParsed) {
    Poco::AutoPtr<Poco::XML::Document> document =
        XmlSettingsParser::Parse(kPath, test::NestedXml("a", XmlSettingsParser::kMaxDepth, "deep"), true);
    Poco::XML::Node* node = document->documentElement();
    for (int level = 1; level < XmlSettingsParser::kMaxDepth; ++level) node = node->firstChild();
    EXPECT_EQ("a", node->nodeName());
    EXPECT_EQ("deep", node->innerText());
}

TEST(XmlSettingsParserTest, OneLevelMoreIsAParseErrorNamingTheFile) {
    const std::string failure = ParseFailure(test::NestedXml("a", XmlSettingsParser::kMaxDepth + 1));
    EXPECT_NE(std::string::npos, failure.find("elements nested deeper than 64 levels")) << failure;
    EXPECT_NE(std::string::npos, failure.find(kPath)) << failure;
    EXPECT_NE(std::string::npos,
              ParseFailure(test::NestedXml("p:a", XmlSettingsParser::kMaxDepth + 1), false).find("deeper than"));
}

TEST(XmlSettingsParserTest, VeryDeepDocumentIsRefusedAtOnce) {
    const std::string deep = test::NestedXml("a", 100000);
    const Poco::Clock start;
    EXPECT_NE(std::string::npos, ParseFailure(deep).find("deeper than"));
    EXPECT_LT(start.elapsed(), 2000000 * test::TimeScale());
}

// Siblings do not add up: only the nesting counts.
TEST(XmlSettingsParserTest, ManySiblingsAtTheCapAreParsed) {
    std::string wide;
    for (int i = 0; i < 1000; ++i) wide += test::NestedXml("b", XmlSettingsParser::kMaxDepth - 1);
    EXPECT_EQ("", ParseFailure("<a>" + wide + "</a>"));
}

TEST(XmlSettingsParserTest, OtherErrorsReadAsTheDomParserReportsThem) {
    const std::string broken = "<logger>\n<general></logger>";
    std::string expected;
    try {
        Poco::XML::DOMParser parser;
        parser.setEncoding("UTF-8");
        Poco::XML::InputSource source;
        std::istringstream stream(broken);
        source.setByteStream(stream);
        source.setSystemId(kPath);
        parser.parse(&source);
    } catch (const Poco::Exception& e) {
        expected = e.displayText();
    }
    ASSERT_FALSE(expected.empty());
    EXPECT_EQ(expected, ParseFailure(broken));
}

TEST(XmlSettingsParserTest, MissingFileThrowsWhatTheParserThrows) {
    test::RemoveAll(kPath);
    std::string expected;
    try {
        Poco::XML::DOMParser().parse(kPath);
    } catch (const Poco::Exception& e) {
        expected = e.displayText();
    }
    std::string text;
    std::string reason;
    try {
        XmlSettingsParser::ReadFile(kPath, text, reason);
        ADD_FAILURE() << "no exception";
    } catch (const Poco::Exception& e) {
        EXPECT_EQ(expected, e.displayText());
    }
}

TEST(XmlSettingsParserTest, ReadRefusesWhatIsNoSettingsFile) {
    std::string text;
    std::string reason;
    test::MakeFifo(kPath);
    EXPECT_FALSE(XmlSettingsParser::ReadFile(kPath, text, reason));
    EXPECT_EQ("not a regular file", reason);
    test::RemoveAll(kPath);

    test::WriteFile(kPath, std::string(XmlSettingsParser::kMaxFileBytes + 1, ' '));
    EXPECT_FALSE(XmlSettingsParser::ReadFile(kPath, text, reason));
    EXPECT_EQ("larger than 1048576 bytes", reason);

    test::WriteFile(kPath, "<a/>" + std::string(XmlSettingsParser::kMaxFileBytes - 4, ' '));
    ASSERT_TRUE(XmlSettingsParser::ReadFile(kPath, text, reason));
    EXPECT_EQ(XmlSettingsParser::kMaxFileBytes, text.size());
    test::RemoveAll(kPath);
}

} // namespace
} // namespace brvo
