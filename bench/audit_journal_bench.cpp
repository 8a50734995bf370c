// "log" and "loglist" over generated journals of 100,000 and 1,000,000 rows,
// each against the sqlite3 command-line shell running the same SELECT
// statements on the same file in the same run (output to /dev/null, wall
// clock, repetitions interleaved at random, medians compared). Also measures
// the peak memory of one command in a child forked from this process, and
// the whole process's own peak at the end. The journals are generated in
// child processes, so the generator's memory is nobody's peak here.
//
//   audit_journal_bench [--journal_rows=100000,1000000] [benchmark flags]
//
// Goals at 1,000,000 rows: at most 1.2 times the shell's median, and a peak
// of at most 64 MiB. Not a timed test: run by hand or scripts/bench-journal.sh.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <boost/filesystem.hpp>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <map>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "aec_audit_journal.h"
#include "aec_commands.h"
#include "aec_paths.h"
#include "lib/sandbox.h"
#include "lib/xml_document.h"
#include "journal_generator.h"

namespace {

constexpr const char* kShell = "/usr/bin/sqlite3";
constexpr double kGoalRatio = 1.2;
constexpr double kGoalPeakMiB = 64.0;

std::string g_scratch;  // outside the sandbox's view: the journals live here
kxjournal::JournalShape g_shape;

std::string JournalFile(std::size_t rows) {
  return g_scratch + "/journal-" + std::to_string(rows) + ".db";
}

// The command's journal is the generated file of that size.
void UseJournal(std::size_t rows) {
  unlink(aec::kAuditDbPath.c_str());
  if (symlink(JournalFile(rows).c_str(), aec::kAuditDbPath.c_str()) != 0) {
    throw std::runtime_error("cannot link the journal");
  }
}

// The whole time span of a generated journal, every outcome: the largest
// answer a client can ask for.
struct Bounds {
  std::string from = std::to_string(kxjournal::FirstTime(g_shape));
  std::string to = std::to_string(kxjournal::EndTime(g_shape));
};

std::vector<std::pair<std::string, std::string>> LogParams() {
  const Bounds b;
  return {{"inittime", b.from}, {"finaltime", b.to},
          {"operationresult", "all"}, {"openfiles", "1"}};
}

std::vector<std::pair<std::string, std::string>> LogListParams() {
  const Bounds b;
  return {{"inittime", b.from}, {"finaltime", b.to},
          {"operationresult", "all"}, {"users", "1"},
          {"groups", "1"},        {"execfiles", "1"}};
}

// The statements the handlers run for the parameters above.
std::string LogSql() {
  const Bounds b;
  aec::LogFilter filter;
  filter.inittime = b.from.c_str();
  filter.finaltime = b.to.c_str();
  filter.operationresult = "all";
  const std::string conditions = aec::LogConditions(filter);
  return aec::LogObjectsQuery(conditions) + "; " +
         aec::LogFilesQuery(conditions, true) + ";";
}

std::string LogListSql() {
  const Bounds b;
  const std::string where =
      aec::LogListWhere(b.from.c_str(), b.to.c_str(), "all");
  std::string sql;
  for (const char* column : {"username", "groupname", "app"}) {
    sql += std::string("SELECT DISTINCT ") + column + " FROM logs " + where +
           "; ";
  }
  return sql;
}

// Runs one command through its handler; returns the number of values in the
// answer, or -1 when it failed.
long RunCommand(void (*handler)(parsed_xml_data_t*), const std::string& name,
                const std::vector<std::pair<std::string, std::string>>& params) {
  parsed_xml_data_t record;
  record.xml = XMLParserBoost::CreateEmptyXML();
  record.xml->SetCommand(name);
  for (const auto& [key, value] : params) record.xml->AddValue(key, value, false);
  record.reply = XMLParserBoost::CreateEmptyXML();
  handler(&record);
  const auto& result = kxhost::TreeOf(*record.reply).get_child(name);
  if (result.get<std::string>("result", "") != "1") return -1;
  long values = 0;
  for (const auto& list : result) {
    if (list.first != "result") values += static_cast<long>(list.second.size());
  }
  return values;
}

// Runs the shell on the journal with `sql`, output to /dev/null; true when it
// exited 0.
bool RunShell(std::size_t rows, const std::string& sql) {
  const std::string file = JournalFile(rows);
  const pid_t pid = fork();
  if (pid < 0) return false;
  if (pid == 0) {
    const int null = open("/dev/null", O_WRONLY);
    if (null < 0) _exit(126);
    dup2(null, STDOUT_FILENO);
    execl(kShell, kShell, "-batch", "-init", "/dev/null", file.c_str(),
          sql.c_str(), static_cast<char*>(nullptr));
    _exit(127);
  }
  int status = 0;
  if (waitpid(pid, &status, 0) != pid) return false;
  return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

double CpuMs(int who) {
  rusage usage{};
  getrusage(who, &usage);
  return (usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) * 1e3 +
         (usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e3;
}

// Processor time (user + system) of the loop, this process's or its reaped
// children's: with other work on the machine, wall clock and processor time
// tell different parts of the story, so both are kept.
class CpuClock {
 public:
  explicit CpuClock(int who) : who_(who), start_(CpuMs(who)) {}
  double ElapsedMs() const { return CpuMs(who_) - start_; }

 private:
  int who_;
  double start_;
};

void BM_Log(benchmark::State& state) {
  const auto rows = static_cast<std::size_t>(state.range(0));
  UseJournal(rows);
  const auto params = LogParams();
  long values = 0;
  const CpuClock cpu(RUSAGE_SELF);
  for (auto _ : state) values = RunCommand(aec::HandleLog, "log", params);
  if (values < 0) state.SkipWithError("log failed");
  state.counters["values"] = static_cast<double>(values);
  state.counters["cpu_ms"] = cpu.ElapsedMs();
}

void BM_LogShell(benchmark::State& state) {
  const auto rows = static_cast<std::size_t>(state.range(0));
  const std::string sql = LogSql();
  bool ok = true;
  const CpuClock cpu(RUSAGE_CHILDREN);
  for (auto _ : state) ok = RunShell(rows, sql) && ok;
  if (!ok) state.SkipWithError("sqlite3 failed");
  state.counters["cpu_ms"] = cpu.ElapsedMs();
}

void BM_LogList(benchmark::State& state) {
  const auto rows = static_cast<std::size_t>(state.range(0));
  UseJournal(rows);
  const auto params = LogListParams();
  long values = 0;
  const CpuClock cpu(RUSAGE_SELF);
  for (auto _ : state) {
    values = RunCommand(aec::HandleLogList, "loglist", params);
  }
  if (values < 0) state.SkipWithError("loglist failed");
  state.counters["values"] = static_cast<double>(values);
  state.counters["cpu_ms"] = cpu.ElapsedMs();
}

void BM_LogListShell(benchmark::State& state) {
  const auto rows = static_cast<std::size_t>(state.range(0));
  const std::string sql = LogListSql();
  bool ok = true;
  const CpuClock cpu(RUSAGE_CHILDREN);
  for (auto _ : state) ok = RunShell(rows, sql) && ok;
  if (!ok) state.SkipWithError("sqlite3 failed");
  state.counters["cpu_ms"] = cpu.ElapsedMs();
}

// Keeps the console output and remembers the medians by "name/rows".
class MedianReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      if (run.aggregate_name == "median" && !run.error_occurred) {
        const std::string key =
            run.run_name.function_name + "/" + run.run_name.args;
        medians_[key] = run.GetAdjustedRealTime();
        auto cpu = run.counters.find("cpu_ms");
        if (cpu != run.counters.end()) cpu_medians_[key] = cpu->second.value;
      }
    }
    ConsoleReporter::ReportRuns(runs);
  }
  double Median(const std::string& key) const { return Find(medians_, key); }
  double CpuMedian(const std::string& key) const {
    return Find(cpu_medians_, key);
  }

