#include "configuration.h"

#include <sys/stat.h>

#include <algorithm>
#include <boost/filesystem.hpp>
#include <boost/property_tree/json_parser.hpp>
#include <iostream>
#include <vector>

#include "aec_config_read.h"
#include "aec_exceptions_file.h"
#include "aec_whitelist_file.h"
#include "host/errors.h"
#include "json_config_file.h"
#include "rule_edit.h"
#include "tool_error.h"
#include "tool_paths.h"

namespace aectool {
namespace {

namespace fs = boost::filesystem;
namespace pt = boost::property_tree;

constexpr const char* kRuleSuffix = ".conf";

bool Exists(const std::string& path) {
  struct stat info;
  return ::lstat(path.c_str(), &info) == 0;
}

void Refuse(const std::string& path, const std::string& why) {
  std::cerr << "kxaecctl: " << path << ": " << why << "\n";
}

// The rule named by a rules-directory entry, or the empty string when the
// entry cannot be a rule file.
std::string RuleNameOf(const fs::directory_entry& entry) {
  const std::string file = entry.path().filename().string();
  const std::size_t suffix = std::char_traits<char>::length(kRuleSuffix);
  if (file.size() <= suffix ||
      file.compare(file.size() - suffix, suffix, kRuleSuffix) != 0) {
    return "";
  }
  return file.substr(0, file.size() - suffix);
}

// Reads a JSON file of at most `max_bytes` into `tree`; false (the reason
// on standard error) when it is not a regular file, too large or does not
// parse.
bool ReadJson(const std::string& path, std::size_t max_bytes, pt::ptree* tree) {
  try {
    *tree = aec::ReadJsonConfigFile(path, max_bytes);
    return true;
  } catch (const aec::ConfigReadError& e) {
    std::cerr << "kxaecctl: " << e.what() << "\n";
    return false;
  } catch (const pt::json_parser_error& e) {
    Refuse(path, e.what());
    return false;
  }
}

// Reads the JSON file `path` (at most `max_bytes`) and fills `*model` from
// its tree with `from_tree`; false (the reason on standard error) when the
// file does not parse or its tree is not the model's (missing files are the
// caller's to tell apart).
template <class Model, class FromTree>
bool ReadModel(const std::string& path, std::size_t max_bytes,
               FromTree from_tree, Model* model) {
  pt::ptree tree;
  if (!ReadJson(path, max_bytes, &tree)) return false;
  try {
    *model = from_tree(tree);
    return true;
  } catch (const std::exception& e) {
    Refuse(path, e.what());
    return false;
  }
}

bool ReadWhitelist(UsersAndGroups* whitelist) {
  return ReadModel(
      WhitelistPath(), aec::kMaxWhitelistFileBytes,
      [](const pt::ptree& tree) { return aec::WhitelistOf(tree); }, whitelist);
}

bool ReadExceptions(std::set<std::string>* exceptions) {
  return ReadModel(
      ExceptionsPath(), aec::kMaxExceptionsFileBytes,
      [](const pt::ptree& tree) {
        const auto paths = aec::ExceptionsOf(tree);
        return std::set<std::string>(paths.begin(), paths.end());
      },
      exceptions);
}

[[noreturn]] void Missing(const std::string& path) {
  throw ToolError(Exit::kConfigMissing, "no such file: " + path);
}

[[noreturn]] void Invalid(const std::vector<std::string>& files) {
  throw ToolError(Exit::kConfigInvalid,
                  WithObjects("invalid configuration", files), files);
}

[[noreturn]] void CannotWrite(const std::string& what) {
  throw ToolError(Exit::kConfigWrite, "cannot write " + what);
}

}  // namespace

Configuration Configuration::Load() {
  Configuration config;
  boost::system::error_code ec;
  if (!fs::is_directory(RulesDir(), ec)) Missing(RulesDir());
  if (!Exists(WhitelistPath())) Missing(WhitelistPath());

  std::vector<std::string> invalid;
  std::vector<fs::directory_entry> entries;
  for (const auto& entry : fs::directory_iterator(RulesDir())) {
    entries.push_back(entry);
  }
  // Reported in name order, whatever order the directory has.
  std::sort(entries.begin(), entries.end(),
            [](const fs::directory_entry& a, const fs::directory_entry& b) {
              return a.path().filename() < b.path().filename();
            });
  for (const auto& entry : entries) {
    const std::string path = entry.path().string();
    const std::string name = RuleNameOf(entry);
    // The plug-in reads every entry of the directory as a rule; anything
    // that is not one would break its next read.
    if (name.empty() || !fs::is_regular_file(entry.status(ec))) {
      Refuse(path, "not a rule file (<name>.conf)");
      invalid.push_back(path);
      continue;
    }
    try {
      AecRule rule(path);
      if (rule.Name() != name) {
        Refuse(path,
               "holds the rule '" + rule.Name() + "', not '" + name + "'");
        invalid.push_back(path);
        continue;
      }
      config.rules_.emplace(name, rule);
    } catch (const PluginException&) {
      // AecRule has logged why, and the log reaches standard error.
      invalid.push_back(path);
    }
  }
  if (!ReadWhitelist(&config.whitelist_)) invalid.push_back(WhitelistPath());
  if (Exists(ExceptionsPath()) && !ReadExceptions(&config.exceptions_)) {
    invalid.push_back(ExceptionsPath());
  }
  if (!invalid.empty()) Invalid(invalid);
  return config;
}

UsersAndGroups Configuration::LoadWhitelist() {
  if (!Exists(WhitelistPath())) Missing(WhitelistPath());
  UsersAndGroups whitelist;
  if (!ReadWhitelist(&whitelist)) Invalid({WhitelistPath()});
  return whitelist;
}

void Configuration::RequireChangeable(
    const std::vector<std::string>& names) const {
  std::vector<std::string> missing, system;
  const auto add_once = [](std::vector<std::string>& list,
                           const std::string& name) {
    if (std::find(list.begin(), list.end(), name) == list.end()) {
      list.push_back(name);
    }
  };
  for (const auto& name : names) {
    const AecRule* rule = FindRule(name);
    if (rule == nullptr) {
      add_once(missing, name);
    } else if (rule->System()) {
      add_once(system, name);
    }
  }
  if (!missing.empty()) {
    throw ToolError(Exit::kRuleMissing,
                    WithObjects("no such rules", missing), missing);
  }
  if (!system.empty()) {
    throw ToolError(Exit::kSystemRule,
                    WithObjects("system rules cannot be changed", system),
                    system);
  }
}

const AecRule* Configuration::FindRule(const std::string& name) const {
  const auto found = rules_.find(name);
  return found == rules_.end() ? nullptr : &found->second;
}

void Configuration::PutRule(const AecRule& rule) {
  rules_.insert_or_assign(rule.Name(), rule);
  rules_to_write_.insert(rule.Name());
  rules_to_remove_.erase(rule.Name());
}

void Configuration::RemoveRule(const std::string& name) {
  rules_.erase(name);
  rules_to_write_.erase(name);
  rules_to_remove_.insert(name);
}

void Configuration::SetWhitelist(const UsersAndGroups& whitelist) {
  whitelist_ = whitelist;
  whitelist_changed_ = true;
}

void Configuration::SetExceptions(const std::set<std::string>& exceptions) {
  exceptions_ = exceptions;
  exceptions_changed_ = true;
}

void Configuration::Save() {
  for (const auto& name : rules_to_write_) {
    try {
      rules_.at(name).Save();
    } catch (const pt::json_parser_error& e) {
      CannotWrite(std::string(e.what()));
    }
  }
  rules_to_write_.clear();
  for (const auto& name : rules_to_remove_) {
    AecRule::Delete(name);
    // Delete ignores failures by contract; the tool must not.
    if (Exists(AecRule::GetPath(name))) CannotWrite(AecRule::GetPath(name));
  }
  rules_to_remove_.clear();
  try {
    if (whitelist_changed_) {
      pt::ptree tree;
      tree.add_child("user_list", ListTree(whitelist_.users));
      tree.add_child("group_list", ListTree(whitelist_.groups));
      aec::WriteJsonConfig(WhitelistPath(), tree, ConfigDir());
      whitelist_changed_ = false;
    }
    if (exceptions_changed_) {
      aec::WriteExceptionsFile(exceptions_);
      exceptions_changed_ = false;
    }
  } catch (const pt::json_parser_error& e) {
    CannotWrite(std::string(e.what()));
  }
}

std::vector<std::string> Configuration::PendingPaths() const {
  std::vector<std::string> paths;
  for (const auto& name : rules_to_write_) {
    paths.push_back(AecRule::GetPath(name));
  }
  for (const auto& name : rules_to_remove_) {
    paths.push_back(AecRule::GetPath(name));
  }
  if (whitelist_changed_) paths.push_back(WhitelistPath());
  if (exceptions_changed_) paths.push_back(ExceptionsPath());
  return paths;
}

}  // namespace aectool
