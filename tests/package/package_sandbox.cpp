#include "package_sandbox.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <boost/filesystem.hpp>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "lib/sandbox.h"

extern char** environ;

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
    "PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin";

[[noreturn]] void Fail(const std::string& step) {
  throw std::runtime_error("package sandbox: " + step + ": " +
                           std::strerror(errno));
}

std::vector<std::string> ChildEnvironment() {
  std::vector<std::string> env;
  for (char** entry = environ; *entry != nullptr; ++entry) {
    const std::string text = *entry;
    if (text.rfind("PATH=", 0) == 0 || text.rfind("LC_ALL=", 0) == 0 ||
        text.rfind("LANG=", 0) == 0) {
      continue;
    }
    env.push_back(text);
  }
  env.push_back(kPath);
  env.push_back("LC_ALL=C");
  return env;
}

std::vector<char*> Pointers(std::vector<std::string>& words) {
  std::vector<char*> pointers;
  for (auto& word : words) pointers.push_back(&word[0]);
  pointers.push_back(nullptr);
  return pointers;
}

// dpkg's lock files are recreated on demand, and a process that is not
// really root may not read them.
bool IsLockFile(const fs::path& path) {
  const std::string name = path.filename().string();
  return name == "lock" || name == "lock-frontend" || name == "Lock";
}

// Plain reads and writes: Boost's copy_file tries copy_file_range, which
// fails across file systems, and flushes each file.
void CopyFile(const fs::path& from, const fs::path& to) {
  std::ifstream in(from.string(), std::ios::binary);
  std::ofstream out(to.string(), std::ios::binary | std::ios::trunc);
  char buffer[65536];
  while (in && out) {
    in.read(buffer, sizeof buffer);
    out.write(buffer, in.gcount());
  }
  out.close();
  if (in.bad() || !in.eof() || !out) {
    errno = EIO;
    Fail("copy " + from.string());
  }
  fs::permissions(to, fs::status(from).permissions());
}

void CopyTree(const fs::path& from, const fs::path& to) {
  fs::create_directories(to);
  fs::permissions(to, fs::status(from).permissions());
  for (fs::directory_iterator it(from), end; it != end; ++it) {
    const fs::path target = to / it->path().filename();
    const fs::file_status status = fs::symlink_status(it->path());
    if (fs::is_symlink(status)) {
      fs::copy_symlink(it->path(), target);
    } else if (fs::is_directory(status)) {
      CopyTree(it->path(), target);
    } else if (fs::is_regular_file(status) && !IsLockFile(it->path())) {
      CopyFile(it->path(), target);
    }
  }
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
  std::vector<std::string> words = argv;
  std::vector<char*> args = Pointers(words);
  std::vector<std::string> env_words = ChildEnvironment();
  std::vector<char*> env = Pointers(env_words);

  int out[2], err[2];
  if (pipe2(out, O_CLOEXEC) != 0) Fail("pipe");
  if (pipe2(err, O_CLOEXEC) != 0) {
    close(out[0]);
    close(out[1]);
    Fail("pipe");
  }
  const pid_t pid = fork();
  if (pid < 0) Fail("fork");
  if (pid == 0) {
    const int null = open("/dev/null", O_RDONLY);
    if (null >= 0) dup2(null, STDIN_FILENO);
    dup2(out[1], STDOUT_FILENO);
    dup2(err[1], STDERR_FILENO);
    signal(SIGPIPE, SIG_DFL);
    execve(args[0], args.data(), env.data());
    _exit(127);
  }
  close(out[1]);
  close(err[1]);

  RunResult result;
  int open_fds[2] = {out[0], err[0]};
  std::string* sinks[2] = {&result.out, &result.err};
  while (open_fds[0] >= 0 || open_fds[1] >= 0) {
    pollfd fds[2];
    nfds_t count = 0;
    int which[2];
    for (int i = 0; i < 2; ++i) {
      if (open_fds[i] < 0) continue;
      fds[count] = {open_fds[i], POLLIN, 0};
      which[count++] = i;
    }
    if (poll(fds, count, -1) < 0) {
      if (errno == EINTR) continue;
      break;
    }
    for (nfds_t k = 0; k < count; ++k) {
      if (fds[k].revents == 0) continue;
      const int i = which[k];
      char buffer[4096];
      const ssize_t n = read(open_fds[i], buffer, sizeof buffer);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) {
        close(open_fds[i]);
        open_fds[i] = -1;
        continue;
      }
      sinks[i]->append(buffer, static_cast<std::size_t>(n));
    }
  }
  for (int fd : open_fds) {
    if (fd >= 0) close(fd);
  }
  int status = 0;
  while (waitpid(pid, &status, 0) < 0) {
    if (errno != EINTR) Fail("waitpid");
  }
  if (WIFEXITED(status)) {
    result.exit_code = WEXITSTATUS(status);
  } else if (WIFSIGNALED(status)) {
    result.exit_code = 128 + WTERMSIG(status);
  }
  return result;
}

std::string MakeTempDir() {
  std::string pattern = "/tmp/kxpkg-XXXXXX";
  if (mkdtemp(&pattern[0]) == nullptr) Fail("mkdtemp");
  return pattern;
}

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
    CopyTree(kDpkgDb, dir_ + "/dpkg");
    // Written to the copy only: seen at /var/lib/dpkg once the copy is
    // there, which proves the bind before dpkg runs.
    std::ofstream(dir_ + "/dpkg/kxtest-copy").put('\n');
    CopyTree(kEtc, dir_ + "/etc");
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

void PackageSandbox::UnmountAll() {
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
