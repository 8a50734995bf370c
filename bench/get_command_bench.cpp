// The "get" command listing all rules (plugin_exec of
// <request command="get"><rule/></request>, reply sent through the host) with
// 1,000 and 10,000 rule files, against one `cat` process reading the same
// files to /dev/null in the same run. Medians of several repetitions; the
// ratio get/cat is printed at the end (goal: at most 4 at 10,000 files, in
// real time; the program exits 1 when it is missed).
// Runs in a sandboxed install root made with mkdtemp. Not a timed test: run by
// hand (or scripts/bench.sh).
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <boost/filesystem.hpp>
#include <boost/property_tree/json_parser.hpp>
#include <cstdio>
#include <functional>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "host/ixml.h"
#include "host/plugin_api.h"
#include "lib/fresh_install.h"
#include "lib/runtime.h"
#include "lib/sandbox.h"
#include "lib/xml_document.h"

extern char** environ;

namespace fs = boost::filesystem;
namespace pt = boost::property_tree;

namespace {

const std::string kRulesDir = "/opt/korvex/etc/aec/rules/";
const char* const kGetAllRules = "<request command=\"get\"><rule/></request>";

std::string RuleJson(int index) {
  auto list = [](const std::vector<std::string>& items) {
    pt::ptree node;
    for (const auto& item : items) node.push_back({"", pt::ptree(item)});
    return node;
  };
  const std::string name = "rule-" + std::to_string(index);
  pt::ptree rule;
  rule.put("name", name);
  rule.put("all_allowed", "false");
  rule.put("extended", index % 7 == 0 ? "true" : "false");
  rule.put("system", "false");
  rule.put("enable", "true");
  rule.add_child("user_list", list({"user" + std::to_string(index % 300),
                                    "user" + std::to_string(index % 17)}));
  rule.add_child("group_list", list({"group" + std::to_string(index % 60)}));
  rule.add_child("resource_list",
                 list({"/usr/bin/tool" + std::to_string(index),
                       "/usr/lib/libtool" + std::to_string(index) + ".so",
                       "/opt/app/" + name + "/bin/run"}));
  std::ostringstream out;
  pt::write_json(out, rule, true);
  return out.str();
}

// The rules directory holds exactly `count` rule files; rewritten only when
// the count changes, so both sides of a size read the same files.
int g_rule_count = -1;
std::vector<std::string> g_files;

void PrepareRules(int count) {
  if (count == g_rule_count) return;
  fs::remove_all(kRulesDir);
  fs::create_directories(kRulesDir);
  g_files.clear();
  for (int i = 0; i < count; ++i) {
    const std::string path = kRulesDir + "rule-" + std::to_string(i) + ".conf";
    std::FILE* file = std::fopen(path.c_str(), "w");
    const std::string text = RuleJson(i);
    std::fwrite(text.data(), 1, text.size(), file);
    std::fclose(file);
  }
  for (const auto& entry : fs::directory_iterator(kRulesDir)) {
    g_files.push_back(entry.path().string());
  }
  g_rule_count = count;
}

// One run of the command as the host runs it; the reply as kxhost prints it.
int ExecGet(std::string* reply) {
  parsed_xml_data_t request;
  request.xml = kxhost::ParseXml(kGetAllRules);
  request.reply = XMLParserBoost::CreateEmptyXML();
  plugin_exec(&request);
  if (reply != nullptr) {
    *reply = request.reply->ToString("reply");
  }
  return request.outcome;
}

std::map<int, std::size_t> g_digests;

void BM_GetAllRules(benchmark::State& state) {
  const int count = static_cast<int>(state.range(0));
  PrepareRules(count);
  std::string reply;
  if (ExecGet(&reply) != 1) {
    state.SkipWithError("get was not answered");
    return;
  }
  const auto rules =
      kxhost::ParseXml(reply)->GetNode("get")->GetNode("rules");
  if (!rules || rules->CountChildren("rule") != static_cast<std::size_t>(count)) {
    state.SkipWithError("get did not list every rule");
    return;
  }
  // The same digest before and after a change of the plug-in means the
  // same reply, byte for byte.
  g_digests[count] = std::hash<std::string>()(reply);
  for (auto _ : state) {
    benchmark::DoNotOptimize(ExecGet(nullptr));
    // The host keeps every event (with its reply) in memory; not ours to
    // time, and it would grow without bound.
    state.PauseTiming();
    kxhost::ClearEvents();
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * count);
}

// One `cat` over every rule file, output to /dev/null. Its CPU time (user and
// system, from wait4) is kept as a counter: on a loaded machine the CPU times
// compare more steadily than the real times.
void BM_CatAllFiles(benchmark::State& state) {
  const int count = static_cast<int>(state.range(0));
  PrepareRules(count);
  std::vector<char*> argv;
  std::string cat = "/bin/cat";
  argv.push_back(&cat[0]);
  for (auto& file : g_files) argv.push_back(&file[0]);
  argv.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null",
                                   O_WRONLY, 0);
  double child_cpu_ms = 0;
  for (auto _ : state) {
    pid_t pid = 0;
    if (posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ) !=
        0) {
      state.SkipWithError("cannot start cat");
      break;
    }
    int status = 0;
    struct rusage usage {};
    wait4(pid, &status, 0, &usage);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
      state.SkipWithError("cat failed");
      break;
    }
    child_cpu_ms += (usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) * 1e3 +
                    (usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e3;
  }
  posix_spawn_file_actions_destroy(&actions);
  state.counters["cat_cpu_ms"] =
      benchmark::Counter(child_cpu_ms, benchmark::Counter::kAvgIterations);
  state.SetItemsProcessed(state.iterations() * count);
}

