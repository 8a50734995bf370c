#include "loaded_set.h"

#include <sys/stat.h>

#include <algorithm>
#include <boost/filesystem.hpp>
#include <fstream>
#include <iterator>
#include <sstream>
#include <system_error>
#include <vector>

#include "accounts.h"
#include "host/file_util.h"
#include "host/line_escape.h"
#include "resources.h"
#include "rule_edit.h"
#include "tool_error.h"
#include "tool_paths.h"

namespace aectool {
namespace {

constexpr const char* kHeader =
    "# Application execution control: the loaded rule set.\n"
    "# Written by kxaecctl; docs/tools.md describes it. Do not edit.\n"
    "format\t1\n";

std::string Record(std::initializer_list<std::string> fields) {
  std::string line;
  for (const auto& field : fields) {
    if (!line.empty()) line += '\t';
    line += kxtext::EscapeLine(field);
  }
  return line + "\n";
}

std::string Bit(bool flag) { return flag ? "1" : "0"; }

template <typename T>
void AddMissing(std::vector<std::string>* missing, const T& names,
                bool (*known)(const std::string&)) {
  for (const auto& name : names) {
    if (!known(name) &&
        std::find(missing->begin(), missing->end(), name) == missing->end()) {
      missing->push_back(name);
    }
  }
}

bool KnownUser(const std::string& name) { return UserId(name).has_value(); }
bool KnownGroup(const std::string& name) { return GroupId(name).has_value(); }

void RequireKnown(const std::vector<std::string>& unknown, ExitCode code,
                  const char* what) {
  if (!unknown.empty()) {
    throw ToolError(code, WithObjects(what, unknown), unknown);
  }
}

std::string WhitelistRecords(const UsersAndGroups& whitelist) {
  std::vector<std::string> unknown_users, unknown_groups;
  AddMissing(&unknown_users, whitelist.users, KnownUser);
  RequireKnown(unknown_users, KxAecCtl::kUsersNotFound, "users not found");
  AddMissing(&unknown_groups, whitelist.groups, KnownGroup);
  RequireKnown(unknown_groups, KxAecCtl::kGroupsNotFound, "groups not found");
  std::string text;
  for (const auto& user : whitelist.users) {
    text += Record({"whitelist-user", std::to_string(*UserId(user)), user});
  }
  for (const auto& group : whitelist.groups) {
    text += Record({"whitelist-group", std::to_string(*GroupId(group)), group});
  }
  return text;
}

[[noreturn]] void KernelError(const std::string& reason) {
  throw ToolError(KxAecCtl::kKernelInteraction, reason);
}

}  // namespace

std::string CompileLoadedSet(const Configuration& config) {
  // Everything is checked before anything is compiled, so the objects of
  // one code are reported together: users, then groups, then resources.
  std::vector<std::string> unknown_users, unknown_groups, missing;
  for (const auto& [name, rule] : config.Rules()) {
    const RuleEdit edit(rule);
    AddMissing(&unknown_users, edit.List(rule_key::kUsers), KnownUser);
    AddMissing(&unknown_groups, edit.List(rule_key::kGroups), KnownGroup);
    AddMissing(&missing, edit.List(rule_key::kResources), ResourceExists);
  }
  AddMissing(&unknown_users, config.Whitelist().users, KnownUser);
  AddMissing(&unknown_groups, config.Whitelist().groups, KnownGroup);
  RequireKnown(unknown_users, KxAecCtl::kUsersNotFound, "users not found");
  RequireKnown(unknown_groups, KxAecCtl::kGroupsNotFound, "groups not found");
  RequireKnown(missing, KxAecCtl::kResourceMissing, "resources do not exist");

  std::string text = kHeader;
  for (const auto& [name, rule] : config.Rules()) {
    const RuleEdit edit(rule);
    text += Record({"rule", name, Bit(edit.Flag(rule_key::kEnable)),
                    Bit(edit.Flag(rule_key::kAllAllowed)),
                    Bit(edit.Flag(rule_key::kExtended)),
                    Bit(edit.Flag(rule_key::kSystem))});
    for (const auto& user : edit.List(rule_key::kUsers)) {
      text += Record({"rule-user", name, std::to_string(*UserId(user)), user});
    }
    for (const auto& group : edit.List(rule_key::kGroups)) {
      text +=
          Record({"rule-group", name, std::to_string(*GroupId(group)), group});
    }
    for (const auto& resource : edit.List(rule_key::kResources)) {
      text += Record({"rule-resource", name, resource});
    }
  }
  text += WhitelistRecords(config.Whitelist());
  for (const auto& exception : config.Exceptions()) {
    text += Record({"exception", exception});
  }
  return text;
}

std::string ReplaceWhitelist(const std::string& previous,
                             const UsersAndGroups& whitelist) {
  std::string rules, exceptions;
  bool have_format = false;
  std::istringstream in(previous);
  for (std::string line; std::getline(in, line);) {
    if (line.empty() || line[0] == '#') continue;
    const std::string kind = line.substr(0, line.find('\t'));
    if (kind == "format") {
      if (line != "format\t1") KernelError("unknown loaded set " + line);
      have_format = true;
    } else if (kind == "rule" || kind == "rule-user" || kind == "rule-group" ||
               kind == "rule-resource") {
      rules += line + "\n";
    } else if (kind == "exception") {
      exceptions += line + "\n";
    } else if (kind != "whitelist-user" && kind != "whitelist-group") {
      KernelError("damaged loaded set " + LoadedSetPath());
    }
  }
  if (!have_format) KernelError("damaged loaded set " + LoadedSetPath());
  return kHeader + rules + WhitelistRecords(whitelist) + exceptions;
}

std::optional<std::string> ReadLoadedSet() {
  struct stat info;
  if (::stat(LoadedSetPath().c_str(), &info) != 0 && errno == ENOENT) {
    return std::nullopt;
  }
  std::ifstream in(LoadedSetPath(), std::ios::binary);
  std::string text((std::istreambuf_iterator<char>(in)),
                   std::istreambuf_iterator<char>());
  if (!in.is_open() || in.bad() || !S_ISREG(info.st_mode)) {
    KernelError("cannot read the loaded set " + LoadedSetPath());
  }
  return text;
}

void WriteLoadedSet(const std::string& text) {
  boost::system::error_code ec;
  boost::filesystem::create_directories(LoadedSetDir(), ec);
  try {
    kxfs::ReplaceFile(LoadedSetPath(), text, LoadedSetDir(), 0644);
  } catch (const std::system_error& e) {
    KernelError(std::string("cannot load the rule set: ") + e.what());
  }
}

}  // namespace aectool
