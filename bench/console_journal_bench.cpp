// The console's journal queries on a large journal. Not a timed test: run by
// hand; the figures go to docs/performance.md ("Console journal").
//
// A generated journal of --rows rows (30 days, ~300 users in 60 groups,
// 3,000 programs, 10 % denied) with exactly the indexes the engine's writer
// creates. Each filter the journal page offers is run through the library
// (QueryJournal: the total and page 1 of 50, in one read transaction) and
// the same statements, values written in, through the sqlite3 shell, with
// output to /dev/null; runs interleaved, medians compared. The library runs
// in this process as the console runs it, opening the journal for each
// call; the shell's start-up is part of its figure and is shown alone too.
// Goal for the user + one week + denied filter: well under a second, within
// 2x of the shell. The plan of each statement is printed and checked for an
// index.
//
//   console_journal_bench [--rows N] [--repeat R]   (defaults 1000000, 7)
#include <sqlite3.h>
#include <stdlib.h>

#include <boost/filesystem.hpp>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "journal_connection.h"
#include "journal_filter.h"
#include "journal_generator.h"
#include "journal_query.h"
#include "journal_schema.h"
#include "journal_statements.h"
#include "support/child_process.h"
#include "support/machine_load.h"

namespace fs = boost::filesystem;
namespace detail = kxconsole::detail;

namespace {

using Clock = std::chrono::steady_clock;

double MsSince(Clock::time_point start) {
  return std::chrono::duration<double, std::milli>(Clock::now() - start)
      .count();
}

void Exec(sqlite3* db, const char* sql) {
  char* message = nullptr;
  if (sqlite3_exec(db, sql, nullptr, nullptr, &message) != SQLITE_OK) {
    const std::string text = message != nullptr ? message : "?";
    sqlite3_free(message);
    throw std::runtime_error(std::string(sql) + ": " + text);
  }
}

// The generated journal with the writer's indexes in place of the
// generator's own; returns the milliseconds the group index took to build.
double MakeJournal(const std::string& path, std::size_t rows) {
  kxjournal::JournalShape shape;
  shape.rows = rows;
  kxjournal::GenerateJournal(path, shape);
  sqlite3* db = nullptr;
  if (sqlite3_open(path.c_str(), &db) != SQLITE_OK) {
    throw std::runtime_error("cannot open " + path);
  }
  std::string error;
  Exec(db, "DROP INDEX logs_date_time");
  if (!aec::engine::EnsureJournalSchema(db, &error)) {
    throw std::runtime_error(error);
  }
  Exec(db, "DROP INDEX logs_group_time");
  const Clock::time_point start = Clock::now();
  if (!aec::engine::EnsureJournalSchema(db, &error)) {
    throw std::runtime_error(error);
  }
  const double group_index_ms = MsSince(start);
  Exec(db, "PRAGMA journal_mode=WAL");
  sqlite3_close(db);
  return group_index_ms;
}

// `sql` with each ? replaced by its value, as a shell user would type it.
std::string Inline(const std::string& sql,
                   const std::vector<detail::SqlValue>& values) {
  std::string out;
  std::size_t next = 0;
  for (const char c : sql) {
    if (c != '?') {
      out += c;
      continue;
    }
    const detail::SqlValue& value = values.at(next++);
    if (const auto* number = std::get_if<int64_t>(&value)) {
      out += std::to_string(*number);
    } else {
      out += "'";
      for (const char t : std::get<std::string>(value)) {
        out += t == '\'' ? std::string("''") : std::string(1, t);
      }
      out += "'";
    }
  }
  if (next != values.size()) throw std::runtime_error("unbound values");
  return out;
}

// The plans of the count and page statements; throws when one scans the
// table or an index whole and `may_scan` is false.
std::string Plans(const std::string& path, const detail::WhereClause& where,
                  bool may_scan) {
  std::string text;
  for (const auto& [sql, values] :
       {std::pair{detail::CountSql(where), where.values},
        std::pair{detail::PageSql(where),
                  detail::Append(where.values, {int64_t{50}, int64_t{0}})}}) {
    detail::JournalConnection connection(path, std::chrono::seconds(5));
    detail::Statement plan =
        connection.Prepare("EXPLAIN QUERY PLAN " + sql, values);
    while (plan.Step()) {
      const std::string line = plan.Text(3);
      if (!may_scan && line.rfind("SCAN logs", 0) == 0) {
        throw std::runtime_error("a full scan: " + line);
      }
      text += (text.empty() ? "" : "; ") + line;
    }
  }
  return text;
}

struct Case {
  const char* name;
  kxconsole::JournalFilter filter;
  bool goal;              // the case the goal is set for
  bool may_scan = false;  // no filter: counting reads the whole time index
};

}  // namespace

