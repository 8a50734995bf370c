// What a large loaded set costs kxaecd: the time to take a set of
// --resources resources (parsing the file, resolving every resource, building
// the tables), the memory it holds, and how long a decision waits while a
// new set is taken. Not a timed test: run by hand as root; the figures go to
// docs/performance.md ("E4").
//
// In its own private mount namespace (kxhost's sandbox, a scratch root at
// /opt/korvex) with a tmpfs that is the only mount kxaecd marks. kxaecd
// runs in hard mode. A thread starts a small program on the tmpfs (a
// resource of the set) over and over and times each start, while the set
// is replaced --reloads times by renaming a new file over it, as kxaecctl
// does. The starts that overlap a reload are compared with the others: a
// start that waits for a decision shows as a long start.
//
//   engine_reload_bench [--resources=1000000] [--rules=10000] [--reloads=3]
#include <fcntl.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "support/child_process.h"
#include "support/engine_sandbox.h"
#include "support/machine_load.h"

namespace {

using Clock = std::chrono::steady_clock;

[[noreturn]] void Die(const std::string& what) {
  std::fprintf(stderr, "engine_reload_bench: %s: %s\n", what.c_str(),
               std::strerror(errno));
  std::exit(2);
}

double Ms(Clock::duration d) {
  return std::chrono::duration<double, std::milli>(d).count();
}

constexpr const char kLoadedSet[] = "/opt/korvex/var/lib/aec/loaded-rules";

// `rules` enabled rules for all users sharing `resources` resources, paths
// that name no file (as a set naming programs not installed here); the
// first rule also holds `program`. `variant` adds one rule more, so that
// each reload brings a different set.
void WriteLoadedSet(int rules, long resources, const std::string& program,
                    int variant) {
  const std::string tmp = std::string(kLoadedSet) + ".new";
  FILE* out = std::fopen(tmp.c_str(), "w");
  if (out == nullptr) Die("write " + tmp);
  std::fprintf(out, "format\t1\n");
  const long per_rule = std::max(1L, resources / rules);
  for (int r = 0; r < rules; ++r) {
    std::fprintf(out, "rule\tr%06d\t1\t1\t0\t0\n", r);
    if (r == 0)
      std::fprintf(out, "rule-resource\tr000000\t%s\n", program.c_str());
    for (long i = 0; i < per_rule; ++i) {
      std::fprintf(out, "rule-resource\tr%06d\t/usr/local/kxbench/r%d/f%ld\n",
                   r, r, i);
    }
  }
  for (int v = 0; v < variant; ++v) {
    std::fprintf(out, "rule\textra%d\t1\t1\t0\t0\n", v);
  }
  if (std::fclose(out) != 0) Die("write " + tmp);
  if (rename(tmp.c_str(), kLoadedSet) != 0) Die("rename " + tmp);
}

// The version the engine gives the loaded set now on disk (its log says
// "loaded set VERSION: ..." once that set is in force): the file's
// modification time and size.
std::string VersionOnDisk() {
  struct stat st;
  if (stat(kLoadedSet, &st) != 0) Die(std::string("stat ") + kLoadedSet);
  return std::to_string(st.st_mtim.tv_sec) + "." +
         std::to_string(st.st_mtim.tv_nsec / 1000000) + "-" +
         std::to_string(st.st_size);
}

long StatusKib(pid_t pid, const char* field) {
  const std::string text =
      kxbench::Slurp("/proc/" + std::to_string(pid) + "/status");
  const auto at = text.find(field);
  return at == std::string::npos
             ? -1
             : std::atol(text.c_str() + at + std::strlen(field));
}

struct Start {
  Clock::time_point begin, end;
};

// Waits until the set of `version` is in force; the time it took.
double WaitForSet(const std::string& log, const std::string& version,
                  pid_t engine) {
  const auto start = Clock::now();
  const std::string line = "loaded set " + version + ":";
  while (kxbench::Slurp(log).find(line) == std::string::npos) {
    int status = 0;
    if (waitpid(engine, &status, WNOHANG) == engine) {
      std::fprintf(stderr, "engine_reload_bench: kxaecd ended:\n%s",
                   kxbench::Slurp(log).c_str());
      std::exit(2);
    }
    if (Clock::now() - start > std::chrono::seconds(120)) {
      kill(engine, SIGKILL);
      waitpid(engine, nullptr, 0);
      std::fprintf(stderr,
                   "engine_reload_bench: set %s not taken in 120 s:\n%s",
                   version.c_str(), kxbench::Slurp(log).c_str());
      std::exit(2);
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return Ms(Clock::now() - start);
}

double Percentile(std::vector<double> values, double p) {
  return values.empty() ? 0 : kxbench::Percentile(values, p);
}

}  // namespace

int main(int argc, char** argv) {
  long resources = 1000000;
  int rules = 10000;
  int reloads = 3;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--help" || arg == "-h") {
      std::printf(
          "usage: engine_reload_bench [--resources=N] [--rules=N] "
          "[--reloads=N]\nRuns as root in its own mount namespace on its own "
          "tmpfs.\n");
      return 0;
    } else if (arg.rfind("--resources=", 0) == 0) {
      resources = std::atol(arg.c_str() + 12);
    } else if (arg.rfind("--rules=", 0) == 0) {
      rules = std::atoi(arg.c_str() + 8);
    } else if (arg.rfind("--reloads=", 0) == 0) {
      reloads = std::atoi(arg.c_str() + 10);
    } else {
      std::fprintf(stderr, "engine_reload_bench: unknown argument %s\n",
                   arg.c_str());
      return 2;
    }
  }
  if (resources < 1 || rules < 1 || reloads < 1) {
    std::fprintf(stderr, "engine_reload_bench: counts must be >= 1\n");
    return 2;
  }
  const kxbench::EngineSandbox sandbox = kxbench::EnterEngineSandbox(
      "engine_reload_bench", "kxreload-bench-", "64m");
  const std::string& scratch = sandbox.scratch;
  const std::string& dir = sandbox.dir;
  const std::string log = scratch + "/kxaecd.log";
  const std::string program = dir + "/prog";
  if (kxbench::RunChild({"/bin/cp", "/bin/true", program}).exit_code != 0 ||
      kxbench::RunChild({"/bin/mkdir", "-p", "/opt/korvex/var/lib/aec",
                         "/opt/korvex/var/run/sysctl/korvex/secure"})
              .exit_code != 0) {
    Die("prepare the sandbox");
  }
  std::ofstream("/opt/korvex/var/run/sysctl/korvex/secure/environment")
      << "3\n";  // control on, hard mode
  std::ofstream("/opt/korvex/var/run/sysctl/korvex/secure/secenv_verbose")
      << "15\n";
  std::printf("load average at the start %s\n", kxbench::LoadAverage().c_str());
  const auto written = Clock::now();
  WriteLoadedSet(rules, resources, program, 0);
  std::printf("loaded set of %ld resources in %d rules written in %.0f ms\n",
              resources, rules, Ms(Clock::now() - written));

