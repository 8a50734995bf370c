#include "kxaecctl.h"

#include <fcntl.h>
#include <libintl.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <map>
#include <stdexcept>

#include "aec_paths.h"
#include "host/errors.h"
#include "host/log.h"

namespace {

// The tool writes one line per offending object; a line is read into a
// buffer of this size, so longer ones arrive in chunks without a newline.
constexpr int kLineBufferSize = 4096;

// kxaecctl's mark for "the next argument is a value" (tools/kxaecctl).
constexpr const char* kValueMark = "--";

[[noreturn]] void CannotStart(int error_number) {
  log_trivial(LOG_ERR, "kxaecctl popen error " + std::to_string(error_number));
  throw PluginException(error::kUnknown);
}

void CloseQuietly(int fd) {
  if (fd >= 0) ::close(fd);
}

// The raw wait status, or -1 when waiting fails (as pclose reports it).
int Reap(pid_t pid) {
  int status = 0;
  while (::waitpid(pid, &status, 0) < 0) {
    if (errno != EINTR) return -1;
  }
  return status;
}

// Runs in the forked child: only async-signal-safe calls until exec.
[[noreturn]] void ExecChild(char* const* argv, int out_fd, int report_fd) {
  int failure = 0;
  if (out_fd == STDOUT_FILENO) {
    // dup2 onto itself would keep close-on-exec and lose the pipe.
    if (::fcntl(out_fd, F_SETFD, 0) < 0) failure = errno;
  } else if (::dup2(out_fd, STDOUT_FILENO) < 0) {
    failure = errno;
  }
  if (failure == 0) {
    ::execv(argv[0], argv);
    failure = errno;
  }
  // The report pipe is close-on-exec: the parent reads either this number
  // or end-of-file (exec succeeded).
  ssize_t ignored = ::write(report_fd, &failure, sizeof failure);
  (void)ignored;
  ::_exit(127);
}

const std::map<int, std::string>& DescriptionTable() {
  static const std::map<int, std::string> table = {
      {KxAecCtl::kSuccess, gettext("Success execution")},
      {KxAecCtl::kUnknownError, error::kUnknown},
      {KxAecCtl::kInvalidArgument, gettext("Invalid argument")},
      {KxAecCtl::kOperationCanceled, gettext("Operation canceled")},
      {KxAecCtl::kUsersNotFound, gettext("Users not found: ")},
      {KxAecCtl::kGroupsNotFound, gettext("Groups not found: ")},
      {KxAecCtl::kKernelInteraction, gettext("Kernel interaction error")},
      {KxAecCtl::kUsersNotInRule, gettext("Users not found in the rule: ")},
      {KxAecCtl::kGroupsNotInRule, gettext("Groups not found in the rule: ")},
      {KxAecCtl::kResourcesNotInRule,
       gettext("Resources not found in the rule: ")},
      {KxAecCtl::kConfigInvalid, error::kInvalidConfig},
      {KxAecCtl::kConfigMissing, gettext("Config does not exist")},
      {KxAecCtl::kConfigWrite, gettext("Error writing to config file")},
      {KxAecCtl::kCentralizedControl,
       gettext("Centralized control is enabled")},
      {KxAecCtl::kRuleMissing, gettext("Rule does not exists: ")},
      {KxAecCtl::kResourceListEmpty, gettext("Resource list is empty")},
      {KxAecCtl::kSystemRule, gettext("Rule is system immutable rule: ")},
      {KxAecCtl::kAllowedForAll, gettext("Rule is allowed for all users")},
      {KxAecCtl::kRuleExists, gettext("The rule is already exist: ")},
      {KxAecCtl::kInvalidDateTime, gettext("Invalid date/time")},
      {KxAecCtl::kIntegrityCalculation, gettext("Integrity calculation error")},
      {KxAecCtl::kIntegrityViolation,
       gettext("Violation of the integrity of the rules")},
      {KxAecCtl::kServiceCommunication,
       gettext("Error communicating with the service management")},
      {KxAecCtl::kIntegrityDbUpdate,
       gettext("An update of AEC IC DB is required. Detected integrity "
               "violation in config files: ")},
      {KxAecCtl::kResourceMissing, gettext("Resource does not exist: ")},
  };
  return table;
}

}  // namespace

KxAecCtl::KxAecCtl(const std::string& command, bool standardOptions)
    : command_line_(aec::kToolPath + " " + command),
      arguments_{aec::kToolPath, command} {
  if (standardOptions) {
    AddArg("-C");
    AddArg("-v");
  }
}

void KxAecCtl::AddArg(const std::string& arg) {
  command_line_ += " " + arg;
  arguments_.push_back(arg);
}