 private:
  static double Find(const std::map<std::string, double>& in,
                     const std::string& key) {
    auto found = in.find(key);
    return found == in.end() ? -1.0 : found->second;
  }
  std::map<std::string, double> medians_;
  std::map<std::string, double> cpu_medians_;
};

// The peak resident size (MiB) of a child forked from here that runs one
// command, or -1 when the command failed.
double ChildPeakMiB(void (*handler)(parsed_xml_data_t*), const std::string& name,
                    const std::vector<std::pair<std::string, std::string>>& params) {
  int fds[2];
  if (pipe(fds) != 0) throw std::runtime_error("pipe");
  const pid_t pid = fork();
  if (pid < 0) throw std::runtime_error("fork");
  if (pid == 0) {
    close(fds[0]);
    const long values = RunCommand(handler, name, params);
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    const long peak_kib = values < 0 ? -1 : usage.ru_maxrss;
    const ssize_t ignored = write(fds[1], &peak_kib, sizeof peak_kib);
    (void)ignored;
    _exit(0);
  }
  close(fds[1]);
  long peak_kib = -1;
  if (read(fds[0], &peak_kib, sizeof peak_kib) != sizeof peak_kib) peak_kib = -1;
  close(fds[0]);
  waitpid(pid, nullptr, 0);
  return peak_kib < 0 ? -1.0 : static_cast<double>(peak_kib) / 1024.0;
}

