// JSON strings written by hand: each format's exact bytes, and every style
// read back by Boost's JSON reader as the text it was given.
#include "host/json_text.h"

#include <gtest/gtest.h>

#include <boost/property_tree/json_parser.hpp>
#include <boost/property_tree/ptree.hpp>
#include <sstream>
#include <string>

namespace {

using namespace std::string_literals;

std::string Quoted(const std::string& text,
                   const kxtext::JsonStringStyle& style = {}) {
  std::string out = "prefix:";
  kxtext::AppendJsonString(text, &out, style);
  return out;
}

std::string ReadBack(const std::string& quoted) {
  std::istringstream in("{\"v\": " + quoted + "}");
  boost::property_tree::ptree tree;
  boost::property_tree::read_json(in, tree);
  return tree.get<std::string>("v");
}

kxtext::JsonStringStyle RuleFileStyle() {
  kxtext::JsonStringStyle style;
  style.escape_slash = true;
  style.upper_case_hex = true;
  return style;
}

kxtext::JsonStringStyle RecordStyle() {
  kxtext::JsonStringStyle style;
  style.short_backspace_formfeed = false;
  style.invalid_utf8_as_code_point = true;
  return style;
}

kxtext::JsonStringStyle MarkupStyle() {
  kxtext::JsonStringStyle style;
  style.short_backspace_formfeed = false;
  style.escape_markup = true;
  return style;
}

TEST(JsonTextTest, AppendsAfterWhatIsThere) {
  EXPECT_EQ(Quoted("abc"), "prefix:\"abc\"");
  EXPECT_EQ(Quoted(""), "prefix:\"\"");
}

TEST(JsonTextTest, DefaultStyleUsesShortFormsAndLowerCaseHex) {
  EXPECT_EQ(Quoted("a\"b\\c\nd\re\tf\bg\fh\x1fi/j<k"),
            "prefix:\"a\\\"b\\\\c\\nd\\re\\tf\\bg\\fh\\u001fi/j<k\"");
}

TEST(JsonTextTest, RuleFileStyleEscapesSlashWithUpperCaseHex) {
  EXPECT_EQ(Quoted("/usr/bin\x1f\b", RuleFileStyle()),
            "prefix:\"\\/usr\\/bin\\u001F\\b\"");
}

TEST(JsonTextTest, BytesFromHexEightyPassAsTheyAreUnlessAsked) {
  const std::string text = "caf\xc3\xa9 \xff";
  EXPECT_EQ(Quoted(text), "prefix:\"" + text + "\"");
  EXPECT_EQ(Quoted(text, RecordStyle()), "prefix:\"caf\xc3\xa9 \\u00ff\"");
}

TEST(JsonTextTest, RecordStyleWritesBackspaceAsCodePoint) {
  EXPECT_EQ(Quoted("\b\f", RecordStyle()), "prefix:\"\\u0008\\u000c\"");
}

TEST(JsonTextTest, MarkupStyleLeavesNoMarkup) {
  EXPECT_EQ(Quoted("<a href=\"x\">&</a>", MarkupStyle()),
            "prefix:\"\\u003ca href=\\\"x\\\"\\u003e\\u0026\\u003c/a\\u003e\"");
}

TEST(JsonTextTest, EveryStyleReadsBackAsTheText) {
  std::string every_ascii_byte;
  for (int c = 1; c < 0x80; ++c) every_ascii_byte += static_cast<char>(c);
  const std::string text = every_ascii_byte + "caf\xc3\xa9";
  for (const auto& style : {kxtext::JsonStringStyle{}, RuleFileStyle(),
                            RecordStyle(), MarkupStyle()}) {
    const std::string quoted = Quoted(text, style).substr(7);
    EXPECT_EQ(ReadBack(quoted), text) << quoted;
  }
}

}  // namespace