void KxAecCtl::AddArg(const std::string& option,
                      const std::vector<std::string>& values) {
  if (values.empty()) return;
  AddArg(option);
  for (const auto& value : values) {
    command_line_ += " \"" + value + "\"";
    // The tool would read a value such as "-A" or "--help" as an option:
    // "--" before it makes the next argument a value whatever it looks like.
    // The command-line text stays as it is built.
    if (!value.empty() && value[0] == '-') arguments_.push_back(kValueMark);
    arguments_.push_back(value);
  }
}

void KxAecCtl::AddArg(const std::string& option, const std::string& value) {
  if (value.empty()) return;
  AddArg(option, std::vector<std::string>{value});
}

void KxAecCtl::AddRules(const std::vector<std::string>& rules) {
  AddArg("-n", rules);
}
void KxAecCtl::AddUsers(const std::vector<std::string>& users) {
  AddArg("-u", users);
}
void KxAecCtl::AddGroups(const std::vector<std::string>& groups) {
  AddArg("-g", groups);
}
void KxAecCtl::AddResources(const std::vector<std::string>& resources) {
  AddArg("-r", resources);
}
void KxAecCtl::AddResourceFile(const std::string& path) { AddArg("-f", path); }
void KxAecCtl::AddNewName(const std::string& name) { AddArg("-N", name); }
void KxAecCtl::SetAllRules() { AddArg("-A"); }
void KxAecCtl::SetAllUseres() { AddArg("-a"); }
void KxAecCtl::SetExtended() { AddArg("-X"); }
void KxAecCtl::SetDisable() { AddArg("-D"); }
void KxAecCtl::SetNoDepend() { AddArg("-d"); }
void KxAecCtl::SetRecursive() { AddArg("-R"); }

bool KxAecCtl::Apply() {
  // Built before fork: the child may not allocate.
  std::vector<char*> argv;
  argv.reserve(arguments_.size() + 1);
  for (auto& argument : arguments_) argv.push_back(&argument[0]);
  argv.push_back(nullptr);

  int out[2];
  if (::pipe2(out, O_CLOEXEC) != 0) CannotStart(errno);
  int report[2];
  if (::pipe2(report, O_CLOEXEC) != 0) {
    const int saved = errno;
    CloseQuietly(out[0]);
    CloseQuietly(out[1]);
    CannotStart(saved);
  }
  const pid_t pid = ::fork();
  if (pid < 0) {
    const int saved = errno;
    for (int fd : {out[0], out[1], report[0], report[1]}) CloseQuietly(fd);
    CannotStart(saved);
  }
  if (pid == 0) ExecChild(argv.data(), out[1], report[1]);

  CloseQuietly(out[1]);
  CloseQuietly(report[1]);
  int exec_failure = 0;
  ssize_t got;
  do {
    got = ::read(report[0], &exec_failure, sizeof exec_failure);
  } while (got < 0 && errno == EINTR);
  CloseQuietly(report[0]);
  if (got == static_cast<ssize_t>(sizeof exec_failure)) {
    CloseQuietly(out[0]);
    Reap(pid);
    CannotStart(exec_failure);
  }

  FILE* stream = ::fdopen(out[0], "r");
  if (stream == nullptr) {
    const int saved = errno;
    CloseQuietly(out[0]);  // the tool sees a broken pipe if it writes
    Reap(pid);
    CannotStart(saved);
  }

  bool unterminated = false;
  while (!std::feof(stream)) {
    std::string buffer(kLineBufferSize, '\0');
    if (std::fgets(&buffer[0], kLineBufferSize, stream) != nullptr) {
      const auto newline = buffer.find('\n');
      if (newline == std::string::npos) {
        unterminated = true;
        break;
      }
      buffer.resize(newline);
      output_.push_back(std::move(buffer));
    } else if (std::ferror(stream)) {
      if (errno != EINTR) break;
      std::clearerr(stream);
    }
  }
  // Closing first lets a tool still writing (after an overlong line) end on
  // a broken pipe instead of blocking the wait.
  std::fclose(stream);
  const int status = Reap(pid);
  if (unterminated) {
    // The line is cut at its first newline unconditionally; a chunk without
    // one is a length error, as it always was. The exit status stays.
    throw std::length_error("kxaecctl output line without newline");
  }
  error_ = static_cast<Error>(status < 0 ? -1 : status >> 8);
  return error_ == kSuccess;
}

KxAecCtl::Error KxAecCtl::GetError() const { return error_; }

std::string KxAecCtl::GetErrorDescription() const {
  const auto& table = DescriptionTable();
  const auto found = table.find(error_);
  if (found == table.end()) {
    log_trivial(LOG_ERR, "unknown kxaecctl error " +
                             std::to_string(static_cast<int>(error_)));
    return error::kUnknown;
  }
  std::string text = found->second;
  for (std::size_t i = 0; i < output_.size(); ++i) {
    if (i > 0) text += ", ";
    text += output_[i];
  }
  return text;
}

std::vector<std::string> KxAecCtl::GetInvalidObjects() const { return output_; }
