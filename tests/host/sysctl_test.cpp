// Kernel parameters of a sandboxed host are files below its sysctl root.
#include "host/sysctl.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>

#include "kxtest.h"
#include "lib/runtime.h"

namespace {

class Sysctl : public kxtest::SandboxTest {};

constexpr const char* kRoot = "/opt/korvex/var/run/sysctl";

TEST_F(Sysctl, SetWritesTheValueBelowTheRootMakingDirectories) {
  ASSERT_EQ(kxhost::Options().sysctl_root, kRoot);
  EXPECT_TRUE(sysctl::set("korvex/secure/environment", "3"));
  EXPECT_EQ(kxtest::ReadFile(std::string(kRoot) + "/korvex/secure/environment"),
            "3");
  EXPECT_EQ(sysctl::get("korvex/secure/environment"), "3");
}

TEST_F(Sysctl, SetReplacesThePreviousValue) {
  EXPECT_TRUE(sysctl::set("korvex/secure/secenv_verbose", "12345"));
  EXPECT_TRUE(sysctl::set("korvex/secure/secenv_verbose", "0"));
  EXPECT_EQ(sysctl::get("korvex/secure/secenv_verbose"), "0");
}

TEST_F(Sysctl, AValueAlreadyThereIsNotWrittenAgain) {
  const std::string path = std::string(kRoot) + "/korvex/secure/environment";
  ASSERT_TRUE(sysctl::set("korvex/secure/environment", "3"));
  // Back-date the file: a rewrite would move its modification time.
  const struct timespec old[2] = {{1000000000, 0}, {1000000000, 0}};
  ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), old, 0), 0);
  EXPECT_TRUE(sysctl::set("korvex/secure/environment", "3"));
  struct stat st;
  ASSERT_EQ(stat(path.c_str(), &st), 0);
  EXPECT_EQ(st.st_mtim.tv_sec, 1000000000);
  // A value that differs only by a prefix or a trailing byte is written.
  EXPECT_TRUE(sysctl::set("korvex/secure/environment", "31"));
  EXPECT_EQ(kxtest::ReadFile(path), "31");
  EXPECT_TRUE(sysctl::set("korvex/secure/environment", "3"));
  EXPECT_EQ(kxtest::ReadFile(path), "3");
  ASSERT_EQ(stat(path.c_str(), &st), 0);
  EXPECT_NE(st.st_mtim.tv_sec, 1000000000);
}

TEST_F(Sysctl, GetOfAnUnsetParameterIsEmpty) {
  EXPECT_EQ(sysctl::get("korvex/secure/never_set"), "");
}

TEST_F(Sysctl, NamesThatLeaveTheRootAreRefused) {
  EXPECT_FALSE(sysctl::set("../escape", "1"));
  EXPECT_FALSE(sysctl::set("/etc/passwd", "1"));
  EXPECT_FALSE(sysctl::set("korvex//x", "1"));
  EXPECT_FALSE(sysctl::set("", "1"));
  EXPECT_FALSE(kxtest::Exists("/opt/korvex/var/run/escape"));
  EXPECT_TRUE(log_.Contains("refusing parameter name"));
  EXPECT_EQ(sysctl::get("../escape"), "");
}

TEST_F(Sysctl, WriteFailureIsLoggedAndReported) {
  // A file where a directory of the name must go.
  kxtest::WriteFile(std::string(kRoot) + "/korvex", "not a directory");
  EXPECT_FALSE(sysctl::set("korvex/secure/environment", "1"));
  EXPECT_TRUE(log_.Contains("sysctl: cannot"));
}

TEST_F(Sysctl, KernelWithoutKorvexParametersMeansTheInstalledFiles) {
  kxhost::RuntimeOptions saved = kxhost::Options();
  kxhost::RuntimeOptions options = saved;
  options.sysctl_root = "/proc/sys";
  kxhost::Configure(options);
  const bool written = sysctl::set("korvex/secure/environment", "3");
  const std::string read_back = sysctl::get("korvex/secure/environment");
  kxhost::Configure(saved);
  // This machine's kernel has no such parameters: nothing is made in
  // /proc/sys, the value goes where the enforcing component reads it.
  EXPECT_FALSE(kxtest::Exists("/proc/sys/korvex"));
  ASSERT_TRUE(written);
  EXPECT_EQ(read_back, "3");
  EXPECT_EQ(kxtest::ReadFile("/opt/korvex/var/run/sysctl/korvex/secure/environment"),
            "3");
}

}  // namespace
