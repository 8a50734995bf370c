// The rules policy's SetValue + Apply for 100, 1,000 and 10,000 rules,
// against a plain loop that writes the same bytes to as many files and syncs
// once at the end. Both run in the same process, in a sandboxed install root
// on the same file system, in alternating turns; the medians, the ratio and
// the growth per size are printed at the end. Not a timed test: run by hand
// (docs/rules.md).
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <boost/filesystem.hpp>
#include <chrono>
#include <boost/property_tree/json_parser.hpp>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "aec_policies/aecrulespolicy.h"
#include "lib/fresh_install.h"
#include "lib/sandbox.h"

namespace fs = boost::filesystem;
namespace pt = boost::property_tree;

namespace {

const std::string kRulesDir = "/opt/korvex/etc/aec/rules/";
const std::string kPlainDir = "/opt/korvex/etc/aec/plain/";

pt::ptree RuleTree(int index) {
  pt::ptree rule;
  const std::string name = "rule-" + std::to_string(index);
  rule.put("name", name);
  rule.put("all_allowed", "false");
  rule.put("extended", index % 7 == 0 ? "true" : "false");
  rule.put("system", "false");
  rule.put("enable", "true");
  auto list = [](const std::vector<std::string>& items) {
    pt::ptree node;
    for (const auto& item : items) node.push_back({"", pt::ptree(item)});
    return node;
  };
  rule.add_child("user_list", list({"user" + std::to_string(index % 300),
                                    "user" + std::to_string(index % 17)}));
  rule.add_child("group_list", list({"group" + std::to_string(index % 60)}));
  rule.add_child("resource_list",
                 list({"/usr/bin/tool" + std::to_string(index),
                       "/usr/lib/libtool" + std::to_string(index) + ".so",
                       "/opt/app/" + name + "/bin/run"}));
  return rule;
}

pt::ptree PolicyValue(int rules) {
  pt::ptree value;
  for (int i = 0; i < rules; ++i) value.push_back({"", RuleTree(i)});
  return value;
}

void ClearDirectory(const std::string& dir) {
  fs::remove_all(dir);
  fs::create_directories(dir);
}

double Median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  const std::size_t middle = values.size() / 2;
  return values.size() % 2 == 1
             ? values[middle]
             : (values[middle - 1] + values[middle]) / 2;
}

double SecondsSince(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() -
                                       start)
      .count();
}

