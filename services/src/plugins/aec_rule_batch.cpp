#include "aec_rule_batch.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <boost/property_tree/json_parser.hpp>
#include <cerrno>
#include <string>

#include "aec_paths.h"

namespace pt = boost::property_tree;

namespace {

[[noreturn]] void WriteError(const std::string& path) {
  throw pt::json_parser_error("write error", path, 0);
}

bool WriteAll(int fd, const std::string& content) {
  const char* data = content.data();
  std::size_t left = content.size();
  while (left > 0) {
    const ssize_t written = ::write(fd, data, left);
    if (written < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    data += written;
    left -= static_cast<std::size_t>(written);
  }
  return true;
}

// The temporaries of one batch; those not yet renamed are removed on every
// way out.
class Temporaries {
 public:
  ~Temporaries() {
    for (std::size_t i = renamed_; i < paths_.size(); ++i) {
      ::unlink(paths_[i].c_str());
    }
  }

  // Writes `content` to a new temporary for `target`; false on failure.
  bool Write(const std::string& target, const std::string& content) {
    const auto slash = target.find_last_of('/');
    std::string name =
        aec::kConfigDir + "." + target.substr(slash + 1) + ".XXXXXX";
    const int fd = ::mkostemp(&name[0], O_CLOEXEC);
    if (fd < 0) return false;
    paths_.push_back(name);
    const bool written = WriteAll(fd, content) && ::fchmod(fd, 0644) == 0;
    return ::close(fd) == 0 && written;
  }

  // Renames the next temporary over `target`.
  bool RenameNext(const std::string& target) {
    if (::rename(paths_[renamed_].c_str(), target.c_str()) != 0) return false;
    ++renamed_;
    return true;
  }

 private:
  std::vector<std::string> paths_;
  std::size_t renamed_ = 0;
};

void FlushDirectory(const std::string& dir) {
  const int fd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return;
  // The new contents are in place already; a directory that cannot be
  // flushed is no reason to report them as not written.
  ::fsync(fd);
  ::close(fd);
}

}  // namespace

namespace aec {

void SaveRuleFiles(const std::vector<const AecRule*>& rules) {
  if (rules.empty()) return;
  for (const AecRule* rule : rules) {
    if (!AecRule::IsValidName(rule->Name())) {
      WriteError(AecRule::GetPath(rule->Name()));
    }
  }

  Temporaries temporaries;
  for (const AecRule* rule : rules) {
    const std::string path = AecRule::GetPath(rule->Name());
    if (!temporaries.Write(path, rule->ToJson())) WriteError(path);
  }

  // One flush for every temporary of the batch, before any of them is
  // renamed into place.
  const int dir =
      ::open(kConfigDir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  const bool flushed = dir >= 0 && ::syncfs(dir) == 0;
  if (dir >= 0) ::close(dir);
  if (!flushed) WriteError(AecRule::GetPath(rules.front()->Name()));

  for (const AecRule* rule : rules) {
    const std::string path = AecRule::GetPath(rule->Name());
    if (!temporaries.RenameNext(path)) WriteError(path);
  }
  FlushDirectory(kRulesDir);
}

}  // namespace aec
