#include "fresh_install.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <boost/property_tree/json_parser.hpp>
#include <boost/property_tree/ptree.hpp>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "host/file_util.h"
#include "make_dirs.h"

namespace kxhost {
namespace {

constexpr const char* kConfigDir = "/opt/korvex/etc/aec/";
constexpr const char* kIntegrityTool = "/opt/korvex/bin/kxaide";

[[noreturn]] void Fail(const std::string& step) {
  throw std::runtime_error("seeding: " + step + ": " + std::strerror(errno));
}

bool Present(const std::string& path) {
  struct stat info;
  return lstat(path.c_str(), &info) == 0;  // a dangling link counts
}

// Writes `content` to `path` unless something is there already. Written
// beside it and renamed into place, so an interrupted run never leaves half
// a file that the next run would keep.
// True when it wrote.
bool WriteIfMissing(const std::string& path, const std::string& content) {
  if (Present(path)) return false;
  kxfs::ReplaceFile(path, content, "", 0644);
  return true;
}

std::string EmptyWhitelist() {
  boost::property_tree::ptree empty;
  empty.put("user_list", "");
  empty.put("group_list", "");
  std::ostringstream text;
  boost::property_tree::write_json(text, empty, true);
  return text.str();
}

// The integrity tool's list (docs/tools.md describes the format).
constexpr const char* kIntegrityList =
    "# Files whose SHA-256 kxaide keeps in crc-rule.db; a directory\n"
    "# stands for every regular file in it.\n"
    "/opt/korvex/etc/aec/rules/\n"
    "/opt/korvex/etc/aec/white-list.config\n"
    "/opt/korvex/etc/aec/resource-exception.conf\n"
    "/opt/korvex/etc/aec/policy-sources.conf\n";

// Runs `argv` with standard output on /dev/null (kxhost's own output must
// stay its own) and standard error inherited; the exit code, or 128 + N for
// death by signal N.
int Run(const std::vector<std::string>& argv) {
  std::vector<char*> args;
  for (const auto& word : argv) args.push_back(const_cast<char*>(word.c_str()));
  args.push_back(nullptr);
  const pid_t pid = fork();
  if (pid < 0) Fail("fork");
  if (pid == 0) {
    const int null = open("/dev/null", O_WRONLY);
    if (null < 0 || dup2(null, STDOUT_FILENO) < 0) _exit(127);
    execv(args[0], args.data());
    _exit(127);
  }
  int status = 0;
  while (waitpid(pid, &status, 0) < 0) {
    if (errno != EINTR) Fail("wait for " + argv[0]);
  }
  if (WIFEXITED(status)) return WEXITSTATUS(status);
  return 128 + (WIFSIGNALED(status) ? WTERMSIG(status) : 0);
}

}  // namespace

void MakeInstallLayout(const std::string& dir) {
  static const char* const kDirs[] = {
      "bin",     "etc/aec/rules", "usr/db",
      "var/log", "var/tmp/rm",    "var/tmp/pam_messages",
      "var/cache/kxnetwork",
      "var/export",
  };
  MakeDirs(dir);
  for (const char* sub : kDirs) MakeDirs(dir + "/" + sub);
}

bool SeedFreshInstall(const std::string& dir) {
  MakeInstallLayout(dir);
  const bool whitelist =
      WriteIfMissing(dir + "/etc/aec/white-list.config", EmptyWhitelist());
  const bool list = WriteIfMissing(dir + "/etc/aec/crc-rule.conf", kIntegrityList);
  return whitelist || list;
}

bool SealFreshInstall() {
  const std::string db = std::string(kConfigDir) + "crc-rule.db";
  const std::string output = std::string(kConfigDir) + "crc-rule-out.db";
  if (Present(db) || access(kIntegrityTool, X_OK) != 0) return false;
  const int code = Run({kIntegrityTool, "-i", "-c",
                        std::string(kConfigDir) + "crc-rule.conf"});
  if (code != 0) {
    throw std::runtime_error("seeding: kxaide could not seal the "
                             "configuration (exit code " +
                             std::to_string(code) + ")");
  }
  // One rename: the seal in force is none or the whole new one.
  if (rename(output.c_str(), db.c_str()) != 0) Fail("rename " + output);
  return true;
}

}  // namespace kxhost
