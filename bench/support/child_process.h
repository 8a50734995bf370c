// Runs a program as a child process and times it, for the benchmarks that
// measure what a user sees (kxhost answering a request, a program start).
#pragma once

#include <string>
#include <vector>

namespace kxbench {

struct ChildRun {
  int exit_code = -1;  // -1: did not exit normally
  std::string out;     // standard output, whole
  double wall_ms = 0;  // from spawn to reaped
  double cpu_ms = 0;   // the child's processor time, user + system
  long max_rss_kib = 0;  // the child's peak resident memory
};

// Runs argv[0] (a path, no search) with `input` on standard input and
// standard error discarded. Throws std::runtime_error when it cannot start.
ChildRun RunChild(const std::vector<std::string>& argv,
                  const std::string& input = "");

// The median and a high percentile (0..100) of `values` (sorted in place);
// 0 for an empty list.
double Percentile(std::vector<double>& values, double percent);

}  // namespace kxbench
