// Answers remembered by key and shared by threads.
#include "kxaecctl/memo.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

TEST(Memo, AnUnknownKeyIsNotFound) {
  aectool::Memo<int> memo;
  EXPECT_EQ(memo.Find("a"), nullptr);
  memo.Remember("a", 1);
  EXPECT_EQ(memo.Find("b"), nullptr);
  ASSERT_NE(memo.Find("a"), nullptr);
  EXPECT_EQ(*memo.Find("a"), 1);
}

TEST(Memo, TheFirstValueRememberedStays) {
  aectool::Memo<std::string> memo;
  EXPECT_EQ(memo.Remember("k", "first"), "first");
  EXPECT_EQ(memo.Remember("k", "second"), "first");
  EXPECT_EQ(*memo.Find("k"), "first");
}

TEST(Memo, ValuesStayWhereTheyAreWhileThreadsFillIt) {
  aectool::Memo<std::string> memo;
  const std::string* early = &memo.Remember("early", "value");
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&memo, t] {
      for (int i = 0; i < 20000; ++i) {
        const std::string key = std::to_string(i);
        // Every thread offers its own value; one wins for each key.
        const std::string& kept =
            memo.Remember(key, key + "/" + std::to_string(t));
        EXPECT_EQ(kept.compare(0, key.size() + 1, key + "/"), 0);
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(memo.Find("early"), early);
  EXPECT_EQ(*early, "value");
  for (int i = 0; i < 20000; i += 997) {
    const std::string key = std::to_string(i);
    const std::string* found = memo.Find(key);
    ASSERT_NE(found, nullptr) << key;
    EXPECT_EQ(&memo.Remember(key, "later"), found);
  }
}
