// How kxaecctl prints an offending object: one line, never too long for the
// driver that reads it.
#include <gtest/gtest.h>

#include <string>

#include "kxaecctl/shown_object.h"

namespace {

using aectool::kShownObjectMax;
using aectool::ShownObject;

}  // namespace

TEST(ShownObjectTest, AnOrdinaryObjectIsPrintedAsItIs) {
  EXPECT_EQ(ShownObject("/usr/bin/make"), "/usr/bin/make");
  const std::string fits(kShownObjectMax, 'x');
  EXPECT_EQ(ShownObject(fits), fits);
}

TEST(ShownObjectTest, ALongObjectIsCutAndSaysHowLongItWas) {
  const std::string shown = ShownObject(std::string(5000, 'u'));
  EXPECT_EQ(shown, std::string(kShownObjectMax, 'u') + "... (5000 bytes)");
  EXPECT_LT(ShownObject(std::string(1000000, 'u')).size(), 4095u);
}

TEST(ShownObjectTest, TheCutNeverSplitsAUtf8Character) {
  // "é" is two bytes; an odd start puts a character across the limit.
  std::string value = "x";
  while (value.size() < 3000) value += "\xc3\xa9";
  const std::string shown = ShownObject(value);
  const std::string kept = shown.substr(0, shown.find("... ("));
  EXPECT_EQ(kept.size(), kShownObjectMax - 1);
  EXPECT_EQ(kept, value.substr(0, kShownObjectMax - 1));
}

TEST(ShownObjectTest, ControlCharactersAreWrittenOutSoAnObjectIsOneLine) {
  EXPECT_EQ(ShownObject("a\nb\tc\x1b\x7f"), "a\\x0ab\\x09c\\x1b\\x7f");
}
