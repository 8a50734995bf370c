// Independent work spread over the machine's processors.
#include "for_each_in_parallel.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <limits>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

constexpr std::size_t kNoLimit = std::numeric_limits<std::size_t>::max();

std::size_t Processors() {
  return std::max(1u, std::thread::hardware_concurrency());
}

// The ranges ForEachRangeInParallel hands out, in order of their start.
std::vector<std::pair<std::size_t, std::size_t>> RangesOf(
    std::size_t count, std::size_t max_threads) {
  std::mutex mutex;
  std::vector<std::pair<std::size_t, std::size_t>> ranges;
  aec::ForEachRangeInParallel(count, max_threads,
                              [&](std::size_t begin, std::size_t end) {
                                std::lock_guard<std::mutex> lock(mutex);
                                ranges.emplace_back(begin, end);
                              });
  std::sort(ranges.begin(), ranges.end());
  return ranges;
}

}  // namespace

TEST(ForEachInParallel, EveryItemRunsExactlyOnce) {
  std::vector<std::atomic<int>> runs(10000);
  aec::ForEachInParallel(runs.size(), 4, [&](std::size_t i) { ++runs[i]; });
  for (std::size_t i = 0; i < runs.size(); ++i) {
    ASSERT_EQ(runs[i].load(), 1) << "item " << i;
  }
}

TEST(ForEachInParallel, NoItemsRunsNothing) {
  bool ran = false;
  aec::ForEachInParallel(0, 4, [&](std::size_t) { ran = true; });
  EXPECT_FALSE(ran);
}

TEST(ForEachInParallel, TheLowestFailingItemIsWhatIsThrown) {
  std::atomic<int> ran{0};
  try {
    aec::ForEachInParallel(1000, 4, [&](std::size_t i) {
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

TEST(ForEachInParallel, ALimitOfOneKeepsEveryItemOnTheCaller) {
  std::atomic<int> elsewhere{0};
  const std::thread::id caller = std::this_thread::get_id();
  aec::ForEachInParallel(2000, 1, [&](std::size_t) {
    if (std::this_thread::get_id() != caller) ++elsewhere;
  });
  EXPECT_EQ(elsewhere.load(), 0);
}

TEST(WorkerCount, NeverMoreThanTheItemsTheLimitOrTheProcessors) {
  EXPECT_EQ(aec::WorkerCount(1, 4), 1u);
  EXPECT_EQ(aec::WorkerCount(1000, 1), 1u);
  EXPECT_EQ(aec::WorkerCount(1000, 4), std::min<std::size_t>(Processors(), 4));
  EXPECT_EQ(aec::WorkerCount(1000, kNoLimit),
            std::min<std::size_t>(Processors(), 1000));
  EXPECT_EQ(aec::WorkerCount(2, kNoLimit),
            std::min<std::size_t>(Processors(), 2));
}

TEST(WorkerCount, AlwaysAtLeastOne) {
  EXPECT_EQ(aec::WorkerCount(0, 4), 1u);
  EXPECT_EQ(aec::WorkerCount(1000, 0), 1u);
  EXPECT_EQ(aec::WorkerCount(0, 0), 1u);
}

TEST(ForEachRangeInParallel, TheRangesCoverEveryItemOnceInEqualParts) {
  const std::size_t count = 100003;
  const auto ranges = RangesOf(count, kNoLimit);
  ASSERT_FALSE(ranges.empty());
  EXPECT_LE(ranges.size(), aec::WorkerCount(count, kNoLimit));
  std::size_t next = 0;
  for (std::size_t r = 0; r < ranges.size(); ++r) {
    EXPECT_EQ(ranges[r].first, next) << "range " << r;
    EXPECT_LT(ranges[r].first, ranges[r].second) << "range " << r;
    if (r + 1 < ranges.size()) {
      EXPECT_EQ(ranges[r].second - ranges[r].first,
                ranges[0].second - ranges[0].first)
          << "range " << r;
    }
    next = ranges[r].second;
  }
  EXPECT_EQ(next, count);
}

TEST(ForEachRangeInParallel, OneRangePerThread) {
  if (Processors() < 2) GTEST_SKIP() << "one processor: one range only";
  EXPECT_EQ(RangesOf(100000, 2).size(), 2u);
  EXPECT_EQ(RangesOf(100000, kNoLimit).size(), Processors());
}

TEST(ForEachRangeInParallel, OneThreadRunsTheWholeRangeOnTheCaller) {
  for (const std::size_t count : {std::size_t{0}, std::size_t{5000}}) {
    std::vector<std::pair<std::size_t, std::size_t>> calls;
    std::thread::id ran_on;
    aec::ForEachRangeInParallel(count, 1,
                                [&](std::size_t begin, std::size_t end) {
                                  calls.emplace_back(begin, end);
                                  ran_on = std::this_thread::get_id();
                                });
    ASSERT_EQ(calls.size(), 1u) << "count " << count;
    EXPECT_EQ(calls[0], std::make_pair(std::size_t{0}, count));
    EXPECT_EQ(ran_on, std::this_thread::get_id());
  }
}

TEST(ForEachRangeInParallel, TheFirstFailingRangeIsWhatIsThrown) {
  std::atomic<int> ran{0};
  try {
    aec::ForEachRangeInParallel(
        100000, kNoLimit, [&](std::size_t begin, std::size_t) {
          ++ran;
          throw std::runtime_error("range at " + std::to_string(begin));
        });
    FAIL() << "nothing was thrown";
  } catch (const std::runtime_error& error) {
    EXPECT_STREQ(error.what(), "range at 0");
  }
  EXPECT_EQ(static_cast<std::size_t>(ran.load()),
            RangesOf(100000, kNoLimit).size());
}
