// Canonical paths of files that share a few directories: the package lists
// of a baseline and the libraries of a proposal name thousands of files in
// the same directories, and realpath reads every link on the way for each.
// A directory is resolved once; a file that is not a link itself is then its
// directory's real path and its own name.
//
// Not thread-safe: one object per thread, or a lock around it.
#pragma once

#include <optional>
#include <string>
#include <unordered_map>

namespace aectool {

class ResolvedDirectories {
 public:
  // realpath of `dir`, remembered; nullopt when it cannot be resolved.
  std::optional<std::string> Resolve(const std::string& dir);

  // The canonical path of `path`, an absolute path to a file known not to
  // be a symbolic link itself: its directory resolved, and its own name.
  std::optional<std::string> FileIn(const std::string& path);

 private:
  std::unordered_map<std::string, std::optional<std::string>> known_;
};

}  // namespace aectool
