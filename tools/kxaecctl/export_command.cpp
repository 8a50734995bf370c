// export: writes one rule's file to a file the caller names.
//
// Where an export may go: any directory outside the install root, or the
// export area /opt/korvex/var/export (and below it). Nothing else under the
// install root (programs, libraries, configuration, state, the journal, the
// confirmation) is ever replaced. The target must be absent or a regular
// file; a FIFO, device, socket, directory or symbolic link is refused. The
// decision is taken on the directory as opened, and the file is written and
// renamed relative to that open directory, so a path swapped after the check
// cannot redirect the write.
#include <fcntl.h>
#include <limits.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <optional>
#include <string>
#include <system_error>

#include "aec_paths.h"
#include "aec_rule.h"
#include "commands.h"
#include "host/errors.h"
#include "host/unique_fd.h"
#include "shown_object.h"
#include "tool_error.h"
#include "tool_paths.h"

namespace aectool {
namespace {

const std::string& ExportArea() {
  static const std::string path = aec::kInstallRoot + "/var/export";
  return path;
}

std::string DirName(const std::string& path) {
  const auto slash = path.find_last_of('/');
  return slash == 0 ? "/" : path.substr(0, slash);
}

std::optional<std::string> Canonical(const std::string& path) {
  char resolved[PATH_MAX];
  if (::realpath(path.c_str(), resolved) == nullptr) return std::nullopt;
  return std::string(resolved);
}

bool IsWithin(const std::string& path, const std::string& dir) {
  return path == dir || path.compare(0, dir.size() + 1, dir + "/") == 0;
}

[[noreturn]] void CannotWrite(const std::string& target,
                              const std::string& why) {
  throw ToolError(Exit::kConfigWrite,
                  "cannot write " + ShownObject(target) + ": " + why);
}

[[noreturn]] void Refused(const std::string& target, const std::string& why) {
  throw ToolError(Exit::kInvalidArgument,
                  "will not export to " + ShownObject(target) + ": " + why);
}

// An open directory, closed when it goes.
class Directory {
 public:
  explicit Directory(int fd) : fd_(fd) {}
  int fd() const { return fd_.get(); }

  // The path the open directory has now (not the one it was opened by).
  std::optional<std::string> Path() const {
    char link[64];
    std::snprintf(link, sizeof link, "/proc/self/fd/%d", fd_.get());
    char resolved[PATH_MAX];
    const ssize_t length = ::readlink(link, resolved, sizeof resolved - 1);
    if (length <= 0) return std::nullopt;
    return std::string(resolved, static_cast<std::size_t>(length));
  }

 private:
  kxfs::UniqueFd fd_;
};

// Checks that `real_dir` may receive an export: outside the install root,
// or inside its export area.
void CheckDirectory(const std::string& target, const std::string& real_dir) {
  const auto real_root = Canonical(aec::kInstallRoot);
  if (!real_root || !IsWithin(real_dir, *real_root)) return;
  const auto real_area = Canonical(ExportArea());
  if (real_area && IsWithin(real_dir, *real_area)) return;
  Refused(target, "inside " + aec::kInstallRoot + " exports go to " +
                      ExportArea() + " only");
}

// Writes `content` as `name` in `dir`: a temporary file beside it, flushed,
// renamed over it; the directory flushed. The temporary is removed on
// failure.
void WriteInto(const Directory& dir, const std::string& name,
               const std::string& content, const std::string& target) {
  const std::string temporary = ".kxaecctl-export." + std::to_string(getpid());
  const int fd = ::openat(dir.fd(), temporary.c_str(),
                          O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
                          0644);
  if (fd < 0) CannotWrite(target, std::strerror(errno));
  std::size_t written = 0;
  int error = 0;
  while (written < content.size() && error == 0) {
    const ssize_t n =
        ::write(fd, content.data() + written, content.size() - written);
    if (n > 0) {
      written += static_cast<std::size_t>(n);
    } else if (n < 0 && errno != EINTR) {
      error = errno;
    }
  }
  if (error == 0 && ::fchmod(fd, 0644) != 0) error = errno;
  if (error == 0 && ::fsync(fd) != 0) error = errno;
  if (::close(fd) != 0 && error == 0) error = errno;
  if (error == 0 &&
      ::renameat(dir.fd(), temporary.c_str(), dir.fd(), name.c_str()) != 0) {
    error = errno;
  }
  if (error != 0) {
    ::unlinkat(dir.fd(), temporary.c_str(), 0);
    CannotWrite(target, std::strerror(error));
  }
  ::fsync(dir.fd());  // the content is in place; this only makes it durable
}

}  // namespace

void RunExport(const Invocation& invocation) {
  if (invocation.names.size() != 1 || !invocation.file) {
    throw ToolError(Exit::kInvalidArgument,
                    "export takes one rule (-n) and one file (-f)");
  }
  const std::string& name = invocation.names[0];
  const std::string& target = *invocation.file;
  if (target.empty() || target[0] != '/' || target.back() == '/') {
    throw ToolError(Exit::kInvalidArgument,
                    "not an absolute file path: '" + target + "'");
  }
  const std::string dir = DirName(target);
  const std::string base = target.substr(target.find_last_of('/') + 1);
  if (base == "." || base == "..") {
    throw ToolError(Exit::kInvalidArgument,
                    "not a file path: '" + ShownObject(target) + "'");
  }
  const Directory directory(
      ::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (directory.fd() < 0) {
    CannotWrite(target, "no directory " + ShownObject(dir));
  }
  const auto real_dir = directory.Path();
  if (!real_dir) CannotWrite(target, "cannot resolve " + ShownObject(dir));
  CheckDirectory(target, *real_dir);
  // A rule exported into the configuration would become part of it (or,
  // in the rules directory, break the rule set); that is what add is for.
  // The install-root rule above already covers it unless the configuration
  // lives elsewhere.
  std::string config_dir = ConfigDir();
  if (config_dir.size() > 1 && config_dir.back() == '/') config_dir.pop_back();
  const auto real_config = Canonical(config_dir);
  if (real_config && IsWithin(*real_dir, *real_config)) {
    Refused(target, "it is inside " + config_dir);
  }
  struct stat existing;
  if (::fstatat(directory.fd(), base.c_str(), &existing,
                AT_SYMLINK_NOFOLLOW) == 0 &&
      !S_ISREG(existing.st_mode)) {
    CannotWrite(target, "it exists and is not a regular file");
  }

  if (!AecRule::IsExist(name)) {
    throw ToolError(Exit::kRuleMissing, "no such rule: " + name, {name});
  }
  const std::string path = AecRule::GetPath(name);
  try {
    // Read through the plug-in's record first: a damaged rule is not
    // handed out as if it were one.
    if (AecRule(path).Name() != name) {
      throw ToolError(Exit::kConfigInvalid,
                      "the file of " + name + " holds another rule", {path});
    }
  } catch (const PluginException&) {
    throw ToolError(Exit::kConfigInvalid, "invalid rule file " + path,
                    {path});
  }
  std::ifstream in(path, std::ios::binary);
  const std::string content((std::istreambuf_iterator<char>(in)),
                            std::istreambuf_iterator<char>());
  if (!in.is_open() || in.bad()) {
    throw ToolError(Exit::kConfigInvalid, "cannot read " + path, {path});
  }
  WriteInto(directory, base, content, target);
}

}  // namespace aectool
