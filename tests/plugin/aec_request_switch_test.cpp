// A request switch is on only when its text is exactly "1".
#include "aec_request_switch.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>

namespace {

std::unique_ptr<char[]> Owned(const char* text) {
  std::unique_ptr<char[]> copy(new char[std::strlen(text) + 1]);
  std::strcpy(copy.get(), text);
  return copy;
}

TEST(RequestSwitch, OnlyTheTextOneSwitchesOn) {
  EXPECT_TRUE(aec::IsSwitchOn("1"));
  EXPECT_TRUE(aec::IsSwitchOn(Owned("1")));
}

TEST(RequestSwitch, AbsentEmptyAndOtherTextsAreOff) {
  EXPECT_FALSE(aec::IsSwitchOn(static_cast<const char*>(nullptr)));
  EXPECT_FALSE(aec::IsSwitchOn(std::unique_ptr<char[]>()));
  for (const char* text : {"", "0", "true", "01", " 1", "1 ", "11", "yes"}) {
    EXPECT_FALSE(aec::IsSwitchOn(text)) << '"' << text << '"';
    EXPECT_FALSE(aec::IsSwitchOn(Owned(text))) << '"' << text << '"';
  }
}

}  // namespace
