// export: writes one rule's file to a file the caller names.
#include <limits.h>
#include <stdlib.h>

#include <fstream>
#include <iterator>
#include <optional>
#include <string>
#include <system_error>

#include "aec_rule.h"
#include "commands.h"
#include "host/errors.h"
#include "host/file_util.h"
#include "tool_error.h"
#include "tool_paths.h"

namespace aectool {
namespace {

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
  const auto real_dir = Canonical(dir);
  if (!real_dir) {
    throw ToolError(Exit::kConfigWrite,
                    "cannot write " + target + ": no directory " + dir);
  }
  // A rule exported into the configuration would become part of it (or,
  // in the rules directory, break the rule set); that is what add is for.
  std::string config_dir = ConfigDir();
  if (config_dir.size() > 1 && config_dir.back() == '/') config_dir.pop_back();
  const auto real_config = Canonical(config_dir);
  if (real_config && IsWithin(*real_dir, *real_config)) {
    throw ToolError(Exit::kInvalidArgument,
                    "will not export into " + config_dir + ": " + target);
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
  try {
    kxfs::ReplaceFile(target, content, dir, 0644);
  } catch (const std::system_error& e) {
    throw ToolError(Exit::kConfigWrite,
                    std::string("cannot write ") + target + ": " + e.what());
  }
}

}  // namespace aectool
