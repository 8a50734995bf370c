// Spreading independent work over the machine's processors: the one way the
// tools and the enforcing component run a loop on several threads.
//
// Header only, and it needs nothing but the standard library and threads,
// so that linking it (the aec_parallel target) brings in none of the
// configuration model's libraries.
#pragma once

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <exception>
#include <thread>
#include <vector>

namespace aec {

// How many threads share `items` items: one per processor at most, never
// more than `max_threads` nor than the items, and always at least one.
inline std::size_t WorkerCount(std::size_t items, std::size_t max_threads) {
  const std::size_t processors =
      std::max(1u, std::thread::hardware_concurrency());
  return std::max<std::size_t>(1, std::min({processors, max_threads, items}));
}

// Runs work(i) for every i below `count`, on this thread and up to
// WorkerCount(count, max_threads) - 1 more, each taking the next item
// as it is free, in no particular order. Returns when all are done. When
// items throw, rethrows the exception of the lowest i, as a loop in order
// would have (a failure stops no other item). `work` must be safe to call
// from several threads at once.
template <typename Work>
void ForEachInParallel(std::size_t count, std::size_t max_threads,
                       const Work& work) {
  std::atomic<std::size_t> next{0};
  std::vector<std::exception_ptr> failures(count);
  const auto run = [&] {
    for (std::size_t i = next++; i < count; i = next++) {
      try {
        work(i);
      } catch (...) {
        failures[i] = std::current_exception();
      }
    }
  };
  std::vector<std::thread> helpers;
  for (std::size_t t = 1; t < WorkerCount(count, max_threads); ++t) {
    helpers.emplace_back(run);
  }
  run();
  for (auto& helper : helpers) helper.join();
  for (const auto& failure : failures) {
    if (failure) std::rethrow_exception(failure);
  }
}

// Runs work(begin, end) over [0, count) cut into one contiguous range per
// thread (WorkerCount(count, max_threads) of them, of equal size but the
// last), for loops whose items are too small to be handed out one by one.
// With one thread, work(0, count) runs on this thread alone (also for a
// count of 0). Fails as ForEachInParallel: the exception of the lowest
// range is rethrown.
template <typename Work>
void ForEachRangeInParallel(std::size_t count, std::size_t max_threads,
                            const Work& work) {
  const std::size_t threads = WorkerCount(count, max_threads);
  if (threads <= 1) {
    work(std::size_t{0}, count);
    return;
  }
  const std::size_t size = (count + threads - 1) / threads;
  ForEachInParallel((count + size - 1) / size, threads, [&](std::size_t r) {
    work(r * size, std::min(count, (r + 1) * size));
  });
}

}  // namespace aec
