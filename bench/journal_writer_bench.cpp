// The engine's journal writer under load, and the query commands on a large
// journal it indexed. Not a timed test: run by hand or by
// scripts/bench-engine.sh; the figures go to docs/performance.md.
//
// 1. Sustained writing: producer threads submit decisions for --seconds
//    while a reader runs "loglist" (one hour, users, groups and programs)
//    and "log" (one program, one hour) through kxhost over and over.
//    Twice: saturated (producers retry when the queue is full, so the figure
//    is what the writer can commit) and paced at --rate events a second
//    (the figure that matters is "dropped": it must stay 0).
// 2. A journal of --rows rows (30 days of generated events, made once in one
//    transaction, then given the writer's indexes; kept in --dir and reused)
//    and "loglist" bounded to one hour through kxhost, against kxhost
//    answering a request that does not open the journal (process start,
//    plug-in load), side by side, medians of --repeat interleaved runs.
//
//   journal_writer_bench [--seconds=20] [--rate=50000] [--rows=10000000]
//                        [--repeat=15] [--dir=/var/tmp/kxjournal-writer-bench]
//
// Goals: >= 50,000 journalled events a second with the readers running;
// the one-hour loglist on 10,000,000 rows in <= 50 ms through kxhost.
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <boost/filesystem.hpp>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "journal_schema.h"
#include "journal_writer.h"
#include "lib/sandbox.h"
#include "support/child_process.h"
#include "journal_generator.h"
#include "support/machine_load.h"

namespace {

using aec::engine::JournalEvent;
using aec::engine::JournalWriter;
using Clock = std::chrono::steady_clock;

struct Flags {
  int seconds = 20;
  int rate = 50000;
  std::size_t rows = 10000000;
  int repeat = 15;
  std::string dir = "/var/tmp/kxjournal-writer-bench";
};

void Usage(std::FILE* to) {
  std::fprintf(to,
               "usage: journal_writer_bench [--seconds=N] [--rate=N] "
               "[--rows=N] [--repeat=N] [--dir=DIR]\n"
               "  --seconds  length of each sustained-writing run (20)\n"
               "  --rate     paced run: events a second offered (50000)\n"
               "  --rows     rows of the large journal (10000000)\n"
               "  --repeat   kxhost runs per measured request (15)\n"
               "  --dir      work directory; the large journal is kept there\n"
               "             and reused (/var/tmp/kxjournal-writer-bench)\n");
}

bool ParseFlags(int argc, char** argv, Flags* flags) {
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    auto value = [&](const char* name) -> const char* {
      const std::size_t n = std::strlen(name);
      return arg.compare(0, n, name) == 0 ? argv[i] + n : nullptr;
    };
    try {
      const char* v = nullptr;
      if (arg == "--help" || arg == "-h") {
        Usage(stdout);
        std::exit(0);
      } else if ((v = value("--seconds="))) {
        flags->seconds = std::stoi(v);
      } else if ((v = value("--rate="))) {
        flags->rate = std::stoi(v);
      } else if ((v = value("--rows="))) {
        flags->rows = std::stoul(v);
      } else if ((v = value("--repeat="))) {
        flags->repeat = std::stoi(v);
      } else if ((v = value("--dir="))) {
        flags->dir = v;
      } else {
        std::fprintf(stderr, "journal_writer_bench: unknown argument %s\n",
                     arg.c_str());
        return false;
      }
    } catch (const std::exception&) {
      std::fprintf(stderr, "journal_writer_bench: bad number in %s\n",
                   arg.c_str());
      return false;
    }
  }
  return flags->seconds > 0 && flags->rate > 0 && flags->rows > 0 &&
         flags->repeat > 0;
}

kxbench::ChildRun Kxhost(const std::string& root, const std::string& request) {
  return kxbench::RunChild(
      {KX_KXHOST_PATH, "--root", root, "--plugin", KX_PLUGIN_PATH, "exec", "-"},
      request);
}

// A reply with result 1.
bool Answered(const kxbench::ChildRun& run) {
  return run.exit_code == 0 &&
         run.out.find("<result>1</result>") != std::string::npos;
}

