// The depth and size checks that run before the host's parsers: the depth
// they count is the parser's own, also where quotes, comments and names
// could make a simpler scan lose count.
#include "host/document_limits.h"

#include <gtest/gtest.h>

#include <boost/property_tree/ptree.hpp>
#include <boost/property_tree/xml_parser.hpp>
#include <sstream>
#include <string>

namespace {

namespace pt = boost::property_tree;
using kxdoc::CheckJsonLimits;
using kxdoc::CheckXmlLimits;
using kxdoc::DocumentLimitError;
using kxdoc::DocumentLimits;

std::string Repeat(const std::string& text, std::size_t n) {
  std::string out;
  for (std::size_t i = 0; i < n; ++i) out += text;
  return out;
}

// The deepest element nesting of a parsed tree, attributes not counted.
std::size_t TreeDepth(const pt::ptree& tree) {
  std::size_t deepest = 0;
  for (const auto& child : tree) {
    // The parser's own keys; an element may be named "<x" all the same.
    if (child.first == "<xmlattr>" || child.first == "<xmlcomment>" ||
        child.first == "<xmltext>") {
      continue;
    }
    deepest = std::max(deepest, 1 + TreeDepth(child.second));
  }
  return deepest;
}

std::size_t ParsedXmlDepth(const std::string& text) {
  pt::ptree tree;
  std::istringstream in(text);
  pt::read_xml(in, tree, pt::xml_parser::no_comments);
  return TreeDepth(tree);
}

bool XmlWithin(const std::string& text, std::size_t depth) {
  try {
    CheckXmlLimits(text, DocumentLimits{1 << 20, depth});
    return true;
  } catch (const DocumentLimitError&) {
    return false;
  }
}

TEST(DocumentLimits, TheXmlDepthCountedIsTheParsersDepth) {
  // Each text is parsed by the host's parser; the check must accept it at
  // exactly the parsed depth and refuse it one level below.
  const std::string texts[] = {
      "<a/>",
      "<a><b/><b/><b/></a>",
      "<a>" + Repeat("<b>", 10) + Repeat("</b>", 10) + "</a>",
      // A quote inside an element name is part of the name, not a value.
      "<a\"b>" + Repeat("<c>", 12) + Repeat("</c>", 12) + "</a\"b>",
      "<a=\"x>" + Repeat("<c>", 7) + Repeat("</c>", 7) + "</a=\"x>",
      // '/>' and '<' inside attribute values do not close or open.
      "<a v=\"/>\">" + Repeat("<b w='<c>' x=\"/>\">", 5) + Repeat("</b>", 5) +
          "</a>",
      // Markup inside comments, CDATA, instructions and the doctype.
      "<?xml version=\"1.0\"?><!DOCTYPE a [<!ELEMENT a ANY><!-- > -->]>"
      "<a><!-- <b><b><b> --><![CDATA[<b><b>]]><?pi <b><b> ?><c><d/></c></a>",
      "<a>text &lt; <b>more</b> tail</a>",
      // A NUL byte after the root ends the document for the parser.
      std::string("<r><c/></r>") + '\0' + "<b><b><b><b>",
  };
  for (const auto& text : texts) {
    const std::size_t depth = ParsedXmlDepth(text);
    EXPECT_TRUE(XmlWithin(text, depth)) << text;
    EXPECT_FALSE(XmlWithin(text, depth - 1)) << text;
  }
}

TEST(DocumentLimits, AQuoteInANameCannotHideNesting) {
  // Read as the start of an attribute value, the quote would swallow every
  // element after it; the parser builds them all.
  const std::string text = "<a\"b>" + Repeat("<c>", 100);
  EXPECT_FALSE(XmlWithin(text, 64));
}

TEST(DocumentLimits, SiblingsAndSelfClosedElementsDoNotAddUp) {
  const std::string text =
      "<r>" + Repeat("<e/>", 10000) + Repeat("<f>x</f>", 10000) + "</r>";
  EXPECT_TRUE(XmlWithin(text, 2));
}

TEST(DocumentLimits, TooDeepXmlIsRefusedNamingTheLimit) {
  const std::string text = Repeat("<a>", 100000) + Repeat("</a>", 100000);
  try {
    CheckXmlLimits(text, kxdoc::kHostDocumentLimits);
    FAIL() << "accepted";
  } catch (const DocumentLimitError& e) {
    EXPECT_STREQ(e.what(), "the document is nested deeper than 64 levels");
  }
}

TEST(DocumentLimits, TooLargeTextIsRefusedNamingTheLimit) {
  const std::string text = "<a>" + std::string(100, 'x') + "</a>";
  EXPECT_THROW(CheckXmlLimits(text, DocumentLimits{64, 64}),
               DocumentLimitError);
  EXPECT_THROW(CheckJsonLimits("\"" + std::string(100, 'x') + "\"",
                               DocumentLimits{64, 64}),
               DocumentLimitError);
  EXPECT_NO_THROW(CheckXmlLimits(text, DocumentLimits{text.size(), 64}));
}

TEST(DocumentLimits, JsonDepthCountsObjectsAndArraysOutsideStrings) {
  const DocumentLimits two{1 << 20, 2};
  EXPECT_NO_THROW(CheckJsonLimits(R"({"a":[1,2],"b":{"c":3}})", two));
  EXPECT_THROW(CheckJsonLimits(R"({"a":[[1]]})", two), DocumentLimitError);
  // Brackets inside strings, escaped quotes among them, are text.
  EXPECT_NO_THROW(CheckJsonLimits(R"({"a":"[[[{{{\"[[[","b":[1]})", two));
  EXPECT_THROW(CheckJsonLimits(R"({"a":"\\",  "b":[[1]]})", two),
               DocumentLimitError);
  EXPECT_THROW(CheckJsonLimits(Repeat("[", 100000), kxdoc::kHostDocumentLimits),
               DocumentLimitError);
}

TEST(DocumentLimits, ReadingStopsAtTheSizeLimit) {
  std::istringstream small(std::string(1000, 'x'));
  EXPECT_EQ(kxdoc::ReadLimited(small, 1000).size(), 1000u);
  std::istringstream large(std::string(200000, 'x'));
  EXPECT_THROW(kxdoc::ReadLimited(large, 100000), DocumentLimitError);
}

TEST(DocumentLimits, ParseJsonReadsWhatIsWithinTheLimits) {
  const auto tree = kxdoc::ParseJson(R"({"policies":[{"name":"n"}]})",
                                     kxdoc::kHostDocumentLimits);
  EXPECT_EQ(tree.get_child("policies").begin()->second.get<std::string>("name"),
            "n");
  EXPECT_THROW(kxdoc::ParseJson(Repeat("[", 70) + Repeat("]", 70),
                                kxdoc::kHostDocumentLimits),
               DocumentLimitError);
}

}  // namespace
