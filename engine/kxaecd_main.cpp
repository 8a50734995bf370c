// kxaecd: the enforcing component. Reads the loaded set and the kernel
// parameters, watches them, and answers the kernel's permission events.
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <malloc.h>
#include <poll.h>
#include <signal.h>
#include <sys/inotify.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "enforcer.h"
#include "file_events.h"
#include "host/log.h"
#include "journal/journal_writer.h"
#include "lib/daemon_signals.h"
#include "lib/runtime.h"
#include "lib/sandbox.h"
#include "parameters.h"
#include "rule_source.h"
#include "tables.h"

namespace {

using aec::engine::Enforcer;
using aec::engine::EnforcerOptions;
using aec::engine::JournalEvent;
using aec::engine::JournalWriter;
using aec::engine::RuleSetInput;
using aec::engine::Tables;
using aec::engine::TablesHolder;

constexpr const char kJournalPath[] = "/opt/korvex/var/log/audit_logs.db";
constexpr const char kStatusPath[] = "/opt/korvex/var/run/kxaecd.status";
constexpr unsigned kDefaultAuditMask = 15; // a fresh installation's switches
constexpr int kReloadNice = 10;

const char kHelp[] =
    "Usage: kxaecd --foreground [OPTION...]\n"
    "       kxaecd --status [--root DIR] [--status-file FILE]\n"
    "       kxaecd --help\n"
    "\n"
    "The enforcing component of application execution control: answers the\n"
    "kernel's permission events (fanotify) for program starts, library loads\n"
    "and file opens from the loaded rule set, state and mode, and writes the\n"
    "audit journal. Runs in the foreground (systemd supervises it).\n"
    "\n"
    "  --foreground            run (required to run)\n"
    "  --status                print the status of the running engine\n"
    "  --root DIR              private mount namespace with DIR at "
    "/opt/korvex;\n"
    "                          needs --watch\n"
    "  --watch MOUNT           watch the file system mounted at MOUNT\n"
    "                          (repeatable; default: every local file system)\n"
    "  --exclude-mount MOUNT   leave the mount point MOUNT out (repeatable)\n"
    "  --loaded-set FILE       default /opt/korvex/var/lib/aec/loaded-rules\n"
    "  --sysctl-root DIR       where korvex/secure/* are read; default "
    "/proc/sys\n"
    "                          when it has them, else "
    "/opt/korvex/var/run/sysctl\n"
    "  --journal FILE          default /opt/korvex/var/log/audit_logs.db\n"
    "  --no-journal            write no journal\n"
    "  --journal-max-rows N    retention: keep at most N rows (0: no bound)\n"
    "  --journal-max-days N    retention: drop rows older than N days\n"
    "  --status-file FILE      default /opt/korvex/var/run/kxaecd.status\n"
    "  --deadline-ms N         answer every event within N ms (default 250)\n"
    "  --fail-action allow|deny  hard mode, decision late (default deny)\n"
    "  --no-ignore-marks       do not cache uncontrolled opens in the kernel\n"
    "  --integrity             record each resource's SHA-256 at load; a\n"
    "                          resource whose content changed is not allowed\n"
    "  --test-stall-file FILE  tests: no decision while FILE exists\n"
    "  -v                      mirror log lines to standard error\n"
    "\n"
    "Decision only (no fanotify, nothing marked):\n"
    "  kxaecd --decide-list FILE [--uid N] [--gid N]... [--hard] [--loaded-set "
    "F]\n"
    "      decide a start or library load of each path of FILE (one a line;\n"
    "      \"-\" standard input) by that identity under state 1; prints\n"
    "      \"allow|deny<TAB>reason<TAB>path\" and the time of Decide() per "
    "file\n"
    "      on standard error\n"
    "\n"
    "Exit status: 0 stopped by a signal; 1 cannot run (fanotify, marks);\n"
    "2 bad command line; --status: 0 running, 3 not running.\n";

struct Options {
  bool foreground = false;
  bool status = false;
  bool verbose = false;
  std::string root;
  std::vector<std::string> watch;
  std::vector<std::string> exclude;
  std::string loaded_set = aec::engine::kLoadedSetPath;
  std::string sysctl_root;
  std::string journal = kJournalPath;
  bool no_journal = false;
  std::uint64_t journal_max_rows = 0;
  std::int64_t journal_max_days = 0;
  std::string status_file = kStatusPath;
  long deadline_ms = 250;
  bool fail_deny = true;
  bool ignore_marks = true;
  bool integrity = false;
  std::string stall_file;
  std::string decide_list;
  std::uint32_t uid = 0;
  std::vector<std::uint32_t> gids;
  bool hard = false;
};

void Log(int priority, const std::string &text) {
  log_message("kxaecd", 0, priority, 24, "kx_serv", "%s", text.c_str());
}

bool ParseNumber(const std::string &text, long long min, long long max,
                 long long *out) {
  if (text.empty() || text.size() > 18)
    return false;
  char *end = nullptr;
  const long long v = std::strtoll(text.c_str(), &end, 10);
  if (*end != '\0' || v < min || v > max)
    return false;
  *out = v;
  return true;
}

int Usage(const std::string &why) {
  std::fprintf(stderr, "kxaecd: %s\nTry 'kxaecd --help'.\n", why.c_str());
  return 2;
}

int ParseArgs(int argc, char **argv, Options *o) {
  for (int i = 1; i < argc; ++i) {
    const std::string a = argv[i];
    auto value = [&](std::string *out) {
      if (i + 1 >= argc)
        return false;
      *out = argv[++i];
      return true;
    };
    std::string v;
    long long n = 0;
    if (a == "--help" || a == "-h") {
      std::fputs(kHelp, stdout);
      return 0;
    } else if (a == "--foreground") {
      o->foreground = true;
    } else if (a == "--status") {
      o->status = true;
    } else if (a == "-v") {
      o->verbose = true;
    } else if (a == "--root") {
      if (!value(&o->root) || o->root.empty())
        return Usage("--root needs a directory");
    } else if (a == "--watch") {
      if (!value(&v))
        return Usage("--watch needs a mount point");
      o->watch.push_back(v);
    } else if (a == "--exclude-mount") {
      if (!value(&v))
        return Usage("--exclude-mount needs a mount point");
      o->exclude.push_back(v);
    } else if (a == "--loaded-set") {
      if (!value(&o->loaded_set))
        return Usage("--loaded-set needs a file");
    } else if (a == "--sysctl-root") {
      if (!value(&o->sysctl_root))
        return Usage("--sysctl-root needs a directory");
    } else if (a == "--journal") {
      if (!value(&o->journal))
        return Usage("--journal needs a file");
    } else if (a == "--no-journal") {
      o->no_journal = true;
    } else if (a == "--journal-max-rows") {
      if (!value(&v) || !ParseNumber(v, 0, 1LL << 50, &n)) {
        return Usage("--journal-max-rows needs a number");
      }
      o->journal_max_rows = static_cast<std::uint64_t>(n);
    } else if (a == "--journal-max-days") {
      if (!value(&v) || !ParseNumber(v, 0, 100000, &n)) {
        return Usage("--journal-max-days needs a number");
      }
      o->journal_max_days = n;
    } else if (a == "--status-file") {
      if (!value(&o->status_file))
        return Usage("--status-file needs a file");
    } else if (a == "--deadline-ms") {
      if (!value(&v) || !ParseNumber(v, 1, 60000, &n)) {
        return Usage("--deadline-ms needs a number from 1 to 60000");
      }
      o->deadline_ms = static_cast<long>(n);
    } else if (a == "--fail-action") {
      if (!value(&v) || (v != "allow" && v != "deny")) {
        return Usage("--fail-action takes allow or deny");
      }
      o->fail_deny = v == "deny";
    } else if (a == "--integrity") {
      o->integrity = true;
    } else if (a == "--no-ignore-marks") {
      o->ignore_marks = false;
    } else if (a == "--decide-list") {
      if (!value(&o->decide_list))
        return Usage("--decide-list needs a file");
    } else if (a == "--uid" || a == "--gid") {
      if (!value(&v) || !ParseNumber(v, 0, 0xFFFFFFFFLL, &n)) {
        return Usage(a + " needs a number");
      }
      if (a == "--uid") {
        o->uid = static_cast<std::uint32_t>(n);
      } else {
        o->gids.push_back(static_cast<std::uint32_t>(n));
      }
    } else if (a == "--hard") {
      o->hard = true;
    } else if (a == "--test-stall-file") {
      if (!value(&o->stall_file))
        return Usage("--test-stall-file needs a file");
    } else {
      return Usage("unknown argument '" + a + "'");
    }
  }
  const int modes = o->foreground + o->status + !o->decide_list.empty();
  if (modes != 1) {
    return Usage("give one of --foreground (to run), --status, --decide-list");
  }
  if (!o->root.empty() && o->foreground && o->watch.empty()) {
    // A sandboxed run must never mark the machine's own file systems.
    return Usage(
        "--root needs --watch: a sandboxed run watches only what it is given");
  }
  return -1;
}

std::string Dirname(const std::string &path) {
  const auto slash = path.rfind('/');
  if (slash == std::string::npos)
    return ".";
  if (slash == 0)
    return "/";
  return path.substr(0, slash);
}

std::string Basename(const std::string &path) {
  const auto slash = path.rfind('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

void MakeDirs(const std::string &dir) {
  for (std::size_t slash = dir.find('/', 1);;
       slash = dir.find('/', slash + 1)) {
    const std::string part =
        slash == std::string::npos ? dir : dir.substr(0, slash);
    mkdir(part.c_str(), 0755);
    if (slash == std::string::npos)
      break;
  }
}

int DecideList(const Options &o) {
  RuleSetInput input;
  std::string why;
  if (!aec::engine::ReadRuleSetFile(o.loaded_set, &input, &why)) {
    std::fprintf(stderr, "kxaecd: %s\n", why.c_str());
    return 1;
  }
  const auto tables = Tables::Build(input, aec::engine::StatResolver);
  std::ifstream file;
  if (o.decide_list != "-") {
    file.open(o.decide_list);
    if (!file) {
      std::fprintf(stderr, "kxaecd: cannot read %s\n", o.decide_list.c_str());
      return 1;
    }
  }
  std::istream &in = o.decide_list == "-" ? std::cin : file;
  std::vector<aec::engine::Event> events;
  std::string path;
  std::size_t skipped = 0;
  while (std::getline(in, path)) {
    if (path.empty())
      continue;
    aec::engine::Event e;
    if (aec::engine::EventForFile(path, o.uid, o.gids, &e)) {
      events.push_back(std::move(e));
    } else {
      ++skipped;
    }
  }
  const aec::engine::Control control{true, o.hard};
  std::vector<aec::engine::Decision> decisions(events.size());
  const auto start = std::chrono::steady_clock::now();
  for (std::size_t i = 0; i < events.size(); ++i) {
    decisions[i] = aec::engine::Decide(events[i], *tables, control);
  }
  const double ns = std::chrono::duration<double, std::nano>(
                        std::chrono::steady_clock::now() - start)
                        .count();
  std::size_t denied = 0;
  for (std::size_t i = 0; i < events.size(); ++i) {
    const bool deny = decisions[i].rules_deny;
    denied += deny;
    std::printf("%s\t%s\t%s\n", deny ? "deny" : "allow",
                aec::engine::ReasonName(decisions[i].reason),
                events[i].path.c_str());
  }
  std::fprintf(
      stderr,
      "kxaecd: %zu files decided (%zu denied, %zu not regular files "
      "skipped), %.3f us per decision\n",
      events.size(), denied, skipped,
      events.empty() ? 0.0 : ns / 1000.0 / static_cast<double>(events.size()));
  return 0;
}

int ShowStatus(const Options &o) {
  std::ifstream in(o.status_file);
  if (!in) {
    std::fprintf(stderr, "kxaecd: no status at %s: kxaecd is not running\n",
                 o.status_file.c_str());
    return 3;
  }
  std::stringstream text;
  text << in.rdbuf();
  const std::string s = text.str();
  long pid = 0;
  const auto at = s.find("pid: ");
  if (at != std::string::npos)
    pid = std::atol(s.c_str() + at + 5);
  const bool running =
      s.find("running: yes") != std::string::npos && pid > 0 &&
      (kill(static_cast<pid_t>(pid), 0) == 0 || errno == EPERM);
  std::fputs(s.c_str(), stdout);
  if (!running) {
    std::fprintf(stderr,
                 "kxaecd: not running (the status above is the last one)\n");
    return 3;
  }
  return 0;
}

class Daemon {
public:
  explicit Daemon(Options o) : o_(std::move(o)) {}

  int Run() {
    if (o_.sysctl_root.empty())
      o_.sysctl_root = aec::engine::DefaultSysctlRoot();
    env_path_ = o_.sysctl_root + "/" + aec::engine::kEnvironmentParameter;
    verbose_path_ = o_.sysctl_root + "/" + aec::engine::kVerboseParameter;
    if (o_.sysctl_root.compare(0, 6, "/proc/") != 0) {
      // The host writes here; the directory exists whichever starts first.
      MakeDirs(Dirname(env_path_));
    }
    MakeDirs(Dirname(o_.status_file));

    // The first set: an empty one when there is none yet (with control on
    // that denies every start; the tool writes a set before control is on).
    tables_.Set(Tables::Build(RuleSetInput{}, aec::engine::StatResolver));
    ReloadSet();

    if (!o_.no_journal) {
      JournalWriter::Options jo;
      jo.path = o_.journal;
      jo.max_rows = o_.journal_max_rows;
      jo.max_age_seconds = o_.journal_max_days * 86400;
      jo.log = [](int priority, const std::string &m) {
        Log(priority, "journal: " + m);
      };
      MakeDirs(Dirname(o_.journal));
      journal_ = std::make_unique<JournalWriter>(std::move(jo));
    }
    EnforcerOptions eo;
    eo.watch = o_.watch;
    eo.exclude_mounts = o_.exclude;
    eo.deadline = std::chrono::milliseconds(o_.deadline_ms);
    eo.fail_deny = o_.fail_deny;
    eo.ignore_marks = o_.ignore_marks;
    eo.stall_file = o_.stall_file;
    eo.log = Log;
    if (journal_) {
      JournalWriter *writer = journal_.get();
      eo.journal = [writer](JournalEvent &&e) { writer->Submit(std::move(e)); };
    }
    enforcer_ = std::make_unique<Enforcer>(std::move(eo), &tables_);
    audit_mask_ = kDefaultAuditMask;
    ReadParameters(true);
    std::string why;
    if (!enforcer_->Start(&why)) {
      Log(LOG_ERR, "cannot enforce: " + why);
      std::fprintf(stderr, "kxaecd: cannot enforce: %s\n", why.c_str());
      return 1;
    }
    Log(LOG_INFO, "started");
    // Reloads (on the watcher thread, or on this one for SIGHUP) build a
    // whole set on every processor; at a lower priority they take what
    // the decisions leave instead of making programs wait. Threads inherit
    // it, so this comes before the watcher starts.
    if (setpriority(PRIO_PROCESS, static_cast<id_t>(gettid()), kReloadNice) !=
        0) {
      Log(LOG_WARNING, std::string("cannot lower the priority of reloads: ") +
                           std::strerror(errno));
    }
    std::thread watcher([this] { WatchLoop(); });
    const sigset_t set = kxhost::DaemonSignals();
    int sig = 0;
    for (;;) {
      sigwait(&set, &sig);
      if (sig == SIGHUP) {
        ReloadSet();
        ReadParameters(false);
        continue;
      }
      break;
    }
    stopping_ = true;
    watcher.join();
    enforcer_->Stop();
    WriteStatus(false);
    journal_.reset();
    Log(LOG_INFO, "stopped");
    return 0;
  }

private:
  void ReloadSet() {
    RuleSetInput input;
    std::string why;
    if (!aec::engine::ReadRuleSetFile(o_.loaded_set, &input, &why)) {
      Log(LOG_ERR, "loaded set not taken, the previous one stays: " + why);
      return;
    }
    auto tables = Tables::Build(input, aec::engine::StatResolver, o_.integrity);
    const std::string version = input.version;
    input = RuleSetInput();
    std::shared_ptr<const Tables> old = tables_.Get();
    tables_.Set(tables);
    if (enforcer_)
      enforcer_->FlushIgnoreMarks();
    Log(LOG_INFO, "loaded set " + version + ": " +
                      std::to_string(tables->rules().size()) + " rules, " +
                      std::to_string(tables->resource_count()) + " resources");
    ReleaseHere(std::move(old));
  }

  // Frees the replaced tables on this thread: a decision that still holds
  // them would otherwise free them on the event thread, inside the time a
  // program waits for its answer. A decision lasts far less than the
  // deadline, so waiting that long is enough; after it the last holder
  // frees them, wherever it is. The memory goes back to the system, or a
  // reload would keep two sets resident.
  void ReleaseHere(std::shared_ptr<const Tables> old) {
    const auto until = std::chrono::steady_clock::now() +
                       std::chrono::milliseconds(o_.deadline_ms);
    while (old && old.use_count() > 1 &&
           std::chrono::steady_clock::now() < until) {
      usleep(1000);
    }
    old.reset();
    malloc_trim(0);
  }

  void ReadParameters(bool first) {
    int value = 0;
    std::string why;
    if (aec::engine::ReadParameter(env_path_, 3, &value, &why)) {
      if (first || value != enforcer_->control_value()) {
        enforcer_->SetControl(value);
        Log(LOG_INFO, "state " + std::to_string(value & 1) + ", mode " +
                          std::to_string((value >> 1) & 1));
      }
    } else if (first || why != last_env_error_) {
      Log(first ? LOG_INFO : LOG_ERR, "state and mode kept: " + why);
    }
    last_env_error_ = why;
    why.clear();
    if (aec::engine::ReadParameter(verbose_path_, 255, &value, &why)) {
      audit_mask_ = static_cast<unsigned>(value);
    } else if (first || why != last_mask_error_) {
      Log(first ? LOG_INFO : LOG_ERR, "audit mask kept: " + why);
    }
    last_mask_error_ = why;
    enforcer_->SetAuditMask(audit_mask_ & 0x3f);
  }

  void WatchLoop() {
    const int in = inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
    const std::uint32_t mask =
        IN_CLOSE_WRITE | IN_MOVED_TO | IN_CREATE | IN_DELETE;
    const std::string set_dir = Dirname(o_.loaded_set);
    const std::string param_dir = Dirname(env_path_);
    if (in < 0 || inotify_add_watch(in, set_dir.c_str(), mask) < 0) {
      Log(LOG_ERR, "cannot watch " + set_dir + ": " + std::strerror(errno) +
                       "; looking every second");
    }
    if (in >= 0 && inotify_add_watch(in, param_dir.c_str(), mask) < 0) {
      Log(LOG_ERR, "cannot watch " + param_dir + ": " + std::strerror(errno));
    }
    const std::string set_name = Basename(o_.loaded_set);
    auto last_status = std::chrono::steady_clock::time_point();
    while (!stopping_) {
      struct pollfd p = {in, POLLIN, 0};
      const int ready = in >= 0 ? poll(&p, 1, 200) : (usleep(200000), 0);
      bool set_changed = false, params_changed = false;
      if (ready > 0) {
        alignas(struct inotify_event) char buffer[8192];
        ssize_t got;
        while ((got = read(in, buffer, sizeof buffer)) > 0) {
          for (char *at = buffer; at < buffer + got;) {
            auto *e = reinterpret_cast<struct inotify_event *>(at);
            const std::string name = e->len ? e->name : "";
            if (name == set_name)
              set_changed = true;
            if (name == Basename(env_path_) ||
                name == Basename(verbose_path_)) {
              params_changed = true;
            }
            at += sizeof(struct inotify_event) + e->len;
          }
        }
      }
      // Without inotify, and as a safety net, look at the files each time
      // the status is written.
      const auto now = std::chrono::steady_clock::now();
      if (now - last_status >= std::chrono::seconds(1)) {
        last_status = now;
        if (in < 0)
          set_changed = params_changed = true;
        params_changed = true;
        WriteStatus(true);
      }
      if (set_changed)
        ReloadSet();
      if (params_changed)
        ReadParameters(false);
    }
    if (in >= 0)
      close(in);
  }

  void WriteStatus(bool running) {
    const auto tables = tables_.Get();
    const auto s = enforcer_->GetStats();
    std::ostringstream out;
    char line[256];
    out << "running: " << (running ? "yes" : "no") << "\n";
    out << "pid: " << getpid() << "\n";
    const int env = enforcer_->control_value();
    out << "state: " << (env & 1) << "\nmode: " << ((env >> 1) & 1) << "\n";
    out << "audit mask: " << enforcer_->audit_mask() << "\n";
    out << "set version: "
        << (tables->version().empty() ? "none" : tables->version()) << "\n";
    out << "rules: " << tables->rules().size() << "\n";
    out << "resources: " << tables->resource_count() << "\n";
    out << "events: " << s.events << "\n";
    out << "decided: " << s.decided << "\n";
    out << "denied: " << s.denied << "\n";
    out << "rules denied: " << s.rules_denied << "\n";
    out << "timeouts: " << s.timeouts << "\n";
    out << "own events: " << s.own << "\n";
    out << "ignore marks: " << s.ignore_marks << "\n";
    out << "queue depth: " << s.queue_depth << "\n";
    out << "taken over: " << s.taken_over << "\n";
    std::uint64_t journal_dropped = 0, journal_written = 0, journal_queue = 0;
    if (journal_) {
      const auto js = journal_->GetStats();
      journal_dropped = js.dropped;
      journal_written = js.written;
      journal_queue = js.queue_depth;
    }
    out << "journal written: " << journal_written << "\n";
    out << "journal queue depth: " << journal_queue << "\n";
    out << "dropped: " << journal_dropped + s.overflows << "\n";
    std::snprintf(line, sizeof line,
                  "latency p50 us: %.1f\nlatency p99 us: %.1f\n"
                  "decision p50 us: %.2f\ndecision p99 us: %.2f\n",
                  s.p50_us, s.p99_us, s.decide_p50_us, s.decide_p99_us);
    out << line;
    // Written beside and renamed, so a reader never sees half of it.
    const std::string tmp = o_.status_file + ".tmp";
    {
      std::ofstream f(tmp, std::ios::trunc);
      f << out.str();
      if (!f)
        return;
    }
    rename(tmp.c_str(), o_.status_file.c_str());
  }

  Options o_;
  TablesHolder tables_;
  std::unique_ptr<JournalWriter> journal_;
  std::unique_ptr<Enforcer> enforcer_;
  std::string env_path_, verbose_path_;
  std::string last_env_error_, last_mask_error_;
  unsigned audit_mask_ = kDefaultAuditMask;
  std::atomic<bool> stopping_{false};
};

} // namespace

int main(int argc, char **argv) {
  Options o;
  const int parsed = ParseArgs(argc, argv, &o);
  if (parsed >= 0)
    return parsed;
  if (!o.root.empty()) {
    try {
      kxhost::EnterSandbox(o.root);
    } catch (const std::exception &e) {
      std::fprintf(stderr, "kxaecd: cannot enter the sandbox: %s\n", e.what());
      return 1;
    }
  }
  if (o.status)
    return ShowStatus(o);
  if (!o.decide_list.empty())
    return DecideList(o);
  kxhost::RuntimeOptions runtime;
  runtime.mirror_to_stderr = o.verbose;
  kxhost::Configure(runtime);
  // Every thread inherits the blocked signals; main waits for them.
  kxhost::BlockDaemonSignals();
  return Daemon(std::move(o)).Run();
}