// VmHWM of this process, in MiB.
double OwnPeakMiB() {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.compare(0, 6, "VmHWM:") == 0) {
      return std::stod(line.substr(6)) / 1024.0;
    }
  }
  return -1.0;
}

void GenerateInChild(std::size_t rows) {
  const pid_t pid = fork();
  if (pid < 0) throw std::runtime_error("fork");
  if (pid == 0) {
    try {
      kxjournal::JournalShape shape = g_shape;
      shape.rows = rows;
      kxjournal::GenerateJournal(JournalFile(rows), shape);
      _exit(0);
    } catch (const std::exception& e) {
      std::fprintf(stderr, "generator: %s\n", e.what());
      _exit(1);
    }
  }
  int status = 0;
  waitpid(pid, &status, 0);
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
    throw std::runtime_error("cannot generate the journal");
  }
}

std::vector<std::size_t> ParseSizes(int* argc, char** argv) {
  std::vector<std::size_t> sizes = {100000, 1000000};
  const std::string flag = "--journal_rows=";
  int kept = 1;
  for (int i = 1; i < *argc; ++i) {
    const std::string arg = argv[i];
    if (arg.compare(0, flag.size(), flag) == 0) {
      sizes.clear();
      std::stringstream list(arg.substr(flag.size()));
      std::string item;
      while (std::getline(list, item, ',')) sizes.push_back(std::stoul(item));
    } else {
      argv[kept++] = argv[i];
    }
  }
  *argc = kept;
  return sizes;
}

}  // namespace