// A reply with result 1 that names at least one user or resource.
bool AnsweredWithValues(const kxbench::ChildRun& run) {
  return Answered(run) && (run.out.find("<u>") != std::string::npos ||
                           run.out.find("<r>") != std::string::npos);
}

std::string LoglistHour(int64_t from) {
  return "<request command=\"loglist\"><users>1</users><groups>1</groups>"
         "<execfiles>1</execfiles><inittime>" +
         std::to_string(from) + "</inittime><finaltime>" +
         std::to_string(from + 3600) +
         "</finaltime><operationresult>all</operationresult></request>";
}

std::string LogHour(const std::string& program, int64_t from) {
  return "<request command=\"log\"><execfile>" + program +
         "</execfile><openfiles>1</openfiles><inittime>" +
         std::to_string(from) + "</inittime><finaltime>" +
         std::to_string(from + 3600) +
         "</finaltime><operationresult>all</operationresult></request>";
}

// Decisions as the engine journals them: a few thousand programs, libraries
// and files, a few hundred users in a few dozen groups.
class EventSource {
 public:
  explicit EventSource(int seed)
      : state_(static_cast<uint64_t>(seed) * 2654435761u + 1) {}
  JournalEvent Next(int64_t time) {
    const uint64_t r = NextRandom();
    const int kind = static_cast<int>(r % 6);
    const std::string app = "/usr/bin/prog" + std::to_string((r >> 8) % 3000);
    std::string object =
        kind == 0   ? app
        : kind <= 3 ? "/usr/lib/lib" + std::to_string((r >> 20) % 5000) + ".so"
                    : "/srv/data/file" + std::to_string((r >> 20) % 8000);
    const int user = static_cast<int>((r >> 34) % 300);
    return JournalEvent{time,
                        1050 + kind,
                        (r >> 50) % 10 == 0 ? 0 : 1,
                        app,
                        std::move(object),
                        "user" + std::to_string(user),
                        "group" + std::to_string(user % 60)};
  }

 private:
  uint64_t NextRandom() {
    state_ ^= state_ << 13;
    state_ ^= state_ >> 7;
    state_ ^= state_ << 17;
    return state_;
  }
  uint64_t state_;
};

// Processor seconds (user + system) of this process's threads named `name`.
double ThreadCpuSeconds(const std::string& name) {
  double seconds = 0;
  const long ticks = sysconf(_SC_CLK_TCK);
  for (const auto& task :
       boost::filesystem::directory_iterator("/proc/self/task")) {
    std::ifstream comm(task.path().string() + "/comm");
    std::string thread_name;
    std::getline(comm, thread_name);
    if (thread_name != name) continue;
    std::ifstream stat(task.path().string() + "/stat");
    std::string text((std::istreambuf_iterator<char>(stat)),
                     std::istreambuf_iterator<char>());
    // Fields after the parenthesised name: state is field 3, utime 14,
    // stime 15.
    std::istringstream fields(text.substr(text.rfind(')') + 2));
    std::string field;
    double utime = 0, stime = 0;
    for (int i = 3; i <= 15 && fields >> field; ++i) {
      if (i == 14) utime = std::stod(field);
      if (i == 15) stime = std::stod(field);
    }
    seconds += (utime + stime) / static_cast<double>(ticks);
  }
  return seconds;
}

struct WriteRun {
  double seconds = 0;
  uint64_t offered = 0;
  uint64_t written = 0;
  uint64_t dropped = 0;
  uint64_t max_depth = 0;
  double writer_cpu = 0;  // processor seconds of the writer thread
  std::vector<double> loglist_ms, log_ms;
  int failed_reads = 0;
};

