// The sandboxed install root.
#include "lib/fresh_install.h"
#include "lib/sandbox.h"

#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <boost/filesystem.hpp>
#include <boost/property_tree/json_parser.hpp>
#include <cstdio>
#include <sstream>
#include <string>

#include "kxtest.h"

namespace {

namespace fs = boost::filesystem;

TEST(Sandbox, TestProcessRunsInTheSandbox) {
  EXPECT_TRUE(kxhost::InSandbox());
  EXPECT_TRUE(fs::is_directory("/opt/korvex"));
}

TEST(Sandbox, ScratchRootIsMountedAtTheInstallRoot) {
  std::string dir;
  {
    kxtest::ScratchRoot root;
    dir = root.dir();
    kxtest::WriteFile("/opt/korvex/marker", "here");
    EXPECT_EQ(kxtest::ReadFile(dir + "/marker"), "here");
  }
  // Popped: the file is gone from /opt/korvex, and the scratch dir removed.
  EXPECT_FALSE(kxtest::Exists("/opt/korvex/marker"));
  EXPECT_FALSE(kxtest::Exists(dir));
}

TEST(Sandbox, RootsStackAndUnstack) {
  kxtest::ScratchRoot outer;
  kxtest::WriteFile("/opt/korvex/which", "outer");
  {
    kxtest::ScratchRoot inner;
    EXPECT_FALSE(kxtest::Exists("/opt/korvex/which"));
    kxtest::WriteFile("/opt/korvex/which", "inner");
  }
  EXPECT_EQ(kxtest::ReadFile("/opt/korvex/which"), "outer");
}

TEST(Sandbox, PopWithoutPushIsRefused) {
  // Only pushed roots are popped, never the process's base root.
  kxtest::ScratchRoot root;
  kxhost::PopRoot();
  EXPECT_THROW(kxhost::PopRoot(), std::runtime_error);
  kxhost::PushRoot(root.dir());  // give the ScratchRoot its mount back
}

TEST(Sandbox, LayoutHasTheInstallDirectories) {
  kxtest::ScratchRoot root;
  for (const char* dir :
       {"bin", "etc/aec/rules", "usr/db", "var/log", "var/tmp/rm",
        "var/tmp/pam_messages", "var/run/sysctl", "var/cache/kxnetwork"}) {
    EXPECT_TRUE(fs::is_directory(std::string("/opt/korvex/") + dir)) << dir;
  }
}

TEST(Sandbox, FreshInstallHasAnEmptyWhitelist) {
  kxtest::ScratchRoot root;
  boost::property_tree::ptree expected;
  expected.put("user_list", "");
  expected.put("group_list", "");
  std::ostringstream text;
  boost::property_tree::write_json(text, expected, true);
  EXPECT_EQ(kxtest::ReadFile("/opt/korvex/etc/aec/white-list.config"),
            text.str());
  EXPECT_EQ(text.str(),
            "{\n    \"user_list\": \"\",\n    \"group_list\": \"\"\n}\n");
}

TEST(Sandbox, SeedingKeepsAnExistingWhitelist) {
  kxtest::ScratchRoot root;
  kxtest::WriteFile(root.dir() + "/etc/aec/white-list.config", "{\"x\": \"1\"}");
  fs::remove(root.dir() + "/etc/aec/rules");
  kxhost::SeedFreshInstall(root.dir());
  EXPECT_EQ(kxtest::ReadFile("/opt/korvex/etc/aec/white-list.config"),
            "{\"x\": \"1\"}");
  EXPECT_TRUE(fs::is_directory("/opt/korvex/etc/aec/rules"));
}

TEST(Sandbox, PushOfAMissingDirectoryFails) {
  EXPECT_THROW(kxhost::PushRoot("/tmp/kx-no-such-dir-for-sure"),
               std::runtime_error);
}

// An unprivileged process enters through a user namespace of its own.
TEST(Sandbox, UnprivilegedProcessCanEnterToo) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to drop to another user";
  char name[] = "/tmp/kxnobody-XXXXXX";
  ASSERT_NE(mkdtemp(name), nullptr);
  const std::string base = name;
  const std::string dir = base + "/root";
  fs::create_directories(dir);
  ASSERT_EQ(chown(base.c_str(), 65534, 65534), 0);
  ASSERT_EQ(chown(dir.c_str(), 65534, 65534), 0);
  const pid_t pid = fork();
  ASSERT_GE(pid, 0);
  if (pid == 0) {
    if (setgid(65534) != 0 || setuid(65534) != 0) _exit(10);
    // Changing credentials without an exec leaves the process undumpable,
    // which hides its /proc files from itself; a program started by that
    // user would be dumpable.
    prctl(PR_SET_DUMPABLE, 1);
    try {
      kxhost::EnterSandbox(dir);
      kxhost::MakeRootLayout("/opt/korvex");
    } catch (const std::exception& e) {
      std::fprintf(stderr, "%s\n", e.what());
      _exit(11);
    }
    _exit(fs::is_directory(dir + "/etc/aec/rules") && kxhost::InSandbox() ? 0
                                                                          : 12);
  }
  int status = 0;
  ASSERT_EQ(waitpid(pid, &status, 0), pid);
  fs::remove_all(base);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0);
}

}  // namespace
