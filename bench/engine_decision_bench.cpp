// The engine's decision alone, over every regular file under a few system
// directories, as a program start, a library load or a file open by what
// the file is. Not a timed test: run by hand or by scripts/bench-engine.sh;
// the figures go to docs/performance.md.
//
// The tables hold a rule set made from the same list: every other file is a
// resource of one of --rules rules (a third of them for all users, the rest
// for a uid or a gid), a few hundred files are exceptions, the whitelist
// names users the events never carry. Each decision is what the daemon does
// per event once fanotify has handed over the file: the identity check
// (Tables::Verify, a stat only for a hard link or a replaced resource) and
// Decide. Building the tables (stat of every resource) is timed apart.
//
//   engine_decision_bench [--dirs=/usr/bin,/usr/lib,/usr/share]
//                         [--passes=5] [--rules=1000]
//   engine_decision_bench --large-set=1000000
//       only builds tables of that many resources (paths naming no file) and
//       reports the time and resident memory
//
// Goal: under 2 microseconds a file, on average over the list.
#include <ftw.h>
#include <sys/stat.h>
#include <time.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <sstream>
#include <string>
#include <vector>

#include "decision.h"
#include "support/child_process.h"
#include "support/machine_load.h"
#include "tables.h"

namespace {

using aec::engine::Access;
using aec::engine::Control;
using aec::engine::Decide;
using aec::engine::Event;
using aec::engine::FileId;
using aec::engine::RuleSetInput;
using aec::engine::Tables;
using aec::engine::Verdict;
using Clock = std::chrono::steady_clock;

std::vector<std::pair<std::string, FileId>>* g_files = nullptr;

int Collect(const char* path, const struct stat* info, int type, FTW*) {
  if (type == FTW_F && S_ISREG(info->st_mode)) {
    g_files->emplace_back(path,
                          FileId{static_cast<std::uint64_t>(info->st_dev),
                                 static_cast<std::uint64_t>(info->st_ino)});
  }
  return 0;
}

bool EndsWithSharedObject(const std::string& path) {
  return path.find(".so") != std::string::npos;
}

double Micros(Clock::duration d) {
  return std::chrono::duration<double, std::micro>(d).count();
}

// This thread's processor time in microseconds: on a shared machine the wall
// clock also counts the time other processes held the processor.
double ThreadCpuMicros() {
  timespec now;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) * 1e6 +
         static_cast<double>(now.tv_nsec) / 1e3;
}

std::size_t g_stat_calls = 0;

// The daemon's resolver, counted: a decision that needs a stat is the
// expensive kind.
bool CountingResolver(const std::string& path, FileId* id) {
  ++g_stat_calls;
  return aec::engine::StatResolver(path, id);
}

// Resident memory of this process now, in MiB (VmRSS), or -1.
double ResidentMiB() {
  FILE* status = std::fopen("/proc/self/status", "r");
  if (status == nullptr) return -1;
  char line[256];
  double kib = -1;
  while (std::fgets(line, sizeof line, status) != nullptr) {
    if (std::sscanf(line, "VmRSS: %lf kB", &kib) == 1) break;
  }
  std::fclose(status);
  return kib < 0 ? -1 : kib / 1024;
}

// Tables of `count` resources over `count / 100` rules, built from paths
// that name no file (each kept by path, no stat): the cost of the tables
// themselves, apart from the file system.
void MeasureLargeSet(std::size_t count) {
  RuleSetInput input;
  input.rules.resize(std::max<std::size_t>(1, count / 100));
  for (std::size_t r = 0; r < input.rules.size(); ++r) {
    input.rules[r].name = "rule" + std::to_string(r);
    input.rules[r].enabled = true;
    input.rules[r].all_users = true;
  }
  for (std::size_t i = 0; i < count; ++i) {
    input.rules[i % input.rules.size()].resources.push_back(
        "/nonexistent/kxbench/dir" + std::to_string(i % 997) + "/file" +
        std::to_string(i));
  }
  const double before = ResidentMiB();
  const auto start = Clock::now();
  auto tables = Tables::Build(input, [](const std::string&, FileId*) {
    return false;
  });
  const double ms = Micros(Clock::now() - start) / 1000;
  const double after = ResidentMiB();
  std::printf(
      "large set: %zu resources in %zu rules built in %.1f ms; resident "
      "%.1f MiB before, %.1f MiB after (the rule-set input itself included)\n",
      tables->resource_count(), input.rules.size(), ms, before, after);
}

}  // namespace

