#include "tool_run.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <system_error>

namespace kxserv {
namespace {

[[noreturn]] void Throw(const char* what) {
  throw std::system_error(errno, std::generic_category(), what);
}

}  // namespace

ToolOutput RunTool(const std::vector<std::string>& argv, int timeout_ms,
                   std::size_t max_output) {
  int out_pipe[2];
  int err_pipe[2];
  if (pipe2(out_pipe, O_CLOEXEC) != 0) Throw("pipe");
  if (pipe2(err_pipe, O_CLOEXEC) != 0) {
    close(out_pipe[0]);
    close(out_pipe[1]);
    Throw("pipe");
  }
  // The argument vector is built before fork: the child of a threaded
  // process may only make async-signal-safe calls.
  std::vector<char*> args;
  for (const std::string& word : argv)
    args.push_back(const_cast<char*>(word.c_str()));
  args.push_back(nullptr);
  const pid_t pid = fork();
  if (pid < 0) {
    for (int fd : {out_pipe[0], out_pipe[1], err_pipe[0], err_pipe[1]})
      close(fd);
    Throw("fork");
  }
  if (pid == 0) {
    const int null = open("/dev/null", O_RDONLY);
    if (null < 0 || dup2(null, STDIN_FILENO) < 0 ||
        dup2(out_pipe[1], STDOUT_FILENO) < 0 ||
        dup2(err_pipe[1], STDERR_FILENO) < 0) {
      _exit(127);
    }
    // The worker blocks these for its signal thread; the tool must not
    // inherit the mask.
    sigset_t none;
    sigemptyset(&none);
    pthread_sigmask(SIG_SETMASK, &none, nullptr);
    execv(args[0], args.data());
    _exit(127);
  }
  close(out_pipe[1]);
  close(err_pipe[1]);

  ToolOutput result;
  pollfd fds[2] = {{out_pipe[0], POLLIN, 0}, {err_pipe[0], POLLIN, 0}};
  std::string* sinks[2] = {&result.out, &result.err};
  int open_streams = 2;
  const auto deadline =
      std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
  char buffer[65536];
  while (open_streams > 0) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                          deadline - std::chrono::steady_clock::now())
                          .count();
    if (left <= 0) {
      result.timed_out = true;
      kill(pid, SIGKILL);
      break;
    }
    const int ready = poll(fds, 2, static_cast<int>(left));
    if (ready < 0 && errno != EINTR) break;
    for (int i = 0; i < 2; ++i) {
      if (fds[i].fd < 0 || fds[i].revents == 0) continue;
      const ssize_t got = read(fds[i].fd, buffer, sizeof buffer);
      if (got < 0 && errno == EINTR) continue;
      if (got <= 0) {
        close(fds[i].fd);
        fds[i].fd = -1;
        --open_streams;
        continue;
      }
      // Reading goes on past the limit so that the tool never blocks on a
      // full pipe; only the keeping stops.
      const std::size_t room =
          max_output - std::min(max_output, sinks[i]->size());
      if (static_cast<std::size_t>(got) > room) result.truncated = true;
      sinks[i]->append(buffer, std::min(room, static_cast<std::size_t>(got)));
    }
  }
  for (const pollfd& fd : fds) {
    if (fd.fd >= 0) close(fd.fd);
  }
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  result.exit_code = WIFEXITED(status)     ? WEXITSTATUS(status)
                     : WIFSIGNALED(status) ? 128 + WTERMSIG(status)
                                           : 1;
  return result;
}

}  // namespace kxserv
