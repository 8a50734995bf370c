// The console's JSON writer and request reader on their own.
#include "json.h"

#include <gtest/gtest.h>

namespace kxconsole {
namespace {

TEST(ConsoleJson, MarkupQuotesAndControlsAreEscaped) {
  EXPECT_EQ(JsonQuote("<a href=\"x\">&</a>\n\\"),
            R"("\u003ca href=\"x\"\u003e\u0026\u003c/a\u003e\n\\")");
  EXPECT_EQ(JsonQuote(std::string("a\x01"
                                  "b",
                                  3)),
            "\"a\xEF\xBF\xBD"
            "b\"");
}

TEST(ConsoleJson, BytesThatAreNotUtf8BecomeTheReplacementCharacter) {
  EXPECT_EQ(JsonQuote("x\xff"), "\"x\xEF\xBF\xBD\"");
  EXPECT_EQ(JsonQuote("\xC3\xA9t\xC3\xA9"), "\"\xC3\xA9t\xC3\xA9\"");
}

TEST(ConsoleJson, AnObjectKeepsTypesAndOrder) {
  EXPECT_EQ(JsonObject()
                .Str("a", "x")
                .Int("b", -3)
                .Bool("c", false)
                .Strings("d", {"1", "<"})
                .Raw("e", "{}")
                .str(),
            R"({"a":"x","b":-3,"c":false,"d":["1","\u003c"],"e":{}})");
}

TEST(ConsoleJson, ARequestBodyIsReadWithItsTypes) {
  const JsonValue body = ParseJson(
      R"( {"name":"r\u00e9\n\ud83d\ude00","on":true,"n":42,"list":["a","b"],"x":null} )");
  EXPECT_EQ(body.GetString("name"), "r\xC3\xA9\n\xF0\x9F\x98\x80");
  EXPECT_TRUE(body.GetBool("on", false));
  EXPECT_EQ(body.GetInt("n", 0), 42);
  EXPECT_EQ(body.GetStrings("list"), (std::vector<std::string>{"a", "b"}));
  EXPECT_EQ(body.GetString("absent", "default"), "default");
  EXPECT_THROW(body.GetString("on"), JsonError);
  EXPECT_THROW(body.GetBool("n", false), JsonError);
  EXPECT_THROW(body.GetStrings("name"), JsonError);
}

TEST(ConsoleJson, MalformedOrHostileTextIsRefused) {
  for (const std::string& text : std::vector<std::string>{
           "", "{", "{\"a\":1,}", "[1 2]", "\"\\x\"", "\"\\ud800\"", "01",
           "1.5", "{\"a\":1} {}", "\"a\nb\"", "\"\\u0000\"", "tru", "\"\xff\"",
           std::string(40, '[') + std::string(40, ']'),
           "123456789012345678901"}) {
    EXPECT_THROW(ParseJson(text), JsonError) << text;
  }
  EXPECT_EQ(ParseJson(std::string(30, '[') + std::string(30, ']')).type,
            JsonValue::Type::kArray);
}

}  // namespace
}  // namespace kxconsole
