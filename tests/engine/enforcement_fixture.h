// The fixture of the tests that run kxaecd under real permission events.
// The test process already lives in a private mount namespace (test main);
// each test mounts a tmpfs of its own there and the engine watches only that
// tmpfs, so nothing of the machine is ever marked. Needs root and fanotify
// permission events; a test is skipped with the reason otherwise. TearDown
// stops the engine on every path, so no event is ever left unanswered.
#pragma once

#include <dlfcn.h>
#include <fcntl.h>
#include <grp.h>
#include <signal.h>
#include <sqlite3.h>
#include <sys/fanotify.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
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

#include "kxtest.h"
#include "lib/sandbox.h"

#ifndef TMPFS_MAGIC
#define TMPFS_MAGIC 0x01021994
#endif

namespace enginetest {

using Clock = std::chrono::steady_clock;

constexpr std::uint32_t kAlice = 41001, kBob = 41002, kCarol = 41003;
constexpr std::uint32_t kBuilders = 42001, kTrusted = 42002,
                        kNobodyGroup = 42003;

inline std::string Slurp(const std::string &path) {
  std::ifstream in(path);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

inline void Put(const std::string &path, const std::string &text,
                mode_t mode = 0644) {
  const std::string tmp = path + ".tmp";
  {
    std::ofstream out(tmp, std::ios::trunc);
    out << text;
  }
  chmod(tmp.c_str(), mode);
  ASSERT_EQ(rename(tmp.c_str(), path.c_str()), 0) << path;
}

inline void Copy(const std::string &from, const std::string &to) {
  const std::string text = Slurp(from);
  ASSERT_FALSE(text.empty()) << from;
  std::ofstream(to, std::ios::binary) << text;
  ASSERT_EQ(chmod(to.c_str(), 0755), 0);
}

// What a child did: exit code, or -signal; 126 = the start was refused
// with EPERM, 125 another start failure.
struct Outcome {
  int code = -1000;
  double seconds = 0;
};

enum class Act { kExec, kDlopen, kOpen };

// Held around fork() and around every write of a file that is then
// started: a child forked while another thread had a file open for
// writing would hold that descriptor and make its start fail with
// ETXTBSY, which is the test's doing, not the engine's.
inline std::mutex g_fork_mu;

// Runs `act` on `path` in a child with the given real/effective ids and
// supplementary groups; with `new_root`, the child first changes its root
// directory there and `path` is read inside it. Waits at most `limit`; a
// child still waiting then is killed and reported as -SIGKILL.
inline Outcome RunAs(std::uint32_t uid, std::uint32_t gid,
                     std::vector<gid_t> groups, Act act,
                     const std::string &path,
                     std::chrono::seconds limit = std::chrono::seconds(20),
                     const std::string &new_root = "") {
  const auto start = Clock::now();
  pid_t child;
  {
    std::lock_guard<std::mutex> lock(g_fork_mu);
    child = fork();
  }
  if (child == 0) {
    if (!new_root.empty() && (chroot(new_root.c_str()) != 0 || chdir("/") != 0))
      _exit(124);
    if (setgroups(groups.size(), groups.data()) != 0) _exit(124);
    if (setresgid(gid, gid, gid) != 0) _exit(124);
    if (setresuid(uid, uid, uid) != 0) _exit(124);
    if (act == Act::kExec) {
      execl(path.c_str(), path.c_str(), static_cast<char *>(nullptr));
      _exit(errno == EPERM ? 126 : errno == ETXTBSY ? 123 : 125);
    }
    if (act == Act::kDlopen) {
      void *handle = dlopen(path.c_str(), RTLD_NOW);
      _exit(handle != nullptr ? 0 : 126);
    }
    const int fd = open(path.c_str(), O_RDONLY);
    _exit(fd >= 0 ? 0 : (errno == EPERM ? 126 : 125));
  }
  Outcome out;
  int status = 0;
  for (;;) {
    const pid_t done = waitpid(child, &status, WNOHANG);
    if (done == child) break;
    if (Clock::now() - start > limit) {
      kill(child, SIGKILL);
      waitpid(child, &status, 0);
      break;
    }
    usleep(2000);
  }
  out.seconds = std::chrono::duration<double>(Clock::now() - start).count();
  out.code = WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
  return out;
}

struct Rule {
  std::string name;
  bool enable = true, all_users = false, extended = false;
  std::vector<std::uint32_t> uids, gids;
  std::vector<std::string> resources;
};

inline std::string LoadedSetText(
    const std::vector<Rule> &rules,
    const std::vector<std::uint32_t> &white_uids = {},
    const std::vector<std::uint32_t> &white_gids = {},
    const std::vector<std::string> &exceptions = {}) {
  std::ostringstream s;
  s << "format\t1\n";
  for (const Rule &r : rules) {
    s << "rule\t" << r.name << "\t" << r.enable << "\t" << r.all_users << "\t"
      << r.extended << "\t0\n";
    for (auto u : r.uids)
      s << "rule-user\t" << r.name << "\t" << u << "\tu" << u << "\n";
    for (auto g : r.gids)
      s << "rule-group\t" << r.name << "\t" << g << "\tg" << g << "\n";
    for (auto &p : r.resources)
      s << "rule-resource\t" << r.name << "\t" << p << "\n";
  }
  for (auto u : white_uids) s << "whitelist-user\t" << u << "\tu" << u << "\n";
  for (auto g : white_gids) s << "whitelist-group\t" << g << "\tg" << g << "\n";
  for (auto &p : exceptions) s << "exception\t" << p << "\n";
  return s.str();
}

class EnforcementTest : public kxtest::SandboxTest {
 protected:
  static constexpr const char *kSysctl = "/opt/korvex/var/run/sysctl";
  static constexpr const char *kSet = "/opt/korvex/var/lib/aec/loaded-rules";
  static constexpr const char *kJournal = "/opt/korvex/var/log/audit_logs.db";
  static constexpr const char *kStatus = "/opt/korvex/var/run/kxaecd.status";

  void SetUp() override {
    if (geteuid() != 0)
      GTEST_SKIP() << "needs root for fanotify permission events";
    // Never on the machine's own mounts: this process must be in a mount
    // namespace of its own.
    char mine[64] = {0}, parent[64] = {0};
    const std::string parent_ns =
        "/proc/" + std::to_string(getppid()) + "/ns/mnt";
    if (!kxhost::InSandbox() ||
        readlink("/proc/self/ns/mnt", mine, sizeof mine - 1) < 0 ||
        (readlink(parent_ns.c_str(), parent, sizeof parent - 1) > 0 &&
         std::string(mine) == parent)) {
      GTEST_SKIP()
          << "not in a private mount namespace; refusing to mark anything";
    }
    const int probe = fanotify_init(FAN_CLASS_CONTENT | FAN_CLOEXEC, O_RDONLY);
    if (probe < 0) {
      GTEST_SKIP() << "this machine gives no fanotify permission events: "
                   << std::strerror(errno);
    }
    close(probe);
    char tmpl[] = "/tmp/kx-engine-XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    base_ = tmpl;
    ASSERT_EQ(chmod(base_.c_str(), 0755), 0);
    watched_ = base_ + "/w";
    ASSERT_EQ(mkdir(watched_.c_str(), 0755), 0);
    ASSERT_EQ(mount("kxengine", watched_.c_str(), "tmpfs", MS_NOSUID | MS_NODEV,
                    "size=256m,mode=0755"),
              0)
        << std::strerror(errno);
    struct statfs fs;
    ASSERT_EQ(statfs(watched_.c_str(), &fs), 0);
    ASSERT_EQ(static_cast<long>(fs.f_type), static_cast<long>(TMPFS_MAGIC));
    mounted_ = true;
    allowed_ = watched_ + "/allowed";
    denied_ = watched_ + "/denied";
    lib_ = watched_ + "/libprobe.so";
    data_ = watched_ + "/data.txt";
    Copy("/bin/true", allowed_);
    Copy("/bin/true", denied_);
    Copy(KX_PROBE_LIB_PATH, lib_);
    std::ofstream(data_) << "secret\n";
    chmod(data_.c_str(), 0644);
    mkdir("/opt/korvex/var/lib", 0755);
    mkdir("/opt/korvex/var/lib/aec", 0755);
    SetParams(3, 63);
  }

  void TearDown() override {
    StopEngine();
    if (mounted_) {
      umount2(watched_.c_str(), MNT_DETACH);
      for (const std::string &m : extra_mounts_) umount2(m.c_str(), MNT_DETACH);
    }
    if (!base_.empty()) {
      std::string cmd = "rm -rf '" + base_ + "'";
      if (system(cmd.c_str()) != 0) ADD_FAILURE() << "cannot remove " << base_;
    }
  }

  void SetParams(int environment, int mask) {
    const std::string dir = std::string(kSysctl) + "/korvex/secure";
    std::string cmd = "mkdir -p '" + dir + "'";
    ASSERT_EQ(system(cmd.c_str()), 0);
    Put(dir + "/environment", std::to_string(environment));
    Put(dir + "/secenv_verbose", std::to_string(mask));
  }

  void WriteSet(const std::string &text) { Put(kSet, text); }

  void StartEngine(std::vector<std::string> extra = {}) {
    std::vector<std::string> args = {
        KX_KXAECD_PATH,  "--foreground", "--watch", watched_,
        "--sysctl-root", kSysctl,        "-v"};
    args.insert(args.end(), extra.begin(), extra.end());
    unlink(kStatus);
    log_path_ = base_ + "/kxaecd.log";
    engine_ = fork();
    if (engine_ == 0) {
      const int fd =
          open(log_path_.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
      if (fd >= 0) {
        dup2(fd, 2);
        dup2(fd, 1);
      }
      std::vector<char *> argv;
      for (auto &a : args) argv.push_back(const_cast<char *>(a.c_str()));
      argv.push_back(nullptr);
      execv(argv[0], argv.data());
      _exit(127);
    }
    ASSERT_GT(engine_, 0);
    const auto start = Clock::now();
    while (Slurp(kStatus).find("running: yes") == std::string::npos) {
      int status;
      if (waitpid(engine_, &status, WNOHANG) == engine_) {
        engine_ = -1;
        FAIL() << "kxaecd ended at start:\n" << Slurp(log_path_);
      }
      ASSERT_LT(Clock::now() - start, std::chrono::seconds(10))
          << Slurp(log_path_);
      usleep(20000);
    }
  }

  void StopEngine() {
    if (engine_ <= 0) return;
    kill(engine_, SIGTERM);
    int status = 0;
    const auto start = Clock::now();
    while (waitpid(engine_, &status, WNOHANG) != engine_) {
      if (Clock::now() - start > std::chrono::seconds(10)) {
        kill(engine_, SIGKILL);
        waitpid(engine_, &status, 0);
        ADD_FAILURE() << "kxaecd did not stop on SIGTERM";
        break;
      }
      usleep(10000);
    }
    engine_ = -1;
  }

  // Waits until the engine's status shows the loaded set of `rules` rules
  // with a version other than `old`.
  std::string WaitForSet(std::size_t rules, const std::string &old = "") {
    const auto start = Clock::now();
    for (;;) {
      const std::string s = Slurp(kStatus);
      const auto at = s.find("set version: ");
      const std::string version =
          at == std::string::npos
              ? ""
              : s.substr(at + 13, s.find('\n', at) - at - 13);
      if (s.find("rules: " + std::to_string(rules) + "\n") !=
              std::string::npos &&
          version != "none" && version != old) {
        return version;
      }
      if (Clock::now() - start > std::chrono::seconds(10)) {
        ADD_FAILURE() << "set not loaded; status:\n" << s << Slurp(log_path_);
        return "";
      }
      usleep(20000);
    }
  }

  // Rows of the journal: "event_id|success|app|object_name|username".
  std::vector<std::string> JournalRows() {
    std::vector<std::string> rows;
    sqlite3 *db = nullptr;
    if (sqlite3_open_v2(kJournal, &db, SQLITE_OPEN_READONLY, nullptr) !=
        SQLITE_OK) {
      sqlite3_close(db);
      return rows;
    }
    sqlite3_stmt *st = nullptr;
    if (sqlite3_prepare_v2(
            db,
            "SELECT event_id, success, app, object_name, username "
            "FROM logs ORDER BY rowid",
            -1, &st, nullptr) == SQLITE_OK) {
      while (sqlite3_step(st) == SQLITE_ROW) {
        std::string row;
        for (int c = 0; c < 5; ++c) {
          const unsigned char *t = sqlite3_column_text(st, c);
          row += (c ? "|" : "") +
                 std::string(t ? reinterpret_cast<const char *>(t) : "");
        }
        rows.push_back(row);
      }
    }
    sqlite3_finalize(st);
    sqlite3_close(db);
    return rows;
  }

  // Waits until a journal row holds `needle`.
  bool WaitForRow(const std::string &needle) {
    const auto start = Clock::now();
    while (Clock::now() - start < std::chrono::seconds(10)) {
      for (const std::string &row : JournalRows()) {
        if (row.find(needle) != std::string::npos) return true;
      }
      usleep(50000);
    }
    return false;
  }

  std::string base_, watched_, allowed_, denied_, lib_, data_, log_path_;
  std::vector<std::string> extra_mounts_;
  bool mounted_ = false;
  pid_t engine_ = -1;
};

}  // namespace enginetest
