// The learning commands at the sizes they meet on a real host. Not a timed
// test: run by hand (as root: it enters a private mount namespace); the
// figures go to docs/performance.md.
//
// 1. `kxaecctl baseline` over this machine's own dpkg database (read only):
//    files, packages, seconds. Goal: under 10 s.
// 2. A generated journal of --rows rows (30 days, 3,000 programs, 300
//    users). Its programs, libraries and files are made to exist (hard
//    links of one ELF program inside the sandbox) and its users to be
//    accounts of this machine, so
//    that the commands do their whole work, not skip every row. Then
//    `kxaecctl propose` and `kxaecctl simulate --mode hard` over the whole
//    journal, each beside the sqlite3 shell reading the same rows with the
//    same WHERE clause, medians of --repeat interleaved runs. Goal: within
//    2x of the shell. Peak memory of both commands at --rows, at a tenth
//    of it and at --extra-rows: it should follow the distinct programs, not
//    the rows.
//
//   learning_bench [--rows N] [--extra-rows N] [--repeat R] [--skip-baseline]
//   (defaults 1000000, 5)
#include <sqlite3.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <boost/filesystem.hpp>
#include <cstdio>
#include <stdexcept>
#include <string>
#include <vector>

#include "journal_generator.h"
#include "lib/sandbox.h"
#include "support/child_process.h"
#include "support/machine_load.h"

namespace fs = boost::filesystem;

namespace {

const std::string kTool = "/opt/korvex/bin/kxaecctl";
const std::string kJournal = "/opt/korvex/var/log/audit_logs.db";
// Where the journal's programs, libraries and files are made to exist (the
// generated paths below it).
const std::string kMaterialDir = "/opt/korvex/var/tmp/bench-files";

void Exec(sqlite3* db, const std::string& sql) {
  char* message = nullptr;
  if (sqlite3_exec(db, sql.c_str(), nullptr, nullptr, &message) != SQLITE_OK) {
    const std::string text = message ? message : "?";
    sqlite3_free(message);
    throw std::runtime_error(sql.substr(0, 60) + ": " + text);
  }
}

// Accounts every Debian system has; the journal's users become these.
const char* const kUsers[] = {"root", "daemon", "bin",  "sys",  "sync",
                              "games", "man",   "lp",   "mail", "news"};

// Generates the journal, moves its programs, libraries and files into the
// sandbox as hard links of one real ELF program, and gives its rows real
// users.
void MakeJournal(std::size_t rows) {
  fs::remove(kJournal);
  kxjournal::JournalShape shape;
  shape.rows = rows;
  kxjournal::GenerateJournal(kJournal, shape);
  sqlite3* db = nullptr;
  if (sqlite3_open(kJournal.c_str(), &db) != SQLITE_OK) {
    throw std::runtime_error("cannot open the journal");
  }
  Exec(db, "BEGIN");
  // Every program and object moves below kMaterialDir, where it is made.
  Exec(db, "UPDATE logs SET app = '" + kMaterialDir +
               "' || app, object_name = '\"" + kMaterialDir +
               "' || substr(object_name, 2) WHERE object_name IS NOT NULL");
  Exec(db, "UPDATE logs SET app = '" + kMaterialDir +
               "' || app WHERE object_name IS NULL");
  std::string users = "CASE id % 10";
  for (int i = 0; i < 10; ++i) {
    users += " WHEN " + std::to_string(i) + " THEN '" + kUsers[i] + "'";
  }
  Exec(db, "UPDATE logs SET username = " + users + " END, groupname = 'root'");
  Exec(db, "COMMIT");
  sqlite3_stmt* statement = nullptr;
  sqlite3_prepare_v2(db,
                     "SELECT app FROM logs UNION SELECT substr(object_name, "
                     "2, length(object_name) - 3) FROM logs WHERE object_name "
                     "IS NOT NULL",
                     -1, &statement, nullptr);
  fs::create_directories(kMaterialDir);
  const std::string model = kMaterialDir + "/.model";
  if (!fs::exists(model)) fs::copy_file("/bin/true", model);
  while (sqlite3_step(statement) == SQLITE_ROW) {
    const std::string path =
        reinterpret_cast<const char*>(sqlite3_column_text(statement, 0));
    if (fs::exists(path)) continue;
    fs::create_directories(fs::path(path).parent_path());
    fs::create_hard_link(model, path);
  }
  sqlite3_finalize(statement);
  sqlite3_close(db);
}

std::string ShellSql(bool denied_only, const std::vector<int>& events) {
  std::string sql =
      "SELECT event_id, date_time, app, object_name, username, groupname, "
      "success FROM logs WHERE event_id IN (";
  for (std::size_t i = 0; i < events.size(); ++i) {
    sql += (i ? "," : "") + std::to_string(events[i]);
  }
  sql += ")";
  if (denied_only) sql += " AND success = 0";
  return sql + " ORDER BY id;";
}

struct Timing {
  std::vector<double> tool_ms, shell_ms;
  long peak_kib = 0;
  int exit_code = 0;
};

// Interleaved runs of the tool and of the shell on the same rows.
Timing Measure(const std::vector<std::string>& tool,
               const std::string& shell_sql, int repeat) {
  Timing timing;
  for (int i = 0; i < repeat; ++i) {
    const kxbench::ChildRun run = kxbench::RunChild(tool);
    timing.tool_ms.push_back(run.wall_ms);
    timing.peak_kib = std::max(timing.peak_kib, run.max_rss_kib);
    timing.exit_code = run.exit_code;
    const kxbench::ChildRun shell =
        kxbench::RunChild({"/usr/bin/sqlite3", kJournal, shell_sql});
    if (shell.exit_code != 0) throw std::runtime_error("sqlite3 failed");
    timing.shell_ms.push_back(shell.wall_ms);
  }
  return timing;
}

}  // namespace

