#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include "kxtest.h"

extern char** environ;

namespace kxtest {
namespace {

void ClosePipe(int* fd) {
  if (*fd >= 0) close(*fd);
  *fd = -1;
}

std::vector<char*> Pointers(std::vector<std::string>& words) {
  std::vector<char*> pointers;
  for (auto& word : words) pointers.push_back(&word[0]);
  pointers.push_back(nullptr);
  return pointers;
}

// Forks; the child runs `prepare` (its descriptors) and then execs argv[0]
// with `env` laid over the environment (127 when that fails).
pid_t StartChild(const std::vector<std::string>& argv,
                 const std::map<std::string, std::string>& env,
                 const std::function<void()>& prepare) {
  std::vector<std::string> words = argv;
  std::vector<char*> args = Pointers(words);
  std::vector<std::string> environment = EnvironmentWith(env);
  std::vector<char*> envp = Pointers(environment);
  const pid_t pid = fork();
  if (pid < 0) throw std::runtime_error("fork failed for " + argv.at(0));
  if (pid == 0) {
    prepare();
    execve(args[0], args.data(), envp.data());
    _exit(127);
  }
  return pid;
}

}  // namespace

std::vector<std::string> EnvironmentWith(
    const std::map<std::string, std::string>& env) {
  std::vector<std::string> result;
  for (char** entry = environ; *entry != nullptr; ++entry) {
    const std::string text = *entry;
    if (env.count(text.substr(0, text.find('='))) == 0) result.push_back(text);
  }
  for (const auto& item : env) result.push_back(item.first + "=" + item.second);
  return result;
}

int ExitCodeOf(int status) {
  if (WIFEXITED(status)) return WEXITSTATUS(status);
  if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
  return -1;
}

int WaitFor(pid_t pid) {
  int status = 0;
  while (waitpid(pid, &status, 0) < 0) {
    if (errno != EINTR) throw std::runtime_error("WaitFor: waitpid failed");
  }
  return ExitCodeOf(status);
}

RunResult RunProgram(const std::vector<std::string>& argv,
                     const std::string& input,
                     const std::map<std::string, std::string>& env) {
  int in[2], out[2], err[2];
  if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0 ||
      pipe2(err, O_CLOEXEC) != 0) {
    throw std::runtime_error("RunProgram: pipe failed");
  }
  const pid_t pid = StartChild(argv, env, [&] {
    dup2(in[0], STDIN_FILENO);
    dup2(out[1], STDOUT_FILENO);
    dup2(err[1], STDERR_FILENO);
    signal(SIGPIPE, SIG_DFL);
  });
  close(in[0]);
  close(out[1]);
  close(err[1]);

  // A child that stops reading early must not kill the test with SIGPIPE.
  struct sigaction ignore {}, previous {};
  ignore.sa_handler = SIG_IGN;
  sigaction(SIGPIPE, &ignore, &previous);

  RunResult result;
  int to_child = in[1];
  int from_out = out[0];
  int from_err = err[0];
  std::size_t sent = 0;
  if (input.empty()) ClosePipe(&to_child);
  // Feed standard input and drain both outputs together, so that neither
  // side can block the other on a full pipe.
  while (to_child >= 0 || from_out >= 0 || from_err >= 0) {
    std::vector<pollfd> fds;
    if (to_child >= 0) fds.push_back({to_child, POLLOUT, 0});
    if (from_out >= 0) fds.push_back({from_out, POLLIN, 0});
    if (from_err >= 0) fds.push_back({from_err, POLLIN, 0});
    if (poll(fds.data(), fds.size(), -1) < 0) {
      if (errno == EINTR) continue;
      break;
    }
    for (const auto& p : fds) {
      if (p.revents == 0) continue;
      if (p.fd == to_child) {
        const ssize_t n = write(to_child, input.data() + sent, input.size() - sent);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
          ClosePipe(&to_child);
          continue;
        }
        sent += static_cast<std::size_t>(n);
        if (sent == input.size()) ClosePipe(&to_child);
        continue;
      }
      char buffer[8192];
      const ssize_t n = read(p.fd, buffer, sizeof buffer);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) {
        ClosePipe(p.fd == from_out ? &from_out : &from_err);
        continue;
      }
      (p.fd == from_out ? result.out : result.err)
          .append(buffer, static_cast<std::size_t>(n));
    }
  }
  ClosePipe(&to_child);
  ClosePipe(&from_out);
  ClosePipe(&from_err);
  sigaction(SIGPIPE, &previous, nullptr);
  result.exit_code = WaitFor(pid);
  return result;
}

pid_t SpawnProgram(const std::vector<std::string>& argv,
                   const std::map<std::string, std::string>& env) {
  return StartChild(argv, env, [] {
    const int null = open("/dev/null", O_RDWR);
    if (null >= 0) {
      dup2(null, STDIN_FILENO);
      dup2(null, STDOUT_FILENO);
      dup2(null, STDERR_FILENO);
    }
  });
}

RunResult RunKxhost(const std::vector<std::string>& args,
                    const std::string& input,
                    const std::map<std::string, std::string>& env) {
  std::vector<std::string> argv = {KX_KXHOST_PATH};
  argv.insert(argv.end(), args.begin(), args.end());
  return RunProgram(argv, input, env);
}

}  // namespace kxtest
