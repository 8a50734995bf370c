#include "sandbox.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <boost/property_tree/json_parser.hpp>
#include <boost/property_tree/ptree.hpp>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>

namespace kxhost {
namespace {

constexpr const char* kOpt = "/opt";
constexpr const char* kInstallRoot = "/opt/korvex";

bool g_in_sandbox = false;
int g_pushed = 0;

[[noreturn]] void Fail(const std::string& step) {
  throw std::runtime_error("sandbox: " + step + ": " + std::strerror(errno));
}

bool IsDir(const std::string& path) {
  struct stat info;
  return stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

void MakeDirs(const std::string& path) {
  for (std::size_t slash = path.find('/', 1);; slash = path.find('/', slash + 1)) {
    const std::string part = path.substr(0, slash);
    if (!part.empty() && mkdir(part.c_str(), 0755) != 0 && errno != EEXIST) {
      Fail("mkdir " + part);
    }
    if (slash == std::string::npos) break;
  }
}

std::string RealPath(const std::string& path) {
  char resolved[PATH_MAX];
  if (realpath(path.c_str(), resolved) == nullptr) Fail("realpath " + path);
  return resolved;
}

void WriteProcFile(const std::string& path, const std::string& text) {
  const int fd = open(path.c_str(), O_WRONLY | O_CLOEXEC);
  if (fd < 0) Fail("open " + path);
  const ssize_t written = write(fd, text.data(), text.size());
  const int saved = errno;
  close(fd);
  errno = saved;
  if (written != static_cast<ssize_t>(text.size())) Fail("write " + path);
}

// An unprivileged process gets its own user namespace, in which it is root,
// so that it may make mounts in its own mount namespace.
void EnterNamespaces() {
  const uid_t uid = geteuid();
  const gid_t gid = getegid();
  if (uid == 0) {
    if (unshare(CLONE_NEWNS) != 0) Fail("unshare(CLONE_NEWNS)");
    return;
  }
  if (unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) {
    Fail("unshare(CLONE_NEWUSER|CLONE_NEWNS)");
  }
  WriteProcFile("/proc/self/setgroups", "deny");
  WriteProcFile("/proc/self/uid_map", "0 " + std::to_string(uid) + " 1\n");
  WriteProcFile("/proc/self/gid_map", "0 " + std::to_string(gid) + " 1\n");
}

void BindRoot(const std::string& dir) {
  if (mount(dir.c_str(), kInstallRoot, nullptr, MS_BIND | MS_REC, nullptr) != 0) {
    Fail("bind " + dir + " at " + kInstallRoot);
  }
}

}  // namespace

void EnterSandbox(const std::string& dir) {
  MakeDirs(dir);
  const std::string real_dir = RealPath(dir);
  EnterNamespaces();
  // Nothing mounted from here on may leak back to the machine.
  if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
    Fail("make / private");
  }
  if (!IsDir(kInstallRoot)) {
    // The mount point must not be made on the machine's /opt: a small tmpfs
    // over /opt, seen only in this namespace, takes it.
    if (!IsDir(kOpt)) {
      errno = ENOENT;
      Fail("no /opt to mount over");
    }
    if (mount("kxsandbox", kOpt, "tmpfs", MS_NOSUID | MS_NODEV,
              "size=64k,mode=0755") != 0) {
      Fail("mount a tmpfs over /opt");
    }
    if (mkdir(kInstallRoot, 0755) != 0) Fail("mkdir /opt/korvex");
  }
  BindRoot(real_dir);
  g_in_sandbox = true;
  g_pushed = 0;
}

void PushRoot(const std::string& dir) {
  if (!g_in_sandbox) {
    errno = EPERM;
    Fail("PushRoot outside the sandbox");
  }
  BindRoot(RealPath(dir));
  ++g_pushed;
}

void PopRoot() {
  if (!g_in_sandbox || g_pushed == 0) {
    errno = EINVAL;
    Fail("PopRoot without a pushed root");
  }
  // Detached lazily: a descriptor still open below the root keeps working,
  // while the next path lookup already sees the root underneath.
  if (umount2(kInstallRoot, MNT_DETACH) != 0) Fail("unmount /opt/korvex");
  --g_pushed;
}

void MakeRootLayout(const std::string& dir) {
  static const char* const kDirs[] = {
      "bin",          "etc/aec/rules",        "usr/db",
      "var/log",      "var/tmp/rm",           "var/tmp/pam_messages",
      "var/run/sysctl", "var/cache/kxnetwork",  "var/export",
  };
  MakeDirs(dir);
  for (const char* sub : kDirs) MakeDirs(dir + "/" + sub);
}

void SeedFreshInstall(const std::string& dir) {
  MakeRootLayout(dir);
  // The integrity tool's list of the configuration it keeps checksums of
  // (the package installs it; docs/tools.md describes the format).
  const std::string crc_list = dir + "/etc/aec/crc-rule.conf";
  struct stat list_info;
  if (lstat(crc_list.c_str(), &list_info) != 0) {
    std::ofstream list(crc_list, std::ios::trunc);
    list << "# Files whose SHA-256 kxaide keeps in crc-rule.db; a directory\n"
            "# stands for every regular file in it.\n"
            "/opt/korvex/etc/aec/rules/\n"
            "/opt/korvex/etc/aec/white-list.config\n"
            "/opt/korvex/etc/aec/resource-exception.conf\n"
            "/opt/korvex/etc/aec/policy-sources.conf\n";
    list.close();
    if (!list) Fail("write " + crc_list);
  }
  const std::string whitelist = dir + "/etc/aec/white-list.config";
  struct stat info;
  if (lstat(whitelist.c_str(), &info) == 0) return;
  boost::property_tree::ptree empty;
  empty.put("user_list", "");
  empty.put("group_list", "");
  std::ostringstream text;
  boost::property_tree::write_json(text, empty, true);
  std::ofstream out(whitelist, std::ios::trunc);
  out << text.str();
  out.close();
  if (!out) Fail("write " + whitelist);
}

bool InSandbox() { return g_in_sandbox; }

}  // namespace kxhost
