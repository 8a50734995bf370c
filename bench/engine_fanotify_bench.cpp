// What permission events cost a program start and a file read, on a tmpfs
// mounted inside this process's own private mount namespace (nothing of
// the machine is ever marked). Not a timed test: run by hand (as root) or by
// scripts/bench-engine.sh; the figures go to docs/performance.md.
//
// Each round measures, side by side and in turn:
//   off        nothing listens
//   listener   a listener in this process answers every event "allow" at
//              once: the kernel's round trip through user space, the floor
//              that any enforcing daemon pays
//   ignore     the same listener adds an ignore mark for every file whose
//              open it allowed (what a daemon does for a file it decided
//              "not controlled"), so later opens of it cost nothing
//   engine     the built kxaecd watching the tmpfs, hard mode, a loaded set
//              of --rules rules (the program is a resource of one of them),
//              audit mask 15, its journal in the sandboxed root
//   engine-noignore  the same with --no-ignore-marks
// The process enters a sandbox first (kxhost's: private mount namespace,
// a scratch root at /opt/korvex), so the engine's files are never the
// machine's. Each engine round also checks that a program no rule allows is
// refused, so a figure never comes from an engine that did not enforce.
// E1: --starts starts of a small program (a copy of /bin/true) on the tmpfs.
// E2: --files small files on the tmpfs read once (first pass) and again
//     (second pass: where ignore marks earn their keep).
//
//   engine_fanotify_bench [--starts=5000] [--files=20000] [--rounds=3]
//                         [--rules=10000] [--no-engine] [--engine-arg=ARG]...
// --engine-arg passes ARG on to kxaecd (e.g. --no-journal), to measure what
// a part of the engine costs. After each engine round the engine's own
// figures (its status: received to answered, p50 and p99) are printed.
#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/fanotify.h>
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
#include <map>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "support/child_process.h"
#include "support/engine_sandbox.h"
#include "support/machine_load.h"

namespace {

using Clock = std::chrono::steady_clock;

[[noreturn]] void Die(const std::string& what) {
  std::fprintf(stderr, "engine_fanotify_bench: %s: %s\n", what.c_str(),
               std::strerror(errno));
  std::exit(2);
}

double MillisSince(Clock::time_point start) {
  return std::chrono::duration<double, std::milli>(Clock::now() - start)
      .count();
}

// Answers every permission event on the tmpfs "allow", optionally adding an
// ignore mark for each file it saw opened. Every event is answered, whatever
// happens; closing the group (destructor) releases anything left.
class AllowListener {
 public:
  AllowListener(const std::string& mount_dir, bool ignore_marks)
      : ignore_marks_(ignore_marks) {
    fd_ =
        fanotify_init(FAN_CLASS_CONTENT | FAN_CLOEXEC, O_RDONLY | O_LARGEFILE);
    if (fd_ < 0) Die("fanotify_init");
    if (fanotify_mark(fd_, FAN_MARK_ADD | FAN_MARK_MOUNT,
                      FAN_OPEN_EXEC_PERM | FAN_OPEN_PERM, AT_FDCWD,
                      mount_dir.c_str()) != 0) {
      Die("fanotify_mark " + mount_dir);
    }
    thread_ = std::thread([this] { Run(); });
  }
  ~AllowListener() {
    stop_.store(true);
    thread_.join();
    close(fd_);
  }
  std::uint64_t events() const { return events_.load(); }

 private:
  void Run() {
    alignas(fanotify_event_metadata) char buffer[8192];
    while (!stop_.load()) {
      pollfd p{fd_, POLLIN, 0};
      if (poll(&p, 1, 50) <= 0) continue;
      const ssize_t n = read(fd_, buffer, sizeof buffer);
      if (n <= 0) continue;
      auto* event = reinterpret_cast<fanotify_event_metadata*>(buffer);
      ssize_t left = n;
      while (FAN_EVENT_OK(event, left)) {
        if (event->fd >= 0) {
          fanotify_response response{event->fd, FAN_ALLOW};
          if (write(fd_, &response, sizeof response) !=
              static_cast<ssize_t>(sizeof response)) {
            std::perror("engine_fanotify_bench: answer");
          }
          if (ignore_marks_ && (event->mask & FAN_OPEN_PERM) != 0) {
            fanotify_mark(fd_,
                          FAN_MARK_ADD | FAN_MARK_IGNORED_MASK |
                              FAN_MARK_IGNORED_SURV_MODIFY,
                          FAN_OPEN_PERM, event->fd, nullptr);
          }
          close(event->fd);
        }
        events_.fetch_add(1);
        event = FAN_EVENT_NEXT(event, left);
      }
    }
  }

