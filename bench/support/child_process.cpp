#include "support/child_process.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <stdexcept>

namespace kxbench {

ChildRun RunChild(const std::vector<std::string>& argv,
                  const std::string& input) {
  int to_child[2];
  int from_child[2];
  if (pipe2(to_child, O_CLOEXEC) != 0) throw std::runtime_error("pipe");
  if (pipe2(from_child, O_CLOEXEC) != 0) {
    close(to_child[0]);
    close(to_child[1]);
    throw std::runtime_error("pipe");
  }
  std::vector<char*> args;
  for (const auto& arg : argv) args.push_back(const_cast<char*>(arg.c_str()));
  args.push_back(nullptr);

  // posix_spawn, not fork: a benchmark holding much memory would make a
  // forked child pay for tearing down a copy of it at exec, which is no
  // part of what the child costs a user.
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, to_child[0], 0);
  posix_spawn_file_actions_adddup2(&actions, from_child[1], 1);
  posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
  const auto start = std::chrono::steady_clock::now();
  pid_t pid = -1;
  const int spawned =
      posix_spawn(&pid, args[0], &actions, nullptr, args.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (spawned != 0) {
    for (int fd : {to_child[0], to_child[1], from_child[0], from_child[1]}) {
      close(fd);
    }
    throw std::runtime_error("cannot start " + argv[0]);
  }
  close(to_child[0]);
  close(from_child[1]);
  // Requests are far smaller than a pipe's buffer, so writing all of it
  // before reading cannot deadlock.
  std::size_t sent = 0;
  while (sent < input.size()) {
    const ssize_t n =
        write(to_child[1], input.data() + sent, input.size() - sent);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    sent += static_cast<std::size_t>(n);
  }
  close(to_child[1]);
  ChildRun run;
  char buffer[65536];
  for (;;) {
    const ssize_t n = read(from_child[0], buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    run.out.append(buffer, static_cast<std::size_t>(n));
  }
  close(from_child[0]);
  int status = 0;
  rusage usage{};
  while (wait4(pid, &status, 0, &usage) < 0 && errno == EINTR) {
  }
  run.cpu_ms = (usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) * 1000.0 +
               (usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1000.0;
  run.wall_ms = std::chrono::duration<double, std::milli>(
                    std::chrono::steady_clock::now() - start)
                    .count();
  run.max_rss_kib = usage.ru_maxrss;
  run.exit_code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return run;
}

double Percentile(std::vector<double>& values, double percent) {
  if (values.empty()) return 0;
  std::sort(values.begin(), values.end());
  const double rank = percent / 100.0 * static_cast<double>(values.size() - 1);
  return values[static_cast<std::size_t>(std::lround(rank))];
}

}  // namespace kxbench
