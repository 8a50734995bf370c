// libkxexeclog.so: an LD_PRELOAD shim that records every program a process
// starts, so a test can prove that nothing but the agent tools ran.
//
// Environment: KXEXEC_LOG, the file to append to. One line per call:
//   <call><TAB><program or command>
// with backslash, tab and line break escaped as \\, \t, \n. Calls recorded:
// the exec family (execve, execv, execvp, execvpe, execl, execlp, execle,
// fexecve, execveat), posix_spawn, posix_spawnp, system and popen. The shim
// stays in the environment, so children (a shell that system() starts, the
// tools) record their own starts too.
//
// Only open/write/close run between the call and the real function, so the
// recording is safe in a child between fork and exec.
#include <dlfcn.h>
#include <fcntl.h>
#include <spawn.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

namespace {

constexpr int kMaxArgs = 1024;

template <class F>
F Next(const char* name) {
  return reinterpret_cast<F>(dlsym(RTLD_NEXT, name));
}

void Record(const char* call, const char* what) {
  const char* log = getenv("KXEXEC_LOG");
  if (log == nullptr || *log == '\0') return;
  char line[8192];
  size_t n = 0;
  for (const char* c = call; *c != '\0' && n < sizeof line - 8; ++c) {
    line[n++] = *c;
  }
  line[n++] = '\t';
  for (const char* c = what != nullptr ? what : "(null)";
       *c != '\0' && n < sizeof line - 8; ++c) {
    if (*c == '\\' || *c == '\t' || *c == '\n') {
      line[n++] = '\\';
      line[n++] = *c == '\\' ? '\\' : *c == '\t' ? 't' : 'n';
    } else {
      line[n++] = *c;
    }
  }
  line[n++] = '\n';
  const int fd = open(log, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  if (fd < 0) return;
  // One write on an O_APPEND descriptor: lines of several processes never
  // interleave.
  if (write(fd, line, n) < 0) {
    // Nothing to do: the test sees a missing line as a missing start.
  }
  close(fd);
}

// The variadic arguments of execl* up to the terminating null.
int CollectArgs(const char* first, va_list args, char** argv) {
  int count = 0;
  argv[count++] = const_cast<char*>(first);
  while (count < kMaxArgs - 1) {
    char* next = va_arg(args, char*);
    argv[count++] = next;
    if (next == nullptr) return count;
  }
  argv[kMaxArgs - 1] = nullptr;
  return count;
}

}  // namespace

extern "C" {

int execve(const char* path, char* const argv[], char* const envp[]) {
  Record("execve", path);
  return Next<int (*)(const char*, char* const[], char* const[])>("execve")(
      path, argv, envp);
}

int execv(const char* path, char* const argv[]) {
  Record("execv", path);
  return Next<int (*)(const char*, char* const[])>("execv")(path, argv);
}

int execvp(const char* file, char* const argv[]) {
  Record("execvp", file);
  return Next<int (*)(const char*, char* const[])>("execvp")(file, argv);
}

int execvpe(const char* file, char* const argv[], char* const envp[]) {
  Record("execvpe", file);
  return Next<int (*)(const char*, char* const[], char* const[])>("execvpe")(
      file, argv, envp);
}

int execl(const char* path, const char* arg, ...) {
  char* argv[kMaxArgs];
  va_list args;
  va_start(args, arg);
  CollectArgs(arg, args, argv);
  va_end(args);
  Record("execl", path);
  return Next<int (*)(const char*, char* const[])>("execv")(path, argv);
}

int execlp(const char* file, const char* arg, ...) {
  char* argv[kMaxArgs];
  va_list args;
  va_start(args, arg);
  CollectArgs(arg, args, argv);
  va_end(args);
  Record("execlp", file);
  return Next<int (*)(const char*, char* const[])>("execvp")(file, argv);
}

int execle(const char* path, const char* arg, ...) {
  char* argv[kMaxArgs];
  va_list args;
  va_start(args, arg);
  CollectArgs(arg, args, argv);
  char* const* envp = va_arg(args, char* const*);
  va_end(args);
  Record("execle", path);
  return Next<int (*)(const char*, char* const[], char* const[])>("execve")(
      path, argv, envp);
}

int fexecve(int fd, char* const argv[], char* const envp[]) {
  char link[64], target[4096];
  snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
  const ssize_t n = readlink(link, target, sizeof target - 1);
  target[n > 0 ? n : 0] = '\0';
  Record("fexecve", target);
  return Next<int (*)(int, char* const[], char* const[])>("fexecve")(fd, argv,
                                                                     envp);
}

int execveat(int dirfd, const char* path, char* const argv[],
             char* const envp[], int flags) {
  Record("execveat", path);
  return Next<int (*)(int, const char*, char* const[], char* const[], int)>(
      "execveat")(dirfd, path, argv, envp, flags);
}

int posix_spawn(pid_t* pid, const char* path,
                const posix_spawn_file_actions_t* actions,
                const posix_spawnattr_t* attributes, char* const argv[],
                char* const envp[]) {
  Record("posix_spawn", path);
  return Next<int (*)(pid_t*, const char*, const posix_spawn_file_actions_t*,
                      const posix_spawnattr_t*, char* const[], char* const[])>(
      "posix_spawn")(pid, path, actions, attributes, argv, envp);
}

int posix_spawnp(pid_t* pid, const char* file,
                 const posix_spawn_file_actions_t* actions,
                 const posix_spawnattr_t* attributes, char* const argv[],
                 char* const envp[]) {
  Record("posix_spawnp", file);
  return Next<int (*)(pid_t*, const char*, const posix_spawn_file_actions_t*,
                      const posix_spawnattr_t*, char* const[], char* const[])>(
      "posix_spawnp")(pid, file, actions, attributes, argv, envp);
}

int system(const char* command) {
  Record("system", command);
  return Next<int (*)(const char*)>("system")(command);
}

FILE* popen(const char* command, const char* mode) {
  Record("popen", command);
  return Next<FILE* (*)(const char*, const char*)>("popen")(command, mode);
}

}  // extern "C"