// The baseline: the same bytes to as many files, one sync at the end.
bool WritePlain(
    const std::vector<std::pair<std::string, std::string>>& files) {
  bool ok = true;
  for (const auto& file : files) {
    const int fd = ::open(file.first.c_str(),
                          O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    ok = ok && fd >= 0 &&
         ::write(fd, file.second.data(), file.second.size()) ==
             static_cast<ssize_t>(file.second.size());
    if (fd >= 0) ::close(fd);
  }
  const int dir = ::open(kPlainDir.c_str(), O_RDONLY | O_DIRECTORY);
  ok = ok && dir >= 0 && ::syncfs(dir) == 0;
  if (dir >= 0) ::close(dir);
  return ok;
}

// One round writes the rule set both ways, in turns first and second, from
// the same state of the file system: both directories emptied and that
// flushed. The time of this disk swings by several times from one second to
// the next (other guests, writeback, ext4's inode allocator walking
// just-deleted inodes); a ratio taken within a round, and the median over
// the rounds, is what stays comparable.
void BM_RulesPolicyAgainstPlain(benchmark::State& state) {
  const int rules = static_cast<int>(state.range(0));
  const pt::ptree value = PolicyValue(rules);
  std::vector<std::pair<std::string, std::string>> files;
  for (int i = 0; i < rules; ++i) {
    std::ostringstream text;
    pt::write_json(text, RuleTree(i), true);
    files.emplace_back(kPlainDir + "rule-" + std::to_string(i) + ".conf",
                       text.str());
  }

  std::vector<double> policy_times, plain_times, ratios;
  bool policy_first = true;
  for (auto _ : state) {
    ClearDirectory(kRulesDir);
    ClearDirectory(kPlainDir);
    ::sync();
    AecRulesPolicy policy;
    double policy_time = 0, plain_time = 0;
    for (int turn = 0; turn < 2; ++turn) {
      const auto start = std::chrono::steady_clock::now();
      if ((turn == 0) == policy_first) {
        policy.SetValue(value);
        if (!policy.Apply()) state.SkipWithError("Apply failed");
        policy_time = SecondsSince(start);
      } else {
        if (!WritePlain(files)) state.SkipWithError("plain write failed");
        plain_time = SecondsSince(start);
      }
    }
    policy_first = !policy_first;
    state.SetIterationTime(policy_time);
    policy_times.push_back(policy_time);
    plain_times.push_back(plain_time);
    ratios.push_back(policy_time / plain_time);
  }
  state.SetItemsProcessed(state.iterations() * rules);
  state.counters["policy_ms"] = Median(policy_times) * 1e3;
  state.counters["plain_ms"] = Median(plain_times) * 1e3;
  state.counters["ratio"] = Median(ratios);
}

BENCHMARK(BM_RulesPolicyAgainstPlain)
    ->Arg(100)
    ->Arg(1000)
    ->Arg(10000)
    ->Iterations(21)
    ->Unit(benchmark::kMillisecond)
    ->UseManualTime();

// Keeps the medians of every size for the summary.
class CollectingReporter : public benchmark::ConsoleReporter {
 public:
  struct Figures {
    double policy_ms, plain_ms, ratio;
  };

  void ReportRuns(const std::vector<Run>& runs) override {
    for (const auto& run : runs) {
      if (run.error_occurred || run.run_type != Run::RT_Iteration) continue;
      const auto counter = [&run](const char* name) {
        const auto found = run.counters.find(name);
        return found == run.counters.end() ? 0.0 : found->second.value;
      };
      figures_[std::stoi(run.run_name.args)] = {
          counter("policy_ms"), counter("plain_ms"), counter("ratio")};
    }
    ConsoleReporter::ReportRuns(runs);
  }

  void PrintSummary() const {
    if (figures_.empty()) return;
    std::printf(
        "\nmedians of the rounds\n"
        "rules  policy(ms)  plain(ms)  ratio  policy growth  plain growth\n");
    const Figures* previous = nullptr;
    for (const auto& entry : figures_) {
      const Figures& now = entry.second;
      std::printf("%5d  %10.2f  %9.2f  %5.2f", entry.first, now.policy_ms,
                  now.plain_ms, now.ratio);
      if (previous != nullptr) {
        std::printf("  %13.2f  %12.2f", now.policy_ms / previous->policy_ms,
                    now.plain_ms / previous->plain_ms);
      }
      std::printf("\n");
      previous = &now;
    }
  }

 private:
  std::map<int, Figures> figures_;
};

}  // namespace

int main(int argc, char** argv) {
  // TMPDIR chooses the file system: the disk by default; a tmpfs
  // (TMPDIR=/dev/shm) shows the code's own growth without the disk's.
  const char* tmpdir = std::getenv("TMPDIR");
  std::string pattern = std::string(tmpdir != nullptr && *tmpdir != '\0'
                                        ? tmpdir
                                        : "/tmp") +
                        "/kxbench-rules-XXXXXX";
  std::vector<char> root(pattern.begin(), pattern.end());
  root.push_back('\0');
  if (::mkdtemp(root.data()) == nullptr) {
    std::perror("mkdtemp");
    return 2;
  }
  kxhost::MakeRootLayout(root.data());
  kxhost::SeedFreshInstall(root.data());
  kxhost::EnterSandbox(root.data());
  // The reload at the end of every Apply: a tool that exits 0 at once.
  const std::string tool = "/opt/korvex/bin/kxaecctl";
  {
    FILE* script = std::fopen(tool.c_str(), "w");
    std::fputs("#!/bin/sh\nexit 0\n", script);
    std::fclose(script);
    fs::permissions(tool, fs::perms(0755));
  }

  benchmark::Initialize(&argc, argv);
  CollectingReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  reporter.PrintSummary();
  benchmark::Shutdown();
  fs::remove_all(root.data());
  return 0;
}
