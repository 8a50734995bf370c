#include "sandbox.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>

#include "fresh_install.h"
#include "make_dirs.h"

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
  MakeInstallLayout(dir);
  MakeDirs(dir + "/var/run/sysctl");
}

bool InSandbox() { return g_in_sandbox; }

void EnterSandboxedRoot(const std::string& dir, RuntimeOptions* options) {
  MakeRootLayout(dir);
  const bool fresh = SeedFreshInstall(dir);
  EnterSandbox(dir);
  if (fresh) SealFreshInstall();
  options->sysctl_root = "/opt/korvex/var/run/sysctl";
}

}  // namespace kxhost
