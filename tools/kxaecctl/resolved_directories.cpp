#include "resolved_directories.h"

#include <limits.h>
#include <stdlib.h>

namespace aectool {

std::optional<std::string> ResolvedDirectories::Resolve(
    const std::string& dir) {
  auto found = known_.find(dir);
  if (found == known_.end()) {
    char buffer[PATH_MAX];
    std::optional<std::string> resolved;
    if (::realpath(dir.c_str(), buffer) != nullptr) resolved = buffer;
    found = known_.emplace(dir, std::move(resolved)).first;
  }
  return found->second;
}

std::optional<std::string> ResolvedDirectories::FileIn(
    const std::string& path) {
  const auto slash = path.rfind('/');
  const std::optional<std::string> parent =
      Resolve(slash == 0 ? "/" : path.substr(0, slash));
  if (!parent) return std::nullopt;
  return (*parent == "/" ? "" : *parent) + path.substr(slash);
}

}  // namespace aectool
