#include "bounded_queue.h"

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

namespace aec::engine {
namespace {

TEST(BoundedQueueTest, PopsInPushOrderAcrossManyLapsOfAnOddCapacity) {
  BoundedQueue<std::string> queue(3);
  int next_in = 0;
  int next_out = 0;
  for (int round = 0; round < 100; ++round) {
    for (int i = 0; i < 2; ++i) {
      std::string value = std::to_string(next_in++);
      ASSERT_TRUE(queue.TryPush(value));
    }
    for (int i = 0; i < 2; ++i) {
      std::string out;
      ASSERT_TRUE(queue.TryPop(out));
      EXPECT_EQ(out, std::to_string(next_out++));
    }
  }
  EXPECT_EQ(queue.Depth(), 0u);
}

TEST(BoundedQueueTest, FullQueueRefusesAndLeavesTheValue) {
  BoundedQueue<std::string> queue(2);
  std::string a = "a", b = "b", c = "c";
  EXPECT_TRUE(queue.TryPush(a));
  EXPECT_TRUE(queue.TryPush(b));
  EXPECT_FALSE(queue.TryPush(c));
  EXPECT_EQ(c, "c");
  EXPECT_EQ(queue.Depth(), 2u);
  std::string out;
  EXPECT_TRUE(queue.TryPop(out));
  EXPECT_EQ(out, "a");
  EXPECT_TRUE(queue.TryPush(c));
  EXPECT_TRUE(queue.TryPop(out));
  EXPECT_EQ(out, "b");
  EXPECT_TRUE(queue.TryPop(out));
  EXPECT_EQ(out, "c");
  EXPECT_FALSE(queue.TryPop(out));
}

TEST(BoundedQueueTest, ConcurrentProducersLoseNothingThatWasAccepted) {
  BoundedQueue<int> queue(64);
  constexpr int kProducers = 4;
  constexpr int kEach = 50000;
  std::atomic<int> accepted{0};
  std::atomic<bool> done{false};
  std::vector<long long> sums(kProducers, 0);
  std::vector<std::thread> producers;
  for (int p = 0; p < kProducers; ++p) {
    producers.emplace_back([&, p] {
      for (int i = 1; i <= kEach; ++i) {
        int value = p * kEach + i;
        if (queue.TryPush(value)) {
          sums[p] += p * kEach + i;
          accepted.fetch_add(1);
        }
      }
    });
  }
  long long popped_sum = 0;
  int popped = 0;
  std::thread consumer([&] {
    int value = 0;
    for (;;) {
      if (queue.TryPop(value)) {
        popped_sum += value;
        ++popped;
      } else if (done.load()) {
        if (!queue.TryPop(value)) break;
        popped_sum += value;
        ++popped;
      }
    }
  });
  for (auto& producer : producers) producer.join();
  done.store(true);
  consumer.join();
  long long pushed_sum = 0;
  for (long long sum : sums) pushed_sum += sum;
  EXPECT_EQ(popped, accepted.load());
  EXPECT_EQ(popped_sum, pushed_sum);
  EXPECT_GT(accepted.load(), 0);
}

}  // namespace
}  // namespace aec::engine
