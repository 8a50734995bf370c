#include "package_sandbox.h"

#include <stdlib.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <boost/filesystem.hpp>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "kxtest.h"
#include "lib/sandbox.h"

namespace pkgtest {
namespace fs = boost::filesystem;
namespace {

constexpr const char* kOpt = "/opt";
constexpr const char* kDpkgDb = "/var/lib/dpkg";
// postinst adds the group kxadmin (to /etc/group and /etc/gshadow) and talks
// to systemd when it runs the machine: a copy of /etc and an empty
// /run/systemd keep both away from the machine.
constexpr const char* kEtc = "/etc";
constexpr const char* kRunSystemd = "/run/systemd";
constexpr const char* kPath =
    "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin";

[[noreturn]] void Fail(const std::string& step) {
  throw std::runtime_error("package sandbox: " + step + ": " +
                           std::strerror(errno));
}

// dpkg's lock files are recreated on demand, and a process that is not
// really root may not read them.
bool IsLockFile(const fs::path& path) {
  const std::string name = path.filename().string();
  return name == "lock" || name == "lock-frontend" || name == "Lock";
}

void Bind(const std::string& dir, const char* at) {
  if (mount(dir.c_str(), at, nullptr, MS_BIND, nullptr) != 0) {
    Fail("bind " + dir + " at " + at);
  }
}

std::string Query(const std::string& format, const std::string& package) {
  const RunResult run =
      RunProgram({"/usr/bin/dpkg-query", "--admindir=" + std::string(kDpkgDb),
                  "-W", "-f=" + format, package});
  return run.exit_code == 0 ? run.out : "";
}

}  // namespace

RunResult RunProgram(const std::vector<std::string>& argv) {
  return kxtest::RunProgram(argv, "", {{"PATH", kPath}, {"LC_ALL", "C"}});
}

std::string MakeTempDir() { return kxtest::MakeTempDir("kxpkg-"); }

PackageSandbox::PackageSandbox() {
  // Mounting over the machine's /opt and dpkg database is only harmless
  // inside the namespace the test main entered.
  if (!kxhost::InSandbox()) {
    errno = EPERM;
    Fail("not inside the test's mount namespace");
  }
  dir_ = MakeTempDir();
  // In memory: dpkg and copy_file flush every file they write, which on a
  // busy disk turns a second's work into many.
  if (mount("kxpackage", dir_.c_str(), "tmpfs", MS_NOSUID | MS_NODEV,
            "size=256m,mode=0700") != 0) {
    const int saved = errno;
    rmdir(dir_.c_str());
    errno = saved;
    Fail("mount a tmpfs at " + dir_);
  }
  try {
    fs::create_directory(dir_ + "/opt");
    fs::permissions(dir_ + "/opt", fs::perms(0755));
    kxtest::CopyTree(kDpkgDb, dir_ + "/dpkg", [](const std::string& path) {
      return IsLockFile(path);
    });
    // Written to the copy only: seen at /var/lib/dpkg once the copy is
    // there, which proves the bind before dpkg runs.
    std::ofstream(dir_ + "/dpkg/kxtest-copy").put('\n');
    kxtest::CopyTree(kEtc, dir_ + "/etc");
    fs::create_directory(dir_ + "/run-systemd");
    Bind(dir_ + "/opt", kOpt);
    try {
      Bind(dir_ + "/dpkg", kDpkgDb);
      Bind(dir_ + "/etc", kEtc);
      if (fs::is_directory(kRunSystemd)) {
        Bind(dir_ + "/run-systemd", kRunSystemd);
        systemd_bound_ = true;
      }
    } catch (...) {
      UnmountAll();
      throw;
    }
  } catch (...) {
    RemoveScratch();
    throw;
  }
  struct stat info;
  if (stat("/var/lib/dpkg/kxtest-copy", &info) != 0) {
    UnmountAll();
    RemoveScratch();
    Fail("the copied dpkg database is not in place");
  }
}

PackageSandbox::~PackageSandbox() {
  UnmountAll();
  RemoveScratch();
}

void PackageSandbox::OverlayDpkgDatabase(const std::string& dir) {
  RestoreDpkgDatabase();
  Bind(dir, kDpkgDb);
  dpkg_overlaid_ = true;
}

void PackageSandbox::RestoreDpkgDatabase() {
  if (!dpkg_overlaid_) return;
  if (umount2(kDpkgDb, MNT_DETACH) != 0) Fail("unmount the overlaid database");
  dpkg_overlaid_ = false;
}

void PackageSandbox::UnmountAll() {
  if (dpkg_overlaid_) umount2(kDpkgDb, MNT_DETACH);
  if (systemd_bound_) umount2(kRunSystemd, MNT_DETACH);
  umount2(kEtc, MNT_DETACH);
  umount2(kDpkgDb, MNT_DETACH);
  umount2(kOpt, MNT_DETACH);
}

void PackageSandbox::RemoveScratch() {
  umount2(dir_.c_str(), MNT_DETACH);
  rmdir(dir_.c_str());
}

RunResult PackageSandbox::Dpkg(const std::vector<std::string>& args) const {
  std::vector<std::string> argv = {
      "/usr/bin/dpkg", "--log=" + dir_ + "/dpkg.log", "--no-triggers"};
  argv.insert(argv.end(), args.begin(), args.end());
  return RunProgram(argv);
}

std::string PackageSandbox::Status(const std::string& package) const {
  return Query("${Status}", package);
}

std::string PackageSandbox::Version(const std::string& package) const {
  return Query("${Version}", package);
}

std::vector<std::string> Snapshot(const std::string& dir) {
  std::vector<std::string> entries;
  for (fs::recursive_directory_iterator it(dir), end; it != end; ++it) {
    const std::string relative = it->path().string().substr(dir.size() + 1);
    struct stat info;
    if (lstat(it->path().c_str(), &info) != 0) Fail("lstat " + relative);
    std::ostringstream line;
    line << relative << (S_ISDIR(info.st_mode) ? "/" : "") << " mode "
         << std::oct << (info.st_mode & 07777) << std::dec << " inode "
         << info.st_ino << " mtime " << info.st_mtim.tv_sec << "."
         << info.st_mtim.tv_nsec;
    if (S_ISREG(info.st_mode)) {
      std::ifstream in(it->path().string(), std::ios::binary);
      std::ostringstream content;
      content << in.rdbuf();
      line << " content " << content.str();
    } else if (S_ISLNK(info.st_mode)) {
      line << " link " << fs::read_symlink(it->path()).string();
    }
    entries.push_back(line.str());
  }
  std::sort(entries.begin(), entries.end());
  return entries;
}

std::vector<std::string> Directories(const std::string& dir) {
  std::vector<std::string> dirs;
  for (fs::recursive_directory_iterator it(dir), end; it != end; ++it) {
    if (fs::is_directory(fs::symlink_status(it->path()))) {
      dirs.push_back(it->path().string().substr(dir.size() + 1));
    }
  }
  std::sort(dirs.begin(), dirs.end());
  return dirs;
}

}  // namespace pkgtest
