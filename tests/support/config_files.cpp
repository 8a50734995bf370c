#include "config_files.h"

#include <boost/filesystem.hpp>
#include <boost/property_tree/json_parser.hpp>
#include <sstream>

namespace kxtest {
namespace {

namespace pt = boost::property_tree;

pt::ptree List(const std::vector<std::string>& items) {
  pt::ptree node;
  for (const auto& item : items) node.push_back({"", pt::ptree(item)});
  return node;
}

const char* Flag(bool flag) { return flag ? "true" : "false"; }

std::string Json(const pt::ptree& tree) {
  std::ostringstream out;
  pt::write_json(out, tree, true);
  return out.str();
}

}  // namespace

pt::ptree RuleTree(const RuleSpec& rule) {
  pt::ptree tree;
  tree.put("name", rule.name);
  tree.put("all_allowed", Flag(rule.all_allowed));
  tree.put("extended", Flag(rule.extended));
  tree.put("system", Flag(rule.system));
  tree.put("enable", Flag(rule.enable));
  tree.add_child("user_list", List(rule.users));
  tree.add_child("group_list", List(rule.groups));
  tree.add_child("resource_list", List(rule.resources));
  return tree;
}

std::string RuleJson(const RuleSpec& rule) { return Json(RuleTree(rule)); }

std::string WhitelistJson(const std::vector<std::string>& users,
                          const std::vector<std::string>& groups) {
  pt::ptree tree;
  tree.add_child("user_list", List(users));
  tree.add_child("group_list", List(groups));
  return Json(tree);
}

std::set<std::string> RuleFiles() {
  std::set<std::string> names;
  for (const auto& entry :
       boost::filesystem::directory_iterator("/opt/korvex/etc/aec/rules")) {
    names.insert(entry.path().filename().string());
  }
  return names;
}

}  // namespace kxtest
