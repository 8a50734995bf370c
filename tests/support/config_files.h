// The plug-in's configuration files as tests write them: rule files and the
// whitelist in the layout the plug-in's writers use, so that a test can put
// a file in place or compare one with what the plug-in wrote.
#pragma once

#include <boost/property_tree/ptree.hpp>
#include <set>
#include <string>
#include <vector>

namespace kxtest {

struct RuleSpec {
  std::string name;
  bool all_allowed = false;
  bool extended = false;
  bool system = false;
  bool enable = true;
  std::vector<std::string> users = {};
  std::vector<std::string> groups = {};
  std::vector<std::string> resources = {};
};

// The rule as a tree in the rule file's shape: every scalar a string (flags
// "true"/"false"), lists as arrays, an empty list as "".
boost::property_tree::ptree RuleTree(const RuleSpec& rule);
// The rule as JSON text, as the rule writer lays it out.
std::string RuleJson(const RuleSpec& rule);
// The whitelist file as the plug-in writes it.
std::string WhitelistJson(const std::vector<std::string>& users,
                          const std::vector<std::string>& groups);
// The names of the entries of /opt/korvex/etc/aec/rules, sorted.
std::set<std::string> RuleFiles();

}  // namespace kxtest
