#include "rule_source.h"

#include <sys/stat.h>

#include <exception>
#include <utility>

#include "aec_loaded_set.h"

namespace aec::engine {

const char kLoadedSetPath[] = "/opt/korvex/var/lib/aec/loaded-rules";

RuleSetInput InputFromLoadedSet(aec::LoadedSet set) {
  RuleSetInput input;
  input.rules.reserve(set.rules.size());
  for (aec::LoadedRule &in : set.rules) {
    RuleSetInput::Rule rule;
    rule.name = std::move(in.name);
    rule.enabled = in.enable;
    rule.all_users = in.all_users;
    rule.extended = in.extended;
    for (const auto &user : in.users)
      rule.uids.push_back(user.id);
    for (const auto &group : in.groups)
      rule.gids.push_back(group.id);
    rule.resources = std::move(in.resources);
    input.rules.push_back(std::move(rule));
  }
  for (const auto &user : set.whitelist_users)
    input.whitelist_uids.push_back(user.id);
  for (const auto &group : set.whitelist_groups)
    input.whitelist_gids.push_back(group.id);
  input.exceptions = std::move(set.exceptions);
  return input;
}

bool ReadRuleSetFile(const std::string &path, RuleSetInput *input,
                     std::string *why) {
  try {
    struct stat st;
    std::string version;
    if (stat(path.c_str(), &st) == 0) {
      version = std::to_string(st.st_mtim.tv_sec) + "." +
                std::to_string(st.st_mtim.tv_nsec / 1000000) + "-" +
                std::to_string(st.st_size);
    }
    RuleSetInput parsed = InputFromLoadedSet(aec::ReadLoadedSetFile(path));
    parsed.version = version;
    *input = std::move(parsed);
    return true;
  } catch (const std::exception &e) {
    *why = e.what();
    return false;
  }
}

} // namespace aec::engine