int main(int argc, char** argv) {
  std::string dirs = "/usr/bin,/usr/lib,/usr/share";
  int passes = 5;
  int rule_count = 1000;
  std::size_t large_set = 0;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    try {
      if (arg == "--help" || arg == "-h") {
        std::printf(
            "usage: engine_decision_bench [--dirs=A,B,...] "
            "[--passes=N] [--rules=N] | --large-set=N\n");
        return 0;
      } else if (arg.rfind("--dirs=", 0) == 0) {
        dirs = arg.substr(7);
      } else if (arg.rfind("--passes=", 0) == 0) {
        passes = std::stoi(arg.substr(9));
      } else if (arg.rfind("--rules=", 0) == 0) {
        rule_count = std::stoi(arg.substr(8));
      } else if (arg.rfind("--large-set=", 0) == 0) {
        large_set = std::stoul(arg.substr(12));
      } else {
        std::fprintf(stderr, "engine_decision_bench: unknown argument %s\n",
                     arg.c_str());
        return 2;
      }
    } catch (const std::exception&) {
      std::fprintf(stderr, "engine_decision_bench: bad number in %s\n",
                   arg.c_str());
      return 2;
    }
  }
  if (large_set > 0) {
    MeasureLargeSet(large_set);
    return 0;
  }
  if (passes < 1 || rule_count < 1) {
    std::fprintf(stderr,
                 "engine_decision_bench: --passes and --rules must be >= 1\n");
    return 2;
  }

  std::vector<std::pair<std::string, FileId>> files;
  g_files = &files;
  std::stringstream list(dirs);
  std::string dir;
  while (std::getline(list, dir, ',')) {
    if (nftw(dir.c_str(), Collect, 64, FTW_PHYS) != 0) {
      std::fprintf(stderr, "engine_decision_bench: cannot walk %s\n",
                   dir.c_str());
    }
  }
  if (files.empty()) {
    std::fprintf(stderr, "engine_decision_bench: no files found\n");
    return 2;
  }

  RuleSetInput input;
  input.version = "bench";
  input.rules.resize(static_cast<std::size_t>(rule_count));
  for (int r = 0; r < rule_count; ++r) {
    auto& rule = input.rules[static_cast<std::size_t>(r)];
    rule.name = "rule" + std::to_string(r);
    rule.enabled = true;
    if (r % 3 == 0) {
      rule.all_users = true;
    } else if (r % 3 == 1) {
      rule.uids = {static_cast<std::uint32_t>(1000 + r % 7)};
    } else {
      rule.gids = {static_cast<std::uint32_t>(100 + r % 5)};
    }
  }
  for (std::size_t i = 0; i < files.size(); i += 2) {
    input.rules[(i / 2) % input.rules.size()].resources.push_back(
        files[i].first);
  }
  for (std::size_t i = 1; i < files.size(); i += 97) {
    input.exceptions.push_back(files[i].first);
  }
  input.whitelist_uids = {0, 4242};
  input.whitelist_gids = {4243};

  auto start = Clock::now();
  const auto tables = Tables::Build(input, aec::engine::StatResolver);
  const double build_ms = Micros(Clock::now() - start) / 1000;

  std::vector<Event> events(files.size());
  for (std::size_t i = 0; i < files.size(); ++i) {
    Event& event = events[i];
    event.file = files[i].second;
    event.path = files[i].first;
    const bool program = event.path.rfind("/usr/bin/", 0) == 0;
    event.access = program ? Access::kExec : Access::kOpen;
    event.is_shared_object = !program && EndsWithSharedObject(event.path);
    event.uid = 1000 + static_cast<std::uint32_t>(i % 7);
    event.gids = {event.uid, 100 + static_cast<std::uint32_t>(i % 5)};
  }
  const Control control{true, true};

  // Whole passes without a clock per call: the average cost a file.
  std::size_t denied = 0;
  std::vector<double> per_file_us;
  std::vector<double> per_file_cpu_us;
  for (int pass = 0; pass < passes; ++pass) {
    std::size_t pass_denied = 0;
    g_stat_calls = 0;
    start = Clock::now();
    const double cpu_start = ThreadCpuMicros();
    for (const Event& event : events) {
      tables->Verify(event.file, event.path, CountingResolver);
      if (Decide(event, *tables, control).verdict == Verdict::kDeny) {
        ++pass_denied;
      }
    }
    per_file_us.push_back(Micros(Clock::now() - start) /
                          static_cast<double>(events.size()));
    per_file_cpu_us.push_back((ThreadCpuMicros() - cpu_start) /
                              static_cast<double>(events.size()));
    denied = pass_denied;
  }
  // One more pass with a clock around each decision, for the spread.
  std::vector<double> each_us;
  std::size_t denied_timed = 0;
  each_us.reserve(events.size());
  for (const Event& event : events) {
    const auto t0 = Clock::now();
    tables->Verify(event.file, event.path, CountingResolver);
    const auto decision = Decide(event, *tables, control);
    const auto t1 = Clock::now();
    if (decision.verdict == Verdict::kDeny) ++denied_timed;
    each_us.push_back(Micros(t1 - t0));
  }
  const double best = *std::min_element(per_file_us.begin(), per_file_us.end());
  const double median = kxbench::Percentile(per_file_us, 50);
  const double cpu_median = kxbench::Percentile(per_file_cpu_us, 50);
  const double p50 = kxbench::Percentile(each_us, 50);
  const double p99 = kxbench::Percentile(each_us, 99);
  const double slowest = each_us.back();

  std::printf("files %zu (from %s), rules %d, resources %zu, exceptions %zu\n",
              files.size(), dirs.c_str(), rule_count, tables->resource_count(),
              input.exceptions.size());
  std::printf("load average %s\n", kxbench::LoadAverage().c_str());
  std::printf("tables built (stat of every resource) in %.1f ms\n", build_ms);
  std::printf("denied %zu of %zu in hard mode (timed pass: %zu)\n", denied,
              events.size(), denied_timed);
  std::printf(
      "average a file over %d passes: wall median %.3f us (best %.3f),"
      " processor %.3f us; stat calls in the last pass %zu\n",
      passes, median, best, cpu_median, g_stat_calls);
  std::printf(
      "one decision timed alone (wall): p50 %.3f us  p99 %.3f us  "
      "max %.1f us\n",
      p50, p99, slowest);
  std::printf("goal under 2 us a file (wall, median pass): %s\n",
              median < 2.0 ? "met" : "NOT met");
  return 0;
}
