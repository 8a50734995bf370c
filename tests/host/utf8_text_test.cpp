// Telling well-formed UTF-8 from other bytes, as JSON readers do.
#include "host/utf8_text.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using namespace std::string_literals;

TEST(Utf8Text, AsciiAndWellFormedSequencesAreUtf8) {
  EXPECT_TRUE(kxtext::IsUtf8(""));
  EXPECT_TRUE(kxtext::IsUtf8("plain ascii\x01\x7f"));
  EXPECT_TRUE(kxtext::IsUtf8("\0inside"s));
  EXPECT_TRUE(kxtext::IsUtf8("\xc2\x80 \xdf\xbf"));          // 2 bytes
  EXPECT_TRUE(kxtext::IsUtf8("\xe0\xa0\x80 \xef\xbf\xbf"));  // 3 bytes
  EXPECT_TRUE(kxtext::IsUtf8("\xed\x9f\xbf"));               // below surrogates
  EXPECT_TRUE(kxtext::IsUtf8("\xf0\x90\x80\x80 \xf4\x8f\xbf\xbf"));  // 4 bytes
}

TEST(Utf8Text, MalformedSequencesAreNotUtf8) {
  for (const std::string& text :
       {"\x80"s, "\xbf"s, "\xc0\xaf"s, "\xc1\xbf"s,   // continuation, overlong
        "\xe0\x9f\xbf"s, "\xf0\x8f\xbf\xbf"s,         // overlong
        "\xed\xa0\x80"s, "\xed\xbf\xbf"s,             // surrogates
        "\xf4\x90\x80\x80"s, "\xf5\x80\x80\x80"s,     // past U+10FFFF
        "\xff"s, "\xfe"s,                             // never a byte of UTF-8
        "a\xc3"s, "\xe2\x82"s, "\xf0\x9f\x94"s,       // cut short
        "\xc3\x28"s, "buil\xe4-tools"s}) {            // bad continuation
    EXPECT_FALSE(kxtext::IsUtf8(text)) << ::testing::PrintToString(text);
  }
}

TEST(Utf8Text, SequenceLengthIsZeroWhereNoSequenceStarts) {
  const std::string text = "a\xc3\xa9\xe2\x82\xac\xf0\x9f\x94\x92\xff";
  EXPECT_EQ(kxtext::Utf8SequenceLength(text, 0), 0u);  // ASCII
  EXPECT_EQ(kxtext::Utf8SequenceLength(text, 1), 2u);
  EXPECT_EQ(kxtext::Utf8SequenceLength(text, 2), 0u);  // a continuation
  EXPECT_EQ(kxtext::Utf8SequenceLength(text, 3), 3u);
  EXPECT_EQ(kxtext::Utf8SequenceLength(text, 6), 4u);
  EXPECT_EQ(kxtext::Utf8SequenceLength(text, 10), 0u);
  EXPECT_EQ(kxtext::Utf8SequenceLength("\xe2\x82", 0), 0u);  // cut short
}

}  // namespace
