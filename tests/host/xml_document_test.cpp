// The request and reply documents of the stand-alone host.
#include "lib/xml_document.h"

#include <gtest/gtest.h>

#include <boost/property_tree/xml_parser.hpp>

#include <cstdint>
#include <cstring>
#include <memory>
#include <random>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "host/ixml.h"
#include "host/utf8_text.h"
#include "ixml_add_array.h"

namespace {

using kxhost::ParseXml;

std::string Take(char* text) {
  std::unique_ptr<char[]> owned(text);
  return owned ? std::string(owned.get()) : std::string("<null>");
}

TEST(XmlDocument, CommandIsTheRootsCommandAttribute) {
  auto doc = ParseXml(R"(<request command="get" whitelist="1"/>)");
  EXPECT_EQ(Take(doc->GetCommand()), "get");
  EXPECT_EQ(doc->Name(), "request");
}

std::string RefusalOf(const std::string& text) {
  try {
    ParseXml(text);
  } catch (const std::runtime_error& e) {
    return e.what();
  }
  return "<parsed>";
}

TEST(XmlDocument, AControlCharacterInAValueRefusesTheDocument) {
  EXPECT_EQ(
      RefusalOf(
          R"(<request command="add"><rule name="evil&#0;../x"/></request>)"),
      "malformed XML: character U+0000 in the attribute 'name' of <rule>");
  EXPECT_EQ(RefusalOf("<request><u>a&#1;b</u></request>"),
            "malformed XML: character U+0001 in the text of <u>");
  EXPECT_EQ(RefusalOf("<request><deep><u>\x1b[0m</u></deep></request>"),
            "malformed XML: character U+001B in the text of <u>");
  EXPECT_EQ(RefusalOf("<request command=\"a\x7f\x01\"/>"),
            "malformed XML: character U+0001 in the attribute 'command' of "
            "<request>");
  // Tab, line feed and carriage return are characters of XML text.
  auto doc = ParseXml("<request name=\"a&#9;b\"><u>a&#10;b&#13;</u></request>");
  EXPECT_EQ(Take(doc->GetAttribute("name")), "a\tb");
  EXPECT_EQ(Take(doc->GetParam("u")), "a\nb\r");
}

TEST(XmlDocument, MissingCommandIsNull) {
  auto doc = ParseXml("<request><command>get</command></request>");
  EXPECT_EQ(doc->GetCommand(), nullptr);
}

TEST(XmlDocument, AttributePresentAndAbsent) {
  auto doc = ParseXml(R"(<request command="get" whitelist="1" name=""/>)");
  EXPECT_EQ(Take(doc->GetAttribute("whitelist")), "1");
  EXPECT_EQ(Take(doc->GetAttribute("name")), "");
  EXPECT_EQ(doc->GetAttribute("rule_resource"), nullptr);
}

TEST(XmlDocument, AttributesAreNotChildElements) {
  auto doc = ParseXml(R"(<request command="get"><rule>r</rule></request>)");
  EXPECT_EQ(doc->GetParam("command"), nullptr);
  EXPECT_EQ(doc->GetParam("<xmlattr>"), nullptr);
  EXPECT_EQ(doc->ChildNames(), std::vector<std::string>{"rule"});
  EXPECT_FALSE(doc->HasChild("<xmlattr>"));
  EXPECT_EQ(doc->CountChildren("<xmlattr>"), 0u);
}

TEST(XmlDocument, ParamPresentEmptyAndAbsent) {
  auto doc = ParseXml(
      "<request command=\"reset_policies\"><source>dorvi</source>"
      "<empty></empty><short/></request>");
  EXPECT_EQ(Take(doc->GetParam("source")), "dorvi");
  EXPECT_EQ(Take(doc->GetParam("empty")), "");
  EXPECT_EQ(Take(doc->GetParam("short")), "");
  EXPECT_EQ(doc->GetParam("absent"), nullptr);
}

TEST(XmlDocument, ParamIsTheFirstOfRepeatedElements) {
  auto doc = ParseXml("<r><u>alice</u><u>bob</u></r>");
  EXPECT_EQ(Take(doc->GetParam("u")), "alice");
}

TEST(XmlDocument, ArrayKeepsDocumentOrder) {
  auto doc = ParseXml(
      "<request command=\"add\"><u>zed</u><r>/bin/a</r><u>alice</u>"
      "<u>mike</u></request>");
  EXPECT_EQ(doc->GetArray("u"),
            (std::vector<std::string>{"zed", "alice", "mike"}));
  EXPECT_EQ(doc->GetArray("r"), std::vector<std::string>{"/bin/a"});
  EXPECT_TRUE(doc->GetArray("g").empty());
}

TEST(XmlDocument, WhitespaceOnlyTextIsLayout) {
  auto doc = ParseXml(
      "<request command=\"add\">\n  <rule name=\"r1\">\n    <u> alice </u>\n"
      "  </rule>\n  <empty>   </empty>\n</request>\n");
  EXPECT_EQ(doc->GetText(), "");
  EXPECT_EQ(Take(doc->GetParam("empty")), "");
  auto rule = doc->GetNode("rule");
  ASSERT_TRUE(rule);
  EXPECT_EQ(rule->GetText(), "");
  // Text that is more than white space is kept as written.
  EXPECT_EQ(Take(rule->GetParam("u")), " alice ");
}

TEST(XmlDocument, NestedNodesAreDocumentsOfTheirOwn) {
  auto doc = ParseXml(
      "<request command=\"edit\"><rule name=\"r1\" state=\"0\" rename=\"r2\">"
      "<remove><u>alice</u><g>staff</g></remove></rule></request>");
  auto rule = doc->GetNode("rule");
  ASSERT_TRUE(rule);
  EXPECT_EQ(rule->Name(), "rule");
  EXPECT_EQ(Take(rule->GetAttribute("rename")), "r2");
  auto remove = rule->GetNode("remove");
  ASSERT_TRUE(remove);
  EXPECT_EQ(remove->GetArray("u"), std::vector<std::string>{"alice"});
  EXPECT_EQ(remove->GetArray("g"), std::vector<std::string>{"staff"});
  EXPECT_FALSE(rule->GetNode("add"));
}

TEST(XmlDocument, GetNodeReturnsACopy) {
  auto doc = ParseXml("<r><rule><u>alice</u></rule></r>");
  auto rule = doc->GetNode("rule");
  rule->AddValue("u", "bob", true);
  rule->SetAttribute("name", "x");
  EXPECT_EQ(doc->GetNode("rule")->GetArray("u"),
            std::vector<std::string>{"alice"});
  EXPECT_EQ(doc->GetNode("rule")->GetAttribute("name"), nullptr);
}

TEST(XmlDocument, GetNodesListsEveryElementOfThatName) {
  auto doc = ParseXml(
      "<p><policy name=\"a\"/><other/><policy name=\"b\"/></p>");
  auto nodes = doc->GetNodes("policy");
  ASSERT_EQ(nodes.size(), 2u);
  EXPECT_EQ(Take(nodes[0]->GetAttribute("name")), "a");
  EXPECT_EQ(Take(nodes[1]->GetAttribute("name")), "b");
  EXPECT_EQ(doc->CountChildren("policy"), 2u);
  EXPECT_EQ(doc->ChildNames(),
            (std::vector<std::string>{"policy", "other", "policy"}));
}

TEST(XmlDocument, AddValueWithoutFlagReplacesTheFirstChild) {
  auto doc = XMLParserBoost::CreateEmptyXML();
  doc->AddValue("result", "0", false);
  doc->AddValue("result", "1", false);
  EXPECT_EQ(doc->CountChildren("result"), 1u);
  EXPECT_EQ(Take(doc->GetParam("result")), "1");
}

TEST(XmlDocument, AddValueWithFlagAppends) {
  auto doc = XMLParserBoost::CreateEmptyXML();
  doc->AddValue("u", "a", true);
  doc->AddValue("u", "b", true);
  doc->AddValue("u", "a", true);
  EXPECT_EQ(doc->GetArray("u"), (std::vector<std::string>{"a", "b", "a"}));
}

TEST(XmlDocument, NamesWithDotsAreNotPaths) {
  auto doc = XMLParserBoost::CreateEmptyXML();
  doc->AddValue("a.b", "1", false);
  EXPECT_EQ(doc->ChildNames(), std::vector<std::string>{"a.b"});
  EXPECT_EQ(Take(doc->GetParam("a.b")), "1");
  EXPECT_EQ(doc->GetParam("a"), nullptr);
}

TEST(XmlDocument, AddNodeAttachesTheChildsContentUnderTheGivenName) {
  auto reply = XMLParserBoost::CreateEmptyXML();
  auto result = XMLParserBoost::CreateEmptyXML();
  result->AddValue("result", "1", false);
  result->SetAttribute("kind", "x");
  reply->AddNode("get", result, false);
  auto get = reply->GetNode("get");
  ASSERT_TRUE(get);
  EXPECT_EQ(Take(get->GetParam("result")), "1");
  EXPECT_EQ(Take(get->GetAttribute("kind")), "x");
  // Attached by value: later changes to the child are not seen.
  result->AddValue("result", "0", false);
  EXPECT_EQ(Take(reply->GetNode("get")->GetParam("result")), "1");
}

TEST(XmlDocument, AddNodeOfAHandedOverChildGivesTheSameDocument) {
  auto kept = XMLParserBoost::CreateEmptyXML();
  auto handed = XMLParserBoost::CreateEmptyXML();
  for (auto* doc : {&kept, &handed}) {
    (*doc)->AddValue("u", "alice", true);
    (*doc)->AddValue("u", "bob", true);
    auto inner = XMLParserBoost::CreateEmptyXML();
    inner->AddValue("r", "/bin/ls", false);
    (*doc)->AddNode("rule", inner, true);
  }
  auto by_copy = XMLParserBoost::CreateEmptyXML();
  auto by_hand_over = XMLParserBoost::CreateEmptyXML();
  by_copy->AddNode("get", kept, true);
  // The only reference goes with the call: the host may take it over.
  by_hand_over->AddNode("get", std::move(handed), true);
  EXPECT_EQ(by_hand_over->ToString("reply"), by_copy->ToString("reply"));
  // The kept child is untouched by the copy.
  EXPECT_EQ(kept->CountChildren("u"), 2u);
}

TEST(XmlDocument, AddNodeWithoutFlagReplacesWithFlagAppends) {
  auto reply = XMLParserBoost::CreateEmptyXML();
  auto first = XMLParserBoost::CreateEmptyXML();
  first->AddValue("n", "1", false);
  auto second = XMLParserBoost::CreateEmptyXML();
  second->AddValue("n", "2", false);
  reply->AddNode("rule", first, false);
  reply->AddNode("rule", second, false);
  ASSERT_EQ(reply->CountChildren("rule"), 1u);
  EXPECT_EQ(Take(reply->GetNode("rule")->GetParam("n")), "2");
  reply->AddNode("rule", first, true);
  auto rules = reply->GetNodes("rule");
  ASSERT_EQ(rules.size(), 2u);
  EXPECT_EQ(Take(rules[0]->GetParam("n")), "2");
  EXPECT_EQ(Take(rules[1]->GetParam("n")), "1");
}

TEST(XmlDocument, AddNodeOfAnEmptyPointerAddsNothing) {
  auto reply = XMLParserBoost::CreateEmptyXML();
  reply->AddNode("x", boost::shared_ptr<IXml>(), true);
  EXPECT_TRUE(reply->ChildNames().empty());
}

TEST(XmlDocument, EmptyDocumentIsEmpty) {
  auto doc = XMLParserBoost::CreateEmptyXML();
  ASSERT_TRUE(doc);
  EXPECT_EQ(doc->Name(), "");
  EXPECT_EQ(doc->GetText(), "");
  EXPECT_TRUE(doc->ChildNames().empty());
  EXPECT_EQ(doc->GetCommand(), nullptr);
}

TEST(XmlDocument, ReplyPrintsAsReplyElement) {
  auto reply = XMLParserBoost::CreateEmptyXML();
  auto result = XMLParserBoost::CreateEmptyXML();
  result->AddValue("result", "0", false);
  result->AddValue("error_desc", "a <b> & c", false);
  reply->AddNode("add", result, true);
  EXPECT_EQ(reply->ToString("reply"),
            "<reply>\n"
            "  <add>\n"
            "    <result>0</result>\n"
            "    <error_desc>a &lt;b&gt; &amp; c</error_desc>\n"
            "  </add>\n"
            "</reply>\n");
}

TEST(XmlDocument, EmptyReplyPrintsAsOneElement) {
  EXPECT_EQ(XMLParserBoost::CreateEmptyXML()->ToString("reply"), "<reply/>\n");
}

TEST(XmlDocument, ToStringUsesTheOwnNameWhenNoRootIsGiven) {
  auto doc = ParseXml(R"(<request command="log"><execfile>/bin/x</execfile></request>)");
  const std::string text = doc->ToString("");
  EXPECT_EQ(text.compare(0, 25, "<request command=\"log\">\n "), 0) << text;
  // A nameless document still prints as one element.
  EXPECT_EQ(XMLParserBoost::CreateEmptyXML()->ToString(""), "<document/>\n");
}

TEST(XmlDocument, PrintedDocumentParsesBackToTheSameContent) {
  auto doc = ParseXml(
      "<request command=\"add\"><rule name=\"r1\" recursive=\"1\">"
      "<u>alice</u><u>bob</u><r>/usr/bin/make</r></rule></request>");
  auto again = ParseXml(doc->ToString(""));
  EXPECT_EQ(kxhost::TreeOf(*again), kxhost::TreeOf(*doc));
}

TEST(XmlDocument, CloneIsDeep) {
  auto doc = ParseXml("<r command=\"x\"><a>1</a></r>");
  auto copy = doc->Clone();
  copy->AddValue("a", "2", false);
  copy->SetCommand("y");
  EXPECT_EQ(Take(doc->GetParam("a")), "1");
  EXPECT_EQ(Take(doc->GetCommand()), "x");
  EXPECT_EQ(Take(copy->GetCommand()), "y");
  EXPECT_EQ(copy->Name(), "r");
}

TEST(XmlDocument, SetTextAndHasChild) {
  auto doc = XMLParserBoost::CreateEmptyXML();
  doc->SetText("hello");
  EXPECT_EQ(doc->GetText(), "hello");
  EXPECT_FALSE(doc->HasChild("x"));
  doc->AddValue("x", "", false);
  EXPECT_TRUE(doc->HasChild("x"));
}

TEST(ParseXml, MalformedTextIsRejectedWithTheLine) {
  try {
    ParseXml("<request command=\"get\">\n<rule>\n</request>");
    FAIL() << "no exception";
  } catch (const std::runtime_error& e) {
    EXPECT_NE(std::string(e.what()).find("line"), std::string::npos) << e.what();
  }
}

TEST(ParseXml, MoreThanOneRootIsRejected) {
  EXPECT_THROW(ParseXml("<a/><b/>"), std::runtime_error);
}

TEST(ParseXml, NoElementIsRejected) {
  EXPECT_THROW(ParseXml(""), std::runtime_error);
  EXPECT_THROW(ParseXml("<!-- only a comment -->"), std::runtime_error);
}

TEST(ParseXml, DeclarationAndCommentsAreAccepted) {
  auto doc = ParseXml(
      "<?xml version=\"1.0\"?>\n<!-- c --><request command=\"reload\">"
      "<!-- inside --></request>");
  EXPECT_EQ(Take(doc->GetCommand()), "reload");
  EXPECT_TRUE(doc->ChildNames().empty());
}

// A document that some other code made: the host cannot read its tree.
class ForeignXml : public IXml {
 public:
  void AddValue(const std::string&, const std::string&, bool) override {}
  void AddNode(const std::string&, boost::shared_ptr<IXml>, bool) override {}
  void SetAttribute(const std::string&, const std::string&) override {}
  void SetText(const std::string&) override {}
  std::string GetText() const override { return ""; }
  std::string Name() const override { return "foreign"; }
  char* GetCommand() override { return nullptr; }
  void SetCommand(const std::string&) override {}
  bool HasChild(const std::string&) const override { return false; }
  std::size_t CountChildren(const std::string&) const override { return 0; }
  std::vector<std::string> ChildNames() const override { return {}; }
  std::string ToString(const std::string&) const override { return ""; }
  boost::shared_ptr<IXml> Clone() const override { return {}; }
  char* GetParam(const std::string&) override { return nullptr; }
  char* GetAttribute(const std::string&) override { return nullptr; }
  std::vector<boost::shared_ptr<IXml>> GetNodes(
      const std::string&) const override {
    return {};
  }
  boost::shared_ptr<IXml> GetNode(const std::string&) override { return {}; }
};

TEST(TreeOf, RefusesADocumentOfAnotherType) {
  ForeignXml foreign;
  EXPECT_THROW(kxhost::TreeOf(foreign), std::logic_error);
  auto doc = XMLParserBoost::CreateEmptyXML();
  EXPECT_NO_THROW(kxhost::TreeOf(*doc));
}

// AddArray is the plug-in's member template; these are the host contract's
// promises about how it meets the document.
TEST(AddArray, EmptyContainerAddsNothing) {
  auto doc = XMLParserBoost::CreateEmptyXML();
  doc->AddArray(std::vector<std::string>{}, "u");
  doc->AddArray(std::set<std::string>{}, "g");
  EXPECT_TRUE(doc->ChildNames().empty());
  EXPECT_EQ(doc->ToString("reply"), "<reply/>\n");
}

TEST(AddArray, SetIsWrittenInAscendingByteOrder) {
  auto doc = XMLParserBoost::CreateEmptyXML();
  doc->AddArray(std::set<std::string>{"b", "B", "a", "_x", "aa"}, "u");
  EXPECT_EQ(doc->GetArray("u"),
            (std::vector<std::string>{"B", "_x", "a", "aa", "b"}));
}

TEST(AddArray, VectorKeepsItsOrderAndDuplicates) {
  auto doc = XMLParserBoost::CreateEmptyXML();
  doc->AddArray(std::vector<std::string>{"z", "a", "z"}, "r");
  EXPECT_EQ(doc->GetArray("r"), (std::vector<std::string>{"z", "a", "z"}));
}

// On the Itanium C++ ABI a pointer to a virtual member function holds
// 1 + the byte offset of its vtable entry.
template <class Member>
std::uintptr_t SlotValue(Member member) {
  static_assert(sizeof(Member) >= sizeof(std::uintptr_t), "unexpected layout");
  std::uintptr_t value;
  std::memcpy(&value, &member, sizeof value);
  return value;
}

constexpr std::uintptr_t Slot(int n) { return 1 + 8 * (n - 1); }

TEST(IXmlAbi, KnownOperationsSitInTheirSlots) {
  EXPECT_EQ(SlotValue(&IXml::AddValue), Slot(1));
  EXPECT_EQ(SlotValue(&IXml::AddNode), Slot(2));
  EXPECT_EQ(SlotValue(&IXml::GetCommand), Slot(7));
  EXPECT_EQ(SlotValue(&IXml::GetParam), Slot(14));
  EXPECT_EQ(SlotValue(&IXml::GetAttribute), Slot(15));
  EXPECT_EQ(SlotValue(&IXml::GetNode), Slot(17));
}

TEST(IXmlAbi, HostOperationsFillTheSlotsBetween) {
  EXPECT_EQ(SlotValue(&IXml::SetAttribute), Slot(3));
  EXPECT_EQ(SlotValue(&IXml::SetText), Slot(4));
  EXPECT_EQ(SlotValue(&IXml::GetText), Slot(5));
  EXPECT_EQ(SlotValue(&IXml::Name), Slot(6));
  EXPECT_EQ(SlotValue(&IXml::SetCommand), Slot(8));
  EXPECT_EQ(SlotValue(&IXml::HasChild), Slot(9));
  EXPECT_EQ(SlotValue(&IXml::CountChildren), Slot(10));
  EXPECT_EQ(SlotValue(&IXml::ChildNames), Slot(11));
  EXPECT_EQ(SlotValue(&IXml::ToString), Slot(12));
  EXPECT_EQ(SlotValue(&IXml::Clone), Slot(13));
  EXPECT_EQ(SlotValue(&IXml::GetNodes), Slot(16));
}

TEST(IXmlAbi, RecordKeepsTheTwoDocumentsFirst) {
  EXPECT_EQ(offsetof(parsed_xml_data_t, xml), 0u);
  EXPECT_EQ(offsetof(parsed_xml_data_t, reply),
            sizeof(boost::shared_ptr<IXml>));
}


// Replies are compared as text by clients, so the writer must print what
// Boost's pretty-printing tree writer prints for the same (sanitised) tree.
// The reference below is that writer, fed a sanitised copy.
namespace pt = boost::property_tree;

void SanitisedCopy(const pt::ptree& from, pt::ptree* to) {
  to->data() = kxtext::ToXmlText(from.data());
  for (const auto& child : from) {
    if (child.first == "<xmlattr>") {
      to->push_back(std::make_pair("<xmlattr>", pt::ptree()));
      pt::ptree& attributes = to->back().second;
      for (const auto& attribute : child.second) {
        const std::string name = kxtext::ToXmlName(attribute.first);
        if (attributes.find(name) != attributes.not_found()) continue;
        attributes.push_back(std::make_pair(
            name, pt::ptree(kxtext::ToXmlText(attribute.second.data()))));
      }
    } else if (child.first.empty() || child.first[0] != '<') {
      to->push_back(
          std::make_pair(kxtext::ToXmlName(child.first), pt::ptree()));
      SanitisedCopy(child.second, &to->back().second);
    }
  }
}

std::string BoostWriterText(const std::string& root, const pt::ptree& tree) {
  pt::ptree wrapper;
  wrapper.push_back(std::make_pair(kxtext::ToXmlName(root), pt::ptree()));
  SanitisedCopy(tree, &wrapper.back().second);
  std::ostringstream out;
  pt::write_xml(out, wrapper, pt::xml_writer_make_settings<std::string>(' ', 2));
  std::string text = out.str();
  text.erase(0, text.find('\n') + 1);  // the declaration line
  return text;
}

std::string RandomText(std::mt19937* random) {
  static const std::vector<std::string> kPieces = {
      "", " ", "  ", "a", "rule-1", "<", ">", "&", "\"", "'", "\t", "\n",
      "\x01", "\xff", "\xc3\xa9", "/usr/bin/x", " x ", "]]>", "a.b"};
  std::string text;
  const int pieces = std::uniform_int_distribution<int>(0, 3)(*random);
  for (int i = 0; i < pieces; ++i) {
    text += kPieces[std::uniform_int_distribution<std::size_t>(
        0, kPieces.size() - 1)(*random)];
  }
  return text;
}

std::string RandomName(std::mt19937* random) {
  static const std::vector<std::string> kNames = {
      "rule", "r", "u", "g", "name", "", "<xmlcomment>", "<xmltext>",
      "<xmlattr>", "1abc", "a b", "x:y", "\xc3\xa9t\xc3\xa9", "a.b"};
  return kNames[std::uniform_int_distribution<std::size_t>(
      0, kNames.size() - 1)(*random)];
}

pt::ptree RandomTree(std::mt19937* random, int depth) {
  pt::ptree tree(RandomText(random));
  const int children =
      depth == 0 ? 0 : std::uniform_int_distribution<int>(0, 4)(*random);
  for (int i = 0; i < children; ++i) {
    const std::string name = RandomName(random);
    if (name == "<xmlattr>") {
      pt::ptree attributes;
      const int count = std::uniform_int_distribution<int>(0, 3)(*random);
      for (int a = 0; a < count; ++a) {
        attributes.push_back(std::make_pair(RandomName(random),
                                            pt::ptree(RandomText(random))));
      }
      tree.push_back(std::make_pair(name, attributes));
    } else {
      tree.push_back(std::make_pair(name, RandomTree(random, depth - 1)));
    }
  }
  return tree;
}

TEST(XmlDocument, ToStringPrintsWhatBoostsTreeWriterPrints) {
  std::mt19937 random(20261124);
  for (int i = 0; i < 5000; ++i) {
    const pt::ptree tree = RandomTree(&random, 4);
    const std::string root = i % 7 == 0 ? "a b" : "reply";
    kxhost::XmlDocument document("request", tree);
    ASSERT_EQ(document.ToString(root), BoostWriterText(root, tree))
        << "tree " << i;
  }
}

TEST(XmlDocument, ToStringOfAGetReplyIsWhatBoostsTreeWriterPrints) {
  auto reply = ParseXml(
      "<reply><result>1</result><rules><rule><name>r&amp;1</name>"
      "<enable>1</enable><resources><r>/usr/bin/a b</r><r> </r></resources>"
      "</rule></rules><empty/><attr x=\"1\" y=\"&lt;\"/></reply>");
  EXPECT_EQ(reply->ToString("reply"), BoostWriterText("reply", reply->Tree()));
}

}  // namespace
