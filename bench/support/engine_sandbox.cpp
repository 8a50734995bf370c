#include "support/engine_sandbox.h"

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <vector>

#include "lib/sandbox.h"

namespace kxbench {
namespace {

[[noreturn]] void Fail(const std::string& bench, const std::string& what) {
  std::fprintf(stderr, "%s: %s\n", bench.c_str(), what.c_str());
  std::exit(2);
}

}  // namespace

EngineSandbox EnterEngineSandbox(const std::string& bench,
                                 const std::string& prefix,
                                 const std::string& tmpfs_size) {
  if (geteuid() != 0) {
    Fail(bench,
         "needs root (fanotify permission events, a private mount "
         "namespace)");
  }
  std::string pattern = "/tmp/" + prefix + "XXXXXX";
  std::vector<char> name(pattern.begin(), pattern.end());
  name.push_back('\0');
  if (mkdtemp(name.data()) == nullptr) {
    Fail(bench, std::string("mkdtemp: ") + std::strerror(errno));
  }
  EngineSandbox sandbox;
  sandbox.scratch = name.data();
  sandbox.dir = sandbox.scratch + "/w";
  const std::string root = sandbox.scratch + "/root";
  try {
    kxhost::MakeRootLayout(root);
    kxhost::EnterSandbox(root);
  } catch (const std::exception& e) {
    Fail(bench, std::string("sandbox: ") + e.what());
  }
  mkdir(sandbox.dir.c_str(), 0755);
  const std::string options = "size=" + tmpfs_size + ",mode=0755";
  if (mount("kxbench", sandbox.dir.c_str(), "tmpfs", MS_NOSUID | MS_NODEV,
            options.c_str()) != 0) {
    Fail(bench, std::string("mount tmpfs: ") + std::strerror(errno));
  }
  return sandbox;
}

pid_t LaunchEngine(const std::string& kxaecd, const std::string& dir,
                   const std::string& log,
                   const std::vector<std::string>& extra) {
  std::vector<std::string> args = {
      kxaecd, "--foreground",  "--watch",
      dir,    "--sysctl-root", "/opt/korvex/var/run/sysctl"};
  args.insert(args.end(), extra.begin(), extra.end());
  std::vector<char*> argv;
  for (auto& arg : args) argv.push_back(arg.data());
  argv.push_back(nullptr);
  const pid_t pid = fork();
  if (pid < 0) Fail("kxaecd", std::string("fork: ") + std::strerror(errno));
  if (pid == 0) {
    const int fd = open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
    if (fd >= 0) {
      dup2(fd, 1);
      dup2(fd, 2);
    }
    execv(argv[0], argv.data());
    _exit(127);
  }
  return pid;
}

std::string Slurp(const std::string& path) {
  std::ifstream in(path);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

}  // namespace kxbench