// One sustained-writing run into a fresh journal under `root`. rate == 0:
// saturated (producers retry a refused row).
WriteRun SustainedWrite(const std::string& root, int seconds, int rate) {
  const std::string path = root + "/var/log/audit_logs.db";
  for (const char* suffix : {"", "-wal", "-shm"}) {
    unlink((path + suffix).c_str());
  }
  constexpr int kProducers = 2;
  const int64_t base_time = 1793491200;
  WriteRun run;
  JournalWriter::Options options;
  options.path = path;
  options.log = [](int, const std::string& line) {
    std::fprintf(stderr, "writer: %s\n", line.c_str());
  };
  JournalWriter writer(options);
  std::atomic<bool> stop{false};
  std::atomic<uint64_t> offered{0};

  // Event times advance 50,000 a second of the run, so an hour of journal
  // time is what the paced run writes in 72 s; readers ask for the first
  // hour, which fills while they read.
  std::vector<std::thread> producers;
  for (int p = 0; p < kProducers; ++p) {
    producers.emplace_back([&, p] {
      EventSource source(p + 1);
      uint64_t n = 0;
      const auto start = Clock::now();
      while (!stop.load(std::memory_order_relaxed)) {
        if (rate == 0) {
          JournalEvent event = source.Next(
              base_time + static_cast<int64_t>(n * kProducers / 50000));
          while (!writer.Submit(std::move(event))) {
            if (stop.load(std::memory_order_relaxed)) break;
            // Not a spin: on two processors a spinning producer takes the
            // writer's processor away.
            std::this_thread::sleep_for(std::chrono::microseconds(200));
          }
          ++n;
          offered.fetch_add(1, std::memory_order_relaxed);
        } else {
          // Each millisecond tick, catch up to the rate's share.
          const double elapsed =
              std::chrono::duration<double>(Clock::now() - start).count();
          const auto due = static_cast<uint64_t>(elapsed * rate / kProducers);
          while (n < due) {
            writer.Submit(source.Next(
                base_time + static_cast<int64_t>(n * kProducers / 50000)));
            ++n;
            offered.fetch_add(1, std::memory_order_relaxed);
          }
          std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
      }
    });
  }
  std::thread reader([&] {
    while (!stop.load()) {
      const auto list = Kxhost(root, LoglistHour(base_time));
      const auto log = Kxhost(root, LogHour("/usr/bin/prog7", base_time));
      if (!Answered(list) || !Answered(log)) ++run.failed_reads;
      run.loglist_ms.push_back(list.wall_ms);
      run.log_ms.push_back(log.wall_ms);
    }
  });
  std::thread sampler([&] {
    while (!stop.load()) {
      run.max_depth = std::max(run.max_depth, writer.GetStats().queue_depth);
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
  });

  const uint64_t written_before = writer.GetStats().written;
  const double cpu_before = ThreadCpuSeconds("kxaecd-journal");
  const auto start = Clock::now();
  std::this_thread::sleep_for(std::chrono::seconds(seconds));
  const auto stats = writer.GetStats();
  run.seconds = std::chrono::duration<double>(Clock::now() - start).count();
  run.writer_cpu = ThreadCpuSeconds("kxaecd-journal") - cpu_before;
  stop.store(true);
  for (auto& producer : producers) producer.join();
  reader.join();
  sampler.join();
  run.offered = offered.load();
  run.written = stats.written - written_before;
  // Saturated producers retry what the queue refuses, so there every
  // refusal counts as one; paced producers do not, so these rows are lost.
  run.dropped = stats.dropped;
  return run;
}

void PrintWriteRun(const char* name, WriteRun& run) {
  std::printf(
      "%-10s %5.1f s  offered %7.0f/s  written %7.0f/s (%7.0f per writer "
      "processor second)  refused %8llu  max queue %6llu  reads %3zu "
      "(failed %d)  loglist p50 %6.1f ms  log p50 %6.1f ms\n",
      name, run.seconds, run.offered / run.seconds, run.written / run.seconds,
      run.writer_cpu > 0 ? run.written / run.writer_cpu : 0.0,
      static_cast<unsigned long long>(run.dropped),
      static_cast<unsigned long long>(run.max_depth), run.loglist_ms.size(),
      run.failed_reads, kxbench::Percentile(run.loglist_ms, 50),
      kxbench::Percentile(run.log_ms, 50));
}

double SecondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

void ExecSql(sqlite3* db, const char* sql) {
  char* error = nullptr;
  if (sqlite3_exec(db, sql, nullptr, nullptr, &error) != SQLITE_OK) {
    const std::string message = error != nullptr ? error : "?";
    sqlite3_free(error);
    throw std::runtime_error(std::string(sql) + ": " + message);
  }
}

// Where a journal the benchmark opens comes from.
enum class JournalOrigin {
  kKept,       // made by an earlier run, perhaps with an older schema
  kGenerated,  // just written by the generator, with its own time index
};

// Brings the journal at `path` to the writer's schema, as the writer does
// when it opens a journal an older writer made. A generated journal first
// loses the generator's time index, which the writer's indexes replace, and
// is then kept in WAL mode as the writer keeps its journal.
void ApplyWriterSchema(const std::string& path, JournalOrigin origin) {
  sqlite3* db = nullptr;
  if (sqlite3_open(path.c_str(), &db) != SQLITE_OK) {
    sqlite3_close(db);
    throw std::runtime_error("cannot open " + path);
  }
  const bool generated = origin == JournalOrigin::kGenerated;
  try {
    if (generated) ExecSql(db, "DROP INDEX IF EXISTS logs_date_time");
    std::string error;
    if (!aec::engine::EnsureJournalSchema(db, &error)) {
      throw std::runtime_error(path + ": " + error);
    }
    if (generated) ExecSql(db, "PRAGMA journal_mode=WAL");
  } catch (...) {
    sqlite3_close(db);
    throw;
  }
  sqlite3_close(db);
}

// The large journal at `path`, made once: the generator's rows in one
// transaction, its own time index replaced by the writer's schema. A kept
// journal is brought to the writer's current schema.
void EnsureLargeJournal(const std::string& path, std::size_t rows) {
  const std::string marker = path + ".rows";
  std::ifstream in(marker);
  std::size_t have = 0;
  if (in >> have && have == rows) {
    const auto start = Clock::now();
    ApplyWriterSchema(path, JournalOrigin::kKept);
    std::printf(
        "large journal: reusing %zu rows in %s (schema checked or upgraded"
        " in %.1f s)\n",
        rows, path.c_str(), SecondsSince(start));
    return;
  }
  kxjournal::JournalShape shape;
  shape.rows = rows;
  auto start = Clock::now();
  kxjournal::GenerateJournal(path, shape);
  const double generated = SecondsSince(start);
  start = Clock::now();
  ApplyWriterSchema(path, JournalOrigin::kGenerated);
  std::printf(
      "large journal: %zu rows generated in %.1f s (one transaction),"
      " indexes built in %.1f s\n",
      rows, generated, SecondsSince(start));
  std::ofstream(marker) << rows << "\n";
}

std::string QueryPlan(const std::string& path, const std::string& sql) {
  sqlite3* db = nullptr;
  std::string plan;
  if (sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READONLY, nullptr) ==
      SQLITE_OK) {
    sqlite3_stmt* statement = nullptr;
    if (sqlite3_prepare_v2(db, ("EXPLAIN QUERY PLAN " + sql).c_str(), -1,
                           &statement, nullptr) == SQLITE_OK) {
      while (sqlite3_step(statement) == SQLITE_ROW) {
        plan +=
            reinterpret_cast<const char*>(sqlite3_column_text(statement, 3));
        plan += "; ";
      }
    }
    sqlite3_finalize(statement);
  }
  sqlite3_close(db);
  return plan;
}

}  // namespace