  const pid_t engine = kxbench::LaunchEngine(KX_KXAECD_PATH, dir, log, {"-v"});
  const double first_load = WaitForSet(log, VersionOnDisk(), engine);
  // The daemon marks the tmpfs after taking its first set; a start that is
  // refused now means it is not enforcing this set.
  std::this_thread::sleep_for(std::chrono::milliseconds(500));
  std::printf(
      "first set in force %.0f ms after kxaecd started; VmRSS %ld KiB\n",
      first_load, StatusKib(engine, "VmRSS:"));

  std::atomic<bool> stop{false};
  std::vector<Start> starts;
  int failed = 0;
  std::thread starter([&] {
    while (!stop.load()) {
      Start s;
      s.begin = Clock::now();
      const pid_t pid = fork();
      if (pid < 0) Die("fork");
      if (pid == 0) {
        char* const args[] = {const_cast<char*>(program.c_str()), nullptr};
        execv(args[0], args);
        _exit(127);
      }
      int status = 0;
      waitpid(pid, &status, 0);
      s.end = Clock::now();
      if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) ++failed;
      starts.push_back(s);
    }
  });

  std::vector<std::pair<Clock::time_point, Clock::time_point>> windows;
  std::vector<double> reload_ms;
  std::this_thread::sleep_for(std::chrono::seconds(2));  // starts alone
  for (int r = 1; r <= reloads; ++r) {
    // The new file is written before the clock starts: writing it is the
    // tool's work, taking it the engine's.
    WriteLoadedSet(rules, resources, program, r);
    const auto begin = Clock::now();
    reload_ms.push_back(WaitForSet(log, VersionOnDisk(), engine));
    windows.emplace_back(begin, Clock::now());
    std::this_thread::sleep_for(std::chrono::seconds(2));
  }
  stop.store(true);
  starter.join();
  const long rss = StatusKib(engine, "VmRSS:");
  const long hwm = StatusKib(engine, "VmHWM:");
  kill(engine, SIGTERM);
  waitpid(engine, nullptr, 0);

  std::vector<double> during, outside;
  for (const Start& s : starts) {
    bool overlaps = false;
    for (const auto& [begin, end] : windows) {
      overlaps = overlaps || (s.begin < end && s.end > begin);
    }
    (overlaps ? during : outside).push_back(Ms(s.end - s.begin));
  }
  std::printf("load average at the end %s\n", kxbench::LoadAverage().c_str());
  for (std::size_t r = 0; r < reload_ms.size(); ++r) {
    std::printf("reload %zu: new set in force %.0f ms after the rename\n",
                r + 1, reload_ms[r]);
  }
  std::printf("kxaecd VmRSS %ld KiB, peak VmHWM %ld KiB\n", rss, hwm);
  std::printf(
      "program starts: %zu outside reloads p50 %.2f ms p99 %.2f ms max %.2f "
      "ms; %zu during reloads p50 %.2f ms p99 %.2f ms max %.2f ms; "
      "%d failed\n",
      outside.size(), Percentile(outside, 50), Percentile(outside, 99),
      outside.empty() ? 0 : *std::max_element(outside.begin(), outside.end()),
      during.size(), Percentile(during, 50), Percentile(during, 99),
      during.empty() ? 0 : *std::max_element(during.begin(), during.end()),
      failed);
  umount2(dir.c_str(), MNT_DETACH);
  kxbench::RunChild({"/bin/rm", "-rf", scratch});
  return failed == 0 ? 0 : 1;
}
