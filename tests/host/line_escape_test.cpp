// Escaping of one-record-a-line text files: every byte survives, and no
// field can end its line or its field early.
#include "host/line_escape.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using namespace std::string_literals;

TEST(LineEscape, EscapesBackslashTabLineBreakAndCarriageReturn) {
  EXPECT_EQ(kxtext::EscapeLine("a\\b\tc\nd\re"), "a\\\\b\\tc\\nd\\re");
  EXPECT_EQ(kxtext::EscapeLine(""), "");
}

TEST(LineEscape, LeavesOtherBytesAsTheyAre) {
  const std::string text = "plain \x01\x7f\xff\0 utf-8 \xc3\xa9 t n r"s;
  EXPECT_EQ(kxtext::EscapeLine(text), text);
}

TEST(LineEscape, AnEscapedFieldHoldsNoTabAndNoLineBreak) {
  const std::string escaped = kxtext::EscapeLine("x\ty\nz\r\\");
  EXPECT_EQ(escaped.find_first_of("\t\n\r"), std::string::npos);
}

TEST(LineEscape, ANarrowerSetEscapesOnlyItsOwnCharacters) {
  EXPECT_EQ(kxtext::EscapeLine("a\\b\tc\nd\re", "\\\n"), "a\\\\b\tc\\nd\re");
}

TEST(LineEscape, UnescapeRestoresWhatEscapeWrote) {
  const std::string text = "a\\b\tc\nd\re\\n\\\\"s;
  std::string back;
  ASSERT_TRUE(kxtext::UnescapeLine(kxtext::EscapeLine(text), &back));
  EXPECT_EQ(back, text);
  ASSERT_TRUE(
      kxtext::UnescapeLine(kxtext::EscapeLine(text, "\\\n"), &back, "\\\n"));
  EXPECT_EQ(back, text);
}

TEST(LineEscape, UnescapeRefusesATrailingBackslashAndUnknownLetters) {
  std::string back;
  EXPECT_FALSE(kxtext::UnescapeLine("abc\\", &back));
  EXPECT_FALSE(kxtext::UnescapeLine("a\\xb", &back));
  // \t is a letter of the full set but not of the narrower one.
  EXPECT_TRUE(kxtext::UnescapeLine("a\\tb", &back));
  EXPECT_EQ(back, "a\tb");
  EXPECT_FALSE(kxtext::UnescapeLine("a\\tb", &back, "\\\n"));
}

}  // namespace
