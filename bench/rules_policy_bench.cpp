// The rules policy's SetValue + Apply for 100, 1,000 and 10,000 rules,
// against a plain loop that writes the same bytes to as many files and syncs
// once at the end. Both run in the same process, in a sandboxed install root
// on the same file system; the ratio and the growth per size are printed at
// the end. Not a timed test: run by hand (or scripts/bench.sh).
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <boost/filesystem.hpp>
#include <boost/property_tree/json_parser.hpp>
#include <cstdio>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "aec_policies/aecrulespolicy.h"
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

void BM_RulesPolicySetValueApply(benchmark::State& state) {
  const int rules = static_cast<int>(state.range(0));
  const pt::ptree value = PolicyValue(rules);
  for (auto _ : state) {
    state.PauseTiming();
    ClearDirectory(kRulesDir);
    AecRulesPolicy policy;
    state.ResumeTiming();
    policy.SetValue(value);
    if (!policy.Apply()) state.SkipWithError("Apply failed");
  }
  state.SetItemsProcessed(state.iterations() * rules);
}

void BM_PlainWriteAndSync(benchmark::State& state) {
  const int rules = static_cast<int>(state.range(0));
  std::vector<std::pair<std::string, std::string>> files;
  for (int i = 0; i < rules; ++i) {
    std::ostringstream text;
    pt::write_json(text, RuleTree(i), true);
    files.emplace_back(kPlainDir + "rule-" + std::to_string(i) + ".conf",
                       text.str());
  }
  for (auto _ : state) {
    state.PauseTiming();
    ClearDirectory(kPlainDir);
    state.ResumeTiming();
    for (const auto& file : files) {
      const int fd = ::open(file.first.c_str(),
                            O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
      if (fd < 0 || ::write(fd, file.second.data(), file.second.size()) !=
                        static_cast<ssize_t>(file.second.size())) {
        state.SkipWithError("plain write failed");
      }
      if (fd >= 0) ::close(fd);
    }
    const int dir = ::open(kPlainDir.c_str(), O_RDONLY | O_DIRECTORY);
    ::syncfs(dir);
    ::close(dir);
  }
  state.SetItemsProcessed(state.iterations() * rules);
}

BENCHMARK(BM_RulesPolicySetValueApply)
    ->Arg(100)
    ->Arg(1000)
    ->Arg(10000)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
BENCHMARK(BM_PlainWriteAndSync)
    ->Arg(100)
    ->Arg(1000)
    ->Arg(10000)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

// Keeps the real time per iteration of every run for the summary.
class CollectingReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const auto& run : runs) {
      if (run.error_occurred) continue;
      // With --benchmark_repetitions the median of the repetitions is
      // reported after them and replaces their times.
      const bool median =
          run.run_type == Run::RT_Aggregate && run.aggregate_name == "median";
      if (run.run_type != Run::RT_Iteration && !median) continue;
      const std::string name = run.run_name.function_name;
      const int size = std::stoi(run.run_name.args);
      times_[name][size] = run.GetAdjustedRealTime();
    }
    ConsoleReporter::ReportRuns(runs);
  }
  void PrintSummary() const {
    const auto policy = times_.find("BM_RulesPolicySetValueApply");
    const auto plain = times_.find("BM_PlainWriteAndSync");
    if (policy == times_.end() || plain == times_.end()) return;
    std::printf(
        "\nrules  policy(ms)  plain(ms)  ratio  policy growth  plain growth\n");
    double previous_policy = 0, previous_plain = 0;
    for (const auto& entry : policy->second) {
      const auto other = plain->second.find(entry.first);
      if (other == plain->second.end()) continue;
      std::printf("%5d  %10.2f  %9.2f  %5.2f", entry.first, entry.second,
                  other->second, entry.second / other->second);
      if (previous_policy > 0) {
        std::printf("  %13.2f  %12.2f", entry.second / previous_policy,
                    other->second / previous_plain);
      }
      std::printf("\n");
      previous_policy = entry.second;
      previous_plain = other->second;
    }
  }

 private:
  std::map<std::string, std::map<int, double>> times_;
};

}  // namespace

int main(int argc, char** argv) {
  char root[] = "/tmp/kxbench-rules-XXXXXX";
  if (::mkdtemp(root) == nullptr) {
    std::perror("mkdtemp");
    return 2;
  }
  kxhost::SeedFreshInstall(root);
  kxhost::EnterSandbox(root);
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
  fs::remove_all(root);
  return 0;
}
