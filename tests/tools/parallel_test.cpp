// Independent work spread over the machine's processors.
#include "kxaecctl/parallel.h"

#include <gtest/gtest.h>

#include <atomic>
#include <stdexcept>
#include <string>
#include <vector>

TEST(ForEachInParallel, EveryItemRunsExactlyOnce) {
  std::vector<std::atomic<int>> runs(10000);
  aectool::ForEachInParallel(runs.size(), [&](std::size_t i) { ++runs[i]; });
  for (std::size_t i = 0; i < runs.size(); ++i) {
    ASSERT_EQ(runs[i].load(), 1) << "item " << i;
  }
}

TEST(ForEachInParallel, NoItemsRunsNothing) {
  bool ran = false;
  aectool::ForEachInParallel(0, [&](std::size_t) { ran = true; });
  EXPECT_FALSE(ran);
}

TEST(ForEachInParallel, TheLowestFailingItemIsWhatIsThrown) {
  std::atomic<int> ran{0};
  try {
    aectool::ForEachInParallel(1000, [&](std::size_t i) {
      ++ran;
      if (i == 700 || i == 300 || i == 999) {
        throw std::runtime_error("item " + std::to_string(i));
      }
    });
    FAIL() << "nothing was thrown";
  } catch (const std::runtime_error& error) {
    EXPECT_STREQ(error.what(), "item 300");
  }
  EXPECT_EQ(ran.load(), 1000);  // a failure stops no other item
}

TEST(ForEachInParallel, NeverMoreThreadsThanItems) {
  EXPECT_EQ(aectool::WorkerCount(1), 1u);
  EXPECT_EQ(aectool::WorkerCount(0), 1u);
  EXPECT_LE(aectool::WorkerCount(1000), 4u);
  EXPECT_GE(aectool::WorkerCount(1000), 1u);
}