BENCHMARK(BM_GetAllRules)
    ->Arg(1000)
    ->Arg(10000)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->Repetitions(5)
    ->ReportAggregatesOnly(true);
BENCHMARK(BM_CatAllFiles)
    ->Arg(1000)
    ->Arg(10000)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->Repetitions(5)
    ->ReportAggregatesOnly(true);

// Keeps the median real and CPU times of every benchmark for the summary
// (for cat, the CPU time is the child's).
class CollectingReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const auto& run : runs) {
      if (run.run_type != Run::RT_Aggregate || run.aggregate_name != "median" ||
          run.error_occurred) {
        continue;
      }
      const std::string name = run.run_name.function_name;
      const std::string args = run.run_name.args;
      Times& times = medians_[name][std::stoi(args)];
      times.real = run.GetAdjustedRealTime();
      const auto cat_cpu = run.counters.find("cat_cpu_ms");
      times.cpu = cat_cpu != run.counters.end() ? cat_cpu->second.value
                                                : run.GetAdjustedCPUTime();
    }
    ConsoleReporter::ReportRuns(runs);
  }

  // 0 when the goal is met (or could not be judged), 1 when missed.
  int PrintSummary() const {
    const auto get = medians_.find("BM_GetAllRules");
    const auto cat = medians_.find("BM_CatAllFiles");
    if (get == medians_.end() || cat == medians_.end()) return 0;
    std::printf(
        "\n            medians in ms, real time         CPU time\n"
        "rule files      get      cat  get/cat       get      cat  get/cat\n");
    int missed = 0;
    for (const auto& entry : get->second) {
      const auto other = cat->second.find(entry.first);
      if (other == cat->second.end()) continue;
      const Times& g = entry.second;
      const Times& c = other->second;
      const double ratio = g.real / c.real;
      std::printf("%10d %8.2f %8.2f %8.2f  %8.2f %8.2f %8.2f\n", entry.first,
                  g.real, c.real, ratio, g.cpu, c.cpu, g.cpu / c.cpu);
      if (entry.first == 10000 && ratio > 4.0) missed = 1;
    }
    for (const auto& digest : g_digests) {
      std::printf("reply digest at %d rule files: %016zx\n", digest.first,
                  digest.second);
    }
    std::printf("goal (real time, get <= 4 x cat at 10000 files): %s\n",
                missed ? "MISSED" : "met");
    return missed;
  }

 private:
  struct Times {
    double real = 0;
    double cpu = 0;
  };
  std::map<std::string, std::map<int, Times>> medians_;
};

}  // namespace

int main(int argc, char** argv) {
  char root[] = "/tmp/kxbench-get-XXXXXX";
  if (::mkdtemp(root) == nullptr) {
    std::perror("mkdtemp");
    return 2;
  }
  kxhost::MakeRootLayout(root);
  kxhost::SeedFreshInstall(root);
  kxhost::EnterSandbox(root);
  kxhost::RuntimeOptions options;
  options.sysctl_root = "/opt/korvex/var/run/sysctl";
  kxhost::Configure(options);
  if (plugin_init() != 0) {
    std::fprintf(stderr, "plugin_init failed\n");
    return 2;
  }

  benchmark::Initialize(&argc, argv);
  CollectingReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  const int missed = reporter.PrintSummary();
  benchmark::Shutdown();
  plugin_exit();
  fs::remove_all(root);
  return missed;
}