int main(int argc, char** argv) {
  Flags flags;
  if (!ParseFlags(argc, argv, &flags)) {
    Usage(stderr);
    return 2;
  }
  try {
    boost::filesystem::create_directories(flags.dir);
    const std::string write_root = flags.dir + "/root-write";
    const std::string large_root = flags.dir + "/root-large";
    kxhost::MakeRootLayout(write_root);
    kxhost::MakeRootLayout(large_root);

    std::printf("== sustained writing, %d s each, readers through kxhost ==\n",
                flags.seconds);
    std::printf("load average %s, %u processors\n", kxbench::LoadAverage().c_str(),
                std::thread::hardware_concurrency());
    WriteRun saturated = SustainedWrite(write_root, flags.seconds, 0);
    PrintWriteRun("saturated", saturated);
    WriteRun paced = SustainedWrite(write_root, flags.seconds, flags.rate);
    PrintWriteRun("paced", paced);

    std::printf("\n== one-hour loglist through kxhost on %zu rows ==\n",
                flags.rows);
    const std::string large = large_root + "/var/log/audit_logs.db";
    EnsureLargeJournal(large, flags.rows);
    kxjournal::JournalShape shape;
    shape.rows = flags.rows;
    // An hour in the middle of the journal's 30 days.
    const int64_t hour = kxjournal::FirstTime(shape) + 15 * 24 * 3600;
    std::printf(
        "plan: %s\n",
        QueryPlan(large,
                  "SELECT DISTINCT username FROM logs WHERE event_id >= "
                  "1050 AND event_id <= 1055 AND date_time >= " +
                      std::to_string(hour) + " AND date_time < " +
                      std::to_string(hour + 3600))
            .c_str());
    // Nothing switched on: kxhost starts, loads the plug-in, answers, and
    // the journal is never opened.
    const std::string baseline_request = "<request command=\"loglist\"/>";
    const std::string hour_request = LoglistHour(hour);
    const std::string log_request = LogHour("/usr/bin/prog0000", hour);
    std::vector<double> baseline, loglist, log;
    std::vector<double> baseline_cpu, loglist_cpu, log_cpu;
    int failed = 0;
    for (int i = 0; i < 2; ++i) Kxhost(large_root, hour_request);  // warm cache
    for (int i = 0; i < flags.repeat; ++i) {
      const auto b = Kxhost(large_root, baseline_request);
      const auto l = Kxhost(large_root, hour_request);
      const auto g = Kxhost(large_root, log_request);
      if (b.exit_code != 0 || !AnsweredWithValues(l) ||
          !AnsweredWithValues(g)) {
        ++failed;
      }
      baseline.push_back(b.wall_ms);
      loglist.push_back(l.wall_ms);
      log.push_back(g.wall_ms);
      baseline_cpu.push_back(b.cpu_ms);
      loglist_cpu.push_back(l.cpu_ms);
      log_cpu.push_back(g.cpu_ms);
    }
    const double b50 = kxbench::Percentile(baseline, 50);
    const double l50 = kxbench::Percentile(loglist, 50);
    const double g50 = kxbench::Percentile(log, 50);
    const double b50_cpu = kxbench::Percentile(baseline_cpu, 50);
    const double l50_cpu = kxbench::Percentile(loglist_cpu, 50);
    const double g50_cpu = kxbench::Percentile(log_cpu, 50);
    std::printf("wall clock, processor time (user + system) in brackets\n");
    std::printf("kxhost, no journal read    p50 %7.1f [%6.1f] ms  p90 %7.1f ms\n",
                b50, b50_cpu, kxbench::Percentile(baseline, 90));
    std::printf(
        "kxhost, loglist one hour   p50 %7.1f [%6.1f] ms  p90 %7.1f ms"
        "  (less start-up %.1f [%.1f] ms)\n",
        l50, l50_cpu, kxbench::Percentile(loglist, 90), l50 - b50,
        l50_cpu - b50_cpu);
    std::printf(
        "kxhost, log one hour+prog  p50 %7.1f [%6.1f] ms  p90 %7.1f ms"
        "  (less start-up %.1f [%.1f] ms)\n",
        g50, g50_cpu, kxbench::Percentile(log, 90), g50 - b50,
        g50_cpu - b50_cpu);
    std::printf("runs without a full answer: %d\n", failed);
    std::printf("load average at the end %s\n", kxbench::LoadAverage().c_str());

    const bool write_goal = saturated.written / saturated.seconds >= 50000 &&
                            paced.dropped == 0 && saturated.failed_reads == 0 &&
                            paced.failed_reads == 0;
    const bool query_goal = l50 <= 50 && failed == 0;
    std::printf(
        "\ngoal >= 50,000 events/s with readers, none dropped at the"
        " paced rate: %s\n",
        write_goal ? "met" : "NOT met");
    std::printf("goal one-hour loglist <= 50 ms through kxhost: %s\n",
                query_goal ? "met" : "NOT met");
  } catch (const std::exception& e) {
    std::fprintf(stderr, "journal_writer_bench: %s\n", e.what());
    return 2;
  }
  return 0;
}
