// The learning tools against the running engine: `kxaecctl simulate` over
// the journal kxaecd wrote reports exactly what kxaecd refused, and a
// baseline built from a dpkg database of the tmpfs's files is enough for a
// shell script to run there in hard mode. The tools run as the built
// program, installed into the sandbox's /opt/korvex/bin; kxaecd watches only
// the test's own tmpfs (enforcement_fixture.h).
#include <grp.h>
#include <limits.h>
#include <pwd.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <map>
#include <optional>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <tuple>
#include <vector>

#include "enforcement_fixture.h"
#include "fake_dpkg_database.h"
#include "kxaecctl/simulate_command.h"
#include "kxtest.h"

namespace enginetest {
namespace {

namespace fs = std::filesystem;

const std::string kKxaecctl = "/opt/korvex/bin/kxaecctl";
const std::string kRulesDir = "/opt/korvex/etc/aec/rules/";
const std::string kAdminDir = "/opt/korvex/var/tmp/dpkg/";

// An account of this machine with the groups the account database gives
// it: simulate can only know a journalled user's groups from there, so the
// children take exactly those.
struct Account {
  std::string name;
  uid_t uid = 0;
  gid_t gid = 0;
  std::vector<gid_t> groups;
};

std::optional<Account> LookUpAccount(const std::string &name) {
  const struct passwd *pw = getpwnam(name.c_str());
  if (pw == nullptr) return std::nullopt;
  Account account{name, pw->pw_uid, pw->pw_gid, {}};
  int count = 64;
  account.groups.resize(static_cast<std::size_t>(count));
  if (getgrouplist(name.c_str(), pw->pw_gid, account.groups.data(), &count) < 0)
    return std::nullopt;
  account.groups.resize(static_cast<std::size_t>(count));
  return account;
}

// Denials of one program for one user, by kind of access.
struct Tally {
  int starts = 0, loads = 0, opens = 0;
  bool operator==(const Tally &o) const {
    return std::tie(starts, loads, opens) ==
           std::tie(o.starts, o.loads, o.opens);
  }
};
using Denials = std::map<std::pair<std::string, std::string>, Tally>;

std::ostream &operator<<(std::ostream &out, const Denials &denials) {
  for (const auto &[who, tally] : denials) {
    out << "\n  " << who.first << " / " << who.second << ": " << tally.starts
        << " starts, " << tally.loads << " loads, " << tally.opens << " opens";
  }
  return out << "\n";
}

// simulate's report read back: a program line, then one line per user
// "  USER: N denied (S starts, L library loads, O opens)".
Denials ParseSimulateReport(const std::string &text) {
  Denials denials;
  std::istringstream in(text);
  std::string program;
  for (std::string line; std::getline(in, line);) {
    if (line.rfind("simulate: ", 0) == 0) continue;
    if (line.rfind("  ", 0) != 0) {
      program = line;
      continue;
    }
    const auto colon = line.find(": ");
    Tally tally;
    int total = 0;
    EXPECT_EQ(std::sscanf(line.c_str() + colon + 2,
                          "%d denied (%d starts, %d library loads, %d opens)",
                          &total, &tally.starts, &tally.loads, &tally.opens),
              4)
        << line;
    EXPECT_EQ(total, tally.starts + tally.loads + tally.opens) << line;
    denials[{program, line.substr(2, colon - 2)}] = tally;
  }
  return denials;
}

// Recreates this machine's `path` below `root`: each directory on the way,
// each symbolic link with its target text unchanged (an absolute target
// then leads inside `root` for a process whose root directory is `root`),
// and the regular file it ends at, copied. Returns where that copy is.
std::string MirrorIntoRoot(const std::string &root, const std::string &path,
                           int links_followed = 0) {
  if (links_followed > 40)
    throw std::runtime_error("too many links on the way to " + path);
  const fs::path wanted(path);
  fs::path done = "/";  // free of links: ".." after it is plain lexical
  for (auto part = std::next(wanted.begin()); part != wanted.end(); ++part) {
    const fs::path next = (done / *part).lexically_normal();
    const fs::path copy = fs::path(root) / next.relative_path();
    const fs::file_status status = fs::symlink_status(next);
    if (fs::is_symlink(status)) {
      const fs::path target = fs::read_symlink(next);
      if (!fs::is_symlink(fs::symlink_status(copy)))
        fs::create_symlink(target, copy);
      fs::path rest = target.is_absolute() ? target : done / target;
      for (auto more = std::next(part); more != wanted.end(); ++more)
        rest /= *more;
      return MirrorIntoRoot(root, rest.lexically_normal().string(),
                            links_followed + 1);
    }
    if (fs::is_directory(status)) {
      fs::create_directories(copy);
      fs::permissions(copy, fs::perms(0755));
      done = next;
      continue;
    }
    if (!fs::is_regular_file(status) || std::next(part) != wanted.end())
      throw std::runtime_error("cannot mirror " + path);
    if (!fs::exists(copy)) kxtest::CopyFile(next.string(), copy.string());
    return copy.string();
  }
  throw std::runtime_error(path + " is a directory");
}

// What the dynamic loader of this machine opens to run `program`: the
// paths `ldd` names (the interpreter and every shared object).
std::vector<std::string> LoadedBy(const std::string &program) {
  const kxtest::RunResult run = kxtest::RunProgram({"/usr/bin/ldd", program});
  if (run.exit_code != 0)
    throw std::runtime_error("ldd " + program + ": " + run.err);
  std::vector<std::string> paths;
  std::istringstream in(run.out);
  for (std::string word; in >> word;) {
    if (word[0] == '/') paths.push_back(word);
  }
  return paths;
}

class LearningToolsTest : public EnforcementTest {
 protected:
  void SetUp() override {
    EnforcementTest::SetUp();
    if (IsSkipped() || HasFatalFailure()) return;
    kxtest::CopyFile(KX_KXAECCTL_PATH, kKxaecctl);
    kxtest::CopyFile(KX_KXAIDE_PATH, "/opt/korvex/bin/kxaide");
    // Load and seal the fresh configuration, as an installation does once.
    const kxtest::RunResult run = Ctl({"reload"});
    ASSERT_EQ(run.exit_code, 0) << run.err;
  }

