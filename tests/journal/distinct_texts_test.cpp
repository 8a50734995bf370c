// The hash set behind "log".
#include "aec_distinct_texts.h"

#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

namespace {

std::multiset<std::string> Members(const aec::DistinctTexts& texts) {
  std::multiset<std::string> members;
  texts.ForEach([&members](std::string_view text) {
    members.emplace(text);
  });
  return members;
}

TEST(DistinctTextsTest, HoldsEachTextOnce) {
  aec::DistinctTexts texts;
  for (int round = 0; round < 3; ++round) {
    for (const char* text : {"/bin/a", "/lib/b.so", "/bin/a", ""}) {
      texts.Add(text);
    }
  }
  EXPECT_EQ(texts.Size(), 3u);
  EXPECT_EQ(Members(texts),
            (std::multiset<std::string>{"", "/bin/a", "/lib/b.so"}));
}

TEST(DistinctTextsTest, StartsEmpty) {
  const aec::DistinctTexts texts;
  EXPECT_EQ(texts.Size(), 0u);
  EXPECT_TRUE(Members(texts).empty());
}

TEST(DistinctTextsTest, KeepsItsOwnCopy) {
  aec::DistinctTexts texts;
  std::string buffer = "/usr/lib/libfirst.so";
  texts.Add(buffer);
  buffer = "/usr/lib/libother.so";
  texts.Add(buffer);
  EXPECT_EQ(Members(texts),
            (std::multiset<std::string>{"/usr/lib/libfirst.so",
                                        "/usr/lib/libother.so"}));
}

TEST(DistinctTextsTest, TellsApartTextsThatDifferLateOrOnlyInLength) {
  aec::DistinctTexts texts;
  const std::vector<std::string> all = {
      "12345678",  "123456789", "12345678X", "1234567812345678",
      "1234567812345679", std::string("ab\0c", 4), std::string("ab\0d", 4),
      "ab"};
  for (const auto& text : all) texts.Add(text);
  for (const auto& text : all) texts.Add(text);
  EXPECT_EQ(texts.Size(), all.size());
  EXPECT_EQ(Members(texts),
            std::multiset<std::string>(all.begin(), all.end()));
}

TEST(DistinctTextsTest, KeepsEveryTextWhileGrowing) {
  aec::DistinctTexts texts;
  std::set<std::string> expected;
  for (int i = 0; i < 100000; ++i) {
    std::string text = "/srv/data/" + std::to_string(i % 977) + "/file" +
                       std::to_string(i) + ".dat";
    texts.Add(text);
    texts.Add(text);
    expected.insert(text);
  }
  for (const auto& text : expected) texts.Add(text);
  EXPECT_EQ(texts.Size(), expected.size());
  const auto members = Members(texts);
  EXPECT_EQ(std::set<std::string>(members.begin(), members.end()), expected);
  EXPECT_EQ(members.size(), expected.size());
}

}  // namespace
