#include "aec_rule_batch.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <boost/property_tree/json_parser.hpp>
#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

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

constexpr const char* kStagingPrefix = ".rules-batch.";

// Removes a staging directory and what it holds (only plain entries).
void RemoveStaging(const std::string& dir) {
  if (DIR* handle = ::opendir(dir.c_str())) {
    while (const dirent* entry = ::readdir(handle)) {
      const std::string name = entry->d_name;
      if (name != "." && name != "..") ::unlink((dir + "/" + name).c_str());
    }
    ::closedir(handle);
  }
  ::rmdir(dir.c_str());
}

}  // namespace

namespace aec {

// A batch of a process that was killed leaves its staging directory behind
// (up to one temporary per rule). Only directories of processes that no
// longer exist are taken: a batch running in another process keeps its own.
void RemoveStaleRuleBatches() {
  DIR* handle = ::opendir(aec::kConfigDir.c_str());
  if (handle == nullptr) return;
  std::vector<std::string> stale;
  while (const dirent* entry = ::readdir(handle)) {
    const std::string name = entry->d_name;
    if (name.compare(0, std::strlen(kStagingPrefix), kStagingPrefix) != 0) {
      continue;
    }
    const std::string digits = name.substr(std::strlen(kStagingPrefix));
    if (digits.empty() ||
        digits.find_first_not_of("0123456789") != std::string::npos ||
        digits.size() > 9) {
      continue;
    }
    const pid_t pid = static_cast<pid_t>(std::stol(digits));
    if (::kill(pid, 0) != 0 && errno == ESRCH) {
      stale.push_back(aec::kConfigDir + name);
    }
  }
  ::closedir(handle);
  for (const std::string& dir : stale) RemoveStaging(dir);
}

}  // namespace aec

namespace {

// The temporaries of one batch, in a staging directory of this process
// beside the rules directory (same file system, never read as rules);
// those not yet renamed, and the directory, are removed on every way out.
class Temporaries {
 public:
  Temporaries()
      : dir_(aec::kConfigDir + kStagingPrefix + std::to_string(::getpid())) {}
  ~Temporaries() {
    for (std::size_t i = renamed_; i < paths_.size(); ++i) {
      ::unlink(paths_[i].c_str());
    }
    if (made_) ::rmdir(dir_.c_str());
  }
  Temporaries(const Temporaries&) = delete;
  Temporaries& operator=(const Temporaries&) = delete;

  // Makes the staging directory; false on failure.
  bool Open() {
    aec::RemoveStaleRuleBatches();
    // A directory of this very process can only be a leftover of a batch
    // whose clean-up failed.
    RemoveStaging(dir_);
    made_ = ::mkdir(dir_.c_str(), 0700) == 0;
    return made_;
  }

  // Writes `content` to the batch's next temporary; false on failure.
  bool Write(const std::string& content) {
    const std::string name = dir_ + "/" + std::to_string(paths_.size());
    const int fd =
        ::open(name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
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
  std::string dir_;
  bool made_ = false;
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
  if (!temporaries.Open()) WriteError(AecRule::GetPath(rules.front()->Name()));
  for (const AecRule* rule : rules) {
    const std::string path = AecRule::GetPath(rule->Name());
    if (!temporaries.Write(rule->ToJson())) WriteError(path);
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