  int fd_ = -1;
  bool ignore_marks_;
  std::atomic<bool> stop_{false};
  std::atomic<std::uint64_t> events_{0};
  std::thread thread_;
};

double StartPrograms(const std::string& program, int starts) {
  const auto start = Clock::now();
  for (int i = 0; i < starts; ++i) {
    const pid_t pid = fork();
    if (pid < 0) Die("fork");
    if (pid == 0) {
      char* const args[] = {const_cast<char*>(program.c_str()), nullptr};
      execv(args[0], args);
      _exit(127);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
      std::fprintf(stderr, "engine_fanotify_bench: %s failed (status %d)\n",
                   program.c_str(), status);
      std::exit(2);
    }
  }
  return MillisSince(start);
}

double ReadFiles(const std::vector<std::string>& files) {
  char buffer[256];
  const auto start = Clock::now();
  for (const auto& file : files) {
    const int fd = open(file.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) Die("open " + file);
    if (read(fd, buffer, sizeof buffer) <= 0) Die("read " + file);
    close(fd);
  }
  return MillisSince(start);
}

struct Figures {
  std::vector<double> starts, first_read, second_read;
  std::uint64_t events = 0;
};

double Median(std::vector<double> values) {
  return kxbench::Percentile(values, 50);
}

void Put(const std::string& path, const std::string& text) {
  std::ofstream out(path, std::ios::trunc);
  out << text;
  if (!out) Die("write " + path);
}

// A loaded set of `rules` enabled rules for all users, one resource each;
// the first holds `program`.
std::string LoadedSet(int rules, const std::string& program) {
  std::string text = "format\t1\n";
  char name[32];
  for (int r = 0; r < rules; ++r) {
    std::snprintf(name, sizeof name, "r%06d", r);
    text += std::string("rule\t") + name + "\t1\t1\t0\t0\n";
    text += std::string("rule-resource\t") + name + "\t" +
            (r == 0 ? program : "/usr/local/kxbench/prog" + std::to_string(r)) +
            "\n";
  }
  return text;
}

constexpr const char kStatus[] = "/opt/korvex/var/run/kxaecd.status";

pid_t StartEngine(const std::string& dir, bool ignore_marks,
                  const std::string& log, std::vector<std::string> extra) {
  unlink(kStatus);
  if (!ignore_marks) extra.push_back("--no-ignore-marks");
  const pid_t pid = kxbench::LaunchEngine(KX_KXAECD_PATH, dir, log, extra);
  const auto start = Clock::now();
  while (kxbench::Slurp(kStatus).find("running: yes") == std::string::npos) {
    int status = 0;
    if (waitpid(pid, &status, WNOHANG) == pid) {
      std::fprintf(stderr, "engine_fanotify_bench: kxaecd ended at start:\n%s",
                   kxbench::Slurp(log).c_str());
      std::exit(2);
    }
    if (Clock::now() - start > std::chrono::seconds(30)) {
      kill(pid, SIGKILL);
      std::fprintf(stderr,
                   "engine_fanotify_bench: kxaecd not running after 30 s\n");
      std::exit(2);
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return pid;
}

// 0: the start was refused with EPERM; otherwise what happened.
int StartRefused(const std::string& program) {
  const pid_t pid = fork();
  if (pid < 0) Die("fork");
  if (pid == 0) {
    char* const args[] = {const_cast<char*>(program.c_str()), nullptr};
    execv(args[0], args);
    _exit(errno == EPERM ? 0 : 1);
  }
  int status = 0;
  waitpid(pid, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 2;
}

}  // namespace

int main(int argc, char** argv) {
  int starts = 5000;
  int file_count = 20000;
  int rounds = 3;
  int rules = 10000;
  bool with_engine = true;
  std::vector<std::string> engine_args;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    try {
      if (arg == "--help" || arg == "-h") {
        std::printf(
            "usage: engine_fanotify_bench [--starts=N] [--files=N] "
            "[--rounds=N] [--rules=N] [--no-engine] [--engine-arg=ARG]...\n"
            "Runs as root in its own mount namespace on its own tmpfs.\n");
        return 0;
      } else if (arg.rfind("--starts=", 0) == 0) {
        starts = std::stoi(arg.substr(9));
      } else if (arg.rfind("--files=", 0) == 0) {
        file_count = std::stoi(arg.substr(8));
      } else if (arg.rfind("--rounds=", 0) == 0) {
        rounds = std::stoi(arg.substr(9));
      } else if (arg.rfind("--rules=", 0) == 0) {
        rules = std::stoi(arg.substr(8));
      } else if (arg == "--no-engine") {
        with_engine = false;
      } else if (arg.rfind("--engine-arg=", 0) == 0) {
        engine_args.push_back(arg.substr(13));
      } else {
        std::fprintf(stderr, "engine_fanotify_bench: unknown argument %s\n",
                     arg.c_str());
        return 2;
      }
    } catch (const std::exception&) {
      std::fprintf(stderr, "engine_fanotify_bench: bad number in %s\n",
                   arg.c_str());
      return 2;
    }
  }
  if (starts < 1 || file_count < 1 || rounds < 1 || rules < 1) {
    std::fprintf(stderr, "engine_fanotify_bench: counts must be >= 1\n");
    return 2;
  }
  // The sandbox: a private mount namespace with a scratch root at
  // /opt/korvex, and a tmpfs in it, the only mount anything here marks.
  const kxbench::EngineSandbox sandbox = kxbench::EnterEngineSandbox(
      "engine_fanotify_bench", "kxfan-bench-", "512m");
  const std::string& scratch = sandbox.scratch;
  const std::string& dir = sandbox.dir;

  const std::string program = dir + "/prog";
  const std::string denied = dir + "/denied";
  for (const auto& target : {program, denied}) {
    const auto copy = kxbench::RunChild({"/bin/cp", "/bin/true", target});
    if (copy.exit_code != 0) Die("cp /bin/true");
  }
  std::vector<std::string> files;
  mkdir((dir + "/data").c_str(), 0755);
  const std::string content(100, 'x');
  for (int i = 0; i < file_count; ++i) {
    files.push_back(dir + "/data/f" + std::to_string(i));
    const int fd =
        open(files.back().c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0 || write(fd, content.data(), content.size()) < 0) Die("create");
    close(fd);
  }
  if (with_engine) {
    const auto made =
        kxbench::RunChild({"/bin/mkdir", "-p", "/opt/korvex/var/lib/aec",
                           "/opt/korvex/var/run/sysctl/korvex/secure"});
    if (made.exit_code != 0) Die("mkdir in the sandboxed root");
    Put("/opt/korvex/var/lib/aec/loaded-rules", LoadedSet(rules, program));
    Put("/opt/korvex/var/run/sysctl/korvex/secure/environment", "3\n");
    Put("/opt/korvex/var/run/sysctl/korvex/secure/secenv_verbose", "15\n");
  }

  std::vector<std::string> modes = {"off", "listener", "ignore"};
  if (with_engine) {
    modes.push_back("engine");
    modes.push_back("engine-noignore");
  }
  std::map<std::string, Figures> figures;
  int not_enforced = 0;
  for (int round = 0; round < rounds; ++round) {
    for (const auto& mode : modes) {
      Figures& f = figures[mode];
      // Each mode gets a group of its own: ignore marks die with the group
      // that made them, so nothing carries over into the next mode.
      std::unique_ptr<AllowListener> listener;
      pid_t engine_pid = -1;
      if (mode == "listener" || mode == "ignore") {
        listener = std::make_unique<AllowListener>(dir, mode == "ignore");
      } else if (mode.rfind("engine", 0) == 0) {
        engine_pid = StartEngine(dir, mode == "engine", scratch + "/kxaecd.log",
                                 engine_args);
        if (StartRefused(denied) != 0) ++not_enforced;
      }
      f.starts.push_back(StartPrograms(program, starts));
      f.first_read.push_back(ReadFiles(files));
      f.second_read.push_back(ReadFiles(files));
      if (listener) f.events += listener->events();
      if (engine_pid > 0) {
        const std::string status = kxbench::Slurp(kStatus);
        for (const char* name : {"latency p50 us: ", "latency p99 us: "}) {
          const auto at = status.find(name);
          if (at != std::string::npos) {
            std::printf("round %d %s %s", round + 1, mode.c_str(),
                        status.substr(at, status.find('\n', at) - at + 1)
                            .c_str());
          }
        }
        kill(engine_pid, SIGTERM);
        waitpid(engine_pid, nullptr, 0);
      }
    }
  }

  const Figures& off = figures["off"];
  std::printf("load average at the end %s\n", kxbench::LoadAverage().c_str());
  std::printf(
      "tmpfs %s, %d starts, %d files, %d rules, medians of %d interleaved "
      "rounds\n",
      dir.c_str(), starts, file_count, rules, rounds);
  std::printf("%-16s %14s %6s %13s %6s %13s %6s %8s\n", "mode", "start us/each",
              "ratio", "read1 us/file", "ratio", "read2 us/file", "ratio",
              "events");
  for (const auto& mode : modes) {
    const Figures& f = figures[mode];
    std::printf("%-16s %14.1f %6.2f %13.2f %6.2f %13.2f %6.2f %8s\n",
                mode.c_str(), Median(f.starts) * 1000 / starts,
                Median(f.starts) / Median(off.starts),
                Median(f.first_read) * 1000 / file_count,
                Median(f.first_read) / Median(off.first_read),
                Median(f.second_read) * 1000 / file_count,
                Median(f.second_read) / Median(off.second_read),
                (mode == "listener" || mode == "ignore"
                     ? std::to_string(f.events / rounds)
                     : std::string("-"))
                    .c_str());
  }
  if (with_engine) {
    std::printf(
        "engine rounds where a program no rule allows was not refused: %d\n",
        not_enforced);
  }
  umount2(dir.c_str(), MNT_DETACH);
  kxbench::RunChild({"/bin/rm", "-rf", scratch});
  return not_enforced == 0 ? 0 : 1;
}