int main(int argc, char** argv) {
  const std::vector<std::size_t> sizes = ParseSizes(&argc, argv);
  // Interleaved repetitions, so that a burst of load on the machine hits the
  // plug-in and the shell alike; the caller's flags still win.
  std::vector<char*> args(argv, argv + argc);
  std::string interleave = "--benchmark_enable_random_interleaving=true";
  std::string repetitions = "--benchmark_repetitions=7";
  args.insert(args.begin() + 1, &repetitions[0]);
  args.insert(args.begin() + 1, &interleave[0]);
  int args_count = static_cast<int>(args.size());
  benchmark::Initialize(&args_count, args.data());

  char pattern[] = "/tmp/kxjournal-bench-XXXXXX";
  if (mkdtemp(pattern) == nullptr) {
    std::perror("mkdtemp");
    return 2;
  }
  g_scratch = pattern;
  const std::string root = g_scratch + "/root";
  try {
    kxhost::MakeRootLayout(root);
    kxhost::EnterSandbox(root);
    for (std::size_t rows : sizes) {
      std::fprintf(stderr, "generating %zu rows...\n", rows);
      GenerateInChild(rows);
    }
  } catch (const std::exception& e) {
    std::fprintf(stderr, "audit_journal_bench: %s\n", e.what());
    return 2;
  }

  // Peaks first, from a process that has done nothing yet; this also reads
  // every journal once, so the timed runs start with a warm page cache.
  std::map<std::size_t, std::pair<double, double>> child_peaks;
  for (std::size_t rows : sizes) {
    UseJournal(rows);
    child_peaks[rows] = {ChildPeakMiB(aec::HandleLog, "log", LogParams()),
                         ChildPeakMiB(aec::HandleLogList, "loglist",
                                      LogListParams())};
    RunShell(rows, LogSql());
  }

  for (std::size_t rows : sizes) {
    const auto n = static_cast<std::int64_t>(rows);
    for (auto [name, fn] :
         std::vector<std::pair<const char*, void (*)(benchmark::State&)>>{
             {"log", BM_Log},
             {"log_shell", BM_LogShell},
             {"loglist", BM_LogList},
             {"loglist_shell", BM_LogListShell}}) {
      benchmark::RegisterBenchmark(name, fn)
          ->Arg(n)
          ->Iterations(1)
          ->UseRealTime()
          ->Unit(benchmark::kMillisecond);
    }
  }
  MedianReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  const double own_peak = OwnPeakMiB();

  std::printf(
      "\nmedians (wall clock; processor time in brackets)\n"
      "rows       command  plug-in ms        sqlite3 ms        ratio        "
      "child peak MiB\n");
  bool goals_met = true;
  for (std::size_t rows : sizes) {
    const std::string arg = std::to_string(rows);
    for (const char* command : {"log", "loglist"}) {
      const double ours = reporter.Median(std::string(command) + "/" + arg);
      const double shell =
          reporter.Median(std::string(command) + "_shell/" + arg);
      const double ratio = ours > 0 && shell > 0 ? ours / shell : -1.0;
      const double ours_cpu =
          reporter.CpuMedian(std::string(command) + "/" + arg);
      const double shell_cpu =
          reporter.CpuMedian(std::string(command) + "_shell/" + arg);
      const double cpu_ratio =
          ours_cpu > 0 && shell_cpu > 0 ? ours_cpu / shell_cpu : -1.0;
      const double peak = std::string(command) == "log"
                              ? child_peaks[rows].first
                              : child_peaks[rows].second;
      std::printf("%-10zu %-8s %7.1f [%6.1f] %7.1f [%6.1f] %5.2f [%4.2f] %10.1f\n",
                  rows, command, ours, ours_cpu, shell, shell_cpu, ratio,
                  cpu_ratio, peak);
      if (rows == 1000000 &&
          (ratio < 0 || ratio > kGoalRatio || peak < 0 || peak > kGoalPeakMiB)) {
        goals_met = false;
      }
    }
  }
  std::printf("whole process peak (VmHWM, journals generated in children): "
              "%.1f MiB\n", own_peak);
  if (own_peak < 0 || own_peak > kGoalPeakMiB) goals_met = false;
  const bool measured_goal_size =
      std::find(sizes.begin(), sizes.end(), 1000000u) != sizes.end();
  std::printf("goals at 1,000,000 rows (ratio <= %.1f, peak <= %.0f MiB): %s\n",
              kGoalRatio, kGoalPeakMiB,
              !measured_goal_size ? "not measured"
                                  : goals_met ? "met" : "NOT met");

  boost::system::error_code ignored;
  boost::filesystem::remove_all(g_scratch, ignored);
  return 0;
}