  kxtest::RunResult Ctl(std::vector<std::string> args) {
    args.insert(args.begin(), kKxaecctl);
    return kxtest::RunProgram(args);
  }
};

// simulate and kxaecd share the decision function, but not the way to it:
// simulate rebuilds each event from a journal row (the file by its path
// now, the user by name with the account database's groups) and the rules
// from the loaded set or the rule files. This holds that whole path to
// what the engine answered the kernel for the same accesses: rule users,
// a group rule, an extended rule, a whitelisted user and an exception;
// starts, library loads and opens.
//
// As an administrator would: a soft-mode period under an early set of
// rules, then the rules made, then hard mode. Both journals hold the same
// kinds of rows (every decision whose audit bit is set, success 0 for what
// the rules deny), so the soft-mode journal's success column reflects the
// early rules, not the final ones: a replay that echoed it would not match.
// The extended rule is there from the start, because an open of a file
// that no extended rule holds is not controlled and never journalled.
TEST_F(LearningToolsTest, SimulateReportsExactlyTheDenialsOfTheEngine) {
  std::vector<Account> accounts;
  for (const char *name : {"daemon", "bin", "sys", "mail"}) {
    const auto account = LookUpAccount(name);
    if (!account) GTEST_SKIP() << "this machine has no account " << name;
    accounts.push_back(*account);
  }
  const std::string excepted = watched_ + "/excepted";
  Copy("/bin/true", excepted);
  const auto add = [this](const std::vector<std::string> &args) {
    const kxtest::RunResult run = Ctl(args);
    EXPECT_EQ(run.exit_code, 0) << args[1] << " " << args[2] << ": " << run.err;
  };
  add({"add", "-n", "secret", "-X", "-u", "sys", "-r", data_, "-d"});
  add({"add", "-u", "mail"});
  add({"add", "-r", excepted});
  ASSERT_FALSE(HasFailure());

  char self[PATH_MAX] = {0};
  ASSERT_GT(readlink("/proc/self/exe", self, sizeof self - 1), 0);
  struct Access {
    Act act;
    std::string path;
  };
  const std::vector<Access> accesses = {{Act::kExec, allowed_},
                                        {Act::kExec, denied_},
                                        {Act::kExec, excepted},
                                        {Act::kDlopen, lib_},
                                        {Act::kOpen, data_}};
  // Every access by every account; what the engine refused, under the
  // program the journal names (the file started, or for a load or an
  // open the program of the process: this test's own executable).
  const auto run_all = [&](Denials *refused) {
    int done = 0;
    for (const Account &who : accounts) {
      for (const Access &access : accesses) {
        const int code =
            RunAs(who.uid, who.gid, who.groups, access.act, access.path).code;
        SCOPED_TRACE(who.name + " " + access.path);
        EXPECT_TRUE(code == 0 || code == 126) << code;
        ++done;
        if (code != 126) continue;
        Tally &tally = (*refused)[{
            access.act == Act::kExec ? access.path : self, who.name}];
        ++(access.act == Act::kExec   ? tally.starts
           : access.act == Act::kOpen ? tally.opens
                                      : tally.loads);
      }
    }
    return done;
  };

  // Soft mode: nothing is stopped, the journal says what would be.
  const std::string soft_journal = base_ + "/soft.db";
  SetParams(1, 63);
  StartEngine({"--journal", soft_journal});
  WaitForSet(1);
  Denials refused_in_soft_mode;
  const int accessed = run_all(&refused_in_soft_mode);
  StopEngine();  // the journal is drained on the way out
  EXPECT_TRUE(refused_in_soft_mode.empty()) << refused_in_soft_mode;

  add({"add", "-n", "starters", "-u", "daemon", "-r", allowed_, "-d"});
  add({"add", "-n", "loaders", "-g", "bin", "-r", allowed_, lib_, "-d"});
  ASSERT_FALSE(HasFailure());
  SetParams(3, 63);
  StartEngine();
  WaitForSet(3);
  Denials refused;
  ASSERT_EQ(run_all(&refused), accessed);
  StopEngine();
  // The run itself means something: the engine allowed the rule users'
  // program and refused another, and journalled every access.
  EXPECT_EQ(refused.count({allowed_, "daemon"}), 0u) << refused;
  EXPECT_EQ(refused.count({allowed_, "bin"}), 0u) << refused;
  EXPECT_EQ(refused.count({denied_, "daemon"}), 1u) << refused;
  ASSERT_EQ(JournalRows().size(), static_cast<std::size_t>(accessed));

  const auto expect_report = [&](const kxtest::RunResult &run,
                                 const std::string &what) {
    SCOPED_TRACE(what);
    EXPECT_EQ(run.exit_code, aectool::kWouldDeny) << run.err;
    EXPECT_EQ(run.err, "");
    EXPECT_EQ(ParseSimulateReport(run.out), refused) << run.out;
    EXPECT_NE(run.out.find(" of " + std::to_string(accessed) + " events"),
              std::string::npos)
        << run.out;
    EXPECT_EQ(run.out.find("could not be replayed"), std::string::npos)
        << run.out;
  };
  expect_report(Ctl({"simulate", "--mode", "hard", "--journal", soft_journal}),
                "soft-mode journal, loaded set");
  expect_report(Ctl({"simulate", "--mode", "hard", "--journal", soft_journal,
                     "--rules", kRulesDir}),
                "soft-mode journal, rule files");
  expect_report(Ctl({"simulate", "--mode", "hard"}),
                "hard-mode journal, loaded set");
}

// A hard-mode switch must not stop the machine's own shell. Here the
// "machine" is the tmpfs made into a small root directory: the shell, a
// few utilities, the dynamic loader and the shared objects they load, all
// mirrored from this machine with their links, so every start and every
// library load of the script's run happens on the watched tmpfs. The
// baseline is built from a dpkg database listing those files, and nothing
// else allows anything.
//
// Starting a "#!" script is three starts for the engine: the script
// itself, the interpreter its first line names, and that interpreter's
// dynamic loader; each is decided on its own, so the interpreter being
// allowed does not allow the script. The script therefore comes in a
// package of its own, as a site's scripts would, and is in the baseline
// like any packaged "#!" script; a second script that no package lists is
// refused although its interpreter is allowed.
TEST_F(LearningToolsTest, BaselineOfTheSandboxKeepsAShellScriptRunning) {
  const std::vector<std::string> programs = {
      "/bin/sh", "/bin/sort", "/bin/head", "/bin/wc", "/bin/tr", "/bin/grep"};
  std::vector<kxtest::FakePackage> packages(5);
  packages[0].name = "dash";
  packages[1].name = "coreutils";
  packages[2].name = "grep";
  packages[3].name = "libc6";
  packages[3].fields = "Multi-Arch: same\n";
  packages[3].list_name = "libc6:amd64";
  packages[4].name = "site-jobs";
  std::set<std::string> libraries;
  for (const std::string &program : programs) {
    const std::string copy = MirrorIntoRoot(watched_, program);
    const std::size_t package = program == "/bin/sh"     ? 0
                                : program == "/bin/grep" ? 2
                                                         : 1;
    packages[package].list.push_back(copy);
    for (const std::string &loaded : LoadedBy(program))
      libraries.insert(MirrorIntoRoot(watched_, loaded));
  }
  packages[3].list.assign(libraries.begin(), libraries.end());
  const std::string script =
      "#!/bin/sh\n"
      "PATH=/bin\n"
      "first=$(printf 'pear\\napple\\nfig\\n' | sort | head -n 1)\n"
      "test \"$first\" = apple || exit 3\n"
      "test \"$(printf 'a\\nb\\nc\\n' | wc -l)\" -eq 3 || exit 4\n"
      "echo \"$first\" | tr a-z A-Z | grep -q '^APPLE$' || exit 5\n"
      "exit 0\n";
  Put(watched_ + "/job.sh", script, 0755);
  Put(watched_ + "/unlisted.sh", script, 0755);
  packages[4].list.push_back(watched_ + "/job.sh");
  // It would run if a rule allowed it: its loader and libraries are there.
  Copy(fs::canonical("/bin/true").string(), watched_ + "/stranger");
  kxtest::WriteDpkgDatabase(kAdminDir, packages);

  const kxtest::RunResult baseline = Ctl({"baseline", "--admindir", kAdminDir});
  ASSERT_EQ(baseline.exit_code, 0) << baseline.err;
  const std::size_t files = programs.size() + libraries.size() + 1;
  EXPECT_EQ(baseline.out, "baseline: " + std::to_string(files) +
                              " files from 5 packages (5 packages read)\n");

  const std::string loaded = Slurp(kSet);
  for (const kxtest::FakePackage &package : packages) {
    for (const std::string &file : package.list) {
      EXPECT_NE(loaded.find("rule-resource\tsystem-base\t" + file + "\n"),
                std::string::npos)
          << file;
    }
  }

  SetParams(3, 63);
  StartEngine();
  WaitForSet(1);
  const Outcome job = RunAs(kAlice, kNobodyGroup, {}, Act::kExec, "/job.sh",
                            std::chrono::seconds(20), watched_);
  EXPECT_EQ(job.code, 0) << Slurp(log_path_);
  // What the baseline does not hold is refused in the same run.
  EXPECT_EQ(RunAs(kAlice, kNobodyGroup, {}, Act::kExec, "/stranger",
                  std::chrono::seconds(20), watched_)
                .code,
            126);
  EXPECT_EQ(RunAs(kAlice, kNobodyGroup, {}, Act::kExec, "/unlisted.sh",
                  std::chrono::seconds(20), watched_)
                .code,
            126);
  StopEngine();  // the journal is drained on the way out
  EXPECT_TRUE(WaitForRow("1051|0|" + watched_ + "/stranger|"));
  // And the script's run went through the engine: each of its starts and
  // loads, from the tmpfs, was decided and journalled as permitted.
  const std::vector<std::string> rows = JournalRows();
  const auto permitted = [&rows](const std::string &file) {
    for (const std::string &row : rows) {
      if (row.find("|1|") == 4 &&
          row.find("|\"" + file + "\";|") != std::string::npos)
        return true;
    }
    return false;
  };
  EXPECT_TRUE(permitted(watched_ + "/job.sh"));
  for (const kxtest::FakePackage &package : packages) {
    for (const std::string &file : package.list)
      EXPECT_TRUE(permitted(file)) << file;
  }
}

}  // namespace
}  // namespace enginetest
