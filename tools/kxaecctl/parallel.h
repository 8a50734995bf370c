// Spreading independent work over the machine's processors.
#pragma once

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <exception>
#include <thread>
#include <vector>

namespace aectool {

// At most this many threads work at once: the tool's work is short, and
// more threads than processors only add switching.
inline std::size_t WorkerCount(std::size_t items) {
  const unsigned processors = std::max(1u, std::thread::hardware_concurrency());
  return std::max<std::size_t>(1,
                               std::min<std::size_t>({processors, 4, items}));
}

// Runs work(i) for every i below `count`, on this thread and up to
// WorkerCount(count) - 1 more, in no particular order. Returns when all are
// done. When items throw, rethrows the exception of the lowest i, as a loop
// in order would have (later items may have run). `work` must be safe to
// call from several threads at once.
template <typename Work>
void ForEachInParallel(std::size_t count, const Work& work) {
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
  for (std::size_t t = 1; t < WorkerCount(count); ++t) {
    helpers.emplace_back(run);
  }
  run();
  for (auto& helper : helpers) helper.join();
  for (const auto& failure : failures) {
    if (failure) std::rethrow_exception(failure);
  }
}

}  // namespace aectool