int main(int argc, char** argv) {
  std::size_t rows = 1000000;
  int repeat = 7;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--rows" && i + 1 < argc) {
      rows = std::strtoul(argv[++i], nullptr, 10);
    } else if (arg == "--repeat" && i + 1 < argc) {
      repeat = std::atoi(argv[++i]);
    } else if (arg == "--help") {
      std::printf("usage: console_journal_bench [--rows N] [--repeat R]\n");
      return 0;
    } else {
      std::fprintf(stderr,
                   "usage: console_journal_bench [--rows N] [--repeat R]\n");
      return 2;
    }
  }
  if (rows < 1000 || repeat < 1) {
    std::fprintf(stderr,
                 "console_journal_bench: --rows >= 1000, --repeat >= 1\n");
    return 2;
  }
  setvbuf(stdout, nullptr, _IOLBF, 0);
  char pattern[] = "/tmp/kx-console-journal-bench.XXXXXX";
  if (mkdtemp(pattern) == nullptr) return 2;
  const std::string dir = pattern;
  const std::string journal = dir + "/audit_logs.db";
  bool met = true;
  try {
    std::printf("load average at start: %s\n", kxbench::LoadAverage().c_str());
    std::fprintf(stderr, "generating %zu rows...\n", rows);
    const double group_index_ms = MakeJournal(journal, rows);
    std::printf(
        "journal: %zu rows, %.1f MiB; building logs_group_time: %.0f "
        "ms\n",
        rows, fs::file_size(journal) / 1048576.0, group_index_ms);

    kxjournal::JournalShape shape;
    shape.rows = rows;
    const int64_t first = kxjournal::FirstTime(shape);
    const int64_t day = 24 * 3600;
    std::vector<Case> cases;
    {
      Case c{"user + 7 days + denied", {}, true};
      c.filter.user = "user042";
      c.filter.since = first + 10 * day;
      c.filter.until = first + 17 * day;
      c.filter.outcome = "denied";
      cases.push_back(c);
    }
    {
      Case c{"1 day", {}, false};
      c.filter.since = first + 10 * day;
      c.filter.until = first + 11 * day;
      cases.push_back(c);
    }
    {
      Case c{"denied + 1 day", {}, false};
      c.filter.since = first + 10 * day;
      c.filter.until = first + 11 * day;
      c.filter.outcome = "denied";
      cases.push_back(c);
    }
    {
      Case c{"group + 7 days", {}, false};
      c.filter.group = "dept07";
      c.filter.since = first + 10 * day;
      c.filter.until = first + 17 * day;
      cases.push_back(c);
    }
    {
      Case c{"program (common)", {}, false};
      c.filter.program = "/usr/bin/prog0000";
      cases.push_back(c);
    }
    {
      Case c{"no filter (whole journal)", {}, false, true};
      cases.push_back(c);
    }

    // The shell's own start-up, for reading the figures below.
    {
      std::vector<double> startup;
      for (int i = 0; i < repeat; ++i) {
        startup.push_back(
            kxbench::RunChild({"/usr/bin/sqlite3", journal, "SELECT 1;"})
                .wall_ms);
      }
      std::printf("sqlite3 shell start-up alone (SELECT 1): %.1f ms\n",
                  kxbench::Percentile(startup, 50));
    }

    std::printf("%-28s %9s %10s %10s %7s\n", "filter", "total", "library ms",
                "shell ms", "ratio");
    for (const Case& c : cases) {
      const detail::WhereClause where = detail::BuildWhere(c.filter);
      const std::string shell_sql =
          Inline(detail::CountSql(where), where.values) + ";\n" +
          Inline(detail::PageSql(where),
                 detail::Append(where.values, {int64_t{50}, int64_t{0}})) +
          ";\n";
      std::vector<double> library_ms, shell_ms;
      int64_t total = 0;
      for (int i = 0; i < repeat; ++i) {
        const Clock::time_point start = Clock::now();
        const kxconsole::JournalPage page =
            kxconsole::QueryJournal(journal, c.filter);
        library_ms.push_back(MsSince(start));
        total = page.total;
        const kxbench::ChildRun shell =
            kxbench::RunChild({"/usr/bin/sqlite3", journal, shell_sql});
        if (shell.exit_code != 0) throw std::runtime_error("sqlite3 failed");
        shell_ms.push_back(shell.wall_ms);
      }
      const double library = kxbench::Percentile(library_ms, 50);
      const double shell = kxbench::Percentile(shell_ms, 50);
      std::printf("%-28s %9lld %10.1f %10.1f %7.2f%s\n", c.name,
                  static_cast<long long>(total), library, shell,
                  library / shell,
                  c.goal ? "  (goal: < 1000 ms, ratio <= 2)" : "");
      std::printf("  plan: %s\n", Plans(journal, where, c.may_scan).c_str());
      if (c.goal) met = met && library < 1000 && library / shell <= 2;
    }

    // The chart of the last day and the CSV of one day, library alone.
    {
      kxconsole::JournalFilter filter;
      filter.since = first + 10 * day;
      filter.until = first + 11 * day;
      std::vector<double> chart_ms, csv_ms;
      std::size_t csv_bytes = 0;
      for (int i = 0; i < repeat; ++i) {
        Clock::time_point start = Clock::now();
        kxconsole::DenialChart(journal, filter, 24, nullptr);
        chart_ms.push_back(MsSince(start));
        start = Clock::now();
        std::ofstream out(dir + "/day.csv", std::ios::binary);
        kxconsole::WriteJournalCsv(journal, filter, out);
        out.flush();
        csv_ms.push_back(MsSince(start));
        csv_bytes = static_cast<std::size_t>(fs::file_size(dir + "/day.csv"));
      }
      std::printf("chart of 1 day in 24 buckets: %.1f ms\n",
                  kxbench::Percentile(chart_ms, 50));
      std::printf("CSV of 1 day (%zu bytes): %.1f ms\n", csv_bytes,
                  kxbench::Percentile(csv_ms, 50));
    }
    // The far ends: the last page of the whole journal (an offset walks
    // every row before it) and the CSV of the whole journal (up to the cap).
    {
      kxconsole::JournalFilter filter;
      filter.per_page = 500;
      filter.page = static_cast<int>((rows + 499) / 500);
      Clock::time_point start = Clock::now();
      const kxconsole::JournalPage last =
          kxconsole::QueryJournal(journal, filter);
      std::printf("last page (%d of 500 rows, %zu rows on it): %.1f ms\n",
                  filter.page, last.rows.size(), MsSince(start));
      start = Clock::now();
      {
        std::ofstream out(dir + "/all.csv", std::ios::binary);
        kxconsole::WriteJournalCsv(journal, {}, out);
      }
      std::printf("CSV of the whole journal (%.1f MiB): %.0f ms\n",
                  fs::file_size(dir + "/all.csv") / 1048576.0, MsSince(start));
    }
    std::printf("load average at end: %s\n", kxbench::LoadAverage().c_str());
  } catch (const std::exception& e) {
    std::fprintf(stderr, "console_journal_bench: %s\n", e.what());
    fs::remove_all(dir);
    return 2;
  }
  // KX_BENCH_KEEP: keep the journal for a look with the shell.
  if (std::getenv("KX_BENCH_KEEP") == nullptr) {
    fs::remove_all(dir);
  } else {
    std::printf("journal kept: %s\n", journal.c_str());
  }
  std::printf("goal %s\n", met ? "met" : "NOT met");
  return met ? 0 : 1;
}
