// Turning -r and -f into the resource paths of a rule or of the exception
// list.
#pragma once

#include <optional>
#include <set>
#include <string>
#include <vector>

namespace aectool {

struct ResourceRequest {
  std::vector<std::string> paths;        // -r, as given
  std::optional<std::string> list_file;  // -f: one path per line
  bool recursive = false;                // -R
  bool dependencies = false;             // add what programs load (not -d)
  // The caller has found every path to be an existing file that is not a
  // directory (propose checks each path of a journal once for all of its
  // proposals); they are then taken without being looked at again.
  bool checked_files = false;
  // Where names that cannot be found go, in the order found, instead of
  // standard error: propose builds rules on several threads and reports
  // in program order. Not owned; null means standard error.
  std::vector<std::string>* unresolved = nullptr;
};

// The resources the request stands for:
//  - every path must be absolute and exist (symbolic links followed);
//  - a directory stands for the regular files directly in it, with
//    `recursive` for every regular file beneath it (links to directories
//    are not followed);
//  - with `dependencies`, what each file loads (FindDependencies) is added;
//    names that cannot be found are reported on standard error (or
//    appended to `unresolved`).
// Throws ToolError: kInvalidArgument for a relative path (in -r or in the
// list), kResourceMissing with every missing path (the list file itself
// when it cannot be read) as objects. May be empty (an empty directory or
// list).
std::set<std::string> CollectResources(const ResourceRequest& request);

// The lines of a resource list file: blanks around an entry dropped, blank
// lines and "#" comments skipped. Throws ToolError(kResourceMissing) when
// the file cannot be read.
std::vector<std::string> ReadResourceList(const std::string& path);

// True when something exists at `path` (links followed).
bool ResourceExists(const std::string& path);

}  // namespace aectool