int main(int argc, char** argv) {
  std::size_t rows = 1000000;
  std::size_t extra_rows = 0;  // a further size, for how memory grows
  int repeat = 5;
  bool baseline = true;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--rows" && i + 1 < argc) {
      rows = std::strtoul(argv[++i], nullptr, 10);
    } else if (arg == "--extra-rows" && i + 1 < argc) {
      extra_rows = std::strtoul(argv[++i], nullptr, 10);
    } else if (arg == "--repeat" && i + 1 < argc) {
      repeat = std::atoi(argv[++i]);
    } else if (arg == "--skip-baseline") {
      baseline = false;
    } else {
      std::fprintf(stderr,
                   "usage: learning_bench [--rows N] [--extra-rows N] "
                   "[--repeat R] [--skip-baseline]\n");
      return 2;
    }
  }
  if (rows < 1000 || repeat < 1) {
    std::fprintf(stderr, "learning_bench: --rows >= 1000, --repeat >= 1\n");
    return 2;
  }
  setvbuf(stdout, nullptr, _IOLBF, 0);
  char pattern[] = "/tmp/kx-learning-bench.XXXXXX";
  if (mkdtemp(pattern) == nullptr) return 2;
  const std::string root = pattern;
  bool met = true;
  try {
    fs::create_directories(root + "/bin");
    for (const char* tool : {KX_KXAECCTL_PATH, KX_KXAIDE_PATH}) {
      fs::copy_file(tool,
                    root + "/bin/" + fs::path(tool).filename().string());
    }
    kxhost::RuntimeOptions options;
    kxhost::EnterSandboxedRoot(root, &options);
    std::printf("load average at start: %s\n",
                kxbench::LoadAverage().c_str());

    if (baseline) {
      const kxbench::ChildRun run =
          kxbench::RunChild({kTool, "baseline", "--skip-dangling"});
      std::string summary = run.out;
      if (!summary.empty() && summary.back() == '\n') summary.pop_back();
      std::printf("baseline of this machine: %s; %.2f s (goal < 10 s), "
                  "peak %ld KiB, exit %d\n",
                  summary.c_str(), run.wall_ms / 1000, run.max_rss_kib,
                  run.exit_code);
      met = met && run.exit_code == 0 && run.wall_ms < 10000;
    }

    const std::vector<int> all_events = {1050, 1051, 1052, 1053, 1054, 1055};
    std::vector<std::size_t> sizes = {rows / 10, rows};
    if (extra_rows != 0) sizes.push_back(extra_rows);
    for (const std::size_t size : sizes) {
      std::fprintf(stderr, "generating %zu rows...\n", size);
      MakeJournal(size);
      const Timing propose =
          Measure({kTool, "propose"}, ShellSql(true, {1051, 1053}), repeat);
      const Timing simulate = Measure({kTool, "simulate", "--mode", "hard"},
                                      ShellSql(false, all_events), repeat);
      for (const auto& [name, t] :
           {std::pair<const char*, const Timing&>{"propose", propose},
            std::pair<const char*, const Timing&>{"simulate", simulate}}) {
        std::vector<double> tool = t.tool_ms, shell = t.shell_ms;
        const double tool_p50 = kxbench::Percentile(tool, 50);
        const double shell_p50 = kxbench::Percentile(shell, 50);
        const double ratio = tool_p50 / shell_p50;
        std::printf(
            "%-8s %8zu rows: %8.0f ms, sqlite3 shell %8.0f ms, ratio %.2f "
            "(goal <= 2), peak %ld KiB, exit %d\n",
            name, size, tool_p50, shell_p50, ratio, t.peak_kib, t.exit_code);
        if (size == rows) met = met && ratio <= 2;
      }
    }
    std::printf("load average at end: %s\n", kxbench::LoadAverage().c_str());
  } catch (const std::exception& e) {
    std::fprintf(stderr, "learning_bench: %s\n", e.what());
    return 2;
  }
  if (std::getenv("KX_BENCH_KEEP") == nullptr) fs::remove_all(root);
  return met ? 0 : 1;
}
